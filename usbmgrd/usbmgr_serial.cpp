// Console logins on USB serial adapters: a node in /var/dev for every
// adapter that arrives, and, while the adapter stays, a getty at 115200 baud
// on ttyUSB0 to ttyUSB2, started again a second after each login ends.
//
// Stopping a login: a login thread spends its life inside the command
// runner, waiting for its getty. Cancelling a thread there would unwind
// through fork, pipes and waitpid and leave them half done, so removal does
// not cancel: it clears the adapter's slot at once (a re-plug starts a fresh
// login) and raises the thread's stop flag, which the thread reads each time
// its getty ends; it then starts no new getty and ends. The running getty is
// not killed by removal; it ends when its terminal goes away. Ended threads
// are joined on the next serial event, so none is left behind.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgrd.h"

pthread_t getty_thread_id[USBMGR_SERIAL_LOGIN_SLOTS];
char new_attach_usb_serial[USBMGR_SERIAL_NAME_SIZE];

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";
constexpr std::size_t kAdapterPrefixLen = 6;  // "ttyUSB"

// One login thread and what it needs for its whole life: its own copy of
// the adapter name, and the flag that asks it to start no further getty.
struct SerialLogin {
    char name[USBMGR_SERIAL_NAME_SIZE] = {};
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false};
    pthread_t thread{};
};

// Every login thread not yet joined, running or stopped. The slots and the
// hand-over buffer are changed only under the lock: start-up and the bus
// library's thread may both start logins. The login threads never take it.
struct SerialLogins {
    std::mutex mutex;
    std::vector<std::unique_ptr<SerialLogin>> logins;
};

// Never destroyed: a login thread may still wait for its getty while the
// process exits.
SerialLogins& serial_logins() {
    static SerialLogins* logins = new SerialLogins;
    return *logins;
}

// The adapter number of a name that disk_util_serial_name_ok accepts.
long adapter_number(const char* name) { return std::strtol(name + kAdapterPrefixLen, nullptr, 10); }

// Joins the threads that have ended (their getty ended after removal).
void reap_ended_locked(SerialLogins& all) {
    auto& v = all.logins;
    for (auto it = v.begin(); it != v.end();) {
        if ((*it)->ended.load()) {
            pthread_join((*it)->thread, nullptr);
            it = v.erase(it);
        } else {
            ++it;
        }
    }
}

SerialLogin* login_in_slot_locked(SerialLogins& all, long n) {
    if (n < 0 || n >= USBMGR_SERIAL_LOGIN_SLOTS || getty_thread_id[n] == 0) return nullptr;
    for (auto& login : all.logins)
        if (pthread_equal(login->thread, getty_thread_id[n])) return login.get();
    return nullptr;
}

// True when name fits the hand-over buffer whole; a cut name would be
// another adapter's. Else logs the refusal.
bool login_name_fits(const char* name) {
    if (std::strlen(name) < sizeof new_attach_usb_serial) return true;
    char shown[32];
    USBMGR_TRACE(USBMGR_LOG_ERROR, "refusing device name '%s'", usbmgr::clean_copy(shown, name));
    return false;
}

// Starts the login thread of adapter name (number n, a name that fits);
// its id goes into slot n when there is one.
void start_login_locked(SerialLogins& all, const char* name, long n) {
    std::memset(new_attach_usb_serial, 0, sizeof new_attach_usb_serial);
    usbmgr::copy_str(new_attach_usb_serial, name);
    // The thread gets its name in its own record, not from the hand-over
    // buffer, so two arrivals in a row cannot hand it the wrong one.
    auto login = std::make_unique<SerialLogin>();
    usbmgr::copy_str(login->name, new_attach_usb_serial);
    if (pthread_create(&login->thread, nullptr, usbmgr_usb_serial_login_thread, login.get()) != 0) return;
    if (n >= 0 && n < USBMGR_SERIAL_LOGIN_SLOTS) getty_thread_id[n] = login->thread;
    all.logins.push_back(std::move(login));
}

}  // namespace

void* usbmgr_usb_serial_login_thread(void* arg) {
    SerialLogin* login = static_cast<SerialLogin*>(arg);
    char name[USBMGR_SERIAL_NAME_SIZE];
    usbmgr::copy_str(name, login->name);
    const std::string node = std::string(DISK_UTIL_DEV_PATH) + "/" + name;
    while (!login->stop.load()) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Start USB Serial login service .... %d", static_cast<int>(getpid()));
        // "getty -L 115200 /var/dev/%s", run without a shell.
        usbmgr::run_logged(usbmgr::CommandLine::exec({"getty", "-L", "115200", node}), kLogModule);
        if (login->stop.load()) break;
        usbmgr::sys_clock().sleep_us(USBMGR_SERIAL_RESTART_US);
    }
    login->ended.store(true);
    return nullptr;
}

USBMGR_EVT_HANDLER(usbmgr_evt_new_usb_serial_interface) {
    DusbDeviceRecord rec;
    if (!usbmgr_take_device_record(len, payload, &rec, "DUSB_EVT_NEW_USB_SERIAL_INTERFACE")) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE");
    const char* name = rec.AttachDevice;
    // Refuses (and logs) every name but "ttyUSB" and a number: such a name
    // gets neither a node nor a login.
    if (disk_util_create_usb_serial_dev_node(name) != 0) return 0;
    const long n = adapter_number(name);

    SerialLogins& all = serial_logins();
    std::lock_guard<std::mutex> lock(all.mutex);
    reap_ended_locked(all);
    if (n < USBMGR_SERIAL_LOGIN_SLOTS && getty_thread_id[n] != 0) return 0;
    if (n >= USBMGR_SERIAL_LOGIN_SLOTS) return 0;
    if (USB_SERIAL_ENABLE != 1) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Create USB Serial Login thread ...");
    start_login_locked(all, name, n);
    return 0;
}

USBMGR_EVT_HANDLER(usbmgr_evt_remove_usb_serial_interface) {
    DusbDeviceRecord rec;
    if (!usbmgr_take_device_record(len, payload, &rec, "DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE")) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "EVENT - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE");
    const char* name = rec.AttachDevice;
    if (disk_util_remove_usb_serial_dev_node(name) != 0) return 0;
    const long n = adapter_number(name);

    SerialLogins& all = serial_logins();
    std::lock_guard<std::mutex> lock(all.mutex);
    reap_ended_locked(all);
    if (n < USBMGR_SERIAL_LOGIN_SLOTS && getty_thread_id[n] == 0) return 0;
    if (n >= USBMGR_SERIAL_LOGIN_SLOTS) return 0;
    USBMGR_TRACE(USBMGR_LOG_DEBUG, "Delete USB Serial Login thread ...");
    // No new getty after the running one; the thread is joined once it ends.
    if (SerialLogin* login = login_in_slot_locked(all, n)) login->stop.store(true);
    getty_thread_id[n] = 0;
    return 0;
}

void usbmgr_start_exist_usb_serial_logins() {
    const int count = disk_util_count_of_exist_usb_serial();
    SerialLogins& all = serial_logins();
    for (int i = 0; i < count; ++i) {
        char name[20];
        std::memset(name, 0, sizeof name);
        disk_util_get_usb_serial_name_by_index(i, name, sizeof name);
        // At start-up a node that is there already does not keep the login
        // away, and neither the switch nor the limit of three is asked.
        disk_util_create_usb_serial_dev_node(name);
        // A name the node step refused (and logged) gets no login either.
        if (!disk_util_serial_name_ok(name) || !login_name_fits(name)) continue;
        const long n = adapter_number(name);
        std::lock_guard<std::mutex> lock(all.mutex);
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Create USB Serial Login thread ...");
        start_login_locked(all, name, n);
    }
}

void usbmgr_serial_request_stop_all() {
    SerialLogins& all = serial_logins();
    std::lock_guard<std::mutex> lock(all.mutex);
    for (auto& login : all.logins) login->stop.store(true);
}

void usbmgr_serial_join_all() {
    SerialLogins& all = serial_logins();
    std::vector<std::unique_ptr<SerialLogin>> logins;
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        logins.swap(all.logins);
        std::memset(getty_thread_id, 0, sizeof getty_thread_id);
        std::memset(new_attach_usb_serial, 0, sizeof new_attach_usb_serial);
    }
    for (auto& login : logins) pthread_join(login->thread, nullptr);
}
