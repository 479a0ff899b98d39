#include "tools/ctl_layout.h"

#include <strings.h>

#include <cstring>
#include <type_traits>

#include "tools/ctl_text.h"
#include "usbmgrd/payload.h"

namespace usbmgrctl {

namespace {

// Replies of commands 2 and 3: the daemon's settings records as they travel.
struct MiniDlnaConfReply {
    int32_t enable;
    char conf_path[64];
    char db_dir[64];
    char log_dir[64];
    char media_dir[64];
    char log_level[64];
    char root_container[64];
    char port[10];
    char friendly_name[64];
    char serial[128];
    char model_name[128];
    char model_number[128];
    char inotify[10];
    char notify_interval[10];
};
static_assert(offsetof(MiniDlnaConfReply, db_dir) == 68 && offsetof(MiniDlnaConfReply, port) == 388 &&
              offsetof(MiniDlnaConfReply, friendly_name) == 398 && offsetof(MiniDlnaConfReply, serial) == 462 &&
              offsetof(MiniDlnaConfReply, model_name) == 590 && offsetof(MiniDlnaConfReply, model_number) == 718 &&
              offsetof(MiniDlnaConfReply, inotify) == 846 && offsetof(MiniDlnaConfReply, notify_interval) == 856 &&
              sizeof(MiniDlnaConfReply) == 868);

struct SambaConfReply {
    int32_t enable;
    char conf_path[64];
    char log_file[64];
    char max_log_size[32];
    char log_level[10];
    char load_printers[10];
    char printcap_name[64];
    char printing[10];
    char security[10];
    char workgroup[64];
    char disable_netbios[10];
    char netbios_name[64];
    char server_string[64];
    char usershare_allow_guests[10];
    char guest_account[64];
    char interfaces[64];
    char bind_interfaces_only[10];
    char user_map_account[64];
    char user_map_file[64];
};
static_assert(offsetof(SambaConfReply, log_file) == 68 && offsetof(SambaConfReply, max_log_size) == 132 &&
              offsetof(SambaConfReply, log_level) == 164 && offsetof(SambaConfReply, printcap_name) == 184 &&
              offsetof(SambaConfReply, security) == 258 && offsetof(SambaConfReply, workgroup) == 268 &&
              offsetof(SambaConfReply, netbios_name) == 342 && offsetof(SambaConfReply, usershare_allow_guests) == 470 &&
              offsetof(SambaConfReply, guest_account) == 480 && offsetof(SambaConfReply, interfaces) == 544 &&
              offsetof(SambaConfReply, bind_interfaces_only) == 608 && offsetof(SambaConfReply, user_map_account) == 618 &&
              offsetof(SambaConfReply, user_map_file) == 682 && sizeof(SambaConfReply) == 748);

template <typename T>
constexpr FieldType field_type() {
    if constexpr (std::is_array_v<T>) {
        static_assert(std::is_same_v<std::remove_extent_t<T>, char>);
        return FieldType::STR;
    } else if constexpr (std::is_same_v<T, int32_t>) {
        return FieldType::I32;
    } else {
        static_assert(std::is_same_v<T, uint32_t>);
        return FieldType::U32;
    }
}

#define CTL_FIELD(S, m) \
    Field { #m, static_cast<uint32_t>(offsetof(S, m)), field_type<decltype(S::m)>(), static_cast<uint32_t>(sizeof(S::m)) }

const Field kMiniDlna[] = {
    CTL_FIELD(MiniDlnaConfReply, enable),        CTL_FIELD(MiniDlnaConfReply, conf_path),
    CTL_FIELD(MiniDlnaConfReply, db_dir),        CTL_FIELD(MiniDlnaConfReply, log_dir),
    CTL_FIELD(MiniDlnaConfReply, media_dir),     CTL_FIELD(MiniDlnaConfReply, log_level),
    CTL_FIELD(MiniDlnaConfReply, root_container), CTL_FIELD(MiniDlnaConfReply, port),
    CTL_FIELD(MiniDlnaConfReply, friendly_name), CTL_FIELD(MiniDlnaConfReply, serial),
    CTL_FIELD(MiniDlnaConfReply, model_name),    CTL_FIELD(MiniDlnaConfReply, model_number),
    CTL_FIELD(MiniDlnaConfReply, inotify),       CTL_FIELD(MiniDlnaConfReply, notify_interval),
};

const Field kSamba[] = {
    CTL_FIELD(SambaConfReply, enable),           CTL_FIELD(SambaConfReply, conf_path),
    CTL_FIELD(SambaConfReply, log_file),         CTL_FIELD(SambaConfReply, max_log_size),
    CTL_FIELD(SambaConfReply, log_level),        CTL_FIELD(SambaConfReply, load_printers),
    CTL_FIELD(SambaConfReply, printcap_name),    CTL_FIELD(SambaConfReply, printing),
    CTL_FIELD(SambaConfReply, security),         CTL_FIELD(SambaConfReply, workgroup),
    CTL_FIELD(SambaConfReply, disable_netbios),  CTL_FIELD(SambaConfReply, netbios_name),
    CTL_FIELD(SambaConfReply, server_string),    CTL_FIELD(SambaConfReply, usershare_allow_guests),
    CTL_FIELD(SambaConfReply, guest_account),    CTL_FIELD(SambaConfReply, interfaces),
    CTL_FIELD(SambaConfReply, bind_interfaces_only), CTL_FIELD(SambaConfReply, user_map_account),
    CTL_FIELD(SambaConfReply, user_map_file),
};

// Command 4 carries only the switch; its status word belongs to command 7.
const Field kSerialGet[] = {CTL_FIELD(CmdUsbSerialEnable, enable)};
const Field kSerialSet[] = {CTL_FIELD(CmdUsbSerialEnable, enable), CTL_FIELD(CmdUsbSerialEnable, status)};

const Field kSetConf[] = {CTL_FIELD(CmdSetConf, name), CTL_FIELD(CmdSetConf, value)};

const Field kNumber[] = {CTL_FIELD(CmdNumber, number)};

const Field kUserSlot[] = {
    CTL_FIELD(CmdSambaUserSlot, index), CTL_FIELD(CmdSambaUserSlot, enable), CTL_FIELD(CmdSambaUserSlot, name),
    CTL_FIELD(CmdSambaUserSlot, password), CTL_FIELD(CmdSambaUserSlot, result),
};

const Field kUser[] = {
    CTL_FIELD(CmdSambaUser, enable), CTL_FIELD(CmdSambaUser, name), CTL_FIELD(CmdSambaUser, password),
    CTL_FIELD(CmdSambaUser, result),
};

const Field kServiceCount[] = {CTL_FIELD(CmdNumberOfStorageService, number)};

const Field kService[] = {
    CTL_FIELD(CmdStorageService, service),
    CTL_FIELD(CmdStorageService, Enable),
    CTL_FIELD(CmdStorageService, PhysicalMediumNumberOfEntries),
    CTL_FIELD(CmdStorageService, LogicalVolumeNumberOfEntries),
    CTL_FIELD(CmdStorageService, UserAccountNumberOfEntries),
    CTL_FIELD(CmdStorageService, status),
};

const Field kCapabilities[] = {
    CTL_FIELD(CmdStorageCapabilities, service),
    CTL_FIELD(CmdStorageCapabilities, FTPCapable),
    CTL_FIELD(CmdStorageCapabilities, SFTPCapable),
    CTL_FIELD(CmdStorageCapabilities, HTTPCapable),
    CTL_FIELD(CmdStorageCapabilities, HTTPSCapable),
    CTL_FIELD(CmdStorageCapabilities, HTTPWritable),
    CTL_FIELD(CmdStorageCapabilities, SupportedNetworkProtocols),
    CTL_FIELD(CmdStorageCapabilities, SupportedFileSystemTypes),
    CTL_FIELD(CmdStorageCapabilities, VolumeEncryptionCapable),
    CTL_FIELD(CmdStorageCapabilities, status),
};

const Field kNetInfo[] = {
    CTL_FIELD(CmdStorageNetInfo, service),
    CTL_FIELD(CmdStorageNetInfo, HostName),
    CTL_FIELD(CmdStorageNetInfo, DomainName),
    CTL_FIELD(CmdStorageNetInfo, status),
};

const Field kNetworkServer[] = {
    CTL_FIELD(CmdStorageNetworkServer, service),   CTL_FIELD(CmdStorageNetworkServer, word1),
    CTL_FIELD(CmdStorageNetworkServer, AFPEnable), CTL_FIELD(CmdStorageNetworkServer, NFSEnable),
    CTL_FIELD(CmdStorageNetworkServer, SMBEnable), CTL_FIELD(CmdStorageNetworkServer, NetworkProtocolAuthReq),
    CTL_FIELD(CmdStorageNetworkServer, status),
};

const Field kUserAccount[] = {
    CTL_FIELD(CmdUserAccount, service), CTL_FIELD(CmdUserAccount, user),     CTL_FIELD(CmdUserAccount, Enable),
    CTL_FIELD(CmdUserAccount, Name),    CTL_FIELD(CmdUserAccount, Password), CTL_FIELD(CmdUserAccount, status),
};

const Field kPhysicalMedium[] = {
    CTL_FIELD(CmdPhysicalMedium, service),        CTL_FIELD(CmdPhysicalMedium, slot),
    CTL_FIELD(CmdPhysicalMedium, Name),           CTL_FIELD(CmdPhysicalMedium, Vendor),
    CTL_FIELD(CmdPhysicalMedium, Model),          CTL_FIELD(CmdPhysicalMedium, SerialNumber),
    CTL_FIELD(CmdPhysicalMedium, FirmwareVersion), CTL_FIELD(CmdPhysicalMedium, ConnectionType),
    CTL_FIELD(CmdPhysicalMedium, Removable),      CTL_FIELD(CmdPhysicalMedium, Capacity),
    CTL_FIELD(CmdPhysicalMedium, Status),         CTL_FIELD(CmdPhysicalMedium, SMARTCapable),
    CTL_FIELD(CmdPhysicalMedium, HotSwappable),   CTL_FIELD(CmdPhysicalMedium, status),
};

const Field kLogicalVolume[] = {
    CTL_FIELD(CmdLogicalVolume, service),    CTL_FIELD(CmdLogicalVolume, slot),
    CTL_FIELD(CmdLogicalVolume, Name),       CTL_FIELD(CmdLogicalVolume, Status),
    CTL_FIELD(CmdLogicalVolume, Enable),     CTL_FIELD(CmdLogicalVolume, PhysicalReference),
    CTL_FIELD(CmdLogicalVolume, FileSystem), CTL_FIELD(CmdLogicalVolume, Capacity),
    CTL_FIELD(CmdLogicalVolume, UsedSpace),  CTL_FIELD(CmdLogicalVolume, Encrypted),
    CTL_FIELD(CmdLogicalVolume, FolderNumberOfEntries), CTL_FIELD(CmdLogicalVolume, status),
};

const Field kFolder[] = {
    CTL_FIELD(CmdLogicalVolumeFolder, service),
    CTL_FIELD(CmdLogicalVolumeFolder, slot),
    CTL_FIELD(CmdLogicalVolumeFolder, folder),
    CTL_FIELD(CmdLogicalVolumeFolder, Name),
    CTL_FIELD(CmdLogicalVolumeFolder, Enable),
    CTL_FIELD(CmdLogicalVolumeFolder, UserAccountAccess),
    CTL_FIELD(CmdLogicalVolumeFolder, UserAccessNumberOfEntries),
    CTL_FIELD(CmdLogicalVolumeFolder, status),
};

const Field kUserAccess[] = {
    CTL_FIELD(CmdStorageUserAccess, service),       CTL_FIELD(CmdStorageUserAccess, slot),
    CTL_FIELD(CmdStorageUserAccess, number),        CTL_FIELD(CmdStorageUserAccess, tr140_index),
    CTL_FIELD(CmdStorageUserAccess, UserReference), CTL_FIELD(CmdStorageUserAccess, Permissions),
    CTL_FIELD(CmdStorageUserAccess, status),
};

const Field kSetService[] = {CTL_FIELD(CmdSetStorageService, service), CTL_FIELD(CmdSetStorageService, Enable)};

const Field kSetNetworkServer[] = {
    CTL_FIELD(CmdSetStorageNetworkServer, service),
    CTL_FIELD(CmdSetStorageNetworkServer, SMBEnable),
    CTL_FIELD(CmdSetStorageNetworkServer, NetworkProtocolAuthReq),
};

const Field kSetPhysicalMedium[] = {
    CTL_FIELD(CmdSetPhysicalMedium, service),
    CTL_FIELD(CmdSetPhysicalMedium, slot),
    CTL_FIELD(CmdSetPhysicalMedium, Name),
    CTL_FIELD(CmdSetPhysicalMedium, status),
};

const Field kSetLogicalVolume[] = {
    CTL_FIELD(CmdSetLogicalVolume, service), CTL_FIELD(CmdSetLogicalVolume, slot),
    CTL_FIELD(CmdSetLogicalVolume, Enable),  CTL_FIELD(CmdSetLogicalVolume, Name),
    CTL_FIELD(CmdSetLogicalVolume, status),
};

const Field kAddUserAccess[] = {
    CTL_FIELD(CmdAddUserAccess, service),     CTL_FIELD(CmdAddUserAccess, slot),
    CTL_FIELD(CmdAddUserAccess, UserName),    CTL_FIELD(CmdAddUserAccess, Permissions),
    CTL_FIELD(CmdAddUserAccess, status),
};

const Field kRemoveUserAccess[] = {
    CTL_FIELD(CmdRemoveUserAccess, service),
    CTL_FIELD(CmdRemoveUserAccess, slot),
    CTL_FIELD(CmdRemoveUserAccess, number),
    CTL_FIELD(CmdRemoveUserAccess, status),
};

const Field kSafeRemove[] = {
    CTL_FIELD(CmdSafeRemove, service),
    CTL_FIELD(CmdSafeRemove, slot),
    CTL_FIELD(CmdSafeRemove, status),
};

#undef CTL_FIELD

template <std::size_t N>
constexpr Layout make_layout(uint32_t id, const Field (&fields)[N]) {
    return Layout{id, fields, N};
}

const Layout kLayouts[] = {
    make_layout(2, kMiniDlna),          make_layout(3, kSamba),
    make_layout(4, kSerialGet),         make_layout(5, kSetConf),
    make_layout(6, kSetConf),           make_layout(7, kSerialSet),
    make_layout(8, kNumber),            make_layout(9, kUserSlot),
    make_layout(10, kUser),             make_layout(11, kUser),
    make_layout(12, kUser),             make_layout(14, kServiceCount),
    make_layout(15, kService),          make_layout(16, kCapabilities),
    make_layout(17, kNetInfo),          make_layout(18, kNetworkServer),
    make_layout(19, kUserAccount),      make_layout(20, kPhysicalMedium),
    make_layout(21, kLogicalVolume),    make_layout(22, kFolder),
    make_layout(23, kUserAccess),       make_layout(24, kSetService),
    make_layout(25, kNetInfo),          make_layout(26, kSetNetworkServer),
    make_layout(27, kUser),             make_layout(28, kUser),
    make_layout(29, kUser),             make_layout(30, kSetPhysicalMedium),
    make_layout(31, kSetLogicalVolume), make_layout(32, kFolder),
    make_layout(33, kAddUserAccess),    make_layout(34, kRemoveUserAccess),
    make_layout(35, kUserAccess),       make_layout(36, kSafeRemove),
};

}  // namespace

const Layout* find_layout(uint32_t id) {
    for (const auto& l : kLayouts)
        if (l.id == id) return &l;
    return nullptr;
}

const Field* find_field(const Layout& layout, const char* name) {
    for (std::size_t i = 0; i < layout.count; ++i)
        if (strcasecmp(layout.fields[i].name, name) == 0) return &layout.fields[i];
    return nullptr;
}

bool encode_field(const Field& f, const char* text, unsigned char* buf, std::size_t buf_size, std::string& error) {
    if (static_cast<std::size_t>(f.offset) + f.size > buf_size) {
        error = "field lies outside the payload";
        return false;
    }
    if (f.type == FieldType::STR) {
        std::size_t len = std::strlen(text);
        if (len >= f.size) {
            error = "text longer than " + std::to_string(f.size - 1) + " characters";
            return false;
        }
        std::memset(buf + f.offset, 0, f.size);
        std::memcpy(buf + f.offset, text, len);
        return true;
    }
    int64_t v = 0;
    bool ok = f.type == FieldType::I32 ? parse_number(text, INT32_MIN, INT32_MAX, v)
                                       : parse_number(text, 0, UINT32_MAX, v);
    if (!ok) {
        error = f.type == FieldType::I32 ? "not a signed 32-bit number" : "not an unsigned 32-bit number";
        return false;
    }
    if (f.type == FieldType::I32) {
        int32_t w = static_cast<int32_t>(v);
        std::memcpy(buf + f.offset, &w, sizeof w);
    } else {
        uint32_t w = static_cast<uint32_t>(v);
        std::memcpy(buf + f.offset, &w, sizeof w);
    }
    return true;
}

int64_t read_int(const Field& f, const unsigned char* buf) {
    if (f.type == FieldType::I32) {
        int32_t w;
        std::memcpy(&w, buf + f.offset, sizeof w);
        return w;
    }
    uint32_t w;
    std::memcpy(&w, buf + f.offset, sizeof w);
    return w;
}

std::string read_str(const Field& f, const unsigned char* buf) {
    const char* p = reinterpret_cast<const char*>(buf + f.offset);
    return std::string(p, strnlen(p, f.size));
}

}  // namespace usbmgrctl
