// Key=value lookups, the indexed-key splitter, the runner and the hand-off.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "db_util/db_util.h"
#include "db_util/runner.h"
#include "platform_fake.h"
#include "test_support.h"

using testing_support::Seams;
using testing_support::write_file;

namespace {

std::string get_s(const char* key, int* result) {
    char out[128] = {};
    *result = db_util_config_get_parameter_s(key, out);
    return out;
}

}  // namespace

TEST(KeyValueFile, KeyWithNothingAfterEqualsIsFoundAsEmptyString) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.A=1\nUSBMGR.EMPTY=\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.EMPTY", &r), "");
    EXPECT_EQ(r, 0);
}

TEST(KeyValueFile, EmptyValueReadAsIntegerIsZeroOnFirstLineElseMinusOne) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.EMPTY=\nUSBMGR.B=2\n");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.EMPTY"), 0);
    write_file(USBMGR_CONF_PATH, "USBMGR.B=2\nUSBMGR.EMPTY=\n");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.EMPTY"), -1);
}

TEST(KeyValueFile, NumberFollowedByLettersReadsAsTheNumber) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.N=12abc\n");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.N"), 12);
}

TEST(KeyValueFile, KeyWrittenTwiceGivesTheFirstOccurrence) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.K=first\nUSBMGR.K=second\nUSBMGR.N=1\nUSBMGR.N=2\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.K", &r), "first");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.N"), 1);
}

TEST(KeyValueFile, WholeKeyComparisonKeepsUserOneAndUserTenApart) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.SAMBA.USER_NAME.1=one\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.SAMBA.USER_NAME.10", &r), "");
    EXPECT_EQ(r, -1);
    write_file(USBMGR_CONF_PATH, "USBMGR.SAMBA.USER_NAME.10=ten\n");
    EXPECT_EQ(get_s("USBMGR.SAMBA.USER_NAME.1", &r), "");
    EXPECT_EQ(r, -1);
}

TEST(KeyValueFile, LongLineIsReadAsTwoPiecesAndTheTailIsAKeyOfItsOwn) {
    Seams seams;
    // 255 characters make the first piece; the tail "TAIL.KEY=7" is a line of its own.
    std::string head = "USBMGR.LONG=" + std::string(255 - 12, 'x');
    ASSERT_EQ(head.size(), 255u);
    write_file(USBMGR_CONF_PATH, head + "TAIL.KEY=7\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.LONG", &r), std::string(127 - 0, 'x').substr(0, 127));
    EXPECT_EQ(r, 0);
    EXPECT_EQ(db_util_config_get_parameter_i("TAIL.KEY"), 7);
}

TEST(KeyValueFile, ThreeHundredCharacterLineCrashesNothing) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, std::string(300, 'K') + "=" + std::string(300, 'v') + "\nUSBMGR.OK=1\n");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.OK"), 1);
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.MISSING", &r), "");
    EXPECT_EQ(r, -1);
}

TEST(KeyValueFile, MissingFileGivesZeroForIntegersAndLeavesStringBufferUntouched) {
    Seams seams;
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.ANY"), 0);
    char out[128];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(db_util_config_get_parameter_s("USBMGR.ANY", out), -1);
    for (char c : out) ASSERT_EQ(c, 'z');
}

TEST(KeyValueFile, AbsentKeyClearsTheFirstFourBytesOfTheBuffer) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.A=1\n");
    char out[128];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(db_util_config_get_parameter_s("USBMGR.B", out), -1);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[3], 0);
    EXPECT_EQ(out[4], 'z');
}

TEST(KeyValueFile, AbsentKeyReadsAsMinusOneAndEmptyFileAsZero) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.A=1\n");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.B"), -1);
    write_file(USBMGR_CONF_PATH, "");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.B"), 0);
}

TEST(KeyValueFile, ValueOfMoreThan127CharactersIsCutToTheValueBuffer) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.V=" + std::string(200, 'a') + "\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.V", &r), std::string(127, 'a'));
}

TEST(KeyValueFile, ValueMayContainEqualsAndKeepsBlanks) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.V=a=b \nUSBMGR.W =x\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.V", &r), "a=b ");
    EXPECT_EQ(get_s("USBMGR.W", &r), "");
    EXPECT_EQ(r, -1);
    EXPECT_EQ(get_s("USBMGR.W ", &r), "x");
}

TEST(KeyValueFile, LineWithoutEqualsNeverMatches) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.NOEQ\nUSBMGR.A=1\n");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.NOEQ", &r), "");
    EXPECT_EQ(r, -1);
    EXPECT_EQ(get_s("USBMGR.NOEQ\n", &r), "");
    EXPECT_EQ(db_util_config_get_parameter_i("USBMGR.A"), 1);
}

TEST(KeyValueFile, BinaryBytesAndMissingFinalNewlineLoadSafely) {
    Seams seams;
    std::string bin("\x01\x02\xff\xfe=\x80\x81\n", 8);
    write_file(USBMGR_CONF_PATH, bin + "USBMGR.LAST=end");
    int r = 0;
    EXPECT_EQ(get_s("USBMGR.LAST", &r), "end");
    EXPECT_EQ(r, 0);
}

TEST(KeyValueFile, SmallOutputBufferIsNeverOverrun) {
    Seams seams;
    write_file(USBMGR_CONF_PATH, "USBMGR.V=" + std::string(100, 'a') + "\n");
    char out[16 + 8];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(db_util_config_get_parameter_s("USBMGR.V", out, 16), 0);
    EXPECT_EQ(std::string(out), std::string(15, 'a'));
    EXPECT_EQ(out[16], 'z');
}

TEST(KeyValueFile, HistoryGettersReadTheHistoryFile) {
    Seams seams;
    write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=S1\nUSBMGR.0.ENABLE.0=1\n");
    char out[128] = {};
    EXPECT_EQ(db_util_tr140_conf_get_parameter_s("USBMGR.0.SERIAL_NUMBER", out), 0);
    EXPECT_STREQ(out, "S1");
    EXPECT_EQ(db_util_tr140_conf_get_parameter_i("USBMGR.0.ENABLE.0"), 1);
}

TEST(KeyValueFile, SplitOfIndexedKeyGivesItemNameAndIndex) {
    char key[] = "USBMGR.SAMBA.USER_ENABLE.7";
    UsbmgrConfItem item{};
    EXPECT_EQ(db_util_usbmgr_conf_split_item(key, &item), -1);
    EXPECT_STREQ(item.item_name, "USER_ENABLE");
    EXPECT_EQ(item.item_index, 7);
    EXPECT_STREQ(key, "USBMGR");  // the dots became NULs
}

TEST(KeyValueFile, SplitOfShortKeyLeavesTheRecordClear) {
    char key[] = "USBMGR.MOUNT_DISK_PATH";
    UsbmgrConfItem item{};
    db_util_usbmgr_conf_split_item(key, &item);
    EXPECT_STREQ(item.item_name, "");
    EXPECT_EQ(item.item_index, 0);
}

TEST(KeyValueFile, SplitCutsAnOverlongItemNameToItsField) {
    char key[] = "USBMGR.SAMBA.ABCDEFGHIJKLMNOPQRSTUVWXYZ.3";
    UsbmgrConfItem item{};
    db_util_usbmgr_conf_split_item(key, &item);
    EXPECT_STREQ(item.item_name, "ABCDEFGHIJKLMNOPQRS");
    EXPECT_EQ(item.item_index, 3);
}

TEST(CommandRunner, StartedCommandIsLoggedAndCountsAsSuccess) {
    Seams seams;
    EXPECT_EQ(db_util_exe_command(usbmgr::CommandLine::exec({"mv", "/tmp/a", "/tmp/b"})), 0);
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"mv /tmp/a /tmp/b"});
    EXPECT_TRUE(fake::logged(4, "db_util.c", "run command : mv /tmp/a /tmp/b"));
}

TEST(CommandRunner, CommandThatCannotStartReturnsOneAndLogsNothing) {
    Seams seams;
    seams.runner.fail_start = true;
    EXPECT_EQ(db_util_exe_command(usbmgr::CommandLine::exec({"true"})), 1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(CommandRunner, ShellCommandRefusesValuesThatAreNotPlainWords) {
    auto ok = usbmgr::shell_command<100>("mount | grep %s 2>&1", "/tmp/disk/sda1");
    EXPECT_TRUE(ok.valid);
    EXPECT_EQ(ok.text, "mount | grep /tmp/disk/sda1 2>&1");
    for (const char* bad : {"sda;touch /tmp/pwned", "a b", "$(id)", "`id`", "x|y", "'q'", "-rf", ""})
        EXPECT_FALSE((usbmgr::shell_command<100>("ls %s", bad).valid)) << bad;
}

TEST(CommandRunner, ShellCommandThatDoesNotFitItsBufferIsRefused) {
    auto cmd = usbmgr::shell_command<16>("ls %s", "/var/dev/averylongname");
    EXPECT_FALSE(cmd.valid);
}

TEST(CommandRunner, SystemRunnerRunsWithoutShellAndCapturesOutput) {
    usbmgr::SystemRunner real;
    auto r = real.run(usbmgr::CommandLine::exec({"echo", "a;b", "$(x)"}), true);
    EXPECT_TRUE(r.started);
    EXPECT_EQ(r.output, "a;b $(x)\n");
    auto piped = real.run(usbmgr::CommandLine::shell("echo one | tr o O"), true);
    EXPECT_EQ(piped.output, "One\n");
}

TEST(CommandRunner, FgetsLinesSplitsAtNewlinesAndBufferSize) {
    auto lines = usbmgr::fgets_lines("abcdef\nxy\n", 4);
    EXPECT_EQ(lines, (std::vector<std::string>{"abc", "def", "\n", "xy\n"}));
    EXPECT_EQ(usbmgr::first_line("", 500), "");
    EXPECT_EQ(usbmgr::first_line("l1\nl2\n", 500), "l1\n");
}

TEST(ConfigurationHandOff, CfgSaveRunsOrbcmUtilAndLogsIt) {
    Seams seams;
    usbmgr_cfg_save();
    EXPECT_EQ(seams.runner.texts(), std::vector<std::string>{"orbcm_util cfg save"});
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "run command : orbcm_util cfg save"));
}
