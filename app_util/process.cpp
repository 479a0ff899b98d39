// The process check and the stop loops of both servers. The loops have no
// limit: they end only when the processes are gone, as the servers' callers
// expect a stopped server when they return.
#include "app_util/app_util.h"
#include "app_util/app_util_internal.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/runner.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";
// One line of the check's output is read, at most this many characters.
constexpr std::size_t kCheckLineSize = 500;
constexpr unsigned long kHalfSecond = 500000;

void run(std::vector<std::string> argv) { db_util_exe_command(app_util_internal::server_command(std::move(argv))); }

}  // namespace

int app_util_check_process(const char* name) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "check process %s", name);
    // The names are the servers' own; a name that is not a plain word is
    // refused by the composition and counts as not running.
    usbmgr::CommandLine cmd =
        usbmgr::shell_command<app_util_internal::kCommandSize>("ps | grep %s | grep -v grep 2>&1", name);
    // Run by this module itself, not through the logged runner.
    usbmgr::RunResult r = usbmgr::runner().run(cmd, true);
    if (!r.started) return 0;
    if (usbmgr::first_line(r.output, kCheckLineSize).empty()) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "check process %s exist", name);
    return 1;
}

void app_util_stop_minidllna() {
    int running = app_util_check_process("minidlnad");
    for (int pass = 0; running; ++pass) {
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
    while (total != 0) {
        // Every kill hangs on smbd alone: an nmbd left on its own is only
        // polled until it goes away by itself.
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
