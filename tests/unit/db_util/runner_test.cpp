// The one run-and-log of the daemon and the start report of the runners.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/runner.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "platform_fake.h"
#include "test_support.h"

using testing_support::Seams;

namespace {

// The log texts written so far, with their module names.
std::vector<std::string> logged_with_module() {
    std::vector<std::string> out;
    for (const auto& line : fake::bus().log) out.push_back(line.module + ": " + line.text);
    return out;
}

}  // namespace

TEST(RunAndLog, RunLineIsLoggedUnderTheCallersModuleWhileTheCommandRuns) {
    Seams seams;
    std::vector<std::vector<std::string>> seen_while_running;
    seams.runner.while_running = [&](const std::string&) { seen_while_running.push_back(logged_with_module()); };

    EXPECT_EQ(disk_util_exe_command(usbmgr::CommandLine::exec({"umount", "/tmp/disk/sda1"})), 0);
    EXPECT_EQ(db_util_exe_command(usbmgr::CommandLine::exec({"true"})), 0);
    usbmgr_cfg_save();

    ASSERT_EQ(seen_while_running.size(), 3u);
    EXPECT_EQ(seen_while_running[0], (std::vector<std::string>{"disk_util.c: run command : umount /tmp/disk/sda1"}));
    EXPECT_EQ(seen_while_running[1].back(), "db_util.c: run command : true");
    EXPECT_EQ(seen_while_running[2].back(), "usbmgrd.c: run command : orbcm_util cfg save");
    // Logged once each, not again when the command ends.
    EXPECT_EQ(logged_with_module(), seen_while_running[2]);
}

TEST(RunAndLog, RunLineIsLoggedAtDebugLevel) {
    Seams seams;
    usbmgr::run_logged(usbmgr::CommandLine::exec({"true"}), "db_util.c");
    ASSERT_EQ(fake::bus().log.size(), 1u);
    EXPECT_EQ(fake::bus().log[0].level, 4);
    EXPECT_EQ(fake::bus().log[0].text, "run command : true");
}

TEST(RunAndLog, CommandThatCannotStartIsNotLoggedAndGivesEachModulesFailureValue) {
    Seams seams;
    seams.runner.fail_start = true;
    bool ran = false;
    seams.runner.while_running = [&](const std::string&) { ran = true; };
    EXPECT_FALSE(usbmgr::run_logged(usbmgr::CommandLine::exec({"true"}), "db_util.c"));
    EXPECT_EQ(db_util_exe_command(usbmgr::CommandLine::exec({"true"})), 1);
    EXPECT_EQ(disk_util_exe_command(usbmgr::CommandLine::exec({"true"})), -1);
    EXPECT_FALSE(ran);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(RunAndLog, RefusedCommandLineHasOneTextInEveryModule) {
    Seams seams;
    auto bad = usbmgr::shell_command<100>("ls %s", "a;b\n");
    EXPECT_EQ(db_util_exe_command(bad), 1);
    EXPECT_EQ(disk_util_exe_command(bad), -1);
    EXPECT_EQ(logged_with_module(), (std::vector<std::string>{"db_util.c: refusing command line 'ls a;b_'",
                                                              "disk_util.c: refusing command line 'ls a;b_'"}));
    for (const auto& line : fake::bus().log) EXPECT_EQ(line.level, 1);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(RunAndLog, FakeRunnerReportsTheStartOfAPassedThroughCommandBeforeItEnds) {
    Seams seams;
    seams.runner.pass_through = [](const std::string& t) { return t.rfind("cat ", 0) == 0; };
    ASSERT_EQ(mkfifo("/tmp/runner_fifo", 0600), 0);
    // cat waits for a writer on the pipe; only the start report writes, so a
    // report that came after the end would never let it finish.
    seams.runner.while_running = [](const std::string&) {
        int fd = open("/tmp/runner_fifo", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(write(fd, "hi\n", 3), 3);
        close(fd);
    };
    EXPECT_EQ(db_util_exe_command(usbmgr::CommandLine::exec({"cat", "/tmp/runner_fifo"})), 0);
    EXPECT_TRUE(fake::logged(4, "db_util.c", "run command : cat /tmp/runner_fifo"));
}

TEST(RunAndLog, SystemRunnerReportsTheStartBeforeTheCommandEnds) {
    Seams seams;
    ASSERT_EQ(mkfifo("/tmp/runner_fifo", 0600), 0);
    usbmgr::SystemRunner real;
    int reports = 0;
    auto r = real.run(usbmgr::CommandLine::exec({"cat", "/tmp/runner_fifo"}), /*capture=*/true, [&] {
        ++reports;
        int fd = open("/tmp/runner_fifo", O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(write(fd, "hi\n", 3), 3);
        close(fd);
    });
    EXPECT_TRUE(r.started);
    EXPECT_EQ(r.output, "hi\n");
    EXPECT_EQ(reports, 1);
}

TEST(RunAndLog, RunWithoutStartReportStillRuns) {
    usbmgr::SystemRunner real;
    auto r = real.run(usbmgr::CommandLine::exec({"echo", "x"}), true);
    EXPECT_TRUE(r.started);
    EXPECT_EQ(r.output, "x\n");
}

TEST(TextRule, ControlCharactersBecomeUnderscoresAndEverythingElseStays) {
    char text[] = "a=b\nc\rd\te\x1f" "f\x7fg=h \xc3\xa9";
    usbmgr::sanitize_value_text(text, sizeof text);
    EXPECT_STREQ(text, "a=b_c_d_e_f_g=h \xc3\xa9");
}

TEST(TextRule, CleanCopyCutsToItsBufferAndCleans) {
    char out[6];
    EXPECT_STREQ(usbmgr::clean_copy(out, "S=1\n234"), "S=1_2");
}
