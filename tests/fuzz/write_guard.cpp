// libc wrappers of the dispatch target (linked with -Wl,--wrap=NAME for
// each): every call that writes or removes a file by name passes its path
// to the write guard first, so no setting or command reaches a file outside
// the private /var and /tmp unnoticed. Reads pass unchecked.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"

namespace {

bool opens_for_writing(int flags) { return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0; }

bool mode_writes(const char* mode) { return mode != nullptr && std::strpbrk(mode, "wa+") != nullptr; }

// The folder an fd names, for the *at calls given a folder other than the
// working one.
std::string at_path(int dirfd, const char* path) {
    if (path == nullptr || path[0] == '/' || dirfd == AT_FDCWD) return path ? path : "";
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd);
    char dir[4096] = {};
    const ssize_t n = readlink(link, dir, sizeof dir - 1);
    if (n <= 0) return path;
    return std::string(dir, static_cast<std::size_t>(n)) + "/" + path;
}

mode_t mode_arg(int flags, va_list ap) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
int __real_open64(const char* path, int flags, ...);
int __real_openat(int dirfd, const char* path, int flags, ...);
FILE* __real_fopen(const char* path, const char* mode);
FILE* __real_fopen64(const char* path, const char* mode);
int __real_unlink(const char* path);
int __real_unlinkat(int dirfd, const char* path, int flags);
int __real_rename(const char* from, const char* to);
int __real_renameat(int fromfd, const char* from, int tofd, const char* to);
int __real_remove(const char* path);
int __real_rmdir(const char* path);
int __real_mkdir(const char* path, mode_t mode);
int __real_mkstemp(char* templ);
int __real_mkostemp(char* templ, int flags);

int __wrap_open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (opens_for_writing(flags)) fuzz::guard_path("open", path);
    return __real_open(path, flags, mode);
}

int __wrap_open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (opens_for_writing(flags)) fuzz::guard_path("open", path);
    return __real_open64(path, flags, mode);
}

int __wrap_openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    if (opens_for_writing(flags)) fuzz::guard_path("openat", at_path(dirfd, path).c_str());
    return __real_openat(dirfd, path, flags, mode);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    if (mode_writes(mode)) fuzz::guard_path("fopen", path);
    return __real_fopen(path, mode);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
    if (mode_writes(mode)) fuzz::guard_path("fopen", path);
    return __real_fopen64(path, mode);
}

int __wrap_unlink(const char* path) {
    fuzz::guard_path("unlink", path);
    return __real_unlink(path);
}

int __wrap_unlinkat(int dirfd, const char* path, int flags) {
    fuzz::guard_path("unlinkat", at_path(dirfd, path).c_str());
    return __real_unlinkat(dirfd, path, flags);
}

int __wrap_rename(const char* from, const char* to) {
    fuzz::guard_path("rename", from);
    fuzz::guard_path("rename", to);
    return __real_rename(from, to);
}

int __wrap_renameat(int fromfd, const char* from, int tofd, const char* to) {
    fuzz::guard_path("renameat", at_path(fromfd, from).c_str());
    fuzz::guard_path("renameat", at_path(tofd, to).c_str());
    return __real_renameat(fromfd, from, tofd, to);
}

int __wrap_remove(const char* path) {
    fuzz::guard_path("remove", path);
    return __real_remove(path);
}

int __wrap_rmdir(const char* path) {
    fuzz::guard_path("rmdir", path);
    return __real_rmdir(path);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    fuzz::guard_path("mkdir", path);
    return __real_mkdir(path, mode);
}

int __wrap_mkstemp(char* templ) {
    fuzz::guard_path("mkstemp", templ);
    return __real_mkstemp(templ);
}

int __wrap_mkostemp(char* templ, int flags) {
    fuzz::guard_path("mkostemp", templ);
    return __real_mkostemp(templ, flags);
}

}  // extern "C"
