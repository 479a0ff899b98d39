#include "test_support.h"

#include <dirent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>

#include "platform_fake.h"

namespace testing_support {

usbmgr::RunResult FakeRunner::start_and_wait(const usbmgr::CommandLine& cmd, bool capture,
                                             const usbmgr::StartedFn& started) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back({cmd.text, capture, cmd.argv.empty(), cmd.argv});
    }
    usbmgr::RunResult r;
    if (fail_start || !cmd.valid) return r;
    auto report = [&] {
        if (started) started();
        if (while_running) while_running(cmd.text);
    };
    if (pass_through && pass_through(cmd.text)) return real_.run(cmd, capture, report);
    r.started = true;
    report();
    if (holds(cmd.text)) wait_while_held();
    if (respond) r.output = respond(cmd.text);
    return r;
}

void FakeRunner::hold(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(hold_mutex_);
    hold_prefixes_.push_back(prefix);
}

bool FakeRunner::holds(const std::string& text) const {
    std::lock_guard<std::mutex> lock(hold_mutex_);
    for (const auto& p : hold_prefixes_)
        if (text.rfind(p, 0) == 0) return true;
    return false;
}

void FakeRunner::wait_while_held() {
    std::unique_lock<std::mutex> lock(hold_mutex_);
    const unsigned long ticket = next_ticket_++;
    waiting_.push_back(ticket);
    hold_cv_.notify_all();
    auto freed = [&] { return std::find(freed_.begin(), freed_.end(), ticket) != freed_.end(); };
    hold_cv_.wait(lock, [&] { return released_ || freed(); });
    waiting_.erase(std::find(waiting_.begin(), waiting_.end(), ticket));
    if (auto it = std::find(freed_.begin(), freed_.end(), ticket); it != freed_.end()) freed_.erase(it);
    hold_cv_.notify_all();
}

void FakeRunner::let_end(int count) {
    std::lock_guard<std::mutex> lock(hold_mutex_);
    for (unsigned long ticket : waiting_) {
        if (count <= 0) break;
        if (std::find(freed_.begin(), freed_.end(), ticket) != freed_.end()) continue;
        freed_.push_back(ticket);
        --count;
    }
    hold_cv_.notify_all();
}

void FakeRunner::release() {
    std::lock_guard<std::mutex> lock(hold_mutex_);
    released_ = true;
    hold_cv_.notify_all();
}

std::size_t FakeRunner::held() const {
    std::lock_guard<std::mutex> lock(hold_mutex_);
    return waiting_.size() - freed_.size();
}

bool FakeRunner::wait_held(std::size_t count, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(hold_mutex_);
    return hold_cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                            [&] { return waiting_.size() - freed_.size() == count; });
}

std::vector<std::string> FakeRunner::texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (const auto& c : calls_) out.push_back(c.text);
    return out;
}

std::vector<FakeRunner::Call> FakeRunner::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void FakeRunner::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
}

void FakeClock::sleep_us(unsigned long us) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sleeps_.push_back(us);
    }
    if (on_sleep) on_sleep(us);
}

void FakeClock::arm_alarm(unsigned long us) {
    std::lock_guard<std::mutex> lock(mutex_);
    alarms_.push_back(us);
}

std::vector<unsigned long> FakeClock::sleeps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sleeps_;
}

std::vector<unsigned long> FakeClock::alarms() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return alarms_;
}

bool is_file_command(const std::string& text) {
    return text.rfind("cp ", 0) == 0 || text.rfind("mv ", 0) == 0 || text.rfind("rm ", 0) == 0;
}

Seams::Seams() {
    fake::reset();
    empty_dir("/tmp");
    mkdir("/var/config", 0755);
    mkdir("/var/dev", 0775);
    empty_dir("/var/config");
    empty_dir("/var/dev");
    runner.pass_through = is_file_command;
    usbmgr::set_runner(&runner);
    usbmgr::set_clock(&clock);
}

Seams::~Seams() {
    usbmgr::set_runner(nullptr);
    usbmgr::set_clock(nullptr);
}

const std::string& factory_settings() {
    static const std::string text = read_file(std::string(USBMGR_SOURCE_DIR) + "/etc/usbmgr.conf");
    return text;
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

bool temp_left_beside(const std::string& target) {
    const std::size_t slash = target.rfind('/');
    const std::string folder = slash == 0 ? "/" : target.substr(0, slash);
    const std::string prefix = target.substr(slash + 1) + ".";
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
    if (!dir) return false;
    bool left = false;
    while (dirent* e = readdir(dir.get())) {
        const std::string name = e->d_name;
        if (name.size() == prefix.size() + 6 && name.rfind(prefix, 0) == 0) left = true;
    }
    return left;
}

ReadOnlyFolder::ReadOnlyFolder(std::string folder) : folder_(std::move(folder)) {
    if (mount(folder_.c_str(), folder_.c_str(), nullptr, MS_BIND, nullptr) != 0) return;
    ok_ = mount(nullptr, folder_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    if (!ok_) umount2(folder_.c_str(), MNT_DETACH);
}

ReadOnlyFolder::~ReadOnlyFolder() {
    if (ok_) umount2(folder_.c_str(), MNT_DETACH);
}

TmpfsMount::TmpfsMount(std::string folder) : folder_(std::move(folder)) {
    ok_ = mount("tmpfs", folder_.c_str(), "tmpfs", 0, "mode=0755,size=1m") == 0;
}

TmpfsMount::~TmpfsMount() {
    if (ok_) umount2(folder_.c_str(), MNT_DETACH);
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream f(path, std::ios::binary);
    std::string line;
    while (std::getline(f, line)) lines.push_back(line);
    return lines;
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void empty_dir(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    for (const auto& n : names) {
        std::string p = dir + "/" + n;
        struct stat st;
        if (lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            empty_dir(p);
            rmdir(p.c_str());
        } else {
            unlink(p.c_str());
        }
    }
}

}  // namespace testing_support
