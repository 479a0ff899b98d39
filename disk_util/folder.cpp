// Whether a folder under the mount root may be mounted on or shared. The
// mount root and its folders are where root mounts disks and from where
// Samba serves them: a link planted there, or a folder someone else owns or
// may write, would point a mount or a share at any other place.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"

static constexpr const char kLogModule[] = "disk_util.c";

namespace {

// Opens a folder without following a link at its last component; the
// reason when it is not one.
usbmgr::UniqueFd open_folder(int at, const char* path, const char*& why) {
    usbmgr::UniqueFd fd(::openat(at, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() >= 0) return fd;
    if (errno == ELOOP) {
        why = "a link";
    } else if (errno == ENOTDIR) {
        // A link to a file gives ENOTDIR too: name it by what it is.
        struct stat st {};
        why = ::fstatat(at, path, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode) ? "a link" : "not a folder";
    } else if (errno == ENOENT) {
        why = "missing";
    } else {
        why = "cannot be opened";
    }
    return fd;
}

// Owned by root and writable by nobody else: others never, the group only
// when it is root's.
const char* ownership_refusal(const struct stat& st) {
    if (st.st_uid != 0) return "not owned by root";
    if ((st.st_mode & S_IWOTH) != 0 || ((st.st_mode & S_IWGRP) != 0 && st.st_gid != 0)) return "writable by others";
    return nullptr;
}

}  // namespace

bool disk_util_folder_ok(DiskFolderUse use, const char* name) {
    char path[MOUNT_DISK_PATH_SIZE + 40] = {};
    const bool below = use != DiskFolderUse::mount_root;
    const bool named = !below || (name != nullptr && disk_util_block_name_ok(name) && std::strlen(name) > 3);
    const bool fits = below ? usbmgr::format_str(path, "%s/%s", MOUNT_DISK_PATH, named ? name : "")
                            : usbmgr::format_str(path, "%s", MOUNT_DISK_PATH);
    const char* why = nullptr;
    int level = USBMGR_LOG_ERROR;
    usbmgr::UniqueFd root;
    usbmgr::UniqueFd folder;
    struct stat root_st {};
    struct stat st {};
    if (!fits || MOUNT_DISK_PATH[0] != '/') {
        why = "not a plain path";
    } else if (!named) {
        why = "not a partition's folder";
    } else if (!(root = open_folder(AT_FDCWD, MOUNT_DISK_PATH, why)) || ::fstat(root.get(), &root_st) != 0 ||
               (why = ownership_refusal(root_st)) != nullptr) {
        // The root is refused: what lies below it is not looked at.
        if (why == nullptr) why = "cannot be opened";
        usbmgr::format_str(path, "%s", MOUNT_DISK_PATH);
    } else if (below && !(folder = open_folder(root.get(), name, why))) {
        // A volume gone or never mounted leaves no folder to share.
        if (use == DiskFolderUse::share && std::strcmp(why, "missing") == 0) level = USBMGR_LOG_DEBUG;
    } else if (below && ::fstat(folder.get(), &st) != 0) {
        why = "cannot be opened";
    } else if (below) {
        // A mount point carries the disk's own root folder, whose owner and
        // mode are the disk's business; only root can make one here.
        const bool mount_point = st.st_dev != root_st.st_dev;
        if (use == DiskFolderUse::share && !mount_point) {
            why = "not a mount point";
            level = USBMGR_LOG_DEBUG;
        } else if (use == DiskFolderUse::mount_on && !mount_point) {
            why = ownership_refusal(st);
        }
    }
    if (why == nullptr) return true;
    char shown[sizeof path + 8];
    USBMGR_TRACE(level, "refusing folder %s: %s", usbmgr::clean_copy(shown, path), why);
    return false;
}
