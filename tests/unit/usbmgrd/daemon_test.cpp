// Start-up, the readiness hand-shake and the orderly shutdown. Tests that
// run the daemon's main or its shutdown do so in a forked child, since both
// fork, exit or change signal dispositions.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include <cerrno>
#include <cstring>
#include <map>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "platform_fake.h"
#include "test_support.h"
#include "usbmgrd/usbmgr_tr140.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::Seams;
using testing_support::write_file;

namespace {

std::string factory_text() { return testing_support::factory_settings(); }

int level_of(std::vector<const char*> args) {
    args.insert(args.begin(), "/usr/bin/usbmgrd");
    return usbmgr_log_level_from_args(static_cast<int>(args.size()), const_cast<char**>(args.data()));
}

// Runs fn in a forked child; returns its exit status (or 1000 + signal).
template <typename Fn>
int in_child(Fn fn) {
    pid_t pid = fork();
    if (pid == 0) {
        fn();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Lines the fake bus library wrote to its log file, without the pid and level.
std::vector<std::string> logged_lines(const std::string& path) {
    std::vector<std::string> out;
    for (const auto& line : testing_support::read_lines(path)) {
        auto a = line.find(' ');
        auto b = line.find(' ', a + 1);
        out.push_back(b == std::string::npos ? "" : line.substr(b + 1));
    }
    return out;
}

bool contains(const std::vector<std::string>& v, const std::string& s) {
    for (const auto& x : v)
        if (x == s) return true;
    return false;
}

int index_of(const std::vector<std::string>& v, const std::string& s) {
    for (std::size_t i = 0; i < v.size(); ++i)
        if (v[i] == s) return static_cast<int>(i);
    return -1;
}

// A process that shows up in /proc under name until killed.
pid_t spawn_named(const char* name) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, name);
        // Holds no pipe of its parent open: a reader waiting for the end
        // of a shutdown's output would otherwise wait for this process too.
        for (int fd = 3; fd < 1024; ++fd) close(fd);
        for (;;) pause();
    }
    // Named before anyone looks: the shutdown reads the names once.
    const std::string comm = "/proc/" + std::to_string(pid) + "/comm";
    for (int i = 0; i < 2000 && testing_support::read_file(comm) != std::string(name) + "\n"; ++i) usleep(1000);
    return pid;
}

}  // namespace

TEST(LogLevel, DebugInAnyCaseGivesLevelFour) {
    Seams seams;
    EXPECT_EQ(level_of({"debug"}), 4);
    EXPECT_EQ(level_of({"DEBUG"}), 4);
    EXPECT_EQ(level_of({"quite"}), 0);
    EXPECT_EQ(level_of({"Warning"}), 2);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(LogLevel, QuietIsUnknownAndGivesLevelOne) {
    Seams seams;
    EXPECT_EQ(level_of({"quiet"}), 1);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"unknown log level 'quiet'"});
    EXPECT_EQ(fake::bus().log.at(0).level, 0);
}

TEST(LogLevel, TwoArgumentsAreBothIgnoredAndGiveLevelOne) {
    Seams seams;
    EXPECT_EQ(level_of({"INFO", "DEBUG"}), 1);
    EXPECT_EQ(level_of({}), 1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(LogLevel, LevelNamesAndUnknownIndex) {
    EXPECT_STREQ(usbmgr_log_level_name(0), "QUITE");
    EXPECT_STREQ(usbmgr_log_level_name(4), "DEBUG");
    EXPECT_STREQ(usbmgr_log_level_name(5), "Unknown");
    EXPECT_STREQ(usbmgr_log_level_name(-1), "Unknown");
}

TEST(Startup, InitClearsBothTablesAndLoadsTheSettings) {
    Seams seams;
    std::memset(usb_physical_info, 0x5a, sizeof usb_physical_info);
    std::memset(usb_volume_info, 0x5a, sizeof usb_volume_info);
    write_file(USBMGR_CONF_PATH, factory_text());
    EXPECT_EQ(usbmgr_init(), 1);
    EXPECT_EQ(usb_physical_info[24].attach_device[0], 0);
    EXPECT_EQ(usb_volume_info[7].index, 0);
    EXPECT_STREQ(MOUNT_DISK_PATH, "/tmp/disk");
}

TEST(Startup, ChildThatDiesBeforeReadinessMakesTheParentExit255) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, factory_text());
    const std::string log = "/tmp/daemon.log";
    int status = in_child([&] {
        usbmgr::set_clock(nullptr);
        fake::bus().init_code = ORBIIL_TX_FAIL;
        fake::bus().log_fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const char* argv[] = {"usbmgrd", "debug", nullptr};
        _exit(usbmgr_main(2, const_cast<char**>(argv)) & 0xff);
    });
    EXPECT_EQ(status, 255);
    auto lines = logged_lines(log);
    EXPECT_TRUE(contains(lines, "ORB usb mgt daemon is running"));
    EXPECT_TRUE(contains(lines, "fail to OrbIilInit(), ret = TX_FAIL"));
    EXPECT_TRUE(contains(lines, "ORB fault mgt daemon is terminated with error"));
}

TEST(Startup, ReadinessFollowedAtOnceByTheChildsEndStillCountsAsReady) {
    usbmgr_daemon_signalled = 0;
    usbmgr_daemon_ready = 0;
    usbmgr_daemon_control_handler(SIGALRM);
    usbmgr_daemon_control_handler(SIGCHLD);  // the child ended right after
    EXPECT_EQ(usbmgr_daemon_signalled, 1);
    EXPECT_EQ(usbmgr_daemon_ready, 1);
    usbmgr_daemon_signalled = 0;
    usbmgr_daemon_ready = 0;
    usbmgr_daemon_control_handler(SIGCHLD);  // died first: not ready
    usbmgr_daemon_control_handler(SIGALRM);
    EXPECT_EQ(usbmgr_daemon_ready, 0);
    usbmgr_daemon_signalled = 0;
}

TEST(Startup, ParentExitsZeroOnceTheChildIsOnTheBusAndTheChildRegistersInOrder) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, factory_text());
    const std::string log = "/tmp/daemon.log";
    int status = in_child([&] {
        usbmgr::set_clock(nullptr);
        fake::bus().running_polls = 2;
        fake::bus().log_fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const char* argv[] = {"usbmgrd", "debug", nullptr};
        _exit(usbmgr_main(2, const_cast<char**>(argv)) & 0xff);
    });
    EXPECT_EQ(status, 0);
    // The daemon child idles two polls, then ends on its own.
    for (int i = 0; i < 100 && !contains(logged_lines(log), "ORB fault mgt daemon is terminated"); ++i) usleep(50000);
    auto lines = logged_lines(log);
    int running = index_of(lines, "ORB usb mgt daemon is running");
    int dev = index_of(lines, "/var/dev already exist ..");
    int done = index_of(lines, "ORB fault mgt daemon is terminated");
    ASSERT_GE(running, 0);
    EXPECT_GT(dev, running);
    EXPECT_GT(done, dev);
    EXPECT_TRUE(contains(lines, "start_inotify"));
}

TEST(Startup, RegistrationTablesAreInstalledWithTheirCounts) {
    Seams seams;
    ASSERT_EQ(OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT), 0);
    ASSERT_EQ(OrbIilSetEvtHandler(&usbmgr_iil_handle, usbmgr_evt_table, USBMGR_EVENT_COUNT), 0);
    EXPECT_EQ(fake::bus().commands.size(), 34u);
    EXPECT_EQ(fake::bus().events.size(), 4u);
    EXPECT_EQ(usbmgr_issue_event(), 1);
    EXPECT_EQ(fake::bus().issued_events, (std::vector<uint32_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(usbmgr_subscribe_event(), 1);
    std::vector<std::pair<std::string, uint32_t>> expected{{"DUSB_DMON", 0}, {"DUSB_DMON", 6}, {"DUSB_DMON", 7}, {"DUSB_DMON", 13}};
    EXPECT_EQ(fake::bus().subscriptions, expected);
}

TEST(Signals, SigintHasNoEffect) {
    int status = in_child([] {
        usbmgr_install_termination_handlers();
        raise(SIGINT);
        raise(SIGINT);
        _exit(7);
    });
    EXPECT_EQ(status, 7);
}

TEST(Signals, IgnoredSigtermStaysIgnored) {
    int status = in_child([] {
        signal(SIGTERM, SIG_IGN);
        usbmgr_install_termination_handlers();
        struct sigaction sa {};
        sigaction(SIGTERM, nullptr, &sa);
        _exit(sa.sa_handler == SIG_IGN ? 3 : 4);
    });
    EXPECT_EQ(status, 3);
}

namespace {

// Runs the shutdown in a child and returns every command it ran, one per
// line (file commands really run; respond answers the others).
std::vector<std::string> shutdown_commands(int* status,
                                           std::function<std::string(const std::string&)> respond = nullptr,
                                           std::function<std::string()> in_daemon = nullptr) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    *status = in_child([&] {
        close(fds[0]);
        if (in_daemon) {
            std::string line = in_daemon() + "\n";
            (void)!write(fds[1], line.data(), line.size());
        }
        testing_support::FakeRunner runner;
        runner.pass_through = [&](const std::string& t) {
            std::string line = t + "\n";
            (void)!write(fds[1], line.data(), line.size());
            return t.rfind("rm ", 0) == 0;
        };
        runner.respond = [&](const std::string& t) { return respond ? respond(t) : std::string(); };
        usbmgr::set_runner(&runner);
        usbmgr_shutdown();
    });
    close(fds[1]);
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) all.append(buf, static_cast<std::size_t>(n));
    close(fds[0]);
    std::vector<std::string> out;
    std::stringstream ss(all);
    std::string line;
    while (std::getline(ss, line)) out.push_back(line);
    return out;
}

}  // namespace

TEST(Shutdown, WithDevelopMarkerShellsAndGettysSurviveButDevIsEmptied) {
    Seams seams;
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    write_file("/tmp/usbmgrd_develop", "");
    write_file("/var/dev/sda", "");
    write_file("/var/dev/sda1", "");
    pid_t getty = spawn_named("getty");
    int status = -1;
    auto cmds = shutdown_commands(&status);
    EXPECT_EQ(status, 0);
    for (const auto& c : cmds) EXPECT_EQ(c.rfind("kill -9", 0), std::string::npos) << c;
    EXPECT_FALSE(testing_support::file_exists("/var/dev/sda"));
    EXPECT_FALSE(testing_support::file_exists("/var/dev/sda1"));
    EXPECT_TRUE(contains(cmds, "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1"));
    kill(getty, SIGKILL);
    waitpid(getty, nullptr, 0);
}

TEST(Shutdown, WithoutMarkerOnlyTheGettysTheDaemonStartedAreKilled) {
    Seams seams;
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    pid_t getty = spawn_named("getty");
    pid_t sh = spawn_named("sh");
    pid_t other = spawn_named("bash");
    pid_t own = 0;
    int status = -1;
    auto cmds = shutdown_commands(&status, nullptr, [&] {
        own = spawn_named("getty");
        return "own " + std::to_string(own);
    });
    EXPECT_EQ(status, 0);
    ASSERT_FALSE(cmds.empty());
    ASSERT_EQ(cmds[0].rfind("own ", 0), 0u);
    EXPECT_TRUE(contains(cmds, "kill -9 " + cmds[0].substr(4)));
    // Processes of the same names that the daemon did not start live on.
    EXPECT_FALSE(contains(cmds, "kill -9 " + std::to_string(getty)));
    EXPECT_FALSE(contains(cmds, "kill -9 " + std::to_string(sh)));
    EXPECT_FALSE(contains(cmds, "kill -9 " + std::to_string(other)));
    for (pid_t p : {getty, sh, other}) {
        kill(p, SIGKILL);
        waitpid(p, nullptr, 0);
    }
    // The fake runner ran no kill: the daemon's getty is this test's to end.
    kill(static_cast<pid_t>(std::stol(cmds[0].substr(4))), SIGKILL);
}

TEST(Shutdown, LoginProcessesAreTheDaemonsGettysAndEverythingBelowThem) {
    std::vector<UsbmgrProcess> table = {
        {100, 1, 100, "usbmgrd"},   // the daemon
        {200, 100, 200, "getty"},   // its getty, a session of its own
        {201, 200, 200, "sh"},      // the login shell
        {202, 201, 200, "vi"},      // what the shell started
        {203, 1, 200, "daemond"},   // left the shell, stayed in the session
        {204, 203, 204, "worker"},  // started from there
        {300, 1, 300, "getty"},     // a console getty of init
        {301, 300, 300, "sh"},      // its shell
        {400, 1, 400, "sh"},        // any other shell
        {500, 100, 100, "smbd"},    // a server the daemon started
    };
    std::vector<long> pids = usbmgr_login_processes(table, 100);
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids, (std::vector<long>{200, 201, 202, 203, 204}));
    EXPECT_TRUE(usbmgr_login_processes(table, 999).empty());
}

TEST(Shutdown, WithDevelopMarkerAndADiskMountedTheDiskIsStillUnmountedAndDevEmptied) {
    Seams seams;
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    write_file("/tmp/usbmgrd_develop", "");
    write_file("/var/dev/sda", "");
    write_file("/var/dev/sda1", "");
    ASSERT_EQ(mkdir("/tmp/disk", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    pid_t getty = spawn_named("getty");
    pid_t sh = spawn_named("sh");
    const std::string check = "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1";
    int status = -1;
    auto cmds = shutdown_commands(&status, [&](const std::string& t) {
        return t == check ? std::string("/tmp/disk/sda1\n") : std::string();
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(cmds, "umount /tmp/disk/sda1"));
    // Emptied by rmdir alone: nothing on a disk is ever removed recursively.
    EXPECT_FALSE(contains(cmds, "rm -R /tmp/disk/sda1"));
    EXPECT_LT(index_of(cmds, check), index_of(cmds, "umount /tmp/disk/sda1"));
    EXPECT_FALSE(testing_support::file_exists("/tmp/disk/sda1"));
    EXPECT_TRUE(contains(cmds, "rm /var/dev/*"));
    EXPECT_FALSE(testing_support::file_exists("/var/dev/sda"));
    EXPECT_FALSE(testing_support::file_exists("/var/dev/sda1"));
    for (const auto& c : cmds) EXPECT_EQ(c.rfind("kill", 0), std::string::npos) << c;
    // Both are still there to be killed by the test.
    EXPECT_EQ(kill(getty, 0), 0);
    EXPECT_EQ(kill(sh, 0), 0);
    for (pid_t p : {getty, sh}) {
        kill(p, SIGKILL);
        waitpid(p, nullptr, 0);
    }
}

// ---------------------------------------------------------------------------
// Whole start-up runs: the daemon's main in a forked process, its daemon
// child adopted by the test's own forked child so that both statuses are seen.

namespace {

constexpr const char kLog[] = "/tmp/daemon.log";
constexpr const char kCalls[] = "/tmp/daemon.calls";
constexpr const char kStatuses[] = "/tmp/daemon.statuses";

int g_calls_fd = -1;

// One line "PID TEXT" in the calls file, from whichever process.
void record(const std::string& text) {
    std::string line = std::to_string(getpid()) + " " + text + "\n";
    (void)!write(g_calls_fd, line.data(), line.size());
}

struct Entry {
    int pid;
    std::string text;
};

// "PID rest" lines of a file; for the log, rest is "LEVEL TEXT".
std::vector<Entry> entries(const std::string& path) {
    std::vector<Entry> out;
    for (const auto& line : testing_support::read_lines(path)) {
        auto sp = line.find(' ');
        if (sp == std::string::npos) continue;
        out.push_back({std::atoi(line.substr(0, sp).c_str()), line.substr(sp + 1)});
    }
    return out;
}

struct DaemonRun {
    int parent_pid = -1;
    int daemon_pid = -1;
    int parent = -1;  // exit status of the process that ran main and waited
    int daemon = -1;  // exit status of the daemon child
    std::vector<Entry> log;    // "LEVEL TEXT" of both processes, in order
    std::vector<Entry> calls;  // "bus NAME" and "run COMMAND" of both, in order

    // Texts the daemon child logged (without the level), in order.
    std::vector<std::string> daemon_log() const {
        std::vector<std::string> out;
        for (const auto& e : log)
            if (e.pid == daemon_pid) out.push_back(e.text.substr(e.text.find(' ') + 1));
        return out;
    }
    bool daemon_logged(const std::string& text, int level) const {
        for (const auto& e : log)
            if (e.pid == daemon_pid && e.text == std::to_string(level) + " " + text) return true;
        return false;
    }
    std::vector<std::string> daemon_calls() const {
        std::vector<std::string> out;
        for (const auto& e : calls)
            if (e.pid == daemon_pid) out.push_back(e.text);
        return out;
    }
};

// The daemon's own process ends as an orphan, so these tests collect its
// status as the child subreaper. qemu-user, which runs the tests for the
// gateway's processor, does not emulate that prctl.
bool can_reap_orphans() {
    const pid_t p = fork();
    if (p == 0) _exit(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0 ? 0 : 1);
    int st = 0;
    return p > 0 && waitpid(p, &st, 0) == p && WIFEXITED(st) && WEXITSTATUS(st) == 0;
}

#define SKIP_WITHOUT_CHILD_SUBREAPER() \
    if (!can_reap_orphans()) GTEST_SKIP() << "no PR_SET_CHILD_SUBREAPER here (qemu-user)"

// setup runs in the process that calls main, just before it; the fake bus
// and the runner record into the calls file.
template <typename Setup>
DaemonRun run_daemon(Seams& seams, Setup setup) {
    write_file(USBMGR_CONF_PATH, factory_text());
    in_child([&] {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const int log_fd = ::open(kLog, O_WRONLY | O_CREAT | O_APPEND, 0644);
        g_calls_fd = ::open(kCalls, O_WRONLY | O_CREAT | O_APPEND, 0644);
        const pid_t main_pid = fork();
        if (main_pid == 0) {
            usbmgr::set_clock(nullptr);
            fake::bus().log_fd = log_fd;
            fake::bus().on_call = [](const char* name) { record(std::string("bus ") + name); };
            seams.runner.pass_through = [](const std::string& t) {
                record("run " + t);
                return testing_support::is_file_command(t);
            };
            setup();
            const char* argv[] = {"usbmgrd", "debug", nullptr};
            _exit(usbmgr_main(2, const_cast<char**>(argv)) & 0xff);
        }
        std::string statuses;
        for (;;) {
            int st = 0;
            const pid_t p = waitpid(-1, &st, 0);
            if (p < 0) {
                if (errno == EINTR) continue;
                break;
            }
            const int code = WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
            statuses += std::to_string(p) + " " + std::to_string(code) + (p == main_pid ? " main" : "") + "\n";
        }
        write_file(kStatuses, statuses);
        _exit(0);
    });
    DaemonRun run;
    run.log = entries(kLog);
    run.calls = entries(kCalls);
    for (const auto& e : run.log)
        if (e.text == "0 ORB usb mgt daemon is running") run.daemon_pid = e.pid;
    for (const auto& e : entries(kStatuses)) {
        const int code = std::atoi(e.text.c_str());
        if (e.text.find(" main") != std::string::npos) {
            run.parent_pid = e.pid;
            run.parent = code;
        } else if (e.pid == run.daemon_pid) {
            run.daemon = code;
        }
    }
    return run;
}

bool has(const std::vector<std::string>& v, const std::string& s) { return contains(v, s); }

}  // namespace

TEST(Startup, CommandTableFailureIsAnErrorEndWithStatus255) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] { fake::bus().set_cmd_code = ORBIIL_TX_FAIL; });
    EXPECT_EQ(run.parent, 0);  // readiness came before the tables
    EXPECT_EQ(run.daemon, 255);
    EXPECT_TRUE(run.daemon_logged("fail to OrbIilSetCmdHandler(), ret = TX_FAIL", 1));
    EXPECT_TRUE(run.daemon_logged("ORB fault mgt daemon is terminated with error", 0));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilSetEvtHandler"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilReset"));
}

TEST(Startup, EventTableFailureEndsTheChildWithStatusZeroAndNoReset) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] { fake::bus().set_evt_code = ORBIIL_BAD_PARAM; });
    EXPECT_EQ(run.parent, 0);
    EXPECT_EQ(run.daemon, 0);
    EXPECT_TRUE(run.daemon_logged("fail to OrbIilSetEvtHandler(), ret = BAD_PARAM", 0));
    EXPECT_FALSE(has(run.daemon_log(), "ORB fault mgt daemon is terminated with error"));
    EXPECT_FALSE(has(run.daemon_log(), "ORB fault mgt daemon is terminated"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilIssueEvent"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilReset"));
}

TEST(Startup, IssueFailureEndsTheChildWithStatus255WithoutTheErrorEnd) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().issue_fail_at = 2;
        fake::bus().issue_code = ORBIIL_TX_FAIL;
    });
    EXPECT_EQ(run.daemon, 255);
    EXPECT_TRUE(run.daemon_logged("fail to usbmgr_issue_event()", 0));
    EXPECT_FALSE(has(run.daemon_log(), "ORB fault mgt daemon is terminated with error"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilSubscribeEvent"));
}

TEST(Startup, SubscriptionFailureLogsOkAsItsCodeAndEndsTheChildWithStatusZero) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().subscribe_fail_at = 1;
        fake::bus().subscribe_code = ORBIIL_TX_FAIL;
    });
    EXPECT_EQ(run.parent, 0);
    EXPECT_EQ(run.daemon, 0);
    EXPECT_TRUE(run.daemon_logged("fail to usbmgr_subscribe_event(), ret = OK", 0));
    EXPECT_FALSE(has(run.daemon_log(), "start_inotify"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilReset"));
}

TEST(Startup, ResetFailureAfterTheBusStopsLogsItsCodeAndIsAnErrorEnd) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().running_polls = 1;
        fake::bus().reset_code = ORBIIL_ERR;
    });
    EXPECT_EQ(run.parent, 0);
    EXPECT_EQ(run.daemon, 255);
    auto log = run.daemon_log();
    EXPECT_TRUE(run.daemon_logged("fail to OrbIilReset(), ret = ERR", 1));
    EXPECT_LT(index_of(log, "fail to OrbIilReset(), ret = ERR"),
              index_of(log, "ORB fault mgt daemon is terminated with error"));
    EXPECT_FALSE(has(log, "ORB fault mgt daemon is terminated"));
}

TEST(Startup, DeferredWorkerThatCannotStartIsAnErrorEnd) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        // The parent's wake-up exists; after it no descriptor can be made any
        // more, so the worker's wake-up cannot exist.
        usbmgr_install_termination_handlers();
        rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
    });
    EXPECT_EQ(run.parent, 255);  // the child died before it was ready
    EXPECT_EQ(run.daemon, 255);
    auto log = run.daemon_log();
    EXPECT_TRUE(run.daemon_logged("fail to usbmgr_deferred_init()", 0));
    EXPECT_GT(index_of(log, "ORB fault mgt daemon is terminated with error"),
              index_of(log, "fail to usbmgr_deferred_init()"));
    EXPECT_FALSE(has(run.daemon_calls(), "bus OrbIilInit"));
}

TEST(Startup, SigtermDuringStartUpThatThenFailsRunsTheShutdown) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().set_cmd_code = ORBIIL_TX_FAIL;
        fake::bus().on_call = [](const char* name) {
            record(std::string("bus ") + name);
            if (std::strcmp(name, "OrbIilSetCmdHandler") == 0) raise(SIGTERM);
        };
    });
    EXPECT_EQ(run.daemon, 0);
    auto log = run.daemon_log();
    EXPECT_TRUE(has(log, "fail to OrbIilSetCmdHandler(), ret = TX_FAIL"));
    EXPECT_FALSE(has(log, "ORB fault mgt daemon is terminated with error"));
    auto calls = run.daemon_calls();
    EXPECT_TRUE(has(calls, "bus OrbIilReset"));
    EXPECT_TRUE(has(calls, "run mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1"));
    EXPECT_TRUE(has(calls, "run rm /var/dev/*"));
}

TEST(Startup, SigtermDuringStartUpThatThenEndsWithStatusZeroRunsTheShutdown) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().set_evt_code = ORBIIL_TX_FAIL;
        fake::bus().on_call = [](const char* name) {
            record(std::string("bus ") + name);
            if (std::strcmp(name, "OrbIilInit") == 0) raise(SIGTERM);
        };
    });
    EXPECT_EQ(run.daemon, 0);
    EXPECT_TRUE(run.daemon_logged("fail to OrbIilSetEvtHandler(), ret = TX_FAIL", 0));
    auto calls = run.daemon_calls();
    EXPECT_TRUE(has(calls, "bus OrbIilReset"));
    EXPECT_TRUE(has(calls, "run rm /var/dev/*"));
}

TEST(Startup, SigtermThatComesAsTheBusStopsStillRunsTheShutdown) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().running_polls = 0;
        fake::bus().on_call = [](const char* name) {
            record(std::string("bus ") + name);
            if (std::strcmp(name, "OrbIilIsRunning") == 0) raise(SIGTERM);
        };
    });
    EXPECT_EQ(run.daemon, 0);
    EXPECT_FALSE(has(run.daemon_log(), "ORB fault mgt daemon is terminated"));
    auto calls = run.daemon_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "bus OrbIilReset"), 1);
    EXPECT_TRUE(has(calls, "run rm /var/dev/*"));
}

TEST(Signals, SigintSentToTheWaitingParentChangesNothing) {
    SKIP_WITHOUT_CHILD_SUBREAPER();
    Seams seams;
    auto run = run_daemon(seams, [] {
        fake::bus().running_polls = 1;
        fake::bus().on_call = [](const char* name) {
            record(std::string("bus ") + name);
            if (std::strcmp(name, "OrbIilInit") != 0) return;
            // Once the parent waits, interrupt it, then report readiness as usual.
            const std::string waiting = std::to_string(getppid()) + " 4 keep waiting";
            for (int i = 0; i < 200; ++i) {
                if (contains(testing_support::read_lines(kLog), waiting)) break;
                usleep(50000);
            }
            kill(getppid(), SIGINT);
        };
    });
    EXPECT_EQ(run.parent, 0);
    EXPECT_EQ(run.daemon, 0);
    EXPECT_TRUE(has(run.daemon_log(), "ORB fault mgt daemon is terminated"));
    bool parent_waited = false;
    for (const auto& e : run.log) parent_waited |= e.pid == run.parent_pid && e.text == "4 keep waiting";
    EXPECT_TRUE(parent_waited);
}

// ---------------------------------------------------------------------------
// Start-up builds the model once; shutdown stops both servers before it
// unmounts anything.

TEST(Shutdown, BothServersAreStoppedBeforeAnyDiskIsUnmounted) {
    Seams seams;
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    write_file("/tmp/usbmgrd_develop", "");
    ASSERT_EQ(mkdir("/tmp/disk", 0755), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0755), 0);
    const std::string check = "mount | grep \"/tmp/disk\" | awk -F \"[ ]\" '{print $3}' 2>&1";
    int status = -1;
    auto cmds = shutdown_commands(&status, [&](const std::string& t) {
        return t == check ? std::string("/tmp/disk/sda1\n") : std::string();
    });
    EXPECT_EQ(status, 0);
    const int unmount = index_of(cmds, "umount /tmp/disk/sda1");
    ASSERT_GE(unmount, 0);
    const int minidlna = index_of(cmds, "ps | grep minidlnad | grep -v grep 2>&1");
    const int smbd = index_of(cmds, "ps | grep smbd | grep -v grep 2>&1");
    ASSERT_GE(minidlna, 0);
    ASSERT_GE(smbd, 0);
    EXPECT_LT(minidlna, smbd);
    EXPECT_LT(smbd, unmount);
}

TEST(Startup, ServiceStartUpBuildsTheModelBeforeItStartsTheServers) {
    Seams seams;
    usbmgr_tr140_db[0].Enable = 0;
    testing_support::write_file(USBMGR_CONF_PATH, factory_text());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    std::strcpy(SAMBA_CONF.conf_dir, "/tmp/smb.conf");
    std::strcpy(SAMBA_CONF.username_map_dir, "/tmp/smbusers");
    std::strcpy(MINIDLNA_CONF.conf_dir, "/tmp/minidlna.conf");
    MINIDLNA_CONF.enable = 0;
    uint32_t enable_at_start = 99;
    seams.runner.while_running = [&](const std::string& t) {
        if (t == "/bin/smbd") enable_at_start = usbmgr_tr140_db[0].Enable;
    };
    fake::reset();
    EXPECT_EQ(usbmgr_service_init(), 1);
    EXPECT_EQ(enable_at_start, 1u);
    EXPECT_EQ(usbmgr_tr140_db[0].NetworkServer.SMBEnable, 1u);
    EXPECT_STREQ(usbmgr_tr140_db[0].Capabilities.SupportedNetworkProtocols, "SMB");
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "=========== PhysicalMedium ================"));
    {
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_free();
    }
}
