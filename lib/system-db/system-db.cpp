#include "system-db.h"

#include "log/log.h"

#include <sqlite3.h>

#include <cstring>
#include <string>

#define SYSDB_COMPONENT "system_db_debug"

std::string SystemDB::m_system_db_path;
pthread_mutex_t SystemDB::m_dbMutex = PTHREAD_MUTEX_INITIALIZER;
sqlite3 *SystemDB::m_db = nullptr;

namespace {

// Five minutes: the client may hold the database for a long write, and the
// caller would rather wait than fail.
const int BUSY_TIMEOUT_MS = 300000;

// The whole schema in one transaction, so that a failure part-way leaves
// nothing behind. Every object is created only when missing and the seed
// rows are inserted only when absent, so an existing client database is left
// as it is. The declared types must match what the client creates, including
// the session table's "DATATIME".
const char SCHEMA_SCRIPT[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS connection_table ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "conn_mode INTEGER DEFAULT 0,"
    "server_name TEXT DEFAULT '',"
    "server_ip TEXT DEFAULT '',"
    "server_port INTEGER DEFAULT 0,"
    "relaylink_mode TEXT DEFAULT '',"
    "username TEXT COLLATE NOCASE DEFAULT '',"
    "hub_id TEXT DEFAULT '',"
    "session TEXT NOT NULL DEFAULT '',"
    "protocol_version INTEGER DEFAULT 0,"
    "computer_name TEXT DEFAULT '',"
    "use_ssl INTEGER DEFAULT 0,"
    "use_proxy INTEGER DEFAULT 0,"
    "use_system_proxy INTEGER DEFAULT 0,"
    "proxy_ip TEXT DEFAULT '',"
    "proxy_port INTEGER DEFAULT 0,"
    "proxy_username TEXT DEFAULT '',"
    "proxy_password TEXT DEFAULT '',"
    "proxy_domain TEXT DEFAULT '',"
    "proxy_host TEXT DEFAULT '',"
    "use_tunnel INTEGER DEFAULT 0,"
    "tunnel_ip TEXT DEFAULT '',"
    "tunnel_port INTEGER DEFAULT 0,"
    "linked INTEGER DEFAULT 0,"
    "status INTEGER DEFAULT 0,"
    "error INTEGER DEFAULT 0,"
    "package_version INTEGER DEFAULT 0,"
    "major INTEGER DEFAULT 0,"
    "minor INTEGER DEFAULT 0,"
    "ssl_allow_untrust INTEGER DEFAULT 0,"
    "user_uid INTEGER DEFAULT 0,"
    "user_gid INTEGER DEFAULT 0,"
    "user_is_admin INTEGER DEFAULT 1,"
    "ssl_signature TEXT DEFAULT '',"
    "private_key_pem TEXT DEFAULT '',"
    "public_key_fingerprint TEXT DEFAULT '',"
    "restore_id TEXT DEFAULT '',"
    "enable_shared_with_me INTEGER DEFAULT 0,"
    "host_name TEXT DEFAULT ''"
    ");"
    "CREATE TABLE IF NOT EXISTS session_table ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "conn_id INTEGER DEFAULT 0,"
    "share_name TEXT COLLATE NOCASE DEFAULT '',"
    "remote_path TEXT DEFAULT '',"
    "ctime DATATIME DEFAULT (strftime('%s','now')),"
    "view_id INTEGER DEFAULT 0,"
    "node_id INTEGER DEFAULT 0,"
    "status INTEGER DEFAULT 0,"
    "error INTEGER DEFAULT 0,"
    "share_version INTEGER DEFAULT 0,"
    "sync_folder TEXT DEFAULT '',"
    "perm_mode INTEGER DEFAULT 0,"
    "is_read_only INTEGER DEFAULT 0,"
    "is_daemon_enable INTEGER DEFAULT 0,"
    "sync_direction INTEGER DEFAULT 0,"
    "ignore_local_remove INTEGER DEFAULT 0,"
    "conflict_policy TEXT DEFAULT 'compare_mtime',"
    "rename_conflict INTEGER DEFAULT 1,"
    "is_encryption INTEGER DEFAULT 0,"
    "is_mounted INTEGER DEFAULT 1,"
    "attribute_check_strength INTEGER DEFAULT 0,"
    "sync_temp_file INTEGER DEFAULT 0,"
    "use_windows_cloud_file_api INTEGER DEFAULT 0,"
    "is_shared_with_me INTEGER DEFAULT 0"
    ");"
    "CREATE TABLE IF NOT EXISTS server_view_table ("
    "view_id INTEGER DEFAULT 0,"
    "node_id INTEGER DEFAULT 0,"
    "conn_id INTEGER DEFAULT 0,"
    "privilege INTEGER DEFAULT 0,"
    "name TEXT COLLATE NOCASE DEFAULT '',"
    "share_version INTEGER DEFAULT 0,"
    "share_priv_disabled INTEGER DEFAULT 0,"
    "is_encryption INTEGER DEFAULT 0,"
    "is_mount INTEGER DEFAULT 1,"
    "PRIMARY KEY (view_id, conn_id) ON CONFLICT REPLACE"
    ");"
    "CREATE TABLE IF NOT EXISTS system_table ("
    "key VARCHAR PRIMARY KEY ON CONFLICT IGNORE,"
    "value VARCHAR NOT NULL"
    ");"
    "CREATE TABLE IF NOT EXISTS backup_plan_table ("
    "task_id INTEGER DEFAULT 0,"
    "last_complete_time INTEGER DEFAULT 0,"
    "backup_start_time TEXT DEFAULT '00:00',"
    "backup_status INTEGER DEFAULT 0,"
    "backup_mode INTEGER DEFAULT 0,"
    "backup_days TEXT DEFAULT '1111111',"
    "backup_times INTEGER DEFAULT 0,"
    "backup_period INTEGER DEFAULT 0,"
    "do_missing_backup INTEGER DEFAULT 0"
    ");"
    "CREATE INDEX IF NOT EXISTS session_table_name_idx ON session_table (share_name);"
    "CREATE INDEX IF NOT EXISTS session_table_view_idx ON session_table (view_id);"
    "INSERT or IGNORE INTO system_table (key, value) VALUES ('release_version', 24);"
    "INSERT or IGNORE INTO system_table (key, value) VALUES ('sync_temp_file', 0);"
    "COMMIT;";

const char SELECT_SYSTEM_TABLE[] = "SELECT * FROM system_table";

// Queries on a class that was never opened fail as SQLite itself fails a call
// on a null connection, rather than relying on its API checks being built in.
const char *const NOT_OPEN_MESSAGE = "bad parameter or other API misuse";

struct KeyValue {
    const char *key;
    bool is_text;
    sqlite3_int64 number;
    std::string text;
};

KeyValue intValue(const char *key, sqlite3_int64 number) {
    return {key, false, number, {}};
}
KeyValue textValue(const char *key, const std::string &text) {
    return {key, true, 0, text};
}

std::string columnText(sqlite3_stmt *stmt, int column) {
    const unsigned char *text = sqlite3_column_text(stmt, column);
    if (!text)
        return std::string();
    return std::string(reinterpret_cast<const char *>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
}

// Writes the pairs in the given order, all or none: a failure part-way rolls
// back whatever was written. The caller holds the database mutex. On failure
// returns the SQLite result code and fills `message`.
int writeKeyValues(sqlite3 *db, const KeyValue *pairs, size_t count, std::string &message) {
    if (!db) {
        message = NOT_OPEN_MESSAGE;
        return SQLITE_MISUSE;
    }
    char *errmsg = nullptr;
    int ret = sqlite3_exec(db, "BEGIN IMMEDIATE;", nullptr, nullptr, &errmsg);
    if (ret != SQLITE_OK) {
        message = errmsg ? errmsg : sqlite3_errmsg(db);
        sqlite3_free(errmsg);
        return ret;
    }

    sqlite3_stmt *stmt = nullptr;
    ret = sqlite3_prepare_v2(db, "INSERT or REPLACE INTO system_table (key, value) VALUES (?1, ?2)",
                             -1, &stmt, nullptr);
    for (size_t i = 0; ret == SQLITE_OK && i < count; ++i) {
        sqlite3_reset(stmt);
        ret = sqlite3_bind_text(stmt, 1, pairs[i].key, -1, SQLITE_STATIC);
        if (ret == SQLITE_OK) {
            // Texts are bound with their length so that every byte is stored
            // exactly as given.
            ret = pairs[i].is_text
                      ? sqlite3_bind_text(stmt, 2, pairs[i].text.data(),
                                          static_cast<int>(pairs[i].text.size()), SQLITE_STATIC)
                      : sqlite3_bind_int64(stmt, 2, pairs[i].number);
        }
        if (ret == SQLITE_OK) {
            ret = sqlite3_step(stmt);
            if (ret == SQLITE_DONE)
                ret = SQLITE_OK;
        }
    }
    if (ret != SQLITE_OK)
        message = sqlite3_errmsg(db);
    sqlite3_finalize(stmt);

    if (ret == SQLITE_OK) {
        ret = sqlite3_exec(db, "COMMIT;", nullptr, nullptr, &errmsg);
        if (ret != SQLITE_OK)
            message = errmsg ? errmsg : sqlite3_errmsg(db);
        sqlite3_free(errmsg);
        errmsg = nullptr;
    }
    if (ret != SQLITE_OK && !sqlite3_get_autocommit(db))
        sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
    return ret;
}

} // namespace

int SystemDB::initialize(const ustring &path) {
    if (m_db) {
        QLOG_INFO(SYSDB_COMPONENT, "SystemDB has been initialized (no-op)");
        return 0;
    }

    sqlite3 *db = nullptr;
    int ret = sqlite3_open(path.c_str(), &db);
    if (ret != SQLITE_OK) {
        QLOG_ERROR(SYSDB_COMPONENT, "SystemDB: Failed to open database at '%s'. [%d] %s",
                   path.c_str(), ret, sqlite3_errmsg(db));
        // sqlite3_open hands back a connection object even when opening
        // fails. Nothing else would ever free it, and since initialize may be
        // retried, every failed attempt would leak one.
        sqlite3_close(db);
        return -1;
    }

    sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);

    char *errmsg = nullptr;
    ret = sqlite3_exec(db, SCHEMA_SCRIPT, nullptr, nullptr, &errmsg);
    if (ret == SQLITE_OK) {
        m_db = db;
        m_system_db_path = path.c_str();
        QLOG_INFO(SYSDB_COMPONENT, "SystemDB has been initialized with location '%s'",
                  path.c_str());
        sqlite3_busy_timeout(m_db, BUSY_TIMEOUT_MS);
    } else {
        QLOG_ERROR(SYSDB_COMPONENT, "SystemDB: Failed to initialize database at '%s'. [%d] %s",
                   path.c_str(), ret, sqlite3_errmsg(db));
        QLOG_ERROR(SYSDB_COMPONENT, "initialize fail %s", errmsg ? errmsg : "");
        // Closing rolls back the script's open transaction, so nothing of a
        // half-run script stays in the file.
        sqlite3_close(db);
    }
    sqlite3_free(errmsg);
    return ret == SQLITE_OK ? 0 : -1;
}

void SystemDB::destroy() {
    lock();
    if (m_db) {
        // close_v2 gives the connection up even if a statement were still
        // open somewhere, rather than failing and leaving it half-owned.
        const int ret = sqlite3_close_v2(m_db);
        if (ret != SQLITE_OK)
            QLOG_ERROR(SYSDB_COMPONENT, "SystemDB: Failed to close database at '%s'. [%d] %s",
                       m_system_db_path.c_str(), ret, sqlite3_errmsg(m_db));
        m_db = nullptr;
    }
    m_system_db_path.clear();
    unlock();
}

void SystemDB::lock() {
    pthread_mutex_lock(&m_dbMutex);
}

void SystemDB::unlock() {
    pthread_mutex_unlock(&m_dbMutex);
}

int SystemDB::getGeneralOptions(GeneralOptions &options) {
    QLOG_DEBUG(SYSDB_COMPONENT, "getGeneralOptions");
    int result = -1;
    sqlite3_stmt *stmt = nullptr;

    lock();
    int ret =
        m_db ? sqlite3_prepare_v2(m_db, SELECT_SYSTEM_TABLE, -1, &stmt, nullptr) : SQLITE_MISUSE;
    if (ret != SQLITE_OK) {
        QLOG_ERROR(SYSDB_COMPONENT, "getGeneralOptions: sqlite3_prepare_v2: %s (%d)",
                   m_db ? sqlite3_errmsg(m_db) : NOT_OPEN_MESSAGE, ret);
        unlock();
        return -1;
    }

    while ((ret = sqlite3_step(stmt)) == SQLITE_ROW) {
        const char *key = reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0));
        if (!key)
            continue;
        // Only a stored 1 means true; anything else, 2 or the text "true"
        // included, is false, as the client reads it.
        const bool flag = sqlite3_column_int(stmt, 1) == 1;
        if (std::strcmp(key, "enable_desktop_notification") == 0) {
            options.enable_desktop_notification = flag;
        } else if (std::strcmp(key, "enable_iconoverlay") == 0) {
            options.enable_iconoverlay = flag;
        } else if (std::strcmp(key, "enable_filtered_iconoverlay") == 0) {
            options.enable_filtered_iconoverlay = flag;
        } else if (std::strcmp(key, "enable_context_menu") == 0) {
            options.enable_context_menu = flag;
        } else if (std::strcmp(key, "enable_startup") == 0) {
            options.enable_startup = flag;
        } else if (std::strcmp(key, "use_black_white_icon") == 0) {
            options.use_bw_icon = flag;
        } else if (std::strcmp(key, "show_tutorial") == 0) {
            options.show_tutorial = flag;
        } else if (std::strcmp(key, "sync_mode") == 0) {
            options.sync_mode = sqlite3_column_int(stmt, 1);
        } else if (std::strcmp(key, "open_folder") == 0) {
            options.open_folder = columnText(stmt, 1);
        }
    }

    if (ret == SQLITE_DONE) {
        result = 0;
    } else {
        QLOG_ERROR(SYSDB_COMPONENT, "sqlite3_step: [%d] %s", ret, sqlite3_errmsg(m_db));
    }

    sqlite3_finalize(stmt);
    unlock();
    return result;
}

int SystemDB::setGeneralOptions(const GeneralOptions &options) {
    QLOG_DEBUG(SYSDB_COMPONENT, "setGeneralOptions");
    const KeyValue pairs[] = {
        intValue("enable_desktop_notification", options.enable_desktop_notification),
        intValue("enable_iconoverlay", options.enable_iconoverlay),
        intValue("enable_filtered_iconoverlay", options.enable_filtered_iconoverlay),
        intValue("enable_context_menu", options.enable_context_menu),
        intValue("enable_startup", options.enable_startup),
        intValue("use_black_white_icon", options.use_bw_icon),
        intValue("show_tutorial", options.show_tutorial),
        intValue("sync_mode", options.sync_mode),
        textValue("open_folder", std::string(options.open_folder.c_str())),
    };
    std::string message;
    lock();
    const int ret = writeKeyValues(m_db, pairs, sizeof(pairs) / sizeof(pairs[0]), message);
    unlock();
    if (ret != SQLITE_OK) {
        QLOG_ERROR(SYSDB_COMPONENT, "setGeneralOptions fail ret = %d %s", ret, message.c_str());
        return -1;
    }
    return 0;
}

int SystemDB::getUserProxyInfo(ProxyInfo &info) {
    QLOG_DEBUG(SYSDB_COMPONENT, "getUserProxyInfo");
    // Read into a copy so that a failure part-way leaves the caller's record
    // as it was.
    ProxyInfo read = info;
    sqlite3_stmt *stmt = nullptr;

    lock();
    int ret =
        m_db ? sqlite3_prepare_v2(m_db, SELECT_SYSTEM_TABLE, -1, &stmt, nullptr) : SQLITE_MISUSE;
    if (ret == SQLITE_OK) {
        while ((ret = sqlite3_step(stmt)) == SQLITE_ROW) {
            const char *key = reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0));
            if (!key)
                continue;
            if (std::strcmp(key, "user_use_proxy") == 0) {
                read.use_proxy = sqlite3_column_int(stmt, 1) == 1;
            } else if (std::strcmp(key, "user_use_sys_proxy") == 0) {
                read.use_sys_proxy = sqlite3_column_int(stmt, 1) == 1;
            } else if (std::strcmp(key, "user_proxy_ip") == 0) {
                read.proxy_ip = columnText(stmt, 1);
            } else if (std::strcmp(key, "user_proxy_port") == 0) {
                // A number that is no port leaves the field as it was.
                const sqlite3_int64 port = sqlite3_column_int64(stmt, 1);
                if (port >= 0 && port <= 65535)
                    read.proxy_port = static_cast<uint16_t>(port);
            } else if (std::strcmp(key, "user_proxy_user") == 0) {
                read.user_name = columnText(stmt, 1);
            } else if (std::strcmp(key, "user_proxy_pass") == 0) {
                read.password = columnText(stmt, 1);
            } else if (std::strcmp(key, "user_proxy_domain") == 0) {
                read.domain = columnText(stmt, 1);
            } else if (std::strcmp(key, "user_proxy_host") == 0) {
                read.host = columnText(stmt, 1);
            }
        }
    }
    sqlite3_finalize(stmt);
    unlock();

    if (ret != SQLITE_DONE) {
        QLOG_ERROR(SYSDB_COMPONENT, "get proxy info failed, use default setting");
        return -1;
    }
    info = read;
    return 0;
}

int SystemDB::setUserProxyInfo(const ProxyInfo &info) {
    QLOG_DEBUG(SYSDB_COMPONENT, "setUserProxyInfo: %s", info.toString().c_str());
    const KeyValue pairs[] = {
        intValue("user_use_proxy", info.use_proxy),
        intValue("user_use_sys_proxy", info.use_sys_proxy),
        textValue("user_proxy_ip", info.proxy_ip),
        intValue("user_proxy_port", info.proxy_port),
        textValue("user_proxy_domain", info.domain),
        textValue("user_proxy_host", info.host),
        textValue("user_proxy_user", info.user_name),
        textValue("user_proxy_pass", info.password),
    };
    std::string message;
    lock();
    const int ret = writeKeyValues(m_db, pairs, sizeof(pairs) / sizeof(pairs[0]), message);
    unlock();
    if (ret != SQLITE_OK) {
        QLOG_ERROR(SYSDB_COMPONENT, "setProxyInfo fail ret = %d %s", ret, message.c_str());
        return -1;
    }
    return 0;
}
