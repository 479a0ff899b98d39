// The process check and the stop loops of MiniDLNA and Samba, driven by the
// fake runner (which answers the checks) and the fake clock (which records
// the sleeps and returns at once).
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app_util/app_util.h"
#include "platform_fake.h"
#include "fixture.h"
#include "test_support.h"


using CheckProcess = testing_support::DaemonTest;
using StopMiniDlna = testing_support::DaemonTest;
using StopSamba = testing_support::DaemonTest;

namespace {

std::string check(const std::string& name) { return "ps | grep " + name + " | grep -v grep 2>&1"; }

// Answers each process check with a listed line while the process has
// polls left; every check of a name uses up one poll.
struct Processes {
    std::map<std::string, int> polls_left;
    std::map<std::string, int> checks;
    std::string respond(const std::string& text) {
        for (auto& [name, left] : polls_left) {
            if (text != check(name)) continue;
            ++checks[name];
            if (left == 0) return "";
            --left;
            return "  123 root      5000 S    " + name + " -D\n";
        }
        return "";
    }
};

std::vector<std::string> without_checks(const std::vector<std::string>& texts) {
    std::vector<std::string> out;
    for (const auto& t : texts)
        if (t.rfind("ps | grep ", 0) != 0) out.push_back(t);
    return out;
}

}  // namespace

TEST_F(CheckProcess, ListedLineMeansRunningAndIsLogged) {
    seams.runner.respond = [](const std::string& t) {
        return t == "ps | grep smbd | grep -v grep 2>&1" ? std::string(" 42 root /usr/sbin/smbd\n") : std::string();
    };
    EXPECT_EQ(app_util_check_process("smbd"), 1);
    ASSERT_EQ(seams.runner.calls().size(), 1u);
    EXPECT_EQ(seams.runner.calls()[0].text, "ps | grep smbd | grep -v grep 2>&1");
    EXPECT_TRUE(seams.runner.calls()[0].shell);
    EXPECT_TRUE(seams.runner.calls()[0].capture);
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"check process smbd", "check process smbd exist"}));
}

TEST_F(CheckProcess, EmptyOutputMeansNotRunning) {
    EXPECT_EQ(app_util_check_process("nmbd"), 0);
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"check process nmbd"}));
}

TEST_F(CheckProcess, CheckThatCannotStartCountsAsNotRunning) {
    seams.runner.fail_start = true;
    EXPECT_EQ(app_util_check_process("smbd"), 0);
}

TEST_F(CheckProcess, CommandIsNotLoggedAsRunCommand) {
    app_util_check_process("smbd");
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.find("run command"), std::string::npos) << t;
}

TEST_F(CheckProcess, NameThatIsNotAPlainWordNeverRuns) {
    // Every command that starts answers with a line; the refused one does not start.
    seams.runner.respond = [](const std::string&) { return std::string(" 1 root smbd\n"); };
    EXPECT_EQ(app_util_check_process("smbd; reboot"), 0);
    EXPECT_EQ(app_util_check_process("smbd"), 1);
}

TEST_F(CheckProcess, ProgramWhoseNameMerelyContainsTheNameIsNotRunning) {
    seams.runner.respond = [](const std::string&) {
        return std::string("  50 root      1200 S    smbdx\n  51 root      900 S    vi /etc/smbd.conf\n"
                           "  52 root      900 S    sh -c smbd\n  53 root      900 S    /tmp/smbd2 -D\n");
    };
    EXPECT_EQ(app_util_check_process("smbd"), 0);
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"check process smbd"}));
}

TEST_F(CheckProcess, CommandColumnMatchesWithItsPathInBothListingFormats) {
    EXPECT_TRUE(app_util_listing_runs("  42 root      5000 S    /usr/sbin/smbd -D\n", "smbd"));
    EXPECT_TRUE(app_util_listing_runs("  42 root      5000 SW<  [smbd]\n", "smbd"));
    EXPECT_TRUE(app_util_listing_runs("  42 root      5m   S    {smbd} /usr/sbin/smbd -D\n", "smbd"));
    EXPECT_TRUE(app_util_listing_runs("   42 ?        00:00:01 smbd\n", "smbd"));
    EXPECT_TRUE(app_util_listing_runs("  9 root 1 S nmbd\n  42 root 1 S smbd\n", "smbd"));
    EXPECT_FALSE(app_util_listing_runs("   42 ?        00:00:01 smbd-notifyd\n", "smbd"));
    EXPECT_FALSE(app_util_listing_runs("   42 pts/0    00:00:00 less\n", "smbd"));
    EXPECT_FALSE(app_util_listing_runs("  42 smbd 1 S bash\n", "smbd"));
    EXPECT_FALSE(app_util_listing_runs("smbd\n", "smbd"));
}

TEST_F(StopMiniDlna, ServerThatNeverLeavesIsGivenUpAfterTenPassesWithOneLogLine) {
    Processes p;
    p.polls_left["minidlnad"] = 1000;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_minidllna();
    EXPECT_EQ(p.checks["minidlnad"], 11);
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>(20, 500000));
    EXPECT_TRUE(fake::logged("stop minidlnad gave up after 10 s"));
}

TEST_F(StopSamba, ServersThatNeverLeaveAreGivenUpAfterTenPassesWithOneLogLine) {
    Processes p;
    p.polls_left["smbd"] = 1000;
    p.polls_left["nmbd"] = 1000;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_samba();
    EXPECT_EQ(p.checks["smbd"], 11);
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>(20, 500000));
    EXPECT_TRUE(fake::logged("stop samba gave up after 10 s"));
}

TEST_F(StopSamba, NmbdLeftAloneIsPolledOnlyUntilThePassesRunOut) {
    Processes p;
    p.polls_left["smbd"] = 0;
    p.polls_left["nmbd"] = 1000;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_samba();
    EXPECT_TRUE(without_checks(seams.runner.texts()).empty());
    EXPECT_EQ(p.checks["nmbd"], 11);
    EXPECT_TRUE(fake::logged("stop samba gave up after 10 s"));
}

TEST_F(StopMiniDlna, NothingRunningRunsNoKill) {
    app_util_stop_minidllna();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{check("minidlnad")}));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(StopMiniDlna, ServerThatLeavesAtOnceIsKilledOncePolitely) {
    Processes p;
    p.polls_left["minidlnad"] = 1;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_minidllna();
    EXPECT_EQ(seams.runner.texts(),
              (std::vector<std::string>{check("minidlnad"), "killall minidlnad", check("minidlnad")}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000, 500000}));
    EXPECT_TRUE(fake::logged("run command : killall minidlnad"));
}

TEST_F(StopMiniDlna, ServerThatIgnoresThePoliteKillGetsSignalNineFromTheThirdPass) {
    Processes p;
    p.polls_left["minidlnad"] = 5;  // gone at the sixth check
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_minidllna();
    EXPECT_EQ(without_checks(seams.runner.texts()),
              (std::vector<std::string>{"killall minidlnad", "killall minidlnad", "killall -9 minidlnad",
                                        "killall -9 minidlnad", "killall -9 minidlnad"}));
    // The first signal 9 goes out after two passes of 1 s each.
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>(10, 500000));
    EXPECT_EQ(p.checks["minidlnad"], 6);
}

TEST_F(StopMiniDlna, KillsRunWithoutAShell) {
    Processes p;
    p.polls_left["minidlnad"] = 3;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_minidllna();
    for (const auto& c : seams.runner.calls()) {
        if (c.text.rfind("killall", 0) == 0) {
            EXPECT_FALSE(c.shell) << c.text;
        }
    }
}

TEST_F(StopSamba, NothingRunningRunsNoKill) {
    app_util_stop_samba();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{check("smbd"), check("nmbd")}));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(StopSamba, BothServersAreKilledThenSmbdWithSignalNine) {
    Processes p;
    p.polls_left["smbd"] = 1;
    p.polls_left["nmbd"] = 1;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_samba();
    EXPECT_EQ(seams.runner.texts(),
              (std::vector<std::string>{check("smbd"), check("nmbd"), "killall smbd", "killall nmbd",
                                        "killall -9 smbd", check("smbd"), check("nmbd")}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000, 500000}));
}

TEST_F(StopSamba, SmbdThatStaysIsKilledAgainEveryPass) {
    Processes p;
    p.polls_left["smbd"] = 3;
    p.polls_left["nmbd"] = 1;
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_samba();
    EXPECT_EQ(without_checks(seams.runner.texts()),
              (std::vector<std::string>{"killall smbd", "killall nmbd", "killall -9 smbd", "killall smbd",
                                        "killall nmbd", "killall -9 smbd", "killall smbd", "killall nmbd",
                                        "killall -9 smbd"}));
}

TEST_F(StopSamba, OnlyNmbdRunningKeepsPollingAndKillsNothing) {
    Processes p;
    p.polls_left["smbd"] = 0;
    p.polls_left["nmbd"] = 4;  // nmbd goes away by itself at its fifth check
    seams.runner.respond = [&](const std::string& t) { return p.respond(t); };
    app_util_stop_samba();
    EXPECT_TRUE(without_checks(seams.runner.texts()).empty());
    EXPECT_EQ(p.checks["nmbd"], 5);
    EXPECT_EQ(p.checks["smbd"], 5);
    // One second a poll.
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>(8, 500000));
}

TEST_F(StopMiniDlna, FirstSignalNineComesTwoSecondsAfterTheStopBegan) {
    Processes p;
    p.polls_left["minidlnad"] = 10;
    unsigned long slept = 0;
    unsigned long slept_at_first_nine = 0;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "killall -9 minidlnad" && slept_at_first_nine == 0) slept_at_first_nine = slept;
        return p.respond(t);
    };
    seams.clock.on_sleep = [&](unsigned long us) { slept += us; };
    app_util_stop_minidllna();
    EXPECT_EQ(slept_at_first_nine, 2000000u);
}
