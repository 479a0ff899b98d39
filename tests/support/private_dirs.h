// A private /tmp and /var for test and benchmark programs.
#ifndef USBMGR_PRIVATE_DIRS_H
#define USBMGR_PRIVATE_DIRS_H

namespace testing_support {

// Enters a mount namespace of its own (and a user namespace when not root)
// with tmpfs over /tmp and /var, and makes /var/config and /var/dev, so that
// the daemon's fixed paths are private to the calling program. False, with
// a message on stderr, when that cannot be had. Call while single-threaded.
bool enter_private_dirs();

}  // namespace testing_support

#endif
