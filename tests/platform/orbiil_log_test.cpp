// liborbiil logging: the line format in ORBIIL_LOG_FILE and the level filter.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <cctype>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orbiil.h"
#include "temp_dir.h"

namespace {

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

class OrbIilLog : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        file_ = dir_.path() + "/trace.log";
        setenv("ORBIIL_LOG_FILE", file_.c_str(), 1);
        ASSERT_EQ(OrbIilInitLog("usbmgr"), 1);
    }
    void TearDown() override {
        OrbIilResetLog();
        unsetenv("ORBIIL_LOG_FILE");
        OrbIilSetLogLevel(ORBIIL_LOG_ERROR);
    }
    // "YYYY-MM-DD HH:MM:SS.mmm usbmgr[PID] LEVEL " followed by rest.
    static bool has_stamp(const std::string& line) {
        static const char kShape[] = "dddd-dd-dd dd:dd:dd.ddd ";
        if (line.size() < sizeof kShape - 1) return false;
        for (size_t i = 0; i + 1 < sizeof kShape; ++i) {
            bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
            if (kShape[i] == 'd' ? !digit : line[i] != kShape[i]) return false;
        }
        return true;
    }
    static std::string after_stamp(const std::string& line) { return line.substr(24); }
    static std::string head(const std::string& level) {
        return "usbmgr[" + std::to_string(getpid()) + "] " + level + " ";
    }
    static bool matches(const std::string& line, const std::string& level, const std::string& rest) {
        return has_stamp(line) && after_stamp(line) == head(level) + rest;
    }

    TempDir dir_{"orbiil-log"};
    std::string file_;
};

TEST_F(OrbIilLog, TraceLineHasTimestampAppPidLevelModuleAndLineWithoutTrailingNewlines) {
    OrbIilSetLogLevel(ORBIIL_LOG_INFO);
    OrbIilTrace(ORBIIL_LOG_INFO, "db_util.c", 42, "hello %d\n\n", 7);
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(matches(lines[0], "INFO", "db_util.c:42 hello 7"))
        << lines[0];
}

TEST_F(OrbIilLog, LevelsAboveTheSetLevelAreDropped) {
    OrbIilSetLogLevel(ORBIIL_LOG_WARNING);
    OrbIilTrace(ORBIIL_LOG_QUITE, "usbmgrd.c", 1, "quite");
    OrbIilTrace(ORBIIL_LOG_ERROR, "usbmgrd.c", 2, "error");
    OrbIilTrace(ORBIIL_LOG_WARNING, "usbmgrd.c", 3, "warning");
    OrbIilTrace(ORBIIL_LOG_INFO, "usbmgrd.c", 4, "info");
    OrbIilTrace(ORBIIL_LOG_DEBUG, "usbmgrd.c", 5, "debug");
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(matches(lines[0], "QUITE", "usbmgrd.c:1 quite")) << lines[0];
    EXPECT_TRUE(matches(lines[1], "ERROR", "usbmgrd.c:2 error")) << lines[1];
    EXPECT_TRUE(matches(lines[2], "WARNING", "usbmgrd.c:3 warning"))
        << lines[2];
}

TEST_F(OrbIilLog, DefaultLevelWritesErrorsOnly) {
    OrbIilTrace(ORBIIL_LOG_ERROR, "app_util.c", 10, "kept");
    OrbIilTrace(ORBIIL_LOG_WARNING, "app_util.c", 11, "dropped");
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("ERROR app_util.c:10 kept"), std::string::npos) << lines[0];
}

TEST_F(OrbIilLog, OverlongMessageIsCutToOneLine) {
    std::string big(10000, 'x');
    OrbIilTrace(ORBIIL_LOG_ERROR, "disk_util.c", 7, "%s", big.c_str());
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_LT(lines[0].size(), 4500u);
    EXPECT_NE(lines[0].find("disk_util.c:7 xxxx"), std::string::npos);
}

TEST_F(OrbIilLog, LinesOfConcurrentThreadsNeverMix) {
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) OrbIilTrace(ORBIIL_LOG_ERROR, "db_util.c", t, "thread %d line %d", t, i);
        });
    for (auto& th : threads) th.join();
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& l : lines) {
        ASSERT_TRUE(has_stamp(l)) << l;
        std::string rest = after_stamp(l);
        ASSERT_EQ(rest.rfind(head("ERROR"), 0), 0u) << l;
        int src_line = -1, thread = -2, number = -1;
        char tail = 0;
        ASSERT_EQ(std::sscanf(rest.c_str() + head("ERROR").size(), "db_util.c:%d thread %d line %d%c", &src_line, &thread,
                              &number, &tail),
                  3)
            << l;
        EXPECT_EQ(src_line, thread) << l;
    }
}

TEST_F(OrbIilLog, TraceAfterResetLogDoesNotCrash) {
    OrbIilResetLog();
    OrbIilTrace(ORBIIL_LOG_ERROR, "usbmgrd.c", 9, "after reset");
    OrbIilResetLog();
    SUCCEED();
}

}  // namespace
