// The history file's reads and rewrites over any content, serials and names.
//
// Input: a capacity byte, a flags byte (1: user access made automatically,
// 2: no history file at the start), u16 length and the file's bytes, then
// operations, each an operation byte and its arguments. A text argument is
// a length byte and that many bytes; a length byte of 0xF0 or more instead
// names the serial of the (n - 0xF0)-th record of the file as it stands.
// After every operation the file must still be one key=value a line: the
// lines it held may come back as they were, every other line is one of the
// record formats, newline-terminated, with nothing glued to it.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "fuzz_support.h"

namespace {

constexpr int kMaxOperations = 32;
constexpr std::size_t kOutSize = 64;  // callers' name and serial buffers

// Serials of the file as it stands, in line order.
std::vector<std::string> file_serials() {
    std::vector<std::string> out;
    if (!fuzz::file_exists(TR140_CONF_PATH)) return out;
    const std::string content = fuzz::read_file(TR140_CONF_PATH);
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t nl = content.find('\n', pos);
        std::size_t end = nl == std::string::npos ? content.size() : nl;
        std::string line = content.substr(pos, end - pos);
        pos = end + 1;
        std::size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq);
        const std::string suffix = ".SERIAL_NUMBER";
        if (key.size() > suffix.size() && key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0)
            out.push_back(line.substr(eq + 1));
    }
    return out;
}

class Operations {
public:
    Operations(fuzz::Reader& in, fuzz::KeyValueCheck& check) : in_(in), check_(check) {}

    // A text argument as the daemon gets it (a C string), remembered as a
    // value the daemon may write.
    std::string text() {
        uint8_t n = in_.u8();
        std::string s;
        if (n >= 0xF0) {
            auto serials = file_serials();
            if (!serials.empty()) s = serials[(n - 0xF0) % serials.size()];
        } else {
            s = in_.bytes(n);
        }
        s = s.substr(0, s.find('\0'));
        check_.allow_value(s);
        return s;
    }

    // Runs one operation; its name for the check's message.
    const char* run() {
        switch (in_.u8() % 12) {
            case 0: {
                std::string serial = text();
                db_util_tr140_conf_record_new_sn(serial.c_str(), in_.u8() % 30);
                return "record_new_sn";
            }
            case 1: {
                std::string serial = text();
                std::string volume = text();
                int enable = static_cast<int8_t>(in_.u8());
                std::string name = text();
                db_util_set_tr140_volume_info(serial.c_str(), volume.c_str(), enable, name.c_str());
                return "set_tr140_volume_info";
            }
            case 2: {
                std::string serial = text();
                std::string name = text();
                db_util_set_tr140_physical_name(serial.c_str(), name.c_str());
                return "set_tr140_physical_name";
            }
            case 3:
                db_util_tr140_conf_delete_device(in_.i32());
                return "delete_device";
            case 4:
                db_util_tr140_conf_find_sn(text().c_str());
                return "find_sn";
            case 5:
                db_util_get_tr140_device_id_by_serial_number(text().c_str());
                return "get_tr140_device_id_by_serial_number";
            case 6: {
                std::string volume = text();
                std::string serial = text();
                out_check(db_util_get_tr140_volume_name(volume.c_str(), serial.c_str(), out()), "get_tr140_volume_name");
                return "get_tr140_volume_name";
            }
            case 7:
                out_check(db_util_get_tr140_physical_name(text().c_str(), out()), "get_tr140_physical_name");
                return "get_tr140_physical_name";
            case 8: {
                std::string volume = text();
                std::string serial = text();
                int r = db_util_get_tr140_volume_status(volume.c_str(), serial.c_str());
                if (r < -1 || r > 1) fuzz::finding("volume status out of its range", std::to_string(r));
                return "get_tr140_volume_status";
            }
            case 9: {
                int n = db_util_tr140_conf_count_volumes(in_.i32());
                if (n < 0) fuzz::finding("negative volume count", std::to_string(n));
                return "count_volumes";
            }
            case 10: {
                int first = 0, last = 0;
                db_util_tr140_conf_get_id_range(&first, &last);
                return "get_id_range";
            }
            default: {
                std::string item = text();
                std::string serial = text();
                out_check(db_util_get_tr140_name(item.c_str(), serial.c_str(), out()), "get_tr140_name");
                db_util_get_tr140_enable(item.c_str(), serial.c_str());
                return "get_tr140_name";
            }
        }
    }

private:
    // A heap buffer of exactly the callers' size, so a longer write is caught.
    char* out() {
        out_.reset(new char[kOutSize]());
        return out_.get();
    }
    void out_check(int result, const char* what) {
        if (strnlen(out_.get(), kOutSize) == kOutSize) fuzz::finding("name left without its terminator", what);
        if (result == 0 && std::strchr(out_.get(), '\n')) fuzz::finding("name holding a line end", what);
    }

    fuzz::Reader& in_;
    fuzz::KeyValueCheck& check_;
    std::unique_ptr<char[]> out_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    fuzz::Reader in(data, size);
    // The capacity is a factory setting: small, and now and then 0 or -1.
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = static_cast<int>(in.u8() % 18) - 1;
    const uint8_t flags = in.u8();
    AUTO_CREATE_USER_ACCESS_DATA = flags & 1;
    const std::string original = in.text16();
    if (!(flags & 2)) fuzz::write_file(TR140_CONF_PATH, original);

    fuzz::KeyValueCheck check(fuzz::KeyValueCheck::Kind::History);
    check.allow_original(original);
    Operations ops(in, check);
    for (int i = 0; i < kMaxOperations && !in.empty(); ++i) {
        const char* what = ops.run();
        check.check(TR140_CONF_PATH, what);
        if (fuzz::temp_left_beside(TR140_CONF_PATH)) fuzz::finding("temporary history file left behind", what);
    }
    return 0;
}
