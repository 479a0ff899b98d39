// How much the arrival handler adds to the commands it has to run: the
// handler for a disk with four partitions against the same node and mount
// command lines run alone through the same runner. Every command costs one
// real start of /bin/true; the bus is the in-memory double, so logging is
// cheap and what remains is the handler's own work (tables, history file,
// folders, command composition).
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_support.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

namespace {

bench_support::TrueRunner g_runner;

DusbDeviceRecord four_partition_disk() {
    DusbDeviceRecord r{};
    r.Index = 1;
    r.ArrivedOrLeft = 1;
    r.ProductID = 0x5581;
    r.VendorID = 0x0781;
    r.DeviceClass = 0x08;
    r.DeviceSubClass = 0x06;
    r.DeviceProtocol = 0x50;
    usbmgr::copy_str(r.AttachDevice, "sda,sda1,sda2,sda3,sda4");
    usbmgr::copy_str(r.USBVersion, "3.00");
    r.DeviceVersion = 256;
    usbmgr::copy_str(r.Manufacturer, "SanDisk");
    usbmgr::copy_str(r.ProductClass, "Extreme");
    usbmgr::copy_str(r.SerialNumber, "4C530001230517115223");
    return r;
}

void run_arrival() {
    DusbDeviceRecord rec = four_partition_disk();
    usbmgr_evt_new_storage_interface(nullptr, 0, sizeof rec, &rec);
}

// The node and mount command lines one arrival runs, as the handler
// composed them (the history hand-off left out).
struct Recorded {
    std::vector<usbmgr::CommandLine> mount_related;
    std::size_t all = 0;
};

Recorded record_commands() {
    bench_support::reset_daemon_state();
    g_runner.clear();
    run_arrival();
    Recorded out;
    auto texts = g_runner.texts();
    out.all = texts.size();
    for (const auto& t : texts) {
        if (t.rfind("orbcm_util", 0) == 0) continue;
        usbmgr::CommandLine c;
        if (t.find('|') != std::string::npos) {
            c = usbmgr::CommandLine::shell(t);
        } else {
            std::vector<std::string> argv;
            std::size_t pos = 0;
            while (pos <= t.size()) {
                std::size_t sp = t.find(' ', pos);
                if (sp == std::string::npos) sp = t.size();
                argv.push_back(t.substr(pos, sp - pos));
                pos = sp + 1;
            }
            c = usbmgr::CommandLine::exec(argv);
        }
        out.mount_related.push_back(c);
    }
    return out;
}

Recorded g_recorded;

void BM_ArrivalHandler(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        bench_support::reset_daemon_state();
        g_runner.clear();
        fake::reset();
        state.ResumeTiming();
        run_arrival();
    }
    state.counters["commands"] = static_cast<double>(g_recorded.all);
}

void BM_MountCommandsAlone(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        g_runner.clear();
        state.ResumeTiming();
        for (const auto& c : g_recorded.mount_related) {
            // Checks read the output, mount itself lets it through.
            bool capture = c.argv.empty() || c.argv[0] != "mount";
            usbmgr::runner().run(c, capture);
        }
    }
    state.counters["commands"] = static_cast<double>(g_recorded.mount_related.size());
}

BENCHMARK(BM_ArrivalHandler)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_MountCommandsAlone)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// Keeps the mean real time of each benchmark for the ratio.
class KeepTimes : public benchmark::ConsoleReporter {
public:
    // Colour only on a terminal: run.sh output is read in logs.
    KeepTimes() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs)
            if (r.run_type == Run::RT_Iteration) times[r.run_name.function_name] = r.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    if (!bench_support::isolate()) {
        std::fprintf(stderr, "bench_arrival: needs root or user namespaces for a private /tmp and /var\n");
        return 1;
    }
    bench_support::use_settings();
    usbmgr::set_runner(&g_runner);
    // The handler arms the real 900 ms alarm; nothing here waits for it.
    signal(SIGALRM, SIG_IGN);
    g_recorded = record_commands();

    benchmark::Initialize(&argc, argv);
    KeepTimes reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    auto handler = reporter.times.find("BM_ArrivalHandler");
    auto alone = reporter.times.find("BM_MountCommandsAlone");
    if (handler == reporter.times.end() || alone == reporter.times.end() || alone->second <= 0) return 0;
    std::printf("arrival handler (%zu commands): %.3f ms, mount commands alone (%zu): %.3f ms\n", g_recorded.all,
                handler->second, g_recorded.mount_related.size(), alone->second);
    std::printf("arrival handler / mount commands alone = %.2f\n", handler->second / alone->second);
    return 0;
}
