// The daemon's one lock, with its owner recorded for the owner check.
#include "db_util/lock.h"

#include <cstdio>
#include <cstdlib>

#include "db_util/log.h"

pthread_mutex_t usbmgr_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr const char kLogModule[] = "db_util.c";

// Written only by the thread that holds usbmgr_mutex; read by any thread.
std::atomic<std::thread::id> g_owner{};

[[noreturn]] void die(const char* what, const char* where) {
    USBMGR_TRACE(USBMGR_LOG_QUITE, "%s in %s", what, where);
    std::fprintf(stderr, "usbmgrd: %s in %s\n", what, where);
    std::fflush(stderr);
    std::abort();
}

void take() {
#ifdef USBMGR_LOCK_CHECKS
    // The mutex is not recursive: a second take by its holder would hang.
    if (g_owner.load(std::memory_order_relaxed) == std::this_thread::get_id())
        die("usbmgr_mutex taken again by the thread that holds it", "DaemonLock");
#endif
    pthread_mutex_lock(&usbmgr_mutex);
    g_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

void give() {
    g_owner.store(std::thread::id(), std::memory_order_relaxed);
    pthread_mutex_unlock(&usbmgr_mutex);
}

}  // namespace

namespace usbmgr {

DaemonLock::DaemonLock() { take(); }

DaemonLock::DaemonLock(std::atomic<int32_t>& busy) : busy_(&busy) {
    busy = 1;
    take();
}

DaemonLock::~DaemonLock() {
    if (busy_ != nullptr) *busy_ = 0;
    give();
}

std::thread::id daemon_lock_owner() { return g_owner.load(std::memory_order_relaxed); }

bool daemon_lock_held_here() { return daemon_lock_owner() == std::this_thread::get_id(); }

void daemon_lock_require(const char* where) {
    if (!daemon_lock_held_here()) die("usbmgr_mutex not held by the calling thread", where);
}

}  // namespace usbmgr
