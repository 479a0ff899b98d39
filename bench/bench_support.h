// Shared by the benchmark programs: a private /tmp and /var like the unit
// tests get, and a command runner whose every command costs one real
// fork and exec of /bin/true while the mount checks answer like a kernel
// whose mounts succeed.
#ifndef USBMGR_BENCH_SUPPORT_H
#define USBMGR_BENCH_SUPPORT_H

#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "db_util/runner.h"

namespace bench_support {

// Mount namespace (plus a user namespace when not root) with tmpfs over
// /tmp and /var, so that the handlers' fixed paths are private. False, with
// a message on stderr, when that cannot be had.
bool isolate();

class TrueRunner final : public usbmgr::CommandRunner {
public:
    std::vector<std::string> texts() const;
    void clear();  // forgets the command lines and the mounts

protected:
    usbmgr::RunResult start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                     const usbmgr::StartedFn& started) override;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
    std::set<std::string> mounted_;
    usbmgr::SystemRunner real_;
    usbmgr::CommandLine true_ = usbmgr::CommandLine::exec({"/bin/true"});
};

// Clears the device tables, the ring and the flags, and removes the history file.
void reset_daemon_state();
// Mount root /tmp/disk, history of 10, no automatic user access.
void use_settings();

}  // namespace bench_support

#endif
