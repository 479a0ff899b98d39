#include "fuzz_support.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "db_util/db_util.h"
#include "platform_fake.h"
#include "private_dirs.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

namespace fuzz {

namespace {

// More runner calls than this for one input is a loop that does not end.
constexpr int kCallLimit = 20000;
// A disk answers "busy" to at most this many unmounts of one folder.
constexpr int kBusyLimit = 3;
// The input speaks instead of the world for at most this many commands of
// one input, so that retry loops end as they would on a real gateway.
constexpr int kOverrideLimit = 16;

World g_world;
FuzzClock g_clock;

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// ---------------------------------------------------------------------------
// Command formats. %w a plain shell word, %n a kernel device name, %u a
// device minor number (0 to 2^20 - 1), %a any text without control bytes that cannot pass for an
// option (a folder from the settings, a user name), %v the value of the
// option before it: any text without control bytes, a leading '-' too (an
// option parser takes the next argument whole as a required value: a
// password "-A" is pdbedit's password, not its -A); run through the shell,
// every value must be a plain word.

const char* const kExecFormats[] = {
    "mknod /var/dev/%n b 8 %u",
    "mknod /var/dev/%n c 188 %u",
    "rm -f /var/dev/%n",
    "rm -R %a",
    "rm -rf %a",
    "mount -v -t auto -o nosuid,nodev /var/dev/%n %a",
    "/bin/ntfs-3g -o nosuid,nodev /var/dev/%n %a",
    "mount.exfat-fuse -o nosuid,nodev /var/dev/%n %a",
    "umount %a",
    "umount -l %a",
    "orbcm_util cfg save",
    "killall minidlnad",
    "killall -9 minidlnad",
    "killall smbd",
    "killall nmbd",
    "killall -9 smbd",
    "/sbin/minidlnad -f %a -R",
    "/bin/smbd",
    "/bin/nmbd",
    "/bin/pdbedit -a -u %a -T %v -A",
    "/bin/pdbedit -x -u %a -A",
    "getty -L 115200 /var/dev/%n",
};

// Shell lines: the pipes, and any argument-vector format above run
// through the shell (its values then plain words).
const char* const kShellFormats[] = {
    "ls /var/dev | grep %w 2>&1",
    "mount | grep %w 2>&1",
    "mount | grep \"%w\" | awk -F \"[ ]\" '{print $3}' 2>&1",
    "mount | grep %w | awk -F \"[ ]\" '{print $5}' 2>&1",
    "df -m | grep %w 2>&1",
    "ps | grep %w | grep -v grep 2>&1",
};

bool device_name(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && is_letter(s[i])) ++i;
    if (i == 0) return false;
    while (i < s.size() && is_digit(s[i])) ++i;
    return i == s.size() && s.size() <= 31;
}

bool minor_number(std::string_view s) {
    if (s.empty() || s.size() > 7) return false;
    for (char c : s)
        if (!is_digit(c)) return false;
    return std::stol(std::string(s)) < (1L << 20);
}

bool option_value(std::string_view s) {
    for (char c : s)
        if (is_control(static_cast<unsigned char>(c))) return false;
    return true;
}

bool any_argument(std::string_view s) { return (s.empty() || s.front() != '-') && option_value(s); }

bool slot_ok(char slot, std::string_view value, bool shell) {
    switch (slot) {
        case 'w':
            return usbmgr::shell_word_ok(value);
        case 'n':
            return device_name(value);
        case 'u':
            return minor_number(value);
        case 'a':
            return shell ? usbmgr::shell_word_ok(value) : any_argument(value);
        case 'v':
            return shell ? usbmgr::shell_word_ok(value) : option_value(value);
        default:
            return false;
    }
}

// One argument against one format token ("/var/dev/%n", "-t", "%w").
bool token_ok(std::string_view token, std::string_view arg) {
    std::size_t pct = token.find('%');
    if (pct == std::string_view::npos) return token == arg;
    if (pct + 2 != token.size()) return false;
    if (arg.substr(0, pct) != token.substr(0, pct)) return false;
    return slot_ok(token[pct + 1], arg.substr(pct), false);
}

std::vector<std::string_view> split_blanks(std::string_view s) {
    std::vector<std::string_view> out;
    std::size_t pos = 0;
    while (pos <= s.size()) {
        std::size_t sp = s.find(' ', pos);
        if (sp == std::string_view::npos) sp = s.size();
        out.push_back(s.substr(pos, sp - pos));
        pos = sp + 1;
    }
    return out;
}

bool exec_ok(const std::vector<std::string>& argv) {
    for (const char* format : kExecFormats) {
        auto tokens = split_blanks(format);
        if (tokens.size() != argv.size()) continue;
        bool ok = true;
        for (std::size_t i = 0; ok && i < tokens.size(); ++i) ok = token_ok(tokens[i], argv[i]);
        if (ok) return true;
    }
    return false;
}

// Whole-text match of a shell line; a value is a run of word characters.
bool text_match(std::string_view format, std::string_view text) {
    if (format.empty()) return text.empty();
    if (format[0] != '%') return !text.empty() && text[0] == format[0] && text_match(format.substr(1), text.substr(1));
    if (format.size() < 2) return false;
    char slot = format[1];
    std::string_view rest = format.substr(2);
    for (std::size_t len = 1; len <= text.size(); ++len) {
        unsigned char c = static_cast<unsigned char>(text[len - 1]);
        if (c == ' ' || c == '"' || c == '\'' || c == '|' || is_control(c)) break;
        if (slot_ok(slot, text.substr(0, len), true) && text_match(rest, text.substr(len))) return true;
    }
    return false;
}

bool shell_ok(const std::string& text) {
    for (const char* format : kShellFormats)
        if (text_match(format, text)) return true;
    for (const char* format : kExecFormats)
        if (text_match(format, text)) return true;
    return false;
}

// awk -F "[ ]" '{print $n}' of one line.
std::string awk_field(const std::string& line, int n) {
    auto fields = split_blanks(line);
    if (n < 1 || static_cast<std::size_t>(n) > fields.size()) return std::string();
    return std::string(fields[static_cast<std::size_t>(n) - 1]);
}

std::string between(const std::string& text, const std::string& prefix, const std::string& end) {
    std::size_t from = prefix.size();
    std::size_t to = text.find(end, from);
    if (to == std::string::npos) to = text.size();
    return text.substr(from, to - from);
}

bool starts_with(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

bool warn_hidden_path(const char* arg) {
    const char* path = std::strchr(arg, '=');
    path = (arg[0] == '-' && path) ? path + 1 : arg;
    if (std::strncmp(path, "/tmp/", 5) == 0 || std::strncmp(path, "/var/", 5) == 0) {
        std::fprintf(stderr,
                     "fuzz: %s lies under /tmp or /var, which this program hides behind private folders;\n"
                     "      give it relative to the working folder instead\n",
                     path);
        return true;
    }
    return false;
}

}  // namespace

namespace {
std::atomic<bool> g_guard{false};

bool inside_var_or_tmp(std::string_view path) {
    if (path.rfind("/var/", 0) != 0 && path.rfind("/tmp/", 0) != 0) return false;
    for (std::size_t from = 0; from <= path.size();) {
        std::size_t to = path.find('/', from);
        if (to == std::string_view::npos) to = path.size();
        if (path.substr(from, to - from) == "..") return false;
        from = to + 1;
    }
    return true;
}
}  // namespace

void guard_writes(bool on) { g_guard.store(on); }

void guard_path(const char* what, const char* path) {
    // Relative names are libFuzzer's own (its artifacts, written even from
    // a crash or timeout inside an input); the daemon names every file
    // absolutely, and its settings' forms take absolute paths only.
    if (!g_guard.load() || path == nullptr || path[0] != '/') return;
    if (!inside_var_or_tmp(path)) finding("file write or removal outside /var and /tmp", std::string(what) + " " + path);
}

void finding(const char* what, std::string_view detail) {
    g_guard.store(false);  // libFuzzer writes the input out next
    std::fprintf(stderr, "\n==FINDING== %s: %s\n", what, shown(detail).c_str());
    std::fflush(stderr);
    std::abort();
}

std::string shown(std::string_view text) {
    std::string out;
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += ch;
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        }
    }
    return out;
}

bool command_line_ok(const usbmgr::CommandLine& cmd, std::string* why) {
    if (!cmd.valid) {
        *why = "command line handed to the runner although it is marked invalid";
        return false;
    }
    if (cmd.argv.empty()) {
        if (shell_ok(cmd.text)) return true;
        *why = "shell line of no known format, or with a value that is not a plain word";
        return false;
    }
    if (exec_ok(cmd.argv)) return true;
    *why = "program and arguments of no known format";
    return false;
}

uint8_t AnswerStream::next(uint8_t fallback) {
    if (pos_ >= bytes_.size()) return fallback;
    return static_cast<uint8_t>(bytes_[pos_++]);
}

std::string AnswerStream::text() {
    std::size_t n = next(0);
    n = std::min(n, bytes_.size() - pos_);
    std::string out = bytes_.substr(pos_, n);
    pos_ += n;
    return out;
}

usbmgr::RunResult World::start_and_wait(const usbmgr::CommandLine& cmd, bool capture, const usbmgr::StartedFn& started) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (++calls_ > kCallLimit) finding("command runner called without end", cmd.text);
    std::string why;
    if (!command_line_ok(cmd, &why)) finding(why.c_str(), cmd.text);
    usbmgr::RunResult r;
    r.started = true;
    if (cmd.argv.empty())
        r.output = answer_shell(cmd.text, &r.started);
    else
        do_exec(cmd.argv);
    if (r.started && started) started();
    if (!capture) r.output.clear();
    // USBMGR_FUZZ_TRACE=1 shows what a replayed input made the daemon run.
    static const bool trace = std::getenv("USBMGR_FUZZ_TRACE") != nullptr;
    if (trace)
        std::fprintf(stderr, "run %s%s -> %s\n", cmd.argv.empty() ? "sh: " : "", shown(cmd.text).c_str(),
                     r.started ? shown(r.output).c_str() : "(not started)");
    return r;
}

void World::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    answers_.clear();
    mounts_.clear();
    busy_.clear();
    calls_ = 0;
    overrides_ = 0;
    cfg_saves_ = 0;
}

std::set<std::string> World::mounted() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::string> out;
    for (const auto& m : mounts_) out.insert(m.first);
    return out;
}

std::string World::mount_lines(const std::string& pattern) const {
    std::string out;
    for (const auto& [folder, m] : mounts_) {
        std::string line = m.device + " on " + folder + " type " + m.type + " (rw)";
        if (line.find(pattern) != std::string::npos) out += line + "\n";
    }
    return out;
}

std::string World::answer_shell(const std::string& text, bool* started) {
    // Now and then the input speaks instead of the world.
    uint8_t decision = answers_.next(0);
    if (decision >= 0xFE && overrides_++ >= kOverrideLimit) decision = 0;
    if (decision == 0xFE) {
        *started = false;
        return std::string();
    }
    if (decision == 0xFF) return answers_.text();

    if (starts_with(text, "ls /var/dev | grep ")) {
        std::string pattern = between(text, "ls /var/dev | grep ", " ");
        std::string out;
        if (DIR* d = opendir("/var/dev")) {
            while (dirent* e = readdir(d)) {
                std::string name = e->d_name;
                if (name != "." && name != ".." && name.find(pattern) != std::string::npos) out += name + "\n";
            }
            closedir(d);
        }
        return out;
    }
    if (starts_with(text, "mount | grep \"")) {
        std::string lines = mount_lines(between(text, "mount | grep \"", "\""));
        std::string out;
        std::istringstream in(lines);
        for (std::string line; std::getline(in, line);) out += awk_field(line, 3) + "\n";
        return out;
    }
    if (starts_with(text, "mount | grep ")) {
        std::string lines = mount_lines(between(text, "mount | grep ", " "));
        if (text.find("| awk") == std::string::npos) return lines;
        std::string out;
        std::istringstream in(lines);
        for (std::string line; std::getline(in, line);) out += awk_field(line, 5) + "\n";
        return out;
    }
    if (starts_with(text, "df -m | grep ")) {
        std::string pattern = between(text, "df -m | grep ", " ");
        std::string out;
        for (const auto& [folder, m] : mounts_) {
            std::string line = m.device + " 1000 100 900 10% " + folder;
            if (line.find(pattern) != std::string::npos) out += line + "\n";
        }
        return out;
    }
    return std::string();
}

void World::do_exec(const std::vector<std::string>& argv) {
    const std::string& program = argv[0];
    // Every path a file command writes or removes (options aside).
    if (program == "rm" || program == "mv" || program == "cp" || program == "mknod" || program == "mkdir") {
        for (std::size_t i = 1; i < argv.size(); ++i) {
            if (program == "mknod" && i > 1) break;  // type and numbers
            if (program == "cp" && i + 1 < argv.size()) continue;  // only the copy is written
            if (!argv[i].empty() && argv[i][0] != '-') guard_path(program.c_str(), argv[i].c_str());
        }
    }
    if (program == "mknod") {
        write_file(argv[1].c_str(), "");
    } else if (program == "rm") {
        if (argv[1] == "-f") unlink(argv.back().c_str());
    } else if (program == "mount") {
        if ((answers_.next(0) & 3) != 1) mounts_[argv[7]] = {argv[6], "ext4"};
    } else if (program == "/bin/ntfs-3g") {
        if ((answers_.next(0) & 3) != 2) mounts_[argv[4]] = {argv[3], "fuseblk"};
    } else if (program == "mount.exfat-fuse") {
        if ((answers_.next(0) & 3) != 2) mounts_[argv[4]] = {argv[3], "fuseblk"};
    } else if (program == "umount" && argv[1] == "-l") {
        mounts_.erase(argv[2]);  // detached, busy or not
    } else if (program == "umount") {
        auto it = mounts_.find(argv[1]);
        if (it == mounts_.end()) return;
        if ((answers_.next(0) & 3) == 3 && busy_[argv[1]] < kBusyLimit) {
            ++busy_[argv[1]];  // a file is still open on it
            return;
        }
        mounts_.erase(it);
    } else if (program == "orbcm_util") {
        ++cfg_saves_;
    }
}

void FuzzClock::sleep_us(unsigned long us) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (++sleeps_ > kSleepLimit)
        finding("retry loop without end (more sleeps in one call than the limit)", std::to_string(us) + " us");
}

void FuzzClock::arm_alarm(unsigned long) {}

void FuzzClock::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    sleeps_ = 0;
}

World& world() { return g_world; }
FuzzClock& clock() { return g_clock; }

void init(int* argc, char*** argv) {
    testing_support::factory_settings();
    if (argc && argv)
        for (int i = 1; i < *argc; ++i) warn_hidden_path((*argv)[i]);
    if (!testing_support::enter_private_dirs()) {
        std::fprintf(stderr, "fuzz: cannot make the private /tmp and /var the targets need\n");
        std::exit(1);
    }
    usbmgr::set_runner(&g_world);
    usbmgr::set_clock(&g_clock);
}

void reset_iteration() {
    // No login thread may outlive the input that started it.
    usbmgr_serial_request_stop_all();
    usbmgr_serial_join_all();
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);
    dp_util_evt_buf_init();
    usbmgr_evt_in_progress = 0;
    usbmgr_reload_target = 0;
    usbmgr_reload_restart = false;
    std::memset(MOUNT_DISK_PATH, 0, sizeof MOUNT_DISK_PATH);
    std::memset(&MINIDLNA_CONF, 0, sizeof MINIDLNA_CONF);
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
    StorageServiceNumberOfEntries = 0;
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = 0;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
    USB_SERIAL_ENABLE = 0;
    fake::reset();
    testing_support::empty_dir("/tmp");
    mkdir("/var/config", 0755);
    mkdir("/var/dev", 0775);
    testing_support::empty_dir("/var/config");
    testing_support::empty_dir("/var/dev");
    g_world.reset();
    g_clock.reset();
}

const std::string& factory_settings() { return testing_support::factory_settings(); }

std::string read_file(const char* path) { return testing_support::read_file(path); }

void write_file(const char* path, std::string_view bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool file_exists(const char* path) { return access(path, F_OK) == 0; }

bool temp_left_beside(const char* target) { return testing_support::temp_left_beside(target); }

const std::vector<std::string>& setting_keys() {
    static const std::vector<std::string> keys = {
        "USBMGR.MOUNT_DISK_PATH",
        "USBMGR.NUMBER_OF_SERVICE",
        "USBMGR.NUMBER_OF_HISTORY",
        "USBMGR.AUTO_CREATE_USER_ACCESS",
        "USBMGR.USB_SERIAL.ENABLE",
        "USBMGR.MINIDLNA.ENABLE",
        "USBMGR.MINIDLNA.CONF_DIR",
        "USBMGR.MINIDLNA.DB_DIR",
        "USBMGR.MINIDLNA.LOG_DIR",
        "USBMGR.MINIDLNA.MEDIA_DIR",
        "USBMGR.MINIDLNA.LOG_LEVEL",
        "USBMGR.MINIDLNA.ROOT_CONTAINER",
        "USBMGR.MINIDLNA.PORT",
        "USBMGR.MINIDLNA.FRIENDLY_NAME",
        "USBMGR.MINIDLNA.SERIAL",
        "USBMGR.MINIDLNA.MODEL_NAME",
        "USBMGR.MINIDLNA.MODEL_NUMBER",
        "USBMGR.MINIDLNA.INOTIFY",
        "USBMGR.MINIDLNA.NOTIFY_INTERVAL",
        "USBMGR.SAMBA.ENABLE",
        "USBMGR.SAMBA.CONF_DIR",
        "USBMGR.SAMBA.LOG_FILE",
        "USBMGR.SAMBA.MAX_LOG_SIZE",
        "USBMGR.SAMBA.LOG_LEVEL",
        "USBMGR.SAMBA.LOAD_PRINTERS",
        "USBMGR.SAMBA.PRINTCAP_NAME",
        "USBMGR.SAMBA.PRINTING",
        "USBMGR.SAMBA.SECURITY",
        "USBMGR.SAMBA.WORKGROUP",
        "USBMGR.SAMBA.DISABLE_NETBIOS",
        "USBMGR.SAMBA.NETBIOS_NAME",
        "USBMGR.SAMBA.SERVER_STRING",
        "USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS",
        "USBMGR.SAMBA.GUEST_ACCOUNT",
        "USBMGR.SAMBA.INTERFACES",
        "USBMGR.SAMBA.BIND_INTERFACES_ONLY",
        "USBMGR.SAMBA.USERNAME_MAP",
        "USBMGR.SAMBA.USERNAME_MAP_DIR",
        "USBMGR.SAMBA.LIVE_RELOAD",
    };
    return keys;
}

namespace {

// Consumes an integer ("-12") from the front of s.
bool take_number(std::string_view& s) {
    std::size_t i = 0;
    if (i < s.size() && s[i] == '-') ++i;
    std::size_t digits = 0;
    while (i < s.size() && is_digit(s[i])) ++i, ++digits;
    if (digits == 0 || digits > 10) return false;
    s.remove_prefix(i);
    return true;
}

bool take(std::string_view& s, std::string_view literal) {
    if (s.substr(0, literal.size()) != literal) return false;
    s.remove_prefix(literal.size());
    return true;
}

// Control bytes become '_', as the daemon does for texts it stores.
std::string line_safe(std::string_view v) {
    std::string out(v);
    for (char& c : out)
        if (is_control(static_cast<unsigned char>(c))) c = '_';
    return out;
}

}  // namespace

bool history_key_ok(std::string_view key) {
    std::string_view s = key;
    if (!take(s, "USBMGR.") || !take_number(s) || !take(s, ".")) return false;
    if (s == "SERIAL_NUMBER" || s == "PNAME") return true;
    if (take(s, "NAME.") || take(s, "ENABLE.")) return take_number(s) && s.empty();
    if (!take(s, "USER_ACCESS.") || !take_number(s) || !take(s, ".")) return false;
    if (!take(s, "USERREFERENCE.") && !take(s, "PERMISSIONS.")) return false;
    return take_number(s) && s.empty();
}

bool settings_key_ok(std::string_view key) {
    for (const auto& k : setting_keys())
        if (key == k) return true;
    std::string_view s = key;
    if (!take(s, "USBMGR.SAMBA.")) return false;
    if (!take(s, "USER_NAME.") && !take(s, "USER_PASSWORD.") && !take(s, "USER_ENABLE.")) return false;
    for (int n = 0; n < 25; ++n)
        if (s == std::to_string(n)) return true;
    return false;
}

void KeyValueCheck::allow_original(std::string_view content) {
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t nl = content.find('\n', pos);
        std::size_t end = nl == std::string_view::npos ? content.size() : nl + 1;
        std::string_view line = content.substr(pos, end - pos);
        pos = end;
        auto add = [this](std::string_view piece) {
            if (!piece.empty() && piece.back() == '\n') piece.remove_suffix(1);
            original_.insert(std::string(piece));
            // What a C string writer keeps of it.
            original_.insert(std::string(piece.substr(0, piece.find('\0'))));
        };
        add(line);
        // The 256-byte line reader sees a long line as pieces of 255.
        for (std::size_t p = 0; p < line.size(); p += 255) add(line.substr(p, 255));
    }
}

void KeyValueCheck::allow_value(std::string_view value) {
    std::string v(value.substr(0, value.find('\0')));
    values_.push_back(v);
    values_.push_back(line_safe(v));
}

bool KeyValueCheck::key_ok(std::string_view key) const {
    return kind_ == Kind::History ? history_key_ok(key) : settings_key_ok(key);
}

bool KeyValueCheck::value_ok(std::string_view value) const {
    for (char c : value) {
        unsigned char u = static_cast<unsigned char>(c);
        // Settings values are carried as the file held them; only a NUL cuts them.
        if (kind_ == Kind::Settings ? u == 0 : is_control(u)) return false;
    }
    if (value.find('=') == std::string_view::npos || any_value_) return true;
    // A '=' in a value the harness never gave is the start of another line.
    for (const auto& v : values_)
        if (std::string_view(v).substr(0, value.size()) == value) return true;
    return false;
}

void KeyValueCheck::check(const char* path, const char* after) const {
    if (!file_exists(path)) return;
    std::string content = read_file(path);
    std::set<std::string> keys;
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t nl = content.find('\n', pos);
        bool terminated = nl != std::string::npos;
        std::size_t end = terminated ? nl : content.size();
        std::string line = content.substr(pos, end - pos);
        pos = terminated ? end + 1 : end;
        std::string where = std::string(path) + " after " + after + ": " + line;
        std::size_t eq = line.find('=');
        std::string key = line.substr(0, eq);
        if (kind_ == Kind::Settings && eq != std::string::npos && !keys.insert(key).second)
            finding("key written twice", where);
        if (original_.count(line)) continue;
        if (!terminated) finding("line written without its newline", where);
        if (eq == std::string::npos) finding("line without '=' written", where);
        if (!key_ok(key)) finding("line of no known key written", where);
        if (!value_ok(std::string_view(line).substr(eq + 1)))
            finding("value holding control bytes or another line glued to it", where);
    }
}

uint8_t Reader::u8() { return pos_ < size_ ? data_[pos_++] : 0; }

uint16_t Reader::u16() {
    uint16_t lo = u8();
    return static_cast<uint16_t>(lo | (u8() << 8));
}

int32_t Reader::i32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(u8()) << (8 * i);
    return static_cast<int32_t>(v);
}

std::string Reader::bytes(std::size_t n) {
    n = std::min(n, left());
    std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return out;
}

std::string Reader::text8() { return bytes(u8()); }

std::string Reader::text16() { return bytes(u16()); }

std::string Reader::rest() { return bytes(left()); }

}  // namespace fuzz
