#include "tools/ctl_model.h"

#include <cstring>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

constexpr uint32_t kCmdService = usbmgr_command_id::usbmgr_cmd_get_storage_service;
constexpr uint32_t kCmdCapabilities = usbmgr_command_id::usbmgr_cmd_get_storage_capabilities;
constexpr uint32_t kCmdNetInfo = usbmgr_command_id::usbmgr_cmd_get_storage_netinfo;
constexpr uint32_t kCmdNetworkServer = usbmgr_command_id::usbmgr_cmd_get_storage_network_server;
constexpr uint32_t kCmdUser = usbmgr_command_id::usbmgr_cmd_get_user_account;
constexpr uint32_t kCmdDisk = usbmgr_command_id::usbmgr_cmd_get_physical_medium;
constexpr uint32_t kCmdVolume = usbmgr_command_id::usbmgr_cmd_get_logical_volume;
constexpr uint32_t kCmdFolder = usbmgr_command_id::usbmgr_cmd_get_logical_volume_folder;
constexpr uint32_t kCmdUserAccess = usbmgr_command_id::usbmgr_cmd_get_storage_user_access;

const Field* field_of(uint32_t id, const char* name) {
    const Layout* l = find_layout(id);
    return l ? find_field(*l, name) : nullptr;
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
    for (const Value& v : n.fields) out += indent + "  " + v.name + " = " + value_text(kCmdService, v) + "\n";
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
