// Owners of the system's handles: each closes what it holds when it goes
// out of scope, so no early return can leak a file, a folder or a pipe.
#ifndef USBMGR_DB_UTIL_OWNERS_H
#define USBMGR_DB_UTIL_OWNERS_H

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace usbmgr {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};
// An open stdio file; empty when fopen failed.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR* d) const noexcept { closedir(d); }
};
// An open folder listing; empty when opendir failed.
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// A file descriptor; -1 when it holds none.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    // The descriptor, still owned here.
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    // Closes the descriptor held, then holds fd.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Gives the descriptor up without closing it.
    int release() noexcept {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

}  // namespace usbmgr

#endif
