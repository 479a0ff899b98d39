#include "tools/ctl_layout.h"

#include <strings.h>

#include <cstring>
#include <type_traits>

#include "tools/ctl_text.h"
#include "usbmgrd/payload.h"

namespace usbmgrctl {

namespace {

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
    CTL_FIELD(MiniDlnaConf, enable),        CTL_FIELD(MiniDlnaConf, conf_dir),
    CTL_FIELD(MiniDlnaConf, db_dir),        CTL_FIELD(MiniDlnaConf, log_dir),
    CTL_FIELD(MiniDlnaConf, media_dir),     CTL_FIELD(MiniDlnaConf, log_level),
    CTL_FIELD(MiniDlnaConf, root_container), CTL_FIELD(MiniDlnaConf, port),
    CTL_FIELD(MiniDlnaConf, friendly_name), CTL_FIELD(MiniDlnaConf, serial),
    CTL_FIELD(MiniDlnaConf, model_name),    CTL_FIELD(MiniDlnaConf, model_number),
    CTL_FIELD(MiniDlnaConf, inotify),       CTL_FIELD(MiniDlnaConf, notify_interval),
};

const Field kSamba[] = {
    CTL_FIELD(SambaConf, enable),           CTL_FIELD(SambaConf, conf_dir),
    CTL_FIELD(SambaConf, log_file),         CTL_FIELD(SambaConf, max_log_size),
    CTL_FIELD(SambaConf, log_level),        CTL_FIELD(SambaConf, load_printers),
    CTL_FIELD(SambaConf, printcap_name),    CTL_FIELD(SambaConf, printing),
    CTL_FIELD(SambaConf, security),         CTL_FIELD(SambaConf, workgroup),
    CTL_FIELD(SambaConf, disable_netbios),  CTL_FIELD(SambaConf, netbios_name),
    CTL_FIELD(SambaConf, server_string),    CTL_FIELD(SambaConf, usershare_allow_guests),
    CTL_FIELD(SambaConf, guest_account),    CTL_FIELD(SambaConf, interfaces),
    CTL_FIELD(SambaConf, bind_interfaces_only), CTL_FIELD(SambaConf, username_map),
    CTL_FIELD(SambaConf, username_map_dir),
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
