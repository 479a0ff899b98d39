// The one fixture of the daemon's unit tests: every global back to its
// load-time state before and after each test, the seams installed.
#ifndef USBMGR_TEST_FIXTURE_H
#define USBMGR_TEST_FIXTURE_H

#include <gtest/gtest.h>

#include "fakes.h"
#include "test_support.h"

namespace testing_support {

// Each part of the daemon's state on its own, so a test that sets up one
// part by hand can reset just that part.
void reset_device_tables();
void reset_ring();
void reset_deferred_state();
void reset_settings();
void reset_daemon_state();
// Both storage service records back to all zero, their lists released.
void reset_storage_model();
// Every login thread stopped and joined, the slots cleared. A thread whose
// getty is held in the fake runner ends only once the runner lets it.
void reset_serial_logins();

// All of the above.
void reset_daemon_globals();

// Seams first (fake runner and clock, bus double cleared, private /tmp and
// /var emptied), then every global reset; the globals are reset again when
// the test ends, before the seams are taken down.
class DaemonTest : public ::testing::Test {
protected:
    DaemonTest();
    ~DaemonTest() override;

    // Answers the mount checks from `mounts`.
    void use_mount_table() { mounts.serve(seams.runner); }

    Seams seams;
    MountTable mounts;
};

}  // namespace testing_support

#endif
