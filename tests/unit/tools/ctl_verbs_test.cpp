// usbmgrctl's typed verbs: one table for every command they name, requests
// built from the typed arguments, replies decoded as text and JSON, and the
// help lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tests/support/payload_bytes.h"
#include "tools/ctl_verbs.h"

using usbmgrctl::Verb;

using testing_support::bytes_of;
using testing_support::cmd_of;

namespace {

constexpr uint32_t kCmdFolder = 22;

const Verb& verb(const char* name) {
    const Verb* v = usbmgrctl::find_verb(name);
    EXPECT_NE(v, nullptr) << name;
    static const Verb none{};
    return v ? *v : none;
}

bool build(const char* name, const std::vector<std::string>& args, std::vector<unsigned char>& out,
           std::string& error) {
    return usbmgrctl::build_request(verb(name), args, out, error);
}

std::vector<unsigned char> request(const char* name, const std::vector<std::string>& args) {
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_TRUE(build(name, args, out, error)) << name << ": " << error;
    return out;
}

}  // namespace

TEST(CtlVerbs, OneVerbForEachCommandFromTwoToTwelveAndFourteenToThirtySixInCommandOrderWithUniqueNames) {
    std::vector<uint32_t> ids;
    std::set<std::string> names;
    for (const Verb& v : usbmgrctl::verbs()) {
        ids.push_back(v.id);
        EXPECT_TRUE(names.insert(v.name).second) << v.name;
        EXPECT_NE(usbmgr_command_find(v.id), nullptr) << v.name;
        EXPECT_EQ(usbmgrctl::find_verb(v.name), &v) << v.name;
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 14, 15, 16, 17, 18, 19, 20,
                                          21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36}));
    EXPECT_EQ(usbmgrctl::find_verb("user-access")->id, 23u);
    EXPECT_EQ(usbmgrctl::find_verb("tree"), nullptr);
}

TEST(CtlVerbs, UsageListsEveryVerbWithItsArguments) {
    const std::string usage = usbmgrctl::verbs_usage();
    for (const Verb& v : usbmgrctl::verbs()) {
        EXPECT_NE(usage.find(std::string("usbmgrctl ") + v.name + (*v.usage ? " " : "") + v.usage), std::string::npos)
            << v.name;
        EXPECT_NE(usage.find(std::string("usbmgrctl ") + v.name + " "), std::string::npos) << v.name;
    }
}

TEST(CtlVerbs, FolderVerbPutsServiceSlotAndFolderIntoTheirFieldsOfAZeroedRequest) {
    std::vector<unsigned char> req;
    std::string error;
    ASSERT_TRUE(usbmgrctl::build_request(*usbmgrctl::find_verb("folder"), {"0", "3", "1"}, req, error));
    ASSERT_EQ(req.size(), sizeof(CmdLogicalVolumeFolder));
    auto c = cmd_of<CmdLogicalVolumeFolder>(req);
    EXPECT_EQ(c.service, 0);
    EXPECT_EQ(c.slot, 3);
    EXPECT_EQ(c.folder, 1u);
    EXPECT_EQ(c.status, 0);
}

TEST(CtlVerbs, NegativeSlotsAndServicesCanBeSentToSeeTheirRefusal) {
    std::vector<unsigned char> req;
    std::string error;
    ASSERT_TRUE(usbmgrctl::build_request(*usbmgrctl::find_verb("disk"), {"-1", "25"}, req, error));
    auto c = cmd_of<CmdPhysicalMedium>(req);
    EXPECT_EQ(c.service, -1);
    EXPECT_EQ(c.slot, 25);
}

TEST(CtlVerbs, VerbWithTheWrongNumberOfArgumentsIsRefusedWithItsUsage) {
    std::vector<unsigned char> req;
    std::string error;
    EXPECT_FALSE(usbmgrctl::build_request(*usbmgrctl::find_verb("user-access"), {"0", "1"}, req, error));
    EXPECT_EQ(error, "user-access takes 3 arguments: SERVICE SLOT N");
    EXPECT_FALSE(usbmgrctl::build_request(*usbmgrctl::find_verb("services"), {"0"}, req, error));
    EXPECT_EQ(error, "services takes 0 arguments");
}

TEST(CtlVerbs, VerbArgumentThatIsNoNumberIsRefused) {
    std::vector<unsigned char> req;
    std::string error;
    EXPECT_FALSE(usbmgrctl::build_request(*usbmgrctl::find_verb("volume"), {"0", "x"}, req, error));
    EXPECT_EQ(error, "slot 'x': not a signed 32-bit number");
}

TEST(CtlVerbs, ReplyTextShowsTheReplyFieldsAndTheStatusWithItsMeaning) {
    CmdLogicalVolumeFolder c{};
    c.slot = 1;
    std::strcpy(c.Name, "/disk/sda1");
    c.Enable = 1;
    c.UserAccountAccess = 3;
    c.UserAccessNumberOfEntries = 2;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_verb_text(*usbmgrctl::find_verb("folder"), 0, p.data(), p.size()),
              "code: 0 OK\n"
              "  Name = \"/disk/sda1\"\n"
              "  Enable = 1\n"
              "  UserAccountAccess = 3\n"
              "  UserAccessNumberOfEntries = 2\n"
              "  status = 0 (success)\n");
    c.status = -4;
    p = bytes_of(c);
    EXPECT_NE(usbmgrctl::format_verb_text(*usbmgrctl::find_verb("folder"), 0, p.data(), p.size())
                  .find("  status = -4 (no such folder)\n"),
              std::string::npos);
}

TEST(CtlVerbs, EveryStatusWordOfTheReadsHasItsMeaning) {
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, -1), "service number out of range");
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, -2), "no disk in that slot");
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, -3), "no volume in that slot");
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, -5), "user name or password missing");
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, -6), "no user access with that number");
    EXPECT_STREQ(usbmgrctl::status_text(kCmdFolder, 7), "unknown status");
}

TEST(CtlVerbs, ReplyJsonHoldsTheReplyFieldsWithoutTheRequestFields) {
    CmdStorageUserAccess c{};
    c.service = 0;
    c.slot = 1;
    c.number = 4;
    c.tr140_index = 4;
    std::strcpy(c.UserReference, "Storage\"Service");
    c.Permissions = 3;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_verb_json(*usbmgrctl::find_verb("user-access"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"tr140_index\":4,"
              "\"UserReference\":\"Storage\\\"Service\",\"Permissions\":3,\"status\":0}}");
}

TEST(CtlVerbs, FailedBusCallShowsOnlyTheCode) {
    std::vector<unsigned char> none;
    const Verb& v = *usbmgrctl::find_verb("service");
    EXPECT_EQ(usbmgrctl::format_verb_text(v, 4, none.data(), 0).substr(0, 8), "code: 4 ");
    EXPECT_EQ(usbmgrctl::format_verb_text(v, 4, none.data(), 0).find("status"), std::string::npos);
}

TEST(CtlVerbs, StatusWordIsToldApartFromTheStatusTextOfTheSameReply) {
    CmdPhysicalMedium c{};
    std::strcpy(c.Status, "Online");
    c.status = -2;
    auto p = bytes_of(c);
    const std::string text = usbmgrctl::format_verb_text(*usbmgrctl::find_verb("disk"), 0, p.data(), p.size());
    EXPECT_NE(text.find("  Status = \"Online\"\n"), std::string::npos);
    EXPECT_NE(text.find("  status = -2 (no disk in that slot)\n"), std::string::npos);
}

TEST(CtlVerbs, SetRequestCarriesNameAndValueInTheirFields) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("minidlna-set", {"port", "8201"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSetConf));
    auto c = cmd_of<CmdSetConf>(p);
    EXPECT_STREQ(c.name, "port");
    EXPECT_STREQ(c.value, "8201");
    EXPECT_EQ(std::string(c.name + 5, sizeof c.name - 5), std::string(sizeof c.name - 5, '\0'));

    ASSERT_TRUE(build("samba-set", {"workgroup", "HOME NET"}, p, error)) << error;
    EXPECT_EQ(usbmgrctl::find_verb("samba-set")->id, 6u);
    c = cmd_of<CmdSetConf>(p);
    EXPECT_STREQ(c.name, "workgroup");
    EXPECT_STREQ(c.value, "HOME NET");
}

TEST(CtlVerbs, SetRequestRefusesAValueThatLeavesNoRoomForItsNul) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_TRUE(build("minidlna-set", {"serial", std::string(127, 'x')}, p, error)) << error;
    EXPECT_FALSE(build("minidlna-set", {"serial", std::string(128, 'x')}, p, error));
    EXPECT_NE(error.find("value"), std::string::npos) << error;
}

TEST(CtlVerbs, WrongNumberOfArgumentsIsAUsageErrorNamingTheArgumentsAndTheOptionalOnes) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_FALSE(build("minidlna-set", {"port"}, p, error));
    EXPECT_EQ(error, "minidlna-set takes 2 arguments: NAME VALUE");
    EXPECT_FALSE(build("user-add", {"alice"}, p, error));
    EXPECT_EQ(error, "user-add takes 2 to 3 arguments: NAME PASSWORD [ENABLE]");
    EXPECT_FALSE(build("samba", {"x"}, p, error));
    EXPECT_EQ(error, "samba takes 0 arguments");
}

TEST(CtlVerbs, SerialLoginSetFillsTheSwitchAndRefusesText) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("serial-login-set", {"1"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSetUsbSerialEnable));
    EXPECT_EQ(cmd_of<CmdSetUsbSerialEnable>(p).enable, 1);
    EXPECT_EQ(cmd_of<CmdSetUsbSerialEnable>(p).status, 0);
    EXPECT_FALSE(build("serial-login-set", {"on"}, p, error));
}

TEST(CtlVerbs, UserAddIsEnabledUnlessTheThirdArgumentSaysZero) {
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

TEST(CtlVerbs, UserModifyNeedsAllThreeArgumentsAndUserRemoveOnlyTheName) {
    std::vector<unsigned char> p;
    std::string error;
    EXPECT_FALSE(build("user-modify", {"alice", "pw"}, p, error));
    ASSERT_TRUE(build("user-modify", {"alice", "pw", "0"}, p, error)) << error;
    EXPECT_EQ(usbmgrctl::find_verb("user-modify")->id, 12u);
    ASSERT_TRUE(build("user-remove", {"alice"}, p, error)) << error;
    auto c = cmd_of<CmdSambaUser>(p);
    EXPECT_STREQ(c.name, "alice");
    EXPECT_STREQ(c.password, "");
    EXPECT_EQ(usbmgrctl::find_verb("user-remove")->id, 11u);
}

TEST(CtlVerbs, UserSlotTakesTheSlotNumber) {
    std::vector<unsigned char> p;
    std::string error;
    ASSERT_TRUE(build("user-slot", {"3"}, p, error)) << error;
    ASSERT_EQ(p.size(), sizeof(CmdSambaUserSlot));
    EXPECT_EQ(cmd_of<CmdSambaUserSlot>(p).index, 3);
    EXPECT_FALSE(build("user-slot", {"three"}, p, error));
}

TEST(CtlVerbs, MiniDlnaReplyShowsTheSettingsButNotTheUnfilledConfPath) {
    MiniDlnaConf c{};
    c.enable = 1;
    std::strcpy(c.conf_dir, "junk");
    std::strcpy(c.port, "8200");
    std::strcpy(c.friendly_name, "den");
    auto p = bytes_of(c);
    const std::string text = usbmgrctl::format_verb_text(verb("minidlna"), 0, p.data(), p.size());
    EXPECT_EQ(text.rfind("code: 0 OK\n  enable = 1\n", 0), 0u) << text;
    EXPECT_NE(text.find("  port = \"8200\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  friendly_name = \"den\"\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("conf_dir"), std::string::npos) << text;
    EXPECT_EQ(text.find("junk"), std::string::npos) << text;
}

TEST(CtlVerbs, SambaReplyLeavesOutTheConfPathAndTheUserMap) {
    SambaConf c{};
    std::strcpy(c.workgroup, "WORKGROUP");
    std::strcpy(c.username_map, "root");
    auto p = bytes_of(c);
    const std::string json = usbmgrctl::format_verb_json(verb("samba"), 0, p.data(), p.size());
    EXPECT_NE(json.find("\"workgroup\":\"WORKGROUP\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"usershare_allow_guests\":\"\""), std::string::npos) << json;
    EXPECT_EQ(json.find("username_map"), std::string::npos) << json;
    EXPECT_EQ(json.find("conf_dir"), std::string::npos) << json;
}

TEST(CtlVerbs, SetReplyShowsOnlyTheBusCode) {
    std::vector<unsigned char> p(sizeof(CmdSetConf), 0);
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("samba-set"), 0, p.data(), p.size()), "code: 0 OK\n");
    EXPECT_EQ(usbmgrctl::format_verb_json(verb("samba-set"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{}}");
}

TEST(CtlVerbs, SerialLoginSetShowsTheStatusWithItsMeaning) {
    auto p = bytes_of(CmdSetUsbSerialEnable{1, -7});
    const std::string text = usbmgrctl::format_verb_text(verb("serial-login-set"), 0, p.data(), p.size());
    EXPECT_EQ(text, "code: 0 OK\n  enable = 1\n  status = -7 (save reported -1 (also when user slot 24 is free))\n");
    p = bytes_of(CmdSetUsbSerialEnable{0, 0});
    EXPECT_EQ(usbmgrctl::format_verb_json(verb("serial-login-set"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"enable\":0,\"status\":0}}");
}

TEST(CtlVerbs, UserSlotReplyShowsTheUserAndTheResultButNotTheSlotAsked) {
    CmdSambaUserSlot c{};
    c.index = 3;
    c.enable = 1;
    std::strcpy(c.name, "carol");
    std::strcpy(c.password, "pw\"x");
    c.result = 0;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("user-slot"), 0, p.data(), p.size()),
              "code: 0 OK\n  enable = 1\n  name = \"carol\"\n  password = \"pw\\\"x\"\n  result = 0 (success)\n");
    EXPECT_EQ(usbmgrctl::format_verb_json(verb("user-slot"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"enable\":1,\"name\":\"carol\",\"password\":\"pw\\\"x\","
              "\"result\":0}}");
}

TEST(CtlVerbs, UserCommandsShowOnlyTheirResult) {
    CmdSambaUser c{};
    std::strcpy(c.name, "alice");
    c.result = -1;
    auto p = bytes_of(c);
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("user-remove"), 0, p.data(), p.size()),
              "code: 0 OK\n  result = -1 (no such user)\n");
    EXPECT_EQ(usbmgrctl::format_verb_json(verb("user-add"), 0, p.data(), p.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"result\":-1}}");
}

TEST(CtlVerbs, UserCountShowsTheNumber) {
    auto p = bytes_of(CmdNumber{2});
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("user-count"), 0, p.data(), p.size()), "code: 0 OK\n  number = 2\n");
}

TEST(CtlVerbs, BusFailureOfASettingsReadShowsTheCodeAndNoReply) {
    std::vector<unsigned char> p;
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("minidlna"), 9, p.data(), p.size()), "code: 9 UNKNOWN_DST_ID\n");
    EXPECT_EQ(usbmgrctl::format_verb_json(verb("minidlna"), 9, p.data(), p.size()),
              "{\"code\":9,\"code_name\":\"UNKNOWN_DST_ID\",\"reply\":{}}");
}

TEST(CtlVerbs, ShortReplyShowsOnlyTheFieldsItHolds) {
    std::vector<unsigned char> p(4, 0);
    EXPECT_EQ(usbmgrctl::format_verb_text(verb("minidlna"), 0, p.data(), p.size()), "code: 0 OK\n  enable = 0\n");
}

TEST(CtlVerbs, EveryVerbBuildsARequestOfItsDeclaredSizeFromTypicalArguments) {
    for (const Verb& v : usbmgrctl::verbs()) {
        std::vector<std::string> args(v.args.size(), "1");
        std::vector<unsigned char> out;
        std::string error;
        EXPECT_TRUE(usbmgrctl::build_request(v, args, out, error)) << v.name << ": " << error;
        EXPECT_EQ(out.size(), usbmgr_command_find(v.id)->size) << v.name;
    }
}

TEST(CtlVerbs, SambaServiceAndNetworkServerFillTheirWords) {
    auto s = cmd_of<CmdSetStorageService>(request("samba-service", {"0", "1"}));
    EXPECT_EQ(s.service, 0);
    EXPECT_EQ(s.Enable, 1u);
    auto n = cmd_of<CmdSetStorageNetworkServer>(request("network-server-set", {"0", "1", "2"}));
    EXPECT_EQ(n.SMBEnable, 1u);
    EXPECT_EQ(n.NetworkProtocolAuthReq, 2u);
}

TEST(CtlVerbs, AccountVerbsTakeNamePasswordAndEnable) {
    auto a = cmd_of<CmdSambaUser>(request("account-add", {"carol", "pass word", "1"}));
    EXPECT_STREQ(a.name, "carol");
    EXPECT_STREQ(a.password, "pass word");
    EXPECT_EQ(a.enable, 1);
    auto r = cmd_of<CmdSambaUser>(request("account-remove", {"carol"}));
    EXPECT_STREQ(r.name, "carol");
    EXPECT_EQ(r.enable, 0);
    auto m = cmd_of<CmdSambaUser>(request("account-modify", {"carol", "pw", "0"}));
    EXPECT_STREQ(m.password, "pw");
    EXPECT_EQ(m.enable, 0);
}

TEST(CtlVerbs, DiskVolumeAccessAndSafeRemoveVerbsFillServiceSlotAndTheirFields) {
    auto d = cmd_of<CmdSetPhysicalMedium>(request("disk-rename", {"0", "2", "Holiday"}));
    EXPECT_EQ(d.slot, 2);
    EXPECT_STREQ(d.Name, "Holiday");
    auto v = cmd_of<CmdSetLogicalVolume>(request("volume-set", {"0", "3", "1", "Music"}));
    EXPECT_EQ(v.slot, 3);
    EXPECT_EQ(v.Enable, 1u);
    EXPECT_STREQ(v.Name, "Music");
    auto g = cmd_of<CmdAddUserAccess>(request("access-grant", {"0", "1", "alice", "3"}));
    EXPECT_STREQ(g.UserName, "alice");
    EXPECT_EQ(g.Permissions, 3u);
    auto k = cmd_of<CmdRemoveUserAccess>(request("access-revoke", {"0", "1", "4"}));
    EXPECT_EQ(k.number, 4);
    auto s = cmd_of<CmdSafeRemove>(request("safe-remove", {"0", "-1"}));
    EXPECT_EQ(s.slot, -1);
    EXPECT_EQ(s.status, 0);
}

TEST(CtlVerbs, WrongArgumentCountsAndNamesTooLongForTheirFieldAreRefused) {
    const Verb* v = usbmgrctl::find_verb("disk-rename");
    ASSERT_NE(v, nullptr);
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_FALSE(usbmgrctl::build_request(*v, {"0", "1"}, out, error));
    EXPECT_NE(error.find("SERVICE SLOT NAME"), std::string::npos);
    EXPECT_FALSE(usbmgrctl::build_request(*v, {"0", "1", std::string(64, 'x')}, out, error));
    EXPECT_TRUE(usbmgrctl::build_request(*v, {"0", "1", std::string(63, 'x')}, out, error));
    EXPECT_FALSE(usbmgrctl::build_request(*v, {"zero", "1", "x"}, out, error));
}

TEST(CtlVerbs, TheReplyShowsTheStatusWordWithItsMeaningForThatCommand) {
    CmdSetPhysicalMedium d{};
    d.status = -2;
    auto bytes = bytes_of(d);
    const Verb* v = usbmgrctl::find_verb("disk-rename");
    EXPECT_EQ(usbmgrctl::format_verb_text(*v, 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  status = -2 (no disk in that slot, or service number out of range)\n");
    CmdAddUserAccess g{};
    g.status = -5;
    bytes = bytes_of(g);
    EXPECT_EQ(usbmgrctl::format_verb_json(*usbmgrctl::find_verb("access-grant"), 0, bytes.data(), bytes.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"status\":-5,\"meaning\":\"not added: unknown user, no "
              "free record, or the disk is not remembered\"}}");
}

TEST(CtlVerbs, AccountVerbsShowTheirResultAndCommandsWithoutAReplyWordSaySo) {
    CmdSambaUser u{};
    u.result = -1;
    auto bytes = bytes_of(u);
    EXPECT_EQ(usbmgrctl::format_verb_text(*usbmgrctl::find_verb("account-remove"), 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  result = -1 (refused: no such user)\n");
    CmdSetStorageService s{};
    bytes = bytes_of(s);
    EXPECT_EQ(usbmgrctl::format_verb_text(*usbmgrctl::find_verb("samba-service"), 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  (no reply word: the change shows in the model)\n");
    EXPECT_EQ(usbmgrctl::format_verb_json(*usbmgrctl::find_verb("samba-service"), 0, bytes.data(), bytes.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{}}");
}

TEST(CtlVerbs, ABusFailureOfAChangeShowsOnlyTheCode) {
    CmdSafeRemove s{};
    auto bytes = bytes_of(s);
    const std::string text =
        usbmgrctl::format_verb_text(*usbmgrctl::find_verb("safe-remove"), 3, bytes.data(), bytes.size());
    EXPECT_EQ(text.find("status"), std::string::npos);
    EXPECT_EQ(text.rfind("code: 3 ", 0), 0u);
}

// Payloads travel in the sender's byte order, as the bus library carries
// them: usbmgrctl writes and reads the words exactly as the daemon's structs
// lay them out. The expected bytes are spelled out for both orders, and the
// tests run on the build machine and, under emulation, on the gateway's
// big-endian processor.
namespace {

std::vector<unsigned char> word_bytes(uint32_t v) {
    std::vector<unsigned char> b{static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                                 static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    if constexpr (std::endian::native == std::endian::little) std::reverse(b.begin(), b.end());
    return b;
}

std::vector<unsigned char> bytes_at(const std::vector<unsigned char>& p, std::size_t offset) {
    return std::vector<unsigned char>(p.begin() + static_cast<std::ptrdiff_t>(offset),
                                      p.begin() + static_cast<std::ptrdiff_t>(offset + 4));
}

}  // namespace

TEST(CtlVerbs, RequestWordsTravelInTheHostByteOrder) {
    static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);
    auto req = request("folder", {"-2", "258", "16909060"});
    ASSERT_EQ(req.size(), sizeof(CmdLogicalVolumeFolder));
    EXPECT_EQ(bytes_at(req, offsetof(CmdLogicalVolumeFolder, service)), word_bytes(0xfffffffeu));
    EXPECT_EQ(bytes_at(req, offsetof(CmdLogicalVolumeFolder, slot)), word_bytes(0x00000102u));
    EXPECT_EQ(bytes_at(req, offsetof(CmdLogicalVolumeFolder, folder)), word_bytes(0x01020304u));
    if constexpr (std::endian::native == std::endian::big) {
        EXPECT_EQ(bytes_at(req, offsetof(CmdLogicalVolumeFolder, slot)),
                  (std::vector<unsigned char>{0x00, 0x00, 0x01, 0x02}));
    } else {
        EXPECT_EQ(bytes_at(req, offsetof(CmdLogicalVolumeFolder, slot)),
                  (std::vector<unsigned char>{0x02, 0x01, 0x00, 0x00}));
    }
    // The daemon's view of the same bytes.
    auto c = cmd_of<CmdLogicalVolumeFolder>(req);
    EXPECT_EQ(c.service, -2);
    EXPECT_EQ(c.slot, 258);
    EXPECT_EQ(c.folder, 16909060u);
}

TEST(CtlVerbs, ReplyWordsAreReadInTheHostByteOrder) {
    CmdLogicalVolumeFolder c{};
    auto p = bytes_of(c);
    auto put = [&p](std::size_t offset, uint32_t v) {
        auto b = word_bytes(v);
        std::copy(b.begin(), b.end(), p.begin() + static_cast<std::ptrdiff_t>(offset));
    };
    put(offsetof(CmdLogicalVolumeFolder, Enable), 1);
    put(offsetof(CmdLogicalVolumeFolder, UserAccountAccess), 0x00000100u);
    put(offsetof(CmdLogicalVolumeFolder, UserAccessNumberOfEntries), 0x01020304u);
    put(offsetof(CmdLogicalVolumeFolder, status), 0xfffffffcu);
    auto text = usbmgrctl::format_verb_text(verb("folder"), 0, p.data(), p.size());
    EXPECT_NE(text.find("  Enable = 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  UserAccountAccess = 256\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  UserAccessNumberOfEntries = 16909060\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  status = -4 (no such folder)\n"), std::string::npos) << text;
}
