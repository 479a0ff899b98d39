// usbmgrctl: command-line peer of usbmgrd on the gateway's message bus.
// It calls the daemon's commands, watches its events, and stands in for the
// hot-plug daemon DUSB_DMON so that disks can be "plugged" in a sandbox.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "db_util/str.h"
#include "orbiil.h"
#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"
#include "tools/ctl_model.h"
#include "tools/ctl_text.h"
#include "tools/ctl_verbs.h"

namespace {

using usbmgrctl::Field;
using usbmgrctl::FieldType;
using usbmgrctl::Layout;

constexpr int kExitOk = 0;
constexpr int kExitFail = 1;
constexpr int kExitUsage = 2;

constexpr const char kDaemonName[] = "USBMGR_DMON";
constexpr const char kHotplugName[] = "DUSB_DMON";
constexpr const char kPortDir[] = "/tmp/usb";
// Upper bound of a request or reply this tool handles; far above every
// declared size, so an oversized request still reaches the bus library.
constexpr std::size_t kMaxPayload = 65536;

const char kUsage[] =
    "usage:\n"
    "  usbmgrctl call ID [HEX | FIELD=VALUE ...] [--json]\n"
    "      run command ID of USBMGR_DMON; the request is one hex string (any\n"
    "      length) or named fields of the command's payload (numbers decimal\n"
    "      or 0x hex); prints the bus code and the reply\n"
    "  usbmgrctl fields ID\n"
    "      list the payload fields of command ID\n"
    "  usbmgrctl monitor [--count N] [--timeout SECONDS] [--source NAME] [--event ID ...]\n"
    "      print every event of USBMGR_DMON (ids 0 to 4), one line each\n"
    "  usbmgrctl plug|unplug --port PORT --device LIST [--serial S] [--vendor V]\n"
    "      [--product P] [--usb-version 2.00] [--device-version N] [--vendor-id 0x..]\n"
    "      [--product-id 0x..] [--index N] [--raw-hex HEX]\n"
    "  usbmgrctl serial-plug|serial-unplug --port PORT --device ttyUSB0 [...]\n"
    "      act as DUSB_DMON: write or remove /tmp/usb/PORT and send the hot-plug\n"
    "      event (0 storage arrival, 7 storage removal, 6 serial arrival,\n"
    "      13 serial removal) with the 282-byte device record\n"
    "  usbmgrctl tree [--service N] [--json]\n"
    "      read the whole StorageService tree (service 0 unless given): disks and\n"
    "      volumes of every slot, their folders and user access, and the users\n"
    "  usbmgrctl help\n";

int usage_error(const char* fmt, const char* arg) {
    std::fprintf(stderr, "usbmgrctl: ");
    std::fprintf(stderr, fmt, arg);
    std::fprintf(stderr, "\nusbmgrctl help: lists the commands and options\n");
    return kExitUsage;
}

// One bus connection, reset when it goes out of scope.
class BusConnection {
public:
    BusConnection() = default;
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;
    ~BusConnection() { close(); }

    int open(const char* name) {
        std::memset(&handle_, 0, sizeof handle_);
        int rc = OrbIilInit(&handle_, name);
        open_ = rc == ORBIIL_OK;
        return rc;
    }
    void close() {
        if (open_) OrbIilReset(&handle_);
        open_ = false;
    }
    OrbIilHandle* get() { return &handle_; }

private:
    OrbIilHandle handle_{};
    bool open_ = false;
};

// Name of this process's own connection, unique per process.
std::string client_name() { return "USBMGRCTL_" + std::to_string(static_cast<long>(getpid())); }

void print_code(int code, FILE* out) { std::fprintf(out, "code: %d %s\n", code, usbmgr_iil_err_str(code)); }

// ---------------------------------------------------------------------------
// call

void print_hex_dump(const unsigned char* data, std::size_t len) {
    for (std::size_t row = 0; row < len; row += 16) {
        std::printf("  %04zx:", row);
        for (std::size_t i = row; i < row + 16 && i < len; ++i) std::printf(" %02x", data[i]);
        std::printf("\n");
    }
}

void print_reply_text(const Layout* layout, const unsigned char* reply, std::size_t len) {
    if (len == 0) {
        std::printf("reply: (empty)\n");
        return;
    }
    std::printf("reply: %zu bytes\n", len);
    if (layout == nullptr) {
        print_hex_dump(reply, len);
        return;
    }
    for (std::size_t i = 0; i < layout->count; ++i) {
        const Field& f = layout->fields[i];
        if (static_cast<std::size_t>(f.offset) + f.size > len) continue;
        if (f.type == FieldType::STR)
            std::printf("  %s = %s\n", f.name, usbmgrctl::quote_text(usbmgrctl::read_str(f, reply)).c_str());
        else
            std::printf("  %s = %lld\n", f.name, static_cast<long long>(usbmgrctl::read_int(f, reply)));
    }
}

void print_reply_json(int code, const Layout* layout, const unsigned char* reply, std::size_t len) {
    std::string s = "{\"code\":" + std::to_string(code) + ",\"code_name\":\"" +
                    usbmgrctl::json_escape(usbmgr_iil_err_str(code)) + "\",\"reply\":{";
    if (layout == nullptr) {
        if (len > 0) s += "\"hex\":\"" + usbmgrctl::to_hex(reply, len) + "\"";
    } else {
        bool first = true;
        for (std::size_t i = 0; i < layout->count; ++i) {
            const Field& f = layout->fields[i];
            if (static_cast<std::size_t>(f.offset) + f.size > len) continue;
            if (!first) s += ",";
            first = false;
            s += "\"" + usbmgrctl::json_escape(f.name) + "\":";
            if (f.type == FieldType::STR)
                s += "\"" + usbmgrctl::json_escape(usbmgrctl::read_str(f, reply)) + "\"";
            else
                s += std::to_string(usbmgrctl::read_int(f, reply));
        }
    }
    s += "}}";
    std::printf("%s\n", s.c_str());
}

int cmd_call(int argc, char** argv) {
    bool json = false;
    std::vector<const char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0)
            json = true;
        else
            args.push_back(argv[i]);
    }
    if (args.empty()) return usage_error("%s", "call needs a command id");
    int64_t id = 0;
    if (!usbmgrctl::parse_number(args[0], 0, UINT32_MAX, id)) return usage_error("bad command id '%s'", args[0]);
    const uint32_t cmd_id = static_cast<uint32_t>(id);
    const UsbmgrCommandInfo* info = usbmgr_command_find(cmd_id);
    const Layout* layout = usbmgrctl::find_layout(cmd_id);

    std::vector<unsigned char> request;
    bool named = args.size() > 1 && std::strchr(args[1], '=') != nullptr;
    if (args.size() == 2 && !named) {
        if (!usbmgrctl::parse_hex(args[1], kMaxPayload, request))
            return usage_error("bad hex payload '%s'", args[1]);
    } else if (args.size() > 1) {
        if (layout == nullptr || info == nullptr)
            return usage_error("command %s has no known fields: give the payload in hex", args[0]);
        request.assign(info->size, 0);
        for (std::size_t i = 1; i < args.size(); ++i) {
            const char* eq = std::strchr(args[i], '=');
            if (eq == nullptr) return usage_error("expected FIELD=VALUE, got '%s'", args[i]);
            std::string name(args[i], static_cast<std::size_t>(eq - args[i]));
            const Field* f = usbmgrctl::find_field(*layout, name.c_str());
            if (f == nullptr) return usage_error("unknown field '%s' (see: usbmgrctl fields ID)", name.c_str());
            std::string error;
            if (!usbmgrctl::encode_field(*f, eq + 1, request.data(), request.size(), error)) {
                std::string msg = name;
                msg.append(": ").append(error);
                return usage_error("%s", msg.c_str());
            }
        }
    }

    BusConnection bus;
    const std::string me = client_name();
    int rc = bus.open(me.c_str());
    if (rc != ORBIIL_OK) {
        std::fprintf(stderr, "usbmgrctl: cannot join the bus as %s\n", me.c_str());
        if (json)
            print_reply_json(rc, nullptr, nullptr, 0);
        else
            print_code(rc, stdout);
        return kExitFail;
    }
    std::vector<unsigned char> reply(kMaxPayload, 0);
    uint32_t reply_len = 0;
    int code = OrbIilExecute(bus.get(), kDaemonName, cmd_id, request.empty() ? nullptr : request.data(),
                             static_cast<uint32_t>(request.size()), reply.data(),
                             static_cast<uint32_t>(reply.size()), &reply_len);
    bus.close();
    std::size_t shown = reply_len < reply.size() ? reply_len : reply.size();
    if (json) {
        print_reply_json(code, layout, reply.data(), shown);
    } else {
        print_code(code, stdout);
        print_reply_text(layout, reply.data(), shown);
    }
    std::fflush(stdout);
    return code == ORBIIL_OK ? kExitOk : kExitFail;
}

int cmd_fields(int argc, char** argv) {
    if (argc != 1) return usage_error("%s", "fields needs one command id");
    int64_t id = 0;
    if (!usbmgrctl::parse_number(argv[0], 0, UINT32_MAX, id)) return usage_error("bad command id '%s'", argv[0]);
    const UsbmgrCommandInfo* info = usbmgr_command_find(static_cast<uint32_t>(id));
    const Layout* layout = usbmgrctl::find_layout(static_cast<uint32_t>(id));
    if (info == nullptr || layout == nullptr) {
        std::fprintf(stderr, "usbmgrctl: command %s is not served by usbmgrd\n", argv[0]);
        return kExitFail;
    }
    std::printf("%u %s, %u bytes\n", info->id, info->name, info->size);
    for (std::size_t i = 0; i < layout->count; ++i) {
        const Field& f = layout->fields[i];
        const char* type = f.type == FieldType::I32 ? "int32" : f.type == FieldType::U32 ? "uint32" : "string";
        std::printf("  %-30s offset %3u  %s", f.name, f.offset, type);
        if (f.type == FieldType::STR) std::printf(" of %u", f.size);
        std::printf("\n");
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// storage service reads

// Runs one command on an open connection; the reply replaces payload.
int execute(BusConnection& bus, uint32_t id, std::vector<unsigned char>& payload) {
    std::vector<unsigned char> reply(kMaxPayload, 0);
    uint32_t reply_len = 0;
    int code = OrbIilExecute(bus.get(), kDaemonName, id, payload.empty() ? nullptr : payload.data(),
                             static_cast<uint32_t>(payload.size()), reply.data(), static_cast<uint32_t>(reply.size()),
                             &reply_len);
    const std::size_t kept = reply_len < reply.size() ? reply_len : reply.size();
    payload.assign(reply.begin(), reply.begin() + static_cast<std::ptrdiff_t>(kept));
    return code;
}

// Splits --json off the arguments.
std::vector<std::string> take_args(int argc, char** argv, bool& json) {
    std::vector<std::string> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0)
            json = true;
        else
            args.emplace_back(argv[i]);
    }
    return args;
}

int open_client(BusConnection& bus) {
    const std::string me = client_name();
    int rc = bus.open(me.c_str());
    if (rc != ORBIIL_OK) std::fprintf(stderr, "usbmgrctl: cannot join the bus as %s: %s\n", me.c_str(), usbmgr_iil_err_str(rc));
    return rc;
}

int cmd_verb(const usbmgrctl::Verb& verb, int argc, char** argv) {
    bool json = false;
    std::vector<std::string> args = take_args(argc, argv, json);
    std::vector<unsigned char> payload;
    std::string error;
    if (!usbmgrctl::build_request(verb, args, payload, error)) return usage_error("%s", error.c_str());
    BusConnection bus;
    if (open_client(bus) != ORBIIL_OK) return kExitFail;
    int code = execute(bus, verb.id, payload);
    bus.close();
    std::string out = json ? usbmgrctl::format_verb_json(verb, code, payload.data(), payload.size()) + "\n"
                           : usbmgrctl::format_verb_text(verb, code, payload.data(), payload.size());
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    return code == ORBIIL_OK ? kExitOk : kExitFail;
}

int cmd_tree(int argc, char** argv) {
    bool json = false;
    std::vector<std::string> args = take_args(argc, argv, json);
    int64_t service = 0;
    for (std::size_t i = 0; i < args.size(); i += 2) {
        if (args[i] == "--service" && i + 1 < args.size()) {
            if (!usbmgrctl::parse_number(args[i + 1].c_str(), INT32_MIN, INT32_MAX, service))
                return usage_error("bad --service '%s'", args[i + 1].c_str());
        } else {
            return usage_error("unknown tree option '%s'", args[i].c_str());
        }
    }
    BusConnection bus;
    if (open_client(bus) != ORBIIL_OK) return kExitFail;
    usbmgrctl::Node tree;
    std::string error;
    bool ok = usbmgrctl::walk_tree(static_cast<int32_t>(service),
                                   [&bus](uint32_t id, std::vector<unsigned char>& p) { return execute(bus, id, p); },
                                   tree, error);
    bus.close();
    std::string out = json ? usbmgrctl::render_tree_json(tree) + "\n" : usbmgrctl::render_tree_text(tree);
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    if (!ok) {
        std::fprintf(stderr, "usbmgrctl: %s\n", error.c_str());
        return kExitFail;
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// monitor

volatile sig_atomic_t g_stop = 0;
// 4-byte payloads are change kinds only when they come from the daemon.
bool g_kind_payloads = true;
std::atomic<long> g_events_seen{0};
std::mutex g_print_mutex;

void on_stop_signal(int) { g_stop = 1; }

std::string describe_record(const unsigned char* payload) {
    DusbDeviceRecord rec;
    std::memcpy(&rec, payload, sizeof rec);
    auto field = [](const char* p, std::size_t n) { return std::string(p, strnlen(p, n)); };
    return "device " + usbmgrctl::quote_text(field(rec.AttachDevice, sizeof rec.AttachDevice)) + " arrived " +
           std::to_string(rec.ArrivedOrLeft) + " serial " +
           usbmgrctl::quote_text(field(rec.SerialNumber, sizeof rec.SerialNumber));
}

int on_event(OrbIilHandle*, uint32_t evt_id, uint32_t len, void* payload) {
    const unsigned char* p = static_cast<const unsigned char*>(payload);
    std::string line = "event " + std::to_string(evt_id);
    if (p != nullptr && len == USBMGR_EVT_PAYLOAD_SIZE && g_kind_payloads) {
        int32_t kind;
        std::memcpy(&kind, p, sizeof kind);
        const char* name = usbmgr_tr140_kind_name(kind);
        line += " kind " + std::to_string(kind) + " " + (name != nullptr ? name : "Unknown");
    } else if (p != nullptr && len >= DUSB_DEVICE_RECORD_SIZE) {
        line += " " + describe_record(p);
    } else {
        line += " len " + std::to_string(len) + " hex " + (p != nullptr ? usbmgrctl::to_hex(p, len) : "");
    }
    {
        std::lock_guard<std::mutex> lock(g_print_mutex);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }
    g_events_seen.fetch_add(1);
    return 0;
}

int cmd_monitor(int argc, char** argv) {
    long count = -1;
    int64_t timeout_s = -1;
    std::string source = kDaemonName;
    std::vector<uint32_t> ids;
    // Options come in pairs: an option and its value.
    for (int i = 0; i < argc; i += 2) {
        const char* opt = argv[i];
        const char* val = i + 1 < argc ? argv[i + 1] : nullptr;
        int64_t n = 0;
        if (std::strcmp(opt, "--count") == 0 && val) {
            if (!usbmgrctl::parse_number(val, 1, 1000000, n)) return usage_error("bad --count '%s'", val);
            count = static_cast<long>(n);
        } else if (std::strcmp(opt, "--timeout") == 0 && val) {
            if (!usbmgrctl::parse_number(val, 0, 86400, n)) return usage_error("bad --timeout '%s'", val);
            timeout_s = n;
        } else if (std::strcmp(opt, "--source") == 0 && val) {
            if (std::strlen(val) == 0 || std::strlen(val) >= ORBIIL_NAME_SIZE)
                return usage_error("bad --source '%s'", val);
            source = val;
        } else if (std::strcmp(opt, "--event") == 0 && val) {
            if (!usbmgrctl::parse_number(val, 0, UINT32_MAX, n)) return usage_error("bad --event '%s'", val);
            ids.push_back(static_cast<uint32_t>(n));
        } else {
            return usage_error("unknown monitor option '%s'", opt);
        }
    }
    if (ids.empty()) {
        if (source == kHotplugName)
            ids = {DUSB_EVT_NEW_STORAGE_INTERFACE, DUSB_EVT_NEW_USB_SERIAL_INTERFACE, DUSB_EVT_REMOVE_STORAGE_INTERFACE,
                   DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE};
        else
            ids = {USBMGR_EVT_SERVICE_STATE_CHANGE, USBMGR_EVT_MINIDLNA_RELOAD_CONF, USBMGR_EVT_SAMBA_RELOAD_CONF,
                   USBMGR_EVT_MOUNT_DISK, USBMGR_EVT_UMOUNTED_DISK};
    }

    g_kind_payloads = source == kDaemonName;

    struct sigaction sa{};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    BusConnection bus;
    const std::string me = client_name();
    int rc = bus.open(me.c_str());
    if (rc != ORBIIL_OK) {
        std::fprintf(stderr, "usbmgrctl: cannot join the bus as %s: %s\n", me.c_str(), usbmgr_iil_err_str(rc));
        return kExitFail;
    }
    std::vector<OrbIilEvtEntry> table(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        std::memset(table[i].src, 0, sizeof table[i].src);
        std::memcpy(table[i].src, source.data(), source.size());  // length checked above
        table[i].id = ids[i];
        table[i].handler = on_event;
    }
    rc = OrbIilSetEvtHandler(bus.get(), table.data(), static_cast<uint32_t>(table.size()));
    if (rc != ORBIIL_OK) {
        std::fprintf(stderr, "usbmgrctl: cannot install the event table: %s\n", usbmgr_iil_err_str(rc));
        return kExitFail;
    }
    std::string subscribed;
    for (uint32_t id : ids) {
        rc = OrbIilSubscribeEvent(bus.get(), source.c_str(), id);
        if (rc != ORBIIL_OK) {
            std::fprintf(stderr, "usbmgrctl: cannot subscribe to event %u of %s: %s\n", id, source.c_str(),
                         usbmgr_iil_err_str(rc));
            return kExitFail;
        }
        subscribed += " " + std::to_string(id);
    }
    // Tests wait for this line before they make the events.
    std::fprintf(stderr, "usbmgrctl: monitoring %s events%s\n", source.c_str(), subscribed.c_str());

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s < 0 ? 0 : timeout_s);
    int result = kExitOk;
    while (!g_stop) {
        if (count > 0 && g_events_seen.load() >= count) break;
        if (timeout_s >= 0 && std::chrono::steady_clock::now() >= deadline) {
            if (count > 0) result = kExitFail;  // fewer events than asked for
            break;
        }
        if (!OrbIilIsRunning(bus.get())) {
            std::fprintf(stderr, "usbmgrctl: bus connection lost\n");
            result = kExitFail;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    bus.close();
    std::lock_guard<std::mutex> lock(g_print_mutex);
    std::fflush(stdout);
    return result;
}

// ---------------------------------------------------------------------------
// hot-plug stand-in

struct PlugKind {
    const char* verb;
    uint32_t event;
    bool arrival;
    bool serial;
};

constexpr PlugKind kPlugKinds[] = {
    {"plug", DUSB_EVT_NEW_STORAGE_INTERFACE, true, false},
    {"unplug", DUSB_EVT_REMOVE_STORAGE_INTERFACE, false, false},
    {"serial-plug", DUSB_EVT_NEW_USB_SERIAL_INTERFACE, true, true},
    {"serial-unplug", DUSB_EVT_REMOVE_USB_SERIAL_INTERFACE, false, true},
};

// A port name becomes a file name in /tmp/usb: plain characters only.
bool valid_port_name(const std::string& port) {
    if (port.empty() || port.size() > 63 || port == "." || port == "..") return false;
    for (char c : port) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
                  c == '-' || c == ':';
        if (!ok) return false;
    }
    return true;
}

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

bool write_port_file(const std::string& port, const std::string& list) {
    if (mkdir(kPortDir, 0755) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "usbmgrctl: cannot create %s: %s\n", kPortDir, usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    const std::string path = std::string(kPortDir) + "/" + port;
    const std::string line = list + "\r\n";
    FdCloser f{::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    if (f.fd < 0 || ::write(f.fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::fprintf(stderr, "usbmgrctl: cannot write %s: %s\n", path.c_str(), usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    return true;
}

bool remove_port_file(const std::string& port) {
    const std::string path = std::string(kPortDir) + "/" + port;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        std::fprintf(stderr, "usbmgrctl: cannot remove %s: %s\n", path.c_str(), usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    return true;
}

// Copies text into a fixed record field; refuses text that leaves no room for the NUL.
template <std::size_t N>
bool put_text(char (&dst)[N], const std::string& text, const char* option) {
    if (text.size() >= N) {
        std::fprintf(stderr, "usbmgrctl: %s is longer than %zu characters\n", option, N - 1);
        return false;
    }
    std::memset(dst, 0, N);
    std::memcpy(dst, text.data(), text.size());
    return true;
}

int cmd_plug(const PlugKind& kind, int argc, char** argv) {
    std::string port, device, serial, vendor, product, usb_version = "2.00", raw_hex;
    bool have_raw = false;
    int64_t device_version = 0, vendor_id = 0, product_id = 0, index = 0;
    for (int i = 0; i < argc; i += 2) {
        const char* opt = argv[i];
        if (i + 1 >= argc) return usage_error("option '%s' needs a value", opt);
        const char* val = argv[i + 1];
        if (std::strcmp(opt, "--port") == 0) {
            port = val;
        } else if (std::strcmp(opt, "--device") == 0) {
            device = val;
        } else if (std::strcmp(opt, "--serial") == 0) {
            serial = val;
        } else if (std::strcmp(opt, "--vendor") == 0) {
            vendor = val;
        } else if (std::strcmp(opt, "--product") == 0) {
            product = val;
        } else if (std::strcmp(opt, "--usb-version") == 0) {
            usb_version = val;
        } else if (std::strcmp(opt, "--device-version") == 0) {
            if (!usbmgrctl::parse_number(val, INT32_MIN, INT32_MAX, device_version))
                return usage_error("bad --device-version '%s'", val);
        } else if (std::strcmp(opt, "--vendor-id") == 0) {
            if (!usbmgrctl::parse_number(val, 0, 0xffff, vendor_id)) return usage_error("bad --vendor-id '%s'", val);
        } else if (std::strcmp(opt, "--product-id") == 0) {
            if (!usbmgrctl::parse_number(val, 0, 0xffff, product_id)) return usage_error("bad --product-id '%s'", val);
        } else if (std::strcmp(opt, "--index") == 0) {
            if (!usbmgrctl::parse_number(val, 0, 255, index)) return usage_error("bad --index '%s'", val);
        } else if (std::strcmp(opt, "--raw-hex") == 0) {
            raw_hex = val;
            have_raw = true;
        } else {
            return usage_error("unknown option '%s'", opt);
        }
    }
    if (device.empty() && !have_raw) return usage_error("%s needs --device LIST", kind.verb);
    if (!port.empty() && !valid_port_name(port)) return usage_error("bad port name '%s'", port.c_str());

    std::vector<unsigned char> payload;
    if (have_raw) {
        if (!usbmgrctl::parse_hex(raw_hex.c_str(), kMaxPayload, payload) || payload.empty())
            return usage_error("bad --raw-hex '%s'", raw_hex.c_str());
    } else {
        DusbDeviceRecord rec;
        std::memset(&rec, 0, sizeof rec);
        rec.Index = static_cast<uint8_t>(index);
        rec.ArrivedOrLeft = kind.arrival ? 1 : 0;
        rec.ProductID = static_cast<uint16_t>(product_id);
        rec.VendorID = static_cast<uint16_t>(vendor_id);
        // Class triples of a mass-storage bulk-only interface and of a vendor-specific serial adapter.
        rec.DeviceClass = kind.serial ? 0xff : 0x08;
        rec.DeviceSubClass = kind.serial ? 0x00 : 0x06;
        rec.DeviceProtocol = kind.serial ? 0x00 : 0x50;
        if (!put_text(rec.AttachDevice, device, "--device") || !put_text(rec.USBVersion, usb_version, "--usb-version") ||
            !put_text(rec.Manufacturer, vendor, "--vendor") || !put_text(rec.ProductClass, product, "--product") ||
            !put_text(rec.SerialNumber, serial, "--serial"))
            return kExitUsage;
        rec.DeviceVersion = static_cast<int32_t>(device_version);
        payload.resize(sizeof rec);
        std::memcpy(payload.data(), &rec, sizeof rec);
    }

    BusConnection bus;
    int rc = bus.open(kHotplugName);
    if (rc != ORBIIL_OK) {
        std::fprintf(stderr, "usbmgrctl: cannot join the bus as %s: %s\n", kHotplugName, usbmgr_iil_err_str(rc));
        return kExitFail;
    }
    for (const auto& k : kPlugKinds) {
        uint32_t len = k.event == kind.event ? static_cast<uint32_t>(payload.size()) : DUSB_DEVICE_RECORD_SIZE;
        rc = OrbIilIssueEvent(bus.get(), k.event, len);
        if (rc != ORBIIL_OK) {
            std::fprintf(stderr, "usbmgrctl: cannot declare event %u: %s\n", k.event, usbmgr_iil_err_str(rc));
            return kExitFail;
        }
    }
    // The port file changes before the event, as the hot-plug daemon keeps it
    // current before it tells anyone.
    if (!port.empty()) {
        bool ok = kind.arrival ? write_port_file(port, device) : remove_port_file(port);
        if (!ok) return kExitFail;
    }
    rc = OrbIilNotify(bus.get(), kind.event, static_cast<uint32_t>(payload.size()), payload.data());
    bus.close();
    if (rc != ORBIIL_OK) {
        std::fprintf(stderr, "usbmgrctl: event %u not sent: %s\n", kind.event, usbmgr_iil_err_str(rc));
        return kExitFail;
    }
    std::printf("sent event %u (%zu bytes)\n", kind.event, payload.size());
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "%s%s", kUsage, usbmgrctl::verbs_usage().c_str());
        return kExitUsage;
    }
    const char* sub = argv[1];
    if (std::strcmp(sub, "help") == 0 || std::strcmp(sub, "--help") == 0 || std::strcmp(sub, "-h") == 0) {
        std::printf("%s%s", kUsage, usbmgrctl::verbs_usage().c_str());
        return kExitOk;
    }
    if (std::strcmp(sub, "call") == 0) return cmd_call(argc - 2, argv + 2);
    if (std::strcmp(sub, "fields") == 0) return cmd_fields(argc - 2, argv + 2);
    if (std::strcmp(sub, "monitor") == 0) return cmd_monitor(argc - 2, argv + 2);
    if (std::strcmp(sub, "tree") == 0) return cmd_tree(argc - 2, argv + 2);
    if (const usbmgrctl::Verb* verb = usbmgrctl::find_verb(sub)) return cmd_verb(*verb, argc - 2, argv + 2);
    for (const auto& k : kPlugKinds)
        if (std::strcmp(sub, k.verb) == 0) return cmd_plug(k, argc - 2, argv + 2);
    return usage_error("unknown command '%s'", sub);
}
