// The user-access rewrites of the history file over any content, volumes,
// entries, user names and permissions.
//
// Input: u16 length and the history file's bytes, a byte whose low five
// bits say which of slots 0 to 4 hold a Samba account (slot 24 too when bit
// 5 is set), then operations, each an operation byte and its arguments.
// After every operation the history file must still be one key=value a
// line, no temporary file may be left, counts and free entries stay in
// their ranges, an entry added into a free number reads back with its
// account, and a removed entry is gone.
#include <cstdint>
#include <cstring>
#include <string>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "fuzz_support.h"

namespace {

constexpr int kMaxOperations = 16;
const char* const kNames[] = {"alice", "bob", "carol", "dave", "erin"};

void write_accounts(uint8_t mask) {
    std::string text;
    for (int slot = 0; slot < 5; ++slot)
        if (mask & (1u << slot))
            text += "USBMGR.SAMBA.USER_NAME." + std::to_string(slot) + "=" + kNames[slot] + "\n";
    if (mask & 0x20) text += "USBMGR.SAMBA.USER_NAME.24=zed\n";
    fuzz::write_file(USBMGR_CONF_PATH, text);
}

class Operations {
public:
    explicit Operations(fuzz::Reader& in) : in_(in) {}

    // A volume name: mostly sdaN with N from the input, now and then any text.
    std::string volume() {
        const uint8_t n = in_.u8();
        if (n < 0xE0) return "sda" + std::to_string(n % 30);
        std::string s = in_.bytes(n - 0xE0);
        return s.substr(0, s.find('\0'));
    }
    std::string user() {
        const uint8_t n = in_.u8();
        if (n < 0xF0) return kNames[n % 5];
        std::string s = in_.bytes(n - 0xF0);
        return s.substr(0, s.find('\0'));
    }
    int device() { return static_cast<int8_t>(in_.u8()) % 6; }
    int entry() { return static_cast<int8_t>(in_.u8()) % 30; }

    const char* run() {
        switch (in_.u8() % 6) {
            case 0: {
                const int d = device();
                const std::string v = volume();
                const int free_entry = dp_util_get_tr140_useraccess_free_item(d, v.c_str());
                const int e = in_.u8() & 1 ? free_entry : entry();
                const std::string u = user();
                const int account = dp_util_get_samba_user_index(u.c_str());
                const int r = dp_util_get_tr140_add_useraccess(d, v.c_str(), e, u.c_str(), in_.i32());
                if (r == 0 && e == free_entry) {
                    UserAccessInfo info{};
                    char want[64] = {};
                    usbmgr::format_str(want, "StorageService.0.UserAccess.%d", account);
                    if (db_util_get_user_access_info_by_index(e, d, v.c_str(), &info) != 0 ||
                        std::strcmp(info.user_reference, want) != 0)
                        fuzz::finding("added entry does not read back", fuzz::shown(v));
                }
                return "add_useraccess";
            }
            case 1: {
                const int d = device();
                const std::string v = volume();
                const int e = entry();
                if (dp_util_get_tr140_remove_useraccess(d, v.c_str(), e) == 0) {
                    UserAccessInfo info{};
                    if (db_util_get_user_access_info_by_index(e, d, v.c_str(), &info) == 0)
                        fuzz::finding("removed entry still there", fuzz::shown(v));
                }
                return "remove_useraccess";
            }
            case 2:
                dp_util_get_tr140_remove_useraccess_by_username(user().c_str());
                return "remove_useraccess_by_username";
            case 3: {
                const int d = device();
                const std::string v = volume();
                const int n = db_util_get_number_of_user_access(d, v.c_str());
                if (n < 0 || n > USER_ACCESS_MAX_ENTRY) fuzz::finding("entry count out of range", std::to_string(n));
                return "get_number_of_user_access";
            }
            case 4: {
                const int d = device();
                const std::string v = volume();
                const int e = dp_util_get_tr140_useraccess_free_item(d, v.c_str());
                if (e < -1 || e >= USER_ACCESS_MAX_ENTRY) fuzz::finding("free entry out of range", std::to_string(e));
                UserAccessInfo info{};
                if (e >= 0 && db_util_get_user_access_info_by_index(e, d, v.c_str(), &info) == 0)
                    fuzz::finding("free entry is in use", std::to_string(e));
                return "useraccess_free_item";
            }
            default: {
                const int d = device();
                const std::string v = volume();
                UserAccessInfo info{};
                if (db_util_get_user_access_info_by_index(entry(), d, v.c_str(), &info) == 0 &&
                    strnlen(info.user_reference, sizeof info.user_reference) == sizeof info.user_reference)
                    fuzz::finding("reference left without its terminator", fuzz::shown(v));
                return "get_user_access_info_by_index";
            }
        }
    }

private:
    fuzz::Reader& in_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    fuzz::Reader in(data, size);
    const std::string original = in.text16();
    fuzz::write_file(TR140_CONF_PATH, original);
    write_accounts(in.u8());

    fuzz::KeyValueCheck check(fuzz::KeyValueCheck::Kind::History);
    check.allow_original(original);
    check.allow_any_value();
    Operations ops(in);
    for (int i = 0; i < kMaxOperations && !in.empty(); ++i) {
        const char* what = ops.run();
        check.check(TR140_CONF_PATH, what);
        if (fuzz::temp_left_beside(TR140_CONF_PATH)) fuzz::finding("temporary history file left behind", what);
    }
    return 0;
}
