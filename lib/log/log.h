#ifndef QUILLON_LIB_LOG_LOG_H
#define QUILLON_LIB_LOG_LOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <pthread.h>
#include <string>

typedef char xchar;
typedef std::string xstring;

#if defined(__GNUC__)
#define QUILLON_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define QUILLON_PRINTF_LIKE(fmt_index, first_arg)
#endif

// Process-wide logging facility. Every message carries a level and a component
// name; a template file read at initialisation sets a threshold per component
// and anything above it is dropped before the lock is taken.
class Logger {
public:
    enum Level {
        L_EMERG = 0,
        L_ALERT = 1,
        L_CRIT = 2,
        L_ERR = 3,
        L_WARNING = 4,
        L_NOTICE = 5,
        L_INFO = 6,
        L_DEBUG = 7,
    };

    enum Type {
        ANDROID_LOGGER = 0,
        SYSLOG_LOGGER = 1,
        STDOUT_LOGGER = 2,
        STDERR_LOGGER = 3,
        FILE_LOGGER = 4,
    };

    enum SafetyScope {
        NonSafe = 0,
        ThreadSafe = 1,
        ProcessSafe = 2,
    };

    // Size after which the file target is rotated.
    static const int64_t ROTATE_SIZE = 1024 * 1024;
    static const int DEFAULT_ROTATE_COUNT = 32;

    static int Initialize(Type type, const xstring &path, const xstring &config_path, int rotate_cnt,
                          SafetyScope scope);
    static void Destroy();

    static void LogMsg(Level level, const xstring &component, const xchar *format, ...)
        QUILLON_PRINTF_LIKE(3, 4);
    static void LogMsg2(Level level, const xstring &component, const xchar *format, va_list args)
        QUILLON_PRINTF_LIKE(3, 0);

    static bool IsNeedToLog(Level level, const xstring &component);
    static int GetCompLevel(const xstring &component);

    static int Rotate();
    static int RotateIfFileBig(int written);
    static void ReloadLogFile();
    static int GetFileSize(const xstring &path);
    static int PrintToFilePointer(const xchar *format, ...) QUILLON_PRINTF_LIKE(1, 2);
    static int PrintToFilePointerV(const xchar *format, va_list args) QUILLON_PRINTF_LIKE(1, 0);

    static void InitializeLock();
    static void DestroyLock();
    static void InitializeFileLock();
    static void DestroyFileLock();
    static void Lock();
    static void Unlock();
    static void InitializeSharedData();
    static void DestroySharedData();

private:
    static std::map<xstring, int> log_level;
    static Type log_type;
    static FILE *log_fp;
    static int32_t *log_size;
    static int rotate_cnt;
    static xstring log_path;
    static pthread_mutex_t *log_lock;
    static int log_flock;
    static SafetyScope safety_scope;
    static uint64_t *log_rotated_count_shared;
    static uint64_t log_rotated_count_private;
    static bool log_initialized;
};

// Plain-function form for callers that only hold character pointers.
void LogMSG_c(int level, const char *component, const char *format, va_list args)
    QUILLON_PRINTF_LIKE(3, 0);

// Every message starts with "[LEVEL] file.cpp(line): " and ends with a newline.
// The macros below build that prefix at compile time so the level word always
// matches the level and no call site spells it by hand.
#ifndef __FILE_NAME__
#error "the log macros need a compiler that provides __FILE_NAME__ (GCC 12, clang 9 or later)"
#endif

#define QLOG_EMIT(level, word, component, format, ...)                                             \
    Logger::LogMsg(level, component, word " " __FILE_NAME__ "(%d): " format "\n", __LINE__,      \
                   ##__VA_ARGS__)

#define QLOG_ERROR(component, format, ...)                                                         \
    QLOG_EMIT(Logger::L_ERR, "[ERROR]", component, format, ##__VA_ARGS__)
#define QLOG_WARNING(component, format, ...)                                                       \
    QLOG_EMIT(Logger::L_WARNING, "[WARNING]", component, format, ##__VA_ARGS__)
#define QLOG_INFO(component, format, ...)                                                          \
    QLOG_EMIT(Logger::L_INFO, "[INFO]", component, format, ##__VA_ARGS__)
#define QLOG_DEBUG(component, format, ...)                                                         \
    QLOG_EMIT(Logger::L_DEBUG, "[DEBUG]", component, format, ##__VA_ARGS__)

#endif
