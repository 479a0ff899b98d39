#include "tools/ctl_model.h"

#include <cstring>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

constexpr uint32_t kCmdServiceCount = 14;
constexpr uint32_t kCmdService = 15;
constexpr uint32_t kCmdCapabilities = 16;
constexpr uint32_t kCmdNetInfo = 17;
constexpr uint32_t kCmdNetworkServer = 18;
constexpr uint32_t kCmdUser = 19;
constexpr uint32_t kCmdDisk = 20;
constexpr uint32_t kCmdVolume = 21;
constexpr uint32_t kCmdFolder = 22;
constexpr uint32_t kCmdUserAccess = 23;

const Field* field_of(uint32_t id, const char* name) {
    const Layout* l = find_layout(id);
    return l ? find_field(*l, name) : nullptr;
}

bool is_skipped(const char* name, const std::vector<const char*>& skip) {
    for (const char* s : skip)
        if (std::strcmp(s, name) == 0) return true;
    return false;
}

std::string value_text(const Value& v) {
    if (v.is_text) return quote_text(v.text);
    std::string s = std::to_string(v.number);
    if (v.name == "status") s += std::string(" (") + storage_status_text(v.number) + ")";
    return s;
}

std::string value_json(const Value& v) {
    return v.is_text ? "\"" + json_escape(v.text) + "\"" : std::to_string(v.number);
}

const Value* find_value(const std::vector<Value>& values, const char* name) {
    for (const Value& v : values)
        if (v.name == name) return &v;
    return nullptr;
}

int64_t number_of(const std::vector<Value>& values, const char* name, int64_t fallback) {
    const Value* v = find_value(values, name);
    return v && !v->is_text ? v->number : fallback;
}

// Runs one read: the request fields set from (name, value) pairs, the reply
// decoded less the request fields and the status; status gets the status
// word (0 for a command that has none).
struct ReadResult {
    int code = 0;
    int64_t status = 0;
    std::vector<Value> fields;
};

ReadResult read(const Call& call, uint32_t id, const std::vector<std::pair<const char*, int64_t>>& request) {
    ReadResult r;
    const UsbmgrCommandInfo* info = usbmgr_command_find(id);
    std::vector<unsigned char> payload(info ? info->size : 0, 0);
    std::vector<const char*> skip = {"status"};
    for (const auto& [name, value] : request) {
        const Field* f = field_of(id, name);
        if (f == nullptr || static_cast<std::size_t>(f->offset) + 4 > payload.size()) continue;
        int32_t w = static_cast<int32_t>(value);
        std::memcpy(payload.data() + f->offset, &w, sizeof w);
        skip.push_back(name);
    }
    r.code = call(id, payload);
    if (r.code != 0) return r;
    const Field* st = field_of(id, "status");
    if (st && static_cast<std::size_t>(st->offset) + 4 <= payload.size()) r.status = read_int(*st, payload.data());
    r.fields = decode_reply(id, payload.data(), payload.size(), skip);
    return r;
}

std::string failed(uint32_t id, int code) {
    const UsbmgrCommandInfo* info = usbmgr_command_find(id);
    return "command " + std::to_string(id) + " (" + (info ? info->name : "?") + ") failed on the bus: " +
           std::to_string(code) + " " + usbmgr_iil_err_str(code);
}

void render_text(const Node& n, int depth, std::string& out) {
    const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
    out += indent + n.name + "\n";
    for (const Value& v : n.fields) out += indent + "  " + v.name + " = " + value_text(v) + "\n";
    for (const Node& c : n.children) render_text(c, depth + 1, out);
}

void render_json(const Node& n, std::string& out) {
    out += "{";
    bool first = true;
    for (const Value& v : n.fields) {
        if (!first) out += ",";
        first = false;
        out += "\"" + json_escape(v.name) + "\":" + value_json(v);
    }
    for (const Node& c : n.children) {
        if (!first) out += ",";
        first = false;
        out += "\"" + json_escape(c.name) + "\":";
        render_json(c, out);
    }
    out += "}";
}

}  // namespace

const std::vector<ReadVerb>& read_verbs() {
    static const std::vector<ReadVerb> verbs = {
        {"services", kCmdServiceCount, {}, "", "number of storage services"},
        {"service", kCmdService, {"service"}, "SERVICE", "a storage service: enable and entry counts"},
        {"capabilities", kCmdCapabilities, {"service"}, "SERVICE", "what the service can share"},
        {"netinfo", kCmdNetInfo, {"service"}, "SERVICE", "host and domain name"},
        {"network-server", kCmdNetworkServer, {"service"}, "SERVICE", "sharing protocols and authentication"},
        {"user", kCmdUser, {"service", "user"}, "SERVICE USER", "Samba user USER (0 to 24) of the settings"},
        {"disk", kCmdDisk, {"service", "slot"}, "SERVICE SLOT", "the disk in table slot SLOT (0 to 24)"},
        {"volume", kCmdVolume, {"service", "slot"}, "SERVICE SLOT", "the volume in table slot SLOT (0 to 24)"},
        {"folder", kCmdFolder, {"service", "slot", "folder"}, "SERVICE SLOT N", "folder N of a volume (0 = its root)"},
        {"user-access", kCmdUserAccess, {"service", "slot", "number"}, "SERVICE SLOT N",
         "user-access record number N of a volume"},
    };
    return verbs;
}

const ReadVerb* find_read_verb(const std::string& name) {
    for (const ReadVerb& v : read_verbs())
        if (name == v.name) return &v;
    return nullptr;
}

bool build_read_request(const ReadVerb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                        std::string& error) {
    if (args.size() != verb.args.size()) {
        error = std::string(verb.name) + " takes " + std::to_string(verb.args.size()) + " argument" +
                (verb.args.size() == 1 ? "" : "s") + (verb.args.empty() ? "" : std::string(": ") + verb.usage);
        return false;
    }
    const UsbmgrCommandInfo* info = usbmgr_command_find(verb.id);
    const Layout* layout = find_layout(verb.id);
    if (info == nullptr || layout == nullptr) {
        error = "command " + std::to_string(verb.id) + " is not served";
        return false;
    }
    out.assign(info->size, 0);
    for (std::size_t i = 0; i < args.size(); ++i) {
        const Field* f = find_field(*layout, verb.args[i]);
        std::string why;
        if (f == nullptr || !encode_field(*f, args[i].c_str(), out.data(), out.size(), why)) {
            error = std::string(verb.args[i]) + " '" + args[i] + "': " + (f ? why : "no such field");
            return false;
        }
    }
    return true;
}

const char* storage_status_text(int64_t status) {
    switch (status) {
        case 0: return "success";
        case -1: return "service number out of range";
        case -2: return "no disk in that slot";
        case -3: return "no volume in that slot";
        case -4: return "no such folder";
        case -5: return "user name or password missing";
        case -6: return "no user access with that number";
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
        if (static_cast<std::size_t>(f.offset) + f.size > len || is_skipped(f.name, skip)) continue;
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

std::string format_verb_text(const ReadVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "code: " + std::to_string(code) + " " + usbmgr_iil_err_str(code) + "\n";
    if (code != 0) return out;
    for (const Value& v : decode_reply(verb.id, reply, len, verb.args)) out += "  " + v.name + " = " + value_text(v) + "\n";
    return out;
}

std::string format_verb_json(const ReadVerb& verb, int code, const unsigned char* reply, std::size_t len) {
    std::string out = "{\"code\":" + std::to_string(code) + ",\"code_name\":\"" + json_escape(usbmgr_iil_err_str(code)) +
                      "\",\"reply\":{";
    if (code == 0) {
        bool first = true;
        for (const Value& v : decode_reply(verb.id, reply, len, verb.args)) {
            if (!first) out += ",";
            first = false;
            out += "\"" + json_escape(v.name) + "\":" + value_json(v);
        }
    }
    return out + "}}";
}

bool walk_tree(int32_t service, const Call& call, Node& tree, std::string& error) {
    tree = Node{"StorageService." + std::to_string(service), {}, {}};
    ReadResult r = read(call, kCmdService, {{"service", service}});
    if (r.code != 0) {
        error = failed(kCmdService, r.code);
        return false;
    }
    if (r.status != 0) {
        tree.fields.push_back(Value{"status", false, r.status, {}});
        return true;
    }
    tree.fields = r.fields;

    const std::pair<uint32_t, const char*> parts[] = {
        {kCmdCapabilities, "Capabilities"}, {kCmdNetInfo, "NetInfo"}, {kCmdNetworkServer, "NetworkServer"}};
    for (const auto& [id, name] : parts) {
        r = read(call, id, {{"service", service}});
        if (r.code != 0) {
            error = failed(id, r.code);
            return false;
        }
        if (r.status == 0) tree.children.push_back(Node{name, r.fields, {}});
    }

    for (int slot = 0; slot < kTreeSlots; ++slot) {
        r = read(call, kCmdDisk, {{"service", service}, {"slot", slot}});
        if (r.code != 0) {
            error = failed(kCmdDisk, r.code);
            return false;
        }
        if (r.status == 0) tree.children.push_back(Node{"PhysicalMedium." + std::to_string(slot), r.fields, {}});
    }

    for (int slot = 0; slot < kTreeSlots; ++slot) {
        r = read(call, kCmdVolume, {{"service", service}, {"slot", slot}});
        if (r.code != 0) {
            error = failed(kCmdVolume, r.code);
            return false;
        }
        if (r.status != 0) continue;
        Node volume{"LogicalVolume." + std::to_string(slot), r.fields, {}};
        const int64_t folders = number_of(r.fields, "FolderNumberOfEntries", 0);
        for (int64_t f = 0; f < folders && f < 1000; ++f) {
            ReadResult fr = read(call, kCmdFolder, {{"service", service}, {"slot", slot}, {"folder", f}});
            if (fr.code != 0) {
                error = failed(kCmdFolder, fr.code);
                return false;
            }
            if (fr.status != 0) continue;
            Node folder{"Folder." + std::to_string(f), fr.fields, {}};
            // Only the root folder carries user access; records are found by number.
            const int64_t wanted = f == 0 ? number_of(fr.fields, "UserAccessNumberOfEntries", 0) : 0;
            int64_t found = 0;
            for (int n = 0; n < kTreeSlots && found < wanted; ++n) {
                ReadResult ur = read(call, kCmdUserAccess, {{"service", service}, {"slot", slot}, {"number", n}});
                if (ur.code != 0) {
                    error = failed(kCmdUserAccess, ur.code);
                    return false;
                }
                if (ur.status != 0) continue;
                folder.children.push_back(Node{"UserAccess." + std::to_string(n), ur.fields, {}});
                ++found;
            }
            volume.children.push_back(std::move(folder));
        }
        tree.children.push_back(std::move(volume));
    }

    // Users live in the settings file, which only service 0 reads.
    if (service == 0) {
        for (int n = 0; n < kTreeSlots; ++n) {
            r = read(call, kCmdUser, {{"service", service}, {"user", n}});
            if (r.code != 0) {
                error = failed(kCmdUser, r.code);
                return false;
            }
            if (r.status == 0) tree.children.push_back(Node{"UserAccount." + std::to_string(n), r.fields, {}});
        }
    }
    return true;
}

std::string render_tree_text(const Node& tree) {
    std::string out;
    render_text(tree, 0, out);
    return out;
}

std::string render_tree_json(const Node& tree) {
    std::string out = "{\"" + json_escape(tree.name) + "\":";
    render_json(tree, out);
    return out + "}";
}

}  // namespace usbmgrctl
