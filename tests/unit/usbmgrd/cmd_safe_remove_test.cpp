// Bus command 36 and its worker: the reply comes at once, the worker stops
// the servers, unmounts the disk, forgets its rows, rebuilds, publishes
// kind 14 after reloading both servers, and leaves the history alone.
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "fixture.h"
#include "platform_fake.h"
#include "storage_world.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::FakeDisk;
using testing_support::read_file;
using testing_support::StorageWorld;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

// Holds every command the worker runs until opened.
class Gate {
public:
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        cv_.notify_all();
        cv_.wait(lock, [this] { return open_; });
    }
    void wait_for_waiter() {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return waiting_ > 0; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
    int waiting_ = 0;
};

class SafeRemove : public testing_support::DaemonTest {
protected:
    SafeRemove() : world(seams.runner) {
        mkdir("/var/samba", 0755);
        testing_support::write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
        EXPECT_EQ(usbmgr_conf_load(), 1);
        usbmgr::copy_str(SAMBA_CONF.conf_dir, "/var/samba/smb.conf");
        usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/var/samba/smbusers");
        usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/var/minidlna.conf");
        StorageWorld::history({"USBMGR.0.SERIAL_NUMBER=SER-1", "USBMGR.0.PNAME=Mine", "USBMGR.0.NAME.0=Music",
                               "USBMGR.0.ENABLE.0=1", "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1"});
        FakeDisk d;
        d.volumes = {"sda1", "sda2"};
        world.plug(d);
        FakeDisk other;
        other.disk = "sdb";
        other.volumes = {"sdb1"};
        other.serial = "SER-2";
        world.plug(other);
        StorageWorld::build();
        // "umount" takes a folder out of what "mount" and "df" list.
        auto storage = seams.runner.respond;
        seams.runner.respond = [this, storage](const std::string& text) -> std::string {
            std::lock_guard<std::mutex> lock(unmounted_mutex);
            if (text.rfind("umount ", 0) == 0) {
                unmounted.push_back(text.substr(std::string("umount /tmp/disk/").size()));
                return "";
            }
            std::string out;
            std::string all = storage(text);
            for (std::size_t pos = 0; pos < all.size();) {
                std::size_t end = all.find('\n', pos);
                std::string line = all.substr(pos, end - pos + 1);
                pos = end == std::string::npos ? all.size() : end + 1;
                bool gone = false;
                for (const auto& v : unmounted)
                    if (line.find("/tmp/disk/" + v + " ") != std::string::npos ||
                        line.find("/tmp/disk/" + v + "\n") != std::string::npos)
                        gone = true;
                if (!gone) out += line;
            }
            return out;
        };
        seams.runner.clear();
        fake::reset();
    }
    ~SafeRemove() override { usbmgr_safe_remove_wait(); }

    static CmdSafeRemove request(int32_t service, int32_t slot) { return CmdSafeRemove{service, slot, 0x5a5a5a5a}; }

    StorageWorld world;
    std::mutex unmounted_mutex;
    std::vector<std::string> unmounted;
};

}  // namespace

TEST_F(SafeRemove, SafeRemoveOfAnEmptySlotOfSlotTwentyFiveOrOfANegativeSlotAnswersMinusTwo) {
    for (int32_t slot : {2, 24, 25, 26, -1, INT32_MIN, INT32_MAX}) {
        auto c = request(0, slot);
        usbmgr_cmd_set_storage_safe_remove(c);
        EXPECT_EQ(c.status, -2) << slot;
    }
    usbmgr_safe_remove_wait();
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(SafeRemove, ASlotWithOnlyASerialNumberLeftIsNoDiskToRemove) {
    usbmgr::copy_str(usb_physical_info[3].serial_number, "GHOST");
    auto c = request(0, 3);
    usbmgr_cmd_set_storage_safe_remove(c);
    EXPECT_EQ(c.status, -2);
}

TEST_F(SafeRemove, SafeRemoveOfABadServiceAnswersMinusOne) {
    for (int32_t service : {2, 5, -1, INT32_MIN}) {
        auto c = request(service, 0);
        usbmgr_cmd_set_storage_safe_remove(c);
        EXPECT_EQ(c.status, -1) << service;
    }
    usbmgr_safe_remove_wait();
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(SafeRemove, AValidSlotAnswersZeroBeforeTheDiskIsUnmounted) {
    Gate gate;
    seams.runner.while_running = [&gate](const std::string&) { gate.wait(); };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    EXPECT_EQ(c.status, 0);
    // The worker is held at its first command, before any unmount.
    gate.wait_for_waiter();
    const Lines so_far = seams.runner.texts();
    EXPECT_TRUE(std::none_of(so_far.begin(), so_far.end(),
                             [](const std::string& t) { return t.rfind("umount", 0) == 0; }));
    EXPECT_TRUE(fake::sent_kinds().empty());
    gate.open();
    usbmgr_safe_remove_wait();
    const Lines all = seams.runner.texts();
    EXPECT_NE(std::find(all.begin(), all.end(), "umount /tmp/disk/sda1"), all.end());
}

TEST_F(SafeRemove, TheWorkerStopsBothServersUnmountsForgetsTheRowsRebuildsReloadsAndPublishesKindFourteen) {
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    EXPECT_EQ(c.status, 0);
    usbmgr_safe_remove_wait();
    const Lines texts = seams.runner.texts();
    auto at = [&texts](const std::string& t) { return std::find(texts.begin(), texts.end(), t) - texts.begin(); };
    const auto n = static_cast<long>(texts.size());
    // Servers asked first, then the unmounts, then the restarts.
    EXPECT_EQ(texts[0], "ps | grep minidlnad | grep -v grep 2>&1");
    EXPECT_LT(at("umount /tmp/disk/sda1"), n);
    EXPECT_LT(at("umount /tmp/disk/sda2"), n);
    EXPECT_EQ(at("umount /tmp/disk/sdb1"), n);
    EXPECT_LT(at("ps | grep smbd | grep -v grep 2>&1"), at("umount /tmp/disk/sda1"));
    EXPECT_LT(at("umount /tmp/disk/sda2"), at("/bin/smbd"));
    EXPECT_LT(at("/bin/smbd"), at("/sbin/minidlnad -f /var/minidlna.conf -R"));
    EXPECT_LT(at("/sbin/minidlnad -f /var/minidlna.conf -R"), n);
    // Rows of sda gone, sdb kept.
    EXPECT_EQ(usb_physical_info[0].attach_device[0], '\0');
    EXPECT_EQ(usb_physical_info[0].serial_number[0], '\0');
    EXPECT_EQ(usb_volume_info[0].name[0], '\0');
    EXPECT_EQ(usb_volume_info[1].name[0], '\0');
    EXPECT_STREQ(usb_volume_info[2].name, "sdb1");
    EXPECT_STREQ(usb_physical_info[1].attach_device, "sdb,sdb1");
    EXPECT_EQ(usbmgr_tr140_db[0].PhysicalMediumNumberOfEntries, 1u);
    EXPECT_EQ(usbmgr_tr140_db[0].LogicalVolumeNumberOfEntries, 1u);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{14}));
    EXPECT_TRUE(testing_support::pending_kinds().empty());
    // The share of sda is gone from the regenerated Samba file.
    const std::string smb = read_file("/var/samba/smb.conf");
    EXPECT_EQ(smb.find("/tmp/disk/sda1"), std::string::npos);
    EXPECT_NE(smb.find("[global]"), std::string::npos);
}

TEST_F(SafeRemove, TheWorkerNeverTouchesTheHistoryFile) {
    const std::string before = read_file(TR140_CONF_PATH);
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    usbmgr_safe_remove_wait();
    EXPECT_EQ(read_file(TR140_CONF_PATH), before);
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

TEST_F(SafeRemove, EachSafeRemoveKeepsItsWorkerIdAndTwoInARowBothFinish) {
    auto a = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(a);
    auto b = request(0, 1);
    usbmgr_cmd_set_storage_safe_remove(b);
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(b.status, 0);
    usbmgr_safe_remove_wait();
    EXPECT_FALSE(pthread_equal(safe_remove_id, pthread_t{}));
    EXPECT_EQ(usbmgr_tr140_db[0].PhysicalMediumNumberOfEntries, 0u);
    EXPECT_EQ(fake::sent_kinds(), (Kinds{14, 14}));
}

TEST_F(SafeRemove, ThroughTheCommandTableTheEntryLineComesFirstAndAnAllOnesPayloadAnswersMinusOne) {
    OrbIilSetCmdHandler(&usbmgr_iil_handle, usbmgr_cmd_table, USBMGR_COMMAND_COUNT);
    std::vector<uint8_t> p(sizeof(CmdSafeRemove), 0xff);
    ASSERT_EQ(fake::call_command(36, p), ORBIIL_OK);
    int32_t status;
    std::memcpy(&status, p.data() + 8, 4);
    EXPECT_EQ(status, -1);
    usbmgr_safe_remove_wait();
    EXPECT_EQ(fake::log_texts(), (Lines{"cmd - usbmgr_cmd_set_storage_safe_remove"}));
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(SafeRemove, TheWorkerHoldsTheLockAndStopsServersUnmountsDeletesRowsRebuildsQueuesReloadsAndThenPublishes) {
    // One timeline of what the worker does, each step seen as it happens.
    std::vector<std::string> steps;
    std::mutex steps_mutex;
    bool lock_always_held = true;
    seams.runner.while_running = [&](const std::string& text) {
        std::lock_guard<std::mutex> guard(steps_mutex);
        if (!usbmgr::daemon_lock_held_here()) lock_always_held = false;
        std::string step = text;
        if (text.rfind("df -m", 0) == 0 || text.rfind("umount", 0) == 0 || text == "/bin/smbd" ||
            text.rfind("/sbin/minidlnad", 0) == 0) {
            // What the tables and the ring hold while the command runs.
            step += usb_physical_info[0].attach_device[0] == '\0' ? " [disk row gone" : " [disk row";
            step += usb_volume_info[0].name[0] == '\0' && usb_volume_info[1].name[0] == '\0' ? ", volume rows gone" : ", volume rows";
            step += testing_support::pending_kinds().empty() ? "]" : ", kind 14 queued]";
            steps.push_back(step);
        } else if (text.rfind("ps | grep ", 0) == 0 && steps.empty()) {
            steps.push_back(text);
        }
    };
    fake::bus().on_notify = [&](uint32_t id, const std::vector<uint8_t>&) {
        std::lock_guard<std::mutex> guard(steps_mutex);
        if (!usbmgr::daemon_lock_held_here()) lock_always_held = false;
        steps.push_back("notify " + std::to_string(id) + " with " +
                        std::to_string(usbmgr_tr140_db[0].PhysicalMediumNumberOfEntries) + " disk");
    };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    usbmgr_safe_remove_wait();
    EXPECT_TRUE(lock_always_held);
    EXPECT_EQ(steps, (Lines{
                         // MiniDLNA's stop asks first, then Samba's.
                         "ps | grep minidlnad | grep -v grep 2>&1",
                         "umount /tmp/disk/sda1 [disk row, volume rows]",
                         "umount /tmp/disk/sda2 [disk row, volume rows]",
                         // The rebuild sees the rows gone.
                         "df -m | grep sdb 2>&1 [disk row gone, volume rows gone]",
                         "df -m | grep sdb1 2>&1 [disk row gone, volume rows gone]",
                         // Samba's reload and then MiniDLNA's, with kind 14 queued.
                         "/bin/smbd [disk row gone, volume rows gone, kind 14 queued]",
                         "/sbin/minidlnad -f /var/minidlna.conf -R [disk row gone, volume rows gone, kind 14 queued]",
                         "notify 0 with 1 disk",
                     }));
    const Lines texts = seams.runner.texts();
    auto at = [&texts](const std::string& t) { return std::find(texts.begin(), texts.end(), t) - texts.begin(); };
    EXPECT_LT(at("ps | grep smbd | grep -v grep 2>&1"), at("umount /tmp/disk/sda1"));
}

TEST_F(SafeRemove, ABusyDiskIsTriedFiveTimesWithoutTheLockBetweenThenLeftMountedAndSharedWithOneLogLine) {
    // sda2 stays busy: its unmount never takes.
    auto storage = seams.runner.respond;
    seams.runner.respond = [storage](const std::string& text) -> std::string {
        if (text == "umount /tmp/disk/sda2") return "";
        return storage(text);
    };
    std::vector<bool> lock_in_sleeps;
    std::mutex m;
    seams.clock.on_sleep = [&](unsigned long us) {
        std::lock_guard<std::mutex> guard(m);
        if (us == 3000000) lock_in_sleeps.push_back(usbmgr::daemon_lock_held_here());
    };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    EXPECT_EQ(c.status, 0);
    usbmgr_safe_remove_wait();
    // Four waits of 3 s between five tries, none of them holding the lock.
    EXPECT_EQ(lock_in_sleeps, std::vector<bool>(4, false));
    const Lines all = seams.runner.texts();
    EXPECT_EQ(std::count(all.begin(), all.end(), "umount /tmp/disk/sda2"), 5);
    EXPECT_TRUE(fake::logged(2, "usbmgrd.c", "safe remove sda,sda1,sda2 gave up: disk busy"));
    // The disk stays: its rows, no kind 14, its volumes mounted again and
    // the servers reloaded.
    EXPECT_STREQ(usb_physical_info[0].attach_device, "sda,sda1,sda2");
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_NE(std::find(all.begin(), all.end(), "mount -v -t auto -o nosuid,nodev /var/dev/sda1 /tmp/disk/sda1"), all.end());
    EXPECT_NE(std::find(all.begin(), all.end(), "/bin/smbd"), all.end());
}

TEST_F(SafeRemove, WithLiveReloadTheWorkerClosesTheDisksSharesBeforeTheUnmountAndReloadsSmbdInPlace) {
    ASSERT_EQ(SAMBA_LIVE_RELOAD, 1);
    // The file smbd runs with names sda1's share after its history.
    testing_support::write_file("/var/samba/smb.conf",
                                "[global]\n[Music]\n   path = /tmp/disk/sda1\n[sda2]\n   path = /tmp/disk/sda2\n"
                                "[sdb1]\n   path = /tmp/disk/sdb1\n");
    auto storage = seams.runner.respond;
    seams.runner.respond = [storage](const std::string& t) -> std::string {
        return t == "ps | grep smbd | grep -v grep 2>&1" ? std::string(" 1 root smbd -D\n") : storage(t);
    };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    usbmgr_safe_remove_wait();
    Lines samba;
    for (const auto& t : seams.runner.texts())
        if (t.rfind("smbcontrol", 0) == 0 || t.rfind("killall smbd", 0) == 0 || t.rfind("umount", 0) == 0 ||
            t == "/bin/smbd")
            samba.push_back(t);
    EXPECT_EQ(samba, (Lines{"smbcontrol smbd close-share Music", "smbcontrol smbd close-share sda2",
                            "umount /tmp/disk/sda1", "umount /tmp/disk/sda2", "smbcontrol smbd reload-config"}));
}

TEST_F(SafeRemove, WithLiveReloadEveryTryOfABusyDiskClosesItsSharesFirstAndGivingUpReloadsSmbdInPlace) {
    testing_support::write_file("/var/samba/smb.conf",
                                "[global]\n[Music]\n   path = /tmp/disk/sda1\n[sda2]\n   path = /tmp/disk/sda2\n");
    // smbd runs throughout; sda2 stays busy.
    auto storage = seams.runner.respond;
    seams.runner.respond = [storage](const std::string& t) -> std::string {
        if (t == "ps | grep smbd | grep -v grep 2>&1") return " 1 root smbd -D\n";
        if (t == "umount /tmp/disk/sda2") return "";
        return storage(t);
    };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    usbmgr_safe_remove_wait();
    Lines samba;
    for (const auto& t : seams.runner.texts())
        if (t.rfind("smbcontrol", 0) == 0 || t.rfind("killall smbd", 0) == 0 || t == "umount /tmp/disk/sda2" ||
            t == "/bin/smbd")
            samba.push_back(t);
    Lines expected;
    for (int i = 0; i < 5; ++i)
        expected.insert(expected.end(), {"smbcontrol smbd close-share Music", "smbcontrol smbd close-share sda2",
                                         "umount /tmp/disk/sda2"});
    expected.emplace_back("smbcontrol smbd reload-config");
    EXPECT_EQ(samba, expected);
}

TEST_F(SafeRemove, WithTheLiveReloadSettingOffTheWorkerStopsRunningSambaBeforeTheUnmountAndStartsItAfter) {
    SAMBA_LIVE_RELOAD = 0;
    bool smbd = true;
    auto storage = seams.runner.respond;
    seams.runner.respond = [storage, &smbd](const std::string& t) -> std::string {
        if (t == "ps | grep smbd | grep -v grep 2>&1") return smbd ? " 1 root smbd -D\n" : "";
        return storage(t);
    };
    seams.runner.while_running = [&smbd](const std::string& t) {
        if (t == "killall smbd") smbd = false;
        if (t == "/bin/smbd") smbd = true;
    };
    auto c = request(0, 0);
    usbmgr_cmd_set_storage_safe_remove(c);
    usbmgr_safe_remove_wait();
    Lines samba;
    for (const auto& t : seams.runner.texts())
        if (t.rfind("smbcontrol", 0) == 0 || t.rfind("killall", 0) == 0 || t.rfind("umount", 0) == 0 ||
            t == "/bin/smbd" || t == "/bin/nmbd")
            samba.push_back(t);
    EXPECT_EQ(samba, (Lines{"killall smbd", "killall nmbd", "killall -9 smbd", "umount /tmp/disk/sda1",
                            "umount /tmp/disk/sda2", "/bin/smbd", "/bin/nmbd"}));
}
