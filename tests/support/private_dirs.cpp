#include "private_dirs.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace testing_support {

namespace {

bool write_text(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

}  // namespace

bool enter_private_dirs() {
    uid_t uid = getuid();
    gid_t gid = getgid();
    int flags = CLONE_NEWNS;
    if (geteuid() != 0) flags |= CLONE_NEWUSER;
    if (unshare(flags) != 0) {
        perror("unshare");
        return false;
    }
    if (flags & CLONE_NEWUSER) {
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("mount private");
        return false;
    }
    for (const char* dir : {"/tmp", "/var"}) {
        if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755,size=64m") != 0) {
            perror(dir);
            return false;
        }
    }
    mkdir("/var/config", 0755);
    mkdir("/var/dev", 0775);
    chmod("/tmp", 01777);
    return true;
}

}  // namespace testing_support
