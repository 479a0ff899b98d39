// Console logins on USB serial adapters: nodes, login threads with their
// restart a second after each end, removal, the start-up listing, and the
// names that never get a login. The fake runner holds each getty until the
// test lets it end, as a real getty runs until its user logs out.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "disk_util/disk_util.h"
#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::make_record;
using Lines = std::vector<std::string>;

namespace {

int plug(const char* name, uint32_t len = DUSB_DEVICE_RECORD_SIZE) {
    DusbDeviceRecord rec = make_record(name);
    return usbmgr_evt_new_usb_serial_interface(nullptr, DUSB_EVT_NEW_USB_SERIAL_INTERFACE, len, &rec);
}

int unplug(const char* name) {
    DusbDeviceRecord rec = make_record(name);
    return usbmgr_evt_remove_usb_serial_interface(nullptr, DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE,
                                                  DUSB_DEVICE_RECORD_SIZE, &rec);
}

// Polls cond every millisecond for up to five seconds.
bool eventually(const std::function<bool()>& cond) {
    for (int i = 0; i < 5000; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}

std::string start_line() { return "Start USB Serial login service .... " + std::to_string(getpid()); }

std::size_t count_of(const Lines& lines, const std::string& text) {
    std::size_t n = 0;
    for (const auto& l : lines)
        if (l == text) ++n;
    return n;
}

bool slot_taken(int n) { return getty_thread_id[n] != 0; }

class SerialTest : public testing_support::DaemonTest {
protected:
    SerialTest() { seams.runner.hold("getty "); }

    // The getty command lines run so far.
    Lines gettys() const {
        Lines out;
        for (const auto& t : seams.runner.texts())
            if (t.rfind("getty", 0) == 0) out.push_back(t);
        return out;
    }
    Lines commands_but_getty() const {
        Lines out;
        for (const auto& t : seams.runner.texts())
            if (t.rfind("getty", 0) != 0) out.push_back(t);
        return out;
    }
    // Lets the running logins end and waits until their threads are gone.
    void stop_logins() {
        usbmgr_serial_request_stop_all();
        seams.runner.release();
        usbmgr_serial_join_all();
    }
};

}  // namespace

TEST_F(SerialTest, AdapterZeroWithSerialLoginsOnStartsGettyAt115200OnItsNode) {
    USB_SERIAL_ENABLE = 1;
    EXPECT_EQ(plug("ttyUSB0"), 0);
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_TRUE(slot_taken(0));
    EXPECT_STREQ(new_attach_usb_serial, "ttyUSB0");
    Lines expected = {"ls /var/dev | grep ttyUSB0 2>&1", "mknod /var/dev/ttyUSB0 c 188 0",
                      "getty -L 115200 /var/dev/ttyUSB0"};
    EXPECT_EQ(seams.runner.texts(), expected);
    // Run without a shell, as its own program and arguments.
    auto calls = seams.runner.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_FALSE(calls[2].shell);
    EXPECT_EQ(calls[2].argv, (std::vector<std::string>{"getty", "-L", "115200", "/var/dev/ttyUSB0"}));
    Lines log_expected = {"EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE", "run command : mknod /var/dev/ttyUSB0 c 188 0",
                          "Create USB Serial Login thread ...", start_line(),
                          "run command : getty -L 115200 /var/dev/ttyUSB0"};
    EXPECT_EQ(fake::log_texts(), log_expected);
    for (const auto& line : fake::bus().log) {
        EXPECT_EQ(line.level, 4) << line.text;
        EXPECT_EQ(line.module, line.text.rfind("run command : mknod", 0) == 0 ? "disk_util.c" : "usbmgrd.c");
    }
}

TEST_F(SerialTest, AdapterZeroWithSerialLoginsOffGetsOnlyItsNode) {
    USB_SERIAL_ENABLE = 0;
    EXPECT_EQ(plug("ttyUSB0"), 0);
    Lines expected = {"ls /var/dev | grep ttyUSB0 2>&1", "mknod /var/dev/ttyUSB0 c 188 0"};
    EXPECT_EQ(seams.runner.texts(), expected);
    EXPECT_FALSE(slot_taken(0));
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    EXPECT_EQ(fake::log_texts(),
              (Lines{"EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE", "run command : mknod /var/dev/ttyUSB0 c 188 0"}));
}

TEST_F(SerialTest, SwitchOtherThanExactlyOneStartsNoLogin) {
    USB_SERIAL_ENABLE = 2;
    plug("ttyUSB1");
    EXPECT_TRUE(gettys().empty());
    EXPECT_FALSE(slot_taken(1));
}

TEST_F(SerialTest, AdapterThreeGetsANodeButNeverALogin) {
    USB_SERIAL_ENABLE = 1;
    EXPECT_EQ(plug("ttyUSB3"), 0);
    EXPECT_EQ(seams.runner.texts(), (Lines{"ls /var/dev | grep ttyUSB3 2>&1", "mknod /var/dev/ttyUSB3 c 188 3"}));
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    for (int n = 0; n < USBMGR_SERIAL_LOGIN_SLOTS; ++n) EXPECT_FALSE(slot_taken(n));
}

TEST_F(SerialTest, AdaptersZeroToTwoEachGetTheirOwnLogin) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB0");
    plug("ttyUSB1");
    plug("ttyUSB2");
    ASSERT_TRUE(seams.runner.wait_held(3));
    Lines g = gettys();
    EXPECT_EQ(count_of(g, "getty -L 115200 /var/dev/ttyUSB0"), 1u);
    EXPECT_EQ(count_of(g, "getty -L 115200 /var/dev/ttyUSB1"), 1u);
    EXPECT_EQ(count_of(g, "getty -L 115200 /var/dev/ttyUSB2"), 1u);
    for (int n = 0; n < 3; ++n) EXPECT_TRUE(slot_taken(n));
    EXPECT_FALSE(pthread_equal(getty_thread_id[0], getty_thread_id[1]));
}

TEST_F(SerialTest, LoginThatEndsIsRestartedASecondLater) {
    USB_SERIAL_ENABLE = 1;
    std::size_t gettys_at_sleep = 0;
    seams.clock.on_sleep = [&](unsigned long) { gettys_at_sleep = gettys().size(); };
    plug("ttyUSB0");
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_TRUE(seams.clock.sleeps().empty());
    seams.runner.let_end(1);  // the user logs out
    ASSERT_TRUE(eventually([&] { return gettys().size() == 2 && seams.runner.held() == 1; }));
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>{1000000});
    EXPECT_EQ(gettys_at_sleep, 1u);  // the pause comes between the two logins
    EXPECT_EQ(gettys(), (Lines{"getty -L 115200 /var/dev/ttyUSB0", "getty -L 115200 /var/dev/ttyUSB0"}));
    Lines log = fake::log_texts();
    EXPECT_EQ(count_of(log, start_line()), 2u);
    EXPECT_EQ(count_of(log, "run command : getty -L 115200 /var/dev/ttyUSB0"), 2u);
    // And again after the next logout: there is no limit.
    seams.runner.let_end(1);
    ASSERT_TRUE(eventually([&] { return gettys().size() == 3 && seams.runner.held() == 1; }));
    EXPECT_EQ(seams.clock.sleeps().size(), 2u);
    EXPECT_TRUE(slot_taken(0));
}

TEST_F(SerialTest, UnpluggingAdapterOneRemovesItsNodeAndClearsSlotOne) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB1");
    ASSERT_TRUE(seams.runner.wait_held(1));
    testing_support::write_file("/var/dev/ttyUSB1", "");
    seams.runner.clear();
    EXPECT_EQ(unplug("ttyUSB1"), 0);
    EXPECT_EQ(seams.runner.texts(), Lines{"rm -f /var/dev/ttyUSB1"});
    EXPECT_FALSE(testing_support::file_exists("/var/dev/ttyUSB1"));
    EXPECT_FALSE(slot_taken(1));
    Lines log = fake::log_texts();
    Lines tail(log.end() - 3, log.end());
    EXPECT_EQ(tail, (Lines{"EVENT - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE", "run command : rm -f /var/dev/ttyUSB1",
                           "Delete USB Serial Login thread ..."}));
    // The running getty is not killed: it ends when its terminal goes.
    EXPECT_EQ(seams.runner.held(), 1u);
}

TEST_F(SerialTest, UnpluggedAdapterStartsNoNewGettyAfterItsRunningOneEnds) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB0");
    ASSERT_TRUE(seams.runner.wait_held(1));
    unplug("ttyUSB0");
    seams.runner.let_end(1);
    usbmgr_serial_join_all();  // returns once the stopped thread has ended
    EXPECT_EQ(gettys().size(), 1u);
    EXPECT_TRUE(seams.clock.sleeps().empty());
}

TEST_F(SerialTest, PluggingAdapterOneAgainAfterRemovalStartsAFreshLogin) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB1");
    ASSERT_TRUE(seams.runner.wait_held(1));
    const pthread_t first = getty_thread_id[1];
    unplug("ttyUSB1");
    EXPECT_FALSE(slot_taken(1));
    plug("ttyUSB1");
    // The old getty still runs until its terminal goes; the new login runs beside it.
    ASSERT_TRUE(seams.runner.wait_held(2));
    ASSERT_TRUE(slot_taken(1));
    EXPECT_FALSE(pthread_equal(getty_thread_id[1], first));
    EXPECT_EQ(count_of(fake::log_texts(), "Create USB Serial Login thread ..."), 2u);
    // Both gettys end: only the fresh login starts another one, a second later.
    seams.runner.let_end(2);
    ASSERT_TRUE(eventually([&] { return gettys().size() == 3 && seams.runner.held() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(gettys().size(), 3u);
    EXPECT_EQ(seams.clock.sleeps(), std::vector<unsigned long>{1000000});
    EXPECT_TRUE(slot_taken(1));
}

TEST_F(SerialTest, EndedLoginOfARemovedAdapterIsJoinedByTheNextSerialEvent) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB2");
    ASSERT_TRUE(seams.runner.wait_held(1));
    unplug("ttyUSB2");
    seams.runner.let_end(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    plug("ttyUSB2");  // reaps the ended thread and starts a fresh one
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_EQ(gettys().size(), 2u);
    EXPECT_TRUE(slot_taken(2));
}

TEST_F(SerialTest, AdapterWhoseSlotHoldsALoginGetsNoSecondOne) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB0");
    ASSERT_TRUE(seams.runner.wait_held(1));
    const pthread_t first = getty_thread_id[0];
    plug("ttyUSB0");  // the fake listing shows no node, so the node is made again
    EXPECT_EQ(count_of(seams.runner.texts(), "mknod /var/dev/ttyUSB0 c 188 0"), 2u);
    EXPECT_EQ(count_of(fake::log_texts(), "Create USB Serial Login thread ..."), 1u);
    EXPECT_TRUE(pthread_equal(getty_thread_id[0], first));
    EXPECT_EQ(seams.runner.held(), 1u);
}

TEST_F(SerialTest, AdapterWhoseNodeExistsAlreadyGetsNoLogin) {
    USB_SERIAL_ENABLE = 1;
    seams.runner.respond = [](const std::string& t) {
        return t == "ls /var/dev | grep ttyUSB0 2>&1" ? std::string("ttyUSB0\n") : std::string();
    };
    plug("ttyUSB0");
    EXPECT_EQ(seams.runner.texts(), Lines{"ls /var/dev | grep ttyUSB0 2>&1"});
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "the device node ttyUSB0 exist already"));
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    EXPECT_FALSE(slot_taken(0));
}

TEST_F(SerialTest, NodeThatCannotBeMadeGivesNoLogin) {
    USB_SERIAL_ENABLE = 1;
    seams.runner.fail_start = true;
    plug("ttyUSB0");
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    EXPECT_FALSE(slot_taken(0));
}

TEST_F(SerialTest, NamesOtherThanTtyUsbAndDigitsGetNoNodeAndNoLogin) {
    USB_SERIAL_ENABLE = 1;
    for (const char* name : {"ttyUSB0;rm", "ttyS0", "ttyUSB", "ttyUSB01", "ttyUSB0,ttyUSB1", "sda", "../ttyUSB0",
                             "ttyUSB0 -x", "ttyUSB99999999"}) {
        EXPECT_EQ(plug(name), 0) << name;
        EXPECT_EQ(unplug(name), 0) << name;
    }
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    EXPECT_FALSE(fake::logged("Delete USB Serial Login thread ..."));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyS0'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyUSB'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyUSB01'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'sda'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyUSB0,ttyUSB1'"));
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "DUSB_EVT_NEW_USB_SERIAL_INTERFACE: refusing AttachDevice 'ttyUSB0;rm', record ignored"));
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE: refusing AttachDevice '../ttyUSB0', record ignored"));
    for (int n = 0; n < USBMGR_SERIAL_LOGIN_SLOTS; ++n) EXPECT_FALSE(slot_taken(n));
}

TEST_F(SerialTest, ShortOrUnterminatedRecordIsIgnored) {
    USB_SERIAL_ENABLE = 1;
    EXPECT_EQ(plug("ttyUSB0", DUSB_DEVICE_RECORD_SIZE - 1), 0);
    EXPECT_EQ(usbmgr_evt_new_usb_serial_interface(nullptr, 6, DUSB_DEVICE_RECORD_SIZE, nullptr), 0);
    DusbDeviceRecord rec = make_record("ttyUSB0");
    std::memset(rec.AttachDevice, '1', sizeof rec.AttachDevice);
    std::memcpy(rec.AttachDevice, "ttyUSB", 6);
    EXPECT_EQ(usbmgr_evt_new_usb_serial_interface(nullptr, 6, DUSB_DEVICE_RECORD_SIZE, &rec), 0);
    EXPECT_EQ(usbmgr_evt_remove_usb_serial_interface(nullptr, 13, DUSB_DEVICE_RECORD_SIZE, &rec), 0);
    EXPECT_EQ(usbmgr_evt_remove_usb_serial_interface(nullptr, 13, 3, &rec), 0);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(fake::logged("EVENT - DUSB_EVT_NEW_USB_SERIAL_INTERFACE"));
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "DUSB_EVT_NEW_USB_SERIAL_INTERFACE: device record of 281 bytes ignored, 282 expected"));
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "DUSB_EVT_NEW_USB_SERIAL_INTERFACE: AttachDevice not terminated, record ignored"));
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE: AttachDevice not terminated, record ignored"));
}

TEST_F(SerialTest, UnpluggingAnAdapterWithoutLoginOnlyRemovesItsNode) {
    USB_SERIAL_ENABLE = 1;
    unplug("ttyUSB0");
    unplug("ttyUSB5");
    EXPECT_EQ(seams.runner.texts(), (Lines{"rm -f /var/dev/ttyUSB0", "rm -f /var/dev/ttyUSB5"}));
    EXPECT_FALSE(fake::logged("Delete USB Serial Login thread ..."));
    EXPECT_EQ(count_of(fake::log_texts(), "EVENT - DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE"), 2u);
}

TEST_F(SerialTest, RemovalWhoseCommandCannotStartKeepsTheLogin) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB0");
    ASSERT_TRUE(seams.runner.wait_held(1));
    stop_logins();
    // No login thread runs now; the slot is set again by hand.
    getty_thread_id[0] = pthread_self();
    seams.runner.fail_start = true;
    unplug("ttyUSB0");
    EXPECT_FALSE(fake::logged("Delete USB Serial Login thread ..."));
    EXPECT_TRUE(slot_taken(0));
    getty_thread_id[0] = 0;
}

TEST_F(SerialTest, SerialEventsReachTheirHandlersThroughTheEventTable) {
    USB_SERIAL_ENABLE = 1;
    ASSERT_EQ(OrbIilSetEvtHandler(&usbmgr_iil_handle, usbmgr_evt_table, USBMGR_EVENT_COUNT), 0);
    DusbDeviceRecord rec = make_record("ttyUSB2");
    std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(&rec), reinterpret_cast<uint8_t*>(&rec) + sizeof rec);
    fake::deliver_event("DUSB_DMON", 6, bytes);
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_TRUE(slot_taken(2));
    fake::deliver_event("DUSB_DMON", 13, bytes);
    EXPECT_FALSE(slot_taken(2));
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "Delete USB Serial Login thread ..."));
}

// ---------------------------------------------------------------------------
// Start-up

TEST_F(SerialTest, AtStartUpAnAdapterListedInTmpUsbGetsALoginEvenWithSerialLoginsOff) {
    testing_support::use_storage_settings();
    USB_SERIAL_ENABLE = 0;
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-2", "ttyUSB0\r\n");
    EXPECT_EQ(usbmgr_service_init(), 1);
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_TRUE(slot_taken(0));
    EXPECT_EQ(gettys(), Lines{"getty -L 115200 /var/dev/ttyUSB0"});
    EXPECT_EQ(count_of(seams.runner.texts(), "mknod /var/dev/ttyUSB0 c 188 0"), 1u);
    Lines log = fake::log_texts();
    auto at = [&](const std::string& s) {
        for (std::size_t i = 0; i < log.size(); ++i)
            if (log[i] == s) return static_cast<int>(i);
        return -1;
    };
    EXPECT_GE(at("Check Exist USB Serial ..."), 0);
    EXPECT_GT(at("Get USB Serial Name ... ttyUSB0"), at("Check Exist USB Serial ..."));
    EXPECT_GT(at("run command : mknod /var/dev/ttyUSB0 c 188 0"), at("Get USB Serial Name ... ttyUSB0"));
    EXPECT_GT(at("Create USB Serial Login thread ..."), at("run command : mknod /var/dev/ttyUSB0 c 188 0"));
}

TEST_F(SerialTest, AtStartUpAnAdapterWhoseNodeIsThereStillGetsALogin) {
    seams.runner.respond = [](const std::string& t) {
        return t == "ls /var/dev | grep ttyUSB1 2>&1" ? std::string("ttyUSB1\n") : std::string();
    };
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-3", "ttyUSB1\r\n");
    usbmgr_start_exist_usb_serial_logins();
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_TRUE(fake::logged(4, "disk_util.c", "the device node ttyUSB1 exist already"));
    EXPECT_EQ(gettys(), Lines{"getty -L 115200 /var/dev/ttyUSB1"});
    EXPECT_TRUE(slot_taken(1));
}

TEST_F(SerialTest, AtStartUpAdapterThreeGetsALoginWithoutASlot) {
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-4", "ttyUSB3\r\n");
    usbmgr_start_exist_usb_serial_logins();
    ASSERT_TRUE(seams.runner.wait_held(1));
    EXPECT_EQ(gettys(), Lines{"getty -L 115200 /var/dev/ttyUSB3"});
    for (int n = 0; n < USBMGR_SERIAL_LOGIN_SLOTS; ++n) EXPECT_FALSE(slot_taken(n));
    // Removal stops only the logins of slots 0 to 2.
    unplug("ttyUSB3");
    EXPECT_FALSE(fake::logged("Delete USB Serial Login thread ..."));
}

TEST_F(SerialTest, AtStartUpEveryListedAdapterGetsItsLoginAndDisksAreLeftAlone) {
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-1", "sda,sda1\r\n");
    testing_support::write_file("/tmp/usb/1-2", "ttyUSB0\r\n");
    testing_support::write_file("/tmp/usb/1-3", "ttyUSB2\r\n");
    usbmgr_start_exist_usb_serial_logins();
    ASSERT_TRUE(seams.runner.wait_held(2));
    Lines g = gettys();
    EXPECT_EQ(count_of(g, "getty -L 115200 /var/dev/ttyUSB0"), 1u);
    EXPECT_EQ(count_of(g, "getty -L 115200 /var/dev/ttyUSB2"), 1u);
    EXPECT_TRUE(slot_taken(0));
    EXPECT_FALSE(slot_taken(1));
    EXPECT_TRUE(slot_taken(2));
    EXPECT_EQ(count_of(fake::log_texts(), "Create USB Serial Login thread ..."), 2u);
}

TEST_F(SerialTest, AtStartUpAListedNameThatIsNotAnAdapterGetsNoNodeAndNoLogin) {
    mkdir("/tmp/usb", 0755);
    testing_support::write_file("/tmp/usb/1-2", "ttyUSB0;x\r\n");
    testing_support::write_file("/tmp/usb/1-3", "xttyUSB1\r\n");
    testing_support::write_file("/tmp/usb/1-4", "ttyUSB12345\r\n");
    usbmgr_start_exist_usb_serial_logins();
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'ttyUSB0;x'"));
    EXPECT_TRUE(fake::logged(1, "disk_util.c", "refusing device name 'xttyUSB1'"));
    // A number too long for the hand-over buffer is refused before a login.
    EXPECT_TRUE(fake::logged(1, "usbmgrd.c", "refusing device name 'ttyUSB12345'"));
    EXPECT_TRUE(gettys().empty());
    EXPECT_FALSE(fake::logged("Create USB Serial Login thread ..."));
    EXPECT_EQ(commands_but_getty(), (Lines{"ls /var/dev | grep ttyUSB12345 2>&1", "mknod /var/dev/ttyUSB12345 c 188 12345"}));
}

TEST_F(SerialTest, WithoutPortFilesStartUpStartsNothing) {
    usbmgr_start_exist_usb_serial_logins();
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(SerialTest, StoppingEveryLoginLeavesNoThreadBehind) {
    USB_SERIAL_ENABLE = 1;
    plug("ttyUSB0");
    plug("ttyUSB1");
    ASSERT_TRUE(seams.runner.wait_held(2));
    stop_logins();
    for (int n = 0; n < USBMGR_SERIAL_LOGIN_SLOTS; ++n) EXPECT_FALSE(slot_taken(n));
    EXPECT_EQ(seams.runner.held(), 0u);
    EXPECT_TRUE(seams.clock.sleeps().empty());
}
