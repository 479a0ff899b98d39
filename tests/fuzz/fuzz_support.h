// Shared harness of the fuzz targets: a private /tmp and /var, a command
// runner that checks every command line and plays the world's answers
// (mounts, device nodes, file moves) without starting a process, a clock
// that never sleeps and stops runaway retry loops, the reset of the
// daemon's globals between iterations, and the key=value file checks.
//
// A violated invariant is a finding: it is printed and the run aborts, so
// that libFuzzer keeps the input that caused it.
#ifndef USBMGR_FUZZ_SUPPORT_H
#define USBMGR_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "db_util/clock.h"
#include "db_util/runner.h"

namespace fuzz {

// Reports a violated invariant and aborts.
[[noreturn]] void finding(const char* what, std::string_view detail);

// The write guard: while it is on, a file write or a removal of an
// absolute path outside the private /var and /tmp (or one that climbs out
// of them with "..") is a finding; relative names are libFuzzer's. The command runner checks the paths of the file
// commands; a target linked with the libc wrappers of write_guard.cpp has
// every open for writing, unlink, rename, mkdir and rmdir checked as well.
void guard_writes(bool on);
// Checks path when the guard is on; what names the call.
void guard_path(const char* what, const char* path);

// Prints text with every byte outside printable ASCII escaped.
std::string shown(std::string_view text);

// True when cmd is one of the daemon's fixed command formats with only
// plain words in its values; why says which rule it broke.
bool command_line_ok(const usbmgr::CommandLine& cmd, std::string* why);

// Bytes from the input that decide how the world answers; when they run
// out every decision takes its default (a mount works, a disk is not busy).
class AnswerStream {
public:
    void append(std::string_view bytes) { bytes_.append(bytes); }
    void clear() {
        bytes_.clear();
        pos_ = 0;
    }
    // Next decision byte, or fallback when none is left.
    uint8_t next(uint8_t fallback);
    // A text of up to 255 bytes (length byte first); empty when none is left.
    std::string text();

private:
    std::string bytes_;
    std::size_t pos_ = 0;
};

// The command runner of every target. Checks each command line, then does
// what the command would have done to the private /tmp and /var: device
// nodes become empty files, mv/cp/rm of the key=value files happen in
// process, mounts live in a table that "mount | grep" reads with grep's
// substring match.
class World final : public usbmgr::CommandRunner {
public:
    usbmgr::RunResult start_and_wait(const usbmgr::CommandLine& cmd, bool capture, const usbmgr::StartedFn& started) override;

    void reset();
    AnswerStream& answers() { return answers_; }
    int cfg_saves() const { return cfg_saves_; }
    // Folders mounted now.
    std::set<std::string> mounted() const;

private:
    struct Mount {
        std::string device;
        std::string type;
    };
    std::string mount_lines(const std::string& pattern) const;
    std::string answer_shell(const std::string& text, bool* started);
    void do_exec(const std::vector<std::string>& argv);

    mutable std::mutex mutex_;
    AnswerStream answers_;
    std::map<std::string, Mount> mounts_;  // by folder
    std::map<std::string, int> busy_;      // "busy" answers given per folder
    int calls_ = 0;
    int overrides_ = 0;  // answers the input gave instead of the world
    int cfg_saves_ = 0;
};

// Never sleeps; a run of sleeps longer than the limit is a retry loop that
// does not end.
class FuzzClock final : public usbmgr::Clock {
public:
    static constexpr int kSleepLimit = 200;
    void sleep_us(unsigned long us) override;
    void arm_alarm(unsigned long us) override;
    // Starts a new budget (each handler call has its own).
    void reset();

private:
    std::mutex mutex_;
    int sleeps_ = 0;
};

World& world();
FuzzClock& clock();

// Once per process: reads the source tree's factory settings, enters the
// private /tmp and /var and installs the runner and clock seams.
void init(int* argc, char*** argv);

// Before each input: every global of the daemon back to its start value,
// the private /tmp, /var/config and /var/dev emptied, world and clock reset.
void reset_iteration();

// The factory settings file of the source tree.
const std::string& factory_settings();

std::string read_file(const char* path);
void write_file(const char* path, std::string_view bytes);
bool file_exists(const char* path);
// True when a replacement of target left its new file ("<target>.XXXXXX") behind.
bool temp_left_beside(const char* target);

// The 38 keys of the settings file.
const std::vector<std::string>& setting_keys();

// Checks a key=value file written by the daemon. Lines that stood in the
// file before (or the pieces the 256-byte line reader splits them into) may
// come back verbatim; every other line must be newline-terminated, hold a
// '=' and a key of the file's own formats, and no value glued to another
// line.
class KeyValueCheck {
public:
    enum class Kind { Settings, History };
    explicit KeyValueCheck(Kind kind) : kind_(kind) {}
    // Lines that were in the file before the daemon touched it.
    void allow_original(std::string_view content);
    // A value the harness handed the daemon (a serial, a name).
    void allow_value(std::string_view value);
    // Values holding '=' are then only checked to be free of control bytes.
    void allow_any_value() { any_value_ = true; }
    // Aborts on the first line that breaks the rules; also, for the
    // settings file, on a key written twice.
    void check(const char* path, const char* after) const;

private:
    bool key_ok(std::string_view key) const;
    bool value_ok(std::string_view value) const;

    Kind kind_;
    bool any_value_ = false;
    std::set<std::string> original_;
    std::vector<std::string> values_;
};

// True when key is one the history file's records use.
bool history_key_ok(std::string_view key);
// True when key is one the settings file holds (the 38 and the accounts).
bool settings_key_ok(std::string_view key);

// Reads little-endian integers and length-prefixed texts from an input.
class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return pos_ >= size_; }
    std::size_t left() const { return size_ - pos_; }
    uint8_t u8();
    uint16_t u16();
    int32_t i32();
    // n bytes, fewer when the input ends.
    std::string bytes(std::size_t n);
    // u8 length then that many bytes.
    std::string text8();
    // u16 length then that many bytes.
    std::string text16();
    std::string rest();

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace fuzz

#endif
