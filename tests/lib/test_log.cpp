#include "log/log.h"

#include <QtTest>

#include <thread>
#include <tuple>
#include <vector>

class TestLog : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    static QByteArray slurp(const QString &path) {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    static int start(const char *log, int count, const char *tpl = "") {
        return Logger::Initialize(Logger::FILE_LOGGER, log, tpl, count, Logger::ThreadSafe);
    }

private slots:
    void initTestCase() { QVERIFY(QDir::setCurrent(dir.path())); }
    void cleanup() { Logger::Destroy(); }

    // Template -> levels of components a and b. Levels outlive Initialize, so
    // each row's keys get a prefix of their own in place of '@'.
    void templateLevels() {
        const std::tuple<const char *, int, int> rows[] = {
            {"@a=7\n \t@b =\t3  # x\r\n", 7, 3},
            {"# @b=1\n\n@a=2\n@b#x\n@a=6\n", 6, 4},
            {"@a='5'\n@b=\"2\" # x\n", 5, 2},
            {"@a=ab\xc3\xa9\n@b=6x\n", 0, 6},
            {"@a=7\n@b 7\n", 4, 4}, // one malformed line clears every level
        };
        int n = 0;
        for (const auto &[tpl, a, b] : rows) {
            const QByteArray prefix = "r" + QByteArray::number(++n) + "_";
            QFile t("tpl");
            QVERIFY(t.open(QIODevice::WriteOnly) && t.write(QByteArray(tpl).replace('@', prefix)));
            t.close();
            QCOMPARE(start("lv.log", 5, "tpl"), 0);
            QCOMPARE(QPair(Logger::GetCompLevel((prefix + "a").toStdString()),
                           Logger::GetCompLevel((prefix + "b").toStdString())),
                     QPair(a, b));
        }
    }

    void unusablePathDropsMessages() {
        for (const char *bad : {"", "no/such/x.log"}) {
            QCOMPARE(start("d.log", 5), 0);
            QCOMPARE(start(bad, 5), -1);
            QLOG_ERROR("drop", "after");
        }
        QCOMPARE(slurp("d.log"), QByteArray());
    }

    // Three slots keep two archives, _0 the newest; one slot keeps _0 all the same.
    void rotation() {
        QCOMPARE(start("big.log", 3), 0);
        // With the stamp and the number a line is 1024 bytes: 1024 lines make
        // exactly 1 MiB, which is not yet past it, so the 1025th rotates.
        const std::string pad(1001, 'x');
        int n = 0;
        while (!QFile::exists("big.log_0") && n < 2000)
            Logger::LogMsg(Logger::L_ERR, "rot", "%05d %s\n", n++, pad.c_str());
        QCOMPARE(slurp("big.log_0").size(), 1025 * 1024);
        Logger::LogMsg(Logger::L_ERR, "rot", "after\n");
        Logger::LogMsg(Logger::L_INFO, "rot", "info\n"); // above the default WARNING
        QVERIFY(slurp("big.log").endsWith(" after\n") && !QFile::exists("big.log_1"));
        QVERIFY(Logger::Rotate() == 0 && Logger::Rotate() == 0);
        QVERIFY(slurp("big.log_1").endsWith(" after\n") && !QFile::exists("big.log_2"));

        QCOMPARE(start("one.log", 1), 0);
        QVERIFY(Logger::Rotate() == 0 && Logger::Rotate() == 0);
        QVERIFY(QFile::exists("one.log_0") && !QFile::exists("one.log_1"));
    }

    // Rotations happen under this load too: no line may be lost or torn.
    void concurrentWritersLoseNothing() {
        QCOMPARE(start("mt.log", 50), 0);
        std::vector<std::thread> workers;
        for (int t = 0; t < 8; ++t) {
            workers.emplace_back([t]() {
                for (int i = 0; i < 3000; ++i)
                    QLOG_ERROR("mt", "thread %d line %d %060d end", t, i, 0);
            });
        }
        for (auto &w : workers)
            w.join();
        QByteArray all = slurp("mt.log");
        for (int i = 0; i < 49; ++i)
            all += slurp(QString("mt.log_%1").arg(i));
        const QStringList lines = QString::fromLatin1(all).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 8 * 3000);
        const QRegularExpression whole("^.{16}\\[ERROR\\] \\S+: thread \\d line \\d+ 0{60} end$");
        QCOMPARE(lines.filter(whole).size(), lines.size());
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "test_log.moc"
