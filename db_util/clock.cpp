#include "db_util/clock.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace usbmgr {

namespace {
SystemClock g_system_clock;
Clock* g_clock = &g_system_clock;
}  // namespace

void SystemClock::sleep_us(unsigned long us) {
    // nanosleep resumes after a signal, so a SIGALRM does not cut a wait short.
    timespec req{static_cast<time_t>(us / 1000000), static_cast<long>((us % 1000000) * 1000)};
    timespec rem{};
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

void SystemClock::arm_alarm(unsigned long us) { ualarm(static_cast<useconds_t>(us), 0); }

Clock& sys_clock() { return *g_clock; }

void set_clock(Clock* c) { g_clock = c ? c : &g_system_clock; }

}  // namespace usbmgr
