// The Samba user rewrites of the settings file over any content, names,
// passwords and enables.
//
// Input: u16 length and the settings file's bytes, then operations, each an
// operation byte and its arguments. A text argument is a length byte and
// that many bytes; a length byte of 0xF0 or more instead names the user of
// the (n - 0xF0)-th slot in use. After every operation the file must still
// be one key=value a line, no slot's USER_* key may stand more often than
// before (at most once for a key that was not there), no temporary file may
// be left, and a user that add answered 0 for must read back as given.
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/str.h"
#include "fuzz_support.h"

namespace {

constexpr int kMaxOperations = 16;

// How often each slot's canonical user key stands in the settings file, as
// the 256-byte line reader sees it.
std::map<std::string, int> user_key_counts() {
    std::map<std::string, int> out;
    if (!fuzz::file_exists(USBMGR_CONF_PATH)) return out;
    const std::string content = fuzz::read_file(USBMGR_CONF_PATH);
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = content.find('\n', pos);
        end = end == std::string::npos ? content.size() : end + 1;
        if (end - pos > DB_UTIL_LINE_SIZE - 1) end = pos + DB_UTIL_LINE_SIZE - 1;
        const std::string piece = content.substr(pos, end - pos);
        pos = end;
        const std::size_t eq = piece.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = piece.substr(0, eq);
        for (int slot = 0; slot < SAMBA_USER_MAX; ++slot)
            for (const char* item : {"USER_NAME", "USER_PASSWORD", "USER_ENABLE"})
                if (key == std::string("USBMGR.SAMBA.") + item + "." + std::to_string(slot)) ++out[key];
    }
    return out;
}

// content without the lines whose key (the text before the first '=') an
// earlier line already has.
std::string unique_keys(const std::string& content) {
    std::string out;
    std::set<std::string> keys;
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = content.find('\n', pos);
        end = end == std::string::npos ? content.size() : end + 1;
        const std::string line = content.substr(pos, end - pos);
        pos = end;
        const std::size_t eq = line.find('=');
        if (eq != std::string::npos && !keys.insert(line.substr(0, eq)).second) continue;
        out += line;
    }
    return out;
}

class Operations {
public:
    Operations(fuzz::Reader& in, fuzz::KeyValueCheck& check) : in_(in), check_(check) {}

    std::string text() {
        const uint8_t n = in_.u8();
        std::string s;
        if (n >= 0xF0) {
            SambaUserInfo user{};
            const int count = app_util_get_number_of_samba_users();
            if (count > 0 && app_util_get_samba_user_by_index((n - 0xF0) % count, &user) == 0)
                s.assign(user.name, strnlen(user.name, sizeof user.name));
        } else {
            s = in_.bytes(n);
        }
        s = s.substr(0, s.find('\0'));
        check_.allow_value(s);
        return s;
    }

    const char* run() {
        switch (in_.u8() % 4) {
            case 0: {
                const std::string name = text();
                const std::string password = text();
                const int enable = in_.i32();
                if (app_util_add_samba_user(name.c_str(), password.c_str(), enable) == 0)
                    read_back(name, password, enable);
                return "add_samba_user";
            }
            case 1:
                app_util_remove_samba_user(text().c_str());
                return "remove_samba_user";
            case 2: {
                const std::string name = text();
                const std::string password = text();
                app_util_modify_samba_user(name.c_str(), password.c_str(), in_.i32());
                return "modify_samba_user";
            }
            default:
                app_util_write_samba_username_map(in_.u8() & 1);
                return "write_samba_username_map";
        }
    }

private:
    static void read_back(const std::string& name, const std::string& password, int enable) {
        const int slot = app_util_get_samba_user_index(name.c_str());
        if (slot < 0) fuzz::finding("added user not found", fuzz::shown(name));
        char key[128] = {};
        char value[DB_UTIL_VALUE_SIZE] = {};
        usbmgr::format_str(key, "USBMGR.SAMBA.USER_PASSWORD.%d", slot);
        if (db_util_config_get_parameter_s(key, value, sizeof value) != 0 || password != value)
            fuzz::finding("added user's password does not read back", fuzz::shown(password));
        usbmgr::format_str(key, "USBMGR.SAMBA.USER_ENABLE.%d", slot);
        if (db_util_config_get_parameter_i(key) != enable)
            fuzz::finding("added user's enable does not read back", std::to_string(enable));
    }

    fuzz::Reader& in_;
    fuzz::KeyValueCheck& check_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    fuzz::Reader in(data, size);
    usbmgr::copy_str(SAMBA_CONF.username_map, "admin");
    usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/var/config/usermap");
    // A key the file already holds twice would be a finding of its own: the
    // settings file the daemon is given holds each key once.
    const std::string original = unique_keys(in.text16());
    fuzz::write_file(USBMGR_CONF_PATH, original);

    fuzz::KeyValueCheck check(fuzz::KeyValueCheck::Kind::Settings);
    check.allow_original(original);
    Operations ops(in, check);
    for (int i = 0; i < kMaxOperations && !in.empty(); ++i) {
        const auto before = user_key_counts();
        const char* what = ops.run();
        check.check(USBMGR_CONF_PATH, what);
        for (const auto& [key, n] : user_key_counts()) {
            const auto it = before.find(key);
            const int allowed = it == before.end() || it->second < 1 ? 1 : it->second;
            if (n > allowed) fuzz::finding("user key written twice", key + " after " + what);
        }
        if (fuzz::temp_left_beside(USBMGR_CONF_PATH)) fuzz::finding("temporary settings file left behind", what);
    }
    return 0;
}
