// liborbiil logging: one line a message,
//   YYYY-MM-DD HH:MM:SS.mmm APP[PID] LEVEL module.c:LINE message
// to the file named by ORBIIL_LOG_FILE, else to stderr.
//
// Each line leaves in a single write() on an O_APPEND descriptor, so lines of
// several processes never mix. Within a process one lock orders the writes
// and the closing of the file (a thread may reset the log while others still
// trace); so the trace call is not for signal handlers.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "db_util/str.h"
#include "orbiil.h"
#include "platform_export.h"

namespace {

constexpr size_t kMessageSize = 4096;
constexpr size_t kLineSize = kMessageSize + 256;

std::atomic<int> g_level{ORBIIL_LOG_ERROR};
std::mutex g_fd_mutex;
int g_fd = -1;  // the log file once opened; -1 for not yet (or stderr); under g_fd_mutex
char g_app[ORBIIL_NAME_SIZE] = "orbiil";

const char* level_name(int level) {
    static const char* const kNames[] = {"QUITE", "ERROR", "WARNING", "INFO", "DEBUG"};
    if (level < 0 || level > ORBIIL_LOG_DEBUG) return "Unknown";
    return kNames[level];
}

// The descriptor to write to: the log file (opened on first use) or stderr.
// Called with g_fd_mutex held.
int log_fd_locked() {
    if (g_fd >= 0) return g_fd;
    const char* path = getenv("ORBIIL_LOG_FILE");
    if (path == nullptr || path[0] == '\0') return STDERR_FILENO;
    g_fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    return g_fd >= 0 ? g_fd : STDERR_FILENO;
}

void close_log() {
    std::lock_guard<std::mutex> lock(g_fd_mutex);
    if (g_fd >= 0) ::close(g_fd);
    g_fd = -1;
}

void write_all(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n <= 0) return;
        data += n;
        len -= static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" {

PLATFORM_API int OrbIilInitLog(const char* app_name) {
    usbmgr::copy_str(g_app, app_name && app_name[0] ? app_name : "orbiil");
    // ORBIIL_LOG_FILE is read again on the next trace.
    close_log();
    return 1;
}

PLATFORM_API void OrbIilSetLogLevel(int level) { g_level = level; }

PLATFORM_API void OrbIilTrace(int level, const char* module, int line, const char* fmt, ...) {
    if (level > g_level.load()) return;

    char message[kMessageSize];
    message[0] = '\0';
    if (fmt) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(message, sizeof message, fmt, ap);
        va_end(ap);
    }
    size_t mlen = strnlen(message, sizeof message);
    while (mlen > 0 && (message[mlen - 1] == '\n' || message[mlen - 1] == '\r')) message[--mlen] = '\0';

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char stamp[32];
    if (strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm) == 0) stamp[0] = '\0';

    char text[kLineSize];
    int n = snprintf(text, sizeof text, "%s.%03ld %s[%ld] %s %s:%d %s\n", stamp, static_cast<long>(tv.tv_usec / 1000),
                     g_app, static_cast<long>(getpid()), level_name(level), module ? module : "?", line, message);
    if (n < 0) return;
    size_t len = static_cast<size_t>(n);
    if (len >= sizeof text) {
        // Cut: keep the line end.
        len = sizeof text - 1;
        text[len - 1] = '\n';
    }
    std::lock_guard<std::mutex> lock(g_fd_mutex);
    write_all(log_fd_locked(), text, len);
}

PLATFORM_API void OrbIilResetLog(void) { close_log(); }

}  // extern "C"
