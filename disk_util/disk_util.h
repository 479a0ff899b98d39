// disk_util: device nodes, mounting and unmounting, queries about the
// attached disks and volumes, and the start-up scan of disks already there.
//
// Device lists ("sda,sda1,sda2") are split in place by the functions that
// take them: callers pass a copy each time.
#ifndef USBMGR_DISK_UTIL_H
#define USBMGR_DISK_UTIL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "db_util/db_util.h"

inline constexpr const char DISK_UTIL_DEV_PATH[] = "/var/dev";
inline constexpr const char DISK_UTIL_USB_PORT_PATH[] = "/tmp/usb";
inline constexpr const char DISK_UTIL_FOLDER_ROOT[] = "/tmp/disk";

// True when name is a kernel device name this daemon handles: letters then
// digits (sda, sda1, ttyUSB0), at most 31 characters.
bool disk_util_device_name_ok(const char* name);
// True when list is a device list: names as above separated by commas, at
// least one name; empty pieces are skipped, as the in-place split skips them.
bool disk_util_device_list_ok(const char* list);
// True when name is a block device the node formula can number: "sd", one
// letter a to z, then nothing (the disk) or a partition 1 to 15.
bool disk_util_block_name_ok(const char* name);
// True when name is a serial adapter whose number is a minor number:
// "ttyUSB" and a number up to 1048575, without leading zeros.
bool disk_util_serial_name_ok(const char* name);
// As disk_util_device_list_ok; when false, also logs (ERROR) the first name
// refused, shown escaped.
bool disk_util_accept_device_list(const char* list);
// True when command may run; else logs (ERROR) the refused command line.
bool disk_util_command_ok(const usbmgr::CommandLine& command);

// Runs a command: 0, or -1 when it could not start ("run command : %s" when it did).
int disk_util_exe_command(const usbmgr::CommandLine& command);

// ---------------------------------------------------------------------------
// Reading the output of the checks. grep matches any part of a line; these
// decide on whole fields, so that sda1 is never taken for sda10.

// True when a line of output (the "ls | grep" listing) is name, or name is
// a disk and the line one of its partitions (sda and sda1, never sda1 and sda10).
bool disk_util_output_names(const std::string& output, const char* name);
// True when a line of "mount" output has path as its mount point
// ("<device> on <path> type <type> ...").
bool disk_util_mount_output_has(const std::string& output, const char* path);
// True when the last component of a device or mount point path is name or,
// for a disk name (sda), one of its partitions (sda1, sda15).
bool disk_util_path_names(std::string_view path, const char* name);

// ---------------------------------------------------------------------------
// Device nodes and mounting

// What a folder of the mount root is wanted for.
enum class DiskFolderUse {
    mount_root,  // the mount root itself
    mount_on,    // a partition's folder, before it is mounted
    share,       // a partition's folder, to be shared
};
// True when the folder may be used so: the mount root is a real folder (not
// a link), owned by root and writable by nobody else (the group only when
// it is root's); a partition's folder (name: sda1) is a real folder in it,
// and either already a mount point or, to mount on, owned and writable as
// the root is; to share, it must be a mount point (a volume mounted there).
// No link is ever followed. Otherwise logs "refusing folder %s: %s" with
// the reason (ERROR; DEBUG when a folder to share is missing or not mounted)
// and is false.
bool disk_util_folder_ok(DiskFolderUse use, const char* name = nullptr);

int disk_util_create_dev_folder();   // 0 or errno (17 exists)
int disk_util_create_root_folder();  // 0 or errno (17 exists)
int disk_util_dev_node_exist(const char* name);  // 1 exists, 0 not
int disk_util_create_block_dev_node(const char* name);
int disk_util_create_usb_serial_dev_node(const char* name);  // 0 made, -1 existed or could not start
int disk_util_remove_usb_serial_dev_node(const char* name);  // 0, -1 could not start
int disk_util_remove_dev_node(const char* name);
int disk_util_is_mounted(const char* path);  // 1 mounted, 0 not
// 0 mounted (by "mount -t auto", ntfs-3g or exFAT through FUSE), -1 when
// nothing mounted it ("mount %s fail").
int disk_util_mount_fs(const char* device, const char* folder);
// What an unmount does with a volume still in use: detach it ("umount -l",
// for a disk that is gone) or leave it mounted and report it.
enum class DiskBusy { detach, keep };
// One unmount attempt: 0 when the folder is no longer a mount, else -1.
int disk_util_umount_fs(const char* folder, DiskBusy busy = DiskBusy::detach);
// A partition nothing could mount leaves no folder behind.
void disk_util_mount_storage(char* list);
// 0, or -1 when a volume stayed mounted (its folder and node are kept).
int disk_util_umount_storage(char* list, DiskBusy busy = DiskBusy::detach);
int disk_util_init_mount_exist_disk();  // always 0
int remove_all_mount_disk();            // always -1

// ---------------------------------------------------------------------------
// Queries

struct DiskSize {
    uint32_t total;  // megabytes
    uint32_t used;
};

int disk_util_get_count_of_physical();
int disk_util_get_physical_name_by_index(int index, char* name, std::size_t size);
int disk_util_get_count_of_volume();
int disk_util_get_volume_name_by_index(int index, char* name, std::size_t size);
int disk_util_get_count_of_folder_by_name(const char* volume);
int disk_util_get_folder_name_by_index(int index, const char* volume, char* name, std::size_t size);
// The names of every top folder of volume in directory order, each cut as
// the by-index form cuts it, from one read of the folder; empty when it
// cannot be read. Lets a caller that wants every name avoid one read a name.
std::vector<std::string> disk_util_get_folder_names(const char* volume);
DiskSize disk_util_get_disk_size(DiskSize* size, const char* name);
int disk_util_get_number_of_disk_volume(char* list);
int disk_util_get_disk_volume_by_index(int index, char* list, char* name, std::size_t size);
void disk_util_get_storage_file_system(const char* name, char* type, std::size_t size);
int disk_util_get_usbport(const char* disk, char* port, std::size_t port_size, char* list, std::size_t list_size);

// ---------------------------------------------------------------------------
// Port files of /tmp/usb: one per USB port, first line the device list and
// two more characters ("\r\n").

inline constexpr std::size_t DISK_UTIL_PORT_LINE_SIZE = 50;   // first line as read
inline constexpr std::size_t DISK_UTIL_SHORT_LIST_SIZE = 20;   // list kept by the start-up walks

// First line of /tmp/usb/<entry> (as fgets into 50 reads it): 0, or -1.
int disk_util_read_port_line(const char* entry, char (&line)[DISK_UTIL_PORT_LINE_SIZE]);
// line less its last two characters, cut to fit out.
void disk_util_port_line_list(const char* line, char* out, std::size_t size);
// The device list of a port line, cut to fit out, with whole names only:
// when the line was cut (by the read or by out), the name the cut went
// through is dropped, never kept as a shorter name (sda12 as sda1).
void disk_util_port_line_names(const char* line, char* out, std::size_t size);

// Serial adapters listed in /tmp/usb at start-up.
int disk_util_count_of_exist_usb_serial();
// 0 and the index-th adapter name into name, or -1.
int disk_util_get_usb_serial_name_by_index(int index, char* name, std::size_t size);

// ---------------------------------------------------------------------------
// Start-up scan

int usbmgr_scan_exist_device();  // always 0
int usbmgr_get_usb_descriptor(const char* port, UsbPhysicalInfo* record);  // always 0

#endif
