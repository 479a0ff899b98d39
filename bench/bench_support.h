// Shared by the benchmark programs: a private /tmp and /var like the unit
// tests get, and a command runner whose every command costs one real
// fork and exec of /bin/true while the mount checks answer like a kernel
// whose mounts succeed.
#ifndef USBMGR_BENCH_SUPPORT_H
#define USBMGR_BENCH_SUPPORT_H

#include <atomic>
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

// Records every command line and runs /bin/true in its place (or nothing,
// with set_start_programs(false), which leaves only the caller's own work
// to measure); answer() then fills in the output the command would give.
class RecordingRunner : public usbmgr::CommandRunner {
public:
    std::vector<std::string> texts() const;
    // How many command lines so far start with prefix.
    std::size_t count_starting(const std::string& prefix) const;
    void clear_texts();
    void set_start_programs(bool start) { start_programs_ = start; }

protected:
    usbmgr::RunResult start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                     const usbmgr::StartedFn& started) final;
    // Called with the lock held, after the command line is recorded.
    virtual void answer(const std::string& text, usbmgr::RunResult& r) = 0;

    mutable std::mutex mutex_;

private:
    std::vector<std::string> texts_;
    std::atomic<bool> start_programs_{true};
    usbmgr::SystemRunner real_;
    usbmgr::CommandLine true_ = usbmgr::CommandLine::exec({"/bin/true"});
};

// Mount checks answer like a kernel whose mounts succeed.
class TrueRunner final : public RecordingRunner {
public:
    void clear();  // forgets the command lines and the mounts

protected:
    void answer(const std::string& text, usbmgr::RunResult& r) override;

private:
    std::set<std::string> mounted_;
};

// Attached storage for the model builder and the read commands:
// "df -m | grep NAME 2>&1" and "mount | grep NAME 2>&1" answer as the
// kernel's lines filtered by grep would, for the volumes plugged through
// plug_world.
class WorldRunner final : public RecordingRunner {
public:
    void add_volume(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        volumes_.insert(name);
    }

protected:
    void answer(const std::string& text, usbmgr::RunResult& r) override;

private:
    std::set<std::string> volumes_;
};

// Fills the device tables as the arrival handler would for `disks` disks
// (sda, sdb, ...) of `volumes_per_disk` partitions each, makes their nodes
// in /var/dev and `folders` top folders in each volume under /tmp/disk,
// and tells the runner about the volumes. Returns the number of volumes.
int plug_world(WorldRunner& runner, int disks, int volumes_per_disk, int folders);

// Clears the device tables, the ring and the flags, and removes the history file.
void reset_daemon_state();
// Mount root /tmp/disk, history of 10, no automatic user access.
void use_settings();
// Samba and MiniDLNA enabled as in the factory settings, their files in /tmp.
void use_server_settings();

}  // namespace bench_support

#endif
