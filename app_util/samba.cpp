// Samba: the configuration file from its line table, the settings and one
// share per folder of the mount root, and starting and reloading smbd and
// nmbd. The stop loop is in process.cpp.
#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "app_util/app_util.h"
#include "app_util/app_util_internal.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/file_writer.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "disk_util/disk_util.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";
constexpr const char kSambaDir[] = "/var/samba";
// Volume name and serial number buffers of the share loop.
constexpr std::size_t kNameSize = 64;

using app_util_internal::field_text;

using SambaField = std::string (*)(const SambaConf&);
#define FIELD(name) [](const SambaConf& c) { return field_text(c.name); }

struct SambaRow {
    bool enabled;
    const char* key;  // indent, parameter and " = ", or the section header
    const char* default_value;
    SambaField field;
};

// Where a setting overrides a row its default is never written; it only
// documents the intended value. dos charset, interfaces and bind interfaces
// only stay off although the last two have settings of their own.
const SambaRow kRows[] = {
    {true, "[global]", "", nullptr},
    {true, "   log file = ", "/var/samba/log.%m", FIELD(log_file)},
    {true, "   max log size = ", "500", FIELD(max_log_size)},
    {true, "   log level = ", "1", FIELD(log_level)},
    {true, "   password level = ", "1", nullptr},
    {true, "   load printers = ", "no", FIELD(load_printers)},
    {true, "   printcap name = ", "/dev/null", FIELD(printcap_name)},
    {true, "   printing = ", "bsd", FIELD(printing)},
    {true, "   security = ", "user", FIELD(security)},
    {true, "   encrypt passwords = ", "yes", nullptr},
    {true, "   display charset = ", "utf8", nullptr},
    {true, "   unix charset = ", "utf8", nullptr},
    {false, "   dos charset = ", "cp950", nullptr},
    {true, "   workgroup = ", "WORKGROUP", FIELD(workgroup)},
    {true, "   disable netbios = ", "no", FIELD(disable_netbios)},
    {true, "   netbios name = ", "NVQ40XX", FIELD(netbios_name)},
    {true, "   name resolve order = ", "bcast host", nullptr},
    {true, "   server string = ", "%h server (Samba, Ubuntu)", FIELD(server_string)},
    {true, "   usershare allow guests = ", "yes", FIELD(usershare_allow_guests)},
    {true, "   guest account = ", "1234", FIELD(guest_account)},
    {false, "   interfaces = ", "", FIELD(interfaces)},
    {false, "   bind interfaces only = ", "no", FIELD(bind_interfaces_only)},
    // The path of the user map file, not the mapped name.
    {true, "   username map = ", "/var/samba/smbusers", FIELD(username_map_dir)},
};
#undef FIELD
static_assert(sizeof kRows / sizeof kRows[0] == 23);

bool samba_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// A value that ends its line: on one line, cut to fit, and without a
// backslash as its last visible character, which Samba would read as
// "continued on the next line".
std::string line_end_value(std::string_view prefix, std::string_view value) {
    std::string v = app_util_internal::fit_value(prefix, app_util_internal::line_safe(value), "");
    std::size_t last = v.size();
    while (last > 0 && samba_space(v[last - 1])) --last;
    if (last > 0 && v[last - 1] == '\\') v[last - 1] = '_';
    return v;
}

// Section names Samba gives a meaning of its own (the global section, the
// home and printer shares, the print driver and inter-process shares); it
// compares them without regard to case or white space.
bool reserved_section(std::string_view name) {
    std::string folded;
    for (char c : name)
        if (!samba_space(c)) folded.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return folded == "global" || folded == "homes" || folded == "printers" || folded == "print$" ||
           folded == "ipc$";
}

// Samba expands '%' and what follows as a macro in share names and comments
// (the host name, its version, the client's address), so an outside text
// there keeps none.
std::string without_macros(std::string text) {
    for (char& c : text)
        if (c == '%') c = '_';
    return text;
}

// The name between the brackets of a share header: '%' becomes '_', and so
// do '[' and ']', so the header ends where it should; an empty name or one
// of blanks only (Samba refuses an empty section name and with it the whole
// file) is made plain.
std::string section_name(std::string_view name) {
    std::string n = without_macros(app_util_internal::fit_value("[", app_util_internal::line_safe(name), "]_"));
    bool blank = true;
    for (char& c : n) {
        if (c == '[' || c == ']') c = '_';
        if (!samba_space(c)) blank = false;
    }
    if (blank) {
        for (char& c : n) c = '_';
        if (n.empty()) n.push_back('_');
    }
    return n;
}

// A volume's share name: its stored name, or its device name (the folder)
// when it has none or the name is one Samba reserves, whose lines would
// join the global or a special section, or hide the share. A folder of a
// reserved name (not one of the daemon's) gets a '_'.
std::string share_name(const AppUtilSambaShare& share) {
    if (!share.volume_name.empty()) {
        std::string named = section_name(share.volume_name);
        if (!reserved_section(named)) return named;
    }
    std::string n = section_name(share.folder);
    if (reserved_section(n)) n.push_back('_');
    return n;
}

// A folder of the mount root is shared only when it is where the daemon
// mounted one of its volumes: a partition's folder, a mount point, in a
// mount root that is root's own. Anything else there (a link planted to
// "/", a folder left without its volume) is never offered to the network.
bool shared_folder(const char* name) { return disk_util_folder_ok(DiskFolderUse::share, name); }

// The folders of the mount root that may be shared, in directory order;
// false when it cannot be listed or is not root's own folder.
bool list_mount_root(std::vector<std::string>& folders) {
    usbmgr::DirPtr dir(opendir(MOUNT_DISK_PATH));
    if (!dir) return false;
    if (!disk_util_folder_ok(DiskFolderUse::mount_root)) return false;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Searching Samba shared disk ...");
    while (dirent* e = readdir(dir.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        if (!shared_folder(e->d_name)) continue;
        folders.emplace_back(e->d_name);
    }
    return true;
}

// The part of a reload after the file was written: stop what runs, start
// again when Samba is enabled.
void restart_samba() {
    if (app_util_check_process("smbd") == 1) {
        app_util_stop_samba();
        usbmgr::sys_clock().sleep_us(500000);
    }
    if (SAMBA_CONF.enable) {
        db_util_exe_command(app_util_internal::server_command({"/bin/smbd"}));
        db_util_exe_command(app_util_internal::server_command({"/bin/nmbd"}));
    }
}

// The section names of the shares whose path is one of folders, as the
// configuration file smbd last read has them.
std::vector<std::string> share_sections(const std::vector<std::string>& folders) {
    std::vector<std::string> paths;
    paths.reserve(folders.size());
    const std::string root(MOUNT_DISK_PATH, strnlen(MOUNT_DISK_PATH, MOUNT_DISK_PATH_SIZE));
    for (const std::string& folder : folders) {
        std::string folder_path = root;
        folder_path.append("/").append(folder);
        std::string path_line = "   path = ";
        path_line.append(line_end_value("   path = ", folder_path));
        paths.push_back(std::move(path_line));
    }
    std::vector<std::string> sections;
    std::ifstream in(field_text(SAMBA_CONF.conf_dir));
    std::string line;
    std::string section;
    while (std::getline(in, line)) {
        if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
            continue;
        }
        for (const std::string& p : paths)
            if (line == p && !section.empty()) sections.push_back(section);
    }
    return sections;
}

}  // namespace

std::vector<AppUtilSambaShare> app_util_samba_shares(const std::vector<std::string>& folders) {
    std::vector<AppUtilSambaShare> shares;
    // Survives from folder to folder: a folder of an unknown disk is shared
    // under the name the previous folder left here.
    char volume_name[kNameSize] = {};
    for (const std::string& folder : folders) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "found %s ...", folder.c_str());
        char serial[kNameSize] = {};
        // A disk without a serial number is known too: its empty serial
        // names the history record whose SERIAL_NUMBER is empty, as in the
        // model. Only a folder of no attached disk is unknown.
        bool known = db_util_find_device_serial_number(folder.c_str(), serial) == 0;
        if (known) {
            // Disabled volumes are not shared.
            if (db_util_get_tr140_volume_status(folder.c_str(), serial) != 1) continue;
            std::memset(volume_name, 0, sizeof volume_name);
            db_util_get_tr140_volume_name(folder.c_str(), serial, volume_name);
        }
        shares.push_back({folder, std::string(volume_name, strnlen(volume_name, sizeof volume_name))});
    }
    return shares;
}

std::string app_util_render_samba_conf(const SambaConf& conf, const char* mount_root,
                                       const std::vector<AppUtilSambaShare>& shares) {
    using app_util_internal::append_line;
    using app_util_internal::fit_value;
    using app_util_internal::line_safe;

    std::string out;
    for (const SambaRow& row : kRows) {
        if (!row.enabled) continue;
        std::string value = row.field ? row.field(conf) : std::string(row.default_value);
        append_line(out, row.key, line_end_value(row.key, value), "");
    }

    const std::string root = mount_root ? std::string(mount_root, strnlen(mount_root, MOUNT_DISK_PATH_SIZE)) : "";
    const char* is_public = field_text(conf.security) == "share" ? "yes" : "no";
    for (const AppUtilSambaShare& share : shares) {
        const bool named = !share.volume_name.empty();
        append_line(out, "[", share_name(share), "]");
        const std::string text = named ? share.volume_name + " (" + share.folder + ")" : share.folder;
        append_line(out, "   comment = ", without_macros(fit_value("   comment = ", line_safe(text), " shared disk")),
                    " shared disk");
        append_line(out, "   path = ", line_end_value("   path = ", root + "/" + share.folder), "");
        append_line(out, "   public = ", is_public, "");
        append_line(out, "   writable = ", "yes", "");
        append_line(out, "   create mode = ", "0750", "");
    }
    return out;
}

void app_util_write_samba_conf() {
    if (usbmgr::DirPtr dir(opendir(kSambaDir)); !dir) mkdir(kSambaDir, 0775);
    std::string path = field_text(SAMBA_CONF.conf_dir);
    usbmgr::FileReplacement file(path.c_str(), usbmgr::kPublicFileMode);
    if (!file) return;
    // A mount root that cannot be listed leaves the global section alone.
    std::vector<std::string> folders;
    std::vector<AppUtilSambaShare> shares;
    if (list_mount_root(folders)) shares = app_util_samba_shares(folders);
    const std::string text = app_util_render_samba_conf(SAMBA_CONF, MOUNT_DISK_PATH, shares);
    std::fwrite(text.data(), 1, text.size(), file.stream());
    file.commit();
}

int app_util_start_samba() {
    if (app_util_check_process("smbd") == 1) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Kill samba");
        app_util_stop_samba();
        usbmgr::sys_clock().sleep_us(100000);
    }
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Start Samba");
    app_util_write_samba_conf();
    db_util_exe_command(app_util_internal::server_command({"/bin/smbd"}));
    return db_util_exe_command(app_util_internal::server_command({"/bin/nmbd"}));
}

void app_util_samba_reload_conf() {
    // Always rewritten, even with Samba off: a reload is a full restart.
    app_util_write_samba_conf();
    restart_samba();
}

bool app_util_samba_live() {
    return SAMBA_LIVE_RELOAD == 1 && SAMBA_CONF.enable != 0 && app_util_check_process("smbd") == 1;
}

void app_util_samba_reload_shares() {
    if (SAMBA_LIVE_RELOAD != 1 || SAMBA_CONF.enable == 0) {
        app_util_samba_reload_conf();
        return;
    }
    app_util_write_samba_conf();
    // smbd rereads the file it started with, the compiled-in path that the
    // file above is written to; sessions on the shares that stay go on.
    if (app_util_check_process("smbd") == 1) {
        db_util_exe_command(app_util_internal::server_command({"smbcontrol", "smbd", "reload-config"}));
        return;
    }
    db_util_exe_command(app_util_internal::server_command({"/bin/smbd"}));
    db_util_exe_command(app_util_internal::server_command({"/bin/nmbd"}));
}

void app_util_samba_close_shares(const std::vector<std::string>& folders) {
    for (const std::string& name : share_sections(folders)) {
        // "*" would close every share; a leading '-' would be an option.
        if (name == "*") continue;
        db_util_exe_command(app_util_internal::server_command({"smbcontrol", "smbd", "close-share", name}, {3}));
    }
}
