// Questions about the attached storage, worked out afresh each time from
// /var/dev, the mounted folders, "df", "mount" and the port files of
// /tmp/usb. Nothing is cached.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"

static constexpr const char kLogModule[] = "disk_util.c";

namespace {

constexpr std::size_t kCommandSize = 100;
constexpr std::size_t kDfLineSize = 500;
constexpr std::size_t kFsLineSize = 200;
constexpr std::size_t kFolderNameMax = 54;
constexpr std::size_t kLineSize = 500;  // lines of the "ls" and "mount" checks

using usbmgr::DirPtr;
using usbmgr::FilePtr;

bool is_dot_entry(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

bool is_disk_name(const char* name) { return std::strncmp(name, "sd", 2) == 0 && std::strlen(name) == 3; }
bool is_volume_name(const char* name) { return std::strncmp(name, "sd", 2) == 0 && std::strlen(name) >= 4; }

// Walks /var/dev in directory order; the index-th entry that pred accepts
// goes into name. Returns the number accepted (all of them when name is null).
template <typename Pred>
int walk_dev(Pred pred, int index, char* name, std::size_t size, bool* found) {
    DirPtr dir(opendir(DISK_UTIL_DEV_PATH));
    if (!dir) return 0;
    int count = 0;
    while (dirent* e = readdir(dir.get())) {
        if (is_dot_entry(e->d_name) || !pred(e->d_name)) continue;
        if (name && count == index) {
            usbmgr::copy_bounded(name, size, e->d_name);
            *found = true;
            return count;
        }
        ++count;
    }
    return count;
}

bool is_top_folder(const dirent* e) {
    std::size_t len = std::strlen(e->d_name);
    return e->d_type == DT_DIR && len > 0 && e->d_name[0] != '.' && e->d_name[len - 1] != '~';
}

// Opens /tmp/disk/<volume>; the folder queries use that literal root, not
// the mount root setting.
DirPtr open_volume(const char* volume) {
    if (!disk_util_device_name_ok(volume)) return DirPtr();
    char path[128];
    if (!usbmgr::format_str(path, "%s/%s", DISK_UTIL_FOLDER_ROOT, volume)) return DirPtr();
    return DirPtr(opendir(path));
}

// The index-th name after the disk in a device list (split in place).
char* list_volume(char* list, int index, int* count) {
    char* save = nullptr;
    *count = 0;
    if (!list || !strtok_r(list, ",", &save)) return nullptr;
    while (char* name = strtok_r(nullptr, ",", &save)) {
        if (*count == index) return name;
        ++*count;
    }
    return nullptr;
}

// Walks the port files for serial adapters, after logging start_message;
// the index-th one goes into name.
int walk_serial(const char* start_message, int index, char* name, std::size_t size, bool* found) {
    DirPtr dir(opendir(DISK_UTIL_USB_PORT_PATH));
    if (!dir) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s", start_message);
    int count = 0;
    while (dirent* e = readdir(dir.get())) {
        if (is_dot_entry(e->d_name)) continue;
        char line[DISK_UTIL_PORT_LINE_SIZE] = {};
        if (disk_util_read_port_line(e->d_name, line) != 0) continue;
        char adapter[DISK_UTIL_SHORT_LIST_SIZE] = {};
        disk_util_port_line_list(line, adapter, sizeof adapter);
        if (std::strstr(adapter, "ttyUSB") == nullptr) continue;
        if (name && count == index) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "Get USB Serial Name ... %s", adapter);
            usbmgr::copy_bounded(name, size, adapter);
            *found = true;
            return count;
        }
        ++count;
    }
    return count;
}

// Splits a line at single blanks, as awk -F "[ ]" does (empty fields kept);
// the line end is not part of the last field.
std::vector<std::string_view> blank_fields(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    std::vector<std::string_view> fields;
    for (;;) {
        std::size_t blank = line.find(' ');
        fields.push_back(line.substr(0, blank));
        if (blank == std::string_view::npos) return fields;
        line.remove_prefix(blank + 1);
    }
}

// The last blank-separated word of a line (the mount point of a df line).
std::string_view last_word(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    std::size_t blank = line.find_last_of(' ');
    return blank == std::string_view::npos ? line : line.substr(blank + 1);
}

// True when path is a mount folder of the mount root that names the volume:
// the device field of a line may be spelled otherwise (a by-uuid link),
// but a folder elsewhere that happens to be called sda is not the disk.
bool mount_point_names(std::string_view path, const char* name) {
    std::string_view root(MOUNT_DISK_PATH);
    if (root.empty() || path.size() <= root.size() + 1 || path.substr(0, root.size()) != root || path[root.size()] != '/')
        return false;
    std::string_view rest = path.substr(root.size() + 1);
    return rest.find('/') == std::string_view::npos && disk_util_path_names(rest, name);
}

}  // namespace

bool disk_util_output_names(const std::string& output, const char* name) {
    for (const std::string& line : usbmgr::fgets_lines(output, kLineSize)) {
        std::string_view l(line);
        while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.remove_suffix(1);
        if (!l.empty() && disk_util_path_names(l, name)) return true;
    }
    return false;
}

bool disk_util_mount_output_has(const std::string& output, const char* path) {
    for (const std::string& line : usbmgr::fgets_lines(output, kLineSize)) {
        auto f = blank_fields(line);
        if (f.size() >= 3 && f[1] == "on" && f[2] == path) return true;
    }
    return false;
}

bool disk_util_path_names(std::string_view path, const char* name) {
    std::size_t slash = path.find_last_of('/');
    std::string_view last = slash == std::string_view::npos ? path : path.substr(slash + 1);
    std::string_view wanted(name);
    if (last == wanted) return true;
    // A disk stands for its partitions: its size is theirs together.
    if (!is_disk_name(name) || last.size() <= wanted.size() || last.substr(0, wanted.size()) != wanted) return false;
    for (char c : last.substr(wanted.size()))
        if (c < '0' || c > '9') return false;
    return true;
}

int disk_util_get_count_of_physical() { return walk_dev(is_disk_name, 0, nullptr, 0, nullptr); }

int disk_util_get_physical_name_by_index(int index, char* name, std::size_t size) {
    bool found = false;
    walk_dev(is_disk_name, index, name, size, &found);
    return found ? 0 : -1;
}

int disk_util_get_count_of_volume() { return walk_dev(is_volume_name, 0, nullptr, 0, nullptr); }

int disk_util_get_volume_name_by_index(int index, char* name, std::size_t size) {
    bool found = false;
    walk_dev(is_volume_name, index, name, size, &found);
    return found ? 0 : -1;
}

int disk_util_get_count_of_folder_by_name(const char* volume) {
    DirPtr dir = open_volume(volume);
    if (!dir) return 0;
    int count = 0;
    while (dirent* e = readdir(dir.get()))
        if (is_top_folder(e)) ++count;
    return count;
}

int disk_util_get_folder_name_by_index(int index, const char* volume, char* name, std::size_t size) {
    DirPtr dir = open_volume(volume);
    if (!dir) return 0;
    int count = 0;
    while (dirent* e = readdir(dir.get())) {
        if (!is_top_folder(e)) continue;
        if (count == index) {
            std::size_t limit = size < kFolderNameMax + 1 ? size : kFolderNameMax + 1;
            usbmgr::copy_bounded(name, limit, e->d_name);
            return count;
        }
        ++count;
    }
    return count;
}

std::vector<std::string> disk_util_get_folder_names(const char* volume) {
    std::vector<std::string> names;
    DirPtr dir = open_volume(volume);
    if (!dir) return names;
    while (dirent* e = readdir(dir.get()))
        if (is_top_folder(e)) names.emplace_back(e->d_name, strnlen(e->d_name, kFolderNameMax));
    return names;
}

DiskSize disk_util_get_disk_size(DiskSize* size, const char* name) {
    DiskSize total{0, 0};
    auto cmd = usbmgr::shell_command<kCommandSize>("df -m | grep %s 2>&1", name);
    if (disk_util_command_ok(cmd)) {
        usbmgr::RunResult r = usbmgr::runner().run(cmd, /*capture=*/true);
        // grep matches any part of a line: only lines whose file system or
        // mount point is the volume count, so sda10 does not add to sda1.
        for (const std::string& line : usbmgr::fgets_lines(r.output, kDfLineSize)) {
            char fs[kDfLineSize] = {};
            int blocks = 0, used = 0, avail = 0;
            if (std::sscanf(line.c_str(), "%499s %d %d %d", fs, &blocks, &used, &avail) < 3) continue;
            if (!disk_util_path_names(fs, name) && !mount_point_names(last_word(line), name)) continue;
            total.total += static_cast<uint32_t>(blocks);
            total.used += static_cast<uint32_t>(used);
        }
    }
    if (size) *size = total;
    return total;
}

int disk_util_get_number_of_disk_volume(char* list) {
    int count = 0;
    list_volume(list, -1, &count);
    return count;
}

int disk_util_get_disk_volume_by_index(int index, char* list, char* name, std::size_t size) {
    int count = 0;
    char* volume = index >= 0 ? list_volume(list, index, &count) : nullptr;
    if (!volume) return -1;
    usbmgr::copy_bounded(name, size, volume);
    return 0;
}

void disk_util_get_storage_file_system(const char* name, char* type, std::size_t size) {
    // The whole "mount" line is read, not only its type field, so that the
    // line can be told to be the volume's own (sda1, not sda10).
    auto cmd = usbmgr::shell_command<kCommandSize>("mount | grep %s 2>&1", name);
    if (!disk_util_command_ok(cmd)) return;
    usbmgr::RunResult r = usbmgr::runner().run(cmd, /*capture=*/true);
    if (!r.started) return;
    std::string line;
    bool found = false;
    for (const std::string& l : usbmgr::fgets_lines(r.output, kLineSize)) {
        auto f = blank_fields(l);
        if (f.size() < 3 || f[1] != "on" || (!disk_util_path_names(f[0], name) && !mount_point_names(f[2], name)))
            continue;
        // The fifth field, as awk -F "[ ]" '{print $5}' gives it.
        if (f.size() >= 5) line = std::string(f[4].substr(0, kFsLineSize - 2));
        found = true;
        break;
    }
    if (!found) return;
    const char* shown = line.c_str();
    if (line == "fuseblk")
        shown = "NTFS";
    else if (line == "vfat")
        shown = "FAT32";
    else if (line == "fat")
        shown = "FAT16";
    usbmgr::copy_bounded(type, size, shown);
}

int disk_util_get_usbport(const char* disk, char* port, std::size_t port_size, char* list, std::size_t list_size) {
    DirPtr dir(opendir(DISK_UTIL_USB_PORT_PATH));
    if (!dir) return -1;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Check USB Port ...");
    std::size_t len = std::strlen(disk);
    while (dirent* e = readdir(dir.get())) {
        if (is_dot_entry(e->d_name)) continue;
        char line[DISK_UTIL_PORT_LINE_SIZE] = {};
        if (disk_util_read_port_line(e->d_name, line) != 0) continue;
        if (std::strncmp(line, disk, len) != 0) continue;
        usbmgr::copy_bounded(port, port_size, e->d_name);
        disk_util_port_line_names(line, list, list_size);
        return 0;
    }
    return -1;
}

int disk_util_read_port_line(const char* entry, char (&line)[DISK_UTIL_PORT_LINE_SIZE]) {
    char path[300];
    if (!usbmgr::format_str(path, "%s/%s", DISK_UTIL_USB_PORT_PATH, entry)) return -1;
    FilePtr f(std::fopen(path, "re"));
    if (!f) return -1;
    std::memset(line, 0, sizeof line);
    if (!std::fgets(line, sizeof line, f.get())) return -1;
    return 0;
}

void disk_util_port_line_list(const char* line, char* out, std::size_t size) {
    std::size_t len = std::strlen(line);
    std::size_t keep = len >= 2 ? len - 2 : 0;
    if (size == 0) return;
    if (keep > size - 1) keep = size - 1;
    std::memcpy(out, line, keep);
    out[keep] = '\0';
}

void disk_util_port_line_names(const char* line, char* out, std::size_t size) {
    if (size == 0) return;
    std::size_t len = std::strlen(line);
    std::size_t keep = len >= 2 ? len - 2 : 0;
    // A line that fills the read without its end was cut by the read: the
    // last two characters are names, and the last name may go on.
    bool cut = len == DISK_UTIL_PORT_LINE_SIZE - 1 && std::strchr(line, '\n') == nullptr;
    if (cut) keep = len;
    if (keep > size - 1) {
        cut = line[size - 1] != ',';
        keep = size - 1;
    }
    if (cut) {
        while (keep > 0 && line[keep - 1] != ',') --keep;  // the name cut through
        if (keep > 0) --keep;                               // and its comma
    }
    std::memcpy(out, line, keep);
    out[keep] = '\0';
}

int disk_util_count_of_exist_usb_serial() {
    return walk_serial("Check Exist USB Serial ...", 0, nullptr, 0, nullptr);
}

int disk_util_get_usb_serial_name_by_index(int index, char* name, std::size_t size) {
    bool found = false;
    walk_serial("Get USB Serial Name ...", index, name, size, &found);
    return found ? 0 : -1;
}
