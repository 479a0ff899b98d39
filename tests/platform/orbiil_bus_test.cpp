// liborbiil on a private dbus-daemon: commands, events, threading, loss of
// the bus, who may call and whose events count. Every test starts its own
// dbus-daemon in a temporary folder and points ORBIIL_BUS_ADDRESS at it; the
// bus lets every user in, so that the library's own checks are what stands
// between an unprivileged caller and the handlers.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orbiil.h"
#include "temp_dir.h"

namespace {

using namespace std::chrono_literals;

// Polls cond until it holds or the deadline passes.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds limit = 5000ms) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) return cond();
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class Pipe {
public:
    Pipe() {
        if (pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close_read();
        close_write();
    }
    int read_end() const { return fds_[0]; }
    int write_end() const { return fds_[1]; }
    void close_read() {
        if (fds_[0] >= 0) close(fds_[0]);
        fds_[0] = -1;
    }
    void close_write() {
        if (fds_[1] >= 0) close(fds_[1]);
        fds_[1] = -1;
    }

private:
    int fds_[2];
};

// Reads from fd until a full line or the deadline; the line without its end.
std::string read_line(int fd, std::chrono::milliseconds limit) {
    std::string text;
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return "";
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return "";
        char c;
        ssize_t n = read(fd, &c, 1);
        if (n <= 0) return "";
        if (c == '\n') return text;
        text.push_back(c);
    }
}

// Runs argv without a shell, as who when given, and returns its standard
// output (and its error too when both is set). Between fork and exec only
// system calls run.
struct Identity {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

std::string run_child(const std::vector<std::string>& args, const Identity* who, bool both, int* status) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    Pipe out;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out.write_end(), STDOUT_FILENO);
        if (both) dup2(out.write_end(), STDERR_FILENO);
        if (who != nullptr &&
            (setgroups(who->groups.size(), who->groups.data()) != 0 ||
             setresgid(who->gid, who->gid, who->gid) != 0 || setresuid(who->uid, who->uid, who->uid) != 0))
            _exit(126);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    out.close_write();
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(out.read_end(), buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    int st = 0;
    waitpid(pid, &st, 0);
    if (status) *status = st;
    return text;
}

// Runs argv without a shell and returns its standard output.
std::string run_capture(const std::vector<std::string>& args, int* status) {
    return run_child(args, nullptr, false, status);
}

// Runs argv without a shell as who (uid, primary gid and supplementary
// groups), and returns its standard output and error together.
std::string run_as(const Identity& who, const std::vector<std::string>& args, int* status) {
    return run_child(args, &who, true, status);
}

constexpr uid_t kNobody = 65534;

// The id of the group named name, if there is one.
std::optional<gid_t> group_id(const char* name) {
    std::vector<char> buf(16384);
    struct group gr {};
    struct group* found = nullptr;
    if (getgrnam_r(name, &gr, buf.data(), buf.size(), &found) != 0 || found == nullptr) return std::nullopt;
    return found->gr_gid;
}

// A dbus-daemon of our own, as our child, listening in a temporary folder
// that every user may reach, with a policy that lets every user connect,
// own any name and send anything.
class PrivateBus {
public:
    bool start() {
        if (dir_.path().empty()) return false;
        if (chmod(dir_.path().c_str(), 0755) != 0) return false;
        const std::string config = dir_.path() + "/bus.conf";
        {
            std::ofstream out(config);
            out << "<busconfig><type>session</type><listen>unix:dir=" << dir_.path()
                << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
                   "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                   "<allow own=\"*\"/></policy></busconfig>\n";
            if (!out) return false;
        }
        Pipe addr;
        std::string print = "--print-address=" + std::to_string(addr.write_end());
        std::vector<std::string> args = {"dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile", print};
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            // The address pipe must survive the exec.
            fcntl(addr.write_end(), F_SETFD, 0);
            int devnull = open("/dev/null", O_RDWR);
            if (devnull >= 0) {
                dup2(devnull, STDIN_FILENO);
                dup2(devnull, STDERR_FILENO);  // its fd-limit complaint is noise here
            }
            execvp(argv[0], argv.data());
            _exit(127);
        }
        addr.close_write();
        address_ = read_line(addr.read_end(), 10000ms);
        return !address_.empty();
    }

    // Ends the daemon (SIGTERM, or SIGKILL to simulate a crash) and reaps it.
    void stop(int sig = SIGTERM) {
        if (pid_ <= 0) return;
        kill(pid_, sig);
        int st;
        waitpid(pid_, &st, 0);
        pid_ = -1;
    }

    ~PrivateBus() { stop(); }
    const std::string& address() const { return address_; }

private:
    TempDir dir_{"orbiil-test"};
    pid_t pid_ = -1;
    std::string address_;
};

// What the handlers saw; handlers are plain functions, so this is global.
struct Recorder {
    std::mutex mu;
    std::condition_variable cv;
    int command_calls = 0;
    uint32_t command_len = 0;
    std::vector<uint8_t> command_request;
    struct Event {
        uint32_t id;
        std::vector<uint8_t> payload;
        bool slow_handler_ended;
    };
    std::vector<Event> events;
    bool slow_started = false;
    bool slow_release = false;
    bool slow_ended = false;

    void clear() {
        std::lock_guard<std::mutex> lk(mu);
        command_calls = 0;
        command_len = 0;
        command_request.clear();
        events.clear();
        slow_started = slow_release = slow_ended = false;
    }
    size_t event_count() {
        std::lock_guard<std::mutex> lk(mu);
        return events.size();
    }
};
Recorder g_rec;

constexpr uint8_t kReplyMark = 0xA5;

// Records the request, then answers with its own mark in every byte but the first.
int echo_handler(OrbIilHandle*, uint32_t, uint32_t len, void* payload) {
    std::lock_guard<std::mutex> lk(g_rec.mu);
    ++g_rec.command_calls;
    g_rec.command_len = len;
    auto* p = static_cast<uint8_t*>(payload);
    g_rec.command_request.assign(p, p + len);
    for (uint32_t i = 1; i < len; ++i) p[i] = kReplyMark;
    p[0] = static_cast<uint8_t>(p[0] + 1);
    return 0;
}

// Holds the dispatch thread until released (at most 10 s).
int slow_handler(OrbIilHandle*, uint32_t, uint32_t, void*) {
    std::unique_lock<std::mutex> lk(g_rec.mu);
    g_rec.slow_started = true;
    g_rec.cv.notify_all();
    g_rec.cv.wait_for(lk, 10s, [] { return g_rec.slow_release; });
    g_rec.slow_ended = true;
    return 0;
}

// Sends event 0 from inside a command handler, on the dispatch thread.
int notifying_handler(OrbIilHandle* handle, uint32_t, uint32_t len, void* payload) {
    uint32_t kind = 7;
    int r = OrbIilNotify(handle, 0, sizeof kind, &kind);
    if (len >= sizeof r) std::memcpy(payload, &r, sizeof r);
    return 0;
}

// Records whether the dispatch thread has the daemon's signals blocked.
std::atomic<int> g_signals_blocked{-1};
int mask_handler(OrbIilHandle*, uint32_t, uint32_t, void*) {
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    g_signals_blocked = sigismember(&set, SIGALRM) == 1 && sigismember(&set, SIGTERM) == 1 &&
                        sigismember(&set, SIGINT) == 1 && sigismember(&set, SIGCHLD) == 1;
    return 0;
}

// Tears its own connection down from the dispatch thread.
std::atomic<int> g_reset_result{-1};
int resetting_handler(OrbIilHandle* handle, uint32_t, uint32_t, void*) {
    g_reset_result = OrbIilReset(handle);
    return 0;
}

int event_handler(OrbIilHandle*, uint32_t id, uint32_t len, void* payload) {
    std::lock_guard<std::mutex> lk(g_rec.mu);
    auto* p = static_cast<uint8_t*>(payload);
    g_rec.events.push_back({id, std::vector<uint8_t>(p, p + len), g_rec.slow_ended});
    g_rec.cv.notify_all();
    return 0;
}

OrbIilEvtEntry event_entry(const char* src, uint32_t id) {
    OrbIilEvtEntry e{};
    std::strncpy(e.src, src, sizeof e.src - 1);
    e.id = id;
    e.handler = event_handler;
    return e;
}

class OrbIilBus : public ::testing::Test {
protected:
    void SetUp() override {
        g_rec.clear();
        ASSERT_FALSE(log_dir_.path().empty());
        log_file_ = log_dir_.path() + "/orbiil.log";
        setenv("ORBIIL_LOG_FILE", log_file_.c_str(), 1);
        OrbIilResetLog();
        ASSERT_TRUE(bus_.start()) << "dbus-daemon did not start";
        setenv("ORBIIL_BUS_ADDRESS", bus_.address().c_str(), 1);
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lk(g_rec.mu);
            g_rec.slow_release = true;
        }
        g_rec.cv.notify_all();
        for (OrbIilHandle* h : {&server_, &client_}) OrbIilReset(h);
        unsetenv("ORBIIL_BUS_ADDRESS");
        unsetenv("ORBIIL_CALLER_GROUP");
        bus_.stop();
        OrbIilResetLog();
        unsetenv("ORBIIL_LOG_FILE");
    }

    // The library's log lines holding text.
    std::vector<std::string> log_lines_with(const std::string& text) const {
        std::vector<std::string> lines;
        std::ifstream in(log_file_);
        for (std::string line; std::getline(in, line);)
            if (line.find(text) != std::string::npos) lines.push_back(line);
        return lines;
    }

    // Command 5 of SRV through dbus-send, run as who: its output.
    std::string call_as(const Identity& who, int* status) {
        return run_as(who,
                      {"dbus-send", "--bus=" + bus_.address(), "--print-reply", "--dest=org.orbiil.SRV",
                       "/org/orbiil/SRV", "org.orbiil.Daemon.Command", "uint32:5", "array:byte:1,2,3"},
                      status);
    }

    // An Event of SRV's path sent by busctl, a peer that owns no name;
    // to_client addresses it to CLI alone instead of to every subscriber.
    std::string forge_event(bool to_client, int* status) {
        std::vector<std::string> args = {"busctl", "--address=" + bus_.address(), "emit", "/org/orbiil/SRV",
                                         "org.orbiil.Daemon", "Event", "uay", "0", "4", "6", "6", "6", "6"};
        if (to_client) args.insert(args.begin() + 2, "--destination=org.orbiil.CLI");
        return run_capture(args, status);
    }

    // SRV serves command 5 (192 bytes) with the echo handler.
    void start_echo_server() {
        ASSERT_EQ(OrbIilInit(&server_, "SRV"), ORBIIL_OK);
        const OrbIilCmdEntry table[] = {{5, echo_handler, 192},    {9, slow_handler, 4},      {4, notifying_handler, 4},
                                        {20, mask_handler, 4},     {21, resetting_handler, 4}};
        ASSERT_EQ(OrbIilSetCmdHandler(&server_, table, 5), ORBIIL_OK);
    }
    void start_client() { ASSERT_EQ(OrbIilInit(&client_, "CLI"), ORBIIL_OK); }

    TempDir log_dir_{"orbiil-log"};
    std::string log_file_;
    PrivateBus bus_;
    OrbIilHandle server_{};
    OrbIilHandle client_{};
};

TEST_F(OrbIilBus, CommandRoundTripReturnsHandlersReplyInBufferOfDeclaredSize) {
    start_echo_server();
    start_client();
    uint8_t request[192];
    std::memset(request, 0x11, sizeof request);
    uint8_t reply[256] = {};
    uint32_t reply_len = 0;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 5, request, sizeof request, reply, sizeof reply, &reply_len), ORBIIL_OK);
    EXPECT_EQ(reply_len, 192u);
    EXPECT_EQ(reply[0], 0x12);
    for (uint32_t i = 1; i < 192; ++i) ASSERT_EQ(reply[i], kReplyMark) << "byte " << i;
    EXPECT_EQ(reply[192], 0);
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 1);
    EXPECT_EQ(g_rec.command_len, 192u);
}

TEST_F(OrbIilBus, ReplyIsCutToTheCallersBufferButReportsItsFullLength) {
    start_echo_server();
    start_client();
    uint8_t request[4] = {1, 2, 3, 4};
    uint8_t reply[8];
    std::memset(reply, 0xEE, sizeof reply);
    uint32_t reply_len = 0;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 5, request, sizeof request, reply, 4, &reply_len), ORBIIL_OK);
    EXPECT_EQ(reply_len, 192u);
    EXPECT_EQ(reply[0], 2);
    EXPECT_EQ(reply[3], kReplyMark);
    EXPECT_EQ(reply[4], 0xEE);
}

TEST_F(OrbIilBus, ShortRequestIsZeroPaddedToDeclaredSize) {
    start_echo_server();
    start_client();
    uint8_t request[10];
    std::memset(request, 0x77, sizeof request);
    uint8_t reply[192];
    uint32_t reply_len = 0;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 5, request, sizeof request, reply, sizeof reply, &reply_len), ORBIIL_OK);
    EXPECT_EQ(reply_len, 192u);
    std::lock_guard<std::mutex> lk(g_rec.mu);
    ASSERT_EQ(g_rec.command_request.size(), 192u);
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ(g_rec.command_request[i], 0x77) << "byte " << i;
    for (size_t i = 10; i < 192; ++i) ASSERT_EQ(g_rec.command_request[i], 0) << "byte " << i;
}

TEST_F(OrbIilBus, RequestLongerThanDeclaredAnswersMismatchCmdLenWithoutCallingHandler) {
    start_echo_server();
    start_client();
    uint8_t request[193] = {};
    uint8_t reply[256];
    uint32_t reply_len = 99;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 5, request, sizeof request, reply, sizeof reply, &reply_len),
              ORBIIL_MISMATCH_CMD_LEN);
    EXPECT_EQ(reply_len, 0u);
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 0);
}

TEST_F(OrbIilBus, UnknownCommandIdAnswersUnknownCmdWithEmptyReply) {
    start_echo_server();
    start_client();
    uint8_t request[4] = {};
    uint8_t reply[16];
    uint32_t reply_len = 99;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 13, request, sizeof request, reply, sizeof reply, &reply_len),
              ORBIIL_UNKNOWN_CMD);
    EXPECT_EQ(reply_len, 0u);
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 0);
}

TEST_F(OrbIilBus, CommandBeforeAnyTableAnswersUnknownCmd) {
    ASSERT_EQ(OrbIilInit(&server_, "SRV"), ORBIIL_OK);
    start_client();
    uint8_t request[4] = {};
    uint32_t reply_len = 99;
    EXPECT_EQ(OrbIilExecute(&client_, "SRV", 5, request, sizeof request, nullptr, 0, &reply_len), ORBIIL_UNKNOWN_CMD);
    EXPECT_EQ(reply_len, 0u);
}

TEST_F(OrbIilBus, ExecuteToUnownedNameAnswersUnknownDstId) {
    start_client();
    uint8_t request[4] = {};
    uint32_t reply_len = 99;
    EXPECT_EQ(OrbIilExecute(&client_, "NOBODY", 5, request, sizeof request, nullptr, 0, &reply_len),
              ORBIIL_UNKNOWN_DST_ID);
    EXPECT_EQ(reply_len, 0u);
}

TEST_F(OrbIilBus, NotifiedDeclaredEventReachesSubscribersHandlerWithPayload) {
    start_echo_server();
    start_client();
    ASSERT_EQ(OrbIilIssueEvent(&server_, 0, 4), ORBIIL_OK);
    const OrbIilEvtEntry table[] = {event_entry("SRV", 0)};
    ASSERT_EQ(OrbIilSetEvtHandler(&client_, table, 1), ORBIIL_OK);
    ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 0), ORBIIL_OK);

    const uint8_t payload[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    ASSERT_EQ(OrbIilNotify(&server_, 0, sizeof payload, payload), ORBIIL_OK);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    std::lock_guard<std::mutex> lk(g_rec.mu);
    ASSERT_EQ(g_rec.events.size(), 1u);
    EXPECT_EQ(g_rec.events[0].id, 0u);
    EXPECT_EQ(g_rec.events[0].payload, std::vector<uint8_t>(payload, payload + 4));
}

TEST_F(OrbIilBus, EventsNotSubscribedOrWithoutTableEntryAreDropped) {
    start_echo_server();
    start_client();
    for (uint32_t id : {1u, 2u, 3u}) ASSERT_EQ(OrbIilIssueEvent(&server_, id, 4), ORBIIL_OK);
    const OrbIilEvtEntry table[] = {event_entry("SRV", 1), event_entry("SRV", 3)};
    ASSERT_EQ(OrbIilSetEvtHandler(&client_, table, 2), ORBIIL_OK);
    ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 2), ORBIIL_OK);  // subscribed, no table entry
    ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 3), ORBIIL_OK);

    uint32_t value = 42;
    ASSERT_EQ(OrbIilNotify(&server_, 1, 4, &value), ORBIIL_OK);  // table entry, not subscribed
    ASSERT_EQ(OrbIilNotify(&server_, 2, 4, &value), ORBIIL_OK);
    ASSERT_EQ(OrbIilNotify(&server_, 3, 4, &value), ORBIIL_OK);
    // Signals of one sender arrive in order: once 3 is in, 1 and 2 would have been too.
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    std::lock_guard<std::mutex> lk(g_rec.mu);
    ASSERT_EQ(g_rec.events.size(), 1u);
    EXPECT_EQ(g_rec.events[0].id, 3u);
}

TEST_F(OrbIilBus, UndeclaredEventAnswersUnknownEvt) {
    start_echo_server();
    uint32_t value = 1;
    EXPECT_EQ(OrbIilNotify(&server_, 3, 4, &value), ORBIIL_UNKNOWN_EVT);
}

TEST_F(OrbIilBus, EventOfWrongLengthAnswersMismatchEvtLen) {
    start_echo_server();
    ASSERT_EQ(OrbIilIssueEvent(&server_, 0, 4), ORBIIL_OK);
    uint8_t payload[8] = {};
    EXPECT_EQ(OrbIilNotify(&server_, 0, 8, payload), ORBIIL_MISMATCH_EVT_LEN);
    EXPECT_EQ(OrbIilNotify(&server_, 0, 3, payload), ORBIIL_MISMATCH_EVT_LEN);
}

TEST_F(OrbIilBus, NotifyFromAnotherThreadArrivesWhileSlowHandlerRuns) {
    start_echo_server();
    start_client();
    ASSERT_EQ(OrbIilIssueEvent(&server_, 0, 4), ORBIIL_OK);
    const OrbIilEvtEntry table[] = {event_entry("SRV", 0)};
    ASSERT_EQ(OrbIilSetEvtHandler(&client_, table, 1), ORBIIL_OK);
    ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 0), ORBIIL_OK);

    std::atomic<int> code{-1};
    std::thread caller([&] {
        uint32_t request = 0;
        uint32_t reply_len = 0;
        code = OrbIilExecute(&client_, "SRV", 9, &request, sizeof request, nullptr, 0, &reply_len);
    });
    ASSERT_TRUE(wait_until([] {
        std::lock_guard<std::mutex> lk(g_rec.mu);
        return g_rec.slow_started;
    }));
    uint32_t kind = 3;
    EXPECT_EQ(OrbIilNotify(&server_, 0, sizeof kind, &kind), ORBIIL_OK);
    EXPECT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    {
        std::lock_guard<std::mutex> lk(g_rec.mu);
        ASSERT_EQ(g_rec.events.size(), 1u);
        EXPECT_FALSE(g_rec.events[0].slow_handler_ended);
        g_rec.slow_release = true;
    }
    g_rec.cv.notify_all();
    caller.join();
    EXPECT_EQ(code.load(), ORBIIL_OK);
}

TEST_F(OrbIilBus, HandlerMayNotifyOnItsOwnConnection) {
    start_echo_server();
    start_client();
    ASSERT_EQ(OrbIilIssueEvent(&server_, 0, 4), ORBIIL_OK);
    const OrbIilEvtEntry table[] = {event_entry("SRV", 0)};
    ASSERT_EQ(OrbIilSetEvtHandler(&client_, table, 1), ORBIIL_OK);
    ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 0), ORBIIL_OK);

    int32_t result = -1;
    uint32_t reply_len = 0;
    ASSERT_EQ(OrbIilExecute(&client_, "SRV", 4, nullptr, 0, &result, sizeof result, &reply_len), ORBIIL_OK);
    EXPECT_EQ(result, ORBIIL_OK);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.events[0].payload, std::vector<uint8_t>({7, 0, 0, 0}));
}

TEST_F(OrbIilBus, HandlersRunWithEverySignalBlocked) {
    start_echo_server();
    start_client();
    g_signals_blocked = -1;
    uint32_t reply_len = 0;
    ASSERT_EQ(OrbIilExecute(&client_, "SRV", 20, nullptr, 0, nullptr, 0, &reply_len), ORBIIL_OK);
    EXPECT_EQ(g_signals_blocked.load(), 1);
}

TEST_F(OrbIilBus, HandlerMayResetItsOwnConnection) {
    start_echo_server();
    start_client();
    g_reset_result = -1;
    uint32_t reply_len = 0;
    // The server leaves without answering: the bus tells the caller so.
    EXPECT_NE(OrbIilExecute(&client_, "SRV", 21, nullptr, 0, nullptr, 0, &reply_len), ORBIIL_OK);
    // The caller learns of the loss as the connection closes, before the reset returns.
    EXPECT_TRUE(wait_until([] { return g_reset_result.load() != -1; }));
    EXPECT_EQ(g_reset_result.load(), ORBIIL_OK);
    EXPECT_EQ(OrbIilIsRunning(&server_), 0);
    EXPECT_EQ(OrbIilIsRunning(&client_), 1);
}

TEST_F(OrbIilBus, BusctlIntrospectListsDaemonInterface) {
    start_echo_server();
    int status = -1;
    std::string out = run_capture(
        {"busctl", "--address=" + bus_.address(), "introspect", "org.orbiil.SRV", "/org/orbiil/SRV"}, &status);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(out.find("org.orbiil.Daemon"), std::string::npos) << out;
    EXPECT_NE(out.find(".Command"), std::string::npos) << out;
    EXPECT_NE(out.find(".Event"), std::string::npos) << out;
}

TEST_F(OrbIilBus, BusctlCallRunsCommand) {
    start_echo_server();
    int status = -1;
    std::string out = run_capture({"busctl", "--address=" + bus_.address(), "call", "org.orbiil.SRV",
                                   "/org/orbiil/SRV", "org.orbiil.Daemon", "Command", "uay", "13", "4", "0", "0",
                                   "0", "0"},
                                  &status);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(out, "uay 13 0\n");
}

TEST_F(OrbIilBus, KillingDbusDaemonStopsIsRunningWithinASecond) {
    start_echo_server();
    ASSERT_EQ(OrbIilIsRunning(&server_), 1);
    bus_.stop(SIGKILL);
    EXPECT_TRUE(wait_until([this] { return OrbIilIsRunning(&server_) == 0; }, 1000ms));
    EXPECT_EQ(OrbIilReset(&server_), ORBIIL_OK);
}

TEST_F(OrbIilBus, ResetStopsRunningAndSecondResetFails) {
    start_echo_server();
    EXPECT_EQ(OrbIilIsRunning(&server_), 1);
    EXPECT_EQ(OrbIilReset(&server_), ORBIIL_OK);
    EXPECT_EQ(OrbIilIsRunning(&server_), 0);
    EXPECT_NE(OrbIilReset(&server_), ORBIIL_OK);
    // The name is free again.
    EXPECT_EQ(OrbIilInit(&server_, "SRV"), ORBIIL_OK);
}

TEST_F(OrbIilBus, NotifyFromThreadsWhileResetRunsAnswersErrorCodesAndNeverTouchesFreedState) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    std::atomic<int> refused{0};
    std::atomic<int> unexpected{0};
    std::vector<std::thread> notifiers;
    // However the test ends, the notifiers stop before their counters go.
    struct Joiner {
        std::atomic<bool>& done;
        std::vector<std::thread>& threads;
        ~Joiner() {
            done = true;
            for (std::thread& t : threads)
                if (t.joinable()) t.join();
        }
    } joiner{done, notifiers};
    for (int t = 0; t < kThreads; ++t) {
        notifiers.emplace_back([&] {
            uint32_t kind = 0;
            while (!done) {
                const int r = OrbIilNotify(&server_, 0, sizeof kind, &kind);
                const int running = OrbIilIsRunning(&server_);
                if (r == ORBIIL_OK)
                    ++sent;
                else if (r == ORBIIL_BAD_PARAM || r == ORBIIL_TX_FAIL || r == ORBIIL_UNKNOWN_EVT)
                    ++refused;
                else
                    ++unexpected;
                if (running != 0 && running != 1) ++unexpected;
            }
        });
    }
    // Each round brings the connection up, lets the notifiers through, and
    // tears it down under them.
    // A name of its own each round: the bus may not yet have seen the last
    // round's connection go when the next one asks for a name.
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = "SRV" + std::to_string(round);
        ASSERT_EQ(OrbIilInit(&server_, name.c_str()), ORBIIL_OK);
        ASSERT_EQ(OrbIilIssueEvent(&server_, 0, 4), ORBIIL_OK);
        const int before = sent.load();
        EXPECT_TRUE(wait_until([&] { return sent.load() >= before + kThreads; }));
        EXPECT_EQ(OrbIilReset(&server_), ORBIIL_OK);
        const int refused_before = refused.load();
        EXPECT_TRUE(wait_until([&] { return refused.load() >= refused_before + kThreads; }));
    }
    done = true;
    for (std::thread& t : notifiers) t.join();
    EXPECT_EQ(unexpected.load(), 0);
    // After the last reset every call is refused.
    uint32_t kind = 0;
    EXPECT_EQ(OrbIilNotify(&server_, 0, sizeof kind, &kind), ORBIIL_BAD_PARAM);
    EXPECT_EQ(OrbIilIsRunning(&server_), 0);
    EXPECT_NE(OrbIilReset(&server_), ORBIIL_OK);
}

TEST_F(OrbIilBus, ResetRacingResetOnAnotherThreadSucceedsOnce) {
    for (int round = 0; round < 10; ++round) {
        const std::string name = "SRV" + std::to_string(round);
        ASSERT_EQ(OrbIilInit(&server_, name.c_str()), ORBIIL_OK);
        std::atomic<int> ok{0};
        std::vector<std::thread> resetters;
        resetters.reserve(3);
        for (int t = 0; t < 3; ++t)
            resetters.emplace_back([&] {
                if (OrbIilReset(&server_) == ORBIIL_OK) ++ok;
            });
        for (std::thread& t : resetters) t.join();
        EXPECT_EQ(ok.load(), 1);
    }
}

TEST_F(OrbIilBus, NameAlreadyOwnedAnswersConflictId) {
    start_echo_server();
    OrbIilHandle second{};
    EXPECT_EQ(OrbIilInit(&second, "SRV"), ORBIIL_CONFLICT_ID);
    EXPECT_EQ(OrbIilIsRunning(&second), 0);
}

TEST_F(OrbIilBus, InitWithoutBusAnswersTxFail) {
    setenv("ORBIIL_BUS_ADDRESS", "unix:path=/nonexistent/orbiil-bus-socket", 1);
    EXPECT_EQ(OrbIilInit(&server_, "SRV"), ORBIIL_TX_FAIL);
    EXPECT_EQ(OrbIilIsRunning(&server_), 0);
}

// --- who may call

TEST_F(OrbIilBus, CommandOfARootCallerIsAnswered) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    start_echo_server();
    int status = -1;
    std::string out = call_as({0, 0, {}}, &status);
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_EQ(WEXITSTATUS(status), 0) << out;
    EXPECT_NE(out.find("uint32 0"), std::string::npos) << out;
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 1);
}

TEST_F(OrbIilBus, CommandOfAnotherUidIsRefusedWithAccessDeniedAndOneLogLine) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    start_echo_server();
    int status = -1;
    std::string out = call_as({kNobody, kNobody, {kNobody}}, &status);
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_NE(WEXITSTATUS(status), 0) << out;
    EXPECT_NE(out.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << out;
    {
        std::lock_guard<std::mutex> lk(g_rec.mu);
        EXPECT_EQ(g_rec.command_calls, 0);
    }
    const std::vector<std::string> lines = log_lines_with("refusing command 5 of");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" ERROR orbiil_bus.c:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("uid 65534 is not root"), std::string::npos) << lines[0];
    // A second call of the same connection is refused just the same.
    out = call_as({kNobody, kNobody, {kNobody}}, &status);
    EXPECT_NE(out.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << out;
    EXPECT_EQ(log_lines_with("refusing command 5 of").size(), 2u);
}

TEST_F(OrbIilBus, CommandOfAMemberOfTheCallerGroupIsAnswered) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const std::optional<gid_t> users = group_id("users");
    if (!users) GTEST_SKIP() << "no group 'users' here";
    const gid_t gid = *users;
    ASSERT_NE(gid, kNobody);
    setenv("ORBIIL_CALLER_GROUP", "users", 1);
    start_echo_server();
    int status = -1;
    // A supplementary group, not the primary one.
    std::string out = call_as({kNobody, kNobody, {kNobody, gid}}, &status);
    ASSERT_TRUE(WIFEXITED(status)) << out;
    EXPECT_EQ(WEXITSTATUS(status), 0) << out;
    EXPECT_NE(out.find("uint32 0"), std::string::npos) << out;
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 1);
}

TEST_F(OrbIilBus, CommandOfAnotherUidOutsideTheCallerGroupIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    if (!group_id("users")) GTEST_SKIP() << "no group 'users' here";
    setenv("ORBIIL_CALLER_GROUP", "users", 1);
    start_echo_server();
    int status = -1;
    std::string out = call_as({kNobody, kNobody, {kNobody}}, &status);
    EXPECT_NE(out.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << out;
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 0);
    EXPECT_EQ(log_lines_with("uid 65534 is not root and not in group users").size(), 1u);
}

TEST_F(OrbIilBus, CallerGroupThatDoesNotExistIsLoggedOnceAndAdmitsOnlyRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const char* const missing = "usbmgr-no-such-group";
    ASSERT_FALSE(group_id(missing));
    setenv("ORBIIL_CALLER_GROUP", missing, 1);
    start_echo_server();
    const std::vector<std::string> lines = log_lines_with("caller group usbmgr-no-such-group does not exist");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" ERROR orbiil_bus.c:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("only root may run commands"), std::string::npos) << lines[0];
    int status = -1;
    std::string out = call_as({0, 0, {}}, &status);
    EXPECT_NE(out.find("uint32 0"), std::string::npos) << out;
    out = call_as({kNobody, kNobody, {kNobody}}, &status);
    EXPECT_NE(out.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << out;
    std::lock_guard<std::mutex> lk(g_rec.mu);
    EXPECT_EQ(g_rec.command_calls, 1);
}

// --- whose events count

class OrbIilEvents : public OrbIilBus {
protected:
    // CLI takes event 0 of SRV.
    void subscribe_client() {
        start_client();
        const OrbIilEvtEntry table[] = {event_entry("SRV", 0)};
        ASSERT_EQ(OrbIilSetEvtHandler(&client_, table, 1), ORBIIL_OK);
        ASSERT_EQ(OrbIilSubscribeEvent(&client_, "SRV", 0), ORBIIL_OK);
    }
    void notify_from(OrbIilHandle* owner, uint8_t mark) {
        ASSERT_EQ(OrbIilIssueEvent(owner, 0, 4), ORBIIL_OK);
        const uint8_t payload[4] = {mark, mark, mark, mark};
        ASSERT_EQ(OrbIilNotify(owner, 0, sizeof payload, payload), ORBIIL_OK);
    }
    size_t dropped() const { return log_lines_with("dropping event 0 of SRV from").size(); }
    std::vector<std::vector<uint8_t>> payloads() {
        std::lock_guard<std::mutex> lk(g_rec.mu);
        std::vector<std::vector<uint8_t>> out;
        for (const auto& e : g_rec.events) out.push_back(e.payload);
        return out;
    }
};

TEST_F(OrbIilEvents, EventFromAPeerThatDoesNotOwnTheSourceNameIsDroppedWithOneLogLine) {
    start_echo_server();
    subscribe_client();
    int status = -1;
    std::string out = forge_event(false, &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
    ASSERT_TRUE(wait_until([this] { return dropped() == 1; })) << "no drop line";
    // The owner's own event after it still counts, and it alone.
    notify_from(&server_, 0x11);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    EXPECT_EQ(payloads(), std::vector<std::vector<uint8_t>>({{0x11, 0x11, 0x11, 0x11}}));
    const std::vector<std::string> lines = log_lines_with("dropping event 0 of SRV from");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" ERROR orbiil_bus.c:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("not the owner of org.orbiil.SRV"), std::string::npos) << lines[0];
}

TEST_F(OrbIilEvents, EventAddressedToTheSubscriberByAPeerThatDoesNotOwnTheSourceNameIsDropped) {
    start_echo_server();
    subscribe_client();
    int status = -1;
    std::string out = forge_event(true, &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
    ASSERT_TRUE(wait_until([this] { return dropped() == 1; })) << "no drop line";
    notify_from(&server_, 0x22);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    EXPECT_EQ(payloads(), std::vector<std::vector<uint8_t>>({{0x22, 0x22, 0x22, 0x22}}));
}

TEST_F(OrbIilEvents, EventOfASourceNobodyOwnsIsDropped) {
    subscribe_client();
    int status = -1;
    std::string out = forge_event(false, &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
    ASSERT_TRUE(wait_until([this] { return dropped() == 1; })) << "no drop line";
    EXPECT_EQ(g_rec.event_count(), 0u);
}

TEST_F(OrbIilEvents, OwnerThatTakesTheNameAfterTheSubscriptionIsFollowed) {
    subscribe_client();
    start_echo_server();
    notify_from(&server_, 0x33);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    EXPECT_EQ(payloads(), std::vector<std::vector<uint8_t>>({{0x33, 0x33, 0x33, 0x33}}));
    EXPECT_EQ(dropped(), 0u);
}

TEST_F(OrbIilEvents, OwnerChangeIsFollowedToTheNewOwnersConnection) {
    start_echo_server();
    subscribe_client();
    notify_from(&server_, 0x44);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 1; }));
    // SRV goes and comes back on another connection.
    ASSERT_EQ(OrbIilReset(&server_), ORBIIL_OK);
    OrbIilHandle second{};
    ASSERT_EQ(OrbIilInit(&second, "SRV"), ORBIIL_OK);
    notify_from(&second, 0x55);
    ASSERT_TRUE(wait_until([] { return g_rec.event_count() >= 2; }));
    // A forger after the change is still nobody.
    int status = -1;
    forge_event(false, &status);
    EXPECT_TRUE(wait_until([this] { return dropped() == 1; }));
    EXPECT_EQ(payloads(), std::vector<std::vector<uint8_t>>({{0x44, 0x44, 0x44, 0x44}, {0x55, 0x55, 0x55, 0x55}}));
    OrbIilReset(&second);
}

}  // namespace
