// The daemon lock: it records its owner, and the work it guards checks
// that the calling thread holds it.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

namespace {

// Runs a thread that holds the daemon lock until the test lets it go.
class HolderThread {
public:
    explicit HolderThread(std::atomic<int32_t>* busy = nullptr) {
        thread_ = std::thread([this, busy] {
            if (busy != nullptr) {
                usbmgr::DaemonLock lock(*busy);
                hold();
            } else {
                usbmgr::DaemonLock lock;
                hold();
            }
        });
        std::unique_lock<std::mutex> l(m_);
        cv_.wait(l, [this] { return holding_; });
    }
    ~HolderThread() {
        release();
        thread_.join();
    }
    void release() {
        {
            std::lock_guard<std::mutex> l(m_);
            released_ = true;
        }
        cv_.notify_all();
    }
    std::thread::id id() const { return thread_.get_id(); }

private:
    void hold() {
        std::unique_lock<std::mutex> l(m_);
        holding_ = true;
        cv_.notify_all();
        cv_.wait(l, [this] { return released_; });
    }

    std::mutex m_;
    std::condition_variable cv_;
    bool holding_ = false;
    bool released_ = false;
    std::thread thread_;
};

// Polls cond until it holds or a generous deadline passes.
template <typename Cond>
bool eventually(Cond cond) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace

// The owner check is only compiled into checked builds.
#ifdef USBMGR_LOCK_CHECKS
#define SKIP_WITHOUT_LOCK_CHECKS() ((void)0)
#else
#define SKIP_WITHOUT_LOCK_CHECKS() GTEST_SKIP() << "built without USBMGR_LOCK_CHECKS"
#endif

TEST(DaemonLock, RecordsTheTakingThreadAsOwnerAndClearsItOnRelease) {
    EXPECT_EQ(usbmgr::daemon_lock_owner(), std::thread::id());
    EXPECT_FALSE(usbmgr::daemon_lock_held_here());
    {
        usbmgr::DaemonLock lock;
        EXPECT_EQ(usbmgr::daemon_lock_owner(), std::this_thread::get_id());
        EXPECT_TRUE(usbmgr::daemon_lock_held_here());
        EXPECT_EQ(pthread_mutex_trylock(&usbmgr_mutex), EBUSY);
    }
    EXPECT_EQ(usbmgr::daemon_lock_owner(), std::thread::id());
    EXPECT_FALSE(usbmgr::daemon_lock_held_here());
    ASSERT_EQ(pthread_mutex_trylock(&usbmgr_mutex), 0);
    pthread_mutex_unlock(&usbmgr_mutex);
}

TEST(DaemonLock, LockHeldByAnotherThreadIsNotHeldHere) {
    HolderThread holder;
    EXPECT_EQ(usbmgr::daemon_lock_owner(), holder.id());
    EXPECT_FALSE(usbmgr::daemon_lock_held_here());
}

TEST(DaemonLock, BusyFlagIsUpWhileHeldAndDownAfterwards) {
    std::atomic<int32_t> busy{0};
    {
        usbmgr::DaemonLock lock(busy);
        EXPECT_EQ(busy, 1);
        EXPECT_TRUE(usbmgr::daemon_lock_held_here());
    }
    EXPECT_EQ(busy, 0);
    EXPECT_EQ(usbmgr::daemon_lock_owner(), std::thread::id());
}

TEST(DaemonLock, BusyFlagIsRaisedBeforeTheLockIsTaken) {
    std::atomic<int32_t> busy{0};
    std::atomic<bool> got_lock{false};
    {
        HolderThread holder;
        std::thread waiter([&] {
            usbmgr::DaemonLock lock(busy);
            got_lock = true;
        });
        // The waiter is blocked on the lock, yet its flag is already up.
        EXPECT_TRUE(eventually([&] { return busy == 1; }));
        EXPECT_FALSE(got_lock);
        EXPECT_EQ(usbmgr::daemon_lock_owner(), holder.id());
        holder.release();
        waiter.join();
    }
    EXPECT_TRUE(got_lock);
    EXPECT_EQ(busy, 0);
}

TEST(DaemonLock, BusyFlagIsLoweredBeforeTheLockIsReleased) {
    std::atomic<int32_t> busy{0};
    int32_t seen_by_next_holder = -1;
    {
        HolderThread holder(&busy);
        EXPECT_EQ(busy, 1);
        std::thread next([&] {
            usbmgr::DaemonLock lock;
            seen_by_next_holder = busy;
        });
        holder.release();
        next.join();
    }
    EXPECT_EQ(seen_by_next_holder, 0);
}

TEST(DaemonLockCheck, PassesUnderTheLock) {
    testing_support::Seams seams;
    usbmgr::DaemonLock lock;
    USBMGR_ASSERT_LOCKED();
    usbmgr::daemon_lock_require("PassesUnderTheLock");
    EXPECT_EQ(db_util_delete_usb_volume_info_item("sdz1"), -1);
}

TEST(DaemonLockCheckDeathTest, TableMutatorCalledWithoutTheLockAborts) {
    SKIP_WITHOUT_LOCK_CHECKS();
    testing_support::Seams seams;
    EXPECT_DEATH(db_util_delete_usb_physical_info_item("sda"),
                 "usbmgr_mutex not held by the calling thread in db_util_delete_usb_physical_info_item");
    EXPECT_DEATH(db_util_delete_usb_volume_info_item("sda1"),
                 "usbmgr_mutex not held by the calling thread in db_util_delete_usb_volume_info_item");
}

TEST(DaemonLockCheckDeathTest, RingWriteAndModelRebuildWithoutTheLockAbort) {
    SKIP_WITHOUT_LOCK_CHECKS();
    testing_support::Seams seams;
    EXPECT_DEATH(dp_util_evt_buf_write(0), "usbmgr_mutex not held by the calling thread in dp_util_evt_buf_write");
    EXPECT_DEATH(usbmgr_tr140_db_build(), "usbmgr_mutex not held by the calling thread in usbmgr_tr140_db_build");
}

TEST(DaemonLockCheckDeathTest, LockHeldByAnotherThreadDoesNotSatisfyTheCheck) {
    SKIP_WITHOUT_LOCK_CHECKS();
    testing_support::Seams seams;
    EXPECT_DEATH(
        {
            HolderThread holder;
            db_util_delete_usb_physical_info_item("sda");
        },
        "usbmgr_mutex not held by the calling thread");
}

TEST(DaemonLockCheckDeathTest, TakingTheLockAgainOnTheHoldingThreadAbortsInsteadOfHanging) {
    SKIP_WITHOUT_LOCK_CHECKS();
    testing_support::Seams seams;
    EXPECT_DEATH(
        {
            usbmgr::DaemonLock outer;
            usbmgr::DaemonLock inner;
        },
        "usbmgr_mutex taken again by the thread that holds it");
}
