// usbmgrctl's settings and Samba user verbs: requests built from the typed
// arguments, and replies decoded as text and JSON.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_model.h"
#include "tools/ctl_sharing.h"

using usbmgrctl::SharingVerb;

namespace {

template <typename Cmd>
std::vector<unsigned char> bytes_of(const Cmd& c) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&c);
    return std::vector<unsigned char>(p, p + sizeof c);
}

template <typename Cmd>
Cmd cmd_of(const std::vector<unsigned char>& p) {
    Cmd c{};
    std::memcpy(&c, p.data(), std::min(p.size(), sizeof c));
    return c;
}

const SharingVerb& verb(const char* name) {
    const SharingVerb* v = usbmgrctl::find_sharing_verb(name);
    EXPECT_NE(v, nullptr) << name;
    static const SharingVerb none{};
    return v ? *v : none;
}

bool build(const char* name, const std::vector<std::string>& args, std::vector<unsigned char>& out,
           std::string& error) {
    return usbmgrctl::build_sharing_request(verb(name), args, out, error);
}

}  // namespace

TEST(SharingVerbs, EveryCommandFromTwoToTwelveHasOneVerb) {
    std::set<uint32_t> ids;
    std::set<std::string> names;
    for (const SharingVerb& v : usbmgrctl::sharing_verbs()) {
        EXPECT_TRUE(ids.insert(v.id).second) << v.name;
        EXPECT_TRUE(names.insert(v.name).second) << v.name;
        EXPECT_NE(usbmgr_command_find(v.id), nullptr) << v.name;
        // No clash with the storage read verbs.
        EXPECT_EQ(usbmgrctl::find_read_verb(v.name), nullptr) << v.name;
    }
    EXPECT_EQ(ids, (std::set<uint32_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

TEST(SharingVerbs, UsageListsEveryVerbWithItsArguments) {
    const std::string usage = usbmgrctl::sharing_usage();
    for (const SharingVerb& v : usbmgrctl::sharing_verbs())
        EXPECT_NE(usage.find(std::string("usbmgrctl ") + v.name + (*v.usage ? " " : "") + v.usage), std::string::npos)
            << v.name;
}

TEST(SharingVerbs, SetRequestCarriesNameAndValueInTheirFields) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("minidlna-set", {"port", "8201"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSetConf));
    auto c = cmd_of<CmdSetConf>(p);
    EXPECT_STREQ(c.name, "port");
    EXPECT_STREQ(c.value, "8201");
    EXPECT_EQ(std::string(c.name + 5, sizeof c.name - 5), std::string(sizeof c.name - 5, '\0'));

    ASSERT_TRUE(build("samba-set", {"workgroup", "HOME NET"}, p, error)) << error;
    EXPECT_EQ(usbmgrctl::find_sharing_verb("samba-set")->id, 6u);
    c = cmd_of<CmdSetConf>(p);
    EXPECT_STREQ(c.name, "workgroup");
    EXPECT_STREQ(c.value, "HOME NET");
}

TEST(SharingVerbs, SetRequestRefusesAValueThatLeavesNoRoomForItsNul) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_TRUE(build("minidlna-set", {"serial", std::string(127, 'x')}, p, error)) << error;
    EXPECT_FALSE(build("minidlna-set", {"serial", std::string(128, 'x')}, p, error));
    EXPECT_NE(error.find("value"), std::string::npos) << error;
}

TEST(SharingVerbs, WrongNumberOfArgumentsIsAUsageErrorNamingTheArguments) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_FALSE(build("minidlna-set", {"port"}, p, error));
    EXPECT_EQ(error, "minidlna-set takes 2 arguments: NAME VALUE");
    EXPECT_FALSE(build("user-add", {"alice"}, p, error));
    EXPECT_EQ(error, "user-add takes 2 to 3 arguments: NAME PASSWORD [ENABLE]");
    EXPECT_FALSE(build("samba", {"x"}, p, error));
    EXPECT_EQ(error, "samba takes 0 arguments");
}

TEST(SharingVerbs, SerialLoginSetFillsTheSwitchAndRefusesText) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("serial-login-set", {"1"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSetUsbSerialEnable));
    EXPECT_EQ(cmd_of<CmdSetUsbSerialEnable>(p).enable, 1);
    EXPECT_EQ(cmd_of<CmdSetUsbSerialEnable>(p).status, 0);
    EXPECT_FALSE(build("serial-login-set", {"on"}, p, error));
}

TEST(SharingVerbs, UserAddIsEnabledUnlessTheThirdArgumentSaysZero) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("user-add", {"alice", "secret"}, p, error)) << error;
    auto c = cmd_of<CmdSambaUser>(p);
    EXPECT_EQ(c.enable, 1);
    EXPECT_STREQ(c.name, "alice");
    EXPECT_STREQ(c.password, "secret");
    EXPECT_EQ(c.result, 0);
    ASSERT_TRUE(build("user-add", {"bob", "pw", "0"}, p, error)) << error;
    EXPECT_EQ(cmd_of<CmdSambaUser>(p).enable, 0);
}

TEST(SharingVerbs, UserModifyNeedsAllThreeArgumentsAndUserRemoveOnlyTheName) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_FALSE(build("user-modify", {"alice", "pw"}, p, error));
    ASSERT_TRUE(build("user-modify", {"alice", "pw", "0"}, p, error)) << error;
    EXPECT_EQ(usbmgrctl::find_sharing_verb("user-modify")->id, 12u);
    ASSERT_TRUE(build("user-remove", {"alice"}, p, error)) << error;
    auto c = cmd_of<CmdSambaUser>(p);
    EXPECT_STREQ(c.name, "alice");
    EXPECT_STREQ(c.password, "");
    EXPECT_EQ(usbmgrctl::find_sharing_verb("user-remove")->id, 11u);
}

TEST(SharingVerbs, UserSlotTakesTheSlotNumber) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("user-slot", {"3"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSambaUserSlot));
    EXPECT_EQ(cmd_of<CmdSambaUserSlot>(p).index, 3);
    EXPECT_FALSE(build("user-slot", {"three"}, p, error));
}

TEST(SharingVerbs, MiniDlnaReplyShowsTheSettingsButNotTheUnfilledConfPath) {
    MiniDlnaConf c{};
    c.enable = 1;
    std::strcpy(c.conf_dir, "junk");
    std::strcpy(c.port, "8200");
    std::strcpy(c.friendly_name, "den");
    auto p = bytes_of(c);
    const std::string text = usbmgrctl::format_sharing_text(verb("minidlna"), 0, p.data(), p.size());
    EXPECT_EQ(text.rfind("code: 0 OK\n  enable = 1\n", 0), 0u) << text;
    EXPECT_NE(text.find("  port = \"8200\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  friendly_name = \"den\"\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("conf_dir"), std::string::npos) << text;
    EXPECT_EQ(text.find("junk"), std::string::npos) << text;
}

TEST(SharingVerbs, SambaReplyLeavesOutTheConfPathAndTheUserMap) {
    SambaConf c{};
    std::strcpy(c.workgroup, "WORKGROUP");
    std::strcpy(c.username_map, "root");
    auto p = bytes_of(c);
    const std::string json = usbmgrctl::format_sharing_json(verb("samba"), 0, p.data(), p.size());
    EXPECT_NE(json.find("\"workgroup\":\"WORKGROUP\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"usershare_allow_guests\":\"\""), std::string::npos) << json;
    EXPECT_EQ(json.find("username_map"), std::string::npos) << json;
    EXPECT_EQ(json.find("conf_dir"), std::string::npos) << json;
}

TEST(SharingVerbs, SetReplyShowsOnlyTheBusCode) {
    std::vector<unsigned char> p(sizeof(CmdSetConf), 0);
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("samba-set"), 0, p.data(), p.size()), "code: 0 OK\n");
    EXPECT_EQ(usbmgrctl::format_sharing_json(verb("samba-set"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{}}");
}

TEST(SharingVerbs, SerialLoginSetShowsTheStatusWithItsMeaning) {
    auto p = bytes_of(CmdSetUsbSerialEnable{1, -7});
    const std::string text = usbmgrctl::format_sharing_text(verb("serial-login-set"), 0, p.data(), p.size());
    EXPECT_EQ(text, "code: 0 OK\n  enable = 1\n  status = -7 (save reported -1 (also when user slot 24 is free))\n");
    p = bytes_of(CmdSetUsbSerialEnable{0, 0});
    EXPECT_EQ(usbmgrctl::format_sharing_json(verb("serial-login-set"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"enable\":0,\"status\":0}}");
}

TEST(SharingVerbs, UserSlotReplyShowsTheUserAndTheResultButNotTheSlotAsked) {
    CmdSambaUserSlot c{};
    c.index = 3;
    c.enable = 1;
    std::strcpy(c.name, "carol");
    std::strcpy(c.password, "pw\"x");
    c.result = 0;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("user-slot"), 0, p.data(), p.size()),
              "code: 0 OK\n  enable = 1\n  name = \"carol\"\n  password = \"pw\\\"x\"\n  result = 0 (success)\n");
    EXPECT_EQ(usbmgrctl::format_sharing_json(verb("user-slot"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"enable\":1,\"name\":\"carol\",\"password\":\"pw\\\"x\","
              "\"result\":0}}");
}

TEST(SharingVerbs, UserCommandsShowOnlyTheirResult) {
    CmdSambaUser c{};
    std::strcpy(c.name, "alice");
    c.result = -1;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("user-remove"), 0, p.data(), p.size()),
              "code: 0 OK\n  result = -1 (no such user)\n");
    EXPECT_EQ(usbmgrctl::format_sharing_json(verb("user-add"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"result\":-1}}");
}

TEST(SharingVerbs, UserCountShowsTheNumber) {
    auto p = bytes_of(CmdNumber{2});
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("user-count"), 0, p.data(), p.size()), "code: 0 OK\n  number = 2\n");
}

TEST(SharingVerbs, BusFailureShowsTheCodeAndNoReply) {
    std::vector<unsigned char> p;
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("minidlna"), 9, p.data(), p.size()), "code: 9 UNKNOWN_DST_ID\n");
    EXPECT_EQ(usbmgrctl::format_sharing_json(verb("minidlna"), 9, p.data(), p.size()),
              "{\"code\":9,\"code_name\":\"UNKNOWN_DST_ID\",\"reply\":{}}");
}

TEST(SharingVerbs, ShortReplyShowsOnlyTheFieldsItHolds) {
    std::vector<unsigned char> p(4, 0);
    EXPECT_EQ(usbmgrctl::format_sharing_text(verb("minidlna"), 0, p.data(), p.size()), "code: 0 OK\n  enable = 0\n");
}
