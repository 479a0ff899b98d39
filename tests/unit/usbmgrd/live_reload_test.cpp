// The Samba reload of each cause with the live reload setting on and off:
// a changed share list reloads a running smbd in place, a change of Samba's
// own settings restarts it, a leaving disk's shares are closed before its
// unmount. Seen through the runner's command lines.
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::arrive;
using testing_support::leave;
using testing_support::make_record;
using Lines = std::vector<std::string>;

namespace {

const char kSmbdCheck[] = "ps | grep smbd | grep -v grep 2>&1";
const char kNmbdCheck[] = "ps | grep nmbd | grep -v grep 2>&1";
const char kReloadConfig[] = "smbcontrol smbd reload-config";
// A restart of running servers, as the reload has always done.
const Lines kRestart = {"killall smbd", "killall nmbd", "killall -9 smbd", "/bin/smbd", "/bin/nmbd"};

class LiveReload : public testing_support::DaemonTest {
protected:
    LiveReload() {
        mkdir("/var/samba", 0755);
        testing_support::write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
        EXPECT_EQ(usbmgr_conf_load(), 1);
        EXPECT_EQ(SAMBA_LIVE_RELOAD, 1);
        testing_support::use_storage_settings();
        usbmgr::copy_str(SAMBA_CONF.conf_dir, "/var/samba/smb.conf");
        usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/var/samba/smbusers");
        usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/var/minidlna.conf");
        mkdir("/tmp/disk", 0755);
        for (const char* v : {"/tmp/disk/sda1", "/tmp/disk/sdb1"}) mkdir(v, 0755);
        use_mount_table();
        // smbd and nmbd run until killed and run again once started.
        auto mounts = seams.runner.respond;
        seams.runner.respond = [this, mounts](const std::string& t) -> std::string {
            if (t == kSmbdCheck) return smbd_running ? " 1 root smbd -D\n" : "";
            if (t == kNmbdCheck) return nmbd_running ? " 2 root nmbd -D\n" : "";
            return mounts(t);
        };
        seams.runner.while_running = [this](const std::string& t) {
            if (t == "killall smbd" || t == "killall -9 smbd") smbd_running = false;
            if (t == "killall nmbd" || t == "killall -9 nmbd") nmbd_running = false;
            if (t == "/bin/smbd") smbd_running = true;
            if (t == "/bin/nmbd") nmbd_running = true;
        };
    }

    // Both disks plugged and their reload done; the record starts afresh.
    void plug_both() {
        arrive(make_record("sda,sda1"));
        arrive(make_record("sdb,sdb1", "SER-B"));
        usbmgr_alarm_work();
        write_shares();
        seams.runner.clear();
        fake::reset();
    }

    // The file smbd runs with shares both disks (the folders here are no
    // mount points, so the generator leaves them out).
    static void write_shares() {
        testing_support::write_file("/var/samba/smb.conf",
                                    "[global]\n[sda1]\n   path = /tmp/disk/sda1\n[sdb1]\n   path = /tmp/disk/sdb1\n");
    }

    // The commands that start, stop or reload Samba, and the unmounts.
    Lines samba_commands() const {
        Lines out;
        for (const auto& t : seams.runner.texts())
            if (t.rfind("smbcontrol ", 0) == 0 || t.rfind("killall ", 0) == 0 || t == "/bin/smbd" ||
                t == "/bin/nmbd" || t.rfind("umount ", 0) == 0)
                out.push_back(t);
        out.erase(std::remove_if(out.begin(), out.end(),
                                 [](const std::string& t) { return t.find("minidlnad") != std::string::npos; }),
                  out.end());
        return out;
    }

    bool smbd_running = true;
    bool nmbd_running = true;
};

}  // namespace

TEST_F(LiveReload, ABurstOfArrivalsReloadsTheRunningSmbdInPlaceOnce) {
    arrive(make_record("sda,sda1"));
    arrive(make_record("sdb,sdb1", "SER-B"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{kReloadConfig}));
    EXPECT_TRUE(fake::logged(4, "db_util.c", "run command : smbcontrol smbd reload-config"));
    EXPECT_TRUE(smbd_running);
}

TEST_F(LiveReload, ABurstOfArrivalsWithTheSettingOffRestartsBothServersOnce) {
    SAMBA_LIVE_RELOAD = 0;
    arrive(make_record("sda,sda1"));
    arrive(make_record("sdb,sdb1", "SER-B"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), kRestart);
}

TEST_F(LiveReload, ArrivalWhileSmbdDoesNotRunStartsBothServers) {
    smbd_running = false;
    nmbd_running = false;
    arrive(make_record("sda,sda1"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{"/bin/smbd", "/bin/nmbd"}));
}

TEST_F(LiveReload, RemovalClosesOnlyTheLeavingDisksShareBeforeItsUnmountAndThenReloadsInPlace) {
    plug_both();
    leave(make_record("sda,sda1"));
    EXPECT_EQ(samba_commands(), (Lines{"smbcontrol smbd close-share sda1", "umount /tmp/disk/sda1"}));
    EXPECT_TRUE(fake::logged(4, "db_util.c", "run command : smbcontrol smbd close-share sda1"));
    seams.runner.clear();
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{kReloadConfig}));
}

TEST_F(LiveReload, RemovalWithTheSettingOffStopsBothServersBeforeTheUnmountAndRestartsThem) {
    SAMBA_LIVE_RELOAD = 0;
    plug_both();
    leave(make_record("sda,sda1"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{"killall smbd", "killall nmbd", "killall -9 smbd", "umount /tmp/disk/sda1",
                                       "/bin/smbd", "/bin/nmbd"}));
}

TEST_F(LiveReload, RenamingOrEnablingAVolumeReloadsInPlaceAndWithTheSettingOffRestarts) {
    plug_both();
    for (int32_t live : {1, 0}) {
        SAMBA_LIVE_RELOAD = live;
        seams.runner.clear();
        CmdSetLogicalVolume c{};
        c.slot = 0;
        c.Enable = 1;
        usbmgr::copy_str(c.Name, live ? "Photos" : "Music");
        usbmgr_cmd_set_logical_volume(c);
        ASSERT_EQ(c.status, 0);
        usbmgr_alarm_work();
        EXPECT_EQ(samba_commands(), live ? Lines{kReloadConfig} : kRestart) << live;
    }
}

TEST_F(LiveReload, SambaSettingsCommandsSixAndTwentySixAndTheSambaSwitchRestartEvenWithTheSettingOn) {
    plug_both();
    CmdSetConf set{};
    usbmgr::copy_str(set.name, "workgroup");
    usbmgr::copy_str(set.value, "HOME");
    usbmgr_cmd_set_samba_conf(set);
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), kRestart);

    seams.runner.clear();
    CmdSetStorageNetworkServer server{};
    server.SMBEnable = 1;
    server.NetworkProtocolAuthReq = 1;
    usbmgr_cmd_set_storage_network_server(server);
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), kRestart);

    seams.runner.clear();
    CmdSetStorageService off{0, 0};
    usbmgr_cmd_set_storage_service(off);
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{"killall smbd", "killall nmbd", "killall -9 smbd"}));
}

TEST_F(LiveReload, ASettingsChangeInABurstOfArrivalsMakesItOneRestartAndTheNextBurstReloadsInPlace) {
    arrive(make_record("sda,sda1"));
    CmdSetConf set{};
    usbmgr::copy_str(set.name, "workgroup");
    usbmgr::copy_str(set.value, "HOME");
    usbmgr_cmd_set_samba_conf(set);
    arrive(make_record("sdb,sdb1", "SER-B"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), kRestart);
    seams.runner.clear();
    write_shares();
    leave(make_record("sdb,sdb1", "SER-B"));
    usbmgr_alarm_work();
    EXPECT_EQ(samba_commands(), (Lines{"smbcontrol smbd close-share sdb1", "umount /tmp/disk/sdb1", kReloadConfig}));
}
