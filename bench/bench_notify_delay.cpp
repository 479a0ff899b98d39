// The delay from the last storage event of a burst to its notifications,
// and how many server reloads the burst causes, with the real one-shot
// alarm (ualarm), the SIGALRM handler and the deferred worker thread as the
// daemon runs them. Arrivals 300 ms apart keep re-arming the 900 ms alarm,
// so there should be one reload and one flush, starting about 900 ms after
// the last arrival; the reload itself then waits its fixed pauses (one
// second before MiniDLNA starts again) before the flush sends the kinds.
//
// Bursts of 3, 9 and 10 arrivals: the ring of change kinds holds at most
// nine pending kinds, and the tenth write leaves it empty, so a burst of ten
// sends nothing. Samba and MiniDLNA are enabled; every command costs one
// real start of /bin/true; the bus is the in-memory double, watched by
// polling the notifications it recorded.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
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

constexpr auto kGap = std::chrono::milliseconds(300);
constexpr double kDeferralMs = 900.0;
// What the reload waits on purpose: MiniDLNA is started again one second
// after it was stopped (Samba waits only when smbd was running; here the
// process checks find nothing).
constexpr double kReloadPauseMs = 1000.0;
constexpr auto kGiveUp = std::chrono::seconds(6);
constexpr auto kSettle = std::chrono::milliseconds(300);
constexpr const char kSambaStart[] = "/bin/smbd";
constexpr const char kMiniDlnaStart[] = "/sbin/minidlnad";

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
    double delay_ms = -1;        // last event delivered -> all notifications seen
    double reload_ms = -1;       // last event delivered -> MiniDLNA started again (the reload's last step)
    double last_handler_ms = 0;  // how long the last handler itself took
    std::size_t early = 0;       // notifications seen before the last event
    std::size_t early_reloads = 0;
    std::size_t sent = 0;        // notifications in all
    std::size_t not_kind0 = 0;
    std::size_t samba_reloads = 0;
    std::size_t minidlna_reloads = 0;
};

Round run_round(int burst) {
    Round out;
    {
        usbmgr::DaemonLock lock;
        bench_support::reset_daemon_state();
    }
    g_runner.clear();
    fake::reset();

    Clock::time_point last_event;
    for (int i = 0; i < burst; ++i) {
        if (i > 0) std::this_thread::sleep_for(kGap);
        DusbDeviceRecord rec = disk(i);
        if (i == burst - 1) {
            out.early = fake::sent_kinds().size();
            out.early_reloads = g_runner.count_starting(kMiniDlnaStart);
            last_event = Clock::now();
        }
        usbmgr_evt_new_storage_interface(nullptr, 0, sizeof rec, &rec);
        if (i == burst - 1) out.last_handler_ms = ms(Clock::now() - last_event);
    }
    // The flush follows the MiniDLNA start under the same lock: once the
    // start is seen, the notifications are a moment away.
    const std::size_t expected = burst < 10 ? static_cast<std::size_t>(burst) : 0;
    Clock::time_point reload_seen{};
    for (;;) {
        Clock::time_point now = Clock::now();
        if (out.reload_ms < 0 && g_runner.count_starting(kMiniDlnaStart) > out.early_reloads) {
            out.reload_ms = ms(now - last_event);
            reload_seen = now;
        }
        std::size_t n = fake::sent_kinds().size();
        if (expected > 0 && n >= expected) {
            out.delay_ms = ms(now - last_event);
            break;
        }
        if (expected == 0 && out.reload_ms >= 0 && now - reload_seen > kSettle) break;
        if (now - last_event > kGiveUp) break;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    // Anything that still comes late counts too.
    std::this_thread::sleep_for(kSettle);
    std::vector<uint32_t> kinds = fake::sent_kinds();
    out.sent = kinds.size();
    for (uint32_t k : kinds)
        if (k != 0) ++out.not_kind0;
    out.samba_reloads = g_runner.count_starting(kSambaStart);
    out.minidlna_reloads = g_runner.count_starting(kMiniDlnaStart);
    return out;
}

struct Summary {
    double delay_sum = 0;
    double reload_sum = 0;
    int delays = 0;
    int reloads = 0;
    std::size_t max_samba = 0, max_minidlna = 0, min_sent = SIZE_MAX, max_sent = 0;
};

void run_burst(int burst, int rounds) {
    std::printf("-- bursts of %d arrivals %lld ms apart\n", burst, static_cast<long long>(kGap.count()));
    Summary s;
    for (int r = 0; r < rounds; ++r) {
        Round round = run_round(burst);
        std::printf("round %d: last handler %.1f ms, %zu notifications before the last event, reload done %.0f ms "
                    "after it, ",
                    r + 1, round.last_handler_ms, round.early, round.reload_ms);
        if (round.delay_ms >= 0)
            std::printf("notifications after %.0f ms, ", round.delay_ms);
        else
            std::printf("no notification, ");
        std::printf("%zu sent (%zu not kind 0), reloads: Samba %zu, MiniDLNA %zu\n", round.sent, round.not_kind0,
                    round.samba_reloads, round.minidlna_reloads);
        if (round.delay_ms >= 0) {
            s.delay_sum += round.delay_ms;
            ++s.delays;
        }
        if (round.reload_ms >= 0) {
            s.reload_sum += round.reload_ms;
            ++s.reloads;
        }
        s.max_samba = std::max(s.max_samba, round.samba_reloads);
        s.max_minidlna = std::max(s.max_minidlna, round.minidlna_reloads);
        s.min_sent = std::min(s.min_sent, round.sent);
        s.max_sent = std::max(s.max_sent, round.sent);
        // Let the worker finish before the next burst.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::printf("burst of %d: reloads at most Samba %zu, MiniDLNA %zu; notifications %zu to %zu of %d", burst,
                s.max_samba, s.max_minidlna, s.min_sent, s.max_sent, burst);
    if (s.delays > 0) {
        double mean = s.delay_sum / s.delays;
        std::printf("; delay from last event to notifications %.0f ms (deferral %.0f ms + reload pause %.0f ms: "
                    "ratio %.2f)",
                    mean, kDeferralMs, kReloadPauseMs, mean / (kDeferralMs + kReloadPauseMs));
    } else if (s.reloads > 0) {
        std::printf("; reload done %.0f ms after the last event, nothing sent", s.reload_sum / s.reloads);
    }
    std::printf("\n");
}

}  // namespace

int main() {
    if (!bench_support::isolate()) {
        std::fprintf(stderr, "bench_notify_delay: needs root or user namespaces for a private /tmp and /var\n");
        return 1;
    }
    bench_support::use_settings();
    bench_support::use_server_settings();
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

    run_burst(3, 4);
    run_burst(9, 3);
    run_burst(10, 3);
    return 0;
}
