#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db_util/db_util.h"
#include "db_util/str.h"
#include "platform_fake.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kCfgSave = "orbcm_util cfg save";

void set_history(int capacity) {
    NUMBER_OF_MAX_TR140_HISTORY_ITEM = capacity;
    AUTO_CREATE_USER_ACCESS_DATA = 0;
}

void write_history(const Lines& lines) {
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    testing_support::write_file(TR140_CONF_PATH, text);
}

Lines history() { return testing_support::read_lines(TR140_CONF_PATH); }

// The lines a new record is created with.
Lines record(int id, const std::string& serial, int volumes) {
    std::string d = std::to_string(id);
    Lines out = {"USBMGR." + d + ".SERIAL_NUMBER=" + serial, "USBMGR." + d + ".PNAME="};
    for (int v = 0; v < volumes; ++v) {
        out.push_back("USBMGR." + d + ".NAME." + std::to_string(v) + "=");
        out.push_back("USBMGR." + d + ".ENABLE." + std::to_string(v) + "=1");
    }
    return out;
}

Lines join(std::initializer_list<Lines> parts) {
    Lines out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

int count(const Lines& texts, const std::string& text) {
    return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

}  // namespace

// ---------------------------------------------------------------------------
// Recording a disk

TEST(HistoryRecord, FirstDiskEverWritesSixLinesAndHandsOff) {
    testing_support::Seams seams;
    set_history(5);
    EXPECT_EQ(db_util_tr140_conf_record_new_sn("S", 2), -1);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=S", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=",
                                "USBMGR.0.ENABLE.0=1", "USBMGR.0.NAME.1=", "USBMGR.0.ENABLE.1=1"}));
    EXPECT_EQ(seams.runner.texts(), (Lines{kCfgSave}));
    EXPECT_TRUE(fake::logged(4, "usbmgrd.c", "run command : orbcm_util cfg save"));
}

TEST(HistoryRecord, SameDiskWithSameVolumeCountChangesNothingAndDoesNotHandOff) {
    testing_support::Seams seams;
    set_history(5);
    db_util_tr140_conf_record_new_sn("S", 2);
    const std::string before = testing_support::read_file(TR140_CONF_PATH);
    seams.runner.clear();
    EXPECT_EQ(db_util_tr140_conf_record_new_sn("S", 2), -1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), before);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(HistoryRecord, DisksWithoutASerialNumberShareOneRecordWithAnEmptySerial) {
    testing_support::Seams seams;
    set_history(5);
    write_history(record(0, "S0", 1));
    db_util_tr140_conf_record_new_sn("", 1);
    EXPECT_EQ(history(), join({record(0, "S0", 1), record(1, "", 1)}));
    // The next disk without a serial number finds that record.
    seams.runner.clear();
    db_util_tr140_conf_record_new_sn("", 1);
    EXPECT_EQ(history(), join({record(0, "S0", 1), record(1, "", 1)}));
    EXPECT_TRUE(seams.runner.texts().empty());
    char serial[64] = {};
    std::memcpy(usb_physical_info[3].attach_device, "sdc,sdc1", 8);
    EXPECT_EQ(db_util_get_device_serial_number("sdc1", serial), 0);
    EXPECT_STREQ(serial, "");
    EXPECT_EQ(db_util_find_device_serial_number("sdc1", serial), 0);
    EXPECT_EQ(db_util_find_device_serial_number("sdz1", serial), -1);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number(""), 1);
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
}

TEST(HistoryRecord, DiskOfFirstRecordReturningWithOtherVolumeCountIsAppendedUnderNewId) {
    testing_support::Seams seams;
    set_history(5);
    write_history(join({record(0, "S0", 2), record(1, "S1", 1)}));
    db_util_tr140_conf_record_new_sn("S0", 3);
    EXPECT_EQ(history(), join({record(1, "S1", 1), record(2, "S0", 3)}));
    EXPECT_EQ(seams.runner.texts(), (Lines{kCfgSave}));
}

TEST(HistoryRecord, DiskOfLastRecordReturningWithOtherVolumeCountGetsItsIdBack) {
    testing_support::Seams seams;
    set_history(5);
    write_history(join({record(0, "S0", 2), record(1, "S1", 1)}));
    db_util_tr140_conf_record_new_sn("S1", 3);
    EXPECT_EQ(history(), join({record(0, "S0", 2), record(1, "S1", 3)}));
    EXPECT_EQ(count(seams.runner.texts(), kCfgSave), 1);
}

TEST(HistoryRecord, OnlyRecordReturningWithOtherVolumeCountStartsAgainAtIdZero) {
    testing_support::Seams seams;
    set_history(5);
    write_history(record(0, "S0", 2));
    db_util_tr140_conf_record_new_sn("S0", 1);
    EXPECT_EQ(history(), record(0, "S0", 1));
}

TEST(HistoryRecord, NewDiskInFullHistoryEvictsTheOldestRecord) {
    testing_support::Seams seams;
    set_history(3);
    write_history(join({record(0, "A", 1), record(1, "B", 1), record(2, "C", 1)}));
    db_util_tr140_conf_record_new_sn("D", 2);
    EXPECT_EQ(history(), join({record(1, "B", 1), record(2, "C", 1), record(3, "D", 2)}));
    EXPECT_EQ(seams.runner.texts(), (Lines{kCfgSave}));
}

TEST(HistoryRecord, GapsLeftByDeletedRecordsCountAsUsedWhenEvicting) {
    testing_support::Seams seams;
    set_history(3);
    write_history(join({record(0, "A", 1), record(2, "C", 1)}));
    db_util_tr140_conf_record_new_sn("D", 1);
    EXPECT_EQ(history(), join({record(2, "C", 1), record(3, "D", 1)}));
}

TEST(HistoryRecord, AtMostOneRecordIsEvictedPerNewDisk) {
    testing_support::Seams seams;
    set_history(2);
    write_history(join({record(0, "A", 1), record(1, "B", 1), record(2, "C", 1)}));
    db_util_tr140_conf_record_new_sn("D", 1);
    EXPECT_EQ(history(), join({record(1, "B", 1), record(2, "C", 1), record(3, "D", 1)}));
}

TEST(HistoryRecord, HistoryBelowCapacityEvictsNothing) {
    testing_support::Seams seams;
    set_history(3);
    write_history(join({record(0, "A", 1), record(1, "B", 1)}));
    db_util_tr140_conf_record_new_sn("C", 1);
    EXPECT_EQ(history(), join({record(0, "A", 1), record(1, "B", 1), record(2, "C", 1)}));
    EXPECT_EQ(seams.runner.texts(), (Lines{kCfgSave}));
}

TEST(HistoryRecord, RecordAtOrAboveCapacityIsNotFoundAndIsRecordedAgain) {
    testing_support::Seams seams;
    set_history(3);
    write_history(join({record(3, "X", 1), record(4, "Y", 1)}));
    db_util_tr140_conf_record_new_sn("Y", 1);
    EXPECT_EQ(history(), join({record(3, "X", 1), record(4, "Y", 1), record(5, "Y", 1)}));
    EXPECT_EQ(db_util_tr140_conf_find_sn("Y"), -1);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("Y"), 4);
}

TEST(HistoryRecord, EmptyHistoryFileIsTreatedLikeAMissingOne) {
    testing_support::Seams seams;
    set_history(3);
    testing_support::write_file(TR140_CONF_PATH, "");
    db_util_tr140_conf_record_new_sn("S", 1);
    EXPECT_EQ(history(), record(0, "S", 1));
    EXPECT_EQ(seams.runner.texts(), (Lines{kCfgSave}));
}

TEST(HistoryRecord, SingleLineHistoryFileIsItsOwnFirstAndLast) {
    testing_support::Seams seams;
    set_history(5);
    write_history({"USBMGR.4.SERIAL_NUMBER=OLD"});
    db_util_tr140_conf_record_new_sn("S", 1);
    EXPECT_EQ(history(), join({Lines{"USBMGR.4.SERIAL_NUMBER=OLD"}, record(5, "S", 1)}));
}

TEST(HistoryRecord, SerialWithNewlineIsWrittenOnOneLineAndKeepsItsEqualsSign) {
    testing_support::Seams seams;
    set_history(5);
    db_util_tr140_conf_record_new_sn("AB\nUSBMGR.9.PNAME=x", 1);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=AB_USBMGR.9.PNAME=x", "USBMGR.0.PNAME=",
                                "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=1"}));
    // Seen again, the same cleaned serial is found.
    seams.runner.clear();
    db_util_tr140_conf_record_new_sn("AB\nUSBMGR.9.PNAME=x", 1);
    EXPECT_TRUE(seams.runner.texts().empty());
}

TEST(HistoryRecord, SerialLongerThanTheDeviceTableFieldIsNotRecorded) {
    testing_support::Seams seams;
    set_history(5);
    EXPECT_EQ(db_util_tr140_conf_record_new_sn(std::string(64, 'S').c_str(), 1), -1);
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_TRUE(seams.runner.texts().empty());
    db_util_tr140_conf_record_new_sn(std::string(63, 'S').c_str(), 1);
    EXPECT_EQ(history(), record(0, std::string(63, 'S'), 1));
}

TEST(HistoryRecord, HistoryThatCannotBeAppendedToLogsAndStillHandsOff) {
    testing_support::Seams seams;
    set_history(5);
    ASSERT_EQ(mkdir(TR140_CONF_PATH, 0755), 0);
    db_util_tr140_conf_record_new_sn("S", 1);
    EXPECT_TRUE(fake::logged(4, "db_util.c", "Creat /var/config/tr140.conf Fail ..."));
    EXPECT_EQ(count(seams.runner.texts(), kCfgSave), 1);
}

// ---------------------------------------------------------------------------
// Key splitting, id range, searches

TEST(HistoryKeys, SplitKeyFillsEveryPartOfAUserAccessKey) {
    char key[] = "USBMGR.3.USER_ACCESS.1.PERMISSIONS.7";
    Tr140ConfKey k;
    EXPECT_EQ(db_util_tr140_conf_split_key(key, &k), -1);
    EXPECT_EQ(k.device_id, 3);
    EXPECT_STREQ(k.item, "USER_ACCESS");
    EXPECT_EQ(k.volume_index, 1);
    EXPECT_STREQ(k.sub_item, "PERMISSIONS");
    EXPECT_EQ(k.entry_index, 7);
}

TEST(HistoryKeys, SplitKeyLeavesAbsentPartsAtTheirDefaults) {
    char key[] = "USBMGR.2.PNAME";
    Tr140ConfKey k;
    db_util_tr140_conf_split_key(key, &k);
    EXPECT_EQ(k.device_id, 2);
    EXPECT_STREQ(k.item, "PNAME");
    EXPECT_EQ(k.volume_index, -1);
    EXPECT_STREQ(k.sub_item, "");
    EXPECT_EQ(k.entry_index, -1);

    char garbage[] = "no dots here\n";
    db_util_tr140_conf_split_key(garbage, &k);
    EXPECT_EQ(k.device_id, -1);
    EXPECT_STREQ(k.item, "");
}

TEST(HistoryKeys, SplitKeyCutsALongItemToItsField) {
    char key[] = "USBMGR.1.ABCDEFGHIJKLMNOPQRSTUVWXYZ.2";
    Tr140ConfKey k;
    db_util_tr140_conf_split_key(key, &k);
    EXPECT_STREQ(k.item, "ABCDEFGHIJKLMNOPQRS");
    EXPECT_EQ(k.volume_index, 2);
}

TEST(HistoryKeys, IdRangeIsTakenByLinePositionNotByValue) {
    testing_support::Seams seams;
    write_history({"USBMGR.6.SERIAL_NUMBER=A", "USBMGR.9.PNAME=", "USBMGR.2.SERIAL_NUMBER=B"});
    int first = 100, last = 100;
    EXPECT_EQ(db_util_tr140_conf_get_id_range(&first, &last), -1);
    EXPECT_EQ(first, 6);
    EXPECT_EQ(last, 2);
}

TEST(HistoryKeys, IdRangeOfMissingFileLogsAndLeavesBothUntouched) {
    testing_support::Seams seams;
    int first = 100, last = 101;
    EXPECT_EQ(db_util_tr140_conf_get_id_range(&first, &last), -1);
    EXPECT_EQ(first, 100);
    EXPECT_EQ(last, 101);
    EXPECT_EQ(fake::log_texts(), (Lines{"File /var/config/tr140.conf not found ..."}));
}

TEST(HistoryKeys, IdRangeOfSingleLineSetsOnlyFirst) {
    testing_support::Seams seams;
    write_history({"USBMGR.4.SERIAL_NUMBER=A"});
    int first = 100, last = 101;
    db_util_tr140_conf_get_id_range(&first, &last);
    EXPECT_EQ(first, 4);
    EXPECT_EQ(last, 101);
}

TEST(HistoryKeys, FindSerialSearchesOnlyIdsBelowCapacity) {
    testing_support::Seams seams;
    set_history(3);
    write_history(join({record(0, "A", 1), record(2, "C", 1), record(3, "D", 1)}));
    EXPECT_EQ(db_util_tr140_conf_find_sn("C"), 2);
    EXPECT_EQ(db_util_tr140_conf_find_sn("D"), -1);
    EXPECT_EQ(db_util_tr140_conf_find_sn("Z"), -1);
}

TEST(HistoryKeys, CountVolumesStopsAtTheFirstMissingName) {
    testing_support::Seams seams;
    set_history(10);
    write_history({"USBMGR.1.SERIAL_NUMBER=A", "USBMGR.1.NAME.0=", "USBMGR.1.NAME.1=x", "USBMGR.1.NAME.3="});
    EXPECT_EQ(db_util_tr140_conf_count_volumes(1), 2);
    EXPECT_EQ(db_util_tr140_conf_count_volumes(0), 0);
}

TEST(HistoryKeys, CountVolumesIsBoundedByTheHistoryCapacity) {
    testing_support::Seams seams;
    set_history(2);
    write_history(record(0, "A", 4));
    EXPECT_EQ(db_util_tr140_conf_count_volumes(0), 2);
}

TEST(HistoryKeys, DeleteDeviceDropsOnlyItsLinesAndKeepsUnparsedOnes) {
    testing_support::Seams seams;
    write_history(join({record(0, "A", 1), Lines{"junk line"}, record(1, "B", 1)}));
    EXPECT_EQ(db_util_tr140_conf_delete_device(0), -1);
    EXPECT_EQ(history(), join({Lines{"junk line"}, record(1, "B", 1)}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

TEST(HistoryKeys, DeleteDeviceWithoutHistoryFileChangesNothing) {
    testing_support::Seams seams;
    db_util_tr140_conf_delete_device(0);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

TEST(HistoryKeys, DeviceIdBySerialOfUnknownSerialOrMissingFileIsMinusOne) {
    testing_support::Seams seams;
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("A"), -1);
    write_history(join({record(0, "A", 1), record(1, "B", 1)}));
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("B"), 1);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("Z"), -1);
}

TEST(HistoryKeys, VolumeNumberCountsFromOneInThePartitionName) {
    EXPECT_EQ(db_util_volume_number("sda1"), 0);
    EXPECT_EQ(db_util_volume_number("sdb3"), 2);
    EXPECT_EQ(db_util_volume_number("sdc12"), 11);
    EXPECT_EQ(db_util_volume_number("sda"), -1);
    EXPECT_EQ(db_util_volume_number("s"), -1);
}

// ---------------------------------------------------------------------------
// Serial of an attached disk

TEST(HistorySerial, SerialOfAttachedDiskIsFoundByItsDeviceName) {
    testing_support::Seams seams;
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    usbmgr::copy_str(usb_physical_info[3].attach_device, "sdb");
    usbmgr::copy_str(usb_physical_info[3].serial_number, "SERIAL-B");
    char out[64] = {};
    EXPECT_EQ(db_util_get_device_serial_number("sdb", out), 0);
    EXPECT_STREQ(out, "SERIAL-B");
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
}

TEST(HistorySerial, SerialNotFoundLooksLikeFoundWhenLastSlotIsFree) {
    testing_support::Seams seams;
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    usbmgr::copy_str(usb_physical_info[0].attach_device, "sda");
    usbmgr::copy_str(usb_physical_info[0].serial_number, "A");
    char out[64] = {};
    EXPECT_EQ(db_util_get_device_serial_number("sdb", out), 0);
    EXPECT_STREQ(out, "");
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
}

TEST(HistorySerial, SerialNotFoundAnswersWithFirstCharacterOfLastSlot) {
    testing_support::Seams seams;
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
    usbmgr::copy_str(usb_physical_info[24].attach_device, "sdy");
    char out[64] = {};
    EXPECT_EQ(db_util_get_device_serial_number("sdb", out), 's');
    EXPECT_STREQ(out, "");
    std::memset(usb_physical_info, 0, sizeof usb_physical_info);
}

// ---------------------------------------------------------------------------
// Names and enables

TEST(HistoryGetters, VolumeNameAndPhysicalNameOfARecord) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=Disk A", "USBMGR.0.NAME.0=first",
                   "USBMGR.0.ENABLE.0=1", "USBMGR.0.NAME.1=second=half", "USBMGR.0.ENABLE.1=0"});
    char out[64] = {};
    EXPECT_EQ(db_util_get_tr140_physical_name("A", out), 0);
    EXPECT_STREQ(out, "Disk A");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(db_util_get_tr140_volume_name("sda2", "A", out), 0);
    EXPECT_STREQ(out, "second=half");
    EXPECT_EQ(db_util_get_tr140_volume_status("sda1", "A"), 1);
    EXPECT_EQ(db_util_get_tr140_volume_status("sda2", "A"), 0);
    EXPECT_EQ(db_util_get_tr140_volume_status("sda3", "A"), -1);
}

TEST(HistoryGetters, VolumeStatusOfStoredDoubleZeroIsEnabled) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=00"});
    EXPECT_EQ(db_util_get_tr140_volume_status("sda1", "A"), 1);
}

TEST(HistoryGetters, UnknownSerialFindsNothingAndLeavesBufferAlone) {
    testing_support::Seams seams;
    write_history(record(0, "A", 1));
    char out[64] = "keep";
    EXPECT_EQ(db_util_get_tr140_physical_name("Z", out), -1);
    EXPECT_EQ(db_util_get_tr140_volume_name("sda1", "Z", out), -1);
    EXPECT_STREQ(out, "keep");
    EXPECT_EQ(db_util_get_tr140_volume_status("sda1", "Z"), -1);
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST(HistoryGetters, MissingHistoryFileLogsAndFindsNothing) {
    testing_support::Seams seams;
    char out[64] = "keep";
    EXPECT_EQ(db_util_get_tr140_volume_name("sda1", "A", out), -1);
    EXPECT_EQ(db_util_get_tr140_physical_name("A", out), -1);
    EXPECT_EQ(db_util_get_tr140_volume_status("sda1", "A"), -1);
    EXPECT_STREQ(out, "keep");
    EXPECT_EQ(fake::log_texts(), (Lines(3, "File /var/config/tr140.conf not found ...")));
}

TEST(HistoryGetters, FoundFlagIsNeverClearedSoAMissingLineIsTakenFromALaterRecord) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.NAME.0=a0", "USBMGR.0.ENABLE.0=1",
                   "USBMGR.1.SERIAL_NUMBER=B", "USBMGR.1.PNAME=pb", "USBMGR.1.NAME.0=b0", "USBMGR.1.NAME.1=b1",
                   "USBMGR.1.ENABLE.1=0"});
    char out[64] = {};
    EXPECT_EQ(db_util_get_tr140_physical_name("A", out), 0);
    EXPECT_STREQ(out, "pb");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(db_util_get_tr140_volume_name("sda1", "A", out), 0);
    EXPECT_STREQ(out, "a0");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(db_util_get_tr140_volume_name("sda2", "A", out), 0);
    EXPECT_STREQ(out, "b1");
    EXPECT_EQ(db_util_get_tr140_volume_status("sda2", "A"), 0);
}

TEST(HistoryGetters, LongStoredNameIsCutToTheCallersBuffer) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=" + std::string(100, 'n')});
    char out[80];
    std::memset(out, 'Z', sizeof out);
    EXPECT_EQ(db_util_get_tr140_physical_name("A", out), 0);
    EXPECT_EQ(std::string(out), std::string(63, 'n'));
    EXPECT_EQ(out[64], 'Z');
}

// ---------------------------------------------------------------------------
// Setters

TEST(HistorySetters, SetVolumeInfoReplacesNameAndEnableOfThatVolumeOnly) {
    testing_support::Seams seams;
    write_history(join({record(0, "A", 2), record(1, "B", 2)}));
    EXPECT_EQ(db_util_set_tr140_volume_info("B", "sdb2", 0, "Photos"), -1);
    EXPECT_EQ(history(), join({record(0, "A", 2),
                               Lines{"USBMGR.1.SERIAL_NUMBER=B", "USBMGR.1.PNAME=", "USBMGR.1.NAME.0=",
                                     "USBMGR.1.ENABLE.0=1", "USBMGR.1.NAME.1=Photos", "USBMGR.1.ENABLE.1=0"}}));
    // The storage commands hand off themselves.
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST(HistorySetters, SetVolumeInfoWithEmptyNameChangesOnlyTheEnable) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=Music", "USBMGR.0.ENABLE.0=1"});
    db_util_set_tr140_volume_info("A", "sda1", 0, "");
    EXPECT_EQ(history(),
              (Lines{"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=Music", "USBMGR.0.ENABLE.0=0"}));
}

TEST(HistorySetters, SetVolumeInfoEndsAtTheEnableLineSoLaterRecordsStayAlone) {
    testing_support::Seams seams;
    write_history(join({record(0, "A", 1), record(1, "B", 1)}));
    db_util_set_tr140_volume_info("A", "sda1", 0, "x");
    EXPECT_EQ(history(), join({Lines{"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=x",
                                     "USBMGR.0.ENABLE.0=0"},
                               record(1, "B", 1)}));
}

TEST(HistorySetters, SetVolumeInfoOfUnknownSerialRewritesTheFileUnchanged) {
    testing_support::Seams seams;
    write_history(record(0, "A", 1));
    db_util_set_tr140_volume_info("Z", "sda1", 0, "x");
    EXPECT_EQ(history(), record(0, "A", 1));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST(HistorySetters, SetVolumeInfoKeepsANewlineInTheNameFromSplittingTheLine) {
    testing_support::Seams seams;
    write_history(record(0, "A", 1));
    db_util_set_tr140_volume_info("A", "sda1", 1, "a\nUSBMGR.0.PNAME=b");
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=a_USBMGR.0.PNAME=b",
                                "USBMGR.0.ENABLE.0=1"}));
}

TEST(HistorySetters, NameThatWouldNotFitALineLeavesTheOldLine) {
    testing_support::Seams seams;
    write_history(record(0, "A", 1));
    db_util_set_tr140_volume_info("A", "sda1", 0, std::string(120, 'n').c_str());
    EXPECT_EQ(history(),
              (Lines{"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=", "USBMGR.0.NAME.0=", "USBMGR.0.ENABLE.0=0"}));
}

TEST(HistorySetters, SetPhysicalNameReplacesThePnameEvenWithAnEmptyName) {
    testing_support::Seams seams;
    write_history(join({record(0, "A", 1), record(1, "B", 1)}));
    db_util_set_tr140_physical_name("B", "Backup");
    EXPECT_EQ(history(), join({record(0, "A", 1), Lines{"USBMGR.1.SERIAL_NUMBER=B", "USBMGR.1.PNAME=Backup",
                                                        "USBMGR.1.NAME.0=", "USBMGR.1.ENABLE.0=1"}}));
    db_util_set_tr140_physical_name("B", "");
    EXPECT_EQ(history(), join({record(0, "A", 1), record(1, "B", 1)}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
}

TEST(HistorySetters, SettersWithoutHistoryFileChangeNothing) {
    testing_support::Seams seams;
    EXPECT_EQ(db_util_set_tr140_volume_info("A", "sda1", 0, "x"), -1);
    EXPECT_EQ(db_util_set_tr140_physical_name("A", "x"), -1);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(testing_support::file_exists(TR140_CONF_PATH));
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

// ---------------------------------------------------------------------------
// Lines cut short or holding odd bytes

TEST(HistoryFile, AppendAfterLastLineWithoutNewlineStartsOnAFreshLine) {
    testing_support::Seams seams;
    set_history(5);
    // Power lost while the last line was written: its newline is missing.
    testing_support::write_file(TR140_CONF_PATH,
                                "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1");
    db_util_tr140_conf_record_new_sn("B", 1);
    EXPECT_EQ(history(), join({record(0, "A", 1), record(1, "B", 1)}));
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("B"), 1);
}

TEST(HistoryFile, AppendAfterCompleteLastLineAddsNoEmptyLine) {
    testing_support::Seams seams;
    set_history(5);
    write_history(record(0, "A", 1));
    db_util_tr140_conf_record_new_sn("B", 1);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH),
              "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1\n"
              "USBMGR.1.SERIAL_NUMBER=B\nUSBMGR.1.PNAME=\nUSBMGR.1.NAME.0=\nUSBMGR.1.ENABLE.0=1\n");
}

TEST(HistoryFile, KeptLineHoldingANulByteIsCopiedByteForByte) {
    testing_support::Seams seams;
    const std::string odd("USBMGR.0.PNAME=a\0b\n", 19);
    const std::string text = "USBMGR.0.SERIAL_NUMBER=A\n" + odd + "USBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1\n" +
                             "USBMGR.1.SERIAL_NUMBER=B\nUSBMGR.1.PNAME=\n";
    testing_support::write_file(TR140_CONF_PATH, text);
    db_util_set_tr140_physical_name("B", "Backup");
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH),
              "USBMGR.0.SERIAL_NUMBER=A\n" + odd + "USBMGR.0.NAME.0=\nUSBMGR.0.ENABLE.0=1\n" +
                  "USBMGR.1.SERIAL_NUMBER=B\nUSBMGR.1.PNAME=Backup\n");
}

TEST(HistoryFile, DeleteKeepsLinesWithNulBytesAndLinesLongerThanOneRead) {
    testing_support::Seams seams;
    const std::string nul("junk\0junk\n", 10);
    const std::string longline = "USBMGR.1.NAME.0=" + std::string(300, 'x') + "\n";
    testing_support::write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=A\n" + nul + longline +
                                                     "USBMGR.0.PNAME=\nUSBMGR.1.SERIAL_NUMBER=B\n");
    db_util_tr140_conf_delete_device(0);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH), nul + longline + "USBMGR.1.SERIAL_NUMBER=B\n");
}

// Found by fuzzing: the tail of a long line of device 1 reads as a line of
// device 0; deleting device 0 dropped the tail with the line's newline.
TEST(HistoryFile, DeleteKeepsALongLineWholeWhenItsTailReadsAsALineOfTheDeletedDevice) {
    testing_support::Seams seams;
    const std::string longline = "USBMGR.1.PNAME=" + std::string(240, 'x') + "USBMGR.0.NAME.0=y\n";
    testing_support::write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.1.SERIAL_NUMBER=B\n" + longline +
                                                     "USBMGR.1.NAME.0=\nUSBMGR.1.ENABLE.0=1\n");
    db_util_tr140_conf_delete_device(0);
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH),
              "USBMGR.1.SERIAL_NUMBER=B\n" + longline + "USBMGR.1.NAME.0=\nUSBMGR.1.ENABLE.0=1\n");
}

TEST(HistoryFile, SetterOnFileWhoseLastLineHasNoNewlineLeavesItAsItWas) {
    testing_support::Seams seams;
    testing_support::write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=");
    db_util_set_tr140_volume_info("A", "sda1", 0, "x");
    // The cut NAME line has a new value now; nothing is glued to it.
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH),
              "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.PNAME=\nUSBMGR.0.NAME.0=x\n");
}

// ---------------------------------------------------------------------------
// The shared line filter

TEST(HistoryFilter, KeepsDropsReplacesAndInsertsAsTheFilterDecides) {
    testing_support::Seams seams;
    write_history(join({record(0, "A", 1), record(1, "B", 1)}));
    EXPECT_EQ(db_util_tr140_conf_filter_lines([](const Tr140FilterLine& line, Tr140FilterOut& out) {
                  if (line.parts.device_id == 1) return;  // dropped
                  if (std::strcmp(line.key, "USBMGR.0.PNAME") == 0) {
                      out.line("USBMGR.0.PNAME=%s\n", "Disk");
                      return;
                  }
                  out.keep(line);
                  if (std::strcmp(line.key, "USBMGR.0.ENABLE.0") == 0)
                      out.line("USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.%d\n", 3);
              }),
              0);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=A", "USBMGR.0.PNAME=Disk", "USBMGR.0.NAME.0=",
                                "USBMGR.0.ENABLE.0=1",
                                "USBMGR.0.USER_ACCESS.0.USERREFERENCE.0=StorageService.0.UserAccess.3"}));
    EXPECT_EQ(seams.runner.texts(), (Lines{}));
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

TEST(HistoryFilter, LineInsertedAfterALastLineWithoutNewlineStartsOnAFreshLine) {
    testing_support::Seams seams;
    testing_support::write_file(TR140_CONF_PATH, "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.ENABLE.0=1");
    db_util_tr140_conf_filter_lines([](const Tr140FilterLine& line, Tr140FilterOut& out) {
        out.keep(line);
        if (line.parts.item == std::string("ENABLE")) out.line("USBMGR.0.USER_ACCESS.0.PERMISSIONS.0=%d\n", 2);
    });
    EXPECT_EQ(testing_support::read_file(TR140_CONF_PATH),
              "USBMGR.0.SERIAL_NUMBER=A\nUSBMGR.0.ENABLE.0=1\nUSBMGR.0.USER_ACCESS.0.PERMISSIONS.0=2\n");
}

TEST(HistoryFilter, LineThatWouldNotFitIsNotWritten) {
    testing_support::Seams seams;
    write_history({"USBMGR.0.SERIAL_NUMBER=A"});
    bool written = true;
    db_util_tr140_conf_filter_lines([&](const Tr140FilterLine& line, Tr140FilterOut& out) {
        out.keep(line);
        written = out.line("USBMGR.0.PNAME=%s\n", std::string(120, 'n').c_str());
    });
    EXPECT_FALSE(written);
    EXPECT_EQ(history(), (Lines{"USBMGR.0.SERIAL_NUMBER=A"}));
}

TEST(HistoryFilter, MissingHistoryFileChangesNothing) {
    testing_support::Seams seams;
    int calls = 0;
    EXPECT_EQ(db_util_tr140_conf_filter_lines([&](const Tr140FilterLine&, Tr140FilterOut&) { ++calls; }), -1);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_FALSE(testing_support::temp_left_beside(TR140_CONF_PATH));
}

// ---------------------------------------------------------------------------
// Walks over ids bounded by the file, not by the ids' values

TEST(HistoryKeys, DeviceIdBySerialWithIdsOfMinAndMaxIntAnswersAtOnce) {
    testing_support::Seams seams;
    write_history({"USBMGR.-2147483648.SERIAL_NUMBER=A", "USBMGR.5.SERIAL_NUMBER=C",
                   "USBMGR.2147483647.SERIAL_NUMBER=B"});
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("B"), INT_MAX);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("A"), INT_MIN);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("C"), 5);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("Z"), -1);
}

TEST(HistoryKeys, DeviceIdBySerialAnswersTheLowestIdWhoseFirstKeyLineHoldsIt) {
    testing_support::Seams seams;
    // Id 1's key answers X (its first line); 01 is not the key of id 1.
    write_history({"USBMGR.0.PNAME=", "USBMGR.1.SERIAL_NUMBER=X", "USBMGR.4.SERIAL_NUMBER=B",
                   "USBMGR.1.SERIAL_NUMBER=B", "USBMGR.01.SERIAL_NUMBER=B", "USBMGR.3.SERIAL_NUMBER=B",
                   "USBMGR.9.PNAME="});
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("B"), 3);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("X"), 1);
}

TEST(HistoryKeys, DeviceIdBySerialOutsideTheIdsOfFirstAndLastLineIsNotFound) {
    testing_support::Seams seams;
    write_history({"USBMGR.2.SERIAL_NUMBER=A", "USBMGR.7.SERIAL_NUMBER=B", "USBMGR.5.PNAME="});
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("A"), 2);
    EXPECT_EQ(db_util_get_tr140_device_id_by_serial_number("B"), -1);
}

TEST(HistoryKeys, FindSerialWithHistoryCapacityOfMaxIntAnswersAtOnce) {
    testing_support::Seams seams;
    set_history(INT_MAX);
    write_history(join({record(7, "A", 1), record(2147483000, "B", 1)}));
    EXPECT_EQ(db_util_tr140_conf_find_sn("A"), 7);
    EXPECT_EQ(db_util_tr140_conf_find_sn("B"), 2147483000);
    EXPECT_EQ(db_util_tr140_conf_find_sn("Z"), -1);
}

TEST(HistoryKeys, CountVolumesWithHistoryCapacityOfMaxIntCountsTheNames) {
    testing_support::Seams seams;
    set_history(INT_MAX);
    write_history(record(3, "A", 3));
    EXPECT_EQ(db_util_tr140_conf_count_volumes(3), 3);
    EXPECT_EQ(db_util_tr140_conf_count_volumes(4), 0);
}

TEST(HistoryRecord, NewDiskWithHistoryCapacityOfMaxIntIsRecordedAtOnce) {
    testing_support::Seams seams;
    set_history(INT_MAX);
    write_history(record(5, "A", 1));
    db_util_tr140_conf_record_new_sn("B", 1);
    db_util_tr140_conf_record_new_sn("A", 1);
    EXPECT_EQ(history(), join({record(5, "A", 1), record(6, "B", 1)}));
}

TEST(HistoryRecord, FirstLineWithIdOfMinIntCountsAsAFirstId) {
    testing_support::Seams seams;
    set_history(INT_MAX);
    write_history({"USBMGR.-2147483648.SERIAL_NUMBER=A", "USBMGR.-2147483648.PNAME=", "USBMGR.3.PNAME="});
    db_util_tr140_conf_record_new_sn("B", 0);
    // 3 - (-2147483648) + 1 fills the capacity: the first record goes, B follows the last line.
    EXPECT_EQ(history(), (Lines{"USBMGR.3.PNAME=", "USBMGR.4.SERIAL_NUMBER=B", "USBMGR.4.PNAME="}));
}
