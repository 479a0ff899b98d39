#include "tools/ctl_verbs.h"

#include <cstring>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

constexpr uint32_t kCmdSetSerial = usbmgr_command_id::usbmgr_cmd_set_usb_serial_enable;
constexpr uint32_t kCmdUserSlot = usbmgr_command_id::usbmgr_cmd_get_samba_user_info;
constexpr uint32_t kCmdUserAdd = usbmgr_command_id::usbmgr_cmd_add_samba_user;
constexpr uint32_t kCmdUserRemove = usbmgr_command_id::usbmgr_cmd_remove_samba_user;
constexpr uint32_t kCmdUserModify = usbmgr_command_id::usbmgr_cmd_modify_samba_user;
constexpr uint32_t kCmdSetSambaService = usbmgr_command_id::usbmgr_cmd_set_storage_service;
constexpr uint32_t kCmdAccountAdd = usbmgr_command_id::usbmgr_cmd_set_add_storage_user_account;
constexpr uint32_t kCmdAccountModify = usbmgr_command_id::usbmgr_cmd_set_modify_storage_user_account;
constexpr uint32_t kCmdSetDisk = usbmgr_command_id::usbmgr_cmd_set_physical_medium;
constexpr uint32_t kCmdAddUserAccess = usbmgr_command_id::usbmgr_cmd_set_storage_add_user_access;
constexpr uint32_t kCmdRemoveUserAccess = usbmgr_command_id::usbmgr_cmd_set_storage_remove_user_access;

bool listed(const char* name, const std::vector<const char*>& names) {
    for (const char* n : names)
        if (std::strcmp(n, name) == 0) return true;
    return false;
}

bool is_status(const std::string& name) { return name == "status" || name == "result"; }

// The reply fields verb prints, in payload order.
std::vector<Value> shown_values(const Verb& verb, const unsigned char* reply, std::size_t len) {
    if (verb.show == Shown::REST) return decode_reply(verb.id, reply, len, verb.args);
    std::vector<Value> out;
    for (Value& v : decode_reply(verb.id, reply, len, {}))
        if (listed(v.name.c_str(), verb.shown)) out.push_back(std::move(v));
    return out;
}

std::string code_text(int code) { return "code: " + std::to_string(code) + " " + usbmgr_iil_err_str(code) + "\n"; }

}  // namespace

const std::vector<Verb>& verbs() {
    using enum Shown;
    static const std::vector<Verb> table = {
        // Settings and Samba users.
        {"minidlna", 2, {}, {}, LISTED,
         {"enable", "db_dir", "log_dir", "media_dir", "log_level", "root_container", "port", "friendly_name", "serial",
          "model_name", "model_number", "inotify", "notify_interval"},
         "", "the MiniDLNA settings"},
        {"samba", 3, {}, {}, LISTED,
         {"enable", "log_file", "max_log_size", "log_level", "load_printers", "printcap_name", "printing", "security",
          "workgroup", "disable_netbios", "netbios_name", "server_string", "usershare_allow_guests", "guest_account",
          "interfaces", "bind_interfaces_only"},
         "", "the Samba settings"},
        {"serial-login", 4, {}, {}, LISTED, {"enable"}, "", "the USB serial login switch"},
        {"minidlna-set", 5, {"name", "value"}, {}, LISTED, {}, "NAME VALUE",
         "set one MiniDLNA setting (enable, reload, port, friendly_name, ...)"},
        {"samba-set", 6, {"name", "value"}, {}, LISTED, {}, "NAME VALUE",
         "set one Samba setting (enable, reload, workgroup, allow_guests, ...)"},
        {"serial-login-set", kCmdSetSerial, {"enable"}, {}, LISTED, {"enable", "status"}, "0|1",
         "switch logins on USB serial adapters that arrive from now on"},
        {"user-count", 8, {}, {}, LISTED, {"number"}, "", "number of Samba users"},
        {"user-slot", kCmdUserSlot, {"index"}, {}, LISTED, {"enable", "name", "password", "result"}, "SLOT",
         "Samba user slot SLOT (0 to 24; a slot, not the n-th user)"},
        {"user-add", kCmdUserAdd, {"name", "password", "enable"}, {"1"}, LISTED, {"result"}, "NAME PASSWORD [ENABLE]",
         "add a Samba user (enabled unless ENABLE is 0)"},
        {"user-remove", kCmdUserRemove, {"name"}, {}, LISTED, {"result"}, "NAME", "remove a Samba user"},
        {"user-modify", kCmdUserModify, {"name", "password", "enable"}, {}, LISTED, {"result"},
         "NAME PASSWORD ENABLE", "change a Samba user's password and enable"},

        // Storage service reads.
        {"services", 14, {}, {}, REST, {}, "", "number of storage services"},
        {"service", 15, {"service"}, {}, REST, {}, "SERVICE", "a storage service: enable and entry counts"},
        {"capabilities", 16, {"service"}, {}, REST, {}, "SERVICE", "what the service can share"},
        {"netinfo", 17, {"service"}, {}, REST, {}, "SERVICE", "host and domain name"},
        {"network-server", 18, {"service"}, {}, REST, {}, "SERVICE", "sharing protocols and authentication"},
        {"user", 19, {"service", "user"}, {}, REST, {}, "SERVICE USER", "Samba user USER (0 to 24) of the settings"},
        {"disk", 20, {"service", "slot"}, {}, REST, {}, "SERVICE SLOT",
         "the disk in table slot SLOT (0 to 24)"},
        {"volume", 21, {"service", "slot"}, {}, REST, {}, "SERVICE SLOT",
         "the volume in table slot SLOT (0 to 24)"},
        {"folder", 22, {"service", "slot", "folder"}, {}, REST, {}, "SERVICE SLOT N",
         "folder N of a volume (0 = its root)"},
        {"user-access", 23, {"service", "slot", "number"}, {}, REST, {}, "SERVICE SLOT N",
         "user-access record number N of a volume"},

        // Storage service changes.
        {"samba-service", kCmdSetSambaService, {"service", "Enable"}, {}, WORD, {}, "SERVICE 0|1",
         "switch Samba off or on (service 0 only)"},
        {"netinfo-set", 25, {"service", "HostName", "DomainName"}, {}, WORD, {}, "SERVICE HOST DOMAIN",
         "accepted and ignored by the daemon"},
        {"network-server-set", 26, {"service", "SMBEnable", "NetworkProtocolAuthReq"}, {}, WORD, {},
         "SERVICE SMB AUTH", "Samba on (1) or off (0); AUTH 1 security \"user\", else \"share\""},
        {"account-add", kCmdAccountAdd, {"name", "password", "enable"}, {}, WORD, {"result"}, "NAME PASSWORD 0|1",
         "add a Samba user account"},
        {"account-remove", 28, {"name"}, {}, WORD, {"result"}, "NAME",
         "remove a Samba user account and its user access"},
        {"account-modify", kCmdAccountModify, {"name", "password", "enable"}, {}, WORD, {"result"},
         "NAME PASSWORD 0|1", "enable or disable a Samba user account"},
        {"disk-rename", kCmdSetDisk, {"service", "slot", "Name"}, {}, WORD, {"status"}, "SERVICE SLOT NAME",
         "name the disk in table slot SLOT"},
        {"volume-set", 31, {"service", "slot", "Enable", "Name"}, {}, WORD, {"status"}, "SERVICE SLOT 0|1 NAME",
         "share (1) or hide (0) a volume and name it (\"\" keeps its name)"},
        {"folder-set", 32, {"service", "slot", "folder", "Name", "Enable"}, {}, WORD, {},
         "SERVICE SLOT N NAME 0|1", "accepted and ignored by the daemon"},
        {"access-grant", kCmdAddUserAccess, {"service", "slot", "UserName", "Permissions"}, {}, WORD, {"status"},
         "SERVICE SLOT USER PERMISSIONS", "give Samba user USER access to a volume"},
        {"access-revoke", kCmdRemoveUserAccess, {"service", "slot", "number"}, {}, WORD, {"status"},
         "SERVICE SLOT N", "remove user-access record number N of a volume"},
        {"access-modify", 35, {"service", "slot", "number", "Permissions"}, {}, WORD, {},
         "SERVICE SLOT N PERMISSIONS", "accepted and ignored by the daemon"},
        {"safe-remove", 36, {"service", "slot"}, {}, WORD, {"status"}, "SERVICE SLOT",
         "unmount and forget the disk in table slot SLOT (answers before the unmount)"},
    };
    return table;
}

const Verb* find_verb(const std::string& name) {
    for (const Verb& v : verbs())
        if (name == v.name) return &v;
    return nullptr;
}

bool build_request(const Verb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                   std::string& error) {
    const std::size_t most = verb.args.size();
    const std::size_t least = most - verb.defaults.size();
    if (args.size() < least || args.size() > most) {
        error = std::string(verb.name) + " takes " +
                (least == most ? std::to_string(most) : std::to_string(least) + " to " + std::to_string(most)) +
                " argument" + (most == 1 ? "" : "s") + (most == 0 ? "" : std::string(": ") + verb.usage);
        return false;
    }
    const UsbmgrCommandInfo* info = usbmgr_command_find(verb.id);
    const Layout* layout = find_layout(verb.id);
    if (info == nullptr || layout == nullptr) {
        error = "command " + std::to_string(verb.id) + " is not served";
        return false;
    }
    out.assign(info->size, 0);
    for (std::size_t i = 0; i < most; ++i) {
        const std::string value = i < args.size() ? args[i] : verb.defaults[i - least];
        const Field* f = find_field(*layout, verb.args[i]);
        std::string why;
        if (f == nullptr || !encode_field(*f, value.c_str(), out.data(), out.size(), why)) {
            error = std::string(verb.args[i]) + " '" + value + "': " + (f ? why : "no such field");
            return false;
        }
    }
    return true;
}

const char* status_text(uint32_t id, int64_t word) {
    // Settings and Samba users: each command answers its own few words.
    if (id >= 2 && id <= kCmdUserModify) {
        if (word == 0) return id == kCmdSetSerial ? "saved" : "success";
        switch (id) {
            case kCmdSetSerial:
                // The save answers -1 whenever user slot 24 is free, so -7 is the
                // usual answer although the file was written.
                return word == -7 ? "save reported -1 (also when user slot 24 is free)" : "unknown status";
            case kCmdUserSlot: return word == -1 ? "a key of the slot is missing" : "unknown result";
            case kCmdUserAdd:
                return word == -1 ? "refused (name taken, no free slot, or name or password not accepted)"
                                  : "unknown result";
            case kCmdUserRemove: return word == -1 ? "no such user" : "unknown result";
            case kCmdUserModify:
                return word == -1 ? "refused (no such user, or name or password not accepted)" : "unknown result";
            default: return "unknown status";
        }
    }
    // Samba accounts of the storage service.
    if (id >= kCmdAccountAdd && id <= kCmdAccountModify) {
        if (word == 0) return "done";
        if (word != -1) return "unknown status";
        if (id == kCmdAccountAdd) return "refused: name taken, no free slot, or name or password not accepted";
        return "refused: no such user";
    }
    // Storage reads and changes share one scale; each change answers part of it.
    const bool change = id >= kCmdSetSambaService;
    switch (word) {
        case 0: return "success";
        case -1: return id == kCmdSetDisk ? "unknown status" : "service number out of range";
        case -2: return id == kCmdSetDisk ? "no disk in that slot, or service number out of range" : "no disk in that slot";
        case -3: return "no volume in that slot";
        case -4: return change ? "unknown status" : "no such folder";
        case -5:
            if (id == kCmdAddUserAccess) return "not added: unknown user, no free record, or the disk is not remembered";
            return change ? "unknown status" : "user name or password missing";
        case -6: return !change || id == kCmdRemoveUserAccess ? "no user access with that number" : "unknown status";
        default: return "unknown status";
    }
}

std::vector<Value> decode_reply(uint32_t id, const unsigned char* reply, std::size_t len,
                                const std::vector<const char*>& skip) {
    std::vector<Value> values;
    const Layout* layout = find_layout(id);
    if (layout == nullptr || reply == nullptr) return values;
    for (std::size_t i = 0; i < layout->count; ++i) {
        const Field& f = layout->fields[i];
        if (static_cast<std::size_t>(f.offset) + f.size > len || listed(f.name, skip)) continue;
        Value v;
        v.name = f.name;
        v.is_text = f.type == FieldType::STR;
        if (v.is_text)
            v.text = read_str(f, reply);
        else
            v.number = read_int(f, reply);
        values.push_back(std::move(v));
    }
    return values;
}

std::string value_text(uint32_t id, const Value& v) {
    if (v.is_text) return quote_text(v.text);
    std::string s = std::to_string(v.number);
    if (is_status(v.name)) s += std::string(" (") + status_text(id, v.number) + ")";
    return s;
}

std::string value_json(const Value& v) {
    return v.is_text ? "\"" + json_escape(v.text) + "\"" : std::to_string(v.number);
}

std::string format_verb_text(const Verb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = code_text(code);
    if (code != 0) return out;
    const std::vector<Value> values = shown_values(verb, reply, len);
    for (const Value& v : values) out += "  " + v.name + " = " + value_text(verb.id, v) + "\n";
    if (verb.show == Shown::WORD && values.empty()) out += "  (no reply word: the change shows in the model)\n";
    return out;
}

std::string format_verb_json(const Verb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "{\"code\":" + std::to_string(code) + ",\"code_name\":\"" + json_escape(usbmgr_iil_err_str(code)) +
                      "\",\"reply\":{";
    if (code == 0) {
        bool first = true;
        for (const Value& v : shown_values(verb, reply, len)) {
            if (!first) out += ",";
            first = false;
            out += "\"" + json_escape(v.name) + "\":" + value_json(v);
            if (verb.show == Shown::WORD)
                out += ",\"meaning\":\"" + json_escape(status_text(verb.id, v.number)) + "\"";
        }
    }
    return out + "}}";
}

std::string verbs_usage() {
    struct Group {
        uint32_t first;
        const char* heading;
    };
    static const Group groups[] = {
        {2, "settings and Samba users (commands 2 to 12):\n"},
        {14,
         "storage service reads (commands 14 to 23); SLOT is a disk's or volume's device-table\n"
         "slot (0 to 24); each prints the decoded reply and its status:\n"},
        {24, "storage service changes (commands 24 to 36):\n"},
    };
    std::string out;
    for (const Verb& v : verbs()) {
        for (const Group& g : groups)
            if (g.first == v.id) out += g.heading;
        out += std::string("  usbmgrctl ") + v.name + (*v.usage ? std::string(" ") + v.usage : "") + " [--json]\n      " +
               v.what + " (command " + std::to_string(v.id) + ")\n";
    }
    return out;
}

}  // namespace usbmgrctl
