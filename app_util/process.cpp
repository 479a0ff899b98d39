// The process check and the stop loops of both servers. A check matches a
// process by its exact program name; the stop loops give up after a bounded
// number of passes, logging it, so that no stop can hold the daemon forever.
#include <string>
#include <string_view>
#include <vector>

#include "app_util/app_util.h"
#include "app_util/app_util_internal.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/runner.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";
// Lines of the check's output are read, at most this many characters each.
constexpr std::size_t kCheckLineSize = 500;
constexpr unsigned long kHalfSecond = 500000;
// Passes of one second each before a stop loop gives up.
constexpr int kMaxStopPasses = 10;

void run(std::vector<std::string> argv) { db_util_exe_command(app_util_internal::server_command(std::move(argv))); }

std::vector<std::string_view> fields_of(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\n' || line[i] == '\r')) ++i;
        std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\n' && line[i] != '\r') ++i;
        if (i > start) out.push_back(line.substr(start, i - start));
    }
    return out;
}

bool all_of(std::string_view text, std::string_view allowed) {
    if (text.empty()) return false;
    for (char c : text)
        if (allowed.find(c) == std::string_view::npos) return false;
    return true;
}

// The columns between the user and the command in BusyBox's listing: the
// size (digits, perhaps with a unit) and the state letters.
bool is_size_or_state(std::string_view field) {
    return all_of(field, "0123456789kmgKMG") || all_of(field, "RSDTtZWXxKPINLsl<+");
}

// The program name of a listing line's command column: BusyBox prints
// "PID USER VSZ STAT COMMAND", procps "PID TTY TIME CMD". The path, and the
// brackets of a kernel thread or a renamed process, are not part of it.
std::string_view command_name(std::string_view line) {
    std::vector<std::string_view> f = fields_of(line);
    if (f.size() < 3) return {};
    std::string_view cmd;
    if (f.size() >= 4 && f[2].find(':') != std::string_view::npos) {
        cmd = f[3];
    } else {
        for (std::size_t i = 2; i < f.size(); ++i) {
            if (is_size_or_state(f[i])) continue;
            cmd = f[i];
            break;
        }
    }
    if (!cmd.empty() && (cmd.front() == '[' || cmd.front() == '{')) cmd.remove_prefix(1);
    if (!cmd.empty() && (cmd.back() == ']' || cmd.back() == '}')) cmd.remove_suffix(1);
    std::size_t slash = cmd.rfind('/');
    if (slash != std::string_view::npos) cmd.remove_prefix(slash + 1);
    return cmd;
}

}  // namespace

bool app_util_listing_runs(std::string_view output, std::string_view name) {
    for (const std::string& line : usbmgr::fgets_lines(output, kCheckLineSize))
        if (command_name(line) == name) return true;
    return false;
}

int app_util_check_process(const char* name) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "check process %s", name);
    // The names are the servers' own; a name that is not a plain word is
    // refused by the composition and counts as not running.
    usbmgr::CommandLine cmd =
        usbmgr::shell_command<app_util_internal::kCommandSize>("ps | grep %s | grep -v grep 2>&1", name);
    // Run by this module itself, not through the logged runner.
    usbmgr::RunResult r = usbmgr::runner().run(cmd, true);
    if (!r.started) return 0;
    // grep matches any part of a line (smbdx, an editor on smbd.conf): only
    // a line whose command is the name itself counts.
    if (!app_util_listing_runs(r.output, name)) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "check process %s exist", name);
    return 1;
}

void app_util_stop_minidllna() {
    int running = app_util_check_process("minidlnad");
    for (int pass = 0; running; ++pass) {
        if (pass == kMaxStopPasses) {
            USBMGR_TRACE(USBMGR_LOG_WARNING, "stop %s gave up after %d s", "minidlnad", kMaxStopPasses);
            return;
        }
        // Politely twice, then with signal 9.
        if (pass < 2)
            run({"killall", "minidlnad"});
        else
            run({"killall", "-9", "minidlnad"});
        usbmgr::sys_clock().sleep_us(kHalfSecond);
        running = app_util_check_process("minidlnad");
        usbmgr::sys_clock().sleep_us(kHalfSecond);
    }
}

void app_util_stop_samba() {
    int smbd = app_util_check_process("smbd");
    int total = smbd + app_util_check_process("nmbd");
    for (int pass = 0; total != 0; ++pass) {
        if (pass == kMaxStopPasses) {
            USBMGR_TRACE(USBMGR_LOG_WARNING, "stop %s gave up after %d s", "samba", kMaxStopPasses);
            return;
        }
        // Every kill hangs on smbd alone: an nmbd left on its own is only
        // polled until it goes away by itself, or the passes run out.
        if (smbd) {
            run({"killall", "smbd"});
            run({"killall", "nmbd"});
        }
        usbmgr::sys_clock().sleep_us(kHalfSecond);
        if (smbd) run({"killall", "-9", "smbd"});
        smbd = app_util_check_process("smbd");
        total = smbd + app_util_check_process("nmbd");
        usbmgr::sys_clock().sleep_us(kHalfSecond);
    }
}
