// Device nodes in /var/dev, mounting of partitions under the mount root and
// their unmounting. The truth is always what "ls", "mount" and the folders
// show; nothing is remembered between calls.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"

static constexpr const char kLogModule[] = "disk_util.c";

namespace {

constexpr std::size_t kCommandSize = 100;   // every composed command line
constexpr std::size_t kUnmountLine = 100;   // lines of the mount listing at shutdown
constexpr std::size_t kPathSize = 128;      // mount folder and node paths
constexpr std::size_t kMaxNameLen = 31;
constexpr int kMaxPartition = 15;          // the sixteen minors of a disk: itself and 15 partitions
constexpr long kMaxSerialMinor = 1048575;  // the kernel's largest minor number
constexpr const char kMountOptions[] = "nosuid,nodev";

using usbmgr::DirPtr;

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Mount folder <mount root>/<name>; false, logged, when it does not fit.
template <std::size_t N>
bool mount_folder(char (&out)[N], const char* name) {
    if (usbmgr::format_str(out, "%s/%s", MOUNT_DISK_PATH, name)) return true;
    USBMGR_TRACE(USBMGR_LOG_ERROR, "refusing mount folder %s/%s: too long", MOUNT_DISK_PATH, name);
    return false;
}

// Node path /var/dev/<name>.
template <std::size_t N>
bool node_path(char (&out)[N], const char* name) {
    return usbmgr::format_str(out, "%s/%s", DISK_UTIL_DEV_PATH, name);
}

// Runs a check and hands its output to found; false when the command could
// not start (or printed nothing that found accepts).
template <typename Found>
bool check_output(const usbmgr::CommandLine& cmd, Found found, bool* started = nullptr) {
    usbmgr::RunResult r = usbmgr::runner().run(cmd, /*capture=*/true);
    if (started) *started = r.started;
    return r.started && found(r.output);
}

// Partition number of a block name that disk_util_block_name_ok accepts; 0 for the disk.
int block_partition(const char* name) {
    int part = 0;
    for (const char* p = name + 3; *p != '\0'; ++p) part = part * 10 + (*p - '0');
    return part;
}

// Minor number of a block node: sdb2 is 16 + 2.
int block_minor(const char* name) { return (name[2] - 'a') * 16 + block_partition(name); }

void log_refused_name(const char* name) {
    char shown[80];
    USBMGR_TRACE(USBMGR_LOG_ERROR, "refusing device name '%s'", usbmgr::clean_copy(shown, name));
}

// Removes a node with "rm -f"; 0, or -1 when it could not start.
int remove_node(const char* name) {
    if (!disk_util_device_name_ok(name)) {
        log_refused_name(name);
        return -1;
    }
    char path[kPathSize];
    node_path(path, name);
    return disk_util_exe_command(usbmgr::CommandLine::exec({"rm", "-f", path}));
}

}  // namespace

bool disk_util_device_name_ok(const char* name) {
    if (!name) return false;
    std::size_t i = 0;
    while (i <= kMaxNameLen && name[i] != '\0' && is_letter(name[i])) ++i;
    if (i == 0) return false;
    while (i <= kMaxNameLen && name[i] != '\0' && is_digit(name[i])) ++i;
    return i <= kMaxNameLen && name[i] == '\0';
}

bool disk_util_block_name_ok(const char* name) {
    if (!name || name[0] != 's' || name[1] != 'd' || name[2] < 'a' || name[2] > 'z') return false;
    const char* digits = name + 3;
    if (*digits == '\0') return true;
    // No leading zero: sda01 would share sda1's node.
    if (*digits < '1' || *digits > '9') return false;
    std::size_t n = 0;
    while (n < 3 && digits[n] >= '0' && digits[n] <= '9') ++n;
    return n <= 2 && digits[n] == '\0' && block_partition(name) <= kMaxPartition;
}

bool disk_util_serial_name_ok(const char* name) {
    static constexpr char kPrefix[] = "ttyUSB";
    if (!name || std::strncmp(name, kPrefix, sizeof kPrefix - 1) != 0) return false;
    const char* digits = name + sizeof kPrefix - 1;
    if (digits[0] == '\0' || (digits[0] == '0' && digits[1] != '\0')) return false;
    long minor = 0;
    for (const char* p = digits; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
        minor = minor * 10 + (*p - '0');
        if (minor > kMaxSerialMinor) return false;
    }
    return true;
}

namespace {

// Walks the pieces of a device list, skipping empty ones as the in-place
// split does; stops at the first piece for which fn returns false and
// returns false then. Pieces too long to be a name are handed over cut, and
// refused by their length.
template <typename Fn>
bool for_each_piece(const char* list, Fn fn) {
    const char* start = list;
    for (;;) {
        const char* comma = std::strchr(start, ',');
        std::size_t len = comma ? static_cast<std::size_t>(comma - start) : std::strlen(start);
        if (len > 0) {
            char piece[256];
            std::size_t keep = len < sizeof piece - 1 ? len : sizeof piece - 1;
            std::memcpy(piece, start, keep);
            piece[keep] = '\0';
            if (!fn(piece, len)) return false;
        }
        if (!comma) return true;
        start = comma + 1;
    }
}

bool piece_ok(const char* piece, std::size_t len) { return len <= kMaxNameLen && disk_util_device_name_ok(piece); }

}  // namespace

bool disk_util_device_list_ok(const char* list) {
    if (!list) return false;
    int names = 0;
    bool ok = for_each_piece(list, [&](const char* piece, std::size_t len) {
        ++names;
        return piece_ok(piece, len);
    });
    return ok && names > 0;
}

bool disk_util_accept_device_list(const char* list) {
    if (disk_util_device_list_ok(list)) return true;
    // Name the first piece that is not a device name ('' when there is none).
    char refused[256] = {};
    if (list) {
        for_each_piece(list, [&](const char* piece, std::size_t len) {
            if (piece_ok(piece, len)) return true;
            usbmgr::copy_str(refused, piece);
            return false;
        });
    }
    log_refused_name(refused);
    return false;
}

bool disk_util_command_ok(const usbmgr::CommandLine& command) {
    if (command.valid) return true;
    char shown[160];
    USBMGR_TRACE(USBMGR_LOG_ERROR, "refusing command line '%s'", usbmgr::clean_copy(shown, command.text.c_str()));
    return false;
}

int disk_util_exe_command(const usbmgr::CommandLine& command) {
    return usbmgr::run_logged(command, kLogModule) ? 0 : -1;
}

int disk_util_create_dev_folder() {
    if (::mkdir(DISK_UTIL_DEV_PATH, 0775) != 0) return errno;
    return 0;
}

int disk_util_create_root_folder() {
    if (::mkdir(MOUNT_DISK_PATH, 0775) != 0) return errno;
    return 0;
}

int disk_util_dev_node_exist(const char* name) {
    auto cmd = usbmgr::shell_command<kCommandSize>("ls %s | grep %s 2>&1", DISK_UTIL_DEV_PATH, name);
    if (!disk_util_command_ok(cmd)) return 0;
    // A disk counts as existing once one of its partitions has a node (sda
    // with only sda1 there), as grep's part-of-a-line match always had it;
    // a partition needs its own line, so sda10 is never taken for sda1.
    return check_output(cmd, [&](const std::string& out) { return disk_util_output_names(out, name); }) ? 1 : 0;
}

int disk_util_create_block_dev_node(const char* name) {
    // Only names the node formula can number: no overflow, no minor of another disk.
    if (!disk_util_block_name_ok(name)) {
        log_refused_name(name);
        return -1;
    }
    if (disk_util_dev_node_exist(name)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "the device node %s exist already", name);
        return -1;
    }
    char path[kPathSize];
    node_path(path, name);
    return disk_util_exe_command(
        usbmgr::CommandLine::exec({"mknod", path, "b", "8", std::to_string(block_minor(name))}));
}

int disk_util_create_usb_serial_dev_node(const char* name) {
    if (!disk_util_serial_name_ok(name)) {
        log_refused_name(name);
        return -1;
    }
    if (disk_util_dev_node_exist(name)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "the device node %s exist already", name);
        return -1;
    }
    long minor = std::strtol(name + 6, nullptr, 10);
    char path[kPathSize];
    node_path(path, name);
    return disk_util_exe_command(usbmgr::CommandLine::exec({"mknod", path, "c", "188", std::to_string(minor)}));
}

int disk_util_remove_usb_serial_dev_node(const char* name) {
    // Only an adapter's own node: a serial removal never takes a disk's.
    if (!disk_util_serial_name_ok(name)) {
        log_refused_name(name);
        return -1;
    }
    return remove_node(name);
}

int disk_util_remove_dev_node(const char* name) { return remove_node(name); }

int disk_util_is_mounted(const char* path) {
    auto cmd = usbmgr::shell_command<kCommandSize>("mount | grep %s 2>&1", path);
    if (!disk_util_command_ok(cmd)) return 0;
    return check_output(cmd, [&](const std::string& out) { return disk_util_mount_output_has(out, path); }) ? 1 : 0;
}

int disk_util_mount_fs(const char* device, const char* folder) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount_fs");
    if (disk_util_is_mounted(folder)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s already exist", folder);
        return 0;
    }
    // A disk brought in by anyone must not bring set-user-id programs or
    // device nodes with it.
    usbmgr::runner().run(usbmgr::CommandLine::exec({"mount", "-v", "-t", "auto", "-o", kMountOptions, device, folder}),
                         /*capture=*/false);
    if (disk_util_is_mounted(folder)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount %s auto %s success", device, folder);
        return 0;
    }
    // Each FUSE attempt counts only when the folder is then a mount: an
    // empty folder shared in its place would take users' files into RAM.
    usbmgr::runner().run(usbmgr::CommandLine::exec({"/bin/ntfs-3g", "-o", kMountOptions, device, folder}),
                         /*capture=*/false);
    if (disk_util_is_mounted(folder)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount %s NTFS %s success", device, folder);
        return 0;
    }
    // exFAT, the file system of most large sticks, where the kernel has none.
    usbmgr::runner().run(usbmgr::CommandLine::exec({"mount.exfat-fuse", "-o", kMountOptions, device, folder}),
                         /*capture=*/false);
    if (disk_util_is_mounted(folder)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount %s exFAT %s success", device, folder);
        return 0;
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount %s fail", device);
    return -1;
}

namespace {

// Still listed by "mount"; a check that cannot start counts as mounted, so
// that nothing is removed on a guess.
bool still_mounted(const usbmgr::CommandLine& check, const char* folder) {
    bool started = false;
    bool mounted =
        check_output(check, [&](const std::string& out) { return disk_util_mount_output_has(out, folder); }, &started);
    return mounted || !started;
}

}  // namespace

int disk_util_umount_fs(const char* folder, DiskBusy busy) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "umount_fs");
    auto check = usbmgr::shell_command<kCommandSize>("mount | grep %s 2>&1", folder);
    if (!disk_util_command_ok(check)) return -1;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "try to umount %s , count = %d", folder, 1);
    usbmgr::runner().run(usbmgr::CommandLine::exec({"umount", folder}), /*capture=*/false);
    if (!still_mounted(check, folder)) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "umount %s success", folder);
        return 0;
    }
    if (busy == DiskBusy::detach) {
        // The disk is gone: nothing more can reach it, so whatever still
        // holds it open must not hold the daemon too.
        usbmgr::runner().run(usbmgr::CommandLine::exec({"umount", "-l", folder}), /*capture=*/false);
        if (!still_mounted(check, folder)) {
            USBMGR_TRACE(USBMGR_LOG_WARNING, "umount %s busy, detached", folder);
            return 0;
        }
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "umount %s fail", folder);
    return -1;
}

void disk_util_mount_storage(char* list) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "mount_storage");
    if (!disk_util_accept_device_list(list)) return;

    if (!DirPtr(opendir(MOUNT_DISK_PATH))) {
        int err = disk_util_create_root_folder();
        if (err != 0) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "create folder %s fail .. %d", MOUNT_DISK_PATH, err);
            return;
        }
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "create folder %s success", MOUNT_DISK_PATH);
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "the %s exist.", MOUNT_DISK_PATH);
    // Made here or found: either way it must be root's own folder.
    if (!disk_util_folder_ok(DiskFolderUse::mount_root)) return;

    char* save = nullptr;
    char* name = strtok_r(list, ",", &save);
    if (!name) return;
    disk_util_create_block_dev_node(name);

    while ((name = strtok_r(nullptr, ",", &save)) != nullptr) {
        if (!disk_util_block_name_ok(name)) {
            log_refused_name(name);
            continue;
        }
        char folder[kPathSize];
        if (!mount_folder(folder, name)) continue;
        int err = ::mkdir(folder, 0775) != 0 ? errno : 0;
        if (err != 0 && err != EEXIST) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "create folder %s fail .. %d", folder, err);
            continue;
        }
        if (err == EEXIST)
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "folder %s exist", folder);
        else
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "create folder %s success", folder);
        // mkdir never replaces a link or a folder planted in its way: look
        // at what stands there now before mounting on it.
        if (!disk_util_folder_ok(DiskFolderUse::mount_on, name)) continue;
        disk_util_create_block_dev_node(name);
        char device[kPathSize];
        node_path(device, name);
        if (disk_util_mount_fs(device, folder) != 0 && err == 0) {
            // Nothing mounted it: no writable folder stays in its place.
            if (::rmdir(folder) == 0) USBMGR_TRACE(USBMGR_LOG_DEBUG, "remove folder %s success", folder);
        }
    }
}

int disk_util_umount_storage(char* list, DiskBusy busy) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "umount_storage");
    if (!disk_util_accept_device_list(list)) return 0;

    char* save = nullptr;
    char* name = strtok_r(list, ",", &save);
    if (!name) return 0;
    disk_util_remove_dev_node(name);

    int result = 0;
    while ((name = strtok_r(nullptr, ",", &save)) != nullptr) {
        // Never mounted: its node could not be made.
        if (!disk_util_block_name_ok(name)) {
            log_refused_name(name);
            continue;
        }
        char folder[kPathSize];
        if (!mount_folder(folder, name)) continue;
        if (disk_util_umount_fs(folder, busy) != 0) {
            // Still mounted: its folder and node stay for the caller's next try.
            result = -1;
            continue;
        }
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "umount %s success", folder);
        if (::rmdir(folder) == 0)
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "remove folder %s success", folder);
        else
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "remove folder %s fail", folder);
        disk_util_remove_dev_node(name);
    }
    return result;
}

int disk_util_init_mount_exist_disk() {
    DirPtr dir(opendir(DISK_UTIL_USB_PORT_PATH));
    if (!dir) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Check Exist Disk ...");
    while (dirent* e = readdir(dir.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        char line[DISK_UTIL_PORT_LINE_SIZE] = {};
        if (disk_util_read_port_line(e->d_name, line) != 0) continue;
        char list[DISK_UTIL_SHORT_LIST_SIZE] = {};
        disk_util_port_line_names(line, list, sizeof list);
        if (std::strstr(list, "sd") != nullptr) disk_util_mount_storage(list);
    }
    return 0;
}

namespace {

// <mount root>/<partition name>, as disk_util_mount_storage makes them.
bool is_own_mount_folder(const std::string& path) {
    std::size_t root = std::strlen(MOUNT_DISK_PATH);
    if (root == 0 || path.size() <= root + 1 || path.compare(0, root, MOUNT_DISK_PATH) != 0 || path[root] != '/')
        return false;
    const char* name = path.c_str() + root + 1;
    return disk_util_block_name_ok(name) && std::strlen(name) > 3;
}

}  // namespace

int remove_all_mount_disk() {
    auto cmd = usbmgr::shell_command<kCommandSize>("mount | grep \"%s\" | awk -F \"[ ]\" '{print $3}' 2>&1",
                                                   MOUNT_DISK_PATH);
    if (!disk_util_command_ok(cmd)) return -1;
    usbmgr::RunResult r = usbmgr::runner().run(cmd, /*capture=*/true);
    if (!r.started) return -1;
    for (std::string line : usbmgr::fgets_lines(r.output, kUnmountLine)) {
        // The line end stays out of the argument: no shell reads these.
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        // grep matched the root anywhere in the line: only the daemon's own
        // mount folders are unmounted and removed, never another mount
        // whose line merely mentions the root.
        if (!is_own_mount_folder(line)) continue;
        disk_util_exe_command(usbmgr::CommandLine::exec({"umount", line}));
        if (disk_util_is_mounted(line.c_str())) {
            // Busy: detach it, so that the folder below is free.
            disk_util_exe_command(usbmgr::CommandLine::exec({"umount", "-l", line}));
        }
        // Only an empty folder goes: whatever is still in it is a disk's, or
        // was written there, and is never deleted here.
        if (::rmdir(line.c_str()) != 0 && (errno == ENOTEMPTY || errno == EEXIST))
            USBMGR_TRACE(USBMGR_LOG_WARNING, "folder %s still holds files, left alone", line.c_str());
    }
    return -1;
}
