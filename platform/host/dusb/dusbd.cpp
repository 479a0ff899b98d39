// dusbd: the host's hot-plug daemon. Reads the kernel's uevents (or a file
// of them), finds the USB disks and ttyUSB adapters in sysfs, keeps the
// port files of /tmp/usb and sends the hot-plug events of DUSB_DMON.
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "collector.h"
#include "dusbd_log.h"
#include "event_sender.h"
#include "port_files.h"
#include "uevent_source.h"

namespace {

constexpr const char kPortDir[] = "/tmp/usb";
constexpr const char kDefaultSysfs[] = "/sys";
constexpr long kDefaultSettleMs = 500;
constexpr int kBusPollMs = 500;

const char kUsage[] =
    "usage: dusbd [--uevents FILE] [--settle-ms N] [--log-level 0-4]\n"
    "  The host's hot-plug daemon: owns org.orbiil.DUSB_DMON and sends its events\n"
    "  0 (disk arrival), 7 (disk removal), 6 and 13 (ttyUSB arrival and removal)\n"
    "  with the 282-byte device record, keeping the port files of /tmp/usb.\n"
    "  --uevents FILE  read uevents from FILE (a file or FIFO) as blocks of KEY=VALUE\n"
    "                  lines separated by an empty line (udevadm monitor --kernel\n"
    "                  --property); without it, the kernel's netlink uevents\n"
    "                  (kernel group, no udev). At the end of FILE dusbd tells the\n"
    "                  disks still settling and leaves.\n"
    "  --settle-ms N   how long a disk must be quiet before it is told (500)\n"
    "  --log-level N   0 quiet ... 4 debug (3)\n"
    "  Environment: DUSB_SYSFS_ROOT (sysfs root, default /sys), ORBIIL_BUS_ADDRESS,\n"
    "  ORBIIL_LOG_FILE.\n";

std::atomic<bool> g_stop{false};

void on_signal(int) { g_stop = true; }

bool parse_long(const char* text, long lo, long hi, long& out) {
    char* end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < lo || v > hi) return false;
    out = v;
    return true;
}

int usage_error(const char* what, const char* arg) {
    std::fprintf(stderr, "dusbd: %s '%s'\n%s", what, arg, kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string uevents;
    long settle_ms = kDefaultSettleMs;
    long level = ORBIIL_LOG_INFO;
    for (int i = 1; i < argc; ++i) {
        const char* opt = argv[i];
        if (std::strcmp(opt, "--help") == 0 || std::strcmp(opt, "-h") == 0) {
            std::printf("%s", kUsage);
            return 0;
        }
        if (i + 1 >= argc) return usage_error("option needs a value:", opt);
        const char* val = argv[++i];
        if (std::strcmp(opt, "--uevents") == 0) {
            uevents = val;
        } else if (std::strcmp(opt, "--settle-ms") == 0) {
            if (!parse_long(val, 0, 60000, settle_ms)) return usage_error("bad --settle-ms", val);
        } else if (std::strcmp(opt, "--log-level") == 0) {
            if (!parse_long(val, 0, 4, level)) return usage_error("bad --log-level", val);
        } else {
            return usage_error("unknown option", opt);
        }
    }

    OrbIilInitLog("dusbd");
    OrbIilSetLogLevel(static_cast<int>(level));
    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const char* root_env = std::getenv("DUSB_SYSFS_ROOT");
    const std::string root = root_env && root_env[0] ? root_env : kDefaultSysfs;

    dusb::PortFiles ports(kPortDir);
    dusb::EventSender sender(ports);
    if (sender.open() != ORBIIL_OK) return 1;
    dusb::Collector collector(root, sender, std::chrono::milliseconds(settle_ms));

    dusb::UeventSource source;
    const bool from_file = !uevents.empty();
    if (from_file ? !source.open_file(uevents) : !source.open_netlink()) return 1;
    DUSBD_LOG(ORBIIL_LOG_INFO, "dusbd started: uevents from %s, sysfs at %s",
              from_file ? uevents.c_str() : "the kernel", root.c_str());
    // Listening already, so nothing falls between the scan and the first read.
    collector.scan_present(dusb::Clock::now());

    bool input_open = true;
    while (!g_stop && sender.running()) {
        auto now = dusb::Clock::now();
        collector.tick(now);
        auto due = collector.next_deadline();
        if (!input_open && !due) break;  // the file is read and every disk told
        int timeout = kBusPollMs;
        if (due) {
            auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(*due - now).count() + 1;
            timeout = static_cast<int>(std::clamp<long long>(wait, 0, kBusPollMs));
        }
        pollfd pfd{input_open ? source.fd() : -1, POLLIN, 0};
        int rc = poll(&pfd, 1, timeout);
        if (rc <= 0 || !(pfd.revents & (POLLIN | POLLHUP | POLLERR))) continue;
        std::vector<dusb::Uevent> events;
        if (!source.read(events)) input_open = false;
        now = dusb::Clock::now();
        for (const auto& ev : events) {
            DUSBD_LOG(ORBIIL_LOG_DEBUG, "uevent %s %s (%s)", ev.action.c_str(), ev.devpath.c_str(),
                      ev.subsystem.c_str());
            collector.handle(ev, now);
        }
        if (!input_open && !from_file) break;  // the socket failed for good
    }
    DUSBD_LOG(ORBIIL_LOG_INFO, "dusbd stops");
    return 0;
}
