// The key=value reader and its getters over any file content.
//
// Input: the content of the file, written as the settings file, the
// history file and the settings copy alike. Every getter is asked for the
// real keys and for keys taken from the input; the three files hold the
// same bytes, so the getters must agree, and a string getter must leave a
// terminated text within the buffer it was given, whatever its size.
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "fuzz_support.h"

namespace {

constexpr std::size_t kMaxInputLines = 16;
constexpr std::size_t kSmallSizes[] = {1, 2, 4, 10, 64};
constexpr unsigned char kCanary = 0xA5;

// A heap buffer of exactly size bytes, so that a write past it is caught.
struct Buffer {
    explicit Buffer(std::size_t n, unsigned char fill = 0) : size(n), bytes(new char[n]) {
        std::memset(bytes.get(), fill, n);
    }
    std::size_t size;
    std::unique_ptr<char[]> bytes;
};

using StringGetter = int (*)(const char*, char*, std::size_t);

void check_string_getters(const std::string& key, std::size_t small) {
    Buffer full(DB_UTIL_VALUE_SIZE);
    int result = db_util_config_get_parameter_s(key.c_str(), full.bytes.get(), full.size);
    if (strnlen(full.bytes.get(), full.size) == full.size) fuzz::finding("value left without its terminator", key);
    if (result == 0 && std::strchr(full.bytes.get(), '\n')) fuzz::finding("value holding its line end", key);
    const std::string value(full.bytes.get());

    // The same bytes under the other name answer the same.
    for (StringGetter get : {db_util_tr140_conf_get_parameter_s}) {
        Buffer out(DB_UTIL_VALUE_SIZE);
        if (get(key.c_str(), out.bytes.get(), out.size) != result || value != out.bytes.get())
            fuzz::finding("getters of files with the same bytes disagree", key);
    }
    // A smaller buffer gets the value's start, terminated.
    Buffer out(small);
    if (db_util_config_get_parameter_s(key.c_str(), out.bytes.get(), out.size) != result)
        fuzz::finding("result depends on the buffer size", key);
    if (strnlen(out.bytes.get(), out.size) == out.size)
        fuzz::finding("value left without its terminator in a small buffer", key);
    if (value.substr(0, small - 1) != out.bytes.get())
        fuzz::finding("value cut to a small buffer is not the value's start", key);

    if (db_util_config_get_parameter_i(key.c_str()) != db_util_tr140_conf_get_parameter_i(key.c_str()))
        fuzz::finding("integer getters of files with the same bytes disagree", key);
}

void check_splitters(const std::string& key) {
    std::vector<char> copy(key.begin(), key.end());
    copy.push_back('\0');
    UsbmgrConfItem item{};
    db_util_usbmgr_conf_split_item(copy.data(), &item);
    if (strnlen(item.item_name, sizeof item.item_name) == sizeof item.item_name)
        fuzz::finding("item name left without its terminator", key);

    copy.assign(key.begin(), key.end());
    copy.push_back('\0');
    Tr140ConfKey parts{};
    db_util_tr140_conf_split_key(copy.data(), &parts);
    if (strnlen(parts.item, sizeof parts.item) == sizeof parts.item ||
        strnlen(parts.sub_item, sizeof parts.sub_item) == sizeof parts.sub_item)
        fuzz::finding("history key part left without its terminator", key);
    db_util_volume_number(key.c_str());
}

// Keys the input itself offers: each line's text before '=', and the line.
std::vector<std::string> input_keys(const std::string& content) {
    std::vector<std::string> keys;
    std::size_t pos = 0;
    for (std::size_t lines = 0; pos < content.size() && lines < kMaxInputLines; ++lines) {
        std::size_t nl = content.find('\n', pos);
        std::size_t end = nl == std::string::npos ? content.size() : nl;
        std::string line = content.substr(pos, end - pos);
        pos = end + 1;
        std::string cstr = line.substr(0, line.find('\0'));
        keys.push_back(cstr.substr(0, cstr.find('=')));
        keys.push_back(cstr + "\n");
        char k[DB_UTIL_KEY_SIZE];
        char v[DB_UTIL_VALUE_SIZE];
        std::string piece = line.substr(0, DB_UTIL_LINE_SIZE - 1);
        db_util_split_line(piece.c_str(), k, v);
        if (strnlen(k, sizeof k) == sizeof k || strnlen(v, sizeof v) == sizeof v)
            fuzz::finding("line split without terminators", line);
    }
    return keys;
}

std::vector<std::string> real_keys() {
    std::vector<std::string> keys = fuzz::setting_keys();
    keys.push_back("USBMGR.USB_SERIAL_ENABLE");
    for (int n : {0, 24, 25})
        for (const char* item : {"USER_NAME", "USER_PASSWORD", "USER_ENABLE"})
            keys.push_back("USBMGR.SAMBA." + std::string(item) + "." + std::to_string(n));
    for (int d : {0, 1}) {
        std::string p = "USBMGR." + std::to_string(d) + ".";
        keys.push_back(p + "SERIAL_NUMBER");
        keys.push_back(p + "PNAME");
        keys.push_back(p + "NAME.0");
        keys.push_back(p + "ENABLE.0");
        keys.push_back(p + "USER_ACCESS.0.USERREFERENCE.0");
    }
    keys.push_back("");
    return keys;
}

// No file at all: the string getters leave the buffer alone.
void check_missing_files(const std::string& key) {
    Buffer out(DB_UTIL_VALUE_SIZE, kCanary);
    if (db_util_config_get_parameter_s(key.c_str(), out.bytes.get(), out.size) != -1)
        fuzz::finding("value found in a missing file", key);
    for (std::size_t i = 0; i < out.size; ++i)
        if (static_cast<unsigned char>(out.bytes[i]) != kCanary)
            fuzz::finding("buffer changed although the file is missing", key);
    if (db_util_config_get_parameter_i(key.c_str()) != 0) fuzz::finding("missing file read as non-zero", key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::reset_iteration();
    const std::string content(reinterpret_cast<const char*>(data), size);
    fuzz::write_file(USBMGR_CONF_PATH, content);
    fuzz::write_file(TR140_CONF_PATH, content);

    std::vector<std::string> keys = input_keys(content);
    for (const auto& key : real_keys()) keys.push_back(key);
    std::size_t i = 0;
    for (const auto& key : keys) {
        check_string_getters(key, kSmallSizes[i++ % std::size(kSmallSizes)]);
        check_splitters(key);
    }

    unlink(USBMGR_CONF_PATH);
    check_missing_files(keys.front());
    return 0;
}
