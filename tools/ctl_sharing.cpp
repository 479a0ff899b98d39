#include "tools/ctl_sharing.h"

#include <cstring>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

constexpr uint32_t kCmdGetMiniDlna = 2;
constexpr uint32_t kCmdGetSamba = 3;
constexpr uint32_t kCmdGetSerial = 4;
constexpr uint32_t kCmdSetMiniDlna = 5;
constexpr uint32_t kCmdSetSamba = 6;
constexpr uint32_t kCmdSetSerial = 7;
constexpr uint32_t kCmdUserCount = 8;
constexpr uint32_t kCmdUserSlot = 9;
constexpr uint32_t kCmdUserAdd = 10;
constexpr uint32_t kCmdUserRemove = 11;
constexpr uint32_t kCmdUserModify = 12;

bool is_status(const char* name) { return std::strcmp(name, "status") == 0 || std::strcmp(name, "result") == 0; }

// The shown reply fields of verb, decoded, in payload order.
struct Shown {
    const Field* field;
    bool is_text;
    int64_t number;
    std::string text;
};

std::vector<Shown> shown_fields(const SharingVerb& verb, const unsigned char* reply, std::size_t len) {
    std::vector<Shown> out;
    const Layout* layout = find_layout(verb.id);
    if (layout == nullptr || reply == nullptr) return out;
    for (std::size_t i = 0; i < layout->count; ++i) {
        const Field& f = layout->fields[i];
        bool wanted = false;
        for (const char* s : verb.shown) wanted = wanted || std::strcmp(s, f.name) == 0;
        if (!wanted || static_cast<std::size_t>(f.offset) + f.size > len) continue;
        Shown v{&f, f.type == FieldType::STR, 0, {}};
        if (v.is_text)
            v.text = read_str(f, reply);
        else
            v.number = read_int(f, reply);
        out.push_back(std::move(v));
    }
    return out;
}

}  // namespace

const std::vector<SharingVerb>& sharing_verbs() {
    static const std::vector<SharingVerb> verbs = {
        {"minidlna", kCmdGetMiniDlna, {}, {},
         {"enable", "db_dir", "log_dir", "media_dir", "log_level", "root_container", "port", "friendly_name", "serial",
          "model_name", "model_number", "inotify", "notify_interval"},
         "", "the MiniDLNA settings"},
        {"samba", kCmdGetSamba, {}, {},
         {"enable", "log_file", "max_log_size", "log_level", "load_printers", "printcap_name", "printing", "security",
          "workgroup", "disable_netbios", "netbios_name", "server_string", "usershare_allow_guests", "guest_account",
          "interfaces", "bind_interfaces_only"},
         "", "the Samba settings"},
        {"serial-login", kCmdGetSerial, {}, {}, {"enable"}, "", "the USB serial login switch"},
        {"minidlna-set", kCmdSetMiniDlna, {"name", "value"}, {}, {}, "NAME VALUE",
         "set one MiniDLNA setting (enable, reload, port, friendly_name, ...)"},
        {"samba-set", kCmdSetSamba, {"name", "value"}, {}, {}, "NAME VALUE",
         "set one Samba setting (enable, reload, workgroup, allow_guests, ...)"},
        {"serial-login-set", kCmdSetSerial, {"enable"}, {}, {"enable", "status"}, "0|1",
         "switch logins on USB serial adapters that arrive from now on"},
        {"user-count", kCmdUserCount, {}, {}, {"number"}, "", "number of Samba users"},
        {"user-slot", kCmdUserSlot, {"index"}, {}, {"enable", "name", "password", "result"}, "SLOT",
         "Samba user slot SLOT (0 to 24; a slot, not the n-th user)"},
        {"user-add", kCmdUserAdd, {"name", "password", "enable"}, {"1"}, {"result"}, "NAME PASSWORD [ENABLE]",
         "add a Samba user (enabled unless ENABLE is 0)"},
        {"user-remove", kCmdUserRemove, {"name"}, {}, {"result"}, "NAME", "remove a Samba user"},
        {"user-modify", kCmdUserModify, {"name", "password", "enable"}, {}, {"result"}, "NAME PASSWORD ENABLE",
         "change a Samba user's password and enable"},
    };
    return verbs;
}

const SharingVerb* find_sharing_verb(const std::string& name) {
    for (const SharingVerb& v : sharing_verbs())
        if (name == v.name) return &v;
    return nullptr;
}

bool build_sharing_request(const SharingVerb& verb, const std::vector<std::string>& args,
                           std::vector<unsigned char>& out, std::string& error) {
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

const char* sharing_status_text(uint32_t id, int64_t status) {
    if (status == 0) return id == kCmdSetSerial ? "saved" : "success";
    switch (id) {
        case kCmdSetSerial:
            // The save answers -1 whenever user slot 24 is free, so -7 is the
            // usual answer although the file was written.
            return status == -7 ? "save reported -1 (also when user slot 24 is free)" : "unknown status";
        case kCmdUserSlot: return status == -1 ? "a key of the slot is missing" : "unknown result";
        case kCmdUserAdd:
            return status == -1 ? "refused (name taken, no free slot, or name or password not accepted)"
                                : "unknown result";
        case kCmdUserRemove: return status == -1 ? "no such user" : "unknown result";
        case kCmdUserModify:
            return status == -1 ? "refused (no such user, or name or password not accepted)" : "unknown result";
        default: return "unknown status";
    }
}

std::string format_sharing_text(const SharingVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "code: " + std::to_string(code) + " " + usbmgr_iil_err_str(code) + "\n";
    if (code != 0) return out;
    for (const Shown& v : shown_fields(verb, reply, len)) {
        std::string value;
        if (v.is_text) {
            value = quote_text(v.text);
        } else {
            value = std::to_string(v.number);
            if (is_status(v.field->name)) value += std::string(" (") + sharing_status_text(verb.id, v.number) + ")";
        }
        out += std::string("  ") + v.field->name + " = " + value + "\n";
    }
    return out;
}

std::string format_sharing_json(const SharingVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "{\"code\":" + std::to_string(code) + ",\"code_name\":\"" + json_escape(usbmgr_iil_err_str(code)) +
                      "\",\"reply\":{";
    if (code == 0) {
        bool first = true;
        for (const Shown& v : shown_fields(verb, reply, len)) {
            if (!first) out += ",";
            first = false;
            out += "\"" + json_escape(v.field->name) +
                   "\":" + (v.is_text ? "\"" + json_escape(v.text) + "\"" : std::to_string(v.number));
        }
    }
    return out + "}}";
}

std::string sharing_usage() {
    std::string out;
    for (const SharingVerb& v : sharing_verbs()) {
        std::string line = std::string("  usbmgrctl ") + v.name + (*v.usage ? std::string(" ") + v.usage : "") +
                           " [--json]";
        out += line + "\n      " + v.what + " (command " + std::to_string(v.id) + ")\n";
    }
    return out;
}

}  // namespace usbmgrctl
