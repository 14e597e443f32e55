#include "uipathmanager.h"

#include <QtTest>

#include <thread>
#include <vector>

class TestUIPathManager : public QObject {
    Q_OBJECT

private slots:
    void oneRegistryForTheWholeProcess();
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
}

// Each key ends with the last value its thread wrote, none lost or mixed up
// while the other threads write theirs.
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
