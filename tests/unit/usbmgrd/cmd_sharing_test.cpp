// Bus commands 2 to 12: the settings read and set over the bus, the serial
// login switch and the Samba users, seen through the records, the settings
// file, the fake runner (server starts and stops, pdbedit), the fake clock
// (the deferred reload), the ring and the lock.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "db_util/lock.h"
#include "db_util/str.h"
#include "fixture.h"
#include "payload_bytes.h"
#include "platform_fake.h"
#include "test_support.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::file_exists;
using testing_support::kDeferral;
using testing_support::pending_kinds;
using testing_support::read_file;
using testing_support::read_lines;
using testing_support::write_file;
using Lines = std::vector<std::string>;

namespace {

const char kMiniCheck[] = "ps | grep minidlnad | grep -v grep 2>&1";
const char kMiniServer[] = "/sbin/minidlnad -f /var/minidlna.conf -R";
const char kSmbdCheck[] = "ps | grep smbd | grep -v grep 2>&1";
const char kNmbdCheck[] = "ps | grep nmbd | grep -v grep 2>&1";
const char kCfgSave[] = "orbcm_util cfg save";

class SharingCommands : public testing_support::DaemonTest {
protected:
    SharingCommands() {
        write_file(USBMGR_CONF_PATH, testing_support::factory_settings());
        EXPECT_EQ(usbmgr_conf_load(), 1);
        // The Samba file stays inside the test's private /var.
        usbmgr::copy_str(SAMBA_CONF.conf_dir, "/var/smb.conf");
        mkdir("/tmp/disk", 0755);
        mkdir("/var/samba", 0775);
        seams.runner.respond = [this](const std::string& t) {
            if (t == kMiniCheck && minidlna_running) return std::string("  77 root  minidlnad -f x\n");
            if (t == kSmbdCheck && samba_running) return std::string("  78 root  smbd\n");
            if (t == kNmbdCheck && samba_running) return std::string("  79 root  nmbd\n");
            return std::string();
        };
        // A kill ends the server, as the real one would.
        seams.runner.while_running = [this](const std::string& t) {
            held.push_back(usbmgr::daemon_lock_held_here());
            if (t.rfind("killall", 0) == 0 && t.find("minidlnad") != std::string::npos) minidlna_running = false;
            if (t.rfind("killall", 0) == 0 && t.find("smbd") != std::string::npos) samba_running = false;
        };
        fake::reset();
        seams.runner.clear();
    }

    static CmdSetConf set_request(const char* name, const char* value) {
        CmdSetConf c{};
        usbmgr::copy_str(c.name, name);
        usbmgr::copy_str(c.value, value);
        return c;
    }

    static CmdSambaUser user_request(const char* name, const char* password, int32_t enable) {
        CmdSambaUser c{};
        c.enable = enable;
        usbmgr::copy_str(c.name, name);
        usbmgr::copy_str(c.password, password);
        c.result = 0x5a5a5a5a;
        return c;
    }

    // Runs the bus entry point of command id on buf as the bus library does.
    static int call(uint32_t id, std::vector<uint8_t>& buf) {
        for (const auto& e : usbmgr_cmd_table)
            if (e.id == id) return e.handler(nullptr, id, static_cast<uint32_t>(buf.size()), buf.data());
        ADD_FAILURE() << "no command " << id;
        return -1;
    }

    // Lines of the settings file whose key is key.
    static Lines lines_of(const std::string& key) {
        Lines out;
        for (const auto& l : read_lines(USBMGR_CONF_PATH))
            if (l.rfind(key + "=", 0) == 0) out.push_back(l);
        return out;
    }

    // Every line of the settings file is key=value.
    static void expect_settings_parseable() {
        const std::string text = read_file(USBMGR_CONF_PATH);
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(text.back(), '\n');
        for (const auto& l : read_lines(USBMGR_CONF_PATH)) {
            const auto eq = l.find('=');
            EXPECT_NE(eq, std::string::npos) << l;
            EXPECT_EQ(l.rfind("USBMGR.", 0), 0u) << l;
        }
    }

    static Lines saved_commands() { return {kCfgSave}; }

    bool minidlna_running = false;
    bool samba_running = false;
    std::vector<bool> held;  // lock held, per command run
};

Lines slot_lines(int slot, const std::string& name, const std::string& password, int enable) {
    const std::string n = std::to_string(slot);
    return {"USBMGR.SAMBA.USER_NAME." + n + "=" + name, "USBMGR.SAMBA.USER_PASSWORD." + n + "=" + password,
            "USBMGR.SAMBA.USER_ENABLE." + n + "=" + std::to_string(enable)};
}

void add_settings_lines(const Lines& lines) {
    std::string text = read_file(USBMGR_CONF_PATH);
    for (const auto& l : lines) text += l + "\n";
    write_file(USBMGR_CONF_PATH, text);
}

// The builder fills the capabilities of service 0; the fixture starts from an empty model.
bool model_built() { return std::string(usbmgr_tr140_db[0].Capabilities.SupportedNetworkProtocols) == "SMB"; }

bool all_true(const std::vector<bool>& v) {
    for (bool b : v)
        if (!b) return false;
    return !v.empty();
}

bool all_false(const std::vector<bool>& v) {
    for (bool b : v)
        if (b) return false;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading the settings (2, 3, 4)

TEST_F(SharingCommands, MiniDlnaSettingsAreCopiedAndTheConfPathKeepsWhatTheBufferHeld) {
    MiniDlnaConf c;
    std::memset(&c, 0x5a, sizeof c);
    usbmgr_cmd_get_minidlna_conf(c);
    EXPECT_EQ(c.enable, 1);
    EXPECT_EQ(std::string(c.conf_dir, sizeof c.conf_dir), std::string(sizeof c.conf_dir, '\x5a'));
    EXPECT_STREQ(c.db_dir, "/var/cache/minidlna");
    EXPECT_STREQ(c.log_dir, "/var/log");
    EXPECT_STREQ(c.media_dir, "/tmp/disk");
    EXPECT_STREQ(c.log_level, "off");
    EXPECT_STREQ(c.root_container, ".");
    EXPECT_STREQ(c.port, "8200");
    EXPECT_STREQ(c.friendly_name, "pelvan_kro");
    EXPECT_STREQ(c.serial, "");
    EXPECT_STREQ(c.model_name, "Windows Media Connect compatible (MiniDLNA)");
    EXPECT_STREQ(c.model_number, "");
    EXPECT_STREQ(c.inotify, "yes");
    EXPECT_STREQ(c.notify_interval, "300");
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST_F(SharingCommands, SambaSettingsAreCopiedAndTheConfPathAndUserMapFieldsKeepWhatTheBufferHeld) {
    SambaConf c;
    std::memset(&c, 0x5a, sizeof c);
    usbmgr_cmd_get_samba_conf(c);
    EXPECT_EQ(c.enable, 1);
    EXPECT_EQ(std::string(c.conf_dir, sizeof c.conf_dir), std::string(sizeof c.conf_dir, '\x5a'));
    EXPECT_EQ(std::string(c.username_map, sizeof c.username_map), std::string(sizeof c.username_map, '\x5a'));
    EXPECT_EQ(std::string(c.username_map_dir, sizeof c.username_map_dir),
              std::string(sizeof c.username_map_dir, '\x5a'));
    EXPECT_STREQ(c.log_file, "/var/samba/log.%m");
    EXPECT_STREQ(c.max_log_size, "500");
    EXPECT_STREQ(c.log_level, "1");
    EXPECT_STREQ(c.load_printers, "no");
    EXPECT_STREQ(c.printcap_name, "/dev/null");
    EXPECT_STREQ(c.printing, "bsd");
    EXPECT_STREQ(c.security, "user");
    EXPECT_STREQ(c.workgroup, "WORKGROUP");
    EXPECT_STREQ(c.disable_netbios, "no");
    EXPECT_STREQ(c.netbios_name, "NVQ40XX");
    EXPECT_STREQ(c.server_string, "%h server (Samba, Ubuntu)");
    EXPECT_STREQ(c.usershare_allow_guests, "yes");
    EXPECT_STREQ(c.guest_account, "1234");
    EXPECT_STREQ(c.interfaces, "");
    EXPECT_STREQ(c.bind_interfaces_only, "no");
}

TEST_F(SharingCommands, SerialLoginSwitchIsReadFromItsSetting) {
    USB_SERIAL_ENABLE = 1;
    CmdGetUsbSerialEnable c{-5};
    usbmgr_cmd_get_usb_serial_enable(c);
    EXPECT_EQ(c.enable, 1);
}

TEST_F(SharingCommands, ReadsOfTheSettingsWorkWithoutTheLock) {
    // Another thread holds the lock: the reads must not wait for it.
    usbmgr::DaemonLock lock;
    MiniDlnaConf m{};
    usbmgr_cmd_get_minidlna_conf(m);
    SambaConf s{};
    usbmgr_cmd_get_samba_conf(s);
    CmdGetUsbSerialEnable e{};
    usbmgr_cmd_get_usb_serial_enable(e);
    EXPECT_STREQ(m.port, "8200");
    EXPECT_STREQ(s.workgroup, "WORKGROUP");
}

// ---------------------------------------------------------------------------
// One MiniDLNA setting (5)

TEST_F(SharingCommands, MiniDlnaSettingIsStoredSavedAndSchedulesTheMiniDlnaReload) {
    auto c = set_request("port", "8201");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_STREQ(MINIDLNA_CONF.port, "8201");
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.PORT"), Lines{"USBMGR.MINIDLNA.PORT=8201"});
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_EQ(usbmgr_reload_target, 1);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(all_true(held));
}

// Each name with a value of its setting's form.
TEST_F(SharingCommands, EveryMiniDlnaNameReachesItsOwnField) {
    const std::tuple<const char*, char*, const char*> names[] = {
        {"media_dir", MINIDLNA_CONF.media_dir, "/tmp/disk/v1"},
        {"db_dir", MINIDLNA_CONF.db_dir, "/tmp/v1"},
        {"log_dir", MINIDLNA_CONF.log_dir, "/tmp/v1"},
        {"log_level", MINIDLNA_CONF.log_level, "v1"},
        {"root_container", MINIDLNA_CONF.root_container, "V"},
        {"port", MINIDLNA_CONF.port, "8201"},
        {"friendly_name", MINIDLNA_CONF.friendly_name, "v1"},
        {"serial", MINIDLNA_CONF.serial, "v1"},
        {"model_name", MINIDLNA_CONF.model_name, "v1"},
        {"model_number", MINIDLNA_CONF.model_number, "v1"},
        {"inotify", MINIDLNA_CONF.inotify, "no"},
        {"notify_interval", MINIDLNA_CONF.notify_interval, "61"},
    };
    for (const auto& [name, field, value] : names) {
        auto c = set_request(name, value);
        usbmgr_cmd_set_minidlna_conf(c);
        EXPECT_STREQ(field, value) << name;
    }
}

TEST_F(SharingCommands, MiniDlnaEnableWithTheCurrentValueSavesTheFileAndDoesNothingElse) {
    auto c = set_request("enable", "1");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(MINIDLNA_CONF.enable, 1);
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_EQ(usbmgr_reload_target, 0);
}

TEST_F(SharingCommands, MiniDlnaEnableSwitchedOffStopsTheServerAtOnceAndSchedulesNoReload) {
    minidlna_running = true;
    auto c = set_request("enable", "0");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(MINIDLNA_CONF.enable, 0);
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.ENABLE"), Lines{"USBMGR.MINIDLNA.ENABLE=0"});
    Lines expected = saved_commands();
    expected.insert(expected.end(), {kMiniCheck, "killall minidlnad", kMiniCheck});
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, MiniDlnaEnableSwitchedOnStartsTheServerAtOnceAndSchedulesNoReload) {
    MINIDLNA_CONF.enable = 0;
    auto c = set_request("enable", "1");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(MINIDLNA_CONF.enable, 1);
    Lines expected = saved_commands();
    expected.insert(expected.end(), {kMiniCheck, kMiniServer});
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(file_exists("/var/minidlna.conf"));
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, MiniDlnaEnableTakesZeroOrOneAndRefusesEveryOtherTextWithOneLine) {
    MINIDLNA_CONF.enable = 0;
    const std::string before = read_file(USBMGR_CONF_PATH);
    for (const char* value : {"7abc", "yes", "7", "-1", "", " 1"}) {
        fake::reset();
        seams.runner.clear();
        auto c = set_request("enable", value);
        usbmgr_cmd_set_minidlna_conf(c);
        EXPECT_EQ(MINIDLNA_CONF.enable, 0) << value;
        EXPECT_EQ(fake::log_texts(), Lines{std::string("refusing value '") + value + "' of USBMGR.MINIDLNA.ENABLE"});
        EXPECT_TRUE(seams.runner.texts().empty()) << value;
        EXPECT_EQ(read_file(USBMGR_CONF_PATH), before) << value;
    }
    auto d = set_request("enable", "01");
    usbmgr_cmd_set_minidlna_conf(d);
    EXPECT_EQ(MINIDLNA_CONF.enable, 1);
}

TEST_F(SharingCommands, MiniDlnaReloadDoesNotWriteTheSettingsFileButSchedulesTheMiniDlnaReload) {
    const std::string before = read_file(USBMGR_CONF_PATH);
    auto c = set_request("reload", "anything");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_EQ(read_file(USBMGR_CONF_PATH), before);
    EXPECT_EQ(usbmgr_reload_target, 1);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
}

TEST_F(SharingCommands, MiniDlnaUnknownNameChangesNothingButIsSavedAndSchedulesTheReload) {
    const auto before = testing_support::bytes_of(MINIDLNA_CONF);
    auto c = set_request("PORT", "1");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(testing_support::bytes_of(MINIDLNA_CONF), before);
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_EQ(usbmgr_reload_target, 1);
}

TEST_F(SharingCommands, MiniDlnaSerialIsStoredInTheSettingsButNeverReachesTheServerFile) {
    auto c = set_request("serial", "SN-42");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.SERIAL"), Lines{"USBMGR.MINIDLNA.SERIAL=SN-42"});
    app_util_write_minidlna_conf();
    EXPECT_EQ(read_file("/var/minidlna.conf").find("SN-42"), std::string::npos);
}

// ---------------------------------------------------------------------------
// One Samba setting (6)

TEST_F(SharingCommands, SambaSettingIsSavedTheModelRebuiltAndKindTwoWrittenBeforeTheSambaReload) {
    SAMBA_CONF.enable = 0;  // the model shows it
    {
        usbmgr::DaemonLock lock;
        usbmgr_tr140_db_build();
    }
    SAMBA_CONF.enable = 1;
    auto c = set_request("workgroup", "HOME");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_STREQ(SAMBA_CONF.workgroup, "HOME");
    EXPECT_EQ(lines_of("USBMGR.SAMBA.WORKGROUP"), Lines{"USBMGR.SAMBA.WORKGROUP=HOME"});
    EXPECT_EQ(usbmgr_tr140_db[0].NetworkServer.SMBEnable, 1u);
    EXPECT_EQ(pending_kinds(), Lines{"USBMGR_TR140_SERVICE_CHANGE"});
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, KindTwoIsSentOnlyWhenTheDeferredReloadFlushes) {
    auto c = set_request("workgroup", "HOME");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_TRUE(fake::sent_kinds().empty());
    usbmgr_alarm_work();
    EXPECT_EQ(fake::sent_kinds(), (std::vector<uint32_t>{2}));
}

// Each name with a value of its setting's form.
TEST_F(SharingCommands, EverySambaNameReachesItsOwnField) {
    const std::tuple<const char*, char*, const char*> names[] = {
        {"log_file", SAMBA_CONF.log_file, "/tmp/v1"},
        {"max_log_size", SAMBA_CONF.max_log_size, "501"},
        {"log_level", SAMBA_CONF.log_level, "2"},
        {"load_printers", SAMBA_CONF.load_printers, "yes"},
        {"printcap_name", SAMBA_CONF.printcap_name, "/etc/printcap"},
        {"printing", SAMBA_CONF.printing, "cups"},
        {"security", SAMBA_CONF.security, "share"},
        {"workgroup", SAMBA_CONF.workgroup, "v1"},
        {"disable_netbios", SAMBA_CONF.disable_netbios, "yes"},
        {"netbios_name", SAMBA_CONF.netbios_name, "v1"},
        {"server_string", SAMBA_CONF.server_string, "v1"},
        {"allow_guests", SAMBA_CONF.usershare_allow_guests, "no"},
        {"guest_account", SAMBA_CONF.guest_account, "v1"},
        {"interfaces", SAMBA_CONF.interfaces, "v1"},
        {"bind_interfaces_only", SAMBA_CONF.bind_interfaces_only, "yes"},
    };
    for (const auto& [name, field, value] : names) {
        auto c = set_request(name, value);
        usbmgr_cmd_set_samba_conf(c);
        EXPECT_STREQ(field, value) << name;
    }
}

TEST_F(SharingCommands, SambaUsershareAllowGuestsIsAnUnknownNameYetTheFileIsSavedTheModelRebuiltAndTheReloadScheduled) {
    const auto before = testing_support::bytes_of(SAMBA_CONF);
    auto c = set_request("usershare_allow_guests", "no");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_EQ(testing_support::bytes_of(SAMBA_CONF), before);
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_TRUE(model_built());
    EXPECT_EQ(pending_kinds(), Lines{"USBMGR_TR140_SERVICE_CHANGE"});
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral}));
}

TEST_F(SharingCommands, SambaConfPathAndUserMapCannotBeSetOverTheBus) {
    const auto before = testing_support::bytes_of(SAMBA_CONF);
    for (const char* name : {"conf_dir", "username_map", "username_map_dir", "user_map"}) {
        auto c = set_request(name, "/tmp/evil");
        usbmgr_cmd_set_samba_conf(c);
    }
    EXPECT_EQ(testing_support::bytes_of(SAMBA_CONF), before);
}

TEST_F(SharingCommands, SambaReloadRebuildsTheModelAndSchedulesTheReloadWithoutSaving) {
    auto c = set_request("reload", "");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(model_built());
    EXPECT_EQ(pending_kinds(), Lines{"USBMGR_TR140_SERVICE_CHANGE"});
    EXPECT_EQ(usbmgr_reload_target, 2);
}

TEST_F(SharingCommands, SambaEnableSwitchedOffStopsBothServersAtOnceWithoutKindOrReload) {
    samba_running = true;
    auto c = set_request("enable", "0");
    usbmgr_cmd_set_samba_conf(c);
    Lines expected = saved_commands();
    expected.insert(expected.end(), {kSmbdCheck, kNmbdCheck, "killall smbd", "killall nmbd", "killall -9 smbd",
                                     kSmbdCheck, kNmbdCheck});
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_EQ(usbmgr_tr140_db[0].NetworkServer.SMBEnable, 0u);
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, SambaEnableSwitchedOnStartsBothServersAtOnce) {
    SAMBA_CONF.enable = 0;
    auto c = set_request("enable", "1");
    usbmgr_cmd_set_samba_conf(c);
    Lines expected = saved_commands();
    expected.insert(expected.end(), {kSmbdCheck, "/bin/smbd", "/bin/nmbd"});
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_TRUE(file_exists("/var/smb.conf"));
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(SharingCommands, SambaEnableWithTheCurrentValueSavesRebuildsAndDoesNothingElse) {
    auto c = set_request("enable", "1");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_TRUE(model_built());
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

// ---------------------------------------------------------------------------
// The reload target

TEST_F(SharingCommands, MiniDlnaChangeWhileBothServersWaitLeavesOnlyTheMiniDlnaReload) {
    usbmgr_reload_target = 3;
    auto c = set_request("friendly_name", "den");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(usbmgr_reload_target, 1);
}

TEST_F(SharingCommands, SambaChangeAfterAMiniDlnaChangeLeavesOnlyTheSambaReload) {
    auto m = set_request("port", "8300");
    usbmgr_cmd_set_minidlna_conf(m);
    auto s = set_request("workgroup", "HOME");
    usbmgr_cmd_set_samba_conf(s);
    EXPECT_EQ(usbmgr_reload_target, 2);
    EXPECT_EQ(seams.clock.alarms(), (std::vector<unsigned long>{kDeferral, kDeferral}));
    seams.runner.clear();
    usbmgr_alarm_work();
    for (const auto& t : seams.runner.texts()) EXPECT_EQ(t.find("minidlna"), std::string::npos) << t;
}

// ---------------------------------------------------------------------------
// Values: bounded by their field, one line each

TEST_F(SharingCommands, LongUnterminatedValueIsCutToItsFieldAndLoggedLeavingNeighboursUntouched) {
    const MiniDlnaConf before = MINIDLNA_CONF;
    // 200 bytes after the name, none of them a NUL: the bus hands over the
    // declared 192, the value field's 128 without a terminator.
    std::vector<uint8_t> buf(64 + 200, 'A');
    std::memset(buf.data(), 0, 64);
    std::memcpy(buf.data(), "friendly_name", 13);
    EXPECT_EQ(call(5, buf), 0);
    EXPECT_EQ(std::string(MINIDLNA_CONF.friendly_name, sizeof MINIDLNA_CONF.friendly_name),
              std::string(63, 'A') + '\0');
    EXPECT_EQ(std::memcmp(before.port, MINIDLNA_CONF.port, sizeof before.port), 0);
    EXPECT_EQ(std::memcmp(before.serial, MINIDLNA_CONF.serial, sizeof before.serial), 0);
    EXPECT_STREQ(MINIDLNA_CONF.port, "8200");
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "value of friendly_name cut to 63 characters"));
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.FRIENDLY_NAME"), Lines{"USBMGR.MINIDLNA.FRIENDLY_NAME=" + std::string(63, 'A')});
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.PORT"), Lines{"USBMGR.MINIDLNA.PORT=8200"});
    // The bytes past the declared size are the caller's.
    EXPECT_EQ(std::string(buf.begin() + 192, buf.end()), std::string(72, 'A'));
}

TEST_F(SharingCommands, ValueThatFitsItsFieldExactlyIsNotCut) {
    auto c = set_request("inotify", "no");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_STREQ(MINIDLNA_CONF.inotify, "no");
    c = set_request("max_log_size", std::string(31, '0').c_str());
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_EQ(std::string(SAMBA_CONF.max_log_size), std::string(31, '0'));
    for (const auto& t : fake::log_texts()) EXPECT_EQ(t.find("cut to"), std::string::npos) << t;
}

// The form is checked on what the field would hold: a cut value that
// still has it is taken (and the cut logged), one that loses it is not.
TEST_F(SharingCommands, SambaValueLongerThanItsTenCharacterFieldIsCheckedAsCutAndLogged) {
    const SambaConf before = SAMBA_CONF;
    auto c = set_request("log_level", "3000000000");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_STREQ(SAMBA_CONF.log_level, before.log_level);
    EXPECT_FALSE(fake::logged(4, "usbmgrd.c", "value of log_level cut to 9 characters"));
    EXPECT_TRUE(fake::logged(1, "db_util.c", "refusing value '300000000' of USBMGR.SAMBA.LOG_LEVEL"));
    c = set_request("log_level", "0000000005");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_STREQ(SAMBA_CONF.log_level, "000000000");
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "value of log_level cut to 9 characters"));
    EXPECT_STREQ(SAMBA_CONF.workgroup, before.workgroup);
    EXPECT_STREQ(SAMBA_CONF.printing, before.printing);
}

TEST_F(SharingCommands, FullWidthValueOfTheWidestFieldKeepsOneHundredTwentySevenCharacters) {
    CmdSetConf c{};
    usbmgr::copy_str(c.name, "serial");
    std::memset(c.value, 'S', sizeof c.value);  // no NUL at all
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(std::string(MINIDLNA_CONF.serial), std::string(127, 'S'));
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "value of serial cut to 127 characters"));
    EXPECT_EQ(std::memcmp(MINIDLNA_CONF.model_name, "Windows Media", 13), 0);
}

TEST_F(SharingCommands, UnterminatedNameIsReadToItsFieldEndOnly) {
    CmdSetConf c{};
    std::memset(c.name, 'p', sizeof c.name);
    usbmgr::copy_str(c.value, "1");
    const auto before = testing_support::bytes_of(MINIDLNA_CONF);
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_EQ(testing_support::bytes_of(MINIDLNA_CONF), before);
    EXPECT_EQ(usbmgr_reload_target, 1);
}

TEST_F(SharingCommands, ValueHoldingANewlineStaysOneLineOfTheSettingsFile) {
    auto c = set_request("friendly_name", "den\nUSBMGR.SAMBA.ENABLE=0\r");
    usbmgr_cmd_set_minidlna_conf(c);
    EXPECT_STREQ(MINIDLNA_CONF.friendly_name, "den_USBMGR.SAMBA.ENABLE=0_");
    EXPECT_EQ(lines_of("USBMGR.MINIDLNA.FRIENDLY_NAME"),
              Lines{"USBMGR.MINIDLNA.FRIENDLY_NAME=den_USBMGR.SAMBA.ENABLE=0_"});
    EXPECT_EQ(lines_of("USBMGR.SAMBA.ENABLE"), Lines{"USBMGR.SAMBA.ENABLE=1"});
    EXPECT_EQ(read_lines(USBMGR_CONF_PATH).size(), 39u);
    expect_settings_parseable();
}

TEST_F(SharingCommands, SambaValueHoldingANewlineAddsNoParameterToTheSambaFile) {
    auto c = set_request("server_string", "HOME\n[evil]\n   path = /");
    usbmgr_cmd_set_samba_conf(c);
    EXPECT_STREQ(SAMBA_CONF.server_string, "HOME_[evil]_   path = /");
    app_util_write_samba_conf();
    Lines lines = read_lines("/var/smb.conf");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "[global]");
    for (const auto& l : lines) EXPECT_NE(l, "[evil]");
}

// ---------------------------------------------------------------------------
// The serial login switch (7)

TEST_F(SharingCommands, SerialLoginSwitchIsStoredAndSavedWithoutTheLock) {
    add_settings_lines(slot_lines(24, "zed", "zpw", 1));
    CmdSetUsbSerialEnable c{1, 0x5a5a};
    usbmgr_cmd_set_usb_serial_enable(c);
    EXPECT_EQ(USB_SERIAL_ENABLE, 1);
    EXPECT_EQ(c.enable, 1);
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(lines_of("USBMGR.USB_SERIAL.ENABLE"), Lines{"USBMGR.USB_SERIAL.ENABLE=1"});
    EXPECT_EQ(seams.runner.texts(), saved_commands());
    EXPECT_TRUE(all_false(held));
    EXPECT_EQ(held.size(), 1u);
}

TEST_F(SharingCommands, SerialLoginSwitchAnswersMinusSevenWhenTheSaveReturnsMinusOne) {
    // The save answers its last account lookup: -1 whenever slot 24 is free.
    CmdSetUsbSerialEnable c{1, 0x5a5a};
    usbmgr_cmd_set_usb_serial_enable(c);
    EXPECT_EQ(c.status, -7);
    EXPECT_EQ(lines_of("USBMGR.USB_SERIAL.ENABLE"), Lines{"USBMGR.USB_SERIAL.ENABLE=1"});
}

TEST_F(SharingCommands, SerialLoginSwitchAnswersMinusSevenWhenTheNewSettingsFileCannotBeMade) {
    add_settings_lines(slot_lines(24, "zed", "zpw", 1));
    testing_support::ReadOnlyFolder read_only("/var/config");
    if (!read_only.ok()) GTEST_SKIP() << "no read-only bind mount here";
    CmdSetUsbSerialEnable c{0, 0};
    usbmgr_cmd_set_usb_serial_enable(c);
    EXPECT_EQ(c.status, -7);
    EXPECT_EQ(USB_SERIAL_ENABLE, 0);
}

TEST_F(SharingCommands, SerialLoginSwitchNeitherStartsNorStopsALogin) {
    CmdSetUsbSerialEnable c{1, 0};
    usbmgr_cmd_set_usb_serial_enable(c);
    for (const auto& t : seams.runner.texts()) {
        EXPECT_EQ(t.find("getty"), std::string::npos) << t;
        EXPECT_EQ(t.find("kill"), std::string::npos) << t;
    }
}

// ---------------------------------------------------------------------------
// Users: count and slots (8, 9)

TEST_F(SharingCommands, UserCountCountsSlotsInUseUnderTheLock) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    add_settings_lines(slot_lines(3, "carol", "cpw", 0));
    CmdNumber c{-1};
    usbmgr_cmd_get_samba_number_of_users(c);
    EXPECT_EQ(c.number, 2);
}

TEST_F(SharingCommands, UserSlotIsReadBySlotNumberNotByPosition) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    add_settings_lines(slot_lines(3, "carol", "cpw", 0));
    CmdSambaUserSlot c{};
    c.index = 3;
    c.enable = 9;
    usbmgr_cmd_get_samba_user_info(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_STREQ(c.name, "carol");
    EXPECT_STREQ(c.password, "cpw");
    EXPECT_EQ(c.enable, 0);
    EXPECT_EQ(c.index, 3);

    // The second user by position is not slot 1.
    CmdSambaUserSlot d{};
    d.index = 1;
    usbmgr_cmd_get_samba_user_info(d);
    EXPECT_EQ(d.result, -1);
}

TEST_F(SharingCommands, UserSlotThatIsEmptyAnswersMinusOneAndLeavesNamePasswordAndEnableAsTheBufferHeldThem) {
    CmdSambaUserSlot c;
    std::memset(&c, 0x5a, sizeof c);
    c.index = 4;
    const CmdSambaUserSlot before = c;
    usbmgr_cmd_get_samba_user_info(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(c.enable, before.enable);
    EXPECT_EQ(std::memcmp(c.name, before.name, sizeof c.name), 0);
    EXPECT_EQ(std::memcmp(c.password, before.password, sizeof c.password), 0);
}

TEST_F(SharingCommands, UserSlotWithoutPasswordCopiesTheNameAndLeavesTheFieldsAfterIt) {
    add_settings_lines({"USBMGR.SAMBA.USER_NAME.2=dave"});
    CmdSambaUserSlot c;
    std::memset(&c, 0x5a, sizeof c);
    c.index = 2;
    const CmdSambaUserSlot before = c;
    usbmgr_cmd_get_samba_user_info(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_STREQ(c.name, "dave");
    EXPECT_EQ(std::memcmp(c.password, before.password, sizeof c.password), 0);
    EXPECT_EQ(c.enable, before.enable);
}

TEST_F(SharingCommands, UserSlotWithoutEnableCopiesNameAndPasswordAndAnswersMinusOne) {
    add_settings_lines({"USBMGR.SAMBA.USER_NAME.2=dave", "USBMGR.SAMBA.USER_PASSWORD.2=dpw"});
    CmdSambaUserSlot c;
    std::memset(&c, 0x5a, sizeof c);
    c.index = 2;
    usbmgr_cmd_get_samba_user_info(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_STREQ(c.name, "dave");
    EXPECT_STREQ(c.password, "dpw");
    EXPECT_EQ(c.enable, 0x5a5a5a5a);
}

TEST_F(SharingCommands, UserSlotNumbersOutsideTheTableFindNothing) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    for (int32_t slot : {-1, 25, INT32_MIN, INT32_MAX}) {
        CmdSambaUserSlot c{};
        c.index = slot;
        usbmgr_cmd_get_samba_user_info(c);
        EXPECT_EQ(c.result, -1) << slot;
        EXPECT_STREQ(c.name, "") << slot;
    }
}

// ---------------------------------------------------------------------------
// Users: add, remove, modify (10, 11, 12)

TEST_F(SharingCommands, AddedUserIsStoredMirroredIntoSambaAndInTheModel) {
    auto c = user_request("alice", "secret", 1);
    usbmgr_cmd_add_samba_user(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(lines_of("USBMGR.SAMBA.USER_NAME.0"), Lines{"USBMGR.SAMBA.USER_NAME.0=alice"});
    const auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "/bin/pdbedit -a -u alice -T secret -A"), texts.end());
    EXPECT_EQ(read_file("/var/samba/smbusers"), "root = alice");
    EXPECT_EQ(usbmgr_tr140_db[0].UserAccountNumberOfEntries, 1u);
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, AddingAnExistingNameAnswersMinusOneAndTheModelIsStillRebuilt) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    auto c = user_request("alice", "other", 1);
    usbmgr_cmd_add_samba_user(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_TRUE(model_built());
    EXPECT_EQ(usbmgr_tr140_db[0].UserAccountNumberOfEntries, 1u);
    EXPECT_EQ(lines_of("USBMGR.SAMBA.USER_PASSWORD.0"), Lines{"USBMGR.SAMBA.USER_PASSWORD.0=apw"});
}

TEST_F(SharingCommands, RefusedUserNameChangesNothingAndAnswersMinusOne) {
    const std::string before = read_file(USBMGR_CONF_PATH);
    for (const char* name : {"a b", "-x", "a:b", "a\nUSBMGR.X=1", ""}) {
        auto c = user_request(name, "pw", 1);
        usbmgr_cmd_add_samba_user(c);
        EXPECT_EQ(c.result, -1) << name;
    }
    EXPECT_EQ(read_file(USBMGR_CONF_PATH), before);
    for (const auto& t : seams.runner.texts()) EXPECT_EQ(t.find("pdbedit"), std::string::npos) << t;
}

TEST_F(SharingCommands, UnterminatedUserNameAndPasswordAreReadToTheirFieldEnds) {
    CmdSambaUser c{};
    c.enable = 1;
    std::memset(c.name, 'n', sizeof c.name);
    std::memset(c.password, 'p', sizeof c.password);
    usbmgr_cmd_add_samba_user(c);
    // 64 characters are more than a name may hold: refused, nothing read past the field.
    EXPECT_EQ(c.result, -1);
    EXPECT_EQ(app_util_get_number_of_samba_users(), 0);
}

TEST_F(SharingCommands, RemovedUserIsGoneFromTheSettingsSambaAndTheModel) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    add_settings_lines(slot_lines(1, "bob", "bpw", 1));
    CmdSambaUser c = user_request("alice", "ignored", 77);
    usbmgr_cmd_remove_samba_user(c);
    EXPECT_EQ(c.result, 0);
    EXPECT_TRUE(lines_of("USBMGR.SAMBA.USER_NAME.0").empty());
    const auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "/bin/pdbedit -x -u alice -A"), texts.end());
    EXPECT_EQ(usbmgr_tr140_db[0].UserAccountNumberOfEntries, 1u);
    EXPECT_TRUE(all_true(held));
}

TEST_F(SharingCommands, RemovingAnUnknownNameAnswersMinusOneAndRebuildsTheModel) {
    auto c = user_request("nobody", "", 0);
    usbmgr_cmd_remove_samba_user(c);
    EXPECT_EQ(c.result, -1);
    EXPECT_TRUE(model_built());
}

TEST_F(SharingCommands, ModifiedUserIsRewrittenAndTheModelRebuiltWithoutAnyLogLineOfItsOwn) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    std::vector<uint8_t> buf(sizeof(CmdSambaUser));
    CmdSambaUser c = user_request("alice", "newpw", 0);
    std::memcpy(buf.data(), &c, sizeof c);
    EXPECT_EQ(call(12, buf), 0);
    std::memcpy(&c, buf.data(), sizeof c);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(lines_of("USBMGR.SAMBA.USER_PASSWORD.0"), Lines{"USBMGR.SAMBA.USER_PASSWORD.0=newpw"});
    EXPECT_EQ(lines_of("USBMGR.SAMBA.USER_ENABLE.0"), Lines{"USBMGR.SAMBA.USER_ENABLE.0=0"});
    const auto texts = seams.runner.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), "/bin/pdbedit -x -u alice -A"), texts.end());
    EXPECT_EQ(std::find(texts.begin(), texts.end(), "/bin/pdbedit -a -u alice -T newpw -A"), texts.end());
    for (const auto& t : fake::log_texts()) EXPECT_NE(t.rfind("cmd - ", 0), 0u) << t;
    EXPECT_EQ(usbmgr_tr140_db[0].UserAccountNumberOfEntries, 1u);
    EXPECT_EQ(usbmgr_tr140_db[0].UserAccount[0].Enable, 0u);
}

TEST_F(SharingCommands, ModifyingAnUnknownNameAnswersMinusOne) {
    auto c = user_request("nobody", "pw", 1);
    usbmgr_cmd_modify_samba_user(c);
    EXPECT_EQ(c.result, -1);
}

// ---------------------------------------------------------------------------
// Hostile payloads

TEST_F(SharingCommands, AllOnesPayloadForEveryCommandLeavesTheSettingsFileParseable) {
    add_settings_lines(slot_lines(0, "alice", "apw", 1));
    for (uint32_t id = 2; id <= 12; ++id) {
        const UsbmgrCommandInfo* info = usbmgr_command_find(id);
        ASSERT_NE(info, nullptr);
        std::vector<uint8_t> buf(info->size, 0xff);
        EXPECT_EQ(call(id, buf), 0) << id;
        expect_settings_parseable();
    }
    EXPECT_EQ(app_util_get_number_of_samba_users(), 1);
    EXPECT_FALSE(usbmgr::daemon_lock_held_here());
}

TEST_F(SharingCommands, AllOnesNameIsUnknownAndChangesNoSetting) {
    const auto mini = testing_support::bytes_of(MINIDLNA_CONF);
    const auto samba = testing_support::bytes_of(SAMBA_CONF);
    std::vector<uint8_t> buf(sizeof(CmdSetConf), 0xff);
    call(5, buf);
    call(6, buf);
    EXPECT_EQ(testing_support::bytes_of(MINIDLNA_CONF), mini);
    EXPECT_EQ(testing_support::bytes_of(SAMBA_CONF), samba);
}

TEST_F(SharingCommands, ControlCharactersInEveryValueByteNeverAddALine) {
    for (const char* name : {"friendly_name", "model_name"}) {
        CmdSetConf c{};
        usbmgr::copy_str(c.name, name);
        for (std::size_t i = 0; i < sizeof c.value; ++i) c.value[i] = static_cast<char>(1 + i % 31);
        usbmgr_cmd_set_minidlna_conf(c);
    }
    for (const char* name : {"server_string", "interfaces"}) {
        CmdSetConf c{};
        usbmgr::copy_str(c.name, name);
        for (std::size_t i = 0; i < sizeof c.value; ++i) c.value[i] = (i % 2) ? '\n' : '\x7f';
        usbmgr_cmd_set_samba_conf(c);
    }
    EXPECT_EQ(read_lines(USBMGR_CONF_PATH).size(), 39u);
    expect_settings_parseable();
}

// ---------------------------------------------------------------------------
// Commands 5 and 6 with several values of every setting: each value reaches
// its field and its line of the settings file, and replaces the one before.

namespace {

struct SettingValues {
    const char* name;
    char* field;
    const char* key;
    std::vector<std::string> values;
};

}  // namespace

TEST_F(SharingCommands, EveryMiniDlnaSettingTakesEachOfSeveralValuesInTurn) {
    const SettingValues settings[] = {
        {"media_dir", MINIDLNA_CONF.media_dir, "USBMGR.MINIDLNA.MEDIA_DIR", {"/tmp/disk/sda1", "/tmp/disk"}},
        {"db_dir", MINIDLNA_CONF.db_dir, "USBMGR.MINIDLNA.DB_DIR", {"/var/cache/dlna", "/tmp/minidlna", "/var/cache/minidlna"}},
        {"log_dir", MINIDLNA_CONF.log_dir, "USBMGR.MINIDLNA.LOG_DIR", {"/var/log/minidlna", "/tmp", "/var/log"}},
        {"log_level", MINIDLNA_CONF.log_level, "USBMGR.MINIDLNA.LOG_LEVEL", {"warn", "error", "off"}},
        {"root_container", MINIDLNA_CONF.root_container, "USBMGR.MINIDLNA.ROOT_CONTAINER", {"B", "M", "."}},
        {"port", MINIDLNA_CONF.port, "USBMGR.MINIDLNA.PORT", {"8201", "9000", "8200"}},
        {"friendly_name", MINIDLNA_CONF.friendly_name, "USBMGR.MINIDLNA.FRIENDLY_NAME", {"Gateway", "Home media"}},
        {"serial", MINIDLNA_CONF.serial, "USBMGR.MINIDLNA.SERIAL", {"12345678", "87654321"}},
        {"model_name", MINIDLNA_CONF.model_name, "USBMGR.MINIDLNA.MODEL_NAME", {"Gateway", "MiniDLNA"}},
        {"model_number", MINIDLNA_CONF.model_number, "USBMGR.MINIDLNA.MODEL_NUMBER", {"1", "42"}},
        {"inotify", MINIDLNA_CONF.inotify, "USBMGR.MINIDLNA.INOTIFY", {"no", "yes"}},
        {"notify_interval", MINIDLNA_CONF.notify_interval, "USBMGR.MINIDLNA.NOTIFY_INTERVAL", {"60", "895", "300"}},
    };
    for (const auto& s : settings) {
        for (const auto& value : s.values) {
            auto c = set_request(s.name, value.c_str());
            usbmgr_cmd_set_minidlna_conf(c);
            EXPECT_EQ(std::string(s.field), value) << s.name;
            EXPECT_EQ(lines_of(s.key), Lines{std::string(s.key) + "=" + value}) << s.name;
        }
    }
    EXPECT_EQ(usbmgr_reload_target, 1);
    EXPECT_TRUE(pending_kinds().empty());
}

TEST_F(SharingCommands, EverySambaSettingTakesEachOfSeveralValuesInTurn) {
    const SettingValues settings[] = {
        {"log_file", SAMBA_CONF.log_file, "USBMGR.SAMBA.LOG_FILE", {"/var/log/smb.%m", "/var/samba/log.%m"}},
        {"max_log_size", SAMBA_CONF.max_log_size, "USBMGR.SAMBA.MAX_LOG_SIZE", {"64", "1000", "500"}},
        {"log_level", SAMBA_CONF.log_level, "USBMGR.SAMBA.LOG_LEVEL", {"3", "0", "1"}},
        {"load_printers", SAMBA_CONF.load_printers, "USBMGR.SAMBA.LOAD_PRINTERS", {"yes", "no"}},
        {"printcap_name", SAMBA_CONF.printcap_name, "USBMGR.SAMBA.PRINTCAP_NAME", {"/etc/printcap", "/dev/null"}},
        {"printing", SAMBA_CONF.printing, "USBMGR.SAMBA.PRINTING", {"cups", "bsd"}},
        {"security", SAMBA_CONF.security, "USBMGR.SAMBA.SECURITY", {"share", "user"}},
        {"workgroup", SAMBA_CONF.workgroup, "USBMGR.SAMBA.WORKGROUP", {"HOME", "OFFICE", "WORKGROUP"}},
        {"disable_netbios", SAMBA_CONF.disable_netbios, "USBMGR.SAMBA.DISABLE_NETBIOS", {"yes", "no"}},
        {"netbios_name", SAMBA_CONF.netbios_name, "USBMGR.SAMBA.NETBIOS_NAME", {"GATEWAY", "NAS1"}},
        {"server_string", SAMBA_CONF.server_string, "USBMGR.SAMBA.SERVER_STRING", {"Home storage", "%h server"}},
        {"allow_guests", SAMBA_CONF.usershare_allow_guests, "USBMGR.SAMBA.USERSHARE_ALLOW_GUESTS", {"no", "yes"}},
        {"guest_account", SAMBA_CONF.guest_account, "USBMGR.SAMBA.GUEST_ACCOUNT", {"nobody", "guest"}},
        {"interfaces", SAMBA_CONF.interfaces, "USBMGR.SAMBA.INTERFACES", {"eth0", "br0"}},
        {"bind_interfaces_only", SAMBA_CONF.bind_interfaces_only, "USBMGR.SAMBA.BIND_INTERFACES_ONLY", {"yes", "no"}},
    };
    for (const auto& s : settings) {
        for (const auto& value : s.values) {
            auto c = set_request(s.name, value.c_str());
            usbmgr_cmd_set_samba_conf(c);
            EXPECT_EQ(std::string(s.field), value) << s.name;
            EXPECT_EQ(lines_of(s.key), Lines{std::string(s.key) + "=" + value}) << s.name;
        }
    }
    EXPECT_EQ(usbmgr_reload_target, 2);
}

TEST_F(SharingCommands, TheEnablesTakeSeveralValuesAndOnlyAChangeStartsOrStopsTheirServer) {
    // Each value with the server starts (+) and stops (-) it caused; the
    // enable is compared as a number, so 01 after 1 is no change.
    const std::pair<const char*, const char*> steps[] = {{"0", "-"}, {"0", ""}, {"1", "+"}, {"01", ""}, {"00", "-"}};
    for (const bool samba : {false, true}) {
        std::string seen;
        for (const auto& [value, effect] : steps) {
            seams.runner.clear();
            auto c = set_request("enable", value);
            if (samba)
                usbmgr_cmd_set_samba_conf(c);
            else
                usbmgr_cmd_set_minidlna_conf(c);
            const Lines t = seams.runner.texts();
            const bool started = std::find(t.begin(), t.end(), samba ? "/bin/smbd" : kMiniServer) != t.end();
            const bool stopped = std::find(t.begin(), t.end(), samba ? kSmbdCheck : kMiniCheck) != t.end() && !started;
            seen += std::string(value) + ":" + (started ? "+" : "") + (stopped ? "-" : "") + " ";
            const char* key = samba ? "USBMGR.SAMBA.ENABLE" : "USBMGR.MINIDLNA.ENABLE";
            EXPECT_EQ(lines_of(key), Lines{std::string(key) + "=" + std::to_string(std::atoi(value))}) << value;
        }
        std::string expected;
        for (const auto& [value, effect] : steps) expected += std::string(value) + ":" + effect + " ";
        EXPECT_EQ(seen, expected) << (samba ? "Samba" : "MiniDLNA");
    }
}

// ---------------------------------------------------------------------------
// Commands 5 and 6 with values outside their setting's form: one log line,
// and nothing stored, saved, rebuilt or reloaded.

TEST_F(SharingCommands, SettingsPointedAtFoldersOfTheSystemAreRefusedWithOneLineAndChangeNothing) {
    const std::string file_before = read_file(USBMGR_CONF_PATH);
    const auto minidlna_before = testing_support::bytes_of(MINIDLNA_CONF);
    const auto samba_before = testing_support::bytes_of(SAMBA_CONF);
    const std::pair<const char*, const char*> minidlna[] = {
        {"db_dir", "/var/lib/dpkg"}, {"db_dir", "/var/cache"}, {"media_dir", "/etc"},
        {"log_dir", "/etc"},         {"port", "http"},          {"inotify", "maybe"},
    };
    const std::pair<const char*, const char*> samba[] = {
        {"log_file", "/etc/profile.d/usbmgr.sh"}, {"log_level", "100"}, {"security", "none"},
        {"workgroup", "HOME NET"},                {"printcap_name", "printcap"},
        {"guest_account", "root"},                {"guest_account", "ROOT"},
        {"enable", "2"},
    };
    for (const bool is_samba : {false, true}) {
        for (const auto& [name, value] : is_samba ? std::span<const std::pair<const char*, const char*>>(samba)
                                                  : std::span<const std::pair<const char*, const char*>>(minidlna)) {
            fake::reset();
            seams.runner.clear();
            auto c = set_request(name, value);
            if (is_samba)
                usbmgr_cmd_set_samba_conf(c);
            else
                usbmgr_cmd_set_minidlna_conf(c);
            ASSERT_EQ(fake::bus().log.size(), 1u) << name << "=" << value;
            EXPECT_EQ(fake::bus().log[0].level, 1);
            EXPECT_EQ(fake::bus().log[0].module, "db_util.c");
            EXPECT_EQ(fake::bus().log[0].text.rfind(std::string("refusing value '") + value + "' of USBMGR.", 0), 0u)
                << fake::bus().log[0].text;
            EXPECT_TRUE(seams.runner.texts().empty()) << name;
            EXPECT_EQ(usbmgr_reload_target, 0) << name;
            EXPECT_TRUE(seams.clock.alarms().empty()) << name;
            EXPECT_TRUE(pending_kinds().empty()) << name;
            EXPECT_FALSE(model_built()) << name;
        }
    }
    EXPECT_EQ(read_file(USBMGR_CONF_PATH), file_before);
    EXPECT_EQ(testing_support::bytes_of(MINIDLNA_CONF), minidlna_before);
    EXPECT_EQ(testing_support::bytes_of(SAMBA_CONF), samba_before);
}

// A MiniDLNA restart deletes its database folder: never one outside its
// form, whatever put it in the record.
TEST_F(SharingCommands, MiniDlnaRestartDeletesTheDatabaseFolderOnlyWhenItHasItsForm) {
    minidlna_running = true;
    app_util_start_minidlna();
    const Lines first = seams.runner.texts();
    EXPECT_NE(std::find(first.begin(), first.end(), "rm -rf /var/cache/minidlna"), first.end());
    for (const char* db_dir : {"/var/lib", "/var/cache", "/", "/tmp/../etc"}) {
        usbmgr::copy_str(MINIDLNA_CONF.db_dir, db_dir);
        minidlna_running = true;
        seams.runner.clear();
        fake::reset();
        app_util_start_minidlna();
        const Lines t = seams.runner.texts();
        for (const auto& line : t) EXPECT_EQ(line.rfind("rm", 0), std::string::npos) << line;
        EXPECT_TRUE(fake::logged(1, "db_util.c", std::string("refusing value '") + db_dir + "' of USBMGR.MINIDLNA.DB_DIR"));
        EXPECT_NE(std::find(t.begin(), t.end(), kMiniServer), t.end()) << db_dir;
    }
}
