// The folder watcher: a low-priority thread that reports folders created,
// deleted or moved in at the top of a mounted volume as a change of the
// storage service, sent at once.
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgrd.h"

pollfd pollfds[1] = {{-1, 0, 0}};

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";
constexpr std::size_t kInotifyBufferSize = 32768;
constexpr int kWatchPollMs = 2000;
constexpr unsigned long kWatchSettleUs = 2000000;

void* start_inotify(void*) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "start_inotify");
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, SIGCHLD);
    pthread_sigmask(SIG_SETMASK, &set, nullptr);
    setpriority(PRIO_PROCESS, 0, 19);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "pollfds[0].fd = %d, wd = %d", pollfds[0].fd, 0);

    static char buf[kInotifyBufferSize] __attribute__((aligned(alignof(inotify_event))));
    for (;;) {
        int r = poll(pollfds, 1, kWatchPollMs);
        if (r < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (r <= 0 || !(pollfds[0].revents & POLLIN)) continue;
        // One copy or deletion brings a burst of events: let it settle, read it at once.
        usbmgr::sys_clock().sleep_us(kWatchSettleUs);
        ssize_t n = read(pollfds[0].fd, buf, sizeof buf);
        if (n > 0) usbmgr_handle_inotify_events(buf, static_cast<std::size_t>(n));
    }
    return nullptr;
}

}  // namespace

int usbmgr_notify_init() {
    int r = disk_util_create_root_folder();
    if (r != 0 && r != EEXIST) return 0;
    // The instance exists before the thread starts, so that start-up can add
    // the first watches right away.
    if (pollfds[0].fd < 0) {
        pollfds[0].fd = inotify_init1(IN_CLOEXEC);
        pollfds[0].events = POLLIN;
    }
    pthread_t tid;
    if (pthread_create(&tid, nullptr, start_inotify, nullptr) != 0) return 0;
    pthread_detach(tid);
    return 1;
}

void usbmgr_add_folder_watches() {
    int count = disk_util_get_count_of_volume();
    for (int i = 0; i < count; ++i) {
        char name[64] = {};
        if (disk_util_get_volume_name_by_index(i, name, sizeof name) != 0) continue;
        char path[50];
        if (!usbmgr::format_str(path, "%s/%s", MOUNT_DISK_PATH, name)) continue;
        inotify_add_watch(pollfds[0].fd, path, IN_CREATE | IN_DELETE | IN_MOVED_TO);
    }
}

void usbmgr_remove_folder_watches() {
    // Watches go by position, as numbered in order of addition.
    int count = disk_util_get_count_of_volume();
    for (int i = 0; i < count; ++i) inotify_rm_watch(pollfds[0].fd, i);
}

void usbmgr_handle_inotify_events(const char* buf, std::size_t len) {
    std::size_t pos = 0;
    while (pos + sizeof(inotify_event) <= len) {
        inotify_event ev;
        std::memcpy(&ev, buf + pos, sizeof ev);
        std::size_t next = pos + sizeof ev + ev.len;
        if (next > len) break;
        const char* name_field = buf + pos + sizeof ev;
        std::size_t name_len = strnlen(name_field, ev.len);
        pos = next;
        if (name_len == 0 || name_field[0] == '.') continue;
        if (ev.mask != (IN_ISDIR | IN_CREATE) && ev.mask != (IN_ISDIR | IN_DELETE) &&
            ev.mask != (IN_ISDIR | IN_MOVED_TO))
            continue;
        char name[256] = {};
        std::memcpy(name, name_field, name_len < sizeof name - 1 ? name_len : sizeof name - 1);
        usbmgr::sanitize_value_text(name, sizeof name);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "event->name = %s, event->mask = 0x%08X\n", name, ev.mask);
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_build();
        dp_util_evt_buf_write(USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE);
        usbmgr_flush_notify();
    }
}
