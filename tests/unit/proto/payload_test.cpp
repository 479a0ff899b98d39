// Names of the bus result codes as the log lines give them; the payloads' wire layout.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

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

namespace {

// Every payload struct's size and every member's kind, width and offset, as
// one text: "MiniDlnaConf 868;enable INT 4 0;...".
std::string payload_layout_text() {
    std::string text;
#define USBMGR_PAYLOAD(S, size) text += std::string(#S " ") + std::to_string(sizeof(S)) + ";";
#define USBMGR_FIELD(S, kind, name, width, offset)                                                          \
    text += std::string(#name " " #kind " ") + std::to_string(sizeof(S::name)) + " " +                     \
            std::to_string(offsetof(S, name)) + ";";
#define USBMGR_PAYLOAD_END(S)
#include "proto/payloads.def"
    return text;
}

uint64_t fnv1a(const std::string& text) {
    uint64_t h = 14695981039346656037ULL;
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ULL;
    }
    return h;
}

}  // namespace

// The gateway's tools send these bytes: a change of any offset, width, kind,
// name or size is a change of the wire and must be made on purpose, with
// this digest.
TEST(PayloadList, TheWireLayoutOfEveryPayloadIsTheGatewaysOne) {
    std::string text = payload_layout_text();
    EXPECT_EQ(text.substr(0, 30), "MiniDlnaConf 868;enable INT 4 ");
    EXPECT_NE(text.find("CmdSafeRemove 12;service INT 4 0;slot INT 4 4;status INT 4 8;"), std::string::npos);
    EXPECT_EQ(fnv1a(text), 14125669532811964151ULL) << text;
}
