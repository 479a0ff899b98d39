// Samba user accounts: slots of the settings file, Samba's password database
// (through pdbedit, run without a shell) and the user map file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/file_writer.h"
#include "db_util/line_reader.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "orbsm.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";

constexpr int kSlots = SAMBA_USER_MAX;
constexpr std::size_t kSlotKeySize = 128;
constexpr std::size_t kSlotTextSize = sizeof(SambaUserInfo::name);

// Reads one slot's key ("USBMGR.SAMBA.USER_NAME.%d" and its like) into out.
int read_slot(const char* fmt, int slot, char (&out)[kSlotTextSize]) {
    char key[kSlotKeySize] = {};
    std::memset(out, 0, sizeof out);
    if (!usbmgr::format_str(key, "USBMGR.SAMBA.%s.%d", fmt, slot)) return -1;
    return db_util_config_get_parameter_s(key, out, sizeof out);
}

constexpr const char kSmbPasswdPath[] = "/var/samba/smbpasswd";
// Capacity of the account record array handed to the account library.
constexpr int kGatewayAccounts = 8;

using File = usbmgr::FilePtr;

int read_slot_enable(int slot) {
    char key[kSlotKeySize] = {};
    if (!usbmgr::format_str(key, "USBMGR.SAMBA.USER_ENABLE.%d", slot)) return -1;
    return db_util_config_get_parameter_i(key);
}

// Names and passwords are data: they never reach a shell, and each must
// stand as one value on one line of the settings file and be read back
// whole (64-character buffers). A name also stands in the user map line,
// where a blank or a quote would split or join names, and in pdbedit's
// argument list, where a leading '-' would read as an option.
bool text_ok(const char* s, bool is_name) {
    if (s == nullptr || s[0] == '\0') return false;
    const std::size_t len = strnlen(s, kSlotTextSize);
    if (len >= kSlotTextSize) return false;
    if (is_name && s[0] == '-') return false;
    for (std::size_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x20 || c == 0x7f || c == ':') return false;
        if (is_name && (c == ' ' || c == '"')) return false;
    }
    return true;
}

void log_refused_name(const char* name) {
    char shown[kSlotTextSize] = {};
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "refusing samba user name '%s'", usbmgr::clean_copy(shown, name ? name : ""));
}

// The gateway account's own name, which the map's target and pdbedit take as
// given (a gateway account is made known to Samba at start-up only).
bool plain_name_ok(const char* name) {
    if (text_ok(name, true)) return true;
    log_refused_name(name);
    return false;
}

// Samba reads a user map's and a user list's names as more than names: a
// leading '@', '+' or '&' names a Unix or NIS group, '!' stops the map's
// reading, '*' matches every user and '%' is expanded as a macro.
bool samba_reads_as_more_than_a_name(const char* name) {
    if (std::strchr("@+&!", name[0]) != nullptr) return true;
    return std::strpbrk(name, "%*") != nullptr;
}

// The one check of an account name given to an add, a remove or a modify
// (bus commands 10 to 12 and 27 to 29), and of a stored user put into the
// user map: one log line and no change for a refused name. A Samba user
// named as the gateway account would set that account's password, and
// every mapped user would then log in with it as root.
bool name_ok(const char* name) {
    if (text_ok(name, true) && !samba_reads_as_more_than_a_name(name) && !usbmgr_is_gateway_account(name)) return true;
    log_refused_name(name);
    return false;
}

bool password_ok(const char* name, const char* password) {
    if (text_ok(password, false)) return true;
    char shown[kSlotTextSize] = {};
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "refusing samba password of user '%s'", usbmgr::clean_copy(shown, name));
    return false;
}

// The gateway's command lines, run as argument lists: a name or password
// is one argument whatever it holds.
// pdbedit writes Samba's password file, which holds every user's password
// hash: it stays owner only, whatever the umask pdbedit ran with. The file
// is opened without following a link, so a link there is never changed.
void keep_smbpasswd_private() {
    usbmgr::UniqueFd fd(::open(kSmbPasswdPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) return;
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 07777) != 0600)
        ::fchmod(fd.get(), 0600);
}

void pdbedit_add(const char* name, const char* password) {
    db_util_exe_command(usbmgr::CommandLine::exec({"/bin/pdbedit", "-a", "-u", name, "-T", password, "-A"}));
    keep_smbpasswd_private();
}

void pdbedit_remove(const char* name) {
    db_util_exe_command(usbmgr::CommandLine::exec({"/bin/pdbedit", "-x", "-u", name, "-A"}));
    keep_smbpasswd_private();
}

enum class UserItem { none, name, password, enable };

// One piece of the settings file as a read into 256 characters sees it,
// with the user item it carries: any line whose third key part names a user
// item is a user line; slot is set only when the key is exactly the one
// the slot's reads look up, so a look-alike key is never taken for a slot.
struct SettingsLine {
    const char* raw;
    std::size_t raw_len;
    UserItem item;
    int slot;
};

const char* item_key_name(UserItem item) {
    switch (item) {
        case UserItem::name:
            return "USER_NAME";
        case UserItem::password:
            return "USER_PASSWORD";
        case UserItem::enable:
            return "USER_ENABLE";
        case UserItem::none:
            break;
    }
    return "";
}

void classify(const char* raw, SettingsLine& line) {
    char key[DB_UTIL_KEY_SIZE];
    char value[DB_UTIL_VALUE_SIZE];
    line.item = UserItem::none;
    line.slot = -1;
    // A line without '=' holds no key, even when its text is one: rewriting
    // it would give the file that key twice.
    if (!std::strchr(raw, '=')) return;
    db_util_split_line(raw, key, value);
    char parts[DB_UTIL_KEY_SIZE];
    usbmgr::copy_str(parts, key);
    UsbmgrConfItem split{};
    split.item_index = -1;
    db_util_usbmgr_conf_split_item(parts, &split);
    for (UserItem item : {UserItem::name, UserItem::password, UserItem::enable})
        if (std::strncmp(split.item_name, item_key_name(item), sizeof split.item_name) == 0) line.item = item;
    if (line.item == UserItem::none) return;
    char canonical[kSlotKeySize] = {};
    if (split.item_index >= 0 && split.item_index < kSlots &&
        usbmgr::format_str(canonical, "USBMGR.SAMBA.%s.%d", item_key_name(line.item), split.item_index) &&
        std::strcmp(canonical, key) == 0)
        line.slot = split.item_index;
}

// Writes kept lines byte for byte and composed ones on lines of their own.
class SettingsOut {
public:
    explicit SettingsOut(FILE* f) : f_(f) {}
    void keep(const SettingsLine& line) {
        if (line.raw_len == 0) return;
        std::fwrite(line.raw, 1, line.raw_len, f_);
        at_line_start_ = line.raw[line.raw_len - 1] == '\n';
    }
    // One line composed in a cleared 256-character buffer; false (nothing
    // written) when it would not fit.
    __attribute__((format(printf, 2, 3))) bool line(const char* fmt, ...) {
        char text[DB_UTIL_LINE_SIZE] = {};
        va_list ap;
        va_start(ap, fmt);
        const int n = std::vsnprintf(text, sizeof text, fmt, ap);
        va_end(ap);
        if (n <= 0 || static_cast<std::size_t>(n) >= sizeof text) return false;
        if (!at_line_start_) std::fputc('\n', f_);
        std::fwrite(text, 1, static_cast<std::size_t>(n), f_);
        at_line_start_ = text[n - 1] == '\n';
        return true;
    }
    void user_lines(int slot, const char* name, const char* password, int enable) {
        line("USBMGR.SAMBA.USER_NAME.%d=%s\n", slot, name);
        line("USBMGR.SAMBA.USER_PASSWORD.%d=%s\n", slot, password);
        line("USBMGR.SAMBA.USER_ENABLE.%d=%d\n", slot, enable);
    }

private:
    FILE* f_;
    bool at_line_start_ = true;
};

enum class Rewrite { done, no_settings, no_temp };

// Streams the settings file into a new file beside it, giving every line to
// filter(line, out), then finish(out) at the end; renames the new file over
// the old one and hands it to the configuration manager. The file holds the
// Samba passwords: owner only. A missing settings file leaves nothing to
// rewrite; one whose new file cannot be made or renamed stays as it was.
template <typename Filter, typename Finish>
Rewrite rewrite_settings(Filter&& filter, Finish&& finish) {
    File in(std::fopen(USBMGR_CONF_PATH, "re"));
    if (!in) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "File %s not found ...", USBMGR_CONF_PATH);
        usbmgr_cfg_save();
        return Rewrite::no_settings;
    }
    usbmgr::FileReplacement out(USBMGR_CONF_PATH, usbmgr::kPrivateFileMode);
    if (!out) return Rewrite::no_temp;
    SettingsOut writer(out.stream());
    char raw[DB_UTIL_LINE_SIZE];
    std::string whole;
    while (std::size_t len = usbmgr::read_line_piece(in.get(), raw)) {
        SettingsLine line{raw, len, UserItem::none, -1};
        classify(raw, line);
        // A line longer than one read is judged by its first piece and
        // goes whole: judged piece by piece, a dropped user line's tail
        // stayed behind as a line of its own.
        if (raw[len - 1] != '\n' && usbmgr::read_rest_of_line(in.get(), raw, len, whole)) {
            line.raw = whole.data();
            line.raw_len = whole.size();
        }
        filter(line, writer);
    }
    finish(writer);
    in.reset();
    if (!out.commit()) return Rewrite::no_temp;
    usbmgr_cfg_save();
    return Rewrite::done;
}

template <std::size_t N>
std::string field_text(const char (&field)[N]) {
    return std::string(field, usbmgr::field_len(field));
}

}  // namespace

int app_util_get_number_of_samba_users() {
    int n = 0;
    for (int slot = 0; slot < kSlots; ++slot) {
        char name[kSlotTextSize];
        if (read_slot("USER_NAME", slot, name) == 0) ++n;
    }
    return n;
}

int app_util_get_samba_user_by_index(int n, SambaUserInfo* user) {
    if (user == nullptr) return -1;
    // With no n-th user the last read answers (0 when slot 24 is in use).
    int result = -1;
    int seen = 0;
    for (int slot = 0; slot < kSlots; ++slot) {
        char name[kSlotTextSize];
        result = read_slot("USER_NAME", slot, name);
        if (result != 0) continue;
        if (seen++ != n) continue;
        usbmgr::copy_str(user->name, name);
        char password[kSlotTextSize];
        result = read_slot("USER_PASSWORD", slot, password);
        if (result == 0) usbmgr::copy_str(user->password, password);
        user->enable = static_cast<uint32_t>(read_slot_enable(slot));
        return result;
    }
    return result;
}

int app_util_get_samba_user_index(const char* name) {
    if (name == nullptr) return -1;
    // With no match the last read answers: 0 when slot 24 is in use, which
    // callers take for slot 0. Kept as the gateway has it.
    int result = -1;
    for (int slot = 0; slot < kSlots; ++slot) {
        char stored[kSlotTextSize];
        result = read_slot("USER_NAME", slot, stored);
        if (result == 0 && std::strcmp(stored, name) == 0) return slot;
    }
    return result;
}

int app_util_get_free_samba_user_index() {
    // With all slots in use the last read's 0 answers: slot 0 a second time.
    int result = -1;
    for (int slot = 0; slot < kSlots; ++slot) {
        char stored[kSlotTextSize];
        result = read_slot("USER_NAME", slot, stored);
        if (result != 0) return slot;
    }
    return result;
}

int app_util_is_samba_user(const char* name) {
    if (name == nullptr) return 0;
    // Without Samba's password file nobody is known yet: callers then add.
    File f(std::fopen(kSmbPasswdPath, "re"));
    if (!f) return 0;
    char line[DB_UTIL_LINE_SIZE];
    while (std::fgets(line, sizeof line, f.get())) {
        char* colon = std::strchr(line, ':');
        if (colon == nullptr) continue;
        *colon = '\0';
        if (std::strcmp(line, name) == 0) {
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "user name %s is samba user already", name);
            return 1;
        }
    }
    return 0;
}

void app_util_write_samba_username_map(int add_missing) {
    const std::string path = field_text(SAMBA_CONF.username_map_dir);
    if (path.empty()) return;

    // Every enabled user is mapped to the one gateway account.
    std::string line = field_text(SAMBA_CONF.username_map) + " =";
    for (int slot = 0; slot < kSlots; ++slot) {
        char name[kSlotTextSize];
        if (read_slot("USER_NAME", slot, name) != 0) continue;
        if (read_slot_enable(slot) == 0) continue;
        if (!name_ok(name)) continue;
        line += ' ';
        line += name;
        if (add_missing != 1) continue;
        char password[kSlotTextSize];
        read_slot("USER_PASSWORD", slot, password);
        if (app_util_is_samba_user(name)) continue;
        if (password_ok(name, password)) pdbedit_add(name, password);
    }
    usbmgr::replace_file(path.c_str(), line, usbmgr::kPublicFileMode);
}

int app_util_add_samba_user(const char* name, const char* password, int enable) {
    if (!name_ok(name) || !password_ok(name, password)) return -1;
    if (app_util_get_samba_user_index(name) != -1) return -1;
    const int slot = app_util_get_free_samba_user_index();
    if (slot == -1) return -1;
    // Lines of the slot left behind without its name would be read before
    // the new ones; a slot in use (a full table) is left as it is.
    char current[kSlotTextSize];
    const bool slot_free = read_slot("USER_NAME", slot, current) != 0;

    int result = -1;
    bool pending = false;
    bool inserted = false;
    const Rewrite rw = rewrite_settings(
        [&](const SettingsLine& line, SettingsOut& out) {
            if (line.item != UserItem::none && pending) {
                out.user_lines(slot, name, password, enable);
                pending = false;
                inserted = true;
                result = 0;
            }
            if (slot_free && line.slot == slot) return;
            out.keep(line);
            if (!inserted && line.item == UserItem::enable && line.slot == slot - 1 && slot > 0) pending = true;
        },
        [&](SettingsOut& out) {
            if (inserted) return;
            out.user_lines(slot, name, password, enable);
            result = 0;
        });
    if (rw == Rewrite::no_temp) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Create File %s Fail ...", USBMGR_CONF_PATH);
        return -1;
    }
    if (enable != 0) pdbedit_add(name, password);
    app_util_write_samba_username_map(0);
    return result;
}

int app_util_remove_samba_user(const char* name) {
    if (!name_ok(name)) return -1;
    const int slot = app_util_get_samba_user_index(name);
    if (slot == -1) return -1;
    int result = -1;
    const Rewrite rw = rewrite_settings(
        [&](const SettingsLine& line, SettingsOut& out) {
            if (line.item != UserItem::none && line.slot == slot) {
                result = 0;
                return;
            }
            out.keep(line);
        },
        [](SettingsOut&) {});
    if (rw == Rewrite::no_temp) return -1;
    pdbedit_remove(name);
    app_util_write_samba_username_map(0);
    return result;
}

int app_util_modify_samba_user(const char* name, const char* password, int enable) {
    if (!name_ok(name) || !password_ok(name, password)) return -1;
    const int slot = app_util_get_samba_user_index(name);
    if (slot == -1) return -1;
    int result = -1;
    const Rewrite rw = rewrite_settings(
        [&](const SettingsLine& line, SettingsOut& out) {
            if (line.item == UserItem::none || line.slot != slot) return out.keep(line);
            switch (line.item) {
                case UserItem::name:
                    out.line("USBMGR.SAMBA.USER_NAME.%d=%s\n", slot, name);
                    break;
                case UserItem::password:
                    out.line("USBMGR.SAMBA.USER_PASSWORD.%d=%s\n", slot, password);
                    break;
                case UserItem::enable:
                    out.line("USBMGR.SAMBA.USER_ENABLE.%d=%d\n", slot, enable);
                    result = 0;
                    break;
                case UserItem::none:
                    break;
            }
        },
        [](SettingsOut&) {});
    if (rw == Rewrite::no_temp) return -1;
    pdbedit_remove(name);
    if (enable != 0) pdbedit_add(name, password);
    app_util_write_samba_username_map(0);
    return result;
}

void app_util_perpare_samba_user(OrbIilHandle* handle) {
    OrbSmUser users[kGatewayAccounts] = {};
    int count = kGatewayAccounts;
    if (OrbSmGetAllUser(handle, &count, users) == 0) {
        const std::string map_account = field_text(SAMBA_CONF.username_map);
        const int n = count < 0 ? 0 : (count > kGatewayAccounts ? kGatewayAccounts : count);
        for (int i = 0; i < n; ++i) {
            if (users[i].flag != 1) continue;
            const std::string name = field_text(users[i].name);
            const std::string password = field_text(users[i].password);
            if (name != map_account) continue;
            char shown_name[sizeof users[i].name + 1] = {};
            char shown_password[sizeof users[i].password + 1] = {};
            USBMGR_TRACE(USBMGR_LOG_DEBUG, "user name = %s, password = %s", usbmgr::clean_copy(shown_name, name.c_str()),
                         usbmgr::clean_copy(shown_password, password.c_str()));
            if (app_util_is_samba_user(name.c_str())) continue;
            if (plain_name_ok(name.c_str()) && password_ok(name.c_str(), password.c_str()))
                pdbedit_add(name.c_str(), password.c_str());
        }
    }
    app_util_write_samba_username_map(1);
}
