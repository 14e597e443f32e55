#ifndef QUILLON_LIB_SYSTEM_DB_SYSTEM_DB_H
#define QUILLON_LIB_SYSTEM_DB_SYSTEM_DB_H

#include "system-db-data.h"
#include "ustring/ustring.h"

#include <pthread.h>
#include <string>

struct sqlite3;

// The client's system database. One connection per process, held in static
// state: initialize() opens it (creating whatever part of the schema is
// missing) and it stays open until destroy() or the end of the process.
// Every query operation runs under m_dbMutex; initialize() does not, as it is
// called once before any query. Operations return 0 on success and -1 on
// failure, which they log under "system_db_debug".
class SystemDB {
public:
    static int initialize(const ustring &path);
    static void destroy();

    static void lock();
    static void unlock();

    // Fills only the fields whose keys are present; the others keep the
    // caller's values.
    static int getGeneralOptions(GeneralOptions &options);
    static int setGeneralOptions(const GeneralOptions &options);

    // The user's own proxy settings. The caller's record is left as it was
    // when reading fails.
    static int getUserProxyInfo(ProxyInfo &info);
    static int setUserProxyInfo(const ProxyInfo &info);

private:
    SystemDB() = delete;

    static std::string m_system_db_path;
    static pthread_mutex_t m_dbMutex;
    static sqlite3 *m_db;
};

#endif
