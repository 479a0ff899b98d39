// Host stand-in of the gateway's configuration manager. The gateway's tool
// stores the configuration files in flash; here "orbcm_util cfg save" only
// appends one timestamped line to /var/log/orbcm_util.log, so that tests can
// count the hand-offs.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "db_util/str.h"

namespace {

constexpr const char kLogPath[] = "/var/log/orbcm_util.log";

int usage() {
    fprintf(stderr, "usage: orbcm_util cfg save\n");
    return 2;
}

int cfg_save() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char stamp[32];
    if (strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm) == 0) stamp[0] = '\0';
    char line[128];
    usbmgr::format_str(line, "%s.%03ld cfg save [%ld]\n", stamp, static_cast<long>(tv.tv_usec / 1000),
                       static_cast<long>(getpid()));

    int fd = open(kLogPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "orbcm_util: cannot open %s: %s\n", kLogPath, usbmgr::ErrnoText(errno).c_str());
        return 1;
    }
    size_t len = strnlen(line, sizeof line);
    ssize_t n = write(fd, line, len);  // one write: concurrent savers never mix lines
    int saved_errno = errno;
    close(fd);
    if (n != static_cast<ssize_t>(len)) {
        fprintf(stderr, "orbcm_util: cannot write %s: %s\n", kLogPath, usbmgr::ErrnoText(saved_errno).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "cfg") == 0 && strcmp(argv[2], "save") == 0) return cfg_save();
    return usage();
}
