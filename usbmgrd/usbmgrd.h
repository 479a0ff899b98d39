// usbmgrd: the daemon core. Start-up, the bus binding, device event intake
// with the deferred reload, and shutdown.
#ifndef USBMGR_USBMGRD_H
#define USBMGR_USBMGRD_H

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "db_util/bus_handle.h"
#include "db_util/lock.h"  // usbmgr_mutex, usbmgr::DaemonLock
#include "orbiil.h"
#include "proto/commands.h"
#include "proto/payload.h"


// ---------------------------------------------------------------------------
// Start-up and shutdown (usbmgr_daemon.cpp)

inline constexpr const char USBMGR_DEVELOP_MARKER[] = "/tmp/usbmgrd_develop";

extern volatile int32_t usbmgr_daemon_signalled;
extern volatile int32_t usbmgr_daemon_ready;

// Log level from the command line (argc, argv as main gets them).
int usbmgr_log_level_from_args(int argc, char** argv);
// Log level name of index, "Unknown" outside 0 to 4.
const char* usbmgr_log_level_name(int level);

int usbmgr_reset();
int usbmgr_init();
int usbmgr_setup_daemon_control();
int usbmgr_reset_daemon_control();
int usbmgr_notify_daemon_initialized();
int usbmgr_wait_daemon_initialized();
int usbmgr_service_init();
void usbmgr_daemon_control_handler(int sig);
void usbmgr_sigint_handler(int sig);
void usbmgr_sigterm_handler(int sig);
// SIGINT and SIGTERM handlers; a signal that was ignored stays ignored.
void usbmgr_install_termination_handlers();
// The orderly shutdown that SIGTERM asks for; runs on the main thread.
void usbmgr_shutdown();
void usbmgr_kill_login_processes();
// One process of the table the shutdown reads.
struct UsbmgrProcess {
    long pid = 0;
    long ppid = 0;
    long session = 0;
    std::string name;
};
// The login processes the daemon started: its getty children and every
// process below them (by parent or in a getty's session).
std::vector<long> usbmgr_login_processes(const std::vector<UsbmgrProcess>& table, long daemon_pid);
// The whole program; main() returns what this returns.
int usbmgr_main(int argc, char** argv);

// ---------------------------------------------------------------------------
// Bus binding (usbmgr_iil.cpp)

inline constexpr const char USBMGR_BUS_NAME[] = "USBMGR_DMON";
inline constexpr const char DUSB_BUS_NAME[] = "DUSB_DMON";

extern const OrbIilCmdEntry usbmgr_cmd_table[USBMGR_COMMAND_COUNT];
inline constexpr int USBMGR_EVENT_COUNT = 4;
extern const OrbIilEvtEntry usbmgr_evt_table[USBMGR_EVENT_COUNT];

int usbmgr_issue_event();
int usbmgr_subscribe_event();
int usbmgr_notify_tr140_event(int32_t kind);

// Command handlers, one a row of proto/commands.def, called through the
// typed dispatch (usbmgrd/usbmgr_dispatch.h) with a copy of the payload,
// which they answer in place. The dispatch writes the entry log line.
// Sharing and settings: usbmgr_cmd_sharing.cpp; model reads:
// usbmgr_cmd_model_read.cpp; model writes: usbmgr_cmd_model_write.cpp;
// safe removal: usbmgr_cmd_safe_remove.cpp.
// NOLINTNEXTLINE(bugprone-macro-parentheses): payload names a type; parentheses around it would not compile.
#define USBMGR_COMMAND(id, handler, payload, flags) void handler(payload& cmd);
#include "proto/commands.def"

// ---------------------------------------------------------------------------
// Safe removal (usbmgr_cmd_safe_remove.cpp)

// Thread id of the latest safe-removal worker; each new one overwrites it.
extern pthread_t safe_remove_id;
// The worker's work on the disk whose device list is attach_device: takes
// the daemon lock, stops both servers, unmounts the disk, forgets its rows,
// rebuilds the model, queues kind 14, reloads both servers and flushes.
void usbmgr_safe_remove_storage(const char* attach_device);
// Returns once every safe-removal worker started so far has finished.
void usbmgr_safe_remove_wait();

// ---------------------------------------------------------------------------
// Hot-plug intake of USB storage (usbmgr_intake.cpp)

// Set while a storage handler runs; read by the deferred worker without the lock.
extern std::atomic<int32_t> usbmgr_evt_in_progress;

void print_device_info(const DusbDeviceRecord* record);
// Copies a hot-plug record from the bus into rec, as every event handler
// takes it: false (logged with event's name) when it is short, or when its
// AttachDevice is unterminated or not a device list; else every text field
// is terminated within its field and the texts are made line-safe.
bool usbmgr_take_device_record(uint32_t len, const void* payload, DusbDeviceRecord* rec, const char* event);
#define USBMGR_EVT_HANDLER(name) int name(OrbIilHandle*, uint32_t, uint32_t len, void* payload)
USBMGR_EVT_HANDLER(usbmgr_evt_new_storage_interface);
USBMGR_EVT_HANDLER(usbmgr_evt_remove_storage_interface);

// ---------------------------------------------------------------------------
// Console logins on USB serial adapters (usbmgr_serial.cpp)

inline constexpr int USBMGR_SERIAL_LOGIN_SLOTS = 3;  // ttyUSB0 to ttyUSB2
inline constexpr std::size_t USBMGR_SERIAL_NAME_SIZE = 10;
inline constexpr unsigned long USBMGR_SERIAL_RESTART_US = 1000000;

// Login thread of each adapter number; 0 when there is none. Written by
// the bus library's thread and by start-up.
extern pthread_t getty_thread_id[USBMGR_SERIAL_LOGIN_SLOTS];
// Name of the adapter whose login thread is being started.
extern char new_attach_usb_serial[USBMGR_SERIAL_NAME_SIZE];

USBMGR_EVT_HANDLER(usbmgr_evt_new_usb_serial_interface);
USBMGR_EVT_HANDLER(usbmgr_evt_remove_usb_serial_interface);
// Body of a login thread: getty on its adapter, again a second after each end.
void* usbmgr_usb_serial_login_thread(void* login);
// Start-up: every adapter listed in /tmp/usb gets its node and a login.
void usbmgr_start_exist_usb_serial_logins();

// For tests and the fuzz targets: no login thread outlives them.
// Asks every login thread to end once its getty has ended.
void usbmgr_serial_request_stop_all();
// Waits until every login thread has ended (ask them first) and clears the slots.
void usbmgr_serial_join_all();

// ---------------------------------------------------------------------------
// Ring of pending change kinds and its flush (usbmgr_ring.cpp)

inline constexpr int USBMGR_EVT_BUFFER_SIZE = 10;

struct UsbmgrEvtBuffer {
    int32_t write_index;
    int32_t read_index;
    int32_t kinds[USBMGR_EVT_BUFFER_SIZE];
};
extern UsbmgrEvtBuffer usbmgr_evt_buffer;

int dp_util_evt_buf_init();
// Queues kind; the caller holds usbmgr_mutex. Always 0.
int dp_util_evt_buf_write(int32_t kind);
int dp_util_evt_buf_read(int32_t* kind);
// Sends every pending kind, oldest first; the caller holds usbmgr_mutex.
void usbmgr_flush_notify();

// ---------------------------------------------------------------------------
// Deferred reload of the servers and flush (usbmgr_deferred.cpp)

inline constexpr unsigned long USBMGR_RELOAD_DELAY_US = 900000;

extern std::atomic<int32_t> usbmgr_reload_target;  // 1 MiniDLNA, 2 Samba, 3 both

// Why Samba is reloaded: a changed share list may reload smbd in place
// (with the live reload setting), a change of Samba's own settings restarts it.
enum class UsbmgrReloadCause { shares, settings };
// Set when a reload of the waiting burst was armed for Samba's settings;
// cleared when the reload runs. One such cause makes the burst a restart.
extern std::atomic<bool> usbmgr_reload_restart;

// Sets the reload target, records its cause and arms the 900 ms alarm.
void usbmgr_arm_reload(int32_t target, UsbmgrReloadCause cause);
// SIGALRM: only wakes the deferred worker.
void usbmgr_alarm_handler(int sig);
// The deferred work the alarm asks for: re-arm while a storage event is
// being handled, else reload the servers and flush the ring.
void usbmgr_alarm_work();
// Starts the thread that runs usbmgr_alarm_work on each alarm.
int usbmgr_deferred_init();

// ---------------------------------------------------------------------------
// Folder watcher (usbmgr_watcher.cpp)

// The folder watcher's inotify instance (descriptor -1 until it exists).
extern pollfd pollfds[1];

int usbmgr_notify_init();
void usbmgr_add_folder_watches();
void usbmgr_remove_folder_watches();
// Handles one buffer of inotify events as the watcher thread reads them.
void usbmgr_handle_inotify_events(const char* buf, std::size_t len);

// ---------------------------------------------------------------------------
// Storage model (usbmgr_tr140.cpp)

// The model, its builder and its records: usbmgrd/usbmgr_tr140.h.
#include "usbmgrd/usbmgr_tr140.h"

#endif
