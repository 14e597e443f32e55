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

std::string local(const QString &path) {
    return path.toStdString();
}

} // namespace

class TestLog : public QObject {
    Q_OBJECT

private slots:
    void init() { QVERIFY(dir.isValid()); }
    void cleanup() { Logger::Destroy(); }

    void parseLine_data();
    void parseLine();
    void readTemplate();

    void levelsFromTemplate_data();
    void levelsFromTemplate();
    void disabledLoggerDropsMessages_data();
    void disabledLoggerDropsMessages();
    void lineFormat();
    void rotatesOnceWhenCrossingOneMebibyte();
    void rotationKeepsCountMinusOneArchives_data();
    void rotationKeepsCountMinusOneArchives();
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
    const auto row = [](const char *name, const QByteArray &line, int result,
                        const QByteArray &key = {}, const QByteArray &value = {},
                        bool preserve = false) {
        QTest::newRow(name) << line << preserve << result << key << value;
    };

    row("plain", "auto_updater=6\n", 1, "auto_updater", "6");
    row("blanks and comment", "  a.b-c_1 =\t7   # note\r\n", 1, "a.b-c_1", "7");
    row("single quoted", "k='a b'\n", 1, "k", "a b");
    row("double quoted kept", "k=\"a b\"\n", 1, "k", "\"a b\"", true);
    row("hash inside bare value", "k=a#b\n", 1, "k", "a#b");
    row("high bytes", "k=\xc3\xa9t\xc3\xa9\n", 1, "k", "\xc3\xa9t\xc3\xa9");
    row("comment line", "   # whole line\n", 0);
    row("blank line", " \t\n", 0);
    row("key then comment", "key#x\n", 0);
    row("key at end of file", "key", 0);
    row("key without equals", "key\n", -1);
    row("key blank comment", "key # x\n", -1);
    row("nothing after equals", "key=   \n", -1);
    row("unterminated quote", "key='abc\n", -1);
    row("second word", "key=a b\n", -1);
    row("tab then word", "key=a\tb\n", -1);
    row("text after quote", "key=\"a\"x\n", -1);
    row("delete ends value", "key=a\x7f\n", -1);
    row("bad key character", "ke/y=1\n", -1);
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

    writeFile(path("good"),
              "# levels\nauto_updater=7\n\nsystem_db_debug = 3 # quiet\nauto_updater=6\n");
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

// The level a template gives a component, and that exactly the messages at or
// below it are written.
// Levels stay with the process, so every row names components of its own.
void TestLog::levelsFromTemplate_data() {
    QTest::addColumn<QByteArray>("levels");
    QTest::addColumn<QByteArray>("component");
    QTest::addColumn<int>("level");

    const QByteArray two = "lvl_debug=7\nlvl_err=3 # quiet\n";
    QTest::newRow("set to debug") << two << QByteArray("lvl_debug") << 7;
    QTest::newRow("set to error") << two << QByteArray("lvl_err") << 3;
    QTest::newRow("unknown is warning") << two << QByteArray("lvl_unknown") << 4;
    QTest::newRow("one malformed line, no levels")
        << QByteArray("mal_one=7\nmal_two 7\nmal_three=7\n") << QByteArray("mal_one") << 4;
    QTest::newRow("non-numeric is 0") << QByteArray("nn_text=abc\n") << QByteArray("nn_text") << 0;
    QTest::newRow("numeric prefix counts")
        << QByteArray("nn_prefix=6x\n") << QByteArray("nn_prefix") << 6;
}

void TestLog::levelsFromTemplate() {
    QFETCH(QByteArray, levels);
    QFETCH(QByteArray, component);
    QFETCH(int, level);

    writeFile(path("tpl"), levels);
    QFile::remove(path("a.log"));
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(path("a.log")), local(path("tpl")), 5,
                                Logger::ThreadSafe),
             0);
    QCOMPARE(Logger::GetCompLevel(component.toStdString()), level);
    QByteArray expected;
    for (int l = Logger::L_EMERG; l <= Logger::L_DEBUG; ++l) {
        const auto at = static_cast<Logger::Level>(l);
        QCOMPARE(Logger::IsNeedToLog(at, component.toStdString()), l <= level);
        Logger::LogMsg(at, component.toStdString(), "level %d\n", l);
        if (l <= level)
            expected += "level " + QByteArray::number(l) + "\n";
    }
    QByteArray written;
    for (const QByteArray &line : readAll(path("a.log")).split('\n')) {
        if (!line.isEmpty())
            written += line.mid(16) + "\n"; // without the time stamp
    }
    QCOMPARE(written, expected);
}

// Once the logger failed to start or was shut down, nothing is written.
void TestLog::disabledLoggerDropsMessages_data() {
    QTest::addColumn<QByteArray>("how");
    QTest::newRow("empty path") << QByteArray("empty");
    QTest::newRow("missing folder") << QByteArray("missing");
    QTest::newRow("destroyed") << QByteArray("destroy");
}

void TestLog::disabledLoggerDropsMessages() {
    QFETCH(QByteArray, how);

    QCOMPARE(
        Logger::Initialize(Logger::FILE_LOGGER, local(path("d.log")), "", 5, Logger::ThreadSafe),
        0);
    QLOG_ERROR("drop", "before");
    const QByteArray before = readAll(path("d.log"));
    QVERIFY(before.contains("before"));

    if (how == "destroy") {
        Logger::Destroy();
    } else {
        const std::string target = how == "empty" ? "" : local(path("no/such/dir/x.log"));
        QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, target, "", 5, Logger::ThreadSafe), -1);
    }
    QVERIFY(!Logger::IsNeedToLog(Logger::L_EMERG, "drop"));
    QLOG_ERROR("drop", "after");
    QCOMPARE(readAll(path("d.log")), before);
}

void TestLog::lineFormat() {
    QCOMPARE(
        Logger::Initialize(Logger::FILE_LOGGER, local(path("e.log")), "", 5, Logger::ThreadSafe),
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
    QCOMPARE(lines.at(0).mid(16), QByteArray("[ERROR] test_log.cpp(") + QByteArray::number(line) +
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

void TestLog::rotationKeepsCountMinusOneArchives_data() {
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("kept");
    QTest::newRow("count 1 keeps one") << 1 << 1;
    QTest::newRow("count 3 keeps two") << 3 << 2;
}

// <log>_0 is the newest archive; whatever sat in the slot past the kept ones
// is gone.
void TestLog::rotationKeepsCountMinusOneArchives() {
    QFETCH(int, count);
    QFETCH(int, kept);

    const QString log = path("rot.log");
    writeFile(log + QStringLiteral("_%1").arg(count - 1), "stale archive\n");
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER, local(log), "", count, Logger::ThreadSafe), 0);
    const int generations = 4;
    for (int generation = 0; generation < generations; ++generation) {
        Logger::LogMsg(Logger::L_ERR, "rot", "generation %d\n", generation);
        QCOMPARE(Logger::Rotate(), 0);
    }
    for (int i = 0; i < kept; ++i) {
        const QByteArray archive = readAll(log + QStringLiteral("_%1").arg(i));
        QCOMPARE(archive.count('\n'), 1);
        QVERIFY(archive.endsWith("generation " + QByteArray::number(generations - 1 - i) + "\n"));
    }
    QVERIFY(!QFile::exists(log + QStringLiteral("_%1").arg(kept)));
    QCOMPARE(readAll(log), QByteArray());
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
