// The round trip of the model read commands 15, 20 and 21 through the host
// bus library (D-Bus, on a private dbus-daemon this program starts) against
// a bare echo of the same payload size on the same bus: a second server on
// the same library whose handler returns the buffer as it came. Both are
// called by the same client connection, in turns, so that the noise of a
// shared machine falls on both alike; the figure is the ratio of the median
// round trips. Everything (client, both servers, dbus-daemon) runs on one
// CPU: on the 2-core machine, wake-ups across CPUs made one side or the
// other twice as slow for a whole run, whichever it was.
//
// The daemon side is the daemon's own command table (typed dispatch,
// "cmd - NAME" at DEBUG, the daemon lock, the model read) over a model of
// one disk with one volume of ten folders. The log is measured at the
// daemon's default level (ERROR: the entry line is not written) and at
// DEBUG with the log in a file.
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_support.h"
#include "db_util/bus_handle.h"
#include "db_util/lock.h"
#include "db_util/runner.h"
#include "orbiil.h"
#include "proto/payload.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char kDaemon[] = "USBMGR_DMON";
constexpr const char kEcho[] = "BENCH_ECHO";
constexpr const char kClient[] = "BENCH_CLIENT";
constexpr const char kLog[] = "/tmp/bench_bus_reads.log";
constexpr int kCalls = 5000;  // calls a side and command
constexpr int kWarmup = 200;

int echo_handler(OrbIilHandle*, uint32_t, uint32_t, void*) { return 0; }

const OrbIilCmdEntry kEchoTable[] = {
    {15, echo_handler, sizeof(CmdStorageService)},
    {20, echo_handler, sizeof(CmdPhysicalMedium)},
    {21, echo_handler, sizeof(CmdLogicalVolume)},
};

// A dbus-daemon of our own, ended with this program.
struct PrivateBus {
    pid_t pid = -1;
    std::string address;

    bool start() {
        FILE* p = popen("dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=1", "r");
        if (!p) return false;
        char line[512];
        if (fgets(line, sizeof line, p)) address.assign(line, strcspn(line, "\n"));
        if (fgets(line, sizeof line, p)) pid = static_cast<pid_t>(std::atol(line));
        pclose(p);
        return !address.empty() && pid > 0;
    }
    ~PrivateBus() {
        if (pid > 0) kill(pid, SIGTERM);
    }
};

struct Stats {
    double median_us = 0;
    double mean_us = 0;
    double p99_us = 0;
};

Stats stats(std::vector<double> v) {
    Stats s;
    if (v.empty()) return s;
    std::sort(v.begin(), v.end());
    s.median_us = v[v.size() / 2];
    s.p99_us = v[std::min(v.size() - 1, v.size() * 99 / 100)];
    double sum = 0;
    for (double x : v) sum += x;
    s.mean_us = sum / static_cast<double>(v.size());
    return s;
}

OrbIilHandle g_client;
OrbIilHandle g_echo;

// One call; false when the bus or the answer failed.
bool call(const char* dst, uint32_t id, const std::vector<uint8_t>& request, std::vector<uint8_t>& reply) {
    uint32_t len = 0;
    int code = OrbIilExecute(&g_client, dst, id, request.data(), static_cast<uint32_t>(request.size()), reply.data(),
                             static_cast<uint32_t>(reply.size()), &len);
    return code == ORBIIL_OK && len == request.size();
}

template <typename Payload>
std::vector<uint8_t> request_for() {
    Payload p{};
    p.service = 0;
    if constexpr (requires { p.slot; }) p.slot = 0;
    std::vector<uint8_t> out(sizeof p);
    std::memcpy(out.data(), &p, sizeof p);
    return out;
}

// Calls to the daemon and to the echo in turns (which goes first changes
// every pair), so that the load of a shared machine falls on both alike;
// every call's round trip in microseconds.
bool measure(uint32_t id, const std::vector<uint8_t>& request, std::vector<double>& daemon, std::vector<double>& echo) {
    std::vector<uint8_t> reply(request.size());
    for (int i = 0; i < kWarmup; ++i)
        if (!call(kDaemon, id, request, reply) || !call(kEcho, id, request, reply)) return false;
    for (int i = 0; i < kCalls; ++i) {
        for (int side = 0; side < 2; ++side) {
            const bool to_daemon = (side == 0) == (i % 2 == 0);
            Clock::time_point t0 = Clock::now();
            if (!call(to_daemon ? kDaemon : kEcho, id, request, reply)) return false;
            (to_daemon ? daemon : echo).push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        }
    }
    return true;
}

struct Row {
    uint32_t id;
    const char* name;
    std::vector<uint8_t> request;
};

bool run_all(const std::vector<Row>& rows, const char* title, double* worst) {
    std::printf("%s\n", title);
    std::printf("  %-4s %-28s %6s  %13s  %13s  %6s  %s\n", "cmd", "", "bytes", "daemon median", "echo median",
                "ratio", "(means; p99 daemon/echo)");
    for (const Row& r : rows) {
        std::vector<double> d, e;
        if (!measure(r.id, r.request, d, e)) {
            std::printf("  %-4u %-28s call failed\n", r.id, r.name);
            return false;
        }
        Stats sd = stats(d), se = stats(e);
        double ratio = sd.median_us / se.median_us;
        *worst = std::max(*worst, ratio);
        std::printf("  %-4u %-28s %6zu  %10.1f us  %10.1f us  %6.3f  (%.1f/%.1f us; %.0f/%.0f us)\n", r.id, r.name,
                    r.request.size(), sd.median_us, se.median_us, ratio, sd.mean_us, se.mean_us, sd.p99_us, se.p99_us);
    }
    return true;
}

}  // namespace

int main() {
    if (!bench_support::isolate()) {
        std::fprintf(stderr, "bench_bus_reads: needs root or user namespaces for a private /tmp and /var\n");
        return 1;
    }
    // One CPU, the last this program may use; the dbus-daemon inherits it.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    int cpu = -1;
    if (sched_getaffinity(0, sizeof cpus, &cpus) == 0)
        for (int c = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &cpus)) cpu = c;
    if (cpu >= 0) {
        CPU_ZERO(&cpus);
        CPU_SET(cpu, &cpus);
        if (sched_setaffinity(0, sizeof cpus, &cpus) == 0) std::printf("on CPU %d alone\n", cpu);
    }
    PrivateBus bus;
    if (!bus.start()) {
        std::fprintf(stderr, "bench_bus_reads: could not start a private dbus-daemon\n");
        return 1;
    }
    setenv("ORBIIL_BUS_ADDRESS", bus.address.c_str(), 1);
    setenv("ORBIIL_LOG_FILE", kLog, 1);
    OrbIilInitLog("usbmgr");
    OrbIilSetLogLevel(ORBIIL_LOG_ERROR);

    // The model the reads answer from: one disk, one volume, ten folders.
    bench_support::WorldRunner runner;
    bench_support::use_settings();
    usbmgr::set_runner(&runner);
    bench_support::reset_daemon_state();
    bench_support::plug_world(runner, 1, 1, 10);
    {
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_build();
    }

    if (OrbIilInit(&usbmgr_iil_handle, kDaemon) != ORBIIL_OK ||
        OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT) != ORBIIL_OK ||
        OrbIilInit(&g_echo, kEcho) != ORBIIL_OK ||
        OrbIilSetCmdHandler(&g_echo, kEchoTable, sizeof kEchoTable / sizeof kEchoTable[0]) != ORBIIL_OK ||
        OrbIilInit(&g_client, kClient) != ORBIIL_OK) {
        std::fprintf(stderr, "bench_bus_reads: could not connect to the private bus %s\n", bus.address.c_str());
        return 1;
    }

    const std::vector<Row> rows = {
        {15, "StorageService", request_for<CmdStorageService>()},
        {20, "PhysicalMedium", request_for<CmdPhysicalMedium>()},
        {21, "LogicalVolume", request_for<CmdLogicalVolume>()},
    };
    // The daemon answers for real: status 0 and the model's fields.
    {
        std::vector<uint8_t> reply(sizeof(CmdLogicalVolume));
        if (!call(kDaemon, 21, rows[2].request, reply)) return 1;
        CmdLogicalVolume lv;
        std::memcpy(&lv, reply.data(), sizeof lv);
        std::printf("command 21 answers status %d, volume %s, %u folder entries\n", lv.status, lv.Name,
                    lv.FolderNumberOfEntries);
        if (lv.status != 0) return 1;
    }

    double worst = 0, worst_debug = 0;
    std::printf("%d calls a side and command, daemon and echo in turns\n", kCalls);
    bool ok = run_all(rows, "log level ERROR (the daemon's default)", &worst);
    OrbIilSetLogLevel(ORBIIL_LOG_DEBUG);
    ok = ok && run_all(rows, "log level DEBUG (\"cmd - NAME\" written to a log file)", &worst_debug);
    OrbIilSetLogLevel(ORBIIL_LOG_ERROR);

    OrbIilReset(&g_client);
    OrbIilReset(&g_echo);
    OrbIilReset(&usbmgr_iil_handle);
    if (!ok) return 1;
    std::printf("read commands / bare echo, worst of 15, 20, 21: %.3f (log ERROR), %.3f (log DEBUG)\n", worst,
                worst_debug);
    return 0;
}
