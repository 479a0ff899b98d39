// liborbiil logging: the line format in ORBIIL_LOG_FILE and the level filter.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orbiil.h"

namespace {

class TempDir {
public:
    TempDir() {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && base[0] ? base : "/tmp") + "/orbiil-log-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

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
    std::string line_pattern(const std::string& level, const std::string& rest) const {
        return R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} usbmgr\[)" + std::to_string(getpid()) + R"(\] )" + level +
               " " + rest;
    }

    TempDir dir_;
    std::string file_;
};

TEST_F(OrbIilLog, TraceLineHasTimestampAppPidLevelModuleAndLineWithoutTrailingNewlines) {
    OrbIilSetLogLevel(ORBIIL_LOG_INFO);
    OrbIilTrace(ORBIIL_LOG_INFO, "db_util.c", 42, "hello %d\n\n", 7);
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(line_pattern("INFO", R"(db_util\.c:42 hello 7)"))))
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
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(line_pattern("QUITE", R"(usbmgrd\.c:1 quite)")))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(line_pattern("ERROR", R"(usbmgrd\.c:2 error)")))) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(line_pattern("WARNING", R"(usbmgrd\.c:3 warning)"))))
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
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) OrbIilTrace(ORBIIL_LOG_ERROR, "db_util.c", t, "thread %d line %d", t, i);
        });
    for (auto& th : threads) th.join();
    OrbIilResetLog();
    auto lines = read_lines(file_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::regex re(line_pattern("ERROR", R"(db_util\.c:(\d) thread \1 line \d+)"));
    for (const auto& l : lines) ASSERT_TRUE(std::regex_match(l, re)) << l;
}

TEST_F(OrbIilLog, TraceAfterResetLogDoesNotCrash) {
    OrbIilResetLog();
    OrbIilTrace(ORBIIL_LOG_ERROR, "usbmgrd.c", 9, "after reset");
    OrbIilResetLog();
    SUCCEED();
}

}  // namespace
