// Loading and saving the daemon's settings.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "test_support.h"

using testing_support::read_lines;
using testing_support::Seams;
using testing_support::write_file;

namespace {

std::string factory_text() { return testing_support::factory_settings(); }

std::vector<std::string> factory_lines() {
    std::vector<std::string> lines;
    std::string text = factory_text(), line;
    for (char c : text) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    return lines;
}

std::string without_line(const std::string& key) {
    std::string out;
    for (const auto& l : factory_lines())
        if (l.rfind(key + "=", 0) != 0) out += l + "\n";
    return out;
}

void clear_settings() {
    std::memset(MOUNT_DISK_PATH, 0, sizeof MOUNT_DISK_PATH);
    StorageServiceNumberOfEntries = NUMBER_OF_MAX_TR140_HISTORY_ITEM = AUTO_CREATE_USER_ACCESS_DATA = USB_SERIAL_ENABLE = 0;
    std::memset(&MINIDLNA_CONF, 0, sizeof MINIDLNA_CONF);
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
}

std::vector<std::string> load_messages() {
    std::vector<std::string> out;
    for (const auto& t : fake::log_texts())
        if (t.rfind("Load ", 0) == 0) out.push_back(t);
    return out;
}

}  // namespace

TEST(Settings, FactoryFileHoldsEveryKeyInSaveOrderAndLoadsWhole) {
    Seams seams;
    clear_settings();
    auto lines = factory_lines();
    ASSERT_EQ(lines.size(), 39u);
    write_file(USBMGR_CONF_PATH, factory_text());
    EXPECT_EQ(usbmgr_conf_load(), 1);
    EXPECT_STREQ(MOUNT_DISK_PATH, "/tmp/disk");
    EXPECT_EQ(StorageServiceNumberOfEntries, 1);
    EXPECT_EQ(SAMBA_CONF.enable, 1);
    EXPECT_STREQ(SAMBA_CONF.conf_dir, "/etc/samba/smb.conf");
    EXPECT_STREQ(MINIDLNA_CONF.port, "8200");
    EXPECT_STREQ(MINIDLNA_CONF.model_name, "Windows Media Connect compatible (MiniDLNA)");
    EXPECT_TRUE(load_messages().empty());
    // A save of what was loaded gives the file back line for line.
    usbmgr_conf_save();
    EXPECT_EQ(read_lines(USBMGR_CONF_PATH), lines);
}

TEST(Settings, NoSettingsFileLogsOnlyTheMountPathFailureAndLeavesAllZero) {
    Seams seams;
    clear_settings();
    StorageServiceNumberOfEntries = 0;
    EXPECT_EQ(usbmgr_conf_load(), 0);
    EXPECT_EQ(fake::log_texts(), std::vector<std::string>{"Load USBMGR.MOUNT_DISK_PATH =  Fail"});
    EXPECT_STREQ(MOUNT_DISK_PATH, "");
    EXPECT_EQ(MINIDLNA_CONF.enable, 0);
    EXPECT_EQ(StorageServiceNumberOfEntries, 0);
    EXPECT_EQ(NUMBER_OF_MAX_TR140_HISTORY_ITEM, 0);
    EXPECT_EQ(AUTO_CREATE_USER_ACCESS_DATA, 0);
    EXPECT_EQ(USB_SERIAL_ENABLE, 0);
}

TEST(Settings, MissingMaxLogSizeIsReportedUnderLogFileAndStopsTheLoad) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, without_line("USBMGR.SAMBA.MAX_LOG_SIZE"));
    EXPECT_EQ(usbmgr_conf_load(), 0);
    EXPECT_EQ(load_messages(), std::vector<std::string>{"Load USBMGR.SAMBA.LOG_FILE =  Fail"});
    EXPECT_STREQ(SAMBA_CONF.log_file, "/var/samba/log.%m");
    EXPECT_STREQ(SAMBA_CONF.log_level, "");
    EXPECT_STREQ(SAMBA_CONF.username_map_dir, "");
    EXPECT_EQ(StorageServiceNumberOfEntries, 0);
    EXPECT_EQ(NUMBER_OF_MAX_TR140_HISTORY_ITEM, 0);
}

TEST(Settings, MissingHistoryCapacityLoadsAsMinusOne) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, without_line("USBMGR.NUMBER_OF_HISTORY"));
    EXPECT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(NUMBER_OF_MAX_TR140_HISTORY_ITEM, -1);
    EXPECT_EQ(StorageServiceNumberOfEntries, 1);
}

TEST(Settings, FactorySettingsReloadSambaInPlaceAndAFileWithoutTheKeyKeepsTheRestart) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(SAMBA_LIVE_RELOAD, 1);
    clear_settings();
    SAMBA_LIVE_RELOAD = 1;
    write_file(USBMGR_CONF_PATH, without_line("USBMGR.SAMBA.LIVE_RELOAD"));
    EXPECT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(SAMBA_LIVE_RELOAD, 0);
    // Saved as it was read: the restart stays.
    usbmgr_conf_save();
    EXPECT_EQ(read_lines(USBMGR_CONF_PATH).back(), "USBMGR.SAMBA.LIVE_RELOAD=0");
}

TEST(Settings, ALiveReloadValueOtherThanZeroOrOneKeepsTheRestartWithOneErrorLine) {
    Seams seams;
    clear_settings();
    SAMBA_LIVE_RELOAD = 1;
    std::string text = factory_text();
    const std::string from = "USBMGR.SAMBA.LIVE_RELOAD=1";
    const auto pos = text.find(from);
    ASSERT_NE(pos, std::string::npos);
    text.replace(pos, from.size(), "USBMGR.SAMBA.LIVE_RELOAD=2");
    write_file(USBMGR_CONF_PATH, text);
    fake::reset();
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(SAMBA_LIVE_RELOAD, 0);
    EXPECT_TRUE(fake::logged(1, "db_util.c", "refusing value '2' of USBMGR.SAMBA.LIVE_RELOAD"));
}

TEST(Settings, MissingStringKeyNamesItselfInTheFailureMessage) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, without_line("USBMGR.MINIDLNA.PORT"));
    EXPECT_EQ(usbmgr_conf_load(), 0);
    EXPECT_EQ(load_messages(), std::vector<std::string>{"Load USBMGR.MINIDLNA.PORT =  Fail"});
    EXPECT_STREQ(MINIDLNA_CONF.root_container, ".");
    EXPECT_STREQ(MINIDLNA_CONF.friendly_name, "");
}

TEST(Settings, CompleteLoadLogsTheSummaryBlock) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    auto log = fake::log_texts();
    const std::string sep(69, '-');
    ASSERT_EQ(log.size(), 4u + 4 + 15 + 20);
    EXPECT_EQ(log[0], sep);
    EXPECT_EQ(log[1], "USBMGR.NUMBER_OF_SERVICE              = 1");
    EXPECT_EQ(log[2], "USBMGR.NUMBER_OF_HISTORY              = 10");
    EXPECT_EQ(log[3], "USBMGR.AUTO_CREATE_USER_ACCESS        = 0");
    EXPECT_EQ(log[4], "USBMGR.USB_SERIAL_ENABLE              = 0");
    EXPECT_EQ(log[5], sep);
    EXPECT_EQ(log[6], "USBMGR.MOUNT_DISK_PATH                = /tmp/disk");
    EXPECT_EQ(log[7], "USBMGR.MINIDLNA.ENABLE                = 1");
    EXPECT_EQ(log[8], "USBMGR.MINIDLNA.CONF_DIR              = /var/minidlna.conf");
    EXPECT_EQ(log[20], "USBMGR.MINIDLNA.NOTIFY_INTERVAL       = 300");
    EXPECT_EQ(log[21], sep);
    EXPECT_EQ(log[22], "USBMGR.SAMBA.ENABLE                   = 1");
    EXPECT_EQ(log[23], "USBMGR.SAMBA.CONF_DIR                 = /etc/samba/smb.conf");
    EXPECT_EQ(log[24], "USBMGR.SAMBA.LOG_FILE                 = /var/samba/log.%m");
    EXPECT_EQ(log[40], "USBMGR.SAMBA.USERNAME_MAP_DIR         = /var/samba/smbusers");
    EXPECT_EQ(log[41], "USBMGR.SAMBA.LIVE_RELOAD              = 1");
    EXPECT_EQ(log[42], sep);
}

TEST(Settings, SaveWritesTheSettingsInSaveOrderThenThreeLinesPerAccount) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text() +
                                     "USBMGR.SAMBA.USER_NAME.4=dave\nUSBMGR.SAMBA.USER_PASSWORD.4=pw4\n"
                                     "USBMGR.SAMBA.USER_ENABLE.4=0\nUSBMGR.UNKNOWN=drop\n"
                                     "USBMGR.SAMBA.USER_NAME.1=bob\nUSBMGR.SAMBA.USER_PASSWORD.1=pw1\n"
                                     "USBMGR.SAMBA.USER_ENABLE.1=1\nUSBMGR.SAMBA.USER_NAME.25=nobody\n");
    ASSERT_EQ(usbmgr_conf_load(), 1);
    USB_SERIAL_ENABLE = 1;
    seams.runner.clear();
    EXPECT_EQ(usbmgr_conf_save(), -1);  // no account 24
    auto lines = read_lines(USBMGR_CONF_PATH);
    auto expected = factory_lines();
    expected[4] = "USBMGR.USB_SERIAL.ENABLE=1";
    for (const char* l : {"USBMGR.SAMBA.USER_NAME.1=bob", "USBMGR.SAMBA.USER_PASSWORD.1=pw1",
                          "USBMGR.SAMBA.USER_ENABLE.1=1", "USBMGR.SAMBA.USER_NAME.4=dave",
                          "USBMGR.SAMBA.USER_PASSWORD.4=pw4", "USBMGR.SAMBA.USER_ENABLE.4=0"})
        expected.push_back(l);
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{"orbcm_util cfg save"}));
    EXPECT_FALSE(testing_support::temp_left_beside(USBMGR_CONF_PATH));
}

TEST(Settings, AccountWithoutPasswordLineGetsAnEmptyPasswordLine) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text() + "USBMGR.SAMBA.USER_NAME.3=carol\nUSBMGR.SAMBA.USER_ENABLE.3=1\n");
    ASSERT_EQ(usbmgr_conf_load(), 1);
    usbmgr_conf_save();
    auto lines = read_lines(USBMGR_CONF_PATH);
    ASSERT_EQ(lines.size(), 42u);
    EXPECT_EQ(lines[39], "USBMGR.SAMBA.USER_NAME.3=carol");
    EXPECT_EQ(lines[40], "USBMGR.SAMBA.USER_PASSWORD.3=");
    EXPECT_EQ(lines[41], "USBMGR.SAMBA.USER_ENABLE.3=1");
}

TEST(Settings, SaveReturnsZeroWhenAccountTwentyFourExists) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text() + "USBMGR.SAMBA.USER_NAME.24=last\n");
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(usbmgr_conf_save(), 0);
}

TEST(Settings, SaveThatCannotMakeItsNewFileChangesNothing) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    testing_support::ReadOnlyFolder read_only("/var/config");
    if (!read_only.ok()) GTEST_SKIP() << "no read-only bind mount here";
    EXPECT_EQ(usbmgr_conf_save(), -1);
    EXPECT_EQ(testing_support::read_file(USBMGR_CONF_PATH), factory_text());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(Settings, OverlongValuesLoadCutToTheirFieldsAndBinaryOnesOutsideTheirFormAreNotTaken) {
    Seams seams;
    clear_settings();
    std::string text = factory_text();
    auto pos = text.find("USBMGR.MINIDLNA.FRIENDLY_NAME=pelvan_kro");
    text.replace(pos, 40, "USBMGR.MINIDLNA.FRIENDLY_NAME=" + std::string(120, '9'));
    pos = text.find("USBMGR.SAMBA.WORKGROUP=WORKGROUP");
    text.replace(pos, 32, std::string("USBMGR.SAMBA.WORKGROUP=\x01\xfe\x7f", 26));
    write_file(USBMGR_CONF_PATH, text);
    EXPECT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(std::string(MINIDLNA_CONF.friendly_name), std::string(sizeof MINIDLNA_CONF.friendly_name - 1, '9'));
    EXPECT_EQ(std::string(SAMBA_CONF.workgroup), "WORKGROUP");
}

TEST(Settings, ValueHoldingANewlineIsSavedOnOneLineAndAddsNoKey) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    std::strcpy(MINIDLNA_CONF.friendly_name, "Box\nUSBMGR.SAMBA.USER_NAME.0");
    std::strcpy(SAMBA_CONF.workgroup, "WG\r\x01\x7f\tX");
    usbmgr_conf_save();
    auto lines = read_lines(USBMGR_CONF_PATH);
    ASSERT_EQ(lines.size(), factory_lines().size());
    EXPECT_EQ(lines[13], "USBMGR.MINIDLNA.FRIENDLY_NAME=Box_USBMGR.SAMBA.USER_NAME.0");
    EXPECT_EQ(lines[28], "USBMGR.SAMBA.WORKGROUP=WG____X");
    char value[DB_UTIL_VALUE_SIZE] = {};
    EXPECT_EQ(db_util_config_get_parameter_s("USBMGR.SAMBA.USER_NAME.0", value), -1);
    // The records hold what the file holds.
    EXPECT_STREQ(MINIDLNA_CONF.friendly_name, "Box_USBMGR.SAMBA.USER_NAME.0");
    EXPECT_STREQ(SAMBA_CONF.workgroup, "WG____X");
}

TEST(Settings, ValueFillingItsWholeFieldIsSavedCutToTheFieldWithoutReadingPastIt) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    std::memset(MINIDLNA_CONF.port, '\n', sizeof MINIDLNA_CONF.port);  // no terminator
    usbmgr_conf_save();
    auto lines = read_lines(USBMGR_CONF_PATH);
    ASSERT_EQ(lines.size(), factory_lines().size());
    EXPECT_EQ(lines[12], "USBMGR.MINIDLNA.PORT=" + std::string(sizeof MINIDLNA_CONF.port, '_'));
}

TEST(Settings, SavedFileIsReadableByRootOnlyWhateverItsModeWas) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text() + "USBMGR.SAMBA.USER_NAME.0=al\nUSBMGR.SAMBA.USER_PASSWORD.0=pw\n");
    chmod(USBMGR_CONF_PATH, 0644);
    ASSERT_EQ(usbmgr_conf_load(), 1);
    usbmgr_conf_save();
    struct stat st {};
    ASSERT_EQ(stat(USBMGR_CONF_PATH, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_FALSE(testing_support::temp_left_beside(USBMGR_CONF_PATH));
}

TEST(Settings, SaveReplacesALinkPlantedAtTheSettingsFileAndLeavesItsTargetAlone) {
    Seams seams;
    clear_settings();
    write_file("/var/victim", "root only\n");
    write_file("/var/config/real.conf", factory_text());
    ASSERT_EQ(symlink("/var/victim", USBMGR_CONF_PATH), 0);
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    usbmgr_conf_save();
    EXPECT_EQ(testing_support::read_file("/var/victim"), "root only\n");
    struct stat st {};
    ASSERT_EQ(lstat(USBMGR_CONF_PATH, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

// ---------------------------------------------------------------------------
// Forms: what each setting's value must look like.

namespace {

// The one log line of a refused value: its text, level ERROR, module db_util.c.
void expect_one_refusal(const std::string& key, const std::string& value) {
    ASSERT_EQ(fake::bus().log.size(), 1u) << key << "=" << value;
    EXPECT_EQ(fake::bus().log[0].text, "refusing value '" + value + "' of " + key);
    EXPECT_EQ(fake::bus().log[0].level, 1);
    EXPECT_EQ(fake::bus().log[0].module, "db_util.c");
}

using KeyValues = std::vector<std::pair<std::string, std::string>>;

// Values outside their setting's form, one or more for each form.
const KeyValues kRefused = {
    {"USBMGR.MINIDLNA.PORT", "0"},
    {"USBMGR.MINIDLNA.PORT", "65536"},
    {"USBMGR.MINIDLNA.PORT", "-1"},
    {"USBMGR.MINIDLNA.PORT", "0000065536"},
    {"USBMGR.MINIDLNA.PORT", "80a"},
    {"USBMGR.MINIDLNA.PORT", ""},
    {"USBMGR.MINIDLNA.NOTIFY_INTERVAL", "86401"},
    {"USBMGR.SAMBA.MAX_LOG_SIZE", "1048577"},
    {"USBMGR.SAMBA.LOG_LEVEL", "11"},
    {"USBMGR.SAMBA.LOG_LEVEL", " 1"},
    {"USBMGR.MINIDLNA.INOTIFY", "Yes"},
    {"USBMGR.SAMBA.LOAD_PRINTERS", "true"},
    {"USBMGR.SAMBA.BIND_INTERFACES_ONLY", ""},
    {"USBMGR.MINIDLNA.ROOT_CONTAINER", "X"},
    {"USBMGR.SAMBA.PRINTING", "lpd"},
    {"USBMGR.SAMBA.SECURITY", "User"},
    {"USBMGR.SAMBA.WORKGROUP", "WORK GROUP"},
    {"USBMGR.SAMBA.NETBIOS_NAME", "NAS%h"},
    {"USBMGR.SAMBA.GUEST_ACCOUNT", "a/b"},
    {"USBMGR.SAMBA.USERNAME_MAP", "root\"x"},
    {"USBMGR.MINIDLNA.LOG_LEVEL", "off;"},
    {"USBMGR.MINIDLNA.CONF_DIR", "var/minidlna.conf"},
    {"USBMGR.SAMBA.CONF_DIR", "/etc/samba/../smb.conf"},
    {"USBMGR.SAMBA.USERNAME_MAP_DIR", "/var/samba//smbusers"},
    {"USBMGR.SAMBA.PRINTCAP_NAME", "/dev/null/"},
    {"USBMGR.MOUNT_DISK_PATH", "/"},
    {"USBMGR.MOUNT_DISK_PATH", "/tmp/./disk"},
    // What a restart deletes whole: only below /var/cache or /tmp.
    {"USBMGR.MINIDLNA.DB_DIR", "/var/cache"},
    {"USBMGR.MINIDLNA.DB_DIR", "/tmp"},
    {"USBMGR.MINIDLNA.DB_DIR", "/var/lib/dpkg"},
    {"USBMGR.MINIDLNA.DB_DIR", "/var/cache/../lib"},
    {"USBMGR.MINIDLNA.DB_DIR", "/var/cachet"},
    {"USBMGR.MINIDLNA.DB_DIR", "/etc"},
    {"USBMGR.MINIDLNA.DB_DIR", "/"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/etc"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/var/log/../../etc"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/var/logs"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/var/log/"},
    {"USBMGR.SAMBA.LOG_FILE", "/etc/profile.d/log.%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/etc/profile.d/samba.sh"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba"},
    {"USBMGR.SAMBA.LOG_FILE", "/etc/%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba/../%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba/log.%h"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba/%m.log"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/etc"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/disk/../../etc"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/diskette"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/disk/"},
    // The integer settings: the enables and switches 0 or 1.
    {"USBMGR.MINIDLNA.ENABLE", "2"},
    {"USBMGR.SAMBA.ENABLE", "-1"},
    {"USBMGR.SAMBA.ENABLE", "1x"},
    {"USBMGR.USB_SERIAL.ENABLE", "5"},
    {"USBMGR.AUTO_CREATE_USER_ACCESS", "2"},
    {"USBMGR.NUMBER_OF_SERVICE", "2"},
    {"USBMGR.SAMBA.LIVE_RELOAD", "2"},
    {"USBMGR.SAMBA.LIVE_RELOAD", "yes"},
    {"USBMGR.NUMBER_OF_HISTORY", "0"},
    {"USBMGR.NUMBER_OF_HISTORY", "101"},
    // Whoever connects as a guest is this account: never root.
    {"USBMGR.SAMBA.GUEST_ACCOUNT", "root"},
    {"USBMGR.SAMBA.GUEST_ACCOUNT", "Root"},
    {"USBMGR.SAMBA.GUEST_ACCOUNT", ""},
    // A key of no setting is no place for any value.
    {"USBMGR.NO_SUCH_KEY", "x"},
};

// Values in their setting's form, at the edges of each.
const KeyValues kAccepted = {
    {"USBMGR.MINIDLNA.PORT", "1"},
    {"USBMGR.MINIDLNA.PORT", "65535"},
    {"USBMGR.MINIDLNA.NOTIFY_INTERVAL", "86400"},
    {"USBMGR.SAMBA.MAX_LOG_SIZE", "0"},
    {"USBMGR.SAMBA.MAX_LOG_SIZE", "0000000000000000000000000000500"},
    {"USBMGR.SAMBA.LOG_LEVEL", "10"},
    {"USBMGR.MINIDLNA.INOTIFY", "no"},
    {"USBMGR.SAMBA.DISABLE_NETBIOS", "yes"},
    {"USBMGR.MINIDLNA.ROOT_CONTAINER", "B"},
    {"USBMGR.SAMBA.PRINTING", "cups"},
    {"USBMGR.SAMBA.SECURITY", "share"},
    {"USBMGR.SAMBA.WORKGROUP", "HOME-NET_2.lan"},
    {"USBMGR.MINIDLNA.SERIAL", ""},
    {"USBMGR.MINIDLNA.LOG_LEVEL", "general,artwork=warn"},
    {"USBMGR.MINIDLNA.FRIENDLY_NAME", "Living room (2%)"},
    {"USBMGR.SAMBA.SERVER_STRING", "%h server"},
    {"USBMGR.SAMBA.INTERFACES", "eth0 192.168.1.0/24"},
    {"USBMGR.SAMBA.CONF_DIR", "/etc/samba/smb.conf"},
    {"USBMGR.MINIDLNA.DB_DIR", "/var/cache/minidlna"},
    {"USBMGR.MINIDLNA.DB_DIR", "/tmp/minidlna/db"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/var/log"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/var/samba/dlna"},
    {"USBMGR.MINIDLNA.LOG_DIR", "/tmp"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba/log.%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/log/samba/log.smbd"},
    {"USBMGR.SAMBA.LOG_FILE", "/tmp/smb%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/samba/%m"},
    {"USBMGR.SAMBA.LOG_FILE", "/var/log/samba/%m"},
    {"USBMGR.MINIDLNA.ENABLE", "0"},
    {"USBMGR.SAMBA.ENABLE", "1"},
    {"USBMGR.USB_SERIAL.ENABLE", "1"},
    {"USBMGR.SAMBA.LIVE_RELOAD", "0"},
    {"USBMGR.SAMBA.LIVE_RELOAD", "1"},
    {"USBMGR.NUMBER_OF_HISTORY", "1"},
    {"USBMGR.NUMBER_OF_HISTORY", "100"},
    {"USBMGR.SAMBA.GUEST_ACCOUNT", "nobody"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/disk"},
    {"USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/disk/sda1/Music"},
};

}  // namespace

TEST(SettingForms, EveryFactoryValueHasItsSettingsForm) {
    Seams seams;
    clear_settings();
    write_file(USBMGR_CONF_PATH, factory_text());
    fake::reset();
    ASSERT_EQ(usbmgr_conf_load(), 1);
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.rfind("refusing", 0), std::string::npos) << t;
}

TEST(SettingForms, ValuesOutsideTheirFormAreRefusedWithOneErrorLine) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    for (const auto& [key, value] : kRefused) {
        fake::reset();
        EXPECT_FALSE(usbmgr_setting_ok(key.c_str(), value.c_str())) << key << "=" << value;
        expect_one_refusal(key, value);
    }
}

TEST(SettingForms, ValuesInTheirFormAreTakenWithoutALogLine) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    for (const auto& [key, value] : kAccepted) {
        fake::reset();
        EXPECT_TRUE(usbmgr_setting_ok(key.c_str(), value.c_str())) << key << "=" << value;
        EXPECT_TRUE(fake::bus().log.empty()) << key << "=" << value;
    }
}

TEST(SettingForms, TheMediaFolderLiesAtOrBelowTheMountRootAsItIsNow) {
    Seams seams;
    usbmgr::copy_str(MOUNT_DISK_PATH, "/var/usb");
    EXPECT_TRUE(usbmgr_setting_ok("USBMGR.MINIDLNA.MEDIA_DIR", "/var/usb/sda1"));
    EXPECT_FALSE(usbmgr_setting_ok("USBMGR.MINIDLNA.MEDIA_DIR", "/tmp/disk"));
}

// A loaded value outside its form is not taken: the setting keeps its
// factory value (the media folder: the mount root), one line each.
TEST(SettingForms, ALoadedValueOutsideItsFormFallsBackToTheFactoryValue) {
    Seams seams;
    clear_settings();
    std::string text = factory_text();
    const auto swap = [&text](const std::string& from, const std::string& to) {
        const auto pos = text.find(from);
        ASSERT_NE(pos, std::string::npos) << from;
        text.replace(pos, from.size(), to);
    };
    swap("USBMGR.MOUNT_DISK_PATH=/tmp/disk", "USBMGR.MOUNT_DISK_PATH=/var/usb");
    swap("USBMGR.MINIDLNA.DB_DIR=/var/cache/minidlna", "USBMGR.MINIDLNA.DB_DIR=/var/lib");
    swap("USBMGR.MINIDLNA.MEDIA_DIR=/tmp/disk", "USBMGR.MINIDLNA.MEDIA_DIR=/etc");
    swap("USBMGR.SAMBA.LOG_FILE=/var/samba/log.%m", "USBMGR.SAMBA.LOG_FILE=/etc/profile.d/x.sh");
    swap("USBMGR.MINIDLNA.PORT=8200", "USBMGR.MINIDLNA.PORT=99999");
    write_file(USBMGR_CONF_PATH, text);
    fake::reset();
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_STREQ(MOUNT_DISK_PATH, "/var/usb");
    EXPECT_STREQ(MINIDLNA_CONF.db_dir, "/var/cache/minidlna");
    EXPECT_STREQ(MINIDLNA_CONF.media_dir, "/var/usb");
    EXPECT_STREQ(SAMBA_CONF.log_file, "/var/samba/log.%m");
    EXPECT_STREQ(MINIDLNA_CONF.port, "8200");
    std::vector<std::string> refusals;
    for (const auto& line : fake::bus().log)
        if (line.text.rfind("refusing", 0) == 0) {
            refusals.push_back(line.text);
            EXPECT_EQ(line.level, 1);
            EXPECT_EQ(line.module, "db_util.c");
        }
    EXPECT_EQ(refusals, (std::vector<std::string>{"refusing value '/var/lib' of USBMGR.MINIDLNA.DB_DIR",
                                                  "refusing value '/etc' of USBMGR.MINIDLNA.MEDIA_DIR",
                                                  "refusing value '99999' of USBMGR.MINIDLNA.PORT",
                                                  "refusing value '/etc/profile.d/x.sh' of USBMGR.SAMBA.LOG_FILE"}));
}

TEST(SettingForms, TheGuestAccountIsNeverTheAccountTheUserMapMapsTo) {
    Seams seams;
    clear_settings();
    usbmgr::copy_str(SAMBA_CONF.username_map, "admin");
    EXPECT_FALSE(usbmgr_setting_ok("USBMGR.SAMBA.GUEST_ACCOUNT", "ADMIN"));
    expect_one_refusal("USBMGR.SAMBA.GUEST_ACCOUNT", "ADMIN");
    EXPECT_TRUE(usbmgr_setting_ok("USBMGR.SAMBA.GUEST_ACCOUNT", "admins"));
    clear_settings();
}

// The guest account is read before the user map's target; it is checked
// against the target the file names all the same.
TEST(SettingForms, ALoadedGuestAccountNamedAsTheUserMapsTargetFallsBackToTheFactoryGuest) {
    Seams seams;
    clear_settings();
    std::string text = factory_text();
    text.replace(text.find("GUEST_ACCOUNT=1234"), 18, "GUEST_ACCOUNT=admin");
    text.replace(text.find("USERNAME_MAP=root"), 17, "USERNAME_MAP=admin");
    write_file(USBMGR_CONF_PATH, text);
    fake::reset();
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_STREQ(SAMBA_CONF.guest_account, "1234");
    EXPECT_STREQ(SAMBA_CONF.username_map, "admin");
    EXPECT_TRUE(fake::logged(1, "db_util.c", "refusing value 'admin' of USBMGR.SAMBA.GUEST_ACCOUNT"));
}

// An integer outside its range falls back to its factory value with one
// line; a missing one still reads -1, as before.
TEST(SettingForms, ALoadedIntegerOutsideItsRangeFallsBackToTheFactoryValueAndAMissingOneReadsMinusOne) {
    Seams seams;
    clear_settings();
    std::string text = factory_text();
    text.replace(text.find("USBMGR.SAMBA.ENABLE=1"), 21, "USBMGR.SAMBA.ENABLE=7");
    text.replace(text.find("USBMGR.NUMBER_OF_HISTORY=10"), 27, "USBMGR.NUMBER_OF_HISTORY=99999");
    text.erase(text.find("USBMGR.USB_SERIAL.ENABLE=0\n"), 27);
    write_file(USBMGR_CONF_PATH, text);
    fake::reset();
    ASSERT_EQ(usbmgr_conf_load(), 1);
    EXPECT_EQ(SAMBA_CONF.enable, 1);
    EXPECT_EQ(NUMBER_OF_MAX_TR140_HISTORY_ITEM, 10);
    EXPECT_EQ(USB_SERIAL_ENABLE, -1);
    std::vector<std::string> refusals;
    for (const auto& line : fake::bus().log)
        if (line.text.rfind("refusing", 0) == 0) refusals.push_back(line.text);
    EXPECT_EQ(refusals, (std::vector<std::string>{"refusing value '7' of USBMGR.SAMBA.ENABLE",
                                                  "refusing value '99999' of USBMGR.NUMBER_OF_HISTORY"}));
}
