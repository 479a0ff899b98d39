// Bounded text helpers: the error text the daemon logs after a failed call.
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "db_util/str.h"

namespace {

TEST(ErrnoText, IsStrerrorsTextForAKnownError) {
    EXPECT_STREQ(usbmgr::ErrnoText(ENOENT).c_str(), std::strerror(ENOENT));
    EXPECT_STREQ(usbmgr::ErrnoText(ESRCH).c_str(), std::strerror(ESRCH));
}

TEST(ErrnoText, NamesAnUnknownErrorByItsNumber) {
    EXPECT_STREQ(usbmgr::ErrnoText(12345).c_str(), "Unknown error 12345");
    EXPECT_STREQ(usbmgr::ErrnoText(INT_MIN).c_str(), "Unknown error -2147483648");
}

// The texts stay each thread's own while another thread asks for others.
TEST(ErrnoText, OfTwoThreadsAtOnceKeepsEachThreadsOwnText) {
    const std::string enoent = std::strerror(ENOENT);
    std::string other;
    std::thread t([&other] {
        for (int i = 0; i < 1000; ++i) {
            usbmgr::ErrnoText text(20000 + i);
            if (std::string(text.c_str()) != "Unknown error " + std::to_string(20000 + i)) other = text.c_str();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        usbmgr::ErrnoText text(ENOENT);
        ASSERT_EQ(enoent, text.c_str());
    }
    t.join();
    EXPECT_EQ(other, "");
}

}  // namespace
