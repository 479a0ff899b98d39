// The deferred reload: server reloads and the flush of the ring wait for a
// 900 ms alarm that every storage event re-arms, so that a burst of events
// gives one reload.
//
// SIGALRM only wakes a worker thread through an eventfd; the worker does
// the reload under usbmgr_mutex, outside the signal handler.
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "app_util/app_util.h"
#include "db_util/clock.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "usbmgrd/usbmgrd.h"

std::atomic<int32_t> usbmgr_reload_target;
std::atomic<bool> usbmgr_reload_restart;

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";

// The alarm handler only wakes the deferred worker through this descriptor.
int g_alarm_fd = -1;

void* deferred_worker(void*) {
    for (;;) {
        uint64_t v;
        ssize_t n = read(g_alarm_fd, &v, sizeof v);
        if (n < 0 && errno == EINTR) continue;
        if (n != sizeof v) break;
        usbmgr_alarm_work();
    }
    return nullptr;
}

}  // namespace

void usbmgr_arm_reload(int32_t target, UsbmgrReloadCause cause) {
    usbmgr_reload_target = target;
    if (cause == UsbmgrReloadCause::settings) usbmgr_reload_restart = true;
    usbmgr::sys_clock().arm_alarm(USBMGR_RELOAD_DELAY_US);
}

void usbmgr_alarm_handler(int) {
    int saved = errno;
    if (g_alarm_fd >= 0) {
        uint64_t one = 1;
        (void)!write(g_alarm_fd, &one, sizeof one);
    }
    errno = saved;
}

void usbmgr_alarm_work() {
    if (usbmgr_evt_in_progress) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "********** NEXT INCOMING EVENT **********");
        usbmgr::sys_clock().arm_alarm(USBMGR_RELOAD_DELAY_US);
        return;
    }
    usbmgr::DaemonLock lock;
    int32_t target = usbmgr_reload_target;
    const bool restart = usbmgr_reload_restart.exchange(false);
    // Samba first, then MiniDLNA.
    if (target == 2 || target == 3) {
        if (restart)
            app_util_samba_reload_conf();
        else
            app_util_samba_reload_shares();
    }
    if (target == 1 || target == 3) app_util_minidlna_reload_conf(&usbmgr_iil_handle);
    usbmgr_flush_notify();
}

int usbmgr_deferred_init() {
    if (g_alarm_fd >= 0) return 1;
    g_alarm_fd = eventfd(0, EFD_CLOEXEC);
    if (g_alarm_fd < 0) return 0;
    // The worker never takes signals itself; SIGALRM lands on another thread
    // and only writes to the descriptor.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_t tid;
    int r = pthread_create(&tid, nullptr, deferred_worker, nullptr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (r != 0) {
        // No worker reads it: a later call must not take the descriptor for one.
        close(g_alarm_fd);
        g_alarm_fd = -1;
        return 0;
    }
    pthread_detach(tid);
    return 1;
}
