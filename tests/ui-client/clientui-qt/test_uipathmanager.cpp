#include "uipathmanager.h"

#include <QtTest>

#include <thread>
#include <vector>

class TestUIPathManager : public QObject {
    Q_OBJECT

private slots:
    void oneRegistryForTheWholeProcess();
    void setPathReplacesOnlyItsKey();
    void unknownKeyIsEmpty();
    void concurrentWritersLoseNothing();
};

void TestUIPathManager::oneRegistryForTheWholeProcess() {
    UIPathManager *first = UIPathManager::getInstance();
    QVERIFY(first != nullptr);

    // Threads racing for the first use must still end up with one registry.
    std::vector<UIPathManager *> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = UIPathManager::getInstance(); });
    for (std::thread &t : threads)
        t.join();
    for (UIPathManager *p : seen)
        QCOMPARE(p, first);

    first->setPath(QStringLiteral("identity_key"), QStringLiteral("/opt/app"));
    QCOMPARE(UIPathManager::getInstance()->getPath(QStringLiteral("identity_key")),
             QStringLiteral("/opt/app"));
}

void TestUIPathManager::setPathReplacesOnlyItsKey() {
    UIPathManager *paths = UIPathManager::getInstance();
    paths->setPath(QStringLiteral("replace_a"), QStringLiteral("/opt/one"));
    paths->setPath(QStringLiteral("replace_b"), QStringLiteral("/opt/other"));
    paths->setPath(QStringLiteral("replace_a"), QStringLiteral("/opt/two"));

    QCOMPARE(paths->getPath(QStringLiteral("replace_a")), QStringLiteral("/opt/two"));
    QCOMPARE(paths->getPath(QStringLiteral("replace_b")), QStringLiteral("/opt/other"));

    // An empty path is a value like any other, not a removal.
    paths->setPath(QStringLiteral("replace_b"), QString());
    QVERIFY(paths->getPath(QStringLiteral("replace_b")).isEmpty());
    paths->setPath(QStringLiteral("replace_b"), QStringLiteral("/opt/back"));
    QCOMPARE(paths->getPath(QStringLiteral("replace_b")), QStringLiteral("/opt/back"));
}

void TestUIPathManager::unknownKeyIsEmpty() {
    UIPathManager *paths = UIPathManager::getInstance();
    paths->setPath(QStringLiteral("log_path"), QStringLiteral("/opt/log"));
    QVERIFY(paths->getPath(QStringLiteral("never_set")).isEmpty());
    // Keys are exact: another spelling is another key.
    QVERIFY(paths->getPath(QStringLiteral("LOG_PATH")).isEmpty());
    QVERIFY(paths->getPath(QStringLiteral("log_path ")).isEmpty());
}

void TestUIPathManager::concurrentWritersLoseNothing() {
    const int thread_count = 8;
    const int keys_per_thread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t) {
        threads.emplace_back([t] {
            UIPathManager *paths = UIPathManager::getInstance();
            for (int k = 0; k < keys_per_thread; ++k) {
                const QString key = QStringLiteral("concurrent_%1_%2").arg(t).arg(k);
                paths->setPath(key, QStringLiteral("/first/%1").arg(k));
                paths->setPath(key, QStringLiteral("/data/%1/%2").arg(t).arg(k));
                // Readers run alongside the writers of the other threads.
                if (paths->getPath(key) != QStringLiteral("/data/%1/%2").arg(t).arg(k))
                    return;
            }
        });
    }
    for (std::thread &t : threads)
        t.join();

    UIPathManager *paths = UIPathManager::getInstance();
    for (int t = 0; t < thread_count; ++t) {
        for (int k = 0; k < keys_per_thread; ++k) {
            QCOMPARE(paths->getPath(QStringLiteral("concurrent_%1_%2").arg(t).arg(k)),
                     QStringLiteral("/data/%1/%2").arg(t).arg(k));
        }
    }
}

QTEST_APPLESS_MAIN(TestUIPathManager)
#include "test_uipathmanager.moc"
