// dusbd's uevent reader: the kernel's netlink messages and the KEY=VALUE
// blocks of --uevents, with any bytes.
//
// Input: a chunk byte, then the bytes. The bytes are read as one netlink
// message, and as a stream of blocks fed once whole and once in chunks of
// (chunk byte % 64) + 1 bytes. Every event that comes out must be sane (a
// /devices/ path without "." or ".." steps, bounded plain fields), and the
// stream must give the same events however it is cut. The events then go
// through the collector over an empty sysfs, which must tell nothing.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "collector.h"
#include "uevent.h"

namespace {

[[noreturn]] void finding(const char* rule, const std::string& detail) {
    std::fprintf(stderr, "==FINDING== %s: %s\n", rule, detail.c_str());
    std::abort();
}

void check(const dusb::Uevent& ev) {
    if (!dusb::uevent_is_sane(ev)) finding("an event that is not sane came out", ev.devpath);
    if (ev.devpath.size() > dusb::kMaxDevpath || ev.action.size() > dusb::kMaxValue ||
        ev.subsystem.size() > dusb::kMaxValue || ev.devname.size() > dusb::kMaxValue ||
        ev.devtype.size() > dusb::kMaxValue)
        finding("a field beyond its bound", ev.devpath.substr(0, 80));
}

bool same(const dusb::Uevent& a, const dusb::Uevent& b) {
    return a.action == b.action && a.devpath == b.devpath && a.subsystem == b.subsystem && a.devname == b.devname &&
           a.devtype == b.devtype;
}

class Silent : public dusb::HotplugSink {
public:
    void write_port(const std::string& port, const std::string&) override { finding("a port file over no sysfs", port); }
    void remove_port(const std::string& port) override { finding("a port file removed over no sysfs", port); }
    void send(uint32_t event, const DusbDeviceRecord&) override {
        finding("an event told over no sysfs", std::to_string(event));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::size_t chunk = data[0] % 64 + 1;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    const std::size_t len = size - 1;

    std::vector<dusb::Uevent> events;
    if (auto ev = dusb::parse_kernel_message(bytes, len)) events.push_back(*ev);

    std::vector<dusb::Uevent> whole;
    dusb::UeventBlockReader a;
    a.feed(bytes, len, whole);
    a.finish(whole);
    std::vector<dusb::Uevent> cut;
    dusb::UeventBlockReader b;
    for (std::size_t at = 0; at < len; at += chunk) b.feed(bytes + at, len - at < chunk ? len - at : chunk, cut);
    b.finish(cut);
    if (whole.size() != cut.size()) finding("the events depend on how the stream was cut", std::to_string(chunk));
    for (std::size_t i = 0; i < whole.size(); ++i)
        if (!same(whole[i], cut[i])) finding("the events depend on how the stream was cut", whole[i].devpath);
    events.insert(events.end(), whole.begin(), whole.end());

    Silent sink;
    dusb::Collector collector("/nonexistent-sysfs", sink, std::chrono::milliseconds(500));
    auto now = dusb::Clock::time_point{} + std::chrono::hours(1);
    for (const auto& ev : events) {
        check(ev);
        collector.handle(ev, now);
    }
    collector.tick(now + std::chrono::seconds(1));
    return 0;
}
