#include "tools/ctl_layout.h"

#include <strings.h>

#include <array>
#include <cstring>
#include <type_traits>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_text.h"

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
// The bytes after member m up to the end of S: the struct's tail padding.
#define CTL_TAIL(S, m)                                                                              \
    Field {                                                                                         \
        "(padding)", static_cast<uint32_t>(offsetof(S, m) + sizeof(S::m)), FieldType::STR,          \
            static_cast<uint32_t>(sizeof(S) - offsetof(S, m) - sizeof(S::m))                        \
    }

// Fields of each payload struct of the command list, keyed by the struct,
// so that a command's fields follow its row; `unused` lists the bytes no
// field shows on purpose. A struct of the list without fields here does
// not compile.
template <typename Payload>
struct PayloadFields;

constexpr std::array<Field, 0> kNoUnused{};

template <>
struct PayloadFields<MiniDlnaConf> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(MiniDlnaConf, enable),        CTL_FIELD(MiniDlnaConf, conf_dir),
        CTL_FIELD(MiniDlnaConf, db_dir),        CTL_FIELD(MiniDlnaConf, log_dir),
        CTL_FIELD(MiniDlnaConf, media_dir),     CTL_FIELD(MiniDlnaConf, log_level),
        CTL_FIELD(MiniDlnaConf, root_container), CTL_FIELD(MiniDlnaConf, port),
        CTL_FIELD(MiniDlnaConf, friendly_name), CTL_FIELD(MiniDlnaConf, serial),
        CTL_FIELD(MiniDlnaConf, model_name),    CTL_FIELD(MiniDlnaConf, model_number),
        CTL_FIELD(MiniDlnaConf, inotify),       CTL_FIELD(MiniDlnaConf, notify_interval),
    });
    static constexpr auto unused = std::to_array<Field>({CTL_TAIL(MiniDlnaConf, notify_interval)});
};

template <>
struct PayloadFields<SambaConf> {
    static constexpr auto fields = std::to_array<Field>({
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
    });
    static constexpr auto unused = std::to_array<Field>({CTL_TAIL(SambaConf, username_map_dir)});
};

template <>
struct PayloadFields<CmdGetUsbSerialEnable> {
    static constexpr auto fields = std::to_array<Field>({CTL_FIELD(CmdGetUsbSerialEnable, enable)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetUsbSerialEnable> {
    static constexpr auto fields =
        std::to_array<Field>({CTL_FIELD(CmdSetUsbSerialEnable, enable), CTL_FIELD(CmdSetUsbSerialEnable, status)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetConf> {
    static constexpr auto fields = std::to_array<Field>({CTL_FIELD(CmdSetConf, name), CTL_FIELD(CmdSetConf, value)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdNumber> {
    static constexpr auto fields = std::to_array<Field>({CTL_FIELD(CmdNumber, number)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSambaUserSlot> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSambaUserSlot, index), CTL_FIELD(CmdSambaUserSlot, enable), CTL_FIELD(CmdSambaUserSlot, name),
        CTL_FIELD(CmdSambaUserSlot, password), CTL_FIELD(CmdSambaUserSlot, result),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSambaUser> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSambaUser, enable), CTL_FIELD(CmdSambaUser, name), CTL_FIELD(CmdSambaUser, password),
        CTL_FIELD(CmdSambaUser, result),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdNumberOfStorageService> {
    static constexpr auto fields = std::to_array<Field>({CTL_FIELD(CmdNumberOfStorageService, number)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdStorageService> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdStorageService, service),
        CTL_FIELD(CmdStorageService, Enable),
        CTL_FIELD(CmdStorageService, PhysicalMediumNumberOfEntries),
        CTL_FIELD(CmdStorageService, LogicalVolumeNumberOfEntries),
        CTL_FIELD(CmdStorageService, UserAccountNumberOfEntries),
        CTL_FIELD(CmdStorageService, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdStorageCapabilities> {
    static constexpr auto fields = std::to_array<Field>({
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
    });
    static constexpr auto unused = std::to_array<Field>({CTL_FIELD(CmdStorageCapabilities, unused)});
};

template <>
struct PayloadFields<CmdStorageNetInfo> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdStorageNetInfo, service),
        CTL_FIELD(CmdStorageNetInfo, HostName),
        CTL_FIELD(CmdStorageNetInfo, DomainName),
        CTL_FIELD(CmdStorageNetInfo, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdStorageNetworkServer> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdStorageNetworkServer, service),   CTL_FIELD(CmdStorageNetworkServer, word1),
        CTL_FIELD(CmdStorageNetworkServer, AFPEnable), CTL_FIELD(CmdStorageNetworkServer, NFSEnable),
        CTL_FIELD(CmdStorageNetworkServer, SMBEnable), CTL_FIELD(CmdStorageNetworkServer, NetworkProtocolAuthReq),
        CTL_FIELD(CmdStorageNetworkServer, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdUserAccount> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdUserAccount, service), CTL_FIELD(CmdUserAccount, user),     CTL_FIELD(CmdUserAccount, Enable),
        CTL_FIELD(CmdUserAccount, Name),    CTL_FIELD(CmdUserAccount, Password), CTL_FIELD(CmdUserAccount, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdPhysicalMedium> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdPhysicalMedium, service),        CTL_FIELD(CmdPhysicalMedium, slot),
        CTL_FIELD(CmdPhysicalMedium, Name),           CTL_FIELD(CmdPhysicalMedium, Vendor),
        CTL_FIELD(CmdPhysicalMedium, Model),          CTL_FIELD(CmdPhysicalMedium, SerialNumber),
        CTL_FIELD(CmdPhysicalMedium, FirmwareVersion), CTL_FIELD(CmdPhysicalMedium, ConnectionType),
        CTL_FIELD(CmdPhysicalMedium, Removable),      CTL_FIELD(CmdPhysicalMedium, Capacity),
        CTL_FIELD(CmdPhysicalMedium, Status),         CTL_FIELD(CmdPhysicalMedium, SMARTCapable),
        CTL_FIELD(CmdPhysicalMedium, HotSwappable),   CTL_FIELD(CmdPhysicalMedium, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdLogicalVolume> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdLogicalVolume, service),    CTL_FIELD(CmdLogicalVolume, slot),
        CTL_FIELD(CmdLogicalVolume, Name),       CTL_FIELD(CmdLogicalVolume, Status),
        CTL_FIELD(CmdLogicalVolume, Enable),     CTL_FIELD(CmdLogicalVolume, PhysicalReference),
        CTL_FIELD(CmdLogicalVolume, FileSystem), CTL_FIELD(CmdLogicalVolume, Capacity),
        CTL_FIELD(CmdLogicalVolume, UsedSpace),  CTL_FIELD(CmdLogicalVolume, Encrypted),
        CTL_FIELD(CmdLogicalVolume, FolderNumberOfEntries), CTL_FIELD(CmdLogicalVolume, status),
    });
    static constexpr auto unused = std::to_array<Field>({CTL_FIELD(CmdLogicalVolume, unused)});
};

template <>
struct PayloadFields<CmdLogicalVolumeFolder> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdLogicalVolumeFolder, service),
        CTL_FIELD(CmdLogicalVolumeFolder, slot),
        CTL_FIELD(CmdLogicalVolumeFolder, folder),
        CTL_FIELD(CmdLogicalVolumeFolder, Name),
        CTL_FIELD(CmdLogicalVolumeFolder, Enable),
        CTL_FIELD(CmdLogicalVolumeFolder, UserAccountAccess),
        CTL_FIELD(CmdLogicalVolumeFolder, UserAccessNumberOfEntries),
        CTL_FIELD(CmdLogicalVolumeFolder, status),
    });
    static constexpr auto unused = std::to_array<Field>({CTL_FIELD(CmdLogicalVolumeFolder, unused)});
};

template <>
struct PayloadFields<CmdStorageUserAccess> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdStorageUserAccess, service),       CTL_FIELD(CmdStorageUserAccess, slot),
        CTL_FIELD(CmdStorageUserAccess, number),        CTL_FIELD(CmdStorageUserAccess, tr140_index),
        CTL_FIELD(CmdStorageUserAccess, UserReference), CTL_FIELD(CmdStorageUserAccess, Permissions),
        CTL_FIELD(CmdStorageUserAccess, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetStorageService> {
    static constexpr auto fields =
        std::to_array<Field>({CTL_FIELD(CmdSetStorageService, service), CTL_FIELD(CmdSetStorageService, Enable)});
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetStorageNetworkServer> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSetStorageNetworkServer, service),
        CTL_FIELD(CmdSetStorageNetworkServer, SMBEnable),
        CTL_FIELD(CmdSetStorageNetworkServer, NetworkProtocolAuthReq),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetPhysicalMedium> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSetPhysicalMedium, service),
        CTL_FIELD(CmdSetPhysicalMedium, slot),
        CTL_FIELD(CmdSetPhysicalMedium, Name),
        CTL_FIELD(CmdSetPhysicalMedium, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdSetLogicalVolume> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSetLogicalVolume, service), CTL_FIELD(CmdSetLogicalVolume, slot),
        CTL_FIELD(CmdSetLogicalVolume, Enable),  CTL_FIELD(CmdSetLogicalVolume, Name),
        CTL_FIELD(CmdSetLogicalVolume, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdAddUserAccess> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdAddUserAccess, service),     CTL_FIELD(CmdAddUserAccess, slot),
        CTL_FIELD(CmdAddUserAccess, UserName),    CTL_FIELD(CmdAddUserAccess, Permissions),
        CTL_FIELD(CmdAddUserAccess, status),
    });
    static constexpr auto unused = kNoUnused;
};

template <>
struct PayloadFields<CmdRemoveUserAccess> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdRemoveUserAccess, service),
        CTL_FIELD(CmdRemoveUserAccess, slot),
        CTL_FIELD(CmdRemoveUserAccess, number),
        CTL_FIELD(CmdRemoveUserAccess, status),
    });
    static constexpr auto unused = std::to_array<Field>({CTL_FIELD(CmdRemoveUserAccess, unused)});
};

template <>
struct PayloadFields<CmdSafeRemove> {
    static constexpr auto fields = std::to_array<Field>({
        CTL_FIELD(CmdSafeRemove, service),
        CTL_FIELD(CmdSafeRemove, slot),
        CTL_FIELD(CmdSafeRemove, status),
    });
    static constexpr auto unused = kNoUnused;
};

#undef CTL_TAIL
#undef CTL_FIELD

// The layout of command id, whose payload struct is Payload; a field list
// that does not cover its struct byte for byte does not compile.
template <typename Payload>
constexpr Layout layout_of(uint32_t id) {
    using F = PayloadFields<Payload>;
    constexpr Layout layout{0,
                            static_cast<uint32_t>(sizeof(Payload)),
                            F::fields.data(),
                            F::fields.size(),
                            F::unused.data(),
                            F::unused.size()};
    static_assert(layout_problem(layout) == nullptr, "field list does not cover its payload struct");
    Layout l = layout;
    l.id = id;
    return l;
}

// One layout a row of the command list.
const Layout kLayouts[] = {
#define USBMGR_COMMAND(id, handler, payload, flags) layout_of<payload>(id),
#include "proto/commands.def"
};

}  // namespace

const Layout* find_layout(uint32_t id) {
    for (const auto& l : kLayouts)
        if (l.id == id) return &l;
    return nullptr;
}

const Field* find_field(const Layout& layout, const char* name) {
    // An exact match first: some payloads have both Status (a text) and status.
    for (std::size_t i = 0; i < layout.count; ++i)
        if (std::strcmp(layout.fields[i].name, name) == 0) return &layout.fields[i];
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
        std::memcpy(buf + f.offset, text, len + 1);  // with its NUL: len < f.size
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
