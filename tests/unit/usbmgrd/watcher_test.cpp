// The folder watcher: inotify events of folders on mounted volumes become
// a folder change notification at once.
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fixture.h"
#include "platform_fake.h"
#include "usbmgrd/usbmgrd.h"

using testing_support::pending_kinds;
using Lines = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

namespace {

// One inotify event as the kernel lays it out: header, then the name padded
// with NULs to len bytes.
void append_event(std::vector<char>& buf, uint32_t mask, const std::string& name, int wd = 1) {
    inotify_event ev{};
    ev.wd = wd;
    ev.mask = mask;
    ev.len = name.empty() ? 0 : static_cast<uint32_t>((name.size() + 1 + 15) / 16 * 16);
    const char* p = reinterpret_cast<const char*>(&ev);
    buf.insert(buf.end(), p, p + sizeof ev);
    std::vector<char> field(ev.len, '\0');
    std::copy(name.begin(), name.end(), field.begin());
    buf.insert(buf.end(), field.begin(), field.end());
}

class FolderWatcher : public testing_support::DaemonTest {
protected:
    FolderWatcher() { testing_support::use_storage_settings(); }
};

}  // namespace


// Every rebuild of the model logs the tree (empty here: nothing attached,
// no Samba users) and ends with the device tables.
const Lines kRebuild = {
    "allocate physicalmedium = (nil), size = 0",
    "allocate logicalvolume = (nil), size = 0",
    "=========== PhysicalMedium ================",
    "=========== LogicalVolume ================\n",
    "=========== UserAccount ================\n",
    "",
    "=========== usb_physical_info ================\n",
    "=========== usb_volume_info ================\n",
};

Lines lines_of(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

TEST_F(FolderWatcher, FolderNamedMusicCreatedSendsKindTenAtOnce) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_EQ(fake::log_texts(), lines_of({
                                     {"event->name = Music, event->mask = 0x40000100\n"},
                                     kRebuild,
                                     {"1-0 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE"},
                                 }));
    EXPECT_TRUE(pending_kinds().empty());
    EXPECT_TRUE(seams.clock.alarms().empty());
}

TEST_F(FolderWatcher, FolderNamedDotCacheCausesNoNotification) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, ".cache");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderWatcher, PlainFileEventsAreIgnored) {
    std::vector<char> buf;
    append_event(buf, IN_CREATE, "song.mp3");
    append_event(buf, IN_DELETE, "song.mp3");
    append_event(buf, IN_MOVED_TO, "film.mkv");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
    EXPECT_TRUE(fake::log_texts().empty());
}

TEST_F(FolderWatcher, FolderDeletedOrMovedInAlsoSendsKindTen) {
    std::vector<char> deleted;
    append_event(deleted, IN_ISDIR | IN_DELETE, "Photos");
    usbmgr_handle_inotify_events(deleted.data(), deleted.size());
    std::vector<char> moved;
    append_event(moved, IN_ISDIR | IN_MOVED_TO, "Videos");
    usbmgr_handle_inotify_events(moved.data(), moved.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10, 10}));
    EXPECT_TRUE(fake::logged("event->name = Photos, event->mask = 0x40000200\n"));
    EXPECT_TRUE(fake::logged("event->name = Videos, event->mask = 0x40000080\n"));
}

TEST_F(FolderWatcher, OtherMasksAndEmptyNamesAreIgnored) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_MOVED_FROM, "Old");
    append_event(buf, IN_ISDIR | IN_CREATE | IN_Q_OVERFLOW, "Odd");
    append_event(buf, IN_ISDIR | IN_CREATE, "");
    append_event(buf, IN_IGNORED, "");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, TwoFolderEventsInOneReadGiveTwoNotifications) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    append_event(buf, IN_CREATE, "notes.txt");
    append_event(buf, IN_ISDIR | IN_CREATE, ".Trash");
    append_event(buf, IN_ISDIR | IN_DELETE, "Docs");
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10, 10}));
    EXPECT_EQ(fake::log_texts(), lines_of({
                                     {"event->name = Music, event->mask = 0x40000100\n"},
                                     kRebuild,
                                     {"1-0 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE"},
                                     {"event->name = Docs, event->mask = 0x40000200\n"},
                                     kRebuild,
                                     {"2-1 : EVT BUFFER - USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE"},
                                 }));
}

TEST_F(FolderWatcher, TruncatedBufferIsHandledUpToItsLastWholeEvent) {
    std::vector<char> buf;
    append_event(buf, IN_ISDIR | IN_CREATE, "Music");
    const std::size_t whole = buf.size();
    append_event(buf, IN_ISDIR | IN_CREATE, "Pictures");
    // Cut inside the second event's name, then inside its header.
    for (std::size_t len : {buf.size() - 1, whole + sizeof(inotify_event) - 1, whole + 3}) {
        fake::reset();
        std::vector<char> cut(buf.begin(), buf.begin() + static_cast<long>(len));
        usbmgr_handle_inotify_events(cut.data(), cut.size());
        EXPECT_EQ(fake::sent_kinds(), (Kinds{10})) << len;
    }
    fake::reset();
    std::vector<char> tiny(buf.begin(), buf.begin() + 5);
    usbmgr_handle_inotify_events(tiny.data(), tiny.size());
    usbmgr_handle_inotify_events(buf.data(), 0);
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, NameFillingItsWholeFieldWithoutATerminatorStaysBounded) {
    std::vector<char> buf;
    inotify_event ev{};
    ev.wd = 1;
    ev.mask = IN_ISDIR | IN_CREATE;
    ev.len = 16;
    const char* p = reinterpret_cast<const char*>(&ev);
    buf.insert(buf.end(), p, p + sizeof ev);
    const std::string name = "ABCDEFGHIJKLMNOP";
    buf.insert(buf.end(), name.begin(), name.end());
    usbmgr_handle_inotify_events(buf.data(), buf.size());
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_TRUE(fake::logged("event->name = ABCDEFGHIJKLMNOP, event->mask = 0x40000100\n"));
}

TEST_F(FolderWatcher, WatchesOfVolumesInDevFolderAreAddedAndRemovedWithoutAnInotifyInstance) {
    const pollfd saved = pollfds[0];
    testing_support::write_file("/var/dev/sda", "");
    testing_support::write_file("/var/dev/sda1", "");
    testing_support::write_file("/var/dev/sda2", "");
    testing_support::write_file("/var/dev/sdb1", "");
    for (int fd : {-1, 0}) {
        pollfds[0].fd = fd;
        usbmgr_add_folder_watches();
        usbmgr_remove_folder_watches();
    }
    pollfds[0] = saved;
    EXPECT_TRUE(seams.runner.texts().empty());
    EXPECT_TRUE(fake::sent_kinds().empty());
}

TEST_F(FolderWatcher, FolderMadeOnAWatchedVolumeReachesTheHandlerAsKindTen) {
    const pollfd saved = pollfds[0];
    pollfds[0].fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(pollfds[0].fd, 0);
    testing_support::write_file("/var/dev/sda1", "");
    ASSERT_EQ(mkdir("/tmp/disk", 0775), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1", 0775), 0);

    usbmgr_add_folder_watches();
    ASSERT_EQ(mkdir("/tmp/disk/sda1/Music", 0775), 0);
    ASSERT_EQ(mkdir("/tmp/disk/sda1/.cache", 0775), 0);
    alignas(inotify_event) char buf[4096];
    ssize_t n = read(pollfds[0].fd, buf, sizeof buf);
    ASSERT_GT(n, 0);
    usbmgr_handle_inotify_events(buf, static_cast<std::size_t>(n));
    EXPECT_EQ(fake::sent_kinds(), (Kinds{10}));
    EXPECT_TRUE(fake::logged("event->name = Music, event->mask = 0x40000100\n"));

    usbmgr_remove_folder_watches();
    close(pollfds[0].fd);
    pollfds[0] = saved;
}
