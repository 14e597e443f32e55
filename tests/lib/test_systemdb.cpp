#include "log/log.h"
#include "system-db/system-db.h"

#include <sqlite3.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// A connection of its own, as the client or a second process would have.
class Connection {
public:
    explicit Connection(const QString &path, bool create = false) {
        const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
        if (sqlite3_open_v2(path.toUtf8().constData(), &db, flags, nullptr) != SQLITE_OK) {
            error = QString::fromUtf8(sqlite3_errmsg(db));
            sqlite3_close(db);
            db = nullptr;
        }
    }
    ~Connection() { sqlite3_close(db); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    bool ok() const { return db != nullptr; }

    bool exec(const QByteArray &sql) {
        char *msg = nullptr;
        const int ret = sqlite3_exec(db, sql.constData(), nullptr, nullptr, &msg);
        if (ret != SQLITE_OK)
            error = QString::fromUtf8(msg ? msg : sqlite3_errmsg(db));
        sqlite3_free(msg);
        return ret == SQLITE_OK;
    }

    // Every row as its columns joined by '|', NULL shown as <null>.
    QStringList rows(const QByteArray &sql) {
        QStringList out;
        sqlite3_stmt *stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.constData(), -1, &stmt, nullptr) != SQLITE_OK) {
            error = QString::fromUtf8(sqlite3_errmsg(db));
            return {QStringLiteral("<error: %1>").arg(error)};
        }
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            QStringList cols;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const unsigned char *text = sqlite3_column_text(stmt, i);
                cols << (text ? QString::fromUtf8(reinterpret_cast<const char *>(text))
                              : QStringLiteral("<null>"));
            }
            out << cols.join(QLatin1Char('|'));
        }
        sqlite3_finalize(stmt);
        return out;
    }

    QByteArray value(const char *key) {
        QByteArray out;
        sqlite3_stmt *stmt = nullptr;
        sqlite3_prepare_v2(db, "SELECT value FROM system_table WHERE key = ?1", -1, &stmt, nullptr);
        sqlite3_bind_text(stmt, 1, key, -1, SQLITE_STATIC);
        if (sqlite3_step(stmt) == SQLITE_ROW) {
            const void *blob = sqlite3_column_blob(stmt, 0);
            out = QByteArray(static_cast<const char *>(blob), sqlite3_column_bytes(stmt, 0));
        }
        sqlite3_finalize(stmt);
        return out;
    }

    // All user objects and all their rows, for before/after comparisons.
    QStringList dump() {
        QStringList out;
        for (const QString &entry :
             rows("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY name"))
            out << QStringLiteral("schema|") + entry;
        for (const QString &table :
             rows("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
            for (const QString &row : rows("SELECT * FROM " + table.toUtf8()))
                out << table + QLatin1Char('|') + row;
        }
        return out;
    }

    sqlite3 *db = nullptr;
    QString error;
};

// A VFS that is the default one in all but its sleep, which it reports. The
// only sleeping SQLite does is in the busy handler, so a report means a
// connection found the database locked and is waiting for it.
struct SleepWatch {
    std::mutex mutex;
    std::condition_variable cv;
    int sleeps = 0;
    bool finished = false;

    // Called by the operation under test once it returns.
    void finish() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            finished = true;
        }
        cv.notify_all();
    }
    // Whether a connection was seen waiting before the operation finished.
    bool waitForSleeper() {
        std::unique_lock<std::mutex> lock(mutex);
        // The limit only keeps a broken build from hanging the test.
        cv.wait_for(lock, std::chrono::minutes(2), [this]() { return sleeps > 0 || finished; });
        return sleeps > 0;
    }
};
sqlite3_vfs *real_vfs = nullptr;
sqlite3_vfs watch_vfs;
SleepWatch *active_watch = nullptr;

int watchSleep(sqlite3_vfs *, int microseconds) {
    if (SleepWatch *watch = active_watch) {
        std::lock_guard<std::mutex> lock(watch->mutex);
        ++watch->sleeps;
        watch->cv.notify_all();
    }
    return real_vfs->xSleep(real_vfs, microseconds);
}

class WatchedVfs {
public:
    explicit WatchedVfs(SleepWatch *watch) {
        real_vfs = sqlite3_vfs_find(nullptr);
        watch_vfs = *real_vfs;
        watch_vfs.zName = "quillon-test-sleep-watch";
        watch_vfs.xSleep = watchSleep;
        active_watch = watch;
        sqlite3_vfs_register(&watch_vfs, 1);
    }
    ~WatchedVfs() {
        sqlite3_vfs_register(real_vfs, 1);
        sqlite3_vfs_unregister(&watch_vfs);
        active_watch = nullptr;
    }
};

// Every option as "key=value", under the key the client stores it as, so that
// a comparison shows which one differs.
QStringList describe(const GeneralOptions &o) {
    const auto entry = [](const char *key, const QVariant &value) {
        return QString::fromLatin1(key) + QLatin1Char('=') + value.toString();
    };
    return {entry("enable_desktop_notification", int(o.enable_desktop_notification)),
            entry("enable_iconoverlay", int(o.enable_iconoverlay)),
            entry("enable_filtered_iconoverlay", int(o.enable_filtered_iconoverlay)),
            entry("enable_context_menu", int(o.enable_context_menu)),
            entry("enable_startup", int(o.enable_startup)),
            entry("use_black_white_icon", int(o.use_bw_icon)),
            entry("show_tutorial", int(o.show_tutorial)),
            entry("sync_mode", o.sync_mode),
            entry("open_folder", QString::fromUtf8(o.open_folder.c_str()))};
}

// The options of a client that never saved its settings, with the given
// "key=value" entries changed.
QStringList optionsWith(const QStringList &changed = {}) {
    QStringList options = {"enable_desktop_notification=1",
                           "enable_iconoverlay=1",
                           "enable_filtered_iconoverlay=1",
                           "enable_context_menu=1",
                           "enable_startup=1",
                           "use_black_white_icon=0",
                           "show_tutorial=1",
                           "sync_mode=0",
                           "open_folder="};
    for (const QString &entry : changed) {
        const QString key = entry.section(QLatin1Char('='), 0, 0) + QLatin1Char('=');
        for (QString &option : options) {
            if (option.startsWith(key))
                option = entry;
        }
    }
    return options;
}

ProxyInfo filledProxy() {
    ProxyInfo p;
    p.use_proxy = true;
    p.use_sys_proxy = true;
    p.proxy_ip = "10.1.2.3";
    p.proxy_port = 3128;
    p.user_name = "zo\xc3\xab";
    p.password = "s3cret";
    p.domain = "CORP";
    p.host = "proxy.corp.example";
    p.auth_type = ProxyInfo::AUTH_NTLMv2;
    return p;
}

QStringList sorted(QStringList list) {
    list.sort();
    return list;
}

using ProxyChange = std::function<void(ProxyInfo &)>;

} // namespace

Q_DECLARE_METATYPE(ProxyChange)

class TestSystemDB : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void freshDatabaseObjects();
    void declaredSchema_data();
    void declaredSchema();
    void declaredRules();
    void reopenKeepsClientData_data();
    void reopenKeepsClientData();
    void openFailsInMissingFolder();
    void failedScriptLeavesNothing_data();
    void failedScriptLeavesNothing();
    void secondInitializeIsNoOp();
    void lockedDatabaseIsWaitedFor_data();
    void lockedDatabaseIsWaitedFor();
    void generalOptionsFromRows_data();
    void generalOptionsFromRows();
    void closedDatabaseFailsCleanly();
    void generalOptionsRoundTrip();
    void proxyRoundTrip_data();
    void proxyRoundTrip();
    void proxyInfoValueSemantics_data();
    void proxyInfoValueSemantics();
    void concurrentCallersSeeWholeWrites();

private:
    QString path(const char *name) const { return dir->filePath(QString::fromLatin1(name)); }
    QByteArray newLog() const;
    static bool hasLine(const QByteArray &log, const char *level, const QString &text);
    int openFresh(const char *name);

    QTemporaryDir log_dir;
    std::unique_ptr<QTemporaryDir> dir;
    qint64 log_mark = 0;
};

void TestSystemDB::initTestCase() {
    QVERIFY(log_dir.isValid());
    QFile tpl(log_dir.filePath(QStringLiteral("levels")));
    QVERIFY(tpl.open(QIODevice::WriteOnly));
    tpl.write("system_db_debug=7\n");
    tpl.close();
    QCOMPARE(Logger::Initialize(Logger::FILE_LOGGER,
                                log_dir.filePath(QStringLiteral("db.log")).toStdString(),
                                tpl.fileName().toStdString(), 5, Logger::ThreadSafe),
             0);
    QCOMPARE(sqlite3_initialize(), SQLITE_OK);
}

void TestSystemDB::cleanupTestCase() {
    SystemDB::destroy();
    Logger::Destroy();
}

void TestSystemDB::init() {
    // The class is process-wide state: every test starts closed.
    SystemDB::destroy();
    dir.reset(new QTemporaryDir());
    QVERIFY(dir->isValid());
    log_mark = QFileInfo(log_dir.filePath(QStringLiteral("db.log"))).size();
}

void TestSystemDB::cleanup() {
    SystemDB::destroy();
    dir.reset();
}

QByteArray TestSystemDB::newLog() const {
    QFile f(log_dir.filePath(QStringLiteral("db.log")));
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    f.seek(log_mark);
    return f.readAll();
}

bool TestSystemDB::hasLine(const QByteArray &log, const char *level, const QString &text) {
    const QRegularExpression re(
        QStringLiteral(
            "^[A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d \\[%1\\] system-db\\.cpp\\(\\d+\\): %2$")
            .arg(QLatin1String(level), QRegularExpression::escape(text)),
        QRegularExpression::MultilineOption);
    return re.match(QString::fromUtf8(log)).hasMatch();
}

int TestSystemDB::openFresh(const char *name) {
    return SystemDB::initialize(ustring(path(name).toUtf8().constData()));
}

void TestSystemDB::freshDatabaseObjects() {
    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);
    QVERIFY(hasLine(newLog(), "INFO",
                    QStringLiteral("SystemDB has been initialized with location '%1'").arg(file)));

    Connection c(file);
    QVERIFY(c.ok());
    QCOMPARE(c.rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
                    "'sqlite_%' ORDER BY name"),
             QStringList({"backup_plan_table", "connection_table", "server_view_table",
                          "session_table", "system_table"}));
    QCOMPARE(c.rows("SELECT name, tbl_name FROM sqlite_master WHERE type = 'index' AND name NOT "
                    "LIKE 'sqlite_%' ORDER BY name"),
             QStringList(
                 {"session_table_name_idx|session_table", "session_table_view_idx|session_table"}));
    QCOMPARE(c.rows("SELECT name FROM pragma_index_info('session_table_name_idx')"),
             QStringList({"share_name"}));
    QCOMPARE(c.rows("SELECT name FROM pragma_index_info('session_table_view_idx')"),
             QStringList({"view_id"}));
    QCOMPARE(c.rows("SELECT key, value FROM system_table ORDER BY key"),
             QStringList({"release_version|24", "sync_temp_file|0"}));
    // Nothing of the script's transaction is left open.
    QVERIFY(c.exec("BEGIN IMMEDIATE; COMMIT;"));
}

// One row per table: its columns in order, each as
// "name type default [notnull] [nocase] [pk<n>] [autoinc]" with "-" for no default.
void TestSystemDB::declaredSchema_data() {
    QTest::addColumn<QString>("table");
    QTest::addColumn<QStringList>("columns");

    QTest::newRow("connection_table")
        << "connection_table"
        << QStringList{"id INTEGER - pk1 autoinc",  "conn_mode INTEGER 0",
                       "server_name TEXT ''",       "server_ip TEXT ''",
                       "server_port INTEGER 0",     "relaylink_mode TEXT ''",
                       "username TEXT '' nocase",   "hub_id TEXT ''",
                       "session TEXT '' notnull",   "protocol_version INTEGER 0",
                       "computer_name TEXT ''",     "use_ssl INTEGER 0",
                       "use_proxy INTEGER 0",       "use_system_proxy INTEGER 0",
                       "proxy_ip TEXT ''",          "proxy_port INTEGER 0",
                       "proxy_username TEXT ''",    "proxy_password TEXT ''",
                       "proxy_domain TEXT ''",      "proxy_host TEXT ''",
                       "use_tunnel INTEGER 0",      "tunnel_ip TEXT ''",
                       "tunnel_port INTEGER 0",     "linked INTEGER 0",
                       "status INTEGER 0",          "error INTEGER 0",
                       "package_version INTEGER 0", "major INTEGER 0",
                       "minor INTEGER 0",           "ssl_allow_untrust INTEGER 0",
                       "user_uid INTEGER 0",        "user_gid INTEGER 0",
                       "user_is_admin INTEGER 1",   "ssl_signature TEXT ''",
                       "private_key_pem TEXT ''",   "public_key_fingerprint TEXT ''",
                       "restore_id TEXT ''",        "enable_shared_with_me INTEGER 0",
                       "host_name TEXT ''"};
    QTest::newRow("session_table") << "session_table"
                                   << QStringList{"id INTEGER - pk1 autoinc",
                                                  "conn_id INTEGER 0",
                                                  "share_name TEXT '' nocase",
                                                  "remote_path TEXT ''",
                                                  "ctime DATATIME strftime('%s','now')",
                                                  "view_id INTEGER 0",
                                                  "node_id INTEGER 0",
                                                  "status INTEGER 0",
                                                  "error INTEGER 0",
                                                  "share_version INTEGER 0",
                                                  "sync_folder TEXT ''",
                                                  "perm_mode INTEGER 0",
                                                  "is_read_only INTEGER 0",
                                                  "is_daemon_enable INTEGER 0",
                                                  "sync_direction INTEGER 0",
                                                  "ignore_local_remove INTEGER 0",
                                                  "conflict_policy TEXT 'compare_mtime'",
                                                  "rename_conflict INTEGER 1",
                                                  "is_encryption INTEGER 0",
                                                  "is_mounted INTEGER 1",
                                                  "attribute_check_strength INTEGER 0",
                                                  "sync_temp_file INTEGER 0",
                                                  "use_windows_cloud_file_api INTEGER 0",
                                                  "is_shared_with_me INTEGER 0"};
    QTest::newRow("server_view_table")
        << "server_view_table" << QStringList{"view_id INTEGER 0 pk1",
                                              "node_id INTEGER 0",
                                              "conn_id INTEGER 0 pk2",
                                              "privilege INTEGER 0",
                                              "name TEXT '' nocase",
                                              "share_version INTEGER 0",
                                              "share_priv_disabled INTEGER 0",
                                              "is_encryption INTEGER 0",
                                              "is_mount INTEGER 1"};
    QTest::newRow("system_table") << "system_table"
                                  << QStringList{"key VARCHAR - pk1", "value VARCHAR - notnull"};
    QTest::newRow("backup_plan_table")
        << "backup_plan_table" << QStringList{"task_id INTEGER 0",
                                              "last_complete_time INTEGER 0",
                                              "backup_start_time TEXT '00:00'",
                                              "backup_status INTEGER 0",
                                              "backup_mode INTEGER 0",
                                              "backup_days TEXT '1111111'",
                                              "backup_times INTEGER 0",
                                              "backup_period INTEGER 0",
                                              "do_missing_backup INTEGER 0"};
}

void TestSystemDB::declaredSchema() {
    QFETCH(QString, table);
    QFETCH(QStringList, columns);

    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);
    Connection c(file);
    QVERIFY(c.ok());

    const QStringList info =
        c.rows("SELECT name, type, \"notnull\", dflt_value, pk FROM pragma_table_info('" +
               table.toUtf8() + "')");
    QCOMPARE(info.size(), columns.size());
    for (int i = 0; i < columns.size(); ++i) {
        const QStringList want = columns.at(i).split(QLatin1Char(' '));
        const QStringList flags = want.mid(3);
        QString pk = QStringLiteral("0");
        for (const QString &flag : flags) {
            if (flag.startsWith(QLatin1String("pk")))
                pk = flag.mid(2);
        }
        const QString expected =
            QStringList{want.at(0), want.at(1),
                        flags.contains(QLatin1String("notnull")) ? "1" : "0",
                        want.at(2) == QLatin1String("-") ? "<null>" : want.at(2), pk}
                .join(QLatin1Char('|'));
        QCOMPARE(info.at(i), expected);

        const char *type = nullptr;
        const char *collation = nullptr;
        int notnull = 0, primary = 0, autoinc = 0;
        QCOMPARE(sqlite3_table_column_metadata(c.db, "main", table.toUtf8().constData(),
                                               want.at(0).toUtf8().constData(), &type, &collation,
                                               &notnull, &primary, &autoinc),
                 SQLITE_OK);
        QCOMPARE(QString::fromLatin1(collation), flags.contains(QLatin1String("nocase"))
                                                     ? QStringLiteral("NOCASE")
                                                     : QStringLiteral("BINARY"));
        QCOMPARE(autoinc != 0, flags.contains(QLatin1String("autoinc")));
    }
}

// The conflict clauses, which the column list does not show, as the client
// relies on them.
void TestSystemDB::declaredRules() {
    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);
    Connection c(file);
    QVERIFY(c.ok());

    // A view written again for the same connection replaces the old one.
    QVERIFY(c.exec("INSERT INTO server_view_table (view_id, conn_id, name) VALUES (1, 1, 'a');"
                   "INSERT INTO server_view_table (view_id, conn_id, name) VALUES (1, 1, 'b');"
                   "INSERT INTO server_view_table (view_id, conn_id, name) VALUES (1, 2, 'c');"));
    QCOMPARE(c.rows("SELECT view_id, conn_id, name FROM server_view_table ORDER BY conn_id"),
             QStringList({"1|1|b", "1|2|c"}));

    // A plain insert of an existing key keeps the old value.
    QVERIFY(c.exec("INSERT INTO system_table (key, value) VALUES ('release_version', 99);"));
    QCOMPARE(c.rows("SELECT value FROM system_table WHERE key = 'release_version'"),
             QStringList({"24"}));
}

// setup: run by the client's own connection before the updater opens the file;
// added: prefixes of the dump lines that opening may add, nothing else may change.
void TestSystemDB::reopenKeepsClientData_data() {
    QTest::addColumn<QByteArray>("setup");
    QTest::addColumn<QStringList>("added");

    QTest::newRow("changed release")
        << QByteArray("UPDATE system_table SET value = '23' WHERE key = 'release_version';"
                      "UPDATE system_table SET value = '1' WHERE key = 'sync_temp_file';")
        << QStringList();
    QTest::newRow("seed rows removed")
        << QByteArray(
               "DELETE FROM system_table WHERE key IN ('release_version', 'sync_temp_file');")
        << QStringList({"system_table|release_version|24", "system_table|sync_temp_file|0"});
    QTest::newRow("table missing") << QByteArray("DROP TABLE backup_plan_table;")
                                   << QStringList({"schema|table|backup_plan_table|"});
}

void TestSystemDB::reopenKeepsClientData() {
    QFETCH(QByteArray, setup);
    QFETCH(QStringList, added);

    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);
    SystemDB::destroy();

    QStringList before;
    {
        Connection client(file);
        QVERIFY(client.ok());
        QVERIFY2(client.exec(
                     "INSERT INTO connection_table (server_name, username, session, proxy_port) "
                     "VALUES ('nas', 'Zoe', 'sid-1', 8080);"
                     "INSERT INTO session_table (conn_id, share_name, ctime, sync_folder) "
                     "VALUES (1, 'home', 12345, '/home/zoe/Drive');"
                     "INSERT INTO server_view_table (view_id, conn_id, name) VALUES (4, 1, 'home');"
                     "INSERT INTO backup_plan_table (task_id, backup_days) VALUES (2, '0101010');"
                     "INSERT INTO system_table (key, value) VALUES ('sync_mode', 2);"
                     "INSERT INTO system_table (key, value) VALUES ('target_client_version', "
                     "'3.1.0');" +
                     setup),
                 qPrintable(client.error));
        before = client.dump();
    }

    QCOMPARE(openFresh("sys.sqlite"), 0);
    Connection check(file);
    QVERIFY(check.ok());
    const QStringList after = check.dump();

    for (const QString &line : before)
        QVERIFY2(after.contains(line), qPrintable(QStringLiteral("lost: ") + line));
    QStringList extra;
    for (const QString &line : after) {
        if (!before.contains(line))
            extra << line;
    }
    QCOMPARE(extra.size(), added.size());
    for (const QString &line : extra) {
        bool expected = false;
        for (const QString &prefix : added)
            expected = expected || line.startsWith(prefix);
        QVERIFY2(expected, qPrintable(QStringLiteral("unexpected: ") + line));
    }
}

void TestSystemDB::openFailsInMissingFolder() {
    const QString file = path("no-such-folder/sys.sqlite");
    const sqlite3_int64 memory = sqlite3_memory_used();

    QCOMPARE(SystemDB::initialize(ustring(file.toUtf8().constData())), -1);
    QVERIFY(hasLine(newLog(), "ERROR",
                    QStringLiteral("SystemDB: Failed to open database at '%1'. [14] unable to "
                                   "open database file")
                        .arg(file)));
    QVERIFY(!QFileInfo::exists(path("no-such-folder")));
    // The handle SQLite made for the failed open has been given back.
    QCOMPARE(sqlite3_memory_used(), memory);

    GeneralOptions options;
    QCOMPARE(SystemDB::getGeneralOptions(options), -1);
    // A failed open may be retried.
    QCOMPARE(openFresh("sys.sqlite"), 0);
    QCOMPARE(SystemDB::getGeneralOptions(options), 0);
}

void TestSystemDB::failedScriptLeavesNothing_data() {
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("clientSql");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QStringList>("tablesAfter");

    QTest::newRow("not a database")
        << QByteArray("just some text, not a database\n").repeated(40) << QByteArray() << 26
        << "file is not a database" << QStringList();
    QTest::newRow("conflicting session table")
        << QByteArray() << QByteArray("CREATE TABLE session_table (id INTEGER);") << 1
        << "no such column: share_name" << QStringList({"session_table"});
}

// A script that fails part-way must not leave a half-made database, nor a
// connection.
void TestSystemDB::failedScriptLeavesNothing() {
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, clientSql);
    QFETCH(int, code);
    QFETCH(QString, message);
    QFETCH(QStringList, tablesAfter);

    const QString file = path("sys.sqlite");
    if (!content.isEmpty()) {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(content);
    } else {
        Connection client(file, true);
        QVERIFY(client.exec(clientSql));
    }
    const sqlite3_int64 memory = sqlite3_memory_used();

    QCOMPARE(openFresh("sys.sqlite"), -1);
    const QByteArray log = newLog();
    QVERIFY2(hasLine(log, "ERROR",
                     QStringLiteral("SystemDB: Failed to initialize database at '%1'. [%2] %3")
                         .arg(file)
                         .arg(code)
                         .arg(message)),
             log.constData());
    QVERIFY2(hasLine(log, "ERROR", QStringLiteral("initialize fail %1").arg(message)),
             log.constData());
    QCOMPARE(sqlite3_memory_used(), memory);

    GeneralOptions options;
    QCOMPARE(SystemDB::getGeneralOptions(options), -1);

    if (!content.isEmpty()) {
        QFile f(file);
        QVERIFY(f.open(QIODevice::ReadOnly));
        QCOMPARE(f.readAll(), content);
    } else {
        Connection check(file);
        QCOMPARE(check.rows("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name"),
                 tablesAfter);
        QVERIFY(check.exec("BEGIN EXCLUSIVE; COMMIT;"));
    }
}

void TestSystemDB::secondInitializeIsNoOp() {
    QCOMPARE(openFresh("sys.sqlite"), 0);
    GeneralOptions written;
    written.sync_mode = 7;
    QCOMPARE(SystemDB::setGeneralOptions(written), 0);
    log_mark = QFileInfo(log_dir.filePath(QStringLiteral("db.log"))).size();

    const QString second_path = path("other.sqlite");
    QCOMPARE(SystemDB::initialize(ustring(second_path.toUtf8().constData())), 0);
    const QByteArray log = newLog();
    QVERIFY(hasLine(log, "INFO", QStringLiteral("SystemDB has been initialized (no-op)")));
    QVERIFY(!log.contains("initialized with location"));
    QVERIFY(!log.contains("[ERROR]"));
    QVERIFY(!QFileInfo::exists(second_path));

    GeneralOptions read;
    QCOMPARE(SystemDB::getGeneralOptions(read), 0);
    QCOMPARE(read.sync_mode, 7);
}

void TestSystemDB::lockedDatabaseIsWaitedFor_data() {
    QTest::addColumn<bool>("opening"); // else reading options of an open database
    QTest::newRow("opening") << true;
    QTest::newRow("reading options") << false;
}

// Another process holding the database makes the operation wait until it
// lets go, not fail with "database is locked".
void TestSystemDB::lockedDatabaseIsWaitedFor() {
    QFETCH(bool, opening);

    const QString file = path("sys.sqlite");
    // Connections use the VFS that is the default when they are opened.
    SleepWatch watch;
    WatchedVfs vfs(&watch);
    if (!opening)
        QCOMPARE(openFresh("sys.sqlite"), 0);
    GeneralOptions options;
    // Declared before the other connection, so that a test failing early
    // lets go of the lock before it waits for the operation.
    std::future<int> result;
    Connection other(file, true);
    QVERIFY2(other.exec("BEGIN EXCLUSIVE;"), qPrintable(other.error));
    // What the other process writes while it holds the lock must be what the
    // waiting reader then sees.
    if (!opening)
        QVERIFY(other.exec("INSERT or REPLACE INTO system_table (key, value) VALUES "
                           "('sync_mode', 5);"));

    result = std::async(std::launch::async, [&]() {
        const int r = opening ? openFresh("sys.sqlite") : SystemDB::getGeneralOptions(options);
        watch.finish();
        return r;
    });
    QVERIFY(watch.waitForSleeper());
    QVERIFY(other.exec("COMMIT;"));
    QCOMPARE(result.get(), 0);
    QCOMPARE(SystemDB::getGeneralOptions(options), 0);
    QCOMPARE(options.sync_mode, opening ? 0 : 5);
}

// rows: inserted by the client before reading; changed: the options that
// then differ from the defaults.
void TestSystemDB::generalOptionsFromRows_data() {
    QTest::addColumn<QByteArray>("rows");
    QTest::addColumn<QStringList>("changed");

    const QStringList startupOff = {"enable_startup=0"};
    QTest::newRow("seed rows only") << QByteArray() << QStringList();
    QTest::newRow("startup 0") << QByteArray("('enable_startup', 0)") << startupOff;
    QTest::newRow("startup 2") << QByteArray("('enable_startup', 2)") << startupOff;
    QTest::newRow("startup text true") << QByteArray("('enable_startup', 'true')") << startupOff;
    QTest::newRow("startup 1") << QByteArray("('enable_startup', 1)") << QStringList();
    QTest::newRow("field name is no key") << QByteArray("('use_bw_icon', 1)") << QStringList();
    QTest::newRow("key case differs") << QByteArray("('Sync_Mode', 3)") << QStringList();
    QTest::newRow("unrelated keys")
        << QByteArray("('target_client_version', '3.1'), ('user_use_proxy', 1)") << QStringList();
    QTest::newRow("every key")
        << QByteArray("('enable_desktop_notification', 0), ('enable_iconoverlay', 0),"
                      "('enable_filtered_iconoverlay', 0), ('enable_context_menu', 0),"
                      "('enable_startup', 0), ('use_black_white_icon', 1), ('show_tutorial', 0),"
                      "('sync_mode', 1), ('open_folder', '/srv/q')")
        << QStringList{"enable_desktop_notification=0",
                       "enable_iconoverlay=0",
                       "enable_filtered_iconoverlay=0",
                       "enable_context_menu=0",
                       "enable_startup=0",
                       "use_black_white_icon=1",
                       "show_tutorial=0",
                       "sync_mode=1",
                       "open_folder=/srv/q"};
}

void TestSystemDB::generalOptionsFromRows() {
    QFETCH(QByteArray, rows);
    QFETCH(QStringList, changed);

    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);
    if (!rows.isEmpty()) {
        Connection client(file);
        QVERIFY2(client.exec("INSERT INTO system_table (key, value) VALUES " + rows + ";"),
                 qPrintable(client.error));
    }

    GeneralOptions options;
    QCOMPARE(SystemDB::getGeneralOptions(options), 0);
    QCOMPARE(describe(options), optionsWith(changed));
    QVERIFY(hasLine(newLog(), "DEBUG", QStringLiteral("getGeneralOptions")));
}

// Callers may ignore a failed open; once closed, every query fails and
// leaves the caller's records as they were.
void TestSystemDB::closedDatabaseFailsCleanly() {
    QCOMPARE(openFresh("sys.sqlite"), 0);
    SystemDB::destroy();
    log_mark = QFileInfo(log_dir.filePath(QStringLiteral("db.log"))).size();

    GeneralOptions options;
    options.sync_mode = 9;
    options.use_bw_icon = true;
    options.open_folder = "/keep";
    QCOMPARE(SystemDB::getGeneralOptions(options), -1);
    QCOMPARE(describe(options),
             optionsWith({"use_black_white_icon=1", "sync_mode=9", "open_folder=/keep"}));

    ProxyInfo proxy = filledProxy();
    QCOMPARE(SystemDB::getUserProxyInfo(proxy), -1);
    QVERIFY(proxy == filledProxy());
    QCOMPARE(SystemDB::setGeneralOptions(options), -1);
    QCOMPARE(SystemDB::setUserProxyInfo(proxy), -1);

    const QByteArray log = newLog();
    QVERIFY2(hasLine(log, "ERROR",
                     QStringLiteral("getGeneralOptions: sqlite3_prepare_v2: bad parameter or "
                                    "other API misuse (21)")),
             log.constData());
    QVERIFY(hasLine(log, "ERROR", QStringLiteral("get proxy info failed, use default setting")));
    QVERIFY(hasLine(log, "ERROR",
                    QStringLiteral("setGeneralOptions fail ret = 21 bad parameter or other API "
                                   "misuse")));
    QVERIFY(
        hasLine(log, "ERROR",
                QStringLiteral("setProxyInfo fail ret = 21 bad parameter or other API misuse")));

    // Nothing of the closed connection is left to stand in the way of a new one.
    QCOMPARE(openFresh("sys.sqlite"), 0);
    QCOMPARE(SystemDB::getGeneralOptions(options), 0);
}

void TestSystemDB::generalOptionsRoundTrip() {
    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);

    GeneralOptions written;
    written.enable_desktop_notification = false;
    written.enable_iconoverlay = false;
    written.enable_filtered_iconoverlay = false;
    written.enable_context_menu = false;
    written.enable_startup = false;
    written.use_bw_icon = true;
    written.show_tutorial = false;
    written.sync_mode = 5;
    written.open_folder = "/home/o'neil/\xc3\xa7";
    QCOMPARE(SystemDB::setGeneralOptions(written), 0);
    GeneralOptions read;
    QCOMPARE(SystemDB::getGeneralOptions(read), 0);
    QCOMPARE(describe(read), describe(written));

    // The rows are the ones the client reads, under the client's key names.
    Connection client(file);
    QCOMPARE(
        sorted(client.rows("SELECT key, value FROM system_table")),
        sorted({"release_version|24", "sync_temp_file|0", "enable_desktop_notification|0",
                "enable_iconoverlay|0", "enable_filtered_iconoverlay|0", "enable_context_menu|0",
                "enable_startup|0", "use_black_white_icon|1", "show_tutorial|0", "sync_mode|5",
                QString::fromUtf8("open_folder|/home/o'neil/\xc3\xa7")}));

    // Writing again replaces the values despite the table ignoring plain
    // inserts of existing keys.
    QCOMPARE(SystemDB::setGeneralOptions(GeneralOptions()), 0);
    GeneralOptions reread = written;
    QCOMPARE(SystemDB::getGeneralOptions(reread), 0);
    QCOMPARE(describe(reread), optionsWith());
}

void TestSystemDB::proxyRoundTrip_data() {
    QTest::addColumn<QByteArray>("password");

    QTest::newRow("format characters") << QByteArray("%s%d%n%%");
    QTest::newRow("sql") << QByteArray("x'); DROP TABLE system_table; --");
    QTest::newRow("not utf-8") << QByteArray("\xff\xfe\x80");
    QTest::newRow("embedded NUL") << QByteArray("a\0b", 3);
    QTest::newRow("empty") << QByteArray("");
}

void TestSystemDB::proxyRoundTrip() {
    QFETCH(QByteArray, password);

    const QString file = path("sys.sqlite");
    QCOMPARE(openFresh("sys.sqlite"), 0);

    // Nothing stored yet: the record keeps what it had.
    ProxyInfo untouched = filledProxy();
    QCOMPARE(SystemDB::getUserProxyInfo(untouched), 0);
    QVERIFY(untouched == filledProxy());

    ProxyInfo written = filledProxy();
    written.password = password.toStdString();
    QCOMPARE(SystemDB::setUserProxyInfo(written), 0);
    // The settings are logged, the password never.
    const QByteArray log = newLog();
    QVERIFY(log.contains("setUserProxyInfo: use_proxy: true"));
    QVERIFY(log.contains("10.1.2.3"));
    if (!password.isEmpty())
        QVERIFY(!log.contains(password));

    ProxyInfo read;
    QCOMPARE(SystemDB::getUserProxyInfo(read), 0);
    // The authentication scheme is not stored.
    QCOMPARE(read.auth_type, ProxyInfo::AUTH_AUTO);
    read.auth_type = written.auth_type;
    QVERIFY2(read == written, read.toString().c_str());
    QCOMPARE(QByteArray::fromStdString(read.password), password);

    Connection client(file);
    QCOMPARE(client.value("user_proxy_pass"), password);
    QCOMPARE(client.value("user_use_proxy"), QByteArray("1"));
    QCOMPARE(client.value("user_proxy_port"), QByteArray("3128"));
    QCOMPARE(client.value("user_proxy_user"), QByteArray("zo\xc3\xab"));

    ProxyInfo changed;
    changed.proxy_ip = "192.168.0.9";
    changed.proxy_port = 65535;
    changed.password = "second";
    QCOMPARE(SystemDB::setUserProxyInfo(changed), 0);
    ProxyInfo reread = written;
    QCOMPARE(SystemDB::getUserProxyInfo(reread), 0);
    reread.auth_type = changed.auth_type;
    QVERIFY2(reread == changed, reread.toString().c_str());
}

void TestSystemDB::proxyInfoValueSemantics_data() {
    QTest::addColumn<ProxyChange>("change");
    QTest::newRow("use_proxy") << ProxyChange([](ProxyInfo &p) { p.use_proxy = false; });
    QTest::newRow("use_sys_proxy") << ProxyChange([](ProxyInfo &p) { p.use_sys_proxy = false; });
    QTest::newRow("proxy_ip") << ProxyChange([](ProxyInfo &p) { p.proxy_ip += "0"; });
    QTest::newRow("proxy_port") << ProxyChange([](ProxyInfo &p) { p.proxy_port = 8080; });
    QTest::newRow("user_name") << ProxyChange([](ProxyInfo &p) { p.user_name = "other"; });
    QTest::newRow("password") << ProxyChange([](ProxyInfo &p) { p.password = "other"; });
    QTest::newRow("domain") << ProxyChange([](ProxyInfo &p) { p.domain = "OTHER"; });
    QTest::newRow("host") << ProxyChange([](ProxyInfo &p) { p.host = "other.example"; });
    QTest::newRow("auth_type") << ProxyChange(
        [](ProxyInfo &p) { p.auth_type = ProxyInfo::AUTH_BASIC; });
}

// Equality must look at every field, or a changed setting would go unnoticed
// (and the round trips above would prove nothing).
void TestSystemDB::proxyInfoValueSemantics() {
    QFETCH(ProxyChange, change);

    const ProxyInfo a = filledProxy();
    ProxyInfo b(a);
    QVERIFY(a == b);
    change(b);
    QVERIFY(a != b);
    QVERIFY(!(a == b));
}

// Statements of the one connection never interleave: a reader always sees
// one writer's complete set of options.
void TestSystemDB::concurrentCallersSeeWholeWrites() {
    QCOMPARE(openFresh("sys.sqlite"), 0);

    std::atomic<int> failures{0};
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures, &torn]() {
            for (int i = 0; i < 25; ++i) {
                GeneralOptions o;
                o.sync_mode = t * 1000 + i;
                o.open_folder = "/folder/" + std::to_string(o.sync_mode);
                if (SystemDB::setGeneralOptions(o) != 0)
                    ++failures;
                ProxyInfo p;
                p.proxy_port = uint16_t(o.sync_mode);
                p.host = "host" + std::to_string(o.sync_mode);
                if (SystemDB::setUserProxyInfo(p) != 0)
                    ++failures;

                GeneralOptions r;
                if (SystemDB::getGeneralOptions(r) != 0)
                    ++failures;
                else if (std::string(r.open_folder.c_str()) !=
                         "/folder/" + std::to_string(r.sync_mode))
                    ++torn;
                ProxyInfo q;
                if (SystemDB::getUserProxyInfo(q) != 0)
                    ++failures;
                else if (q.host != "host" + std::to_string(q.proxy_port))
                    ++torn;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(failures.load(), 0);
    QCOMPARE(torn.load(), 0);
}

QTEST_GUILESS_MAIN(TestSystemDB)
#include "test_systemdb.moc"
