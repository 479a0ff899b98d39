#include "port_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "db_util/owners.h"
#include "db_util/str.h"
#include "dusbd_log.h"

namespace dusb {

int PortFiles::open_dir(bool create) {
    if (create && mkdir(dir_.c_str(), 0755) != 0 && errno != EEXIST) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot create %s: %s", dir_.c_str(), usbmgr::ErrnoText(errno).c_str());
        return -1;
    }
    int fd = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && (create || errno != ENOENT))
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot open the folder %s: %s", dir_.c_str(), usbmgr::ErrnoText(errno).c_str());
    return fd;
}

bool PortFiles::write(const std::string& port, const std::string& list) {
    usbmgr::UniqueFd dir(open_dir(true));
    if (!dir) return false;
    const std::string temp = "." + port + "." + std::to_string(static_cast<long>(getpid()));
    const std::string line = list + "\r\n";
    usbmgr::UniqueFd f(openat(dir.get(), temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    bool ok = static_cast<bool>(f);
    if (ok) {
        ok = ::write(f.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) && fsync(f.get()) == 0;
        f.reset();
        ok = ok && renameat(dir.get(), temp.c_str(), dir.get(), port.c_str()) == 0;
        if (!ok) unlinkat(dir.get(), temp.c_str(), 0);
    }
    if (!ok) DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot write %s/%s: %s", dir_.c_str(), port.c_str(), usbmgr::ErrnoText(errno).c_str());
    return ok;
}

bool PortFiles::remove(const std::string& port) {
    usbmgr::UniqueFd dir(open_dir(false));
    if (!dir) return errno == ENOENT;
    if (unlinkat(dir.get(), port.c_str(), 0) != 0 && errno != ENOENT) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot remove %s/%s: %s", dir_.c_str(), port.c_str(), usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    return true;
}

}  // namespace dusb
