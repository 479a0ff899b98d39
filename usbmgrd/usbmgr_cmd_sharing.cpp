// Bus commands 2 to 12: MiniDLNA and Samba settings, the serial login switch
// and the Samba users. Each handler gets a copy of its payload from the
// dispatch and answers in place.
//
// Commands 2, 3, 4 and 7 work without usbmgr_mutex; the others hold it for
// their whole work, server starts and stops included.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/str.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using usbmgr::FieldText;

constexpr const char kLogModule[] = "usbmgrd.c";

// Reload targets of the deferred alarm.
constexpr int32_t kReloadMiniDlna = 1;
constexpr int32_t kReloadSamba = 2;

// Status of command 7 when the save reports -1.
constexpr int32_t kStatusNotSaved = -7;

// One settable text setting: the name a sender uses, the record field and
// its settings-file key, whose row holds the value's form.
struct TextSetting {
    const char* name;
    char* field;
    std::size_t size;
    const char* key;
};

#define SETTING(name, record, member, key) TextSetting{name, (record).member, sizeof((record).member), key}

const TextSetting kMiniDlnaSettings[] = {
    SETTING("media_dir", MINIDLNA_CONF, media_dir, "USBMGR.MINIDLNA.MEDIA_DIR"),
    SETTING("db_dir", MINIDLNA_CONF, db_dir, "USBMGR.MINIDLNA.DB_DIR"),
    SETTING("log_dir", MINIDLNA_CONF, log_dir, "USBMGR.MINIDLNA.LOG_DIR"),
    SETTING("log_level", MINIDLNA_CONF, log_level, "USBMGR.MINIDLNA.LOG_LEVEL"),
    SETTING("root_container", MINIDLNA_CONF, root_container, "USBMGR.MINIDLNA.ROOT_CONTAINER"),
    SETTING("port", MINIDLNA_CONF, port, "USBMGR.MINIDLNA.PORT"),
    SETTING("friendly_name", MINIDLNA_CONF, friendly_name, "USBMGR.MINIDLNA.FRIENDLY_NAME"),
    SETTING("serial", MINIDLNA_CONF, serial, "USBMGR.MINIDLNA.SERIAL"),
    SETTING("model_name", MINIDLNA_CONF, model_name, "USBMGR.MINIDLNA.MODEL_NAME"),
    SETTING("model_number", MINIDLNA_CONF, model_number, "USBMGR.MINIDLNA.MODEL_NUMBER"),
    SETTING("inotify", MINIDLNA_CONF, inotify, "USBMGR.MINIDLNA.INOTIFY"),
    SETTING("notify_interval", MINIDLNA_CONF, notify_interval, "USBMGR.MINIDLNA.NOTIFY_INTERVAL"),
};

// "allow_guests" is the bus name of USERSHARE_ALLOW_GUESTS; the file key's
// own suffix is not a name here. The configuration file path and the user
// map cannot be set over the bus.
const TextSetting kSambaSettings[] = {
    SETTING("log_file", SAMBA_CONF, log_file, "USBMGR.SAMBA.LOG_FILE"),
    SETTING("max_log_size", SAMBA_CONF, max_log_size, "USBMGR.SAMBA.MAX_LOG_SIZE"),
    SETTING("log_level", SAMBA_CONF, log_level, "USBMGR.SAMBA.LOG_LEVEL"),
    SETTING("load_printers", SAMBA_CONF, load_printers, "USBMGR.SAMBA.LOAD_PRINTERS"),
    SETTING("printcap_name", SAMBA_CONF, printcap_name, "USBMGR.SAMBA.PRINTCAP_NAME"),
    SETTING("printing", SAMBA_CONF, printing, "USBMGR.SAMBA.PRINTING"),
    SETTING("security", SAMBA_CONF, security, "USBMGR.SAMBA.SECURITY"),
    SETTING("workgroup", SAMBA_CONF, workgroup, "USBMGR.SAMBA.WORKGROUP"),
    SETTING("disable_netbios", SAMBA_CONF, disable_netbios, "USBMGR.SAMBA.DISABLE_NETBIOS"),
    SETTING("netbios_name", SAMBA_CONF, netbios_name, "USBMGR.SAMBA.NETBIOS_NAME"),
    SETTING("server_string", SAMBA_CONF, server_string, "USBMGR.SAMBA.SERVER_STRING"),
    SETTING("allow_guests", SAMBA_CONF, usershare_allow_guests, "USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS"),
    SETTING("guest_account", SAMBA_CONF, guest_account, "USBMGR.SAMBA.GUEST_ACCOUNT"),
    SETTING("interfaces", SAMBA_CONF, interfaces, "USBMGR.SAMBA.INTERFACES"),
    SETTING("bind_interfaces_only", SAMBA_CONF, bind_interfaces_only, "USBMGR.SAMBA.BIND_INTERFACES_ONLY"),
};

#undef SETTING

enum class SetKind { text, enable, reload, unknown, refused };

// Stores value into its field as the field would hold it: cut (and logged)
// where it would not leave room for the NUL, control characters made '_'
// so that the value stays one line of the settings file. What would be
// stored is checked against the setting's form first; a value outside it
// leaves the field as it was.
bool store_text(const TextSetting& s, const char* value) {
    char stored[DB_UTIL_VALUE_SIZE] = {};
    const std::size_t size = std::min(s.size, sizeof stored);
    usbmgr::copy_bounded(stored, size, value);
    usbmgr::sanitize_value_text(stored, size);
    if (!usbmgr_setting_ok(s.key, stored)) return false;
    if (std::strlen(value) >= s.size)
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "value of %s cut to %d characters", s.name, static_cast<int>(s.size - 1));
    std::memset(s.field, 0, s.size);
    usbmgr::copy_bounded(s.field, s.size, stored);
    return true;
}

// Applies one named setting to its record: a text setting, the enable (0
// or 1, as its settings-file key takes it), reload or an unknown name (both
// change nothing).
SetKind apply_setting(std::span<const TextSetting> table, int32_t& enable, const char* enable_key, const char* name,
                      const char* value) {
    if (std::strcmp(name, "enable") == 0) {
        if (!usbmgr_setting_ok(enable_key, value)) return SetKind::refused;
        enable = static_cast<int32_t>(std::strtol(value, nullptr, 10));
        return SetKind::enable;
    }
    if (std::strcmp(name, "reload") == 0) return SetKind::reload;
    for (const TextSetting& s : table) {
        if (std::strcmp(name, s.name) == 0) {
            return store_text(s, value) ? SetKind::text : SetKind::refused;
        }
    }
    return SetKind::unknown;
}

// What commands 5 and 6 differ in: the names they take, the enable, the
// reload target, and for Samba that the model shows its state and the
// change is published (kind 2) after the reload.
struct ServerSettings {
    std::span<const TextSetting> names;
    int32_t& enable;
    const char* enable_key;
    int32_t reload_target;
    bool samba;
    int (*start)();
    void (*stop)();
};

// Commands 5 and 6: one setting set under the lock. Any name but "reload"
// saves the settings; any name but "enable" arms the deferred reload, whose
// target it overwrites (a MiniDLNA change made while both servers wait for
// their reload leaves only the MiniDLNA reload); a changed enable starts or
// stops the server at once.
void set_server_setting(const ServerSettings& server, const CmdSetConf& cmd) {
    const int32_t before = server.enable;
    usbmgr::DaemonLock lock;
    const FieldText name(cmd.name);
    const FieldText value(cmd.value);
    const SetKind kind = apply_setting(server.names, server.enable, server.enable_key, name.text, value.text);
    if (kind == SetKind::refused) return;  // logged; nothing saved, rebuilt or reloaded
    if (kind != SetKind::reload) usbmgr_conf_save();
    if (server.samba) usbmgr_tr140_db_build();  // the model shows the Samba state
    if (kind != SetKind::enable) {
        // Subscribers hear of a Samba change after the reload.
        if (server.samba) dp_util_evt_buf_write(USBMGR_TR140_SERVICE_CHANGE);
        usbmgr_arm_reload(server.reload_target, UsbmgrReloadCause::settings);
    } else if (server.enable != before) {
        if (server.enable != 0)
            server.start();
        else
            server.stop();
    }
}

// Reads one key of user slot i into out; 0 found, -1 not.
template <std::size_t N>
int read_slot_text(const char* item, int32_t slot, char (&out)[N]) {
    char key[DB_UTIL_KEY_SIZE] = {};
    char value[DB_UTIL_VALUE_SIZE] = {};
    usbmgr::format_str(key, "USBMGR.SAMBA.%s.%d", item, slot);
    if (db_util_config_get_parameter_s(key, value) != 0) return -1;
    usbmgr::clean_copy(out, value);
    return 0;
}

}  // namespace

// The replies of commands 2 and 3 are the settings records themselves, less
// the fields they do not fill, which keep what the buffer held.
void usbmgr_cmd_get_minidlna_conf(MiniDlnaConf& cmd) {
    const MiniDlnaConf held = cmd;
    cmd = MINIDLNA_CONF;
    std::memcpy(cmd.conf_dir, held.conf_dir, sizeof cmd.conf_dir);
}

void usbmgr_cmd_get_samba_conf(SambaConf& cmd) {
    const SambaConf held = cmd;
    cmd = SAMBA_CONF;
    std::memcpy(cmd.conf_dir, held.conf_dir, sizeof cmd.conf_dir);
    std::memcpy(cmd.username_map, held.username_map, sizeof cmd.username_map);
    std::memcpy(cmd.username_map_dir, held.username_map_dir, sizeof cmd.username_map_dir);
}

void usbmgr_cmd_get_usb_serial_enable(CmdGetUsbSerialEnable& cmd) { cmd.enable = USB_SERIAL_ENABLE; }

void usbmgr_cmd_set_minidlna_conf(CmdSetConf& cmd) {
    set_server_setting({kMiniDlnaSettings, MINIDLNA_CONF.enable, "USBMGR.MINIDLNA.ENABLE", kReloadMiniDlna, false, app_util_start_minidlna,
                        app_util_stop_minidllna},
                       cmd);
}

void usbmgr_cmd_set_samba_conf(CmdSetConf& cmd) {
    set_server_setting({kSambaSettings, SAMBA_CONF.enable, "USBMGR.SAMBA.ENABLE", kReloadSamba, true, app_util_start_samba, app_util_stop_samba},
                       cmd);
}

void usbmgr_cmd_set_usb_serial_enable(CmdSetUsbSerialEnable& cmd) {
    // Governs the next adapter that arrives; logins already running stay.
    USB_SERIAL_ENABLE = cmd.enable;
    cmd.status = usbmgr_conf_save() == -1 ? kStatusNotSaved : 0;
}

void usbmgr_cmd_get_samba_number_of_users(CmdNumber& cmd) {
    usbmgr::DaemonLock lock;
    cmd.number = app_util_get_number_of_samba_users();
}

void usbmgr_cmd_get_samba_user_info(CmdSambaUserSlot& cmd) {
    usbmgr::DaemonLock lock;
    // The index is a slot number, not the n-th user. Each field is written
    // only when its key was read; the ones after a failed read keep what
    // the buffer held.
    const int32_t slot = cmd.index;
    int result = read_slot_text("USER_NAME", slot, cmd.name);
    if (result == 0) result = read_slot_text("USER_PASSWORD", slot, cmd.password);
    if (result == 0) {
        char key[DB_UTIL_KEY_SIZE] = {};
        usbmgr::format_str(key, "USBMGR.SAMBA.USER_ENABLE.%d", slot);
        const int enable = db_util_config_get_parameter_i(key);
        if (enable == -1)
            result = -1;
        else
            cmd.enable = enable;
    }
    cmd.result = result;
}

void usbmgr_cmd_add_samba_user(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    const FieldText name(cmd.name);
    const FieldText password(cmd.password);
    cmd.result = app_util_add_samba_user(name.text, password.text, cmd.enable);
    usbmgr_tr140_db_build();
}

void usbmgr_cmd_remove_samba_user(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    const FieldText name(cmd.name);
    cmd.result = app_util_remove_samba_user(name.text);
    usbmgr_tr140_db_build();
}

// Writes no entry line (its row in the command list is silent).
void usbmgr_cmd_modify_samba_user(CmdSambaUser& cmd) {
    usbmgr::DaemonLock lock;
    const FieldText name(cmd.name);
    const FieldText password(cmd.password);
    cmd.result = app_util_modify_samba_user(name.text, password.text, cmd.enable);
    usbmgr_tr140_db_build();
}
