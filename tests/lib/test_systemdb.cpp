#include "system-db/system-db.h"

#include <sqlite3.h>

#include <QtTest>

#include <atomic>
#include <future>

// SQLite sleeps only in its busy handler: a sleep means a connection waits for a lock.
static std::atomic<bool> slept{false};
static int (*real_sleep)(sqlite3_vfs *, int);
static int watchSleep(sqlite3_vfs *vfs, int us) {
    slept = true;
    return real_sleep(vfs, us);
}

// The client's own connection: its statements give back "col|col;" per row.
struct Client {
    sqlite3 *db = nullptr;
    explicit Client(const char *file) { sqlite3_open(file, &db); }
    ~Client() { sqlite3_close(db); }
    QString operator()(const char *statements) {
        QString rows;
        const auto collect = [](void *out, int n, char **cols, char **) {
            *static_cast<QString *>(out) += QStringList(cols, cols + n).join('|') + ';';
            return 0;
        };
        sqlite3_exec(db, statements, collect, &rows, nullptr);
        return rows;
    }
};

class TestSystemDB : public QObject {
    Q_OBJECT
    QTemporaryDir dir;

private slots:
    void initTestCase() {
        QVERIFY(QDir::setCurrent(dir.path()));
        real_sleep = sqlite3_vfs_find(nullptr)->xSleep;
        sqlite3_vfs_find(nullptr)->xSleep = watchSleep;
    }
    void cleanup() { SystemDB::destroy(); }

    // A fresh file gets the client's schema (a bare column name is INTEGER
    // DEFAULT 0); opening it again changes no row.
    void createsSchemaThenLeavesItAlone() {
        QCOMPARE(SystemDB::initialize("sys"), 0);
        Client client("sys");
        QCOMPARE(
            client("SELECT m.name || ': ' || group_concat(p.name || iif(p.type = 'INTEGER' AND "
                   "p.dflt_value = '0', '', ' ' || p.type || ifnull(' ' || p.dflt_value, '')) || "
                   "iif(p.\"notnull\", ' notnull', '') || iif(p.pk, ' pk' || p.pk, ''), ', ') "
                   "FROM sqlite_master m, pragma_table_info(m.name) p WHERE m.type = 'table' "
                   "GROUP BY m.name"),
            "backup_plan_table: task_id, last_complete_time, backup_start_time TEXT '00:00', "
            "backup_status, backup_mode, backup_days TEXT '1111111', backup_times, "
            "backup_period, do_missing_backup;connection_table: id INTEGER pk1, conn_mode, "
            "server_name TEXT '', server_ip TEXT '', server_port, relaylink_mode TEXT '', "
            "username TEXT '', hub_id TEXT '', session TEXT '' notnull, protocol_version, "
            "computer_name TEXT '', use_ssl, use_proxy, use_system_proxy, proxy_ip TEXT '', "
            "proxy_port, proxy_username TEXT '', proxy_password TEXT '', proxy_domain TEXT "
            "'', proxy_host TEXT '', use_tunnel, tunnel_ip TEXT '', tunnel_port, linked, "
            "status, error, package_version, major, minor, ssl_allow_untrust, user_uid, "
            "user_gid, user_is_admin INTEGER 1, ssl_signature TEXT '', private_key_pem TEXT "
            "'', public_key_fingerprint TEXT '', restore_id TEXT '', enable_shared_with_me, "
            "host_name TEXT '';server_view_table: view_id pk1, node_id, conn_id pk2, "
            "privilege, name TEXT '', share_version, share_priv_disabled, is_encryption, "
            "is_mount INTEGER 1;session_table: id INTEGER pk1, conn_id, share_name TEXT '', "
            "remote_path TEXT '', ctime DATATIME strftime('%s','now'), view_id, node_id, "
            "status, error, share_version, sync_folder TEXT '', perm_mode, is_read_only, "
            "is_daemon_enable, sync_direction, ignore_local_remove, conflict_policy TEXT "
            "'compare_mtime', rename_conflict INTEGER 1, is_encryption, is_mounted INTEGER 1, "
            "attribute_check_strength, sync_temp_file, use_windows_cloud_file_api, "
            "is_shared_with_me;sqlite_sequence: name , seq ;system_table: key VARCHAR pk1, "
            "value VARCHAR notnull;");
        QCOMPARE(client("SELECT m.name, x.name, x.coll FROM sqlite_master m, "
                        "pragma_index_xinfo(m.name) x WHERE m.sql IS NOT NULL AND x.key"),
                 "session_table_name_idx|share_name|NOCASE;session_table_view_idx|view_id|BINARY;");
        QCOMPARE(client("SELECT * FROM system_table"), "release_version|24;sync_temp_file|0;");
        client("UPDATE system_table SET value = value + 1");
        SystemDB::destroy();
        QCOMPARE(SystemDB::initialize("sys"), 0);
        QCOMPARE(client("SELECT * FROM system_table"), "release_version|25;sync_temp_file|1;");

        GeneralOptions o;
        QCOMPARE(SystemDB::initialize("none/sys"), 0); // a no-op while open
        QVERIFY(!QDir("none").exists() && SystemDB::getGeneralOptions(o) == 0);
        SystemDB::destroy();
        QCOMPARE(SystemDB::initialize("none/sys"), -1);
        QCOMPARE(SystemDB::getGeneralOptions(o), -1);
    }

    // Flags read true only from a stored 1, and keys match exactly. Rows add up;
    // each shows enable_startup and use_bw_icon, the one flag the updater uses.
    void generalOptions() {
        const std::pair<const char *, const char *> rows[] = {
            {"('enable_startup', 2), ('USE_BLACK_WHITE_ICON', 1), ('use_bw_icon', 1)", "00"},
            {"('use_black_white_icon', 1)", "01"},
        };
        QCOMPARE(SystemDB::initialize("options"), 0);
        for (const auto &[values, flags] : rows) {
            GeneralOptions o;
            Client("options")(QByteArray("INSERT INTO system_table VALUES ") + values);
            QCOMPARE(SystemDB::getGeneralOptions(o), 0);
            QCOMPARE(QString::asprintf("%d%d", o.enable_startup, o.use_bw_icon), flags);
        }
    }

    // While the client holds the database, opening it waits for the lock.
    void lockedDatabaseIsWaitedFor() {
        std::future<int> opened;
        Client client("locked");
        QCOMPARE(client("BEGIN EXCLUSIVE"), "");
        opened = std::async(std::launch::async, [] { return SystemDB::initialize("locked"); });
        QTRY_VERIFY(slept);
        QCOMPARE(client("COMMIT"), "");
        QCOMPARE(opened.get(), 0);
    }
};

QTEST_GUILESS_MAIN(TestSystemDB)
#include "test_systemdb.moc"
