#include "log/config.h"
#include "log/log.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <string>
#include <thread>
#include <vector>

namespace {

QByteArray readAll(const QString &path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

void writeFile(const QString &path, const QByteArray &content) {
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(content), qint64(content.size()));
}

std::string local(const QString &path) { return path.toStdString(); }

} // namespace

class TestLog : public QObject {
    Q_OBJECT

private slots:
    void init() { QVERIFY(dir.isValid()); }
    void cleanup() { Logger::Destroy(); }

    void parseLine_data();
    void parseLine();
    void readTemplate();

    void levelsFromTemplate();
    void malformedTemplateYieldsNoLevels();
    void nonNumericValueIsLevelZero();
    void emptyPathFailsAndDropsMessages();
    void lineFormat();
    void rotatesOnceWhenCrossingOneMebibyte();
    void rotateCountOneKeepsOneArchive();
    void rotationKeepsCountMinusOneArchives();
    void destroyDropsMessages();
    void concurrentWritersLoseNothing();

private:
    QString path(const char *name) const { return dir.filePath(QString::fromLatin1(name)); }
    QTemporaryDir dir;
};

void TestLog::parseLine_data() {
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("preserve");
    QTest::addColumn<int>("result");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("value");

    QTest::newRow("plain") << QByteArray("auto_updater=6\n") << false << 1 << QByteArray("auto_updater") << QByteArray("6");
    QTest::newRow("blanks and comment") << QByteArray("  a.b-c_1 =\t7   # note\r\n") << false << 1 << QByteArray("a.b-c_1") << QByteArray("7");
    QTest::newRow("single quoted") << QByteArray("k='a b'\n") << false << 1 << QByteArray("k") << QByteArray("a b");
    QTest::newRow("double quoted kept") << QByteArray("k=\"a b\"\n") << true << 1 << QByteArray("k") << QByteArray("\"a b\"");
    QTest::newRow("hash inside bare value") << QByteArray("k=a#b\n") << false << 1 << QByteArray("k") << QByteArray("a#b");
    QTest::newRow("high bytes") << QByteArray("k=\xc3\xa9t\xc3\xa9\n") << false << 1 << QByteArray("k") << QByteArray("\xc3\xa9t\xc3\xa9");
    QTest::newRow("comment line") << QByteArray("   # whole line\n") << false << 0 << QByteArray() << QByteArray();
    QTest::newRow("blank line") << QByteArray(" \t\n") << false << 0 << QByteArray() << QByteArray();
    QTest::newRow("key then comment") << QByteArray("key#x\n") << false << 0 << QByteArray() << QByteArray();
    QTest::newRow("key at end of file") << QByteArray("key") << false << 0 << QByteArray() << QByteArray();
    QTest::newRow("key without equals") << QByteArray("key\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("key blank comment") << QByteArray("key # x\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("nothing after equals") << QByteArray("key=   \n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("unterminated quote") << QByteArray("key='abc\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("second word") << QByteArray("key=a b\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("tab then word") << QByteArray("key=a\tb\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("text after quote") << QByteArray("key=\"a\"x\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("delete ends value") << QByteArray("key=a\x7f\n") << false << -1 << QByteArray() << QByteArray();
    QTest::newRow("bad key character") << QByteArray("ke/y=1\n") << false << -1 << QByteArray() << QByteArray();
}

void TestLog::parseLine() {
    QFETCH(QByteArray, line);
    QFETCH(bool, preserve);
    QFETCH(int, result);
    Config config;
    config.set_preserve(preserve);
    std::string parsed_key, parsed_value;
    QCOMPARE(config.parse(line.constData(), parsed_key, parsed_value), result);
    if (result == 1) {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, value);
        QCOMPARE(QByteArray::fromStdString(parsed_key), key);
        QCOMPARE(QByteArray::fromStdString(parsed_value), value);
    }
}

void TestLog::readTemplate() {
    Config config;
    QCOMPARE(config.read(""), -1);
    QCOMPARE(config.read(local(path("missing"))), -1);

    writeFile(path("good"), "# levels\nauto_updater=7\n\nsystem_db_debug = 3 # quiet\nauto_updater=6\n");
    QCOMPARE(config.read(local(path("good"))), 0);
    QCOMPARE(int(config.size()), 2);
    QCOMPARE(config.get_int("auto_updater"), 6);
    QCOMPARE(config.get_int("system_db_debug"), 3);

    // One bad line anywhere throws away everything read so far.
    writeFile(path("bad"), "a=1\nb=2\nc\nd=4\n");
    Config other;
    QCOMPARE(other.read(local(path("bad"))), -1);
    QCOMPARE(int(other.size()), 0);

    // What write() produces reads back to the same pairs.
    Config written;
    written["x"] = "1";
    written["y"] = "two words";
    QCOMPARE(written.write(local(path("rt"))), 0);
    Config back;
    QCOMPARE(back.read(local(path("rt"))), 0);
    QCOMPARE(back["y"], std::string("two words"));
    QCOMPARE(back.get_int("x"), 1);
}

void TestLog::levelsFromTemplate() {
    writeFile(path("tpl"), "lvl_debug_comp=7\nlvl_err_comp=3\n");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("a.log")), local(path("tpl")), 5,
                                Logger::ThreadSafe),
             0);
    QCOMPARE(Logger::GetCompLevel("lvl_debug_comp"), 7);
    QCOMPARE(Logger::GetCompLevel("lvl_err_comp"), 3);
    QCOMPARE(Logger::GetCompLevel("default_component"), 4);
    QCOMPARE(Logger::GetCompLevel("lvl_unknown_comp"), 4);

    QLOG_DEBUG("lvl_debug_comp", "kept debug");
    QLOG_INFO("lvl_err_comp", "dropped info");
    QLOG_ERROR("lvl_err_comp", "kept error");
    QLOG_INFO("lvl_unknown_comp", "dropped unknown info");
    QLOG_WARNING("lvl_unknown_comp", "kept unknown warning");

    const QByteArray log = readAll(path("a.log"));
    QVERIFY(log.contains("kept debug"));
    QVERIFY(log.contains("kept error"));
    QVERIFY(log.contains("kept unknown warning"));
    QVERIFY(!log.contains("dropped"));
}

void TestLog::malformedTemplateYieldsNoLevels() {
    writeFile(path("tpl"), "mal_one=7\nmal_two 7\nmal_three=7\n");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("b.log")), local(path("tpl")), 5,
                                Logger::ThreadSafe),
             0);
    QCOMPARE(Logger::GetCompLevel("mal_one"), 4);
    QCOMPARE(Logger::GetCompLevel("mal_three"), 4);
    QVERIFY(!Logger::IsNeedToLog(Logger::L_INFO, "mal_one"));
}

void TestLog::nonNumericValueIsLevelZero() {
    writeFile(path("tpl"), "nn_comp=abc\nnn_partial=6x\n");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("c.log")), local(path("tpl")), 5,
                                Logger::ThreadSafe),
             0);
    QCOMPARE(Logger::GetCompLevel("nn_comp"), 0);
    QCOMPARE(Logger::GetCompLevel("nn_partial"), 6);
    QVERIFY(Logger::IsNeedToLog(Logger::L_EMERG, "nn_comp"));
    QVERIFY(!Logger::IsNeedToLog(Logger::L_ERR, "nn_comp"));
}

void TestLog::emptyPathFailsAndDropsMessages() {
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("d.log")), "", 5,
                                Logger::ThreadSafe),
             0);
    QLOG_ERROR("empty_path", "before");
    const QByteArray before = readAll(path("d.log"));
    QVERIFY(before.contains("before"));

    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, "", "", 5, Logger::ThreadSafe), -1);
    QVERIFY(!Logger::IsNeedToLog(Logger::L_EMERG, "empty_path"));
    QLOG_ERROR("empty_path", "after");
    QCOMPARE(readAll(path("d.log")), before);

    // A folder that does not exist fails the same way.
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("no/such/dir/x.log")), "", 5,
                                Logger::ThreadSafe),
             -1);
}

void TestLog::lineFormat() {
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("e.log")), "", 5,
                                Logger::ThreadSafe),
             0);
    const int line = __LINE__ + 1;
    QLOG_ERROR("fmt_comp", "value %d and %s.", 42, "text");
    QLOG_WARNING("fmt_comp", "plain");
    const QList<QByteArray> lines = readAll(path("e.log")).split('\n');
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.at(2).isEmpty());
    // "Mar 07 14:03:22 [ERROR] test_log.cpp(123): value 42 and text."
    const QRegularExpression stamp(QStringLiteral("^[A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d "));
    QVERIFY(stamp.match(QString::fromUtf8(lines.at(0))).hasMatch());
    QCOMPARE(lines.at(0).mid(16),
             QByteArray("[ERROR] test_log.cpp(") + QByteArray::number(line) +
                 "): value 42 and text.");
    QVERIFY(lines.at(1).mid(16).startsWith("[WARNING] test_log.cpp("));
}

void TestLog::rotatesOnceWhenCrossingOneMebibyte() {
    const QString log = path("rot.log");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(log), "", 50, Logger::ThreadSafe), 0);

    // Each line is stamp (16) + prefix + payload; write until the archive appears.
    const std::string payload(1000, 'x');
    int written = 0;
    while (!QFile::exists(log + "_0") && written < 2000) {
        Logger::LogMsg(Logger::L_ERR, "rot", "%05d %s\n", written, payload.c_str());
        ++written;
    }
    QVERIFY(QFile::exists(log + "_0"));
    QVERIFY(!QFile::exists(log + "_1"));

    const QByteArray archived = readAll(log + "_0");
    QVERIFY(archived.size() > Logger::ROTATE_SIZE);
    const QList<QByteArray> lines = archived.split('\n');
    const QByteArray last = lines.at(lines.size() - 2);
    // The write that crossed the threshold is the archive's last line.
    QVERIFY(last.contains(QByteArray::number(written - 1).rightJustified(5, '0')));
    QVERIFY(archived.size() - (last.size() + 1) <= Logger::ROTATE_SIZE);
    QCOMPARE(readAll(log).size(), 0);

    // The next line goes to a fresh live file, and no second rotation follows.
    Logger::LogMsg(Logger::L_ERR, "rot", "after\n");
    QVERIFY(readAll(log).contains("after"));
    QVERIFY(!QFile::exists(log + "_1"));
}

void TestLog::rotateCountOneKeepsOneArchive() {
    const QString log = path("one.log");
    writeFile(log + "_0", "stale archive\n");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(log), "", 1, Logger::ThreadSafe), 0);
    QLOG_ERROR("one", "first generation");
    QCOMPARE(Logger::Rotate(), 0);
    QByteArray archive = readAll(log + "_0");
    QVERIFY(archive.contains("first generation"));
    QVERIFY(!archive.contains("stale"));

    QLOG_ERROR("one", "second generation");
    QCOMPARE(Logger::Rotate(), 0);
    archive = readAll(log + "_0");
    QVERIFY(archive.contains("second generation"));
    QVERIFY(!archive.contains("first generation"));
    QVERIFY(!QFile::exists(log + "_1"));
}

void TestLog::rotationKeepsCountMinusOneArchives() {
    const QString log = path("three.log");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(log), "", 3, Logger::ThreadSafe), 0);
    for (int generation = 0; generation < 5; ++generation) {
        Logger::LogMsg(Logger::L_ERR, "three", "generation %d\n", generation);
        QCOMPARE(Logger::Rotate(), 0);
    }
    QVERIFY(readAll(log + "_0").contains("generation 4"));
    QVERIFY(readAll(log + "_1").contains("generation 3"));
    QVERIFY(!QFile::exists(log + "_2"));
}

void TestLog::destroyDropsMessages() {
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("f.log")), "", 5,
                                Logger::NonSafe),
             0);
    QLOG_ERROR("destroy", "kept");
    Logger::Destroy();
    QVERIFY(!Logger::IsNeedToLog(Logger::L_EMERG, "destroy"));
    QLOG_ERROR("destroy", "dropped");
    const QByteArray log = readAll(path("f.log"));
    QVERIFY(log.contains("kept"));
    QVERIFY(!log.contains("dropped"));
}

void TestLog::concurrentWritersLoseNothing() {
    const QString log = path("mt.log");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(log), "", 50, Logger::ThreadSafe), 0);
    const int threads = 8;
    const int per_thread = 3000;
    const std::string pad(60, '.');
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, &pad]() {
            for (int i = 0; i < per_thread; ++i)
                QLOG_ERROR("mt", "thread %d line %d %s end", t, i, pad.c_str());
        });
    }
    for (auto &w : workers)
        w.join();
    Logger::Destroy();

    // Gather the live file and any archive a rotation produced.
    QByteArray all;
    for (int i = 48; i >= 0; --i)
        all += readAll(log + QStringLiteral("_%1").arg(i));
    all += readAll(log);

    const QRegularExpression re(QStringLiteral(
        "^[A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d \\[ERROR\\] test_log\\.cpp\\(\\d+\\): thread "
        "(\\d) line (\\d+) \\.{60} end$"));
    QSet<QString> seen;
    for (const QByteArray &line : all.split('\n')) {
        if (line.isEmpty())
            continue;
        const QRegularExpressionMatch m = re.match(QString::fromLatin1(line));
        QVERIFY2(m.hasMatch(), line.constData());
        seen.insert(m.captured(1) + QLatin1Char('/') + m.captured(2));
    }
    QCOMPARE(seen.size(), threads * per_thread);
}

QTEST_GUILESS_MAIN(TestLog)
#include "test_log.moc"
