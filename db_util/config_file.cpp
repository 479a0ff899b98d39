// Key=value files: exact-key lookups that rescan the file each time, the
// indexed-key splitter, the command runner and the configuration hand-off.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"

namespace {

constexpr const char kLogModule[] = "db_util.c";

using File = usbmgr::FilePtr;

File open_read(const char* path) { return File(std::fopen(path, "re")); }

// "%d" as sscanf reads it: blanks, a sign, digits; false when no digit.
// Out-of-range numbers saturate instead of being undefined.
bool scan_int(const char* s, int* out) {
    while (*s == ' ' || *s == '\t' || *s == '\n' || *s == '\r' || *s == '\f' || *s == '\v') ++s;
    const char* p = s;
    if (*p == '+' || *p == '-') ++p;
    if (*p < '0' || *p > '9') return false;
    long long v = std::strtoll(s, nullptr, 10);
    if (v > INT32_MAX) v = INT32_MAX;
    if (v < INT32_MIN) v = INT32_MIN;
    *out = static_cast<int>(v);
    return true;
}

// Scans a line as "%127[^=]=..." does: the key is the text before the first
// '=' (at most 127 characters); returns a pointer just after the '=' when the
// key was read whole and followed by '=', else nullptr.
const char* scan_key(const char* line, char (&key)[DB_UTIL_KEY_SIZE], bool* key_read) {
    std::memset(key, 0, sizeof key);
    std::size_t n = std::strcspn(line, "=");
    *key_read = n > 0;
    if (n == 0) return nullptr;
    std::size_t copy = n < sizeof key - 1 ? n : sizeof key - 1;
    std::memcpy(key, line, copy);
    if (copy < n || line[n] != '=') return nullptr;
    return line + n + 1;
}

}  // namespace

bool db_util_split_line(const char* line, char (&key)[DB_UTIL_KEY_SIZE], char (&value)[DB_UTIL_VALUE_SIZE]) {
    std::memset(value, 0, sizeof value);
    bool key_read = false;
    const char* rest = scan_key(line, key, &key_read);
    if (rest) {
        std::size_t n = std::strcspn(rest, "\n");
        if (n > sizeof value - 1) n = sizeof value - 1;
        std::memcpy(value, rest, n);
    }
    return key_read;
}

int db_util_file_get_parameter_i(const char* path, const char* key) {
    int result = 0;
    File f = open_read(path);
    if (!f) return 0;
    char line[DB_UTIL_LINE_SIZE];
    char k[DB_UTIL_KEY_SIZE];
    while (std::fgets(line, sizeof line, f.get())) {
        bool key_read = false;
        const char* rest = scan_key(line, k, &key_read);
        // The value keeps the previous result when it is not a number.
        if (rest) scan_int(rest, &result);
        if (std::strcmp(k, key) == 0) break;
        result = -1;
    }
    return result;
}

int db_util_file_get_parameter_s(const char* path, const char* key, char* out, std::size_t out_size) {
    int result = -1;
    File f = open_read(path);
    if (!f) return -1;
    char line[DB_UTIL_LINE_SIZE];
    char k[DB_UTIL_KEY_SIZE];
    char v[DB_UTIL_VALUE_SIZE];
    while (std::fgets(line, sizeof line, f.get())) {
        db_util_split_line(line, k, v);
        if (std::strcmp(k, key) == 0) {
            usbmgr::copy_bounded(out, out_size, v);
            result = 0;
            break;
        }
        std::memset(out, 0, out_size < 4 ? out_size : 4);
    }
    return result;
}

int db_util_config_get_parameter_i(const char* key) { return db_util_file_get_parameter_i(USBMGR_CONF_PATH, key); }

int db_util_config_get_parameter_s(const char* key, char* out, std::size_t out_size) {
    return db_util_file_get_parameter_s(USBMGR_CONF_PATH, key, out, out_size);
}

int db_util_tr140_conf_get_parameter_i(const char* key) { return db_util_file_get_parameter_i(TR140_CONF_PATH, key); }

int db_util_tr140_conf_get_parameter_s(const char* key, char* out, std::size_t out_size) {
    return db_util_file_get_parameter_s(TR140_CONF_PATH, key, out, out_size);
}

int db_util_usbmgr_conf_split_item(char* key, UsbmgrConfItem* item) {
    char* save = nullptr;
    int n = 0;
    for (char* tok = strtok_r(key, ".", &save); tok; tok = strtok_r(nullptr, ".", &save), ++n) {
        if (n == 2) usbmgr::copy_str(item->item_name, tok);
        if (n == 3) item->item_index = std::atoi(tok);
    }
    return -1;
}

int db_util_exe_command(const usbmgr::CommandLine& command) {
    return usbmgr::run_logged(command, kLogModule) ? 0 : 1;
}

// The hand-off belongs to the daemon core and logs under its name.
void usbmgr_cfg_save() { usbmgr::run_logged(usbmgr::CommandLine::exec({"orbcm_util", "cfg", "save"}), "usbmgrd.c"); }
