// liborbsm: accounts read from ORBSM_USERS_FILE.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orbsm.h"
#include "temp_dir.h"

namespace {

class AccountFile : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        file_ = dir_.path() + "/orbsm.users";
        setenv("ORBSM_USERS_FILE", file_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("ORBSM_USERS_FILE");
    }
    void write(const std::string& text) { std::ofstream(file_) << text; }

    TempDir dir_{"orbsm-test"};
    std::string file_;
};

TEST_F(AccountFile, ParsesFlagNameAndPasswordLines) {
    write("1:admin:secret\n0:guest:pa:ss\n\nnot an account\n1:bob:\r\n");
    OrbSmUser users[8] = {};
    int count = 8;
    ASSERT_EQ(OrbSmGetAllUser(nullptr, &count, users), 0);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(users[0].flag, 1);
    EXPECT_STREQ(users[0].name, "admin");
    EXPECT_STREQ(users[0].password, "secret");
    EXPECT_EQ(users[1].flag, 0);
    EXPECT_STREQ(users[1].name, "guest");
    EXPECT_STREQ(users[1].password, "pa:ss");
    EXPECT_EQ(users[2].flag, 1);
    EXPECT_STREQ(users[2].name, "bob");
    EXPECT_STREQ(users[2].password, "");
}

TEST_F(AccountFile, FillsNoMoreThanTheCapacity) {
    write("1:a:1\n1:b:2\n1:c:3\n");
    OrbSmUser users[2] = {};
    int count = 2;
    ASSERT_EQ(OrbSmGetAllUser(nullptr, &count, users), 0);
    EXPECT_EQ(count, 2);
    EXPECT_STREQ(users[1].name, "b");
}

TEST_F(AccountFile, OverlongFieldsAreCut) {
    write("1:" + std::string(50, 'n') + ":" + std::string(200, 'p') + "\n");
    OrbSmUser users[1] = {};
    int count = 1;
    ASSERT_EQ(OrbSmGetAllUser(nullptr, &count, users), 0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(std::string(users[0].name), std::string(31, 'n'));
    EXPECT_EQ(std::string(users[0].password), std::string(83, 'p'));
}

TEST_F(AccountFile, MissingFileGivesNoAccountsAndFails) {
    OrbSmUser users[4] = {};
    int count = 4;
    EXPECT_NE(OrbSmGetAllUser(nullptr, &count, users), 0);
    EXPECT_EQ(count, 0);
}

}  // namespace
