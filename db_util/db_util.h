// db_util: the configuration store. Key=value files, the daemon's settings,
// the tables of attached disks and volumes, and the storage history file.
//
// Results follow this module's convention: 0 success, -1 failure, unless a
// function says otherwise. Nothing here takes a lock; callers hold
// usbmgr_mutex where the daemon's threads meet.
#ifndef USBMGR_DB_UTIL_H
#define USBMGR_DB_UTIL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "proto/payload.h"  // MiniDlnaConf, SambaConf

namespace usbmgr {
struct CommandLine;
}

// ---------------------------------------------------------------------------
// Key=value files

inline constexpr const char USBMGR_CONF_PATH[] = "/var/config/usbmgr.conf";
inline constexpr const char TR140_CONF_PATH[] = "/var/config/tr140.conf";

// Line buffer of every reader: a longer line is read as several pieces.
inline constexpr std::size_t DB_UTIL_LINE_SIZE = 256;
// Key and value buffers of the getters.
inline constexpr std::size_t DB_UTIL_KEY_SIZE = 128;
inline constexpr std::size_t DB_UTIL_VALUE_SIZE = 128;

struct UsbmgrConfItem {
    char item_name[20];
    int32_t item_index;
};
static_assert(sizeof(UsbmgrConfItem) == 24);

// Integer value of key in the settings file: 0 when the file is missing,
// -1 when the key is, see the key=value reading rules.
int db_util_config_get_parameter_i(const char* key);
// String value of key into out: 0 found, -1 not. out is cleared to the value
// (cut to out_size - 1 characters and terminated) when found, its first four
// bytes cleared when a line did not match, untouched when the file is missing.
int db_util_config_get_parameter_s(const char* key, char* out, std::size_t out_size = DB_UTIL_VALUE_SIZE);
int db_util_tr140_conf_get_parameter_i(const char* key);
int db_util_tr140_conf_get_parameter_s(const char* key, char* out, std::size_t out_size = DB_UTIL_VALUE_SIZE);
// Integer and string lookups in any file (the four getters above are these).
int db_util_file_get_parameter_i(const char* path, const char* key);
int db_util_file_get_parameter_s(const char* path, const char* key, char* out, std::size_t out_size);

// Splits an indexed key (USBMGR.SAMBA.USER_NAME.7) into item; always -1.
int db_util_usbmgr_conf_split_item(char* key, UsbmgrConfItem* item);

// Splits one line the way "%[^=]=%[^\n]" scans it into key and value buffers
// of 128 (cleared first); false when the line has no key.
bool db_util_split_line(const char* line, char (&key)[DB_UTIL_KEY_SIZE], char (&value)[DB_UTIL_VALUE_SIZE]);

// Runs a command line (logged "run command : %s" when it started):
// 0 started, 1 could not start (or refused as invalid).
int db_util_exe_command(const usbmgr::CommandLine& command);

// ---------------------------------------------------------------------------
// Daemon settings


inline constexpr std::size_t MOUNT_DISK_PATH_SIZE = 100;

extern char MOUNT_DISK_PATH[MOUNT_DISK_PATH_SIZE];
extern int32_t StorageServiceNumberOfEntries;
extern int32_t NUMBER_OF_MAX_TR140_HISTORY_ITEM;
extern int32_t AUTO_CREATE_USER_ACCESS_DATA;
extern int32_t USB_SERIAL_ENABLE;
// 1: a change of the share list reloads a running smbd in place instead of
// restarting both servers.
extern int32_t SAMBA_LIVE_RELOAD;
extern MiniDlnaConf MINIDLNA_CONF;
extern SambaConf SAMBA_CONF;

// Whether name is the gateway account: root, or the account the Samba user
// map maps every user to (USBMGR.SAMBA.USERNAME_MAP), in any case.
bool usbmgr_is_gateway_account(const char* name);
// Whether value has the form of the text setting named by its settings-file
// key; a refused value (or a key of no text setting) is logged once.
bool usbmgr_setting_ok(const char* key, const char* value);
// Loads every setting from the settings file: 1 complete, 0 stopped at a
// missing key. A value outside its setting's form is logged and replaced
// by the setting's factory value (the media folder's: the mount root).
int usbmgr_conf_load();
// Regenerates the settings file from the records; returns the last account lookup.
int usbmgr_conf_save();

// ---------------------------------------------------------------------------
// Device tables

struct UsbPhysicalInfo {
    int32_t index;
    int32_t tr140_db_address;
    char attach_device[64];
    char vendor[64];
    char model[64];
    char usb_version[4];
    char serial_number[64];
    char firmware_version[64];
};
static_assert(offsetof(UsbPhysicalInfo, attach_device) == 8);
static_assert(offsetof(UsbPhysicalInfo, usb_version) == 200);
static_assert(offsetof(UsbPhysicalInfo, serial_number) == 204);
static_assert(sizeof(UsbPhysicalInfo) == 332);

struct UsbVolumeInfo {
    int32_t index;
    int32_t tr140_db_address;
    char name[64];
};
static_assert(sizeof(UsbVolumeInfo) == 72);

inline constexpr int USB_TABLE_SIZE = 25;
extern int USB_PHYSICAL_INFO_MAX;
extern int USB_VOLUME_INFO_MAX;
extern UsbPhysicalInfo usb_physical_info[USB_TABLE_SIZE];
extern UsbVolumeInfo usb_volume_info[USB_TABLE_SIZE];

// Slot for a disk: its own slot if the name is there, else the lowest free one, else -1.
int db_util_get_usb_physical_info_free_item(const char* device);
// Slot for a volume, by the same rules.
int db_util_get_usb_volume_info_free_item(const char* volume);
// Clears the disk's slot (keeps tr140_db_address): 0, or -1 when not found.
int db_util_delete_usb_physical_info_item(const char* device);
// Clears the volume's slot: 0, or -1 when not found.
int db_util_delete_usb_volume_info_item(const char* volume);
// Slot whose device name, cut to three characters, equals device; -1.
int db_util_get_usb_physical_info_index_by_device(const char* device);
// Slot whose volume name equals volume; -1.
int db_util_get_usb_volume_info_index_by_device(const char* volume);
// index field of the first disk whose device list contains name; -1.
int db_util_get_usb_physical_reference_by_name(const char* name);
// Logs both tables at DEBUG.
void db_util_print_usb_physical_info();

// ---------------------------------------------------------------------------
// Storage history file

struct Tr140ConfKey {
    int32_t device_id;
    char item[20];
    int32_t volume_index;
    char sub_item[20];
    int32_t entry_index;
};
static_assert(offsetof(Tr140ConfKey, volume_index) == 24);
static_assert(sizeof(Tr140ConfKey) == 52);

// Splits a history key in place; always -1.
int db_util_tr140_conf_split_key(char* key, Tr140ConfKey* out);
// First and last device id of the file by line position; always -1.
int db_util_tr140_conf_get_id_range(int* first, int* last);
// Device id of serial among ids below the history capacity; -1.
int db_util_tr140_conf_find_sn(const char* serial);
// Number of NAME lines of device id.
int db_util_tr140_conf_count_volumes(int device_id);
// Drops every line of device id; always -1.
int db_util_tr140_conf_delete_device(int device_id);

// One piece of the history file as the line filter reads it (as a read into
// 256 characters sees it: up to and with its newline, at most 255 bytes),
// with its key, value and key parts. raw holds the bytes exactly as read,
// NULs included; key and value end at the first NUL, as a scan would.
struct Tr140FilterLine {
    const char* raw;
    std::size_t raw_len;
    char key[DB_UTIL_KEY_SIZE];
    char value[DB_UTIL_VALUE_SIZE];
    Tr140ConfKey parts;
};

// What stands in the new file in place of one line: the line itself (keep),
// composed lines, both (a line inserted after it), or nothing (dropped).
class Tr140FilterOut {
public:
    explicit Tr140FilterOut(FILE* f) : f_(f) {}
    // Copies the line byte for byte.
    void keep(const Tr140FilterLine& line);
    // Writes one line composed within 128 characters, starting it on a fresh
    // line; false (and nothing written) when it would not fit.
    bool line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

private:
    FILE* f_;
    bool at_line_start_ = true;
};

using Tr140LineFilter = void (*)(const Tr140FilterLine& line, Tr140FilterOut& out, void* context);

// Streams the history file into a new file beside it, letting filter decide
// for every line, then renames the new file over the old one: 0, or -1 when
// the old file could not be read or the new one not made or renamed
// (nothing changed).
int db_util_tr140_conf_filter_lines(Tr140LineFilter filter, void* context);

// The same with any callable taking (const Tr140FilterLine&, Tr140FilterOut&).
template <typename Filter>
int db_util_tr140_conf_filter_lines(Filter&& filter) {
    using F = std::remove_reference_t<Filter>;
    return db_util_tr140_conf_filter_lines(
        [](const Tr140FilterLine& line, Tr140FilterOut& out, void* context) {
            (*static_cast<F*>(context))(line, out);
        },
        const_cast<void*>(static_cast<const void*>(&filter)));
}
// Records a disk with its number of volumes; always -1.
int db_util_tr140_conf_record_new_sn(const char* serial, int volumes);
// Out buffers of the serial and name getters below hold at least 64 bytes;
// a longer stored text is cut to 63 characters.
// Serial number of the attached disk whose device list contains name: 0, or
// the first character of slot 24's device name when none matches (0 when that
// slot is free), so callers clear out and look at it.
int db_util_get_device_serial_number(const char* name, char* out);
// The same lookup, told apart: 0 when an attached disk's device list holds
// name (its serial, possibly empty, in out), -1 when none does (out untouched).
int db_util_find_device_serial_number(const char* name, char* out);
// Names of the record of serial (the "found" state lasts to the end of the
// file): 0 found, -1 not found or no file.
int db_util_get_tr140_volume_name(const char* volume, const char* serial, char* out);
int db_util_get_tr140_physical_name(const char* serial, char* out);
// 1 enabled, 0 disabled, -1 not found.
int db_util_get_tr140_volume_status(const char* volume, const char* serial);
int db_util_get_tr140_name(const char* item, const char* serial, char* out);
int db_util_get_tr140_enable(const char* item, const char* serial);
// Stores a volume's enable and (non-empty) name; always -1.
int db_util_set_tr140_volume_info(const char* serial, const char* volume, int enable, const char* name);
// Stores a disk's name; always -1.
int db_util_set_tr140_physical_name(const char* serial, const char* name);
// Device id of serial among all ids of the file; -1.
int db_util_get_tr140_device_id_by_serial_number(const char* serial);

// Volume number of a partition name: sda1 is 0.
int db_util_volume_number(const char* volume);

// ---------------------------------------------------------------------------
// User access records
//
// Entries of a volume of a remembered disk in the history file: which Samba
// account may use the volume and with which permissions. Entry numbers run
// from 0 to 25; the volume comes from its partition name (sda1 is 0), and a
// name that gives no volume 0 to 24, a negative device id or an entry out of
// range is answered -1 (the count: 0) without touching the file.

inline constexpr int USER_ACCESS_MAX_ENTRY = 26;
inline constexpr int SAMBA_USER_MAX = 25;

struct UserAccessInfo {
    int32_t index;  // left to the caller
    char user_reference[256];
    int32_t permissions;
};
static_assert(offsetof(UserAccessInfo, user_reference) == 4);
static_assert(offsetof(UserAccessInfo, permissions) == 260);
static_assert(sizeof(UserAccessInfo) == 264);

// Number of entries of the volume present (gaps do not stop the count).
int db_util_get_number_of_user_access(int device_id, const char* volume);
// Fills user_reference and permissions of entry (an empty permission reads
// as -1): 0, or -1 with info untouched when the entry is absent.
int db_util_get_user_access_info_by_index(int entry, int device_id, const char* volume, UserAccessInfo* info);
// Lowest entry number not present; -1 when all 26 are.
int dp_util_get_tr140_useraccess_free_item(int device_id, const char* volume);
// Inserts the entry for user's account right after the volume's ENABLE line:
// 0, or -1 when the user has no account number or the volume no ENABLE line.
int dp_util_get_tr140_add_useraccess(int device_id, const char* volume, int entry, const char* user, int permissions);
// Drops both lines of the entry: 0, or -1 when it is absent.
int dp_util_get_tr140_remove_useraccess(int device_id, const char* volume, int entry);
// Drops every entry whose reference contains "UserAccess.<account of user>"
// (so account 1 takes 10 to 19 with it); always -1.
int dp_util_get_tr140_remove_useraccess_by_username(const char* user);
// Samba account number of user: the first slot with that name, else the
// last lookup's result (-1 when slot 24 is free, 0 when it is in use).
int dp_util_get_samba_user_index(const char* user);
// Writes the automatically created entries of a new volume: entry n for
// account n, n from 0 to accounts - 1, with empty permissions.
void db_util_tr140_conf_append_user_access(FILE* f, int device_id, int volume, int accounts);

// Hands the settings and history files to the configuration manager.
void usbmgr_cfg_save();

#endif
