// The deferred reload: the alarm, its worker, the reload target and the
// flush of the pending change kinds.
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::arrive;
using testing_support::kDeferral;
using testing_support::leave;
using testing_support::make_record;
using testing_support::pending_kinds;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

class DeferredReload : public testing_support::DaemonTest {
protected:
    DeferredReload() { testing_support::use_storage_settings(); }
};

}  // namespace


TEST_F(DeferredReload, AlarmDuringAStorageEventLogsNextIncomingEventReArmsAndSendsNothing) {
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    }
    fake::reset();
    usbmgr_evt_in_progress = 1;
    usbmgr_alarm_work();
    EXPECT_EQ(fake::log_texts(), (Lines{"********** NEXT INCOMING EVENT **********"}));
    EXPECT_EQ(fake::bus().log.at(0).level, 4);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_EQ(pending_kinds(), (Lines{"USBMGR_TR140_ADD_STORAGE"}));

    usbmgr_evt_in_progress = 0;
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0}));
    EXPECT_EQ(seams.clock.alarms().size(), 1u);
}

TEST_F(DeferredReload, AlarmThatFiresWhileARemovalIsHandledWaitsAnotherDeferral) {
    use_mount_table();
    arrive(make_record("sda,sda1"));
    usbmgr_alarm_work();
    const std::size_t alarms = seams.clock.alarms().size();
    fake::reset();

    // The removal stays inside its unmount until the test lets it go.
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool released = false;
    seams.runner.respond = [&](const std::string& t) {
        if (t == "umount /tmp/disk/sda1") {
            std::unique_lock<std::mutex> lock(m);
            entered = true;
            cv.notify_all();
            cv.wait(lock, [&] { return released; });
        }
        return mounts.respond(t);
    };
    std::thread removal([] { leave(make_record("sda,sda1")); });
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return entered; }));
    }
    EXPECT_EQ(usbmgr_evt_in_progress, 1);

    usbmgr_alarm_work();
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "********** NEXT INCOMING EVENT **********"));
    std::vector<unsigned long> after = seams.clock.alarms();
    EXPECT_EQ(after.size(), alarms + 1);
    EXPECT_EQ(after.back(), kDeferral);
    EXPECT_TRUE(fake::sent_kinds().empty());

    {
        std::lock_guard<std::mutex> lock(m);
        released = true;
    }
    cv.notify_all();
    removal.join();

    EXPECT_EQ(usbmgr_evt_in_progress, 0);
    EXPECT_EQ(seams.clock.alarms().size(), alarms + 2);
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{1}));
}

TEST_F(DeferredReload, StorageEventsChooseBothServersForTheReload) {
    use_mount_table();
    usbmgr_reload_target = 1;
    arrive(make_record("sda,sda1"));
    EXPECT_EQ(usbmgr_reload_target, 3);
    usbmgr_reload_target = 2;
    leave(make_record("sda,sda1"));
    EXPECT_EQ(usbmgr_reload_target, 3);
}

TEST_F(DeferredReload, ArmingSetsTheTargetWhichTheAlarmKeepsUsing) {
    usbmgr_arm_reload(2, UsbmgrReloadCause::settings);
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_SERVICE_CHANGE);
    }
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{2}));
    // Never cleared: the next alarm reloads the same servers.
    EXPECT_EQ(usbmgr_reload_target, 2);
    usbmgr_arm_reload(1, UsbmgrReloadCause::settings);
    EXPECT_EQ(usbmgr_reload_target, 1);
}

TEST_F(DeferredReload, AlarmWithNothingPendingSendsNothing) {
    usbmgr_reload_target = 3;
    usbmgr_alarm_work();
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(DeferredReload, AlarmSignalWakesTheDeferredWorkerThatFlushes) {
    ASSERT_EQ(usbmgr_deferred_init(), 1);
    {
        usbmgr::DaemonLock lock;
        dp_util_evt_buf_write(USBMGR_TR140_LOGICAL_VOLUME_CHANGE);
    }
    usbmgr_alarm_handler(SIGALRM);
    Kinds sent;
    for (int i = 0; i < 2000 && sent.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        sent = fake::sent_kinds();
    }
    EXPECT_EQ(sent, (Kinds{9}));
    // The worker is done once the ring is empty under the lock.
    usbmgr::DaemonLock lock;
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(DeferredReload, TheAlarmReloadsSambaThenMiniDlnaAsTargetedAndOnlyThenPublishes) {
    testing_support::write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
    ASSERT_EQ(usbmgr_conf_load(), 1);
    usbmgr::copy_str(SAMBA_CONF.conf_dir, "/tmp/smb.conf");
    usbmgr::copy_str(SAMBA_CONF.username_map_dir, "/tmp/smbusers");
    usbmgr::copy_str(MINIDLNA_CONF.conf_dir, "/tmp/minidlna.conf");
    usbmgr::copy_str(MOUNT_DISK_PATH, "/tmp/disk");
    // The server starts, and the notifications after them.
    Lines steps;
    seams.runner.while_running = [&steps](const std::string& t) {
        if (t == "/bin/smbd" || t == "/bin/nmbd" || t.rfind("/sbin/minidlnad", 0) == 0) steps.push_back(t);
    };
    fake::bus().on_notify = [&steps](uint32_t id, const std::vector<uint8_t>&) {
        steps.push_back("notify " + std::to_string(id));
    };
    const std::pair<int32_t, Lines> cases[] = {
        {1, {"/sbin/minidlnad -f /tmp/minidlna.conf -R", "notify 0"}},
        {2, {"/bin/smbd", "/bin/nmbd", "notify 0"}},
        {3, {"/bin/smbd", "/bin/nmbd", "/sbin/minidlnad -f /tmp/minidlna.conf -R", "notify 0"}},
    };
    for (const auto& [target, expected] : cases) {
        steps.clear();
        {
            usbmgr::DaemonLock lock;
            dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
        }
        usbmgr_reload_target = target;
        usbmgr_alarm_work();
        EXPECT_EQ(steps, expected) << target;
    }
    EXPECT_TRUE(testing_support::file_exists("/tmp/smb.conf"));
    EXPECT_TRUE(testing_support::file_exists("/tmp/minidlna.conf"));
}
