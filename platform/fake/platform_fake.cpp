#include "platform_fake.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace fake {

namespace {
BusState g_bus;
DusbState g_dusb;
OrbSmState g_orbsm;
std::recursive_mutex g_trace_mutex;
std::mutex g_mutex;
}  // namespace

BusState& bus() { return g_bus; }
std::mutex& mutex() { return g_mutex; }
DusbState& dusb() { return g_dusb; }
OrbSmState& orbsm() { return g_orbsm; }

void reset() {
    std::lock_guard<std::recursive_mutex> lock(g_trace_mutex);
    g_bus = BusState{};
    g_dusb = DusbState{};
    g_orbsm = OrbSmState{};
}

std::vector<std::string> log_texts() {
    std::lock_guard<std::recursive_mutex> lock(g_trace_mutex);
    std::vector<std::string> out;
    for (const auto& l : g_bus.log) out.push_back(l.text);
    return out;
}

std::vector<LogLine> log_lines() {
    std::lock_guard<std::recursive_mutex> lock(g_trace_mutex);
    return g_bus.log;
}

bool logged(const std::string& text) {
    for (const auto& t : log_texts())
        if (t == text) return true;
    return false;
}

bool logged(int level, const std::string& module, const std::string& text) {
    for (const auto& l : log_lines())
        if (l.level == level && l.module == module && l.text == text) return true;
    return false;
}

std::vector<std::string> log_texts(int level, const std::string& module) {
    std::vector<std::string> out;
    for (const auto& l : log_lines())
        if (l.level == level && l.module == module) out.push_back(l.text);
    return out;
}

std::vector<uint32_t> sent_kinds() {
    std::lock_guard<std::recursive_mutex> lock(g_trace_mutex);
    std::vector<uint32_t> out;
    for (const auto& n : g_bus.notifications) {
        uint32_t k = 0;
        if (n.id == 0 && n.payload.size() == 4) {
            std::memcpy(&k, n.payload.data(), 4);
            out.push_back(k);
        }
    }
    return out;
}

int call_command(uint32_t id, std::vector<uint8_t>& payload) {
    for (const auto& e : g_bus.commands) {
        if (e.id != id) continue;
        if (payload.size() > e.size) return ORBIIL_MISMATCH_CMD_LEN;
        payload.resize(e.size, 0);
        e.handler(nullptr, id, e.size, payload.data());
        return ORBIIL_OK;
    }
    payload.clear();
    return ORBIIL_UNKNOWN_CMD;
}

int deliver_event(const std::string& src, uint32_t id, std::vector<uint8_t> payload) {
    for (const auto& e : g_bus.events) {
        if (src == e.src && e.id == id) {
            e.handler(nullptr, id, static_cast<uint32_t>(payload.size()), payload.data());
            return ORBIIL_OK;
        }
    }
    return ORBIIL_UNKNOWN_EVT;
}

}  // namespace fake

using fake::g_bus;

namespace {
void called(const char* name) {
    if (g_bus.on_call) g_bus.on_call(name);
}
}  // namespace

extern "C" {

int OrbIilInitLog(const char*) {
    g_bus.log_open = true;
    return 1;
}

void OrbIilSetLogLevel(int level) { g_bus.log_level = level; }

void OrbIilTrace(int level, const char* module, int line, const char* fmt, ...) {
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    // Kept as formatted: a text that must end in a newline is checked for it.
    const std::string text(buf);
    std::lock_guard<std::recursive_mutex> lock(fake::g_trace_mutex);
    g_bus.log.push_back({level, module ? module : "", line, text});
    if (g_bus.log_fd >= 0) {
        std::string shown = text;
        while (!shown.empty() && shown.back() == '\n') shown.pop_back();
        std::string out = std::to_string(getpid()) + " " + std::to_string(level) + " " + shown + "\n";
        (void)!write(g_bus.log_fd, out.data(), out.size());
    }
}

void OrbIilResetLog(void) { g_bus.log_open = false; }

int OrbIilInit(OrbIilHandle* handle, const char* name) {
    called("OrbIilInit");
    if (handle) std::memset(handle, 0, sizeof *handle);
    g_bus.name = name ? name : "";
    if (g_bus.init_code == 0) g_bus.running = true;
    return g_bus.init_code;
}

int OrbIilSetCmdHandler(OrbIilHandle*, const OrbIilCmdEntry* table, uint32_t count) {
    called("OrbIilSetCmdHandler");
    if (g_bus.set_cmd_code) return g_bus.set_cmd_code;
    g_bus.commands.assign(table, table + count);
    return 0;
}

int OrbIilSetEvtHandler(OrbIilHandle*, const OrbIilEvtEntry* table, uint32_t count) {
    called("OrbIilSetEvtHandler");
    if (g_bus.set_evt_code) return g_bus.set_evt_code;
    g_bus.events.assign(table, table + count);
    return 0;
}

int OrbIilIssueEvent(OrbIilHandle*, uint32_t id, uint32_t len) {
    called("OrbIilIssueEvent");
    if (static_cast<int>(g_bus.issued_events.size()) == g_bus.issue_fail_at) return g_bus.issue_code;
    if (len != 4) return ORBIIL_BAD_PARAM;
    g_bus.issued_events.push_back(id);
    return 0;
}

int OrbIilSubscribeEvent(OrbIilHandle*, const char* src, uint32_t id) {
    called("OrbIilSubscribeEvent");
    if (static_cast<int>(g_bus.subscriptions.size()) == g_bus.subscribe_fail_at) return g_bus.subscribe_code;
    g_bus.subscriptions.emplace_back(src, id);
    return 0;
}

int OrbIilNotify(OrbIilHandle*, uint32_t id, uint32_t len, const void* payload) {
    called("OrbIilNotify");
    std::function<void(uint32_t, const std::vector<uint8_t>&)> subscriber;
    std::vector<uint8_t> sent;
    {
        std::lock_guard<std::recursive_mutex> lock(fake::g_trace_mutex);
        if (g_bus.notify_code) return g_bus.notify_code;
        const auto* p = static_cast<const uint8_t*>(payload);
        sent.assign(p, p + len);
        g_bus.notifications.push_back({id, sent});
        subscriber = g_bus.on_notify;
    }
    if (subscriber) subscriber(id, sent);
    return 0;
}

int OrbIilExecute(OrbIilHandle*, const char*, uint32_t, const void*, uint32_t, void*, uint32_t, uint32_t* reply_len) {
    if (reply_len) *reply_len = 0;
    return ORBIIL_UNKNOWN_DST_ID;
}

int OrbIilIsRunning(OrbIilHandle*) {
    called("OrbIilIsRunning");
    if (g_bus.running_polls == 0) g_bus.running = false;
    if (g_bus.running_polls > 0) --g_bus.running_polls;
    return g_bus.running ? 1 : 0;
}

int OrbIilReset(OrbIilHandle*) {
    called("OrbIilReset");
    ++g_bus.reset_calls;
    g_bus.running = false;
    return g_bus.reset_code;
}

int ApiGetUsbInfo(OrbIilHandle*, uint32_t len, void* info) {
    if (len < DUSB_USB_INFO_SIZE) return 1;
    if (fake::g_dusb.usb_info_code) return fake::g_dusb.usb_info_code;
    auto* s = static_cast<DusbUsbInfo*>(info);
    s->number_of_bus = fake::g_dusb.number_of_bus;
    return 0;
}

int ApiGetUsbDeviceInfo(OrbIilHandle*, uint32_t len, void* info) {
    if (len < DUSB_DEVICE_INFO_SIZE) return 1;
    auto* rec = static_cast<DusbDeviceInfo*>(info);
    fake::g_dusb.device_queries++;
    for (const auto& d : fake::g_dusb.devices) {
        if (d.bus == rec->bus && d.address == rec->address) {
            *rec = d;
            return 0;
        }
    }
    return 1;
}

int OrbSmGetAllUser(OrbIilHandle*, int* count, OrbSmUser* users) {
    if (fake::g_orbsm.code) return fake::g_orbsm.code;
    int n = 0;
    for (const auto& u : fake::g_orbsm.users) {
        if (n >= *count) break;
        users[n++] = u;
    }
    *count = n;
    return 0;
}

}  // extern "C"
