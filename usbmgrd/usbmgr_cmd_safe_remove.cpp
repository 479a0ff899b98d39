// Bus command 36: safe removal of a disk. The handler answers at once; the
// work (servers stopped, disk unmounted and forgotten, servers reloaded)
// belongs to a detached worker thread, which starts once the handler has
// released the daemon lock. The history file is left alone: the disk's
// record, names and user access stay for its next arrival.
#include <pthread.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app_util/app_util.h"
#include "db_util/clock.h"
#include "db_util/log.h"
#include "db_util/db_util.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgr_address.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

pthread_t safe_remove_id;

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";

// Workers still at work. Nobody joins a worker; shutdown (and a test) waits
// here until every worker has done its last step.
std::mutex g_workers_mutex;
std::condition_variable g_workers_done;
int g_workers = 0;

struct WorkerArg {
    char device[sizeof UsbPhysicalInfo::attach_device + 1];
};

void worker_finished() {
    std::lock_guard<std::mutex> guard(g_workers_mutex);
    --g_workers;
    g_workers_done.notify_all();
}

}  // namespace

namespace {

// A busy disk is tried again after this long, without the daemon lock, up
// to kSafeRemoveAttempts times in all; then it is left mounted.
constexpr unsigned long kSafeRemoveRetryUs = 3000000;
constexpr int kSafeRemoveAttempts = 5;

// The mount root's folders of the disk's volumes.
std::vector<std::string> disk_folders(const char* attach_device) {
    std::vector<std::string> folders;
    char device[sizeof UsbPhysicalInfo::attach_device + 1] = {};
    usbmgr::copy_str(device, attach_device);
    const int n = disk_util_get_number_of_disk_volume(device);
    for (int i = 0; i < n; ++i) {
        char volume[10] = {};
        usbmgr::copy_str(device, attach_device);
        if (disk_util_get_disk_volume_by_index(i, device, volume, sizeof volume) == 0) folders.emplace_back(volume);
    }
    return folders;
}

// The disk is unmounted: forget it, rebuild the model, tell and reload.
void finish_removal(const char* attach_device) {
    char device[sizeof UsbPhysicalInfo::attach_device + 1] = {};
    usbmgr::copy_str(device, attach_device);
    const int n = disk_util_get_number_of_disk_volume(device);
    for (int i = 0; i < n; ++i) {
        char volume[10] = {};
        usbmgr::copy_str(device, attach_device);
        disk_util_get_disk_volume_by_index(i, device, volume, sizeof volume);
        db_util_delete_usb_volume_info_item(volume);
    }
    usbmgr::copy_str(device, attach_device);
    db_util_delete_usb_physical_info_item(device);
    usbmgr_tr140_db_build();
    dp_util_evt_buf_write(USBMGR_TR140_STORAGE_SAFE_REMOVE);
    app_util_samba_reload_shares();
    app_util_minidlna_reload_conf(&usbmgr_iil_handle);
    usbmgr_flush_notify();
}

}  // namespace

void usbmgr_safe_remove_storage(const char* attach_device) {
    for (int attempt = 1;; ++attempt) {
        {
            usbmgr::DaemonLock lock;
            app_util_stop_minidllna();
            if (app_util_samba_live()) {
                // Only this disk's sessions end, before each try, so that a
                // client does not hold up its unmount; the other shares stay
                // served.
                app_util_samba_close_shares(disk_folders(attach_device));
            } else {
                app_util_stop_samba();
            }
            // The whole device list, so that every volume is unmounted and
            // forgotten however many the disk has.
            char device[sizeof UsbPhysicalInfo::attach_device + 1] = {};
            usbmgr::copy_str(device, attach_device);
            if (disk_util_umount_storage(device, DiskBusy::keep) == 0) {
                finish_removal(attach_device);
                return;
            }
            if (attempt == kSafeRemoveAttempts) {
                // Still in use: the disk stays, mounted and shared again.
                USBMGR_TRACE(USBMGR_LOG_WARNING, "safe remove %s gave up: disk busy", attach_device);
                usbmgr::copy_str(device, attach_device);
                disk_util_mount_storage(device);
                app_util_samba_reload_shares();
                app_util_minidlna_reload_conf(&usbmgr_iil_handle);
                return;
            }
        }
        // Commands are answered meanwhile: the lock is not held across the wait.
        usbmgr::sys_clock().sleep_us(kSafeRemoveRetryUs);
    }
}

namespace {

void* safe_remove_worker(void* p) {
    std::unique_ptr<WorkerArg> arg(static_cast<WorkerArg*>(p));
    usbmgr_safe_remove_storage(arg->device);
    arg.reset();
    worker_finished();
    return nullptr;
}

}  // namespace

void usbmgr_safe_remove_wait() {
    std::unique_lock<std::mutex> guard(g_workers_mutex);
    g_workers_done.wait(guard, [] { return g_workers == 0; });
}

void usbmgr_cmd_set_storage_safe_remove(CmdSafeRemove& cmd) {
    const int32_t service = cmd.service;
    usbmgr::DaemonLock lock;
    if (!usbmgr::service_ok(service)) {
        cmd.status = usbmgr::STORAGE_BAD_SERVICE;
        return;
    }
    const UsbPhysicalInfo* row = usbmgr::attached_disk_row(cmd.slot);
    if (row == nullptr) {
        cmd.status = usbmgr::STORAGE_NO_DISK;
        return;
    }
    auto arg = std::make_unique<WorkerArg>();
    std::memcpy(arg->device, row->attach_device, usbmgr::field_len(row->attach_device));
    {
        std::lock_guard<std::mutex> guard(g_workers_mutex);
        ++g_workers;
    }
    pthread_t tid;
    if (pthread_create(&tid, nullptr, safe_remove_worker, arg.get()) == 0) {
        static_cast<void>(arg.release());  // the worker owns it now
        safe_remove_id = tid;
        pthread_detach(tid);
    } else {
        // Not told to the requester: the reply is 0 in any case.
        worker_finished();
    }
    cmd.status = usbmgr::STORAGE_OK;
}
