// How much a rebuild of the storage service model adds to the commands it
// runs: usbmgr_tr140_db_build with 25 volumes of 100 folders each (the
// tables full: 25 disks of one partition) against the same df and mount
// command lines run alone through the same runner. Every command costs one
// real start of /bin/true; the folders are real folders in a private tmpfs.
// The log is the host bus library's, at the daemon's default level (ERROR),
// so the tree print is formatted only in the DEBUG run. A third run answers
// every command without starting a program: what remains is the builder's
// own work.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "db_util/runner.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDisks = 25;
constexpr int kRounds = 11;
constexpr int kFolders = 100;
constexpr const char kDebugLog[] = "/tmp/bench_model_build.log";

bench_support::WorldRunner g_runner;
std::vector<usbmgr::CommandLine> g_commands;
int g_volumes = 0;

void build() {
    usbmgr::DaemonLock lock;
    usbmgr_tr140_db_build();
}

// The command lines one build runs, as the builder composed them; every one
// is a shell line (a pipe into grep).
std::vector<usbmgr::CommandLine> record_commands() {
    g_runner.clear_texts();
    build();
    std::vector<usbmgr::CommandLine> out;
    for (const auto& t : g_runner.texts()) out.push_back(usbmgr::CommandLine::shell(t));
    return out;
}

double ms_since(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

double timed_build(int level, bool start_programs) {
    OrbIilSetLogLevel(level);
    g_runner.set_start_programs(start_programs);
    g_runner.clear_texts();
    truncate(kDebugLog, 0);
    Clock::time_point t0 = Clock::now();
    build();
    double t = ms_since(t0);
    g_runner.set_start_programs(true);
    OrbIilSetLogLevel(ORBIIL_LOG_ERROR);
    return t;
}

double thread_cpu_ms() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// The builder's own work on this thread's CPU clock, which the load of
// other processes does not stretch.
double cpu_of_own_work() {
    g_runner.set_start_programs(false);
    g_runner.clear_texts();
    double c0 = thread_cpu_ms();
    build();
    double c = thread_cpu_ms() - c0;
    g_runner.set_start_programs(true);
    return c;
}

double timed_commands_alone() {
    g_runner.clear_texts();
    Clock::time_point t0 = Clock::now();
    for (const auto& c : g_commands) usbmgr::runner().run(c, /*capture=*/true);
    return ms_since(t0);
}

// What the builder spends naming folders: for every volume, each folder by
// its index, as the builder asks for them (every call lists the volume's
// folder from its start).
// Naming every folder of every volume: one index at a time (each name reads
// the volume's folder from its start), or from one read of each volume, as
// the builder does.
double timed_folder_names(bool by_index) {
    const tr140_storage_service& s = usbmgr_tr140_db[0];
    Clock::time_point t0 = Clock::now();
    for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i) {
        char volume[16] = {};
        disk_util_get_volume_name_by_index(static_cast<int>(i), volume, sizeof volume);
        if (!by_index) {
            std::vector<std::string> names = disk_util_get_folder_names(volume);
            continue;
        }
        for (int j = 0; j < kFolders; ++j) {
            char name[100] = {};
            disk_util_get_folder_name_by_index(j, volume, name, sizeof name);
        }
    }
    return ms_since(t0);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main() {
    if (!bench_support::isolate()) {
        std::fprintf(stderr, "bench_model_build: needs root or user namespaces for a private /tmp and /var\n");
        return 1;
    }
    setenv("ORBIIL_LOG_FILE", kDebugLog, 1);
    OrbIilInitLog("usbmgr");
    bench_support::use_settings();
    usbmgr::set_runner(&g_runner);
    bench_support::reset_daemon_state();
    g_volumes = bench_support::plug_world(g_runner, kDisks, 1, kFolders);
    g_commands = record_commands();
    const tr140_storage_service& s = usbmgr_tr140_db[0];
    uint32_t folders = 0;
    for (uint32_t i = 0; i < s.LogicalVolumeNumberOfEntries; ++i) folders += s.LogicalVolume[i].FolderNumberOfEntries;
    std::printf("model: %u disks, %u volumes, %u folder entries (roots included), %zu commands a build\n",
                s.PhysicalMediumNumberOfEntries, s.LogicalVolumeNumberOfEntries, folders, g_commands.size());
    if (static_cast<int>(s.LogicalVolumeNumberOfEntries) != g_volumes) {
        std::fprintf(stderr, "bench_model_build: the model has %u volumes, %d plugged\n", s.LogicalVolumeNumberOfEntries,
                     g_volumes);
        return 1;
    }

    // Rounds of the four runs one after the other, so that a change of the
    // machine's load falls on all of them; the figures are medians.
    std::vector<double> builds, alone, own, debug, ratios, names, names_by_index, own_cpu;
    timed_build(ORBIIL_LOG_ERROR, true);  // warm-up
    for (int r = 0; r < kRounds; ++r) {
        builds.push_back(timed_build(ORBIIL_LOG_ERROR, true));
        alone.push_back(timed_commands_alone());
        own.push_back(timed_build(ORBIIL_LOG_ERROR, false));
        debug.push_back(timed_build(ORBIIL_LOG_DEBUG, true));
        names.push_back(timed_folder_names(false));
        names_by_index.push_back(timed_folder_names(true));
        own_cpu.push_back(cpu_of_own_work());
        ratios.push_back(builds.back() / alone.back());
    }
    const double build_ms = median(builds), alone_ms = median(alone), own_ms = median(own), debug_ms = median(debug);
    std::printf("%d rounds, medians:\n", kRounds);
    std::printf("model build (%zu commands): %.1f ms, its commands alone: %.1f ms (%.2f ms a command)\n",
                g_commands.size(), build_ms, alone_ms, alone_ms / static_cast<double>(g_commands.size()));
    std::printf("the builder's own work (commands answered without starting a program): %.1f ms (%.1f ms of CPU)\n",
                own_ms, median(own_cpu));
    std::printf("  of which naming the %d folders from one read of each volume: %.1f ms (one index at a time: %.1f ms)\n",
                g_volumes * kFolders, median(names), median(names_by_index));
    std::printf("with the DEBUG log written to a file: %.1f ms\n", debug_ms);
    std::printf("model build / commands alone = %.2f (median of the rounds' ratios %.2f; %.2f to %.2f)\n",
                build_ms / alone_ms, median(ratios), *std::min_element(ratios.begin(), ratios.end()),
                *std::max_element(ratios.begin(), ratios.end()));
    std::printf("(commands alone + own work) / commands alone = %.2f; with the DEBUG log: %.2f\n",
                (alone_ms + own_ms) / alone_ms, debug_ms / alone_ms);
    return 0;
}
