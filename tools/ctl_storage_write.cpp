#include "tools/ctl_storage_write.h"

#include "proto/commands.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

// The reply word of verb, when the reply holds it.
bool reply_word(const WriteVerb& verb, const unsigned char* reply, std::size_t len, int64_t& word) {
    if (verb.word == nullptr || reply == nullptr) return false;
    const Layout* layout = find_layout(verb.verb.id);
    const Field* f = layout ? find_field(*layout, verb.word) : nullptr;
    if (f == nullptr || static_cast<std::size_t>(f->offset) + f->size > len) return false;
    word = read_int(*f, reply);
    return true;
}

}  // namespace

const std::vector<WriteVerb>& write_verbs() {
    static const std::vector<WriteVerb> verbs = {
        {{"samba-service", 24, {"service", "Enable"}, "SERVICE 0|1", "switch Samba off or on (service 0 only)"},
         nullptr},
        {{"netinfo-set", 25, {"service", "HostName", "DomainName"}, "SERVICE HOST DOMAIN",
          "accepted and ignored by the daemon"},
         nullptr},
        {{"network-server-set", 26, {"service", "SMBEnable", "NetworkProtocolAuthReq"}, "SERVICE SMB AUTH",
          "Samba on (1) or off (0); AUTH 1 security \"user\", else \"share\""},
         nullptr},
        {{"account-add", 27, {"name", "password", "enable"}, "NAME PASSWORD 0|1", "add a Samba user account"},
         "result"},
        {{"account-remove", 28, {"name"}, "NAME", "remove a Samba user account and its user access"}, "result"},
        {{"account-modify", 29, {"name", "password", "enable"}, "NAME PASSWORD 0|1",
          "enable or disable a Samba user account"},
         "result"},
        {{"disk-rename", 30, {"service", "slot", "Name"}, "SERVICE SLOT NAME", "name the disk in table slot SLOT"},
         "status"},
        {{"volume-set", 31, {"service", "slot", "Enable", "Name"}, "SERVICE SLOT 0|1 NAME",
          "share (1) or hide (0) a volume and name it (\"\" keeps its name)"},
         "status"},
        {{"folder-set", 32, {"service", "slot", "folder", "Name", "Enable"}, "SERVICE SLOT N NAME 0|1",
          "accepted and ignored by the daemon"},
         nullptr},
        {{"access-grant", 33, {"service", "slot", "UserName", "Permissions"}, "SERVICE SLOT USER PERMISSIONS",
          "give Samba user USER access to a volume"},
         "status"},
        {{"access-revoke", 34, {"service", "slot", "number"}, "SERVICE SLOT N",
          "remove user-access record number N of a volume"},
         "status"},
        {{"access-modify", 35, {"service", "slot", "number", "Permissions"}, "SERVICE SLOT N PERMISSIONS",
          "accepted and ignored by the daemon"},
         nullptr},
        {{"safe-remove", 36, {"service", "slot"}, "SERVICE SLOT",
          "unmount and forget the disk in table slot SLOT (answers before the unmount)"},
         "status"},
    };
    return verbs;
}

const WriteVerb* find_write_verb(const std::string& name) {
    for (const WriteVerb& v : write_verbs())
        if (name == v.verb.name) return &v;
    return nullptr;
}

bool build_write_request(const WriteVerb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                         std::string& error) {
    return build_read_request(verb.verb, args, out, error);
}

const char* write_status_text(uint32_t id, int64_t word) {
    if (id >= 27 && id <= 29) {
        if (word == 0) return "done";
        if (word != -1) return "unknown status";
        if (id == 27) return "refused: name taken, no free slot, or name or password not accepted";
        return "refused: no such user";
    }
    switch (word) {
        case 0: return "success";
        case -1: return id == 30 ? "unknown status" : "service number out of range";
        case -2: return id == 30 ? "no disk in that slot, or service number out of range" : "no disk in that slot";
        case -3: return "no volume in that slot";
        case -5: return id == 33 ? "not added: unknown user, no free record, or the disk is not remembered"
                                 : "unknown status";
        case -6: return id == 34 ? "no user access with that number" : "unknown status";
        default: return "unknown status";
    }
}

std::string format_write_text(const WriteVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "code: " + std::to_string(code) + " " + usbmgr_iil_err_str(code) + "\n";
    if (code != 0) return out;
    int64_t word = 0;
    if (reply_word(verb, reply, len, word))
        out += std::string("  ") + verb.word + " = " + std::to_string(word) + " (" +
               write_status_text(verb.verb.id, word) + ")\n";
    else
        out += "  (no reply word: the change shows in the model)\n";
    return out;
}

std::string format_write_json(const WriteVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "{\"code\":" + std::to_string(code) + ",\"code_name\":\"" + json_escape(usbmgr_iil_err_str(code)) +
                      "\",\"reply\":{";
    int64_t word = 0;
    if (code == 0 && reply_word(verb, reply, len, word))
        out += std::string("\"") + verb.word + "\":" + std::to_string(word) + ",\"meaning\":\"" +
               json_escape(write_status_text(verb.verb.id, word)) + "\"";
    return out + "}}";
}

std::string write_verbs_usage() {
    std::string out = "  storage service changes (commands 24 to 36), each [--json]:\n";
    for (const WriteVerb& v : write_verbs()) {
        std::string line = std::string("  usbmgrctl ") + v.verb.name + " " + v.verb.usage;
        out += line + "\n      " + v.verb.what + "\n";
    }
    return out;
}

}  // namespace usbmgrctl
