#include "log.h"

#include "config.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <sstream>
#include <sys/stat.h>
#include <syslog.h>

std::map<xstring, int> Logger::log_level;
Logger::Type Logger::log_type = Logger::STDERR_LOGGER;
FILE *Logger::log_fp = nullptr;
int32_t *Logger::log_size = nullptr;
int Logger::rotate_cnt = Logger::DEFAULT_ROTATE_COUNT;
xstring Logger::log_path;
pthread_mutex_t *Logger::log_lock = nullptr;
int Logger::log_flock = -1;
Logger::SafetyScope Logger::safety_scope = Logger::NonSafe;
uint64_t *Logger::log_rotated_count_shared = nullptr;
uint64_t Logger::log_rotated_count_private = 0;
bool Logger::log_initialized = false;

static const char *const DEFAULT_COMPONENT = "default_component";

static bool is_standard_stream(FILE *fp) {
    return fp == stdout || fp == stderr;
}

int Logger::Initialize(Type type, const xstring &path, const xstring &config_path, int rotate_count,
                       SafetyScope scope) {
    DestroySharedData();
    DestroyLock();
    log_initialized = false;
    // A stream left open by an earlier initialisation would otherwise leak.
    if (log_fp && !is_standard_stream(log_fp))
        std::fclose(log_fp);
    log_fp = nullptr;

    log_path = path;
    safety_scope = (type == FILE_LOGGER) ? scope : NonSafe;

    InitializeFileLock();
    InitializeLock();
    InitializeSharedData();
    if (!log_size || !log_rotated_count_shared)
        return -1;

    log_level[DEFAULT_COMPONENT] = L_WARNING;
    if (!config_path.empty()) {
        Config config;
        config.read(config_path);
        for (const auto &kv : config) {
            // Stream extraction: "7" is 7, "7x" is 7, "abc" is 0.
            std::istringstream in(kv.second);
            int level = 0;
            in >> level;
            log_level[kv.first] = level;
        }
    }

    log_type = type;
    switch (type) {
    case SYSLOG_LOGGER:
        log_fp = nullptr;
        log_path.clear();
        break;
    case STDOUT_LOGGER:
        log_fp = stdout;
        log_path.clear();
        break;
    case STDERR_LOGGER:
        log_fp = stderr;
        log_path.clear();
        break;
    default:
        if (path.empty())
            return -1;
        log_fp = std::fopen(path.c_str(), "a");
        if (!log_fp)
            return -1;
        log_path = path;
        rotate_cnt = rotate_count;
        *log_rotated_count_shared = 0;
        log_rotated_count_private = 0;
        *log_size = GetFileSize(log_path);
        log_initialized = true;
        return 0;
    }

    *log_size = -1;
    *log_rotated_count_shared = 0;
    log_rotated_count_private = 0;
    log_initialized = true;
    return 0;
}

void Logger::Destroy() {
    log_initialized = false;
    if (log_type == FILE_LOGGER) {
        if (log_fp && !is_standard_stream(log_fp))
            std::fclose(log_fp);
        // Deliberately paired with standard output: nothing is written while
        // uninitialised, and a later Initialize picks its own stream.
        log_type = STDERR_LOGGER;
        log_fp = stdout;
        log_path.clear();
        rotate_cnt = DEFAULT_ROTATE_COUNT;
    }
    DestroySharedData();
    DestroyLock();
}

int Logger::GetCompLevel(const xstring &component) {
    auto it = log_level.find(component);
    return it == log_level.end() ? static_cast<int>(L_WARNING) : it->second;
}

bool Logger::IsNeedToLog(Level level, const xstring &component) {
    if (!log_initialized)
        return false;
    return static_cast<int>(level) <= GetCompLevel(component);
}

void Logger::LogMsg(Level level, const xstring &component, const xchar *format, ...) {
    va_list args;
    va_start(args, format);
    LogMsg2(level, component, format, args);
    va_end(args);
}

void Logger::LogMsg2(Level level, const xstring &component, const xchar *format, va_list args) {
    if (!log_initialized || (log_type != SYSLOG_LOGGER && !log_fp))
        return;
    // Filter before locking or formatting: a suppressed message costs one lookup.
    if (static_cast<int>(level) > GetCompLevel(component))
        return;

    Lock();
    ReloadLogFile();
    int written = 0;
    switch (log_type) {
    case SYSLOG_LOGGER:
        vsyslog(LOG_ERR, format, args);
        break;
    case STDOUT_LOGGER:
    case STDERR_LOGGER:
    case FILE_LOGGER:
        written = PrintToFilePointerV(format, args);
        break;
    default:
        std::vfprintf(stderr, format, args);
        break;
    }
    RotateIfFileBig(written);
    Unlock();
}

void LogMSG_c(int level, const char *component, const char *format, va_list args) {
    Logger::LogMsg2(static_cast<Logger::Level>(level), component ? component : "", format, args);
}

int Logger::PrintToFilePointer(const xchar *format, ...) {
    va_list args;
    va_start(args, format);
    int n = PrintToFilePointerV(format, args);
    va_end(args);
    return n;
}

int Logger::PrintToFilePointerV(const xchar *format, va_list args) {
    if (!log_fp)
        return 0;
    char stamp[512];
    time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    size_t stamp_len = std::strftime(stamp, sizeof(stamp), "%b %d %H:%M:%S ", &local);
    std::fputs(stamp, log_fp);
    int n = std::vfprintf(log_fp, format, args);
    std::fflush(log_fp);
    return static_cast<int>(stamp_len) + (n > 0 ? n : 0);
}

int Logger::RotateIfFileBig(int written) {
    if (log_type != FILE_LOGGER || written < 0 || !log_size)
        return 0;
    *log_size += written;
    if (*log_size > ROTATE_SIZE) {
        int rc = Rotate();
        *log_size = 0;
        return rc;
    }
    return 0;
}

static xstring archive_name(const xstring &path, int index) {
    char name[1024];
    std::snprintf(name, sizeof(name), "%s_%d", path.c_str(), index);
    return name;
}

int Logger::Rotate() {
    const int n = rotate_cnt;
    for (int i = n - 2; i >= 0; --i)
        std::rename(archive_name(log_path, i).c_str(), archive_name(log_path, i + 1).c_str());
    // Runs after the shift on purpose: the top slot is dropped, so N-1
    // archives (_0 newest to _N-2 oldest) are kept.
    std::remove(archive_name(log_path, n - 1).c_str());

    // The stream is swapped, never left empty while the files move: other
    // threads test it before they take the lock, and one that saw no stream
    // would drop its line. An open file can be renamed, so the old stream is
    // closed only once the new one exists.
    FILE *old_fp = log_fp;
    auto drop_stream = [old_fp]() {
        if (old_fp && !is_standard_stream(old_fp))
            std::fclose(old_fp);
        log_fp = nullptr;
        return -1;
    };
    if (std::rename(log_path.c_str(), archive_name(log_path, 0).c_str()) != 0)
        return drop_stream();
    FILE *new_fp = std::fopen(log_path.c_str(), "a");
    if (!new_fp)
        return drop_stream();
    log_fp = new_fp;
    if (old_fp && !is_standard_stream(old_fp))
        std::fclose(old_fp);
    if (log_rotated_count_shared)
        ++*log_rotated_count_shared;
    ++log_rotated_count_private;
    return 0;
}

void Logger::ReloadLogFile() {
    if (log_type != FILE_LOGGER || safety_scope < ProcessSafe || !log_rotated_count_shared)
        return;
    if (*log_rotated_count_shared == log_rotated_count_private)
        return;
    if (log_fp && !is_standard_stream(log_fp))
        std::fclose(log_fp);
    log_fp = std::fopen(log_path.c_str(), "a");
    if (log_fp) {
        *log_size = GetFileSize(log_path);
        log_rotated_count_private = *log_rotated_count_shared;
    }
}

int Logger::GetFileSize(const xstring &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        int err = errno;
        if (log_fp)
            std::fprintf(log_fp, "stat(%s): %s (%d)\n", path.c_str(), std::strerror(err), err);
        return 0;
    }
    // The count is 32 bits wide: a log someone else let grow past 2 GiB would
    // wrap it (and stop rotation for good), so anything past the limit is
    // just "over it".
    if (st.st_size > ROTATE_SIZE)
        return static_cast<int>(ROTATE_SIZE) + 1;
    return static_cast<int>(st.st_size);
}

void Logger::InitializeLock() {
    if (safety_scope > NonSafe && !log_lock) {
        log_lock = new (std::nothrow) pthread_mutex_t;
        if (log_lock)
            pthread_mutex_init(log_lock, nullptr);
    }
}

void Logger::DestroyLock() {
    if (log_lock) {
        pthread_mutex_destroy(log_lock);
        delete log_lock;
        log_lock = nullptr;
    }
}

// Writers in several processes are not coordinated: the file lock is a no-op
// and the "shared" counters live in this process's memory.
void Logger::InitializeFileLock() {}
void Logger::DestroyFileLock() {}

void Logger::Lock() {
    if (safety_scope > NonSafe && log_lock)
        pthread_mutex_lock(log_lock);
}

void Logger::Unlock() {
    if (safety_scope > NonSafe && log_lock)
        pthread_mutex_unlock(log_lock);
}

void Logger::InitializeSharedData() {
    if (log_size && log_rotated_count_shared)
        return;
    if (!log_size)
        log_size = new (std::nothrow) int32_t(0);
    if (!log_rotated_count_shared)
        log_rotated_count_shared = new (std::nothrow) uint64_t(0);
}

void Logger::DestroySharedData() {
    delete log_size;
    log_size = nullptr;
    delete log_rotated_count_shared;
    log_rotated_count_shared = nullptr;
}
