// The MiniDLNA configuration file and the server's start and reload, seen
// through the rendered text, the file, the fake runner and the fake clock.
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
using testing_support::read_file;
using testing_support::read_lines;
using testing_support::write_file;

using MiniDlnaRender = testing_support::DaemonTest;
using MiniDlnaConfFile = testing_support::DaemonTest;
using StartMiniDlna = testing_support::DaemonTest;
using ReloadMiniDlna = testing_support::DaemonTest;

namespace {

const char kConf[] = "/var/minidlna.conf";
const char kCheck[] = "ps | grep minidlnad | grep -v grep 2>&1";
const char kServer[] = "/sbin/minidlnad -f /var/minidlna.conf -R";

const std::vector<std::string> kFactoryLines = {
    "user=root",
    "media_dir=/tmp/disk",
    "db_dir=/var/cache/minidlna",
    "log_dir=/var/log",
    "log_level=off",
    "root_container=.",
    "port=8200",
    "friendly_name=pelvan_kro",
    "inotify=yes",
    "album_art_names=Cover.jpg/cover.jpg/AlbumArtSmall.jpg/albumartsmall.jpg",
    "album_art_names=AlbumArt.jpg/albumart.jpg/Album.jpg/album.jpg",
    "album_art_names=Folder.jpg/folder.jpg/Thumb.jpg/thumb.jpg",
    "notify_interval=300",
};

// The factory settings file, loaded into the records.
void load_factory_settings() {
    std::memset(&MINIDLNA_CONF, 0, sizeof MINIDLNA_CONF);
    std::memset(&SAMBA_CONF, 0, sizeof SAMBA_CONF);
    write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
    ASSERT_EQ(usbmgr_conf_load(), 1);
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

bool minidlna_running;
std::string answer(const std::string& text) {
    return text == kCheck && minidlna_running ? "  77 root  minidlnad -f /var/minidlna.conf\n" : "";
}

}  // namespace

TEST_F(MiniDlnaRender, FactorySettingsGiveTheThirteenLines) {
    load_factory_settings();
    EXPECT_EQ(split_lines(app_util_render_minidlna_conf(MINIDLNA_CONF)), kFactoryLines);
}

TEST_F(MiniDlnaRender, RenderingLogsAndRunsNothing) {
    load_factory_settings();
    fake::reset();
    app_util_render_minidlna_conf(MINIDLNA_CONF);
    EXPECT_TRUE(fake::log_texts().empty());
    EXPECT_TRUE(seams.runner.calls().empty());
}

TEST_F(MiniDlnaRender, SerialModelNameAndModelNumberSettingsNeverReachTheFile) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.serial, "SN-0042");
    usbmgr::copy_str(MINIDLNA_CONF.model_name, "Gateway");
    usbmgr::copy_str(MINIDLNA_CONF.model_number, "Q40");
    std::string text = app_util_render_minidlna_conf(MINIDLNA_CONF);
    EXPECT_EQ(text.find("SN-0042"), std::string::npos);
    EXPECT_EQ(text.find("serial="), std::string::npos);
    EXPECT_EQ(text.find("model_"), std::string::npos);
    EXPECT_EQ(split_lines(text), kFactoryLines);
}

TEST_F(MiniDlnaRender, SettingsReplaceTheDefaultsOfTheirRows) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.media_dir, "/mnt/media");
    usbmgr::copy_str(MINIDLNA_CONF.db_dir, "/var/db");
    usbmgr::copy_str(MINIDLNA_CONF.log_dir, "/var/logs");
    usbmgr::copy_str(MINIDLNA_CONF.log_level, "general=warn");
    usbmgr::copy_str(MINIDLNA_CONF.root_container, "B");
    usbmgr::copy_str(MINIDLNA_CONF.port, "8201");
    usbmgr::copy_str(MINIDLNA_CONF.friendly_name, "Living room");
    usbmgr::copy_str(MINIDLNA_CONF.inotify, "no");
    usbmgr::copy_str(MINIDLNA_CONF.notify_interval, "60");
    std::vector<std::string> lines = split_lines(app_util_render_minidlna_conf(MINIDLNA_CONF));
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[0], "user=root");
    EXPECT_EQ(lines[1], "media_dir=/mnt/media");
    EXPECT_EQ(lines[2], "db_dir=/var/db");
    EXPECT_EQ(lines[3], "log_dir=/var/logs");
    EXPECT_EQ(lines[4], "log_level=general=warn");
    EXPECT_EQ(lines[5], "root_container=B");
    EXPECT_EQ(lines[6], "port=8201");
    EXPECT_EQ(lines[7], "friendly_name=Living room");
    EXPECT_EQ(lines[8], "inotify=no");
    EXPECT_EQ(lines[12], "notify_interval=60");
}

TEST_F(MiniDlnaRender, MediaDirectoryIsTheSettingNotTheMountRoot) {
    load_factory_settings();
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/elsewhere");
    usbmgr::copy_str(MINIDLNA_CONF.media_dir, "/tmp/disk");
    EXPECT_EQ(split_lines(app_util_render_minidlna_conf(MINIDLNA_CONF))[1], "media_dir=/tmp/disk");
}

TEST_F(MiniDlnaRender, EmptySettingsStillWriteEveryEnabledKey) {
    MiniDlnaConf empty{};
    std::vector<std::string> lines = split_lines(app_util_render_minidlna_conf(empty));
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[0], "user=root");
    EXPECT_EQ(lines[1], "media_dir=");
    EXPECT_EQ(lines[7], "friendly_name=");
    EXPECT_EQ(lines[9], kFactoryLines[9]);
}

TEST_F(MiniDlnaRender, ValueWithLineBreaksStaysOnItsOwnLine) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.friendly_name, "tv\nport=1\r\nuser=x");
    std::vector<std::string> lines = split_lines(app_util_render_minidlna_conf(MINIDLNA_CONF));
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[7], "friendly_name=tv_port=1__user=x");
    EXPECT_EQ(lines[6], "port=8200");
}

TEST_F(MiniDlnaRender, FieldsWithoutTerminatorAreReadToTheirEndOnly) {
    MiniDlnaConf conf;
    std::memset(&conf, 'a', sizeof conf);
    std::vector<std::string> lines = split_lines(app_util_render_minidlna_conf(conf));
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[6], "port=" + std::string(10, 'a'));
    EXPECT_EQ(lines[7], "friendly_name=" + std::string(64, 'a'));
}

TEST_F(MiniDlnaConfFile, WriteReplacesTheFileWithMode0644) {
    load_factory_settings();
    umask(022);
    write_file(kConf, "old=1\n");
    chmod(kConf, 0600);
    app_util_write_minidlna_conf();
    EXPECT_EQ(read_lines(kConf), kFactoryLines);
    struct stat st {};
    ASSERT_EQ(stat(kConf, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(MiniDlnaConfFile, WriteThroughALinkReplacesTheLinkNotItsTarget) {
    load_factory_settings();
    write_file("/tmp/target", "keep\n");
    ASSERT_EQ(symlink("/tmp/target", kConf), 0);
    app_util_write_minidlna_conf();
    EXPECT_EQ(read_file("/tmp/target"), "keep\n");
    EXPECT_EQ(read_lines(kConf), kFactoryLines);
}

TEST_F(MiniDlnaConfFile, FileThatCannotBeCreatedIsSkippedSilently) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/tmp/no/such/folder/minidlna.conf");
    fake::reset();
    app_util_write_minidlna_conf();
    EXPECT_FALSE(file_exists("/tmp/no/such/folder/minidlna.conf"));
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(StartMiniDlna, FirstStartWritesTheFileAndStartsTheServer) {
    load_factory_settings();
    mkdir("/var/cache", 0755);
    mkdir("/var/cache/minidlna", 0755);
    minidlna_running = false;
    seams.runner.respond = answer;
    fake::reset();
    EXPECT_EQ(app_util_start_minidlna(), 0);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kCheck, kServer}));
    EXPECT_EQ(fake::log_texts(), (std::vector<std::string>{"check process minidlnad", "Start minidlna",
                                                            std::string("run command : ") + kServer}));
    EXPECT_EQ(read_lines(kConf), kFactoryLines);
    EXPECT_TRUE(file_exists("/var/cache/minidlna"));
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(StartMiniDlna, StartWhileRunningRemovesTheDatabaseFolderBeforeTheNewStart) {
    load_factory_settings();
    mkdir("/var/cache", 0755);
    mkdir("/var/cache/minidlna", 0755);
    write_file("/var/cache/minidlna/files.db", "db");
    minidlna_running = true;
    seams.runner.respond = answer;
    fake::reset();
    app_util_start_minidlna();
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kCheck, "killall minidlnad",
                                                              "rm -rf /var/cache/minidlna", kServer}));
    EXPECT_FALSE(file_exists("/var/cache/minidlna"));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000}));
    EXPECT_TRUE(fake::logged("Kill minidlna"));
    EXPECT_FALSE(fake::logged("Start minidlna"));
}

TEST_F(StartMiniDlna, ServerAndRemovalRunWithoutAShell) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/tmp/a b;reboot");
    usbmgr::copy_str(MINIDLNA_CONF.db_dir, "/tmp/c d");
    minidlna_running = true;
    seams.runner.respond = answer;
    seams.runner.pass_through = nullptr;
    app_util_start_minidlna();
    auto calls = seams.runner.calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2].argv, (std::vector<std::string>{"rm", "-rf", "/tmp/c d"}));
    EXPECT_EQ(calls[3].argv, (std::vector<std::string>{"/sbin/minidlnad", "-f", "/tmp/a b;reboot", "-R"}));
}

TEST_F(StartMiniDlna, StartDoesNotLookAtTheEnableSetting) {
    load_factory_settings();
    MINIDLNA_CONF.enable = 0;
    app_util_start_minidlna();
    EXPECT_EQ(seams.runner.texts().back(), kServer);
}

TEST_F(ReloadMiniDlna, DisabledServerIsRewrittenAndStoppedButNotStarted) {
    load_factory_settings();
    MINIDLNA_CONF.enable = 0;
    int checks = 0;
    seams.runner.respond = [&](const std::string& t) {
        return t == kCheck && checks++ == 0 ? std::string("  77 root minidlnad\n") : std::string();
    };
    app_util_minidlna_reload_conf(nullptr);
    EXPECT_EQ(read_lines(kConf), kFactoryLines);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kCheck, "killall minidlnad", kCheck}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{500000, 500000, 1000000}));
}

TEST_F(ReloadMiniDlna, EnabledServerIsStartedAgainAfterOneSecond) {
    load_factory_settings();
    app_util_minidlna_reload_conf(nullptr);
    EXPECT_EQ(read_lines(kConf), kFactoryLines);
    EXPECT_EQ(seams.runner.texts(), (std::vector<std::string>{kCheck, kServer}));
    EXPECT_EQ(seams.clock.sleeps(), (std::vector<unsigned long>{1000000}));
}

TEST_F(ReloadMiniDlna, FileIsRewrittenBeforeTheServerIsStopped) {
    load_factory_settings();
    bool file_at_stop = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == kCheck) file_at_stop = file_exists(kConf);
        return std::string();
    };
    app_util_minidlna_reload_conf(nullptr);
    EXPECT_TRUE(file_at_stop);
}

TEST_F(StartMiniDlna, SettingThatCouldPassForAnOptionIsRefusedNotRun) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "-V");
    usbmgr::copy_str(MINIDLNA_CONF.db_dir, "--no-preserve-root");
    minidlna_running = true;
    seams.runner.respond = answer;
    seams.runner.pass_through = nullptr;
    app_util_start_minidlna();
    // The database folder's form refuses it before the command line would.
    EXPECT_TRUE(fake::logged("refusing value '--no-preserve-root' of USBMGR.MINIDLNA.DB_DIR"));
    EXPECT_TRUE(fake::logged("refusing command line '/sbin/minidlnad -f -V -R'"));
    EXPECT_FALSE(fake::logged("run command : rm -rf --no-preserve-root"));
}

TEST_F(StartMiniDlna, SettingWithAControlCharacterIsRefusedNotRun) {
    load_factory_settings();
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/var/mini\x01dlna.conf");
    app_util_start_minidlna();
    EXPECT_FALSE(fake::logged("run command : /sbin/minidlnad -f /var/mini\x01dlna.conf -R"));
}
