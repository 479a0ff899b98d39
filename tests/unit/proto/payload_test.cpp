// Names of the bus result codes as the log lines give them.
#include <gtest/gtest.h>

#include "proto/payload.h"

TEST(BusCodeNames, ErrorCode22AndAboveIsLoggedAsUnknown) {
    EXPECT_STREQ(usbmgr_iil_err_str(22), "Unknown");
    EXPECT_STREQ(usbmgr_iil_err_str(1000), "Unknown");
    EXPECT_STREQ(usbmgr_iil_err_str(-1), "Unknown");
    const char* names[] = {"OK",          "ERR",          "OVERSIZE",      "BAD_PARAM",  "NO_MEM",
                           "TX_FAIL",     "RX_FAIL",      "TIMEOUT",       "UNKNOWN_SRC_ID", "UNKNOWN_DST_ID",
                           "UNKNOWN_COMM", "MISMATCH_COMM", "UNSUPPORT",   "UNKNOWN_CMD", "BAD_CMD",
                           "BAD_RET",     "MISMATCH_CMD_LEN", "UNKNOWN_EVT", "BAD_EVT",  "MISMATCH_EVT_LEN",
                           "CONFLICT_ID", "BUSY"};
    for (int i = 0; i < 22; ++i) EXPECT_STREQ(usbmgr_iil_err_str(i), names[i]);
}
