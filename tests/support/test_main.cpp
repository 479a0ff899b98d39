// Unit tests run in a mount namespace of their own (and a user namespace
// when not root) with tmpfs over /tmp and /var, so that the daemon's fixed
// paths (/var/config, /var/dev, /tmp/usb) are private to the test run.
#include <cstdio>

#include <gtest/gtest.h>

#include "private_dirs.h"
#include "test_support.h"

int main(int argc, char** argv) {
    // Read before /tmp and /var are hidden: the checkout may live there.
    testing_support::factory_settings();
    if (!testing_support::enter_private_dirs()) {
        std::fprintf(stderr, "cannot make the private /tmp and /var the tests need\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
