// liborbiil on D-Bus (sd-bus).
//
// Each handle owns one connection, the well-known name org.orbiil.NAME and
// the object /org/orbiil/NAME with the interface org.orbiil.Daemon:
//   method Command(u id, ay payload) -> (u code, ay reply)
//   signal Event(u id, ay payload)
//
// One dispatch thread per connection runs sd_bus_process under the
// connection mutex. The sd-bus callbacks only record the work; the handlers
// then run on the dispatch thread with the mutex released, so that other
// threads can notify or call while a slow handler runs, and a handler may
// itself notify. Replies go out once the handler returns.
//
// Who gets in, whatever the bus policy lets through: a Command is answered
// only for a caller whose effective UID is 0 or who is in the group named by
// ORBIIL_CALLER_GROUP, as the bus driver knows the caller's connection (the
// payload says nothing about who sent it). An Event counts only when its
// sender is the connection that owns org.orbiil.SRC at that moment: the bus
// stamps every message with its sender's unique name, while anyone may send a
// signal from any object path.
#include <errno.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "orbiil.h"
#include "platform_export.h"
#include "sd_bus_ptr.h"

namespace orbiil {
namespace {

constexpr const char kInterface[] = "org.orbiil.Daemon";
constexpr const char kNamePrefix[] = "org.orbiil.";
constexpr const char kPathPrefix[] = "/org/orbiil/";
constexpr uint64_t kHandleMagic = 0x4f5242494c42ULL;  // "ORBILB"
constexpr const char kDriverName[] = "org.freedesktop.DBus";
constexpr const char kDriverPath[] = "/org/freedesktop/DBus";
constexpr const char kLogModule[] = "orbiil_bus.c";
// Callers whose answer is remembered: a unique name is never given twice on
// one bus, and its credentials are fixed when it connects.
constexpr size_t kKnownCallers = 16;

#define ORBIIL_LOG(level, ...) OrbIilTrace((level), kLogModule, __LINE__, __VA_ARGS__)

// A daemon name becomes both a bus name element and an object path element:
// only the characters both accept, not starting with a digit.
bool valid_daemon_name(const char* name) {
    if (name == nullptr || name[0] == '\0') return false;
    size_t n = strnlen(name, ORBIIL_NAME_SIZE);
    if (n >= ORBIIL_NAME_SIZE) return false;
    if (name[0] >= '0' && name[0] <= '9') return false;
    for (size_t i = 0; i < n; ++i) {
        char c = name[i];
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) return false;
    }
    return true;
}

// A cleaned copy of a text from the bus for a log line: printable ASCII only,
// so a peer's name can never break or forge a line.
std::string shown(const char* text) {
    std::string out;
    if (text == nullptr) return "?";
    for (size_t i = 0; i < 255 && text[i] != '\0'; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        out.push_back(c < 0x20 || c >= 0x7f ? '_' : static_cast<char>(c));
    }
    return out;
}

// Work found by sd_bus_process, run after the connection mutex is released.
struct Work {
    MessagePtr call;  // the method call to answer; empty for an event
    uint32_t id = 0;
    OrbIilCmdHandler cmd = nullptr;
    OrbIilEvtHandler evt = nullptr;
    std::vector<uint8_t> payload;
};

// One OrbIilExecute waiting for its reply on another thread than the dispatch thread.
struct PendingCall {
    bool done = false;
    int code = ORBIIL_TX_FAIL;
    std::vector<uint8_t> reply;
};

// What the bus driver says about a caller's connection.
struct Caller {
    bool known = false;  // the driver answered with a user id
    uint32_t uid = 0;
    bool has_groups = false;  // the driver gave the connection's groups
    std::vector<uint32_t> gids;
};

// One source whose events are subscribed: its Event match and the match
// that follows who owns its name.
struct Source {
    SlotPtr event_match;
    SlotPtr owner_match;
};

struct State {
    OrbIilHandle* handle = nullptr;
    std::string name;
    std::string bus_name;
    std::string path;

    // Guards the connection, the tables and the work list.
    std::mutex mu;
    std::condition_variable calls_done;
    BusPtr bus;
    SlotPtr object_slot;
    std::map<std::string, Source> sources;  // by source daemon name
    // The unique name owning each subscribed source's bus name; empty for none.
    std::map<std::string, std::string> owners;  // by bus name (org.orbiil.SRC)
    // ORBIIL_CALLER_GROUP as read at Init; empty for none.
    std::string caller_group;
    std::optional<gid_t> caller_gid;  // the group's id, when it exists
    // The latest callers' credentials, newest last.
    std::vector<std::pair<std::string, Caller>> known_callers;
    std::map<uint32_t, OrbIilCmdEntry> commands;
    std::vector<OrbIilEvtEntry> events;
    std::map<uint32_t, uint32_t> declared;  // event id -> payload length
    std::set<std::pair<std::string, uint32_t>> subscribed;
    std::vector<Work> pending;
    bool stop = false;

    std::atomic<bool> running{false};
    Fd wake;  // eventfd: wakes the dispatch thread out of poll
    std::thread thread;
    std::thread::id thread_id;
};

// What the handle stores: the key under which its state is registered,
// tagged so that a cleared handle reads as not initialised. The handle's
// bytes carry no alignment, hence the copies.
struct HandleRecord {
    uint64_t magic;
    uint64_t key;
};
static_assert(sizeof(HandleRecord) <= ORBIIL_HANDLE_SIZE, "handle record fits the opaque handle");

// Every live connection, by key. The handle's bytes are read and written only
// under this guard, and a call takes its own reference to the state before
// the guard is released: a Reset on one thread (the shutdown) and a Notify on
// another (the folder watcher, the deferred worker) never meet on freed state
// or on half-cleared bytes. A call that loses the race answers an error code.
std::shared_mutex g_registry_mu;
std::map<uint64_t, std::shared_ptr<State>> g_registry;
uint64_t g_next_key = 1;

// With g_registry_mu held (either way): the key in the handle, 0 for none.
uint64_t key_of(const OrbIilHandle* handle) {
    HandleRecord rec;
    std::memcpy(&rec, handle->opaque, sizeof rec);
    return rec.magic == kHandleMagic ? rec.key : 0;
}

std::shared_ptr<State> state_of(const OrbIilHandle* handle) {
    if (handle == nullptr) return nullptr;
    std::shared_lock<std::shared_mutex> lk(g_registry_mu);
    auto it = g_registry.find(key_of(handle));
    return it == g_registry.end() ? nullptr : it->second;
}

void wake(State& st) {
    if (!st.wake) return;
    uint64_t one = 1;
    // A full counter already means "wake up"; nothing to do on failure.
    ssize_t r = ::write(st.wake.get(), &one, sizeof one);
    (void)r;
}

uint64_t now_monotonic_usec() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000ULL + static_cast<uint64_t>(ts.tv_nsec) / 1000ULL;
}

int send_command_reply(sd_bus_message* call, uint32_t code, const void* data, size_t len) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(call, &raw);
    if (r < 0) return r;
    MessagePtr reply(raw);
    r = sd_bus_message_append(reply.get(), "u", code);
    if (r < 0) return r;
    r = sd_bus_message_append_array(reply.get(), 'y', data, len);
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
}

// Reads (u id, ay payload) from m.
int read_id_payload(sd_bus_message* m, uint32_t* id, const void** data, size_t* len) {
    int r = sd_bus_message_read(m, "u", id);
    if (r < 0) return r;
    r = sd_bus_message_read_array(m, 'y', data, len);
    if (r < 0) return r;
    if (*len == 0) *data = nullptr;
    return 0;
}

// Asks the bus driver for the credentials of the connection named sender.
Caller query_caller(State& st, const char* sender) {
    Caller who;
    BusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(st.bus.get(), kDriverName, kDriverPath, kDriverName, "GetConnectionCredentials",
                           error.get(), &raw, "s", sender) < 0)
        return who;
    MessagePtr reply(raw);
    if (sd_bus_message_enter_container(reply.get(), 'a', "{sv}") <= 0) return who;
    for (;;) {
        int r = sd_bus_message_enter_container(reply.get(), 'e', "sv");
        if (r <= 0) break;
        const char* key = nullptr;
        if (sd_bus_message_read(reply.get(), "s", &key) < 0) return Caller{};
        const std::string_view k(key ? key : "");
        if (k == "UnixUserID") {
            if (sd_bus_message_read(reply.get(), "v", "u", &who.uid) < 0) return Caller{};
            who.known = true;
        } else if (k == "UnixGroupIDs") {
            if (sd_bus_message_enter_container(reply.get(), 'v', "au") <= 0) return Caller{};
            const void* data = nullptr;
            size_t size = 0;
            if (sd_bus_message_read_array(reply.get(), 'u', &data, &size) < 0) return Caller{};
            const size_t count = size / sizeof(uint32_t);
            who.gids.resize(count);
            if (count) std::memcpy(who.gids.data(), data, count * sizeof(uint32_t));
            who.has_groups = true;
            if (sd_bus_message_exit_container(reply.get()) < 0) return Caller{};
        } else if (sd_bus_message_skip(reply.get(), "v") < 0) {
            return Caller{};
        }
        if (sd_bus_message_exit_container(reply.get()) < 0) return Caller{};
    }
    return who;
}

// Whether the caller sender may run commands; logs one line when not. With
// the connection mutex held, on the dispatch thread.
bool caller_admitted(State& st, uint32_t id, const char* sender) {
    Caller who;
    const std::string name = sender ? sender : "";
    auto known = std::find_if(st.known_callers.begin(), st.known_callers.end(),
                              [&](const std::pair<std::string, Caller>& c) { return c.first == name; });
    if (known != st.known_callers.end()) {
        who = known->second;
    } else if (!name.empty()) {
        who = query_caller(st, sender);
        // A failed query is not remembered: the next call asks again.
        if (who.known) {
            if (st.known_callers.size() >= kKnownCallers) st.known_callers.erase(st.known_callers.begin());
            st.known_callers.emplace_back(name, who);
        }
    }
    if (who.known && who.uid == 0) return true;
    if (who.known && st.caller_gid && who.has_groups &&
        std::find(who.gids.begin(), who.gids.end(), *st.caller_gid) != who.gids.end())
        return true;
    if (!who.known)
        ORBIIL_LOG(ORBIIL_LOG_ERROR, "refusing command %u of %s: the bus gave no credentials", id,
                   shown(sender).c_str());
    else if (st.caller_group.empty())
        ORBIIL_LOG(ORBIIL_LOG_ERROR, "refusing command %u of %s: uid %u is not root", id, shown(sender).c_str(),
                   who.uid);
    else
        ORBIIL_LOG(ORBIIL_LOG_ERROR, "refusing command %u of %s: uid %u is not root and not in group %s", id,
                   shown(sender).c_str(), who.uid, shown(st.caller_group.c_str()).c_str());
    return false;
}

// Command: runs under the connection mutex, inside sd_bus_process.
int on_command(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    State& st = *static_cast<State*>(userdata);
    uint32_t id = 0;
    const void* data = nullptr;
    size_t len = 0;
    int r = read_id_payload(m, &id, &data, &len);
    if (r < 0) return r;  // sd-bus answers the caller with the error
    if (!caller_admitted(st, id, sd_bus_message_get_sender(m)))
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "caller may not run commands");

    auto it = st.commands.find(id);
    if (it == st.commands.end() || it->second.handler == nullptr) {
        r = send_command_reply(m, ORBIIL_UNKNOWN_CMD, nullptr, 0);
        return r < 0 ? r : 1;
    }
    const OrbIilCmdEntry& entry = it->second;
    if (len > entry.size) {
        r = send_command_reply(m, ORBIIL_MISMATCH_CMD_LEN, nullptr, 0);
        return r < 0 ? r : 1;
    }
    Work w;
    w.call = ref_message(m);
    w.id = id;
    w.cmd = entry.handler;
    w.payload.assign(entry.size, 0);
    if (len) std::memcpy(w.payload.data(), data, len);
    st.pending.push_back(std::move(w));
    return 1;  // answered once the handler has run
}

// Event of a subscribed source: runs under the connection mutex.
int on_event(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    State& st = *static_cast<State*>(userdata);
    const char* path = sd_bus_message_get_path(m);
    if (path == nullptr) return 0;
    std::string_view p(path);
    std::string_view prefix(kPathPrefix);
    if (p.substr(0, prefix.size()) != prefix) return 0;
    std::string src(p.substr(prefix.size()));

    uint32_t id = 0;
    const void* data = nullptr;
    size_t len = 0;
    if (read_id_payload(m, &id, &data, &len) < 0) return 0;
    if (st.subscribed.count({src, id}) == 0) return 0;
    const char* sender = sd_bus_message_get_sender(m);
    auto owner = st.owners.find(kNamePrefix + src);
    if (sender == nullptr || owner == st.owners.end() || owner->second.empty() || owner->second != sender) {
        ORBIIL_LOG(ORBIIL_LOG_ERROR, "dropping event %u of %s from %s: not the owner of %s%s", id, src.c_str(),
                   shown(sender).c_str(), kNamePrefix, src.c_str());
        return 0;
    }

    for (const OrbIilEvtEntry& e : st.events) {
        if (e.id != id || e.handler == nullptr) continue;
        if (std::string_view(e.src, strnlen(e.src, sizeof e.src)) != src) continue;
        Work w;
        w.id = id;
        w.evt = e.handler;
        if (len) w.payload.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + len);
        st.pending.push_back(std::move(w));
        break;
    }
    return 0;
}

// NameOwnerChanged of a subscribed source's bus name: runs under the
// connection mutex. Only the bus driver's own signal counts.
int on_owner_changed(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    State& st = *static_cast<State*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender == nullptr || std::string_view(sender) != kDriverName) return 0;
    const char* name = nullptr;
    const char* old_owner = nullptr;
    const char* new_owner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &old_owner, &new_owner) < 0) return 0;
    auto it = st.owners.find(name ? name : "");
    if (it != st.owners.end()) it->second = new_owner ? new_owner : "";
    return 0;
}

int map_error_name(const char* name) {
    if (name == nullptr) return ORBIIL_TX_FAIL;
    std::string_view n(name);
    if (n == SD_BUS_ERROR_SERVICE_UNKNOWN || n == SD_BUS_ERROR_NAME_HAS_NO_OWNER) return ORBIIL_UNKNOWN_DST_ID;
    if (n == SD_BUS_ERROR_NO_REPLY || n == SD_BUS_ERROR_TIMEOUT || n == "org.freedesktop.DBus.Error.TimedOut")
        return ORBIIL_TIMEOUT;
    return ORBIIL_TX_FAIL;
}

// Decodes a Command reply (or error) into code and payload.
void decode_reply(sd_bus_message* m, int* code, std::vector<uint8_t>* reply) {
    if (sd_bus_message_is_method_error(m, nullptr)) {
        const sd_bus_error* e = sd_bus_message_get_error(m);
        *code = map_error_name(e ? e->name : nullptr);
        return;
    }
    uint32_t c = 0;
    const void* data = nullptr;
    size_t len = 0;
    if (read_id_payload(m, &c, &data, &len) < 0) {
        *code = ORBIIL_RX_FAIL;
        return;
    }
    *code = static_cast<int>(c);
    if (len) reply->assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + len);
}

int on_call_reply(sd_bus_message* m, void* userdata, sd_bus_error* /*error*/) {
    auto* call = static_cast<PendingCall*>(userdata);
    decode_reply(m, &call->code, &call->reply);
    call->done = true;
    return 1;
}

const sd_bus_vtable kDaemonVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Command", "uay", SD_BUS_PARAM(id) SD_BUS_PARAM(payload), "uay",
                             SD_BUS_PARAM(code) SD_BUS_PARAM(reply), on_command, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Event", "uay", SD_BUS_PARAM(id) SD_BUS_PARAM(payload), 0),
    SD_BUS_VTABLE_END,
};

void run_handlers(State& st, std::vector<Work>& work) {
    for (Work& w : work) {
        uint32_t len = static_cast<uint32_t>(w.payload.size());
        void* data = w.payload.empty() ? nullptr : w.payload.data();
        if (w.cmd)
            w.cmd(st.handle, w.id, len, data);
        else if (w.evt)
            w.evt(st.handle, w.id, len, data);
    }
}

void lose_connection(State& st) {
    st.running = false;
    st.calls_done.notify_all();
}

// The thread's own copy of the pointer (std::thread copies its arguments)
// keeps the state alive until the loop returns.
void dispatch_loop(const std::shared_ptr<State>& keep) {
    State& st = *keep;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    pthread_setname_np(pthread_self(), "orbiil");

    std::unique_lock<std::mutex> lk(st.mu);
    while (!st.stop) {
        if (!st.bus) break;
        int r = sd_bus_process(st.bus.get(), nullptr);
        st.calls_done.notify_all();  // a reply may have completed a waiting call
        if (r < 0) {
            lose_connection(st);
            break;
        }
        if (!st.pending.empty()) {
            std::vector<Work> work = std::move(st.pending);
            st.pending.clear();
            lk.unlock();
            run_handlers(st, work);
            lk.lock();
            if (st.stop || !st.bus) break;  // reset from a handler: nothing left to answer on
            for (Work& w : work) {
                if (!w.call) continue;
                send_command_reply(w.call.get(), ORBIIL_OK, w.payload.data(), w.payload.size());
            }
            sd_bus_flush(st.bus.get());
            continue;
        }
        if (r > 0) continue;

        int fd = sd_bus_get_fd(st.bus.get());
        int events = sd_bus_get_events(st.bus.get());
        uint64_t until = UINT64_MAX;
        if (fd < 0 || events < 0 || sd_bus_get_timeout(st.bus.get(), &until) < 0) {
            lose_connection(st);
            break;
        }
        int timeout_ms = -1;
        if (until != UINT64_MAX) {
            uint64_t now = now_monotonic_usec();
            timeout_ms = until <= now ? 0 : static_cast<int>(std::min<uint64_t>((until - now + 999) / 1000, 60000));
        }
        lk.unlock();
        struct pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {st.wake.get(), POLLIN, 0}};
        int pr = ::poll(fds, 2, timeout_ms);
        if (pr > 0 && (fds[1].revents & POLLIN)) {
            uint64_t count;
            ssize_t n = ::read(st.wake.get(), &count, sizeof count);
            (void)n;
        }
        lk.lock();
    }
}

int open_bus(BusPtr* out) {
    const char* addr = getenv("ORBIIL_BUS_ADDRESS");
    if (addr == nullptr || addr[0] == '\0') addr = getenv("DBUS_SESSION_BUS_ADDRESS");
    sd_bus* raw = nullptr;
    int r;
    if (addr == nullptr || addr[0] == '\0') {
        r = sd_bus_open_system(&raw);
        if (r < 0) return r;
        out->reset(raw);
        return 0;
    }
    r = sd_bus_new(&raw);
    if (r < 0) return r;
    BusPtr bus(raw);
    if ((r = sd_bus_set_address(bus.get(), addr)) < 0) return r;
    if ((r = sd_bus_set_bus_client(bus.get(), 1)) < 0) return r;
    if ((r = sd_bus_start(bus.get())) < 0) return r;
    *out = std::move(bus);
    return 0;
}

// Starts the dispatch thread with every signal blocked from its first
// instruction on, so that the daemon's SIGALRM and SIGTERM go elsewhere.
void start_dispatch_thread(const std::shared_ptr<State>& st) {
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    try {
        st->thread = std::thread(dispatch_loop, st);
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    st->thread_id = st->thread.get_id();
}

// Stops the dispatch thread and drops the connection. Calls that still hold
// the state find it stopped and answer an error code.
void teardown(const std::shared_ptr<State>& st) {
    {
        std::lock_guard<std::mutex> lk(st->mu);
        st->stop = true;
        st->running = false;
    }
    st->calls_done.notify_all();
    wake(*st);
    if (st->thread.joinable()) {
        // A handler resetting its own connection cannot wait for itself.
        if (std::this_thread::get_id() == st->thread_id)
            st->thread.detach();
        else
            st->thread.join();
    }
    std::lock_guard<std::mutex> lk(st->mu);
    st->sources.clear();
    st->object_slot.reset();
    st->pending.clear();
    st->bus.reset();
}

// ORBIIL_CALLER_GROUP, read once: a group that does not exist admits nobody.
void resolve_caller_group(State& st) {
    const char* group = getenv("ORBIIL_CALLER_GROUP");
    if (group == nullptr || group[0] == '\0') return;
    st.caller_group = group;
    std::vector<char> buf(16384);
    struct group gr;
    struct group* found = nullptr;
    if (getgrnam_r(group, &gr, buf.data(), buf.size(), &found) == 0 && found != nullptr)
        st.caller_gid = found->gr_gid;
    else
        ORBIIL_LOG(ORBIIL_LOG_ERROR, "caller group %s does not exist: only root may run commands",
                   shown(group).c_str());
}

int init(OrbIilHandle* handle, const char* name) {
    if (handle == nullptr || !valid_daemon_name(name)) return ORBIIL_BAD_PARAM;
    if (state_of(handle) != nullptr) return ORBIIL_BUSY;

    auto st = std::make_shared<State>();
    st->handle = handle;
    st->name = name;
    st->bus_name = std::string(kNamePrefix) + name;
    st->path = std::string(kPathPrefix) + name;
    st->wake = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!st->wake) return ORBIIL_ERR;
    resolve_caller_group(*st);

    if (open_bus(&st->bus) < 0) return ORBIIL_TX_FAIL;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(st->bus.get(), &slot, st->path.c_str(), kInterface, kDaemonVtable, st.get()) < 0)
        return ORBIIL_ERR;
    st->object_slot.reset(slot);
    int r = sd_bus_request_name(st->bus.get(), st->bus_name.c_str(), 0);
    if (r == -EEXIST || r == -EALREADY) return ORBIIL_CONFLICT_ID;
    if (r < 0) return ORBIIL_TX_FAIL;

    st->running = true;
    start_dispatch_thread(st);

    std::unique_lock<std::shared_mutex> lk(g_registry_mu);
    if (g_registry.count(key_of(handle)) != 0) {
        // Another Init on the same handle won meanwhile.
        lk.unlock();
        teardown(st);
        return ORBIIL_BUSY;
    }
    const HandleRecord rec{kHandleMagic, g_next_key++};
    g_registry.emplace(rec.key, st);
    std::memcpy(handle->opaque, &rec, sizeof rec);
    return ORBIIL_OK;
}

int reset(OrbIilHandle* handle) {
    if (handle == nullptr) return ORBIIL_BAD_PARAM;
    std::shared_ptr<State> st;
    {
        std::unique_lock<std::shared_mutex> lk(g_registry_mu);
        auto it = g_registry.find(key_of(handle));
        if (it == g_registry.end()) return ORBIIL_BAD_PARAM;
        st = std::move(it->second);
        g_registry.erase(it);
        std::memset(handle->opaque, 0, sizeof(HandleRecord));
    }
    // From here no new call finds the state; those that already hold it
    // keep it alive until they return.
    teardown(st);
    return ORBIIL_OK;
}

int set_cmd_handler(OrbIilHandle* handle, const OrbIilCmdEntry* table, uint32_t count) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st || (table == nullptr && count > 0)) return ORBIIL_BAD_PARAM;
    std::map<uint32_t, OrbIilCmdEntry> copy;
    for (uint32_t i = 0; i < count; ++i) copy.emplace(table[i].id, table[i]);
    std::lock_guard<std::mutex> lk(st->mu);
    st->commands = std::move(copy);
    return ORBIIL_OK;
}

int set_evt_handler(OrbIilHandle* handle, const OrbIilEvtEntry* table, uint32_t count) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st || (table == nullptr && count > 0)) return ORBIIL_BAD_PARAM;
    std::vector<OrbIilEvtEntry> copy;
    if (count) copy.assign(table, table + count);
    std::lock_guard<std::mutex> lk(st->mu);
    st->events = std::move(copy);
    return ORBIIL_OK;
}

int issue_event(OrbIilHandle* handle, uint32_t evt_id, uint32_t len) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st) return ORBIIL_BAD_PARAM;
    std::lock_guard<std::mutex> lk(st->mu);
    st->declared[evt_id] = len;
    return ORBIIL_OK;
}

int subscribe_event(OrbIilHandle* handle, const char* src, uint32_t evt_id) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st || !valid_daemon_name(src)) return ORBIIL_BAD_PARAM;
    std::lock_guard<std::mutex> lk(st->mu);
    if (!st->bus || !st->running) return ORBIIL_TX_FAIL;
    if (st->sources.count(src) == 0) {
        Source source;
        // Matched by the sender's object path: the well-known name is not
        // what the bus stamps on a signal, its unique name is; on_event
        // holds that to the name's owner.
        std::string path = std::string(kPathPrefix) + src;
        sd_bus_slot* slot = nullptr;
        int r = sd_bus_match_signal(st->bus.get(), &slot, nullptr, path.c_str(), kInterface, "Event", on_event,
                                    st.get());
        if (r < 0) {
            wake(*st);
            return ORBIIL_TX_FAIL;
        }
        source.event_match.reset(slot);
        // Follow the owner from before it is first asked, so that no change is missed.
        const std::string bus_name = std::string(kNamePrefix) + src;
        const std::string rule = std::string("type='signal',sender='") + kDriverName + "',path='" + kDriverPath +
                                 "',interface='" + kDriverName + "',member='NameOwnerChanged',arg0='" + bus_name +
                                 "'";
        slot = nullptr;
        r = sd_bus_add_match(st->bus.get(), &slot, rule.c_str(), on_owner_changed, st.get());
        if (r < 0) {
            wake(*st);
            return ORBIIL_TX_FAIL;
        }
        source.owner_match.reset(slot);
        std::string owner;
        BusError error;
        sd_bus_message* raw = nullptr;
        r = sd_bus_call_method(st->bus.get(), kDriverName, kDriverPath, kDriverName, "GetNameOwner", error.get(), &raw,
                               "s", bus_name.c_str());
        MessagePtr reply(raw);
        const char* unique = nullptr;
        if (r >= 0 && sd_bus_message_read(reply.get(), "s", &unique) >= 0 && unique != nullptr) owner = unique;
        // The round trips may have queued messages the dispatch thread has not seen.
        wake(*st);
        if (r < 0 && !sd_bus_error_has_name(error.get(), SD_BUS_ERROR_NAME_HAS_NO_OWNER)) return ORBIIL_TX_FAIL;
        st->owners[bus_name] = owner;
        st->sources.emplace(src, std::move(source));
    }
    st->subscribed.emplace(src, evt_id);
    return ORBIIL_OK;
}

int notify(OrbIilHandle* handle, uint32_t evt_id, uint32_t len, const void* payload) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st || (payload == nullptr && len > 0)) return ORBIIL_BAD_PARAM;
    std::lock_guard<std::mutex> lk(st->mu);
    auto it = st->declared.find(evt_id);
    if (it == st->declared.end()) return ORBIIL_UNKNOWN_EVT;
    if (it->second != len) return ORBIIL_MISMATCH_EVT_LEN;
    if (!st->bus || !st->running) return ORBIIL_TX_FAIL;

    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(st->bus.get(), &raw, st->path.c_str(), kInterface, "Event") < 0)
        return ORBIIL_TX_FAIL;
    MessagePtr m(raw);
    if (sd_bus_message_append(m.get(), "u", evt_id) < 0) return ORBIIL_TX_FAIL;
    if (sd_bus_message_append_array(m.get(), 'y', payload, len) < 0) return ORBIIL_TX_FAIL;
    if (sd_bus_send(st->bus.get(), m.get(), nullptr) < 0) return ORBIIL_TX_FAIL;
    // Out now, whatever thread this is: the dispatch thread may be asleep in poll.
    if (sd_bus_flush(st->bus.get()) < 0) return ORBIIL_TX_FAIL;
    return ORBIIL_OK;
}

int execute(OrbIilHandle* handle, const char* dst, uint32_t cmd_id, const void* request, uint32_t request_len,
            void* reply, uint32_t reply_size, uint32_t* reply_len) {
    std::shared_ptr<State> st = state_of(handle);
    if (!st || (request == nullptr && request_len > 0) || (reply == nullptr && reply_size > 0)) return ORBIIL_BAD_PARAM;
    if (!valid_daemon_name(dst)) return ORBIIL_UNKNOWN_DST_ID;
    if (reply_len) *reply_len = 0;
    const std::string dest = std::string(kNamePrefix) + dst;
    const std::string path = std::string(kPathPrefix) + dst;
    const bool on_dispatch_thread = std::this_thread::get_id() == st->thread_id;

    std::unique_lock<std::mutex> lk(st->mu);
    if (!st->bus || !st->running) return ORBIIL_TX_FAIL;
    // Our own commands are served by this very thread: it would wait for itself.
    if (on_dispatch_thread && st->name == dst) return ORBIIL_BUSY;

    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(st->bus.get(), &raw, dest.c_str(), path.c_str(), kInterface, "Command") < 0)
        return ORBIIL_TX_FAIL;
    MessagePtr call(raw);
    if (sd_bus_message_append(call.get(), "u", cmd_id) < 0) return ORBIIL_TX_FAIL;
    if (sd_bus_message_append_array(call.get(), 'y', request, request_len) < 0) return ORBIIL_TX_FAIL;

    int code = ORBIIL_TX_FAIL;
    std::vector<uint8_t> data;
    if (on_dispatch_thread) {
        // Nobody else would process the reply: wait for it right here.
        BusError error;
        sd_bus_message* answer = nullptr;
        int r = sd_bus_call(st->bus.get(), call.get(), 0, error.get(), &answer);
        MessagePtr owned(answer);
        wake(*st);
        if (r < 0)
            code = error.name() ? map_error_name(error.name()) : ORBIIL_TX_FAIL;
        else
            decode_reply(owned.get(), &code, &data);
    } else {
        // The dispatch thread receives the reply, so the connection stays
        // free for others while the peer's handler runs.
        PendingCall pending;
        sd_bus_slot* slot_raw = nullptr;
        if (sd_bus_call_async(st->bus.get(), &slot_raw, call.get(), on_call_reply, &pending, 0) < 0)
            return ORBIIL_TX_FAIL;
        SlotPtr slot(slot_raw);
        sd_bus_flush(st->bus.get());
        wake(*st);
        st->calls_done.wait(lk, [&] { return pending.done || st->stop || !st->running; });
        if (pending.done) {
            code = pending.code;
            data = std::move(pending.reply);
        }
        slot.reset();  // before pending goes: a late reply must find no callback
    }
    if (reply_len) *reply_len = static_cast<uint32_t>(data.size());
    if (reply_size && !data.empty()) std::memcpy(reply, data.data(), std::min<size_t>(reply_size, data.size()));
    return code;
}

// Nothing may throw through the C interface.
template <typename F>
int guarded(F&& f) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return ORBIIL_NO_MEM;
    } catch (...) {
        return ORBIIL_ERR;
    }
}

}  // namespace
}  // namespace orbiil

extern "C" {

PLATFORM_API int OrbIilInit(OrbIilHandle* handle, const char* name) {
    return orbiil::guarded([&] { return orbiil::init(handle, name); });
}

PLATFORM_API int OrbIilSetCmdHandler(OrbIilHandle* handle, const OrbIilCmdEntry* table, uint32_t count) {
    return orbiil::guarded([&] { return orbiil::set_cmd_handler(handle, table, count); });
}

PLATFORM_API int OrbIilSetEvtHandler(OrbIilHandle* handle, const OrbIilEvtEntry* table, uint32_t count) {
    return orbiil::guarded([&] { return orbiil::set_evt_handler(handle, table, count); });
}

PLATFORM_API int OrbIilIssueEvent(OrbIilHandle* handle, uint32_t evt_id, uint32_t len) {
    return orbiil::guarded([&] { return orbiil::issue_event(handle, evt_id, len); });
}

PLATFORM_API int OrbIilSubscribeEvent(OrbIilHandle* handle, const char* src, uint32_t evt_id) {
    return orbiil::guarded([&] { return orbiil::subscribe_event(handle, src, evt_id); });
}

PLATFORM_API int OrbIilNotify(OrbIilHandle* handle, uint32_t evt_id, uint32_t len, const void* payload) {
    return orbiil::guarded([&] { return orbiil::notify(handle, evt_id, len, payload); });
}

PLATFORM_API int OrbIilExecute(OrbIilHandle* handle, const char* dst, uint32_t cmd_id, const void* request,
                               uint32_t request_len, void* reply, uint32_t reply_size, uint32_t* reply_len) {
    return orbiil::guarded([&] {
        return orbiil::execute(handle, dst, cmd_id, request, request_len, reply, reply_size, reply_len);
    });
}

PLATFORM_API int OrbIilIsRunning(OrbIilHandle* handle) {
    std::shared_ptr<orbiil::State> st = orbiil::state_of(handle);
    return st && st->running ? 1 : 0;
}

PLATFORM_API int OrbIilReset(OrbIilHandle* handle) {
    return orbiil::guarded([&] { return orbiil::reset(handle); });
}

}  // extern "C"
