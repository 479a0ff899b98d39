// Replacing a generated server configuration file: the old file goes, the
// new one is created exclusively so that it is never written through a link
// or into a file someone else holds open.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "app_util/app_util_internal.h"
#include "db_util/owners.h"

namespace app_util_internal {

usbmgr::UniqueFd create_new_file(const char* path) {
    if (usbmgr::FilePtr old(std::fopen(path, "re")); old) {
        old.reset();
        ::unlink(path);
    }
    return usbmgr::UniqueFd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
}

void write_text(const usbmgr::UniqueFd& fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
}

bool replace_file(const char* path, const std::string& text) {
    usbmgr::UniqueFd fd = create_new_file(path);
    if (!fd) return false;
    write_text(fd, text);
    return true;
}

}  // namespace app_util_internal
