// The delay from the last storage event of a burst to its notifications,
// with the real one-shot alarm (ualarm), the SIGALRM handler and the
// deferred worker thread as the daemon runs them. Three arrivals 300 ms
// apart keep re-arming the 900 ms alarm, so the notifications should all
// come together about 900 ms after the last arrival. Every command costs one
// real start of /bin/true; the bus is the in-memory double, watched by
// polling the notifications it recorded.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "db_util/clock.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 5;
constexpr int kBurst = 3;
constexpr auto kGap = std::chrono::milliseconds(300);
constexpr double kDeferralMs = 900.0;
constexpr auto kGiveUp = std::chrono::seconds(5);

bench_support::TrueRunner g_runner;

DusbDeviceRecord disk(int n) {
    DusbDeviceRecord r{};
    r.Index = static_cast<uint8_t>(n);
    r.ArrivedOrLeft = 1;
    char list[64];
    usbmgr::format_str(list, "sd%c,sd%c1", 'a' + n, 'a' + n);
    usbmgr::copy_str(r.AttachDevice, list);
    usbmgr::copy_str(r.USBVersion, "2.00");
    usbmgr::copy_str(r.Manufacturer, "Generic");
    usbmgr::copy_str(r.ProductClass, "Flash Disk");
    char serial[64];
    usbmgr::format_str(serial, "SERIAL%02d", n);
    usbmgr::copy_str(r.SerialNumber, serial);
    return r;
}

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Round {
    double delay_ms = -1;         // last event delivered -> all notifications seen
    double last_handler_ms = 0;   // how long the last handler itself took
    std::size_t early = 0;        // notifications seen before the last event
    std::size_t sent = 0;
};

Round run_round() {
    Round out;
    {
        usbmgr::DaemonLock lock;
        bench_support::reset_daemon_state();
    }
    g_runner.clear();
    fake::reset();

    Clock::time_point last_event;
    for (int i = 0; i < kBurst; ++i) {
        if (i > 0) std::this_thread::sleep_for(kGap);
        DusbDeviceRecord rec = disk(i);
        if (i == kBurst - 1) {
            out.early = fake::sent_kinds().size();
            last_event = Clock::now();
        }
        usbmgr_evt_new_storage_interface(nullptr, 0, sizeof rec, &rec);
        if (i == kBurst - 1) out.last_handler_ms = ms(Clock::now() - last_event);
    }
    // Tight poll: the moment the count reaches the burst is the moment the
    // last notification went out.
    for (;;) {
        std::size_t n = fake::sent_kinds().size();
        Clock::time_point now = Clock::now();
        if (n >= static_cast<std::size_t>(kBurst)) {
            out.delay_ms = ms(now - last_event);
            out.sent = n;
            break;
        }
        if (now - last_event > kGiveUp) {
            out.sent = n;
            break;
        }
    }
    return out;
}

}  // namespace

int main() {
    if (!bench_support::isolate()) {
        std::fprintf(stderr, "bench_notify_delay: needs root or user namespaces for a private /tmp and /var\n");
        return 1;
    }
    bench_support::use_settings();
    usbmgr::set_runner(&g_runner);
    usbmgr::set_clock(nullptr);  // the real ualarm

    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = usbmgr_alarm_handler;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, nullptr);
    if (usbmgr_deferred_init() != 1) {
        std::fprintf(stderr, "bench_notify_delay: deferred worker did not start\n");
        return 1;
    }

    std::vector<double> delays;
    for (int r = 0; r < kRounds; ++r) {
        Round round = run_round();
        if (round.delay_ms < 0) {
            std::printf("round %d: only %zu of %d notifications within %lld s\n", r + 1, round.sent, kBurst,
                        static_cast<long long>(kGiveUp.count()));
            continue;
        }
        std::printf("round %d: %d arrivals %lld ms apart, %zu notifications before the last one, "
                    "last handler %.1f ms, delay %.1f ms\n",
                    r + 1, kBurst, static_cast<long long>(kGap.count()), round.early, round.last_handler_ms,
                    round.delay_ms);
        delays.push_back(round.delay_ms);
        // Let the worker finish its flush before the next burst.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (delays.empty()) return 1;
    double sum = 0;
    for (double d : delays) sum += d;
    double mean = sum / static_cast<double>(delays.size());
    std::printf("delay from last event to notifications: %.0f ms (deferral %.0f ms, ratio %.2f)\n", mean, kDeferralMs,
                mean / kDeferralMs);
    return 0;
}
