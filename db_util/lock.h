// The daemon's one lock and the owner check of the work it guards.
//
// usbmgr_mutex serialises the device tables, the storage model, the
// settings records, the ring of change kinds and the server reloads. It is
// only ever taken through DaemonLock, which records the owning thread, so
// that the functions that change guarded state can check that their caller
// holds it (USBMGR_ASSERT_LOCKED). The check is compiled in when the build
// defines USBMGR_LOCK_CHECKS (test and debug builds) and costs nothing
// otherwise.
#ifndef USBMGR_DB_UTIL_LOCK_H
#define USBMGR_DB_UTIL_LOCK_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <thread>

// Statically initialised: usable from load time, before start-up reaches
// its own initialisation step.
extern pthread_mutex_t usbmgr_mutex;

namespace usbmgr {

// Holds usbmgr_mutex for its scope and records the calling thread as owner.
class DaemonLock {
public:
    [[nodiscard]] DaemonLock();
    // Also raises busy before the lock is taken and lowers it just before
    // the lock is released, so that a thread that must not wait for the lock
    // can see that its holder is at work.
    [[nodiscard]] explicit DaemonLock(std::atomic<int32_t>& busy);
    ~DaemonLock();
    DaemonLock(const DaemonLock&) = delete;
    DaemonLock& operator=(const DaemonLock&) = delete;

private:
    std::atomic<int32_t>* busy_ = nullptr;
};

// Thread that holds usbmgr_mutex through a DaemonLock; a default id when none does.
std::thread::id daemon_lock_owner();
// True when the calling thread holds usbmgr_mutex through a DaemonLock.
bool daemon_lock_held_here();
// Aborts with a message naming where when the calling thread does not hold
// usbmgr_mutex. Use USBMGR_ASSERT_LOCKED() rather than calling this.
void daemon_lock_require(const char* where);

}  // namespace usbmgr

#ifdef USBMGR_LOCK_CHECKS
#define USBMGR_ASSERT_LOCKED() ::usbmgr::daemon_lock_require(__func__)
#else
#define USBMGR_ASSERT_LOCKED() ((void)0)
#endif

#endif
