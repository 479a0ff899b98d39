// Unit tests run in a mount namespace of their own (and a user namespace
// when not root) with tmpfs over /tmp and /var, so that the daemon's fixed
// paths (/var/config, /var/dev, /tmp/usb) are private to the test run.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

bool write_text(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

bool isolate() {
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

}  // namespace

int main(int argc, char** argv) {
    testing_support::factory_settings();
    if (!isolate()) {
        std::fprintf(stderr, "cannot make the private /tmp and /var the tests need\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
