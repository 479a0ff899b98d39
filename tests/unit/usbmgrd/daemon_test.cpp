// Start-up, the readiness hand-shake and the orderly shutdown. Tests that
// run the daemon's main or its shutdown do so in a forked child, since both
// fork, exit or change signal dispositions.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "db_util/db_util.h"
#include "platform_fake.h"
#include "test_support.h"
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
        for (;;) pause();
    }
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

// Runs the shutdown in a child and returns the commands it ran that were
// not file commands (those really run), one per line.
std::vector<std::string> shutdown_commands(int* status) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    *status = in_child([&] {
        close(fds[0]);
        testing_support::FakeRunner runner;
        runner.pass_through = [](const std::string& t) { return t.rfind("rm /var/dev", 0) == 0; };
        runner.respond = [&](const std::string& t) {
            std::string line = t + "\n";
            (void)!write(fds[1], line.data(), line.size());
            return std::string();
        };
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

TEST(Shutdown, WithoutMarkerEveryShAndGettyIsKilled) {
    Seams seams;
    std::strcpy(MOUNT_DISK_PATH, "/tmp/disk");
    pid_t getty = spawn_named("getty");
    pid_t sh = spawn_named("sh");
    pid_t other = spawn_named("bash");
    int status = -1;
    auto cmds = shutdown_commands(&status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(cmds, "kill -9 " + std::to_string(getty)));
    EXPECT_TRUE(contains(cmds, "kill -9 " + std::to_string(sh)));
    EXPECT_FALSE(contains(cmds, "kill -9 " + std::to_string(other)));
    for (pid_t p : {getty, sh, other}) {
        kill(p, SIGKILL);
        waitpid(p, nullptr, 0);
    }
}
