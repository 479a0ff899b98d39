#include "sysfs_attr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "db_util/owners.h"

namespace dusb {

bool read_sysfs_line(const std::string& dir, const char* name, char* buf, std::size_t size) {
    if (size == 0) return false;
    buf[0] = '\0';
    const std::string path = dir + "/" + name;
    usbmgr::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd) return false;
    struct stat st{};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    std::size_t got = 0;
    while (got < size - 1) {
        ssize_t n = ::read(fd.get(), buf + got, size - 1 - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    buf[got] = '\0';
    // The first line only, and a NUL ends the text.
    buf[strcspn(buf, "\r\n")] = '\0';
    return true;
}

void trim_blanks(char* buf) {
    std::size_t start = strspn(buf, " \t");
    std::size_t len = strlen(buf + start);
    while (len > 0 && (buf[start + len - 1] == ' ' || buf[start + len - 1] == '\t')) --len;
    memmove(buf, buf + start, len);
    buf[len] = '\0';
}

long read_sysfs_number(const std::string& dir, const char* name, int base) {
    char text[32];
    if (!read_sysfs_line(dir, name, text)) return -1;
    trim_blanks(text);
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, base);
    if (end == text || *end != '\0' || errno != 0 || v < 0) return -1;
    return v;
}

bool sysfs_file_exists(const std::string& dir, const char* name) {
    struct stat st{};
    const std::string path = dir + "/" + name;
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool sysfs_dir_exists(const std::string& path) {
    struct stat st{};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace dusb
