// Time seam: sleeping and the one-shot alarm. Unit tests install a clock
// that records the calls and returns at once.
#ifndef USBMGR_DB_UTIL_CLOCK_H
#define USBMGR_DB_UTIL_CLOCK_H

namespace usbmgr {

class Clock {
public:
    virtual ~Clock() = default;
    // Sleeps us microseconds (usleep; sleep(n) is sleep_us(n * 1000000)).
    virtual void sleep_us(unsigned long us) = 0;
    // Arms the process's one-shot SIGALRM timer (ualarm(us, 0)).
    virtual void arm_alarm(unsigned long us) = 0;
};

class SystemClock final : public Clock {
public:
    void sleep_us(unsigned long us) override;
    void arm_alarm(unsigned long us) override;
};

// The process's clock; tests install their own.
Clock& sys_clock();
void set_clock(Clock* c);  // nullptr restores the system clock

}  // namespace usbmgr

#endif
