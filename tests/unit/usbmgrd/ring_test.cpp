// The ring of pending change kinds and its flush to the bus.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/lock.h"
#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

// The ring is written under the daemon lock, as the daemon does.
class EventRing : public testing_support::DaemonTest {
protected:
    usbmgr::DaemonLock lock_;
};

}  // namespace


TEST_F(EventRing, KindsAreReadBackOldestFirst) {
    EXPECT_EQ(dp_util_evt_buf_write(2), 0);
    EXPECT_EQ(dp_util_evt_buf_write(5), 0);
    EXPECT_EQ(dp_util_evt_buf_write(9), 0);
    int32_t kind = -7;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 2);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 5);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), 0);
    EXPECT_EQ(kind, 9);
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, ReadingAnEmptyRingGivesMinusOneAndLeavesTheKindAlone) {
    int32_t kind = 42;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
    EXPECT_EQ(kind, 42);
}

TEST_F(EventRing, InitEmptiesTheRingAndReturnsMinusOne) {
    dp_util_evt_buf_write(3);
    EXPECT_EQ(dp_util_evt_buf_init(), -1);
    EXPECT_EQ(usbmgr_evt_buffer.write_index, 0);
    EXPECT_EQ(usbmgr_evt_buffer.read_index, 0);
    EXPECT_EQ(usbmgr_evt_buffer.kinds[0], 0);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, TenKindsWrittenWithoutAFlushLeaveTheRingEmptyAndNothingIsSent) {
    for (int32_t k = 0; k < 10; ++k) dp_util_evt_buf_write(k);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
    usbmgr_flush_notify();
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(EventRing, WritingGoesOnAfterAnOverflow) {
    for (int32_t k = 0; k < 10; ++k) dp_util_evt_buf_write(k);
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{5}));
}

TEST_F(EventRing, NinePendingKindsAreAllKept) {
    for (int32_t k = 0; k < 9; ++k) dp_util_evt_buf_write(k);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(EventRing, EachWriteLogsEveryPendingKindWithWriteIndexAndSlotUnderDbUtil) {
    dp_util_evt_buf_write(USBMGR_TR140_SERVICE_CHANGE);
    dp_util_evt_buf_write(USBMGR_TR140_NETWORK_SERVICE_CHANGE);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "1-0 : EVT BUFFER - USBMGR_TR140_SERVICE_CHANGE",
                                     "2-0 : EVT BUFFER - USBMGR_TR140_SERVICE_CHANGE",
                                     "2-1 : EVT BUFFER - USBMGR_TR140_NETWORK_SERVICE_CHANGE",
                                 }));
    for (const auto& line : fake::bus().log) {
        EXPECT_EQ(line.module, "db_util.c");
        EXPECT_EQ(line.level, 4);
    }
}

TEST_F(EventRing, LoggedSlotsWrapAroundAtTen) {
    for (int32_t k = 0; k < 8; ++k) dp_util_evt_buf_write(USBMGR_TR140_ADD_STORAGE);
    int32_t kind;
    while (dp_util_evt_buf_read(&kind) == 0) {
    }
    fake::reset();
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER_ACCESS);
    dp_util_evt_buf_write(USBMGR_TR140_REMOVE_USER_ACCESS);
    dp_util_evt_buf_write(USBMGR_TR140_MODIFY_USER_ACCES);
    EXPECT_EQ(fake::log_texts(), (Lines{
                                     "9-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "0-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "0-9 : EVT BUFFER - USBMGR_TR140_REMOVE_USER_ACCESS",
                                     "1-8 : EVT BUFFER - USBMGR_TR140_ADD_USER_ACCESS",
                                     "1-9 : EVT BUFFER - USBMGR_TR140_REMOVE_USER_ACCESS",
                                     "1-0 : EVT BUFFER - USBMGR_TR140_MODIFY_USER_ACCES",
                                 }));
}

TEST_F(EventRing, FlushSendsEveryPendingKindAsEventZeroOldestFirst) {
    dp_util_evt_buf_write(USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE);
    dp_util_evt_buf_write(USBMGR_TR140_STORAGE_SAFE_REMOVE);
    usbmgr_flush_notify();
    EXPECT_EQ(fake::sent_kinds(), (Kinds{8, 14}));
    ASSERT_EQ(fake::bus().notifications.size(), 2u);
    EXPECT_EQ(fake::bus().notifications[0].id, USBMGR_EVT_SERVICE_STATE_CHANGE);
    int32_t kind;
    EXPECT_EQ(dp_util_evt_buf_read(&kind), -1);
}

TEST_F(EventRing, FailedSendIsLoggedAndTheKindIsGone) {
    fake::bus().notify_code = ORBIIL_TX_FAIL;
    dp_util_evt_buf_write(USBMGR_TR140_ADD_USER);
    fake::reset();
    fake::bus().notify_code = ORBIIL_TX_FAIL;
    usbmgr_flush_notify();
    EXPECT_EQ(fake::log_texts(), (Lines{"fail to OrbIilExecute(), err = TX_FAIL"}));
    fake::bus().notify_code = 0;
    usbmgr_flush_notify();
    EXPECT_TRUE(fake::sent_kinds().empty());
}
