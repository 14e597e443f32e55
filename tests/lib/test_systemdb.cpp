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

    // Flags read true only from a stored 1 and keys match exactly; a write
    // replaces every stored value; proxies are equal only when every field is.
    void settingsRoundTrip() {
        const auto show = [](const GeneralOptions &o, const ProxyInfo &p) {
            return QString::asprintf("%d%d%d%d%d%d%d %d %s %s", o.enable_desktop_notification,
                                     o.enable_iconoverlay, o.enable_filtered_iconoverlay,
                                     o.enable_context_menu, o.enable_startup, o.use_bw_icon,
                                     o.show_tutorial, o.sync_mode, o.open_folder.c_str(),
                                     p.toString().c_str());
        };
        QCOMPARE(SystemDB::initialize("trip"), 0);
        Client("trip")(
            "INSERT INTO system_table VALUES ('enable_desktop_notification', 0), "
            "('enable_iconoverlay', 0), ('enable_filtered_iconoverlay', 0), "
            "('enable_context_menu', 0), ('enable_startup', 2), ('show_tutorial', 0), "
            "('SHOW_TUTORIAL', 1), ('use_black_white_icon', 1), ('use_bw_icon', 0), "
            "('sync_mode', -7), ('open_folder', 'a b'), ('user_use_proxy', 1), "
            "('user_use_sys_proxy', 1), ('user_proxy_ip', 'ip'), ('user_proxy_port', 8), "
            "('user_proxy_user', 'u'), ('user_proxy_pass', 'pw'), "
            "('user_proxy_domain', 'd'), ('user_proxy_host', 'h')");
        GeneralOptions options, read;
        ProxyInfo proxy, back;
        QVERIFY(SystemDB::getGeneralOptions(options) == 0 &&
                SystemDB::getUserProxyInfo(proxy) == 0);
        QCOMPARE(show(options, proxy),
                 "0000010 -7 a b use_proxy: true, use_sys_proxy: true, proxy: 'ip':8, host: 'h', "
                 "user: 'u', password: (set), domain: 'd', auth_type: 0");
        for (const bool defaults : {true, false}) {
            QVERIFY(SystemDB::setGeneralOptions(defaults ? GeneralOptions() : options) == 0 &&
                    SystemDB::setUserProxyInfo(defaults ? ProxyInfo() : proxy) == 0);
            QVERIFY(SystemDB::getGeneralOptions(read) == 0 &&
                    SystemDB::getUserProxyInfo(back) == 0);
            QCOMPARE(show(read, back), defaults ? show({}, {}) : show(options, proxy));
        }
        using P = ProxyInfo;
        const auto differs = [&proxy](auto field, auto value) {
            P other = proxy;
            other.*field = value;
            return other != proxy && !(other == proxy);
        };
        QVERIFY(back == proxy && differs(&P::use_proxy, false) &&
                differs(&P::use_sys_proxy, false) && differs(&P::proxy_ip, "") &&
                differs(&P::proxy_port, 0) && differs(&P::user_name, "") &&
                differs(&P::password, "") && differs(&P::domain, "") && differs(&P::host, "") &&
                differs(&P::auth_type, P::AUTH_NONE));
        back.clear();

        SystemDB::destroy();
        QVERIFY(SystemDB::setGeneralOptions(options) == -1 &&
                SystemDB::setUserProxyInfo(proxy) == -1);
        QVERIFY(SystemDB::getGeneralOptions(read) == -1 && SystemDB::getUserProxyInfo(back) == -1 &&
                back == ProxyInfo());
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
