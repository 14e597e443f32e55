#include "log/config.h"
#include "log/log.h"

#include <QtTest>

#include <thread>
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

    // Template -> levels of a and b; levels outlive Initialize, so '@' is a new prefix per row.
    void templateLevels() {
        const std::pair<const char *, QPair<int, int>> rows[] = {
            {"@a=7\n \t@b =\t3  # x\r\n", {7, 3}},
            {"# @b=1\n\n@a=2\n@b#x\n@a=6\n", {6, 4}},
            {"@a='5'\n@b=\"2\" # x\n", {5, 2}},
            {"@a=ab\xc3\xa9\n@b=6x\n", {0, 6}},
            {"@a=7\n@b 7\n", {4, 4}}, // one malformed line clears every level
        };
        int n = 0;
        for (const auto &[tpl, levels] : rows) {
            const std::string p = "r" + std::to_string(++n) + "_";
            const auto level = [&p](const char *c) { return Logger::GetCompLevel(p + c); };
            QFile t("tpl");
            QVERIFY(t.open(QFile::WriteOnly) && t.write(QByteArray(tpl).replace('@', p.c_str())));
            t.close();
            QCOMPARE(start("lv.log", 5, "tpl"), 0);
            QCOMPARE(QPair(level("a"), level("b")), levels);
        }
    }

    // Config: write() quotes what needs quotes; read back keeping them, it writes the same file.
    void configRoundTrip() {
        Config out, kept;
        for (const char *pair : {"e=", "f=Yes", "n=-7x", "q='x y'", "s=a b#c"})
            out[std::string(pair, 1)] = pair + 2;
        kept.set_preserve(true);
        QVERIFY(out.write("c.conf") == 0 && kept.read("c.conf") == 0 && kept.write("c.conf") == 0);
        QCOMPARE(slurp("c.conf"), "e=\"\"\nf=Yes\nn=-7x\nq='x y'\ns=\"a b#c\"\n");
        QVERIFY(out.get_int("n") == -7 && out.get_int("s", 5) == 5 && out.get_bool("f") &&
                !out.get_bool("e", true) && out.get_bool("x", true) && out.write("no/") == -1);
    }

    void unusablePathDropsMessages() {
        for (const char *bad : {"", "no/such/x.log"}) {
            QVERIFY(start("d.log", 5) == 0 && start(bad, 5) == -1);
            QLOG_ERROR("drop", "after");
        }
        QCOMPARE(slurp("d.log"), QByteArray());
    }

    // N slots keep N-1 archives, _0 the newest; one slot keeps _0 all the same.
    void rotation() {
        QCOMPARE(start("big.log", 3), 0);
        // Lines of 1024 bytes: 1024 make exactly 1 MiB, not yet past it.
        const std::string pad(1001, 'x');
        int n = 0;
        while (!QFile::exists("big.log_0") && n < 2000)
            Logger::LogMsg(Logger::L_ERR, "rot", "%05d %s\n", n++, pad.c_str());
        QCOMPARE(slurp("big.log_0").size(), 1025 * 1024);
        Logger::LogMsg(Logger::L_ERR, "rot", "after\n");
        Logger::LogMsg(Logger::L_INFO, "rot", "info\n"); // dropped: past the default WARNING
        QVERIFY(slurp("big.log").endsWith(" after\n") && !QFile::exists("big.log_1"));
        QVERIFY(Logger::Rotate() == 0 && Logger::Rotate() == 0);
        QVERIFY(slurp("big.log_1").endsWith(" after\n") && !QFile::exists("big.log_2"));

        QVERIFY(start("one.log", 1) == 0 && Logger::Rotate() == 0 && Logger::Rotate() == 0);
        QVERIFY(QFile::exists("one.log_0") && !QFile::exists("one.log_1"));
    }

    // Some three dozen rotations happen under this load: no line may be lost or torn.
    void concurrentWritersLoseNothing() {
        QCOMPARE(start("mt.log", 50), 0);
        std::vector<std::thread> workers;
        for (int t = 0; t < 8; ++t) {
            workers.emplace_back([t]() {
                for (int i = 0; i < 5000; ++i)
                    QLOG_ERROR("mt", "thread %d line %d %0900d end", t, i, 0);
            });
        }
        for (auto &w : workers)
            w.join();
        QStringList lines;
        for (const QString &name : QDir().entryList({"mt.log*"}))
            lines += QString::fromLatin1(slurp(name)).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 8 * 5000);
        const QRegularExpression whole("^.{16}\\[ERROR\\] \\S+: thread \\d line \\d+ 0{900} end$");
        QCOMPARE(lines.filter(whole).size(), lines.size());
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "test_log.moc"
