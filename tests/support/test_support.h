// Seams and helpers shared by the unit tests.
#ifndef USBMGR_TEST_SUPPORT_H
#define USBMGR_TEST_SUPPORT_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "db_util/clock.h"
#include "db_util/runner.h"

namespace testing_support {

// Records every command line; answers from `respond` (empty output by
// default). Commands for which `pass_through` says true really run (inside
// the test's private /tmp and /var).
class FakeRunner final : public usbmgr::CommandRunner {
public:
    struct Call {
        std::string text;
        bool capture;
        bool shell;
        std::vector<std::string> argv;
    };
    std::vector<std::string> texts() const;
    std::vector<Call> calls() const;
    void clear();

    std::function<std::string(const std::string&)> respond;
    std::function<bool(const std::string&)> pass_through;
    bool fail_start = false;  // every command fails to start
    // Runs inside each started command, after its start is reported and
    // before it ends: a test sees there what was logged while it ran.
    std::function<void(const std::string&)> while_running;

    // Commands whose text starts with prefix (a getty, which runs until its
    // user logs out) do not end, once started, until let_end lets them (the
    // count oldest of those held at that moment) or release lets every one
    // end, now and later.
    void hold(const std::string& prefix);
    void let_end(int count = 1);
    void release();
    // Commands being held now.
    std::size_t held() const;
    // Waits up to timeout_ms until exactly count commands are being held.
    bool wait_held(std::size_t count, int timeout_ms = 5000) const;

protected:
    // Reports the start (when the command starts) before it answers, as a
    // real command is started before it ends.
    usbmgr::RunResult start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                     const usbmgr::StartedFn& started) override;

private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    usbmgr::SystemRunner real_;

    bool holds(const std::string& text) const;
    void wait_while_held();
    mutable std::mutex hold_mutex_;
    mutable std::condition_variable hold_cv_;
    std::vector<std::string> hold_prefixes_;
    std::vector<unsigned long> waiting_;  // tickets of the held commands, oldest first
    std::vector<unsigned long> freed_;    // tickets let_end has let go
    unsigned long next_ticket_ = 0;
    bool released_ = false;
};

// Records sleeps and alarms, returns at once.
class FakeClock final : public usbmgr::Clock {
public:
    void sleep_us(unsigned long us) override;
    void arm_alarm(unsigned long us) override;
    std::vector<unsigned long> sleeps() const;
    std::vector<unsigned long> alarms() const;
    std::function<void(unsigned long)> on_sleep;  // runs inside each sleep

private:
    mutable std::mutex mutex_;
    std::vector<unsigned long> sleeps_;
    std::vector<unsigned long> alarms_;
};

// Installs a fake runner and clock for the test's lifetime and clears the
// bus double; empties the private /tmp and /var/config, /var/dev.
class Seams {
public:
    Seams();
    ~Seams();
    FakeRunner runner;
    FakeClock clock;
};

// True when the commands of the key=value rewrite (cp, mv, rm of the
// settings and history files) should really run.
bool is_file_command(const std::string& text);

// The factory settings file of the source tree, read once before the test
// program hides /tmp and /var (the checkout may live there).
const std::string& factory_settings();

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);
std::vector<std::string> read_lines(const std::string& path);
bool file_exists(const std::string& path);
// True when a new file of a replacement of target ("<target>.XXXXXX") was
// left in target's folder.
bool temp_left_beside(const std::string& target);
// Makes folder read-only (a read-only bind mount of itself) for its
// lifetime, so that nothing, root included, can make a file in it.
class ReadOnlyFolder {
public:
    explicit ReadOnlyFolder(std::string folder);
    ReadOnlyFolder(const ReadOnlyFolder&) = delete;
    ReadOnlyFolder& operator=(const ReadOnlyFolder&) = delete;
    ~ReadOnlyFolder();
    bool ok() const { return ok_; }

private:
    std::string folder_;
    bool ok_ = false;
};
// A small tmpfs mounted on folder for its lifetime: a mount point, as a
// volume's folder is once its disk is mounted.
class TmpfsMount {
public:
    explicit TmpfsMount(std::string folder);
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;
    ~TmpfsMount();
    bool ok() const { return ok_; }

private:
    std::string folder_;
    bool ok_ = false;
};
// Removes everything below dir, keeps dir.
void empty_dir(const std::string& dir);

}  // namespace testing_support

#endif
