// The Samba configuration file (global section and shares) and the
// servers' start and reload, seen through the rendered text, the file, the
// fake runner and the fake clock.
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "fixture.h"
#include "test_support.h"

using testing_support::file_exists;
using testing_support::read_lines;
using testing_support::write_file;

using SambaRender = testing_support::DaemonTest;
using SambaShares = testing_support::DaemonTest;
using SambaConfText = testing_support::DaemonTest;
using SambaConfFile = testing_support::DaemonTest;
using StartSamba = testing_support::DaemonTest;
using ReloadSamba = testing_support::DaemonTest;

namespace {

const char kConf[] = "/tmp/smb.conf";
const char kSmbdCheck[] = "ps | grep smbd | grep -v grep 2>&1";
const char kNmbdCheck[] = "ps | grep nmbd | grep -v grep 2>&1";

const std::vector<std::string> kGlobalLines = {
    "[global]",
    "   log file = /var/samba/log.%m",
    "   max log size = 500",
    "   log level = 1",
    "   password level = 1",
    "   load printers = no",
    "   printcap name = /dev/null",
    "   printing = bsd",
    "   security = user",
    "   encrypt passwords = yes",
    "   display charset = utf8",
    "   unix charset = utf8",
    "   workgroup = WORKGROUP",
    "   disable netbios = no",
    "   netbios name = NVQ40XX",
    "   name resolve order = bcast host",
    "   server string = %h server (Samba, Ubuntu)",
    "   usershare allow guests = yes",
    "   guest account = 1234",
    "   username map = /var/samba/smbusers",
};

// The factory settings, with the file moved out of /etc for the tests.
void load_factory_settings() {
    std::memset(&MINIDLNA_CONF, 0, sizeof MINIDLNA_CONF);
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    ASSERT_STREQ(SAMBA_CONF.conf_dir, "/etc/samba/smb.conf");
    usbmgr::copy_str(SAMBA_CONF.conf_dir, kConf);
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (char c : text) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    EXPECT_TRUE(line.empty()) << "last line without its newline: " << line;
    return lines;
}

std::vector<std::string> render(const std::vector<AppUtilSambaShare>& shares) {
    return split_lines(app_util_render_samba_conf(SAMBA_CONF, MOUNT_DISK_PATH, shares));
}

// The lines after the global section.
std::vector<std::string> share_lines(const std::vector<std::string>& lines) {
    return std::vector<std::string>(lines.begin() + static_cast<long>(kGlobalLines.size()), lines.end());
}

std::vector<std::string> section(const std::string& header, const std::string& comment, const std::string& folder,
                                 const char* is_public = "no") {
    return {header, "   comment = " + comment, "   path = /tmp/disk/" + folder, std::string("   public = ") + is_public,
            "   writable = yes", "   create mode = 0750"};
}

// Disk sda (serial S1) with volume 0 named Music and enabled, volume 1
// unnamed and disabled, volume 2 unnamed and enabled.
void attach_disk_with_history() {
    usbmgr::copy_str(usb_physical_info[0].attach_device, "sda,sda1,sda2,sda3");
    usbmgr::copy_str(usb_physical_info[0].serial_number, "S1");
    write_file(TR140_CONF_PATH,
               "USBMGR.0.SERIAL_NUMBER=S1\n"
               "USBMGR.0.PNAME=\n"
               "USBMGR.0.NAME.0=Music\n"
               "USBMGR.0.ENABLE.0=1\n"
               "USBMGR.0.NAME.1=Backup\n"
               "USBMGR.0.ENABLE.1=0\n"
               "USBMGR.0.NAME.2=\n"
               "USBMGR.0.ENABLE.2=1\n");
}

int count_headers(const std::vector<std::string>& lines) {
    int n = 0;
    for (const auto& l : lines)
        if (!l.empty() && l[0] == '[') ++n;
    return n;
}

}  // namespace

TEST_F(SambaRender, FactorySettingsAndNoDisksGiveTheTwentyGlobalLines) {
    load_factory_settings();
    EXPECT_EQ(render({}), kGlobalLines);
}

TEST_F(SambaRender, RenderingLogsAndRunsNothing) {
    load_factory_settings();
    fake::reset();
    app_util_render_samba_conf(SAMBA_CONF, MOUNT_DISK_PATH, {{"sda1", "Music"}});
    EXPECT_TRUE(fake::log_texts().empty());
    EXPECT_TRUE(seams.runner.calls().empty());
}

TEST_F(SambaRender, SwitchedOffRowsStayOffWhateverTheirSettings) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.interfaces, "eth0");
    usbmgr::copy_str(SAMBA_CONF.bind_interfaces_only, "yes");
    std::string text = app_util_render_samba_conf(SAMBA_CONF, MOUNT_DISK_PATH, {});
    EXPECT_EQ(text.find("interfaces"), std::string::npos);
    EXPECT_EQ(text.find("dos charset"), std::string::npos);
}

TEST_F(SambaRender, UserMapLineNamesTheMapFileNotTheMappedName) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.username_map, "alice");
    usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/var/samba/users.map");
    EXPECT_EQ(render({}).back(), "   username map = /var/samba/users.map");
}

TEST_F(SambaRender, SettingsReplaceTheDefaultsOfTheirRows) {
    SambaConf conf{};
    usbmgr::copy_str(conf.workgroup, "HOME");
    usbmgr::copy_str(conf.netbios_name, "GATEWAY");
    usbmgr::copy_str(conf.log_file, "/var/log/samba/%m.log");
    auto lines = split_lines(app_util_render_samba_conf(conf, "/tmp/disk", {}));
    ASSERT_EQ(lines.size(), 20u);
    EXPECT_EQ(lines[1], "   log file = /var/log/samba/%m.log");
    EXPECT_EQ(lines[2], "   max log size = ");
    EXPECT_EQ(lines[4], "   password level = 1");
    EXPECT_EQ(lines[12], "   workgroup = HOME");
    EXPECT_EQ(lines[14], "   netbios name = GATEWAY");
    EXPECT_EQ(lines[15], "   name resolve order = bcast host");
}

TEST_F(SambaRender, NamedVolumeGivesItsNameInHeaderAndComment) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"sda1", "Music"}})), section("[Music]", "Music (sda1) shared disk", "sda1"));
}

TEST_F(SambaRender, UnnamedVolumeIsSharedUnderItsFolderName) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"sdb1", ""}})), section("[sdb1]", "sdb1 shared disk", "sdb1"));
}

TEST_F(SambaRender, SecurityShareMakesEverySectionPublic) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.security, "share");
    auto lines = share_lines(render({{"sda1", "Music"}, {"sdb1", ""}}));
    EXPECT_EQ(lines[3], "   public = yes");
    EXPECT_EQ(lines[9], "   public = yes");
}

TEST_F(SambaRender, SecurityUserMakesNoSectionPublic) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.security, "user");
    auto lines = share_lines(render({{"sda1", "Music"}, {"sdb1", ""}}));
    EXPECT_EQ(lines[3], "   public = no");
    EXPECT_EQ(lines[9], "   public = no");
}

TEST_F(SambaRender, SecurityMustBeExactlyShareToMakeSectionsPublic) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.security, "Share");
    EXPECT_EQ(share_lines(render({{"sda1", ""}}))[3], "   public = no");
}

TEST_F(SambaRender, SectionsFollowEachOtherWithoutBlankLines) {
    load_factory_settings();
    auto lines = share_lines(render({{"sda1", "Music"}, {"sdb1", ""}}));
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[6], "[sdb1]");
}

TEST_F(SambaShares, DisabledVolumeGetsNoSection) {
    load_factory_settings();
    attach_disk_with_history();
    auto shares = app_util_samba_shares({"sda2"});
    EXPECT_TRUE(shares.empty());
}

TEST_F(SambaShares, StoredNameIsTakenFromTheHistoryOfTheDisk) {
    load_factory_settings();
    attach_disk_with_history();
    auto shares = app_util_samba_shares({"sda1", "sda2", "sda3"});
    ASSERT_EQ(shares.size(), 2u);
    EXPECT_EQ(shares[0].folder, "sda1");
    EXPECT_EQ(shares[0].volume_name, "Music");
    EXPECT_EQ(shares[1].folder, "sda3");
    EXPECT_EQ(shares[1].volume_name, "");
}

TEST_F(SambaShares, FolderWithoutAKnownSerialNumberAfterANamedVolumeInheritsItsName) {
    load_factory_settings();
    attach_disk_with_history();
    auto shares = app_util_samba_shares({"sda1", "sdz1"});
    ASSERT_EQ(shares.size(), 2u);
    EXPECT_EQ(shares[1].folder, "sdz1");
    EXPECT_EQ(shares[1].volume_name, "Music");
    EXPECT_EQ(share_lines(render(shares)),
              [] {
                  auto a = section("[Music]", "Music (sda1) shared disk", "sda1");
                  auto b = section("[Music]", "Music (sdz1) shared disk", "sdz1");
                  a.insert(a.end(), b.begin(), b.end());
                  return a;
              }());
}

TEST_F(SambaShares, FolderWithoutAKnownSerialNumberFirstIsSharedUnderItsFolderName) {
    load_factory_settings();
    attach_disk_with_history();
    auto shares = app_util_samba_shares({"sdz1", "sda1"});
    ASSERT_EQ(shares.size(), 2u);
    EXPECT_EQ(shares[0].volume_name, "");
    EXPECT_EQ(shares[1].volume_name, "Music");
}

TEST_F(SambaShares, UnnamedVolumeAfterANamedOneClearsTheName) {
    load_factory_settings();
    attach_disk_with_history();
    auto shares = app_util_samba_shares({"sda1", "sda3", "sdz1"});
    ASSERT_EQ(shares.size(), 3u);
    EXPECT_EQ(shares[1].volume_name, "");
    EXPECT_EQ(shares[2].volume_name, "");
}

TEST_F(SambaShares, EachFolderIsLogged) {
    load_factory_settings();
    attach_disk_with_history();
    fake::reset();
    app_util_samba_shares({"sda1", "sda2"});
    std::vector<std::string> found;
    for (const auto& t : fake::log_texts())
        if (t.rfind("found ", 0) == 0) found.push_back(t);
    EXPECT_EQ(found, (std::vector<std::string>{"found sda1 ...", "found sda2 ..."}));
}

TEST_F(SambaConfText, VolumeNameWithBracketsAndLineBreaksAddsNoSectionOrParameter) {
    load_factory_settings();
    auto lines = share_lines(render({{"sda1", "x]\n[evil]\n   path = /etc"}}));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "[x___evil__   path = /etc]");
    EXPECT_EQ(count_headers(lines), 1);
    EXPECT_EQ(lines[2], "   path = /tmp/disk/sda1");
}

TEST_F(SambaConfText, HeaderNameHoldsNoBracket) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"sda1", "[a]b["}}))[0], "[_a_b_]");
    EXPECT_EQ(share_lines(render({{"sd]a1", ""}}))[0], "[sd_a1]");
}

// Each name Samba reserves, in any case and with blanks anywhere, is not a
// share name: the volume is shared under its device name.
TEST_F(SambaConfText, ReservedShareNamesFallBackToTheVolumesDeviceName) {
    load_factory_settings();
    for (const std::string name : {"global", " Glo Bal ", "HOMES", "homes", "printers", "Printers", "print$", "PRINT$",
                                   "IPC$", "ipc$", "I pc$"}) {
        const auto lines = share_lines(render({{"sda1", name}}));
        ASSERT_EQ(lines.size(), 6u) << name;
        EXPECT_EQ(lines[0], "[sda1]") << name;
        EXPECT_EQ(lines[1], "   comment = " + name + " (sda1) shared disk") << name;
    }
    EXPECT_EQ(share_lines(render({{"sda1", "globals"}}))[0], "[globals]");
    EXPECT_EQ(share_lines(render({{"sda1", "IPC"}}))[0], "[IPC]");
    EXPECT_EQ(share_lines(render({{"sda1", "print"}}))[0], "[print]");
}

// A folder of a reserved name is none of the daemon's device names; it still
// never becomes a reserved section.
TEST_F(SambaConfText, AFolderOfAReservedNameIsMadePlain) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"IPC$", ""}}))[0], "[IPC$_]");
    EXPECT_EQ(share_lines(render({{"homes", "global"}}))[0], "[homes_]");
}

// Samba would expand %h to the host name and %v to its version in the
// anonymous share listing; '%' in a share name or comment becomes '_'.
TEST_F(SambaConfText, PercentInAShareNameOrCommentBecomesUnderscore) {
    load_factory_settings();
    const auto named = share_lines(render({{"sda1", "%h%v"}}));
    EXPECT_EQ(named[0], "[_h_v]");
    EXPECT_EQ(named[1], "   comment = _h_v (sda1) shared disk");
    const auto unnamed = share_lines(render({{"sd%L1", ""}}));
    EXPECT_EQ(unnamed[0], "[sd_L1]");
    EXPECT_EQ(unnamed[1], "   comment = sd_L1 shared disk");
}

// A name that reads as reserved only once its '%' is made '_' is no
// reserved name.
TEST_F(SambaConfText, PercentIsReplacedBeforeTheReservedNameCheck) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"sda1", "IPC%"}}))[0], "[IPC_]");
}

TEST_F(SambaConfText, BlankVolumeNameIsMadePlain) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"sda1", "   "}}))[0], "[___]");
}

TEST_F(SambaConfText, EmptyFolderNameIsMadePlain) {
    load_factory_settings();
    EXPECT_EQ(share_lines(render({{"", ""}}))[0], "[_]");
}

TEST_F(SambaConfText, SettingValueWithLineBreaksStaysOnItsOwnLine) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.workgroup, "HOME\n[share]\npath = /");
    auto lines = render({});
    ASSERT_EQ(lines.size(), 20u);
    EXPECT_EQ(lines[12], "   workgroup = HOME_[share]_path = /");
    EXPECT_EQ(count_headers(lines), 1);
}

TEST_F(SambaConfText, ValueEndingInABackslashDoesNotContinueOntoTheNextLine) {
    load_factory_settings();
    usbmgr::copy_str(SAMBA_CONF.workgroup, "HOME\\  ");
    usbmgr::copy_str(SAMBA_CONF.server_string, "a\\b");
    auto lines = render({{"sda1\\", ""}});
    EXPECT_EQ(lines[12], "   workgroup = HOME_  ");
    EXPECT_EQ(lines[16], "   server string = a\\b");
    EXPECT_EQ(share_lines(lines)[2], "   path = /tmp/disk/sda1_");
}

TEST_F(SambaConfText, LongFolderNameIsCutButEveryLineKeepsItsEnd) {
    load_factory_settings();
    std::string folder(255, 'f');
    auto lines = share_lines(render({{folder, ""}}));
    ASSERT_EQ(lines.size(), 6u);
    for (const auto& l : lines) EXPECT_LE(l.size() + 1, 199u) << l;
    EXPECT_EQ(lines[0].front(), '[');
    EXPECT_EQ(lines[0].back(), ']');
    EXPECT_EQ(lines[1].substr(lines[1].size() - 12), " shared disk");
}

TEST_F(SambaConfText, FieldsWithoutTerminatorAreReadToTheirEndOnly) {
    SambaConf conf;
    std::memset(&conf, 'w', sizeof conf);
    auto lines = split_lines(app_util_render_samba_conf(conf, "/tmp/disk", {}));
    ASSERT_EQ(lines.size(), 20u);
    EXPECT_EQ(lines[12], "   workgroup = " + std::string(64, 'w'));
    EXPECT_EQ(lines[3], "   log level = " + std::string(10, 'w'));
}

TEST_F(SambaConfFile, WriteSharesEveryEnabledFolderOfTheMountRoot) {
    load_factory_settings();
    attach_disk_with_history();
    mkdir("/tmp/disk", 0775);
    mkdir("/tmp/disk/sda1", 0775);
    mkdir("/tmp/disk/sda2", 0775);
    // Shared are the folders the volumes are mounted on.
    testing_support::TmpfsMount sda1("/tmp/disk/sda1");
    testing_support::TmpfsMount sda2("/tmp/disk/sda2");
    if (!sda1.ok() || !sda2.ok()) GTEST_SKIP() << "no tmpfs mounts here";
    umask(022);
    fake::reset();
    app_util_write_samba_conf();
    auto lines = read_lines(kConf);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 20), kGlobalLines);
    EXPECT_EQ(share_lines(lines), section("[Music]", "Music (sda1) shared disk", "sda1"));
    EXPECT_TRUE(fake::logged("Searching Samba shared disk ..."));
    struct stat st {};
    ASSERT_EQ(stat(kConf, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    ASSERT_EQ(stat("/var/samba", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(SambaConfFile, OnlyFoldersAVolumeIsMountedOnAreSharedNeverALinkOrAnEmptyFolder) {
    load_factory_settings();
    attach_disk_with_history();
    mkdir("/tmp/disk", 0755);
    mkdir("/tmp/disk/sda1", 0755);
    // A link to "/" and a folder no volume is mounted on.
    ASSERT_EQ(symlink("/", "/tmp/disk/sdb1"), 0);
    mkdir("/tmp/disk/sdc1", 0755);
    testing_support::TmpfsMount sda1("/tmp/disk/sda1");
    if (!sda1.ok()) GTEST_SKIP() << "no tmpfs mounts here";
    fake::reset();
    app_util_write_samba_conf();
    auto lines = read_lines(kConf);
    EXPECT_EQ(share_lines(lines), section("[Music]", "Music (sda1) shared disk", "sda1"));
    EXPECT_TRUE(fake::logged("refusing folder /tmp/disk/sdb1: a link"));
    EXPECT_TRUE(fake::logged("refusing folder /tmp/disk/sdc1: not a mount point"));
    for (const auto& l : lines) EXPECT_NE(l, "   path = /tmp/disk/sdb1");
}

TEST_F(SambaConfFile, AMountRootThatIsALinkSharesNothing) {
    load_factory_settings();
    mkdir("/tmp/real", 0755);
    mkdir("/tmp/real/sda1", 0755);
    ASSERT_EQ(symlink("/tmp/real", "/tmp/disk"), 0);
    testing_support::TmpfsMount sda1("/tmp/real/sda1");
    if (!sda1.ok()) GTEST_SKIP() << "no tmpfs mounts here";
    fake::reset();
    app_util_write_samba_conf();
    EXPECT_EQ(read_lines(kConf), kGlobalLines);
    EXPECT_TRUE(fake::logged("refusing folder /tmp/disk: a link"));
}

TEST_F(SambaConfFile, MountRootThatCannotBeListedLeavesTheGlobalSectionOnly) {
    load_factory_settings();
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/no-such-root");
    write_file(kConf, "[old]\n");
    fake::reset();
    app_util_write_samba_conf();
    EXPECT_EQ(read_lines(kConf), kGlobalLines);
    EXPECT_FALSE(fake::logged("Searching Samba shared disk ..."));
}

TEST_F(SambaConfFile, FileThatCannotBeCreatedIsSkippedWithoutListingTheMountRoot) {
    load_factory_settings();
    mkdir("/tmp/disk", 0775);
    usbmgr::copy_str(SAMBA_CONF.conf_dir, "/tmp/no/such/smb.conf");
    fake::reset();
    app_util_write_samba_conf();
    EXPECT_FALSE(file_exists("/tmp/no/such/smb.conf"));
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(StartSamba, StartWithoutSmbdWritesTheFileAndStartsBothServers) {
    load_factory_settings();
    fake::reset();
    EXPECT_EQ(app_util_start_samba(), 0);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck, "/bin/smbd", "/bin/nmbd"}));
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"check process smbd", "Start Samba",
                                                            "run command : /bin/smbd", "run command : /bin/nmbd"}));
    EXPECT_EQ(read_lines(kConf), kGlobalLines);
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(StartSamba, ResultIsThatOfTheNmbdStart) {
    load_factory_settings();
    seams.runner.fail_start = true;
    EXPECT_EQ(app_util_start_samba(), 1);
}

TEST_F(StartSamba, RunningSmbdIsStoppedFirst) {
    load_factory_settings();
    int smbd_checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        return t == kSmbdCheck && smbd_checks++ < 2 ? std::string(" 1 root smbd -D\n") : std::string();
    };
    fake::reset();
    app_util_start_samba();
    EXPECT_EQ(seams.runner.texts(),
              (std::vector<std::string>{kSmbdCheck, kSmbdCheck, kNmbdCheck, "killall smbd", "killall nmbd",
                                        "killall -9 smbd", kSmbdCheck, kNmbdCheck, "/bin/smbd", "/bin/nmbd"}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000, 500000, 100000}));
    EXPECT_TRUE(fake::logged("Kill samba"));
}

TEST_F(StartSamba, StartDoesNotLookAtTheEnableSetting) {
    load_factory_settings();
    SAMBA_CONF.enable = 0;
    app_util_start_samba();
    EXPECT_EQ(seams.runner.texts().back(), "/bin/nmbd");
}

TEST_F(ReloadSamba, DisabledSambaIsRewrittenAndLeftStopped) {
    load_factory_settings();
    SAMBA_CONF.enable = 0;
    app_util_samba_reload_conf();
    EXPECT_EQ(read_lines(kConf), kGlobalLines);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck}));
}

TEST_F(ReloadSamba, RunningServersAreRestarted) {
    load_factory_settings();
    int smbd_checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        return t == kSmbdCheck && smbd_checks++ < 2 ? std::string(" 1 root smbd -D\n") : std::string();
    };
    app_util_samba_reload_conf();
    EXPECT_EQ(seams.runner.texts(),
              (std::vector<std::string>{kSmbdCheck, kSmbdCheck, kNmbdCheck, "killall smbd", "killall nmbd",
                                        "killall -9 smbd", kSmbdCheck, kNmbdCheck, "/bin/smbd", "/bin/nmbd"}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000, 500000, 500000}));
}

TEST_F(ReloadSamba, StoppedServersAreStartedWithoutAStop) {
    load_factory_settings();
    app_util_samba_reload_conf();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck, "/bin/smbd", "/bin/nmbd"}));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(SambaConfFile, EverySettingOfTheSettingsFileReplacesItsRowsDefaultInTheWrittenFile) {
    // Every overridden row's setting differs from the row's default, so a
    // file written from the defaults cannot pass.
    std::string settings = testing_support::factory_settings();
    const std::pair<const char*, const char*> values[] = {
        {"USBMGR.SAMBA.LOG_FILE=", "/var/log/smb.%m"},
        {"USBMGR.SAMBA.MAX_LOG_SIZE=", "64"},
        {"USBMGR.SAMBA.LOG_LEVEL=", "3"},
        {"USBMGR.SAMBA.LOAD_PRINTERS=", "yes"},
        {"USBMGR.SAMBA.PRINTCAP_NAME=", "/etc/printcap"},
        {"USBMGR.SAMBA.PRINTING=", "cups"},
        {"USBMGR.SAMBA.SECURITY=", "share"},
        {"USBMGR.SAMBA.WORKGROUP=", "HOME"},
        {"USBMGR.SAMBA.DISABLE_NETBIOS=", "yes"},
        {"USBMGR.SAMBA.NETBIOS_NAME=", "GATEWAY"},
        {"USBMGR.SAMBA.SERVER_STRING=", "Home storage"},
        {"USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS=", "no"},
        {"USBMGR.SAMBA.GUEST_ACCOUNT=", "nobody"},
        {"USBMGR.SAMBA.USERNAME_MAP_DIR=", "/var/samba/users.map"},
    };
    for (const auto& [key, value] : values) {
        const std::size_t at = settings.find(std::string("\n") + key);
        ASSERT_NE(at, std::string::npos) << key;
        const std::size_t end = settings.find('\n', at + 1);
        settings.replace(at + 1, end - at - 1, std::string(key) + value);
    }
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
    write_file(USBMGR_CONF_PATH, settings);
    ASSERT_EQ(usbmgr_conf_load(), 1);
    usbmgr::copy_str(SAMBA_CONF.conf_dir, kConf);
    mkdir("/tmp/disk", 0775);
    app_util_write_samba_conf();
    EXPECT_EQ(read_lines(kConf), (std::vector<std::string>{
                                     "[global]",
                                     "   log file = /var/log/smb.%m",
                                     "   max log size = 64",
                                     "   log level = 3",
                                     "   password level = 1",
                                     "   load printers = yes",
                                     "   printcap name = /etc/printcap",
                                     "   printing = cups",
                                     "   security = share",
                                     "   encrypt passwords = yes",
                                     "   display charset = utf8",
                                     "   unix charset = utf8",
                                     "   workgroup = HOME",
                                     "   disable netbios = yes",
                                     "   netbios name = GATEWAY",
                                     "   name resolve order = bcast host",
                                     "   server string = Home storage",
                                     "   usershare allow guests = no",
                                     "   guest account = nobody",
                                     "   username map = /var/samba/users.map",
                                 }));
}

namespace {

// The factory settings with smbd answering the process check as running.
void smbd_runs(testing_support::Seams& seams) {
    seams.runner.respond = [](const std::string& t) {
        return t == kSmbdCheck ? std::string(" 1 root smbd -D\n") : std::string();
    };
}

}  // namespace

TEST_F(ReloadSamba, LiveReloadRewritesTheFileAndReloadsARunningSmbdInPlace) {
    load_factory_settings();
    ASSERT_EQ(SAMBA_LIVE_RELOAD, 1);
    smbd_runs(seams);
    write_file(kConf, "[old]\n");
    fake::reset();
    app_util_samba_reload_shares();
    EXPECT_EQ(read_lines(kConf), kGlobalLines);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck, "smbcontrol smbd reload-config"}));
    EXPECT_TRUE(fake::logged("run command : smbcontrol smbd reload-config"));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(ReloadSamba, LiveReloadStartsBothServersWhenSmbdDoesNotRun) {
    load_factory_settings();
    app_util_samba_reload_shares();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck, "/bin/smbd", "/bin/nmbd"}));
}

TEST_F(ReloadSamba, LiveReloadOffRestartsTheServersAsBefore) {
    load_factory_settings();
    SAMBA_LIVE_RELOAD = 0;
    int smbd_checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        return t == kSmbdCheck && smbd_checks++ < 2 ? std::string(" 1 root smbd -D\n") : std::string();
    };
    app_util_samba_reload_shares();
    EXPECT_EQ(seams.runner.texts(),
              (std::vector<std::string>{kSmbdCheck, kSmbdCheck, kNmbdCheck, "killall smbd", "killall nmbd",
                                        "killall -9 smbd", kSmbdCheck, kNmbdCheck, "/bin/smbd", "/bin/nmbd"}));
}

TEST_F(ReloadSamba, LiveReloadWithSambaDisabledStopsTheServersAsBefore) {
    load_factory_settings();
    SAMBA_CONF.enable = 0;
    int smbd_checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        return t == kSmbdCheck && smbd_checks++ < 2 ? std::string(" 1 root smbd -D\n") : std::string();
    };
    app_util_samba_reload_shares();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kSmbdCheck, kSmbdCheck, kNmbdCheck, "killall smbd",
                                                                "killall nmbd", "killall -9 smbd", kSmbdCheck,
                                                                kNmbdCheck}));
}

TEST_F(ReloadSamba, SambaIsLiveOnlyWithTheSettingOnSambaEnabledAndSmbdRunning) {
    load_factory_settings();
    EXPECT_FALSE(app_util_samba_live());
    smbd_runs(seams);
    EXPECT_TRUE(app_util_samba_live());
    SAMBA_CONF.enable = 0;
    EXPECT_FALSE(app_util_samba_live());
    SAMBA_CONF.enable = 1;
    SAMBA_LIVE_RELOAD = 0;
    EXPECT_FALSE(app_util_samba_live());
}

TEST_F(ReloadSamba, CloseSharesEndsTheSessionsOfTheGivenFoldersSharesByTheirSectionNames) {
    load_factory_settings();
    write_file(kConf,
               "[global]\n   workgroup = WORKGROUP\n"
               "[Music]\n   comment = Music (sda1) shared disk\n   path = /tmp/disk/sda1\n"
               "[sda2]\n   comment = sda2 shared disk\n   path = /tmp/disk/sda2\n"
               "[Photos]\n   comment = Photos (sdb1) shared disk\n   path = /tmp/disk/sdb1\n");
    fake::reset();
    app_util_samba_close_shares({"sda1", "sda2"});
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{"smbcontrol smbd close-share Music",
                                                              "smbcontrol smbd close-share sda2"}));
    EXPECT_TRUE(fake::logged("run command : smbcontrol smbd close-share Music"));
}

TEST_F(ReloadSamba, CloseSharesPassesAShareNameWithBlanksAsOneArgument) {
    load_factory_settings();
    write_file(kConf, "[My Music; x]\n   path = /tmp/disk/sda1\n");
    app_util_samba_close_shares({"sda1"});
    ASSERT_EQ(seams.runner.calls().size(), 1u);
    EXPECT_EQ(seams.runner.calls()[0].argv,
              (std::vector<std::string>{"smbcontrol", "smbd", "close-share", "My Music; x"}));
}

TEST_F(ReloadSamba, CloseSharesNeverClosesEveryShareOrPassesAnOption) {
    load_factory_settings();
    write_file(kConf, "[*]\n   path = /tmp/disk/sda1\n[-s]\n   path = /tmp/disk/sda2\n");
    fake::reset();
    app_util_samba_close_shares({"sda1", "sda2"});
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"refusing command line 'smbcontrol smbd close-share -s'"}));
}
