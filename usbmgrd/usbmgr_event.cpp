// Hot-plug intake for USB storage, the ring of pending change kinds, the
// deferred reload and notification, and the folder watcher.
//
// The storage handlers do the disk work at once; the server reloads and the
// notifications wait for a 900 ms alarm that each event re-arms, so a burst
// of events gives one reload.
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app_util/app_util.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgrd.h"

UsbmgrEvtBuffer usbmgr_evt_buffer;
std::atomic<int32_t> usbmgr_evt_in_progress;
std::atomic<int32_t> usbmgr_reload_target;
pollfd pollfds[1] = {{-1, 0, 0}};

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";
constexpr const char kRingLogModule[] = "db_util.c";
constexpr std::size_t kInotifyBufferSize = 32768;
constexpr int kWatchPollMs = 2000;
constexpr unsigned long kWatchSettleUs = 2000000;

// The alarm handler only wakes the deferred worker through this descriptor.
int g_alarm_fd = -1;

class MutexLock {
public:
    MutexLock() { pthread_mutex_lock(&usbmgr_mutex); }
    ~MutexLock() { pthread_mutex_unlock(&usbmgr_mutex); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
};

// Marks a storage handler as running: the flag is set before the lock is
// taken and cleared just before it is released, so that the deferred worker
// can see it without waiting for the lock.
class StorageEventScope {
public:
    StorageEventScope() {
        usbmgr_evt_in_progress = 1;
        pthread_mutex_lock(&usbmgr_mutex);
    }
    ~StorageEventScope() {
        usbmgr_evt_in_progress = 0;
        pthread_mutex_unlock(&usbmgr_mutex);
    }
    StorageEventScope(const StorageEventScope&) = delete;
    StorageEventScope& operator=(const StorageEventScope&) = delete;
};

// The record as the handlers use it: every text field terminated within its
// field, and the texts that go into files and logs made line-safe.
bool take_record(uint32_t len, const void* payload, DusbDeviceRecord* rec, const char* event) {
    if (payload == nullptr || len < sizeof(DusbDeviceRecord)) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: device record of %u bytes ignored, %zu expected", event, len,
                     sizeof(DusbDeviceRecord));
        return false;
    }
    std::memcpy(rec, payload, sizeof *rec);
    if (strnlen(rec->AttachDevice, sizeof rec->AttachDevice) == sizeof rec->AttachDevice) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: AttachDevice not terminated, record ignored", event);
        return false;
    }
    if (!disk_util_device_list_ok(rec->AttachDevice)) {
        char shown[sizeof rec->AttachDevice];
        usbmgr::copy_str(shown, rec->AttachDevice);
        usbmgr::sanitize_value_text(shown, sizeof shown);
        USBMGR_TRACE(USBMGR_LOG_ERROR, "%s: refusing AttachDevice '%s', record ignored", event, shown);
        return false;
    }
    rec->USBVersion[sizeof rec->USBVersion - 1] = '\0';
    rec->Manufacturer[sizeof rec->Manufacturer - 1] = '\0';
    rec->ProductClass[sizeof rec->ProductClass - 1] = '\0';
    rec->SerialNumber[sizeof rec->SerialNumber - 1] = '\0';
    usbmgr::sanitize_value_text(rec->USBVersion, sizeof rec->USBVersion);
    usbmgr::sanitize_value_text(rec->Manufacturer, sizeof rec->Manufacturer);
    usbmgr::sanitize_value_text(rec->ProductClass, sizeof rec->ProductClass);
    usbmgr::sanitize_value_text(rec->SerialNumber, sizeof rec->SerialNumber);
    return true;
}

// Calls fn with each partition name of a device list; returns their number.
// The list functions split their argument in place, so each call gets a copy.
template <typename Fn>
int for_each_volume(const char* device_list, Fn fn) {
    char list[sizeof DusbDeviceRecord::AttachDevice];
    usbmgr::copy_str(list, device_list);
    int n = disk_util_get_number_of_disk_volume(list);
    for (int i = 0; i < n; ++i) {
        char volume[64] = {};
        usbmgr::copy_str(list, device_list);
        if (disk_util_get_disk_volume_by_index(i, list, volume, sizeof volume) == 0) fn(volume);
    }
    return n;
}

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

int dp_util_evt_buf_init() {
    usbmgr_evt_buffer.write_index = 0;
    usbmgr_evt_buffer.read_index = 0;
    usbmgr_evt_buffer.kinds[0] = 0;
    return -1;
}

int dp_util_evt_buf_write(int32_t kind) {
    UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    b.kinds[b.write_index] = kind;
    // No test against the read index: a tenth pending kind makes the ring
    // look empty and all ten are lost. The gateway lives with that rule.
    b.write_index = (b.write_index + 1) % USBMGR_EVT_BUFFER_SIZE;
    for (int slot = b.read_index; slot != b.write_index; slot = (slot + 1) % USBMGR_EVT_BUFFER_SIZE) {
        const char* name = usbmgr_tr140_kind_name(b.kinds[slot]);
        OrbIilTrace(USBMGR_LOG_DEBUG, kRingLogModule, __LINE__, "%d-%d : EVT BUFFER - %s", b.write_index, slot,
                    name ? name : "Unknown");
    }
    return 0;
}

int dp_util_evt_buf_read(int32_t* kind) {
    UsbmgrEvtBuffer& b = usbmgr_evt_buffer;
    if (b.read_index == b.write_index) return -1;
    *kind = b.kinds[b.read_index];
    b.read_index = (b.read_index + 1) % USBMGR_EVT_BUFFER_SIZE;
    return 0;
}

void usbmgr_flush_notify() {
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) usbmgr_notify_tr140_event(kind);
}

void usbmgr_arm_reload(int32_t target) {
    usbmgr_reload_target = target;
    usbmgr::sys_clock().arm_alarm(USBMGR_RELOAD_DELAY_US);
}

void print_device_info(const DusbDeviceRecord* r) {
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   Index                  = %d", r->Index);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ArrivedOrLeft          = %d", r->ArrivedOrLeft);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   VendorID               = 0x%04X", r->VendorID);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ProductID              = 0x%04X", r->ProductID);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceClass            = 0x%02X", r->DeviceClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceSubClass         = 0x%02X", r->DeviceSubClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceProtocol         = 0x%02X", r->DeviceProtocol);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   AttachDevice           = %.*s", static_cast<int>(usbmgr::field_len(r->AttachDevice)),
                 r->AttachDevice);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   USBVersion             = %.*s", static_cast<int>(usbmgr::field_len(r->USBVersion)),
                 r->USBVersion);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceVersion          = %d", static_cast<int>(r->DeviceVersion));
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   Manufacturer           = %.*s", static_cast<int>(usbmgr::field_len(r->Manufacturer)),
                 r->Manufacturer);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   ProductClass           = %.*s", static_cast<int>(usbmgr::field_len(r->ProductClass)),
                 r->ProductClass);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   SerialNumber           = %.*s", static_cast<int>(usbmgr::field_len(r->SerialNumber)),
                 r->SerialNumber);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   HostIndexInDB          = %d", r->HostIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceIndexInDB        = %d", r->DeviceIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   PortIndexInDB          = %d", r->PortIndexInDB);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   HostNumberOfEntries    = %d", r->HostNumberOfEntries);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   DeviceNumberOfEntries  = %d", r->DeviceNumberOfEntries);
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "   PortNumberOfEntries    = %d", r->PortNumberOfEntries);
}

USBMGR_EVT_HANDLER(usbmgr_evt_new_storage_interface) {
    DusbDeviceRecord rec;
    if (!take_record(len, payload, &rec, "DUSB_EVT_NEW_STORAGE_INTERFACE")) return 0;
    StorageEventScope scope;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_NEW_STORAGE_INTERFACE");
    print_device_info(&rec);

    int slot = db_util_get_usb_physical_info_free_item(rec.AttachDevice);
    if (slot != -1) {
        UsbPhysicalInfo& e = usb_physical_info[slot];
        e.index = slot;
        usbmgr::copy_str(e.attach_device, rec.AttachDevice);
        usbmgr::copy_str(e.vendor, rec.Manufacturer);
        usbmgr::copy_str(e.model, rec.ProductClass);
        usbmgr::copy_str(e.serial_number, rec.SerialNumber);
        usbmgr::format_str(e.firmware_version, "%d", static_cast<int>(rec.DeviceVersion));
        usbmgr::copy_str(e.usb_version, rec.USBVersion);
    }

    int n = for_each_volume(rec.AttachDevice, [](const char* volume) {
        int vslot = db_util_get_usb_volume_info_free_item(volume);
        if (vslot != -1) {
            usb_volume_info[vslot].index = vslot;
            usbmgr::copy_str(usb_volume_info[vslot].name, volume);
        }
    });
    db_util_tr140_conf_record_new_sn(rec.SerialNumber, n);
    char list[sizeof rec.AttachDevice];
    usbmgr::copy_str(list, rec.AttachDevice);
    disk_util_mount_storage(list);
    usbmgr_remove_folder_watches();
    usbmgr_add_folder_watches();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    usbmgr_arm_reload(3);
    return 0;
}

USBMGR_EVT_HANDLER(usbmgr_evt_remove_storage_interface) {
    DusbDeviceRecord rec;
    if (!take_record(len, payload, &rec, "DUSB_EVT_REMOVE_STORAGE_INTERFACE")) return 0;
    StorageEventScope scope;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_REMOVE_STORAGE_INTERFACE");
    print_device_info(&rec);

    if (db_util_delete_usb_physical_info_item(rec.AttachDevice) == -1) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "device %s not exist ...", rec.AttachDevice);
        return 0;
    }
    // The volumes are still mounted, so they are still found.
    for_each_volume(rec.AttachDevice, [](const char* volume) { db_util_delete_usb_volume_info_item(volume); });
    usbmgr_remove_folder_watches();
    app_util_stop_minidllna();
    app_util_stop_samba();
    char list[sizeof rec.AttachDevice];
    usbmgr::copy_str(list, rec.AttachDevice);
    disk_util_umount_storage(list);
    usbmgr_add_folder_watches();
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_REMOVE_STORAGE);
    usbmgr_arm_reload(3);
    return 0;
}

// Serial adapters get their console login with the serial console work.
USBMGR_EVT_HANDLER(usbmgr_evt_new_usb_serial_interface) {
    (void)len;
    (void)payload;
    return 0;
}

USBMGR_EVT_HANDLER(usbmgr_evt_remove_usb_serial_interface) {
    (void)len;
    (void)payload;
    return 0;
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
    MutexLock lock;
    int32_t target = usbmgr_reload_target;
    // Samba first, then MiniDLNA.
    if (target == 2 || target == 3) app_util_samba_reload_conf();
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
        MutexLock lock;
        usbmgr_tr140_db_build();
        dp_util_evt_buf_write(USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE);
        usbmgr_flush_notify();
    }
}
