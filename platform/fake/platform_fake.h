// Test doubles of the platform libraries: the bus library records log
// lines, notifications and registrations in memory; the descriptor and
// account libraries answer from tables that a test fills.
#ifndef USBMGR_PLATFORM_FAKE_H
#define USBMGR_PLATFORM_FAKE_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "dusb_api.h"
#include "orbiil.h"
#include "orbsm.h"

namespace fake {

struct LogLine {
    int level;
    std::string module;
    int line;
    std::string text;
};

struct Notification {
    uint32_t id;
    std::vector<uint8_t> payload;
};

struct BusState {
    std::vector<LogLine> log;
    std::vector<Notification> notifications;
    std::vector<uint32_t> issued_events;
    std::vector<std::pair<std::string, uint32_t>> subscriptions;
    std::vector<OrbIilCmdEntry> commands;
    std::vector<OrbIilEvtEntry> events;
    int log_level = 4;
    bool log_open = false;
    bool running = false;
    std::string name;
    // Codes the next calls answer (0 by default).
    int init_code = 0;
    int set_cmd_code = 0;
    int set_evt_code = 0;
    int issue_code = 0;               // answered by the issue call numbered issue_fail_at
    int issue_fail_at = -1;
    int subscribe_code = 0;
    int subscribe_fail_at = -1;
    int notify_code = 0;
    int reset_code = 0;
    int running_polls = -1;  // OrbIilIsRunning answers 0 after this many polls (-1: never)
    int log_fd = -1;         // every trace line is also written here (for forked tests)
    int reset_calls = 0;
    // Runs first in every connection call (not the log calls), with the
    // call's name ("OrbIilInit", "OrbIilReset", ...): lets a test see the
    // calls of a forked daemon or act at a chosen step, e.g. raise a signal.
    std::function<void(const char* call)> on_call;
    // Runs in every notification that is sent, once it is recorded: a
    // subscriber that acts on the event as it arrives (reads the model).
    std::function<void(uint32_t id, const std::vector<uint8_t>& payload)> on_notify;
};

// The bus double's state; guarded by mutex() when threads are involved.
BusState& bus();
std::mutex& mutex();
// Clears the state (keeps nothing).
void reset();
// Log texts in order (all levels), for compact assertions. A text is kept
// as it was formatted, trailing newlines included.
std::vector<std::string> log_texts();
// Log lines in order, with level and module.
std::vector<LogLine> log_lines();
// True when some log line's text equals text.
bool logged(const std::string& text);
// True when some log line has this level, module ("usbmgrd.c", "db_util.c",
// "disk_util.c", "app_util.c") and text.
bool logged(int level, const std::string& module, const std::string& text);
// The log lines of one level and module, their texts in order.
std::vector<std::string> log_texts(int level, const std::string& module);
// Change kinds sent as event 0, in order.
std::vector<uint32_t> sent_kinds();
// Runs the installed handler of command id as the library would: zero-filled
// buffer of the declared size, request copied in. Returns the bus code.
int call_command(uint32_t id, std::vector<uint8_t>& payload);
// Delivers an event of src to the installed handler; the bus code.
int deliver_event(const std::string& src, uint32_t id, std::vector<uint8_t> payload);

// Descriptor library: the devices it reports and the summary.
struct DusbState {
    int usb_info_code = 0;
    uint8_t number_of_bus = 0;
    std::vector<DusbDeviceInfo> devices;  // matched by bus and address
    int device_queries = 0;
};
DusbState& dusb();

// Account library.
struct OrbSmState {
    int code = 0;
    std::vector<OrbSmUser> users;
};
OrbSmState& orbsm();

}  // namespace fake

#endif
