// usbmgrctl's storage change verbs: names, requests built from their
// arguments, and the decoded reply word.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_model.h"
#include "tools/ctl_storage_write.h"

using usbmgrctl::WriteVerb;

namespace {

template <typename Cmd>
Cmd cmd_of(const std::vector<unsigned char>& p) {
    Cmd c{};
    std::memcpy(&c, p.data(), std::min(p.size(), sizeof c));
    return c;
}

template <typename Cmd>
std::vector<unsigned char> bytes_of(const Cmd& c) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&c);
    return std::vector<unsigned char>(p, p + sizeof c);
}

std::vector<unsigned char> request(const char* verb, const std::vector<std::string>& args) {
    const WriteVerb* v = usbmgrctl::find_write_verb(verb);
    EXPECT_NE(v, nullptr) << verb;
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_TRUE(v && usbmgrctl::build_write_request(*v, args, out, error)) << verb << ": " << error;
    return out;
}

}  // namespace

TEST(CtlStorageWrite, OneVerbForEachCommandFromTwentyFourToThirtySixInOrderWithUniqueNames) {
    std::vector<uint32_t> ids;
    std::set<std::string> names;
    for (const WriteVerb& v : usbmgrctl::write_verbs()) {
        ids.push_back(v.verb.id);
        names.insert(v.verb.name);
        EXPECT_EQ(usbmgrctl::find_read_verb(v.verb.name), nullptr) << v.verb.name;
        EXPECT_NE(usbmgr_command_find(v.verb.id), nullptr);
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36}));
    EXPECT_EQ(names.size(), ids.size());
}

TEST(CtlStorageWrite, EveryVerbBuildsARequestOfItsDeclaredSizeFromTypicalArguments) {
    for (const WriteVerb& v : usbmgrctl::write_verbs()) {
        std::vector<std::string> args(v.verb.args.size(), "1");
        std::vector<unsigned char> out;
        std::string error;
        EXPECT_TRUE(usbmgrctl::build_write_request(v, args, out, error)) << v.verb.name << ": " << error;
        EXPECT_EQ(out.size(), usbmgr_command_find(v.verb.id)->size) << v.verb.name;
    }
}

TEST(CtlStorageWrite, SambaServiceAndNetworkServerFillTheirWords) {
    auto s = cmd_of<CmdSetStorageService>(request("samba-service", {"0", "1"}));
    EXPECT_EQ(s.service, 0);
    EXPECT_EQ(s.Enable, 1u);
    auto n = cmd_of<CmdSetStorageNetworkServer>(request("network-server-set", {"0", "1", "2"}));
    EXPECT_EQ(n.SMBEnable, 1u);
    EXPECT_EQ(n.NetworkProtocolAuthReq, 2u);
}

TEST(CtlStorageWrite, AccountVerbsTakeNamePasswordAndEnable) {
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

TEST(CtlStorageWrite, DiskVolumeAccessAndSafeRemoveVerbsFillServiceSlotAndTheirFields) {
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

TEST(CtlStorageWrite, WrongArgumentCountsAndNamesTooLongForTheirFieldAreRefused) {
    const WriteVerb* v = usbmgrctl::find_write_verb("disk-rename");
    ASSERT_NE(v, nullptr);
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_FALSE(usbmgrctl::build_write_request(*v, {"0", "1"}, out, error));
    EXPECT_NE(error.find("SERVICE SLOT NAME"), std::string::npos);
    EXPECT_FALSE(usbmgrctl::build_write_request(*v, {"0", "1", std::string(64, 'x')}, out, error));
    EXPECT_TRUE(usbmgrctl::build_write_request(*v, {"0", "1", std::string(63, 'x')}, out, error));
    EXPECT_FALSE(usbmgrctl::build_write_request(*v, {"zero", "1", "x"}, out, error));
}

TEST(CtlStorageWrite, TheReplyShowsTheStatusWordWithItsMeaningForThatCommand) {
    CmdSetPhysicalMedium d{};
    d.status = -2;
    auto bytes = bytes_of(d);
    const WriteVerb* v = usbmgrctl::find_write_verb("disk-rename");
    EXPECT_EQ(usbmgrctl::format_write_text(*v, 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  status = -2 (no disk in that slot, or service number out of range)\n");
    CmdAddUserAccess g{};
    g.status = -5;
    bytes = bytes_of(g);
    EXPECT_EQ(usbmgrctl::format_write_json(*usbmgrctl::find_write_verb("access-grant"), 0, bytes.data(), bytes.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{\"status\":-5,\"meaning\":\"not added: unknown user, no "
              "free record, or the disk is not remembered\"}}");
}

TEST(CtlStorageWrite, AccountVerbsShowTheirResultAndCommandsWithoutAReplyWordSaySo) {
    CmdSambaUser u{};
    u.result = -1;
    auto bytes = bytes_of(u);
    EXPECT_EQ(usbmgrctl::format_write_text(*usbmgrctl::find_write_verb("account-remove"), 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  result = -1 (refused: no such user)\n");
    CmdSetStorageService s{};
    bytes = bytes_of(s);
    EXPECT_EQ(usbmgrctl::format_write_text(*usbmgrctl::find_write_verb("samba-service"), 0, bytes.data(), bytes.size()),
              "code: 0 OK\n  (no reply word: the change shows in the model)\n");
    EXPECT_EQ(usbmgrctl::format_write_json(*usbmgrctl::find_write_verb("samba-service"), 0, bytes.data(), bytes.size()),
              "{\"code\":0,\"code_name\":\"OK\",\"reply\":{}}");
}

TEST(CtlStorageWrite, ABusFailureShowsOnlyTheCode) {
    CmdSafeRemove s{};
    auto bytes = bytes_of(s);
    const std::string text =
        usbmgrctl::format_write_text(*usbmgrctl::find_write_verb("safe-remove"), 3, bytes.data(), bytes.size());
    EXPECT_EQ(text.find("status"), std::string::npos);
    EXPECT_EQ(text.rfind("code: 3 ", 0), 0u);
}

TEST(CtlStorageWrite, TheHelpListsEveryWriteVerb) {
    const std::string usage = usbmgrctl::write_verbs_usage();
    for (const WriteVerb& v : usbmgrctl::write_verbs())
        EXPECT_NE(usage.find(std::string("usbmgrctl ") + v.verb.name + " "), std::string::npos) << v.verb.name;
}
