// The storage history file: one record per disk ever attached, keyed by its
// serial number, holding the names and enables a management agent gave the
// disk and its volumes. Records are found by order (a record's lines follow
// its SERIAL_NUMBER line) and every change writes a new file beside it and
// renames it into place.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <memory>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/file_writer.h"
#include "db_util/line_reader.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"

static constexpr const char kLogModule[] = "db_util.c";

namespace {

// Lines written to the file are composed in buffers of this size; a line that
// would not fit is not written rather than written cut.
constexpr std::size_t kOutLineSize = 128;
// Callers hand in name and serial buffers of at least this size.
constexpr std::size_t kNameOutSize = 64;
// Serials longer than the device table's field are never recorded.
constexpr std::size_t kSerialMax = sizeof(UsbPhysicalInfo::serial_number) - 1;
// "NAME.%d" and "ENABLE.%d" of the volume setter.
constexpr std::size_t kItemTextSize = 12;

using File = usbmgr::FilePtr;

File open_file(const char* path, const char* mode) { return File(std::fopen(path, mode)); }

// Splits a piece into key and value and the key into its parts.
void parse_line(const char* line, Tr140FilterLine& out) {
    db_util_split_line(line, out.key, out.value);
    char key[DB_UTIL_KEY_SIZE];
    usbmgr::copy_str(key, out.key);
    db_util_tr140_conf_split_key(key, &out.parts);
}

// The key a lookup of a device's line would be made with ("USBMGR.%d.%s"),
// compared with the line's own key: a line answers a lookup only when its
// key is exactly that text.
bool key_is_canonical(const Tr140FilterLine& line, const char* item) {
    char key[DB_UTIL_KEY_SIZE] = {};
    return usbmgr::format_str(key, "USBMGR.%d.%s", line.parts.device_id, item) && std::strcmp(key, line.key) == 0;
}

bool is_item(const Tr140ConfKey& parts, const char* item) {
    return std::strncmp(parts.item, item, sizeof parts.item) == 0;
}

// "NAME.3" for a NAME line of volume 3, "PNAME" for a line without a volume.
bool item_text(const Tr140ConfKey& parts, char (&out)[40]) {
    const int len = static_cast<int>(usbmgr::field_len(parts.item));
    if (parts.volume_index < 0) return usbmgr::format_str(out, "%.*s", len, parts.item);
    return usbmgr::format_str(out, "%.*s.%d", len, parts.item, parts.volume_index);
}

bool line_is_item(const Tr140ConfKey& parts, const char* item) {
    char text[40] = {};
    return item_text(parts, text) && std::strcmp(text, item) == 0;
}

// atoi without its overflow: out-of-range numbers stop at the int limits.
int to_int(const char* text) {
    long v = std::strtol(text, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

// Writes one line composed in a cleared 128-character buffer; false (and
// nothing written) when it does not fit.
__attribute__((format(printf, 2, 3))) bool append_line(FILE* f, const char* fmt, ...) {
    char line[kOutLineSize] = {};
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof line) return false;
    return std::fputs(line, f) >= 0;
}

// A name stored in a line must not end it early: control characters become '_'.
template <std::size_t N>
void copy_line_value(char (&dst)[N], const char* src) {
    usbmgr::copy_str(dst, src ? src : "");
    usbmgr::sanitize_value_text(dst, N);
}

void log_missing_file() { USBMGR_TRACE(USBMGR_LOG_DEBUG, "File %s not found ...", TR140_CONF_PATH); }

// Streams the history file through the temporary file and hands every line
// of the record of serial to change(line, out), which writes what stands in
// its place and returns true once the record's change is complete. The
// record begins at its SERIAL_NUMBER line; another serial does not end it,
// only the completed change does.
template <typename Change>
void filter_record(const char* serial, Change&& change) {
    bool in_record = false;
    db_util_tr140_conf_filter_lines([&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        if (is_item(line.parts, "SERIAL_NUMBER")) {
            if (std::strcmp(line.value, serial) == 0) in_record = true;
            out.keep(line);
            return;
        }
        if (in_record)
            in_record = !change(line, out);
        else
            out.keep(line);
    });
}

// Scans for the first line named item after the SERIAL_NUMBER line of
// serial. Once that line is seen the scan stays "in the record" to the end
// of the file, so a record lacking the line answers with a later record's.
template <typename Take>
int find_in_record(const char* item, const char* serial, Take&& take) {
    File f = open_file(TR140_CONF_PATH, "re");
    if (!f) {
        log_missing_file();
        return -1;
    }
    bool found = false;
    char line[DB_UTIL_LINE_SIZE];
    while (std::size_t len = usbmgr::read_line_piece(f.get(), line)) {
        Tr140FilterLine parsed{line, len, {}, {}, {}};
        parse_line(line, parsed);
        if (is_item(parsed.parts, "SERIAL_NUMBER") && std::strcmp(parsed.value, serial) == 0) {
            found = true;
            continue;
        }
        if (found && line_is_item(parsed.parts, item)) return take(parsed.value);
    }
    return -1;
}

// The lines of one volume of a new record, with an entry for each of the
// first accounts Samba accounts when user access is created automatically.
void append_volume_lines(FILE* f, int device_id, int volume, int accounts) {
    append_line(f, "USBMGR.%d.NAME.%d=\n", device_id, volume);
    append_line(f, "USBMGR.%d.ENABLE.%d=%d\n", device_id, volume, 1);
    if (AUTO_CREATE_USER_ACCESS_DATA != 0) db_util_tr140_conf_append_user_access(f, device_id, volume, accounts);
}

// Copies the history file as it stands into out; false when it cannot be
// read. A missing file is an empty one: the record starts the file.
bool copy_history(FILE* out) {
    usbmgr::UniqueFd fd(::open(TR140_CONF_PATH, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return errno == ENOENT;
    char buf[4096];
    char last = '\n';
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        if (std::fwrite(buf, 1, static_cast<std::size_t>(n), out) != static_cast<std::size_t>(n)) return false;
        last = buf[n - 1];
    }
    // A last line cut short (power lost while it was written) has no
    // newline: the record starts on a line of its own, not glued onto it.
    if (last != '\n') std::fputc('\n', out);
    return true;
}

void append_record(const char* serial, int device_id, int volumes) {
    usbmgr::FileReplacement file(TR140_CONF_PATH, usbmgr::kPublicFileMode);
    if (!file || !copy_history(file.stream())) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Creat %s Fail ...", TR140_CONF_PATH);
        return;
    }
    FILE* f = file.stream();
    // Without its key line the other lines would join the record before it.
    if (!append_line(f, "USBMGR.%d.SERIAL_NUMBER=%s\n", device_id, serial)) return;
    append_line(f, "USBMGR.%d.PNAME=\n", device_id);
    const int accounts = AUTO_CREATE_USER_ACCESS_DATA != 0 ? app_util_get_number_of_samba_users() : 0;
    for (int v = 0; v < volumes; ++v) append_volume_lines(f, device_id, v, accounts);
    file.commit();
}

// First and last device id by line position. Every int is a possible id, so
// whether each was set is kept apart from its value.
struct IdRange {
    bool has_first = false;
    bool has_last = false;
    int first = 0;
    int last = 0;
};

IdRange read_id_range() {
    IdRange r;
    File f = open_file(TR140_CONF_PATH, "re");
    if (!f) {
        log_missing_file();
        return r;
    }
    // By position: the first line gives first, every later line overwrites last.
    char line[DB_UTIL_LINE_SIZE];
    while (std::size_t len = usbmgr::read_line_piece(f.get(), line)) {
        Tr140FilterLine parsed{line, len, {}, {}, {}};
        parse_line(line, parsed);
        if (!r.has_first) {
            r.first = parsed.parts.device_id;
            r.has_first = true;
        } else {
            r.last = parsed.parts.device_id;
            r.has_last = true;
        }
    }
    return r;
}

// Lowest id in [lo, hi] whose SERIAL_NUMBER lookup answers serial, else -1.
// Only the ids of the file's own SERIAL_NUMBER lines are tried, so the work
// is bounded by the file, never by the width of the range (ids may lie far
// apart). A candidate is confirmed by the lookup itself, since only the
// first line of a key answers it.
int lowest_id_of_serial(const char* serial, long long lo, long long hi) {
    if (lo > hi) return -1;
    File f = open_file(TR140_CONF_PATH, "re");
    if (!f) return -1;
    int best = -1;
    char line[DB_UTIL_LINE_SIZE];
    while (std::size_t len = usbmgr::read_line_piece(f.get(), line)) {
        Tr140FilterLine parsed{line, len, {}, {}, {}};
        parse_line(line, parsed);
        const int id = parsed.parts.device_id;
        if (id < lo || id > hi || (best != -1 && id >= best)) continue;
        if (!is_item(parsed.parts, "SERIAL_NUMBER") || !key_is_canonical(parsed, "SERIAL_NUMBER")) continue;
        if (std::strcmp(parsed.value, serial) != 0) continue;
        char value[DB_UTIL_VALUE_SIZE] = {};
        if (db_util_tr140_conf_get_parameter_s(parsed.key, value) == 0 && std::strcmp(value, serial) == 0) best = id;
    }
    return best;
}

// Number of lines that a lookup "USBMGR.%d.NAME.%d" of device id could find.
long long count_name_lines(int device_id) {
    File f = open_file(TR140_CONF_PATH, "re");
    if (!f) return 0;
    long long n = 0;
    char line[DB_UTIL_LINE_SIZE];
    while (std::size_t len = usbmgr::read_line_piece(f.get(), line)) {
        Tr140FilterLine parsed{line, len, {}, {}, {}};
        parse_line(line, parsed);
        if (parsed.parts.device_id != device_id || !is_item(parsed.parts, "NAME")) continue;
        char item[kItemTextSize + 8] = {};
        if (usbmgr::format_str(item, "NAME.%d", parsed.parts.volume_index) && key_is_canonical(parsed, item)) ++n;
    }
    return n;
}

}  // namespace

void Tr140FilterOut::keep(const Tr140FilterLine& line) {
    if (line.raw_len == 0) return;
    std::fwrite(line.raw, 1, line.raw_len, f_);
    at_line_start_ = line.raw[line.raw_len - 1] == '\n';
}

bool Tr140FilterOut::line(const char* fmt, ...) {
    char text[kOutLineSize] = {};
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof text) return false;
    // A kept line without its newline (the file's cut last line) must not
    // swallow the line written after it.
    if (!at_line_start_) std::fputc('\n', f_);
    std::fwrite(text, 1, static_cast<std::size_t>(n), f_);
    at_line_start_ = text[n - 1] == '\n';
    return true;
}

int db_util_tr140_conf_filter_lines(Tr140LineFilter filter, void* context) {
    if (filter == nullptr) return -1;
    File in = open_file(TR140_CONF_PATH, "re");
    if (!in) return -1;
    usbmgr::FileReplacement out(TR140_CONF_PATH, usbmgr::kPublicFileMode);
    if (!out) return -1;
    Tr140FilterOut writer(out.stream());
    char line[DB_UTIL_LINE_SIZE];
    std::string whole;
    while (std::size_t len = usbmgr::read_line_piece(in.get(), line)) {
        Tr140FilterLine parsed{line, len, {}, {}, {}};
        parse_line(line, parsed);
        // A line longer than one read is judged by its first piece and goes
        // whole: judged piece by piece, a kept head whose tail was dropped
        // lost its newline and swallowed the next line.
        if (line[len - 1] != '\n' && usbmgr::read_rest_of_line(in.get(), line, len, whole)) {
            parsed.raw = whole.data();
            parsed.raw_len = whole.size();
        }
        filter(parsed, writer, context);
    }
    in.reset();
    return out.commit() ? 0 : -1;
}

int db_util_tr140_conf_split_key(char* key, Tr140ConfKey* out) {
    if (out == nullptr) return -1;
    std::memset(out, 0, sizeof *out);
    out->device_id = -1;
    out->volume_index = -1;
    out->entry_index = -1;
    if (key == nullptr) return -1;
    char* save = nullptr;
    int n = 0;
    for (char* tok = strtok_r(key, ".", &save); tok != nullptr; tok = strtok_r(nullptr, ".", &save), ++n) {
        switch (n) {
            case 1:
                out->device_id = to_int(tok);
                break;
            case 2:
                usbmgr::copy_str(out->item, tok);
                break;
            case 3:
                out->volume_index = to_int(tok);
                break;
            case 4:
                usbmgr::copy_str(out->sub_item, tok);
                break;
            case 5:
                out->entry_index = to_int(tok);
                break;
            default:
                break;
        }
    }
    return -1;
}

int db_util_tr140_conf_get_id_range(int* first, int* last) {
    const IdRange r = read_id_range();
    if (r.has_first && first) *first = r.first;
    if (r.has_last && last) *last = r.last;
    return -1;
}

int db_util_tr140_conf_find_sn(const char* serial) {
    if (serial == nullptr) return -1;
    // Only ids below the capacity are searched, although ids grow past it.
    return lowest_id_of_serial(serial, 0, static_cast<long long>(NUMBER_OF_MAX_TR140_HISTORY_ITEM) - 1);
}

int db_util_tr140_conf_count_volumes(int device_id) {
    // The history capacity doubles as the bound on the volume count; the
    // NAME lines of the device in the file bound it as well, so a capacity
    // read from the settings file never sets the length of the walk.
    const long long bound = std::min<long long>(NUMBER_OF_MAX_TR140_HISTORY_ITEM, count_name_lines(device_id));
    int n = 0;
    for (; n < bound; ++n) {
        char key[50] = {};
        char value[DB_UTIL_VALUE_SIZE] = {};
        if (!usbmgr::format_str(key, "USBMGR.%d.NAME.%d", device_id, n)) break;
        if (db_util_tr140_conf_get_parameter_s(key, value) != 0) break;
    }
    return n;
}

int db_util_tr140_conf_delete_device(int device_id) {
    db_util_tr140_conf_filter_lines([device_id](const Tr140FilterLine& line, Tr140FilterOut& out) {
        if (line.parts.device_id != device_id) out.keep(line);
    });
    return -1;
}

int db_util_tr140_conf_record_new_sn(const char* serial, int volumes) {
    if (serial == nullptr) return -1;
    if (std::strlen(serial) > kSerialMax) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Serial number of %zu characters is too long, not recorded",
                     std::strlen(serial));
        return -1;
    }
    // The serial stands as a value in a line: no newline or '=' may break it.
    char sn[kSerialMax + 1] = {};
    usbmgr::copy_str(sn, serial);
    usbmgr::sanitize_value_text(sn, sizeof sn);

    int new_id = 0;
    if (access(TR140_CONF_PATH, F_OK) == 0) {
        const int known = db_util_tr140_conf_find_sn(sn);
        if (known != -1) {
            if (db_util_tr140_conf_count_volumes(known) == volumes) return -1;
            // Another number of volumes: the old names no longer fit the disk.
            db_util_tr140_conf_delete_device(known);
        }
        const IdRange range = read_id_range();
        // A file without lines starts again at 0; a single line is its own last.
        if (range.has_first) {
            const int first = range.first;
            const int last = range.has_last ? range.last : range.first;
            if (last == INT_MAX) {
                USBMGR_TRACE(USBMGR_LOG_DEBUG, "No device id left after %d, not recorded", last);
                return -1;
            }
            // Counted from the ids, so gaps left by deleted records count as used.
            if (static_cast<long long>(last) - first + 1 >= NUMBER_OF_MAX_TR140_HISTORY_ITEM)
                db_util_tr140_conf_delete_device(first);
            new_id = last + 1;
        }
    }
    append_record(sn, new_id, volumes);
    usbmgr_cfg_save();
    return -1;
}

int db_util_find_device_serial_number(const char* name, char* out) {
    if (name == nullptr || out == nullptr) return -1;
    for (int i = 0; i < USB_TABLE_SIZE; ++i) {
        const UsbPhysicalInfo& e = usb_physical_info[i];
        const std::size_t len = usbmgr::field_len(e.attach_device);
        if (len == 0) continue;
        char device[sizeof e.attach_device + 1] = {};
        std::memcpy(device, e.attach_device, len);
        if (std::strstr(device, name) == nullptr) continue;
        char serial[sizeof e.serial_number + 1] = {};
        std::memcpy(serial, e.serial_number, usbmgr::field_len(e.serial_number));
        usbmgr::copy_bounded(out, kNameOutSize, serial);
        return 0;
    }
    return -1;
}

int db_util_get_device_serial_number(const char* name, char* out) {
    if (name == nullptr || out == nullptr) return -1;
    if (db_util_find_device_serial_number(name, out) == 0) return 0;
    // Not found answers with slot 24's first character: 0 when that slot is
    // free, so callers look at their cleared buffer instead.
    return static_cast<unsigned char>(usb_physical_info[USB_TABLE_SIZE - 1].attach_device[0]);
}

int db_util_get_tr140_name(const char* item, const char* serial, char* out) {
    if (item == nullptr || serial == nullptr || out == nullptr) return -1;
    return find_in_record(item, serial, [out](const char* value) {
        usbmgr::copy_bounded(out, kNameOutSize, value);
        return 0;
    });
}

int db_util_get_tr140_enable(const char* item, const char* serial) {
    if (item == nullptr || serial == nullptr) return -1;
    // Only the exact text "0" means disabled.
    return find_in_record(item, serial, [](const char* value) { return std::strcmp(value, "0") == 0 ? 0 : 1; });
}

int db_util_get_tr140_volume_name(const char* volume, const char* serial, char* out) {
    char item[kItemTextSize] = {};
    if (!usbmgr::format_str(item, "NAME.%d", db_util_volume_number(volume))) return -1;
    return db_util_get_tr140_name(item, serial, out);
}

int db_util_get_tr140_physical_name(const char* serial, char* out) {
    return db_util_get_tr140_name("PNAME", serial, out);
}

int db_util_get_tr140_volume_status(const char* volume, const char* serial) {
    char item[kItemTextSize] = {};
    if (!usbmgr::format_str(item, "ENABLE.%d", db_util_volume_number(volume))) return -1;
    return db_util_get_tr140_enable(item, serial);
}

int db_util_set_tr140_volume_info(const char* serial, const char* volume, int enable, const char* name) {
    if (serial == nullptr) return -1;
    char name_item[kItemTextSize] = {};
    char enable_item[kItemTextSize] = {};
    if (!usbmgr::format_str(name_item, "NAME.%d", db_util_volume_number(volume)) ||
        !usbmgr::format_str(enable_item, "ENABLE.%d", db_util_volume_number(volume)))
        return -1;
    char new_name[DB_UTIL_VALUE_SIZE] = {};
    copy_line_value(new_name, name);

    filter_record(serial, [&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        const Tr140ConfKey& k = line.parts;
        if (line_is_item(k, name_item) && new_name[0] != '\0') {
            if (!out.line("USBMGR.%d.NAME.%d=%s\n", k.device_id, k.volume_index, new_name)) out.keep(line);
            return false;
        }
        if (line_is_item(k, enable_item)) {
            if (!out.line("USBMGR.%d.ENABLE.%d=%d\n", k.device_id, k.volume_index, enable)) out.keep(line);
            return true;  // the change ends at the ENABLE line
        }
        out.keep(line);
        return false;
    });
    return -1;
}

int db_util_set_tr140_physical_name(const char* serial, const char* name) {
    if (serial == nullptr) return -1;
    char new_name[DB_UTIL_VALUE_SIZE] = {};
    copy_line_value(new_name, name);

    filter_record(serial, [&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        if (!line_is_item(line.parts, "PNAME")) {
            out.keep(line);
            return false;
        }
        // Even an empty name replaces the old one.
        if (!out.line("USBMGR.%d.PNAME=%s\n", line.parts.device_id, new_name)) out.keep(line);
        return true;
    });
    return -1;
}

int db_util_get_tr140_device_id_by_serial_number(const char* serial) {
    if (serial == nullptr) return -1;
    const IdRange range = read_id_range();
    if (!range.has_first) return -1;
    const int first = range.first;
    const int last = range.has_last ? range.last : range.first;
    // Every id between the first and the last line, unlike the recording search.
    return lowest_id_of_serial(serial, first, last);
}

int db_util_volume_number(const char* volume) {
    // sda1 is volume 0: the number starts at the fourth character.
    if (volume == nullptr || strnlen(volume, 3) < 3) return -1;
    const int n = to_int(volume + 3);
    return n == INT_MIN ? INT_MIN : n - 1;
}
