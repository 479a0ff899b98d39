// Start-up with the readiness hand-shake, the idle loop, and the orderly
// shutdown on SIGTERM.
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "app_util/app_util.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "usbmgrd/usbmgrd.h"

OrbIilHandle usbmgr_iil_handle;

volatile int32_t usbmgr_daemon_signalled;
volatile int32_t usbmgr_daemon_ready;

namespace {

constexpr const char kLogModule[] = "usbmgrd.c";
constexpr const char* kLevelNames[] = {"QUITE", "ERROR", "WARNING", "INFO", "DEBUG"};
constexpr unsigned long kIdlePollUs = 500000;

struct sigaction g_saved_sigchld;
struct sigaction g_saved_sigalrm;

// SIGTERM asks the main thread for the shutdown; the handler only sets the
// flag and wakes the thread.
volatile sig_atomic_t g_term_requested;
volatile sig_atomic_t g_wake_fd = -1;

// Installs handler for sig; keeps the signal ignored when it was ignored.
void install_keeping_ignored(int sig, void (*handler)(int)) {
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, &old) == 0 && old.sa_handler == SIG_IGN) sigaction(sig, &old, nullptr);
}

bool install(int sig, void (*handler)(int), struct sigaction* saved) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // The daemon-control handler runs with both of its signals held: when
    // SIGALRM and SIGCHLD are pending together, the kernel would otherwise
    // start the second handler on top of the first, so that the later
    // signal ran first and decided.
    sigaddset(&sa.sa_mask, SIGCHLD);
    sigaddset(&sa.sa_mask, SIGALRM);
    return sigaction(sig, &sa, saved) == 0;
}

// From a signal handler: ends the main thread's current wait.
void wake_main_thread() {
    const int fd = g_wake_fd;
    if (fd < 0) return;
    uint64_t one = 1;
    (void)!write(fd, &one, sizeof one);
}

// Waits up to us for a wake-up of the main thread.
void idle_wait(unsigned long us) {
    const int fd = g_wake_fd;
    if (fd < 0) {
        usbmgr::sys_clock().sleep_us(us);
        return;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(us / 1000)) > 0) {
        uint64_t v;
        (void)!read(fd, &v, sizeof v);
    }
}

// Every way out of start-up passes here. A SIGTERM that came in meanwhile
// was put off until the idle loop, which start-up will now never reach: the
// orderly shutdown runs instead (and ends the process with 0).
int leave(int status) {
    if (g_term_requested) usbmgr_shutdown();
    return status;
}

[[noreturn]] void error_end() {
    leave(-1);
    USBMGR_TRACE(USBMGR_LOG_QUITE, "ORB fault mgt daemon is terminated with error");
    OrbIilResetLog();
    _exit(-1);
}

bool is_pid_name(const char* name) {
    if (!name[0]) return false;
    for (const char* p = name; *p; ++p)
        if (*p < '0' || *p > '9') return false;
    return true;
}

}  // namespace

const char* usbmgr_log_level_name(int level) {
    if (level < 0 || level > 4) return "Unknown";
    return kLevelNames[level];
}

int usbmgr_log_level_from_args(int argc, char** argv) {
    if (argc != 2) return USBMGR_LOG_ERROR;
    for (int level = 0; level <= 4; ++level)
        if (strcasecmp(argv[1], kLevelNames[level]) == 0) return level;
    USBMGR_TRACE(USBMGR_LOG_QUITE, "unknown log level '%s'", argv[1]);
    return USBMGR_LOG_ERROR;
}

void usbmgr_install_termination_handlers() {
    if (g_wake_fd < 0) g_wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    install_keeping_ignored(SIGINT, usbmgr_sigint_handler);
    install_keeping_ignored(SIGTERM, usbmgr_sigterm_handler);
}

int usbmgr_reset() { return 1; }

int usbmgr_init() {
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0, sizeof usb_volume_info);
    usbmgr_conf_load();
    return 1;
}

void usbmgr_daemon_control_handler(int sig) {
    int saved = errno;
    // The first of SIGALRM and SIGCHLD decides: a child that reported
    // readiness and then ended at once (a registration failure that exits
    // 0) was still ready, whichever signal the parent saw last.
    if (usbmgr_daemon_signalled) return;
    usbmgr_daemon_ready = sig == SIGALRM ? 1 : 0;
    usbmgr_daemon_signalled = 1;
    wake_main_thread();
    errno = saved;
}

int usbmgr_setup_daemon_control() {
    if (!install(SIGCHLD, usbmgr_daemon_control_handler, &g_saved_sigchld)) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to signal(SIGCHLD)");
        return 0;
    }
    if (!install(SIGALRM, usbmgr_daemon_control_handler, &g_saved_sigalrm)) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to signal(SIGALRM)");
        return 0;
    }
    return 1;
}

int usbmgr_reset_daemon_control() {
    if (sigaction(SIGCHLD, &g_saved_sigchld, nullptr) != 0) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to signal(SIGCHLD)");
        return 0;
    }
    if (sigaction(SIGALRM, &g_saved_sigalrm, nullptr) != 0) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to signal(SIGALRM)");
        return 0;
    }
    return 1;
}

int usbmgr_notify_daemon_initialized() {
    if (kill(getppid(), SIGALRM) != 0) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to kill(SIGALRM) to parent process, err = %s", usbmgr::ErrnoText(errno).c_str());
        return 0;
    }
    return 1;
}

int usbmgr_wait_daemon_initialized() {
    while (!usbmgr_daemon_signalled) {
        if (g_term_requested) usbmgr_shutdown();
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "keep waiting");
        // The child's signal ends the second at once, as it ends a sleep:
        // the first of SIGALRM and SIGCHLD decides, not the last.
        idle_wait(1000000);
    }
    OrbIilResetLog();
    return usbmgr_daemon_ready;
}

void usbmgr_sigint_handler(int) {
    // An interactive interrupt neither stops nor disturbs the daemon.
}

void usbmgr_sigterm_handler(int) {
    int saved = errno;
    g_term_requested = 1;
    wake_main_thread();
    errno = saved;
}

std::vector<long> usbmgr_login_processes(const std::vector<UsbmgrProcess>& table, long daemon_pid) {
    // The gettys the daemon forked, then everything below them: by parent,
    // and by session, since getty makes its own session for the login.
    std::vector<long> chosen;
    auto is_chosen = [&](long pid) { return std::find(chosen.begin(), chosen.end(), pid) != chosen.end(); };
    for (const UsbmgrProcess& p : table)
        if (p.ppid == daemon_pid && p.name == "getty") chosen.push_back(p.pid);
    const std::size_t gettys = chosen.size();
    for (bool grew = true; grew;) {
        grew = false;
        for (const UsbmgrProcess& p : table) {
            if (p.pid == daemon_pid || is_chosen(p.pid)) continue;
            bool in_session = std::find(chosen.begin(), chosen.begin() + static_cast<long>(gettys), p.session) !=
                              chosen.begin() + static_cast<long>(gettys);
            if (is_chosen(p.ppid) || in_session) {
                chosen.push_back(p.pid);
                grew = true;
            }
        }
    }
    return chosen;
}

namespace {

// The process table from /proc/PID/stat: pid, name, parent, session.
std::vector<UsbmgrProcess> read_process_table() {
    std::vector<UsbmgrProcess> table;
    usbmgr::DirPtr proc(opendir("/proc"));
    if (!proc) return table;
    while (dirent* e = readdir(proc.get())) {
        if (!is_pid_name(e->d_name)) continue;
        char path[64];
        if (!usbmgr::format_str(path, "/proc/%s/stat", e->d_name)) continue;
        usbmgr::FilePtr stat(std::fopen(path, "re"));
        if (!stat) continue;
        char line[1024] = {};
        if (!std::fgets(line, sizeof line, stat.get())) continue;
        // "pid (name) state ppid pgrp session ...": the name may hold
        // blanks and parentheses, so it ends at the last ')'.
        const char* open = std::strchr(line, '(');
        const char* close = std::strrchr(line, ')');
        if (!open || !close || close < open) continue;
        UsbmgrProcess p;
        p.pid = std::strtol(line, nullptr, 10);
        p.name.assign(open + 1, close);
        char state = 0;
        long pgrp = 0;
        if (std::sscanf(close + 1, " %c %ld %ld %ld", &state, &p.ppid, &pgrp, &p.session) != 4) continue;
        table.push_back(p);
    }
    return table;
}

}  // namespace

void usbmgr_kill_login_processes() {
    // Only the daemon's own logins: a shell or getty it did not start is
    // never touched.
    for (long pid : usbmgr_login_processes(read_process_table(), static_cast<long>(getpid())))
        usbmgr::runner().run(usbmgr::CommandLine::exec({"kill", "-9", std::to_string(pid)}), false);
}

void usbmgr_shutdown() {
    // A safe removal under way finishes its unmount first.
    usbmgr_safe_remove_wait();
    app_util_stop_minidllna();
    app_util_stop_samba();
    OrbIilReset(&usbmgr_iil_handle);
    OrbIilResetLog();
    remove_all_mount_disk();
    usbmgr::runner().run(usbmgr::shell_command<100>("rm %s/*", DISK_UTIL_DEV_PATH), true);
    if (usbmgr::FilePtr marker(std::fopen(USBMGR_DEVELOP_MARKER, "re")); marker) {
        // A developer's marker keeps the shells alive.
    } else {
        usbmgr_kill_login_processes();
    }
    // Other threads still run: leave without exit handlers or destructors.
    std::fflush(nullptr);
    _exit(0);
}

int usbmgr_service_init() {
    int r = disk_util_create_dev_folder();
    if (r == 0)
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Create %s success ..", DISK_UTIL_DEV_PATH);
    else if (r == EEXIST)
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "%s already exist ..", DISK_UTIL_DEV_PATH);
    else
        return 0;
    r = disk_util_create_root_folder();
    if (r != 0 && r != EEXIST) return 0;
    // The bus handlers and the folder watcher already run: the tables, the
    // ring and the model are only touched under the lock from here on.
    usbmgr::DaemonLock lock;
    dp_util_evt_buf_init();
    disk_util_init_mount_exist_disk();
    usbmgr_scan_exist_device();
    usbmgr_tr140_db_build();
    if (MINIDLNA_CONF.enable) app_util_start_minidlna();
    if (SAMBA_CONF.enable) {
        app_util_start_samba();
        app_util_perpare_samba_user(&usbmgr_iil_handle);
    }
    usbmgr_start_exist_usb_serial_logins();
    usbmgr_add_folder_watches();
    return 1;
}

int usbmgr_main(int argc, char** argv) {
    const char* base = argc > 0 && argv[0] ? argv[0] : "usbmgrd";
    for (const char* p = base; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;

    if (!OrbIilInitLog("usbmgr")) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to OrbIilInitLog(), app_name = %s", base);
        return -1;
    }
    OrbIilSetLogLevel(usbmgr_log_level_from_args(argc, argv));

    usbmgr_install_termination_handlers();

    if (!usbmgr_reset()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_reset()");
        return leave(-1);
    }
    if (!usbmgr_init()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_init()");
        return leave(-1);
    }
    if (!usbmgr_setup_daemon_control()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_setup_daemon_control()");
        return leave(-1);
    }
    // A SIGTERM taken before the fork is the whole daemon's: shut down here
    // rather than leave both processes to do it.
    leave(0);

    pid_t pid = fork();
    if (pid < 0) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "fail to fork(), err = %s", usbmgr::ErrnoText(errno).c_str());
        OrbIilResetLog();
        return leave(-1);
    }
    if (pid > 0) return usbmgr_wait_daemon_initialized() == 1 ? 0 : -1;

    // The parent waits on the wake-up descriptor: the child gets its own,
    // so that neither takes the other's wake-ups.
    const int own_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const int inherited_wake = g_wake_fd;
    g_wake_fd = own_wake;
    if (inherited_wake >= 0) close(inherited_wake);

    USBMGR_TRACE(USBMGR_LOG_QUITE, "ORB usb mgt daemon is running");
    if (!usbmgr_reset_daemon_control()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_reset_daemon_control()");
        return leave(-1);
    }
    signal(SIGALRM, usbmgr_alarm_handler);
    // Without the worker no reload or notification would ever happen.
    if (!usbmgr_deferred_init()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_deferred_init()");
        error_end();
    }

    std::memset(&usbmgr_iil_handle, 0, sizeof usbmgr_iil_handle);
    int ret = OrbIilInit(&usbmgr_iil_handle, USBMGR_BUS_NAME);
    if (ret != ORBIIL_OK) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to OrbIilInit(), ret = %s", usbmgr_iil_err_str(ret));
        error_end();
    }
    // Readiness is reported as soon as the connection exists.
    if (!usbmgr_notify_daemon_initialized()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_notify_daemon_initialized()");
        error_end();
    }
    ret = OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    if (ret != ORBIIL_OK) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "fail to OrbIilSetCmdHandler(), ret = %s", usbmgr_iil_err_str(ret));
        error_end();
    }
    ret = OrbIilSetEvtHandler(&usbmgr_iil_handle, usbmgr_evt_table, USBMGR_EVENT_COUNT);
    if (ret != ORBIIL_OK) {
        // Ends the child with status 0, as the gateway's supervisor expects.
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to OrbIilSetEvtHandler(), ret = %s", usbmgr_iil_err_str(ret));
        return leave(0);
    }
    if (!usbmgr_issue_event()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_issue_event()");
        return leave(-1);
    }
    int subscribed = usbmgr_subscribe_event();
    if (!subscribed) {
        // The name printed is that of the step's own result, so always "OK".
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_subscribe_event(), ret = %s", usbmgr_iil_err_str(subscribed));
        return leave(0);
    }
    if (!usbmgr_notify_init()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_notify_init()");
        return leave(-1);
    }
    if (!usbmgr_service_init()) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "fail to usbmgr_service_init()");
        return leave(-1);
    }
    // The lock is statically initialised (others may hold it by now, and
    // re-initialising a held mutex would break it); this step checks that
    // its default attributes can be made.
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        USBMGR_TRACE(USBMGR_LOG_QUITE, "mutex init failed");
        return leave(-1);
    }
    pthread_mutexattr_destroy(&attr);

    while (OrbIilIsRunning(&usbmgr_iil_handle) == 1) {
        if (g_term_requested) usbmgr_shutdown();
        idle_wait(kIdlePollUs);
        if (g_term_requested) usbmgr_shutdown();
    }
    // The bus stopping does not cancel a SIGTERM that came with it.
    leave(0);
    ret = OrbIilReset(&usbmgr_iil_handle);
    if (ret != ORBIIL_OK) {
        USBMGR_TRACE(USBMGR_LOG_ERROR, "fail to OrbIilReset(), ret = %s", usbmgr_iil_err_str(ret));
        error_end();
    }
    USBMGR_TRACE(USBMGR_LOG_QUITE, "ORB fault mgt daemon is terminated");
    OrbIilResetLog();
    return leave(0);
}
