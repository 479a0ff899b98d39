#include "uevent.h"

#include <cstring>
#include <string_view>

namespace dusb {

namespace {

bool plain_name(std::string_view s) {
    for (char c : s) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
                  c == '.' || c == ':' || c == '+' || c == '!';
        if (!ok) return false;
    }
    return true;
}

bool sane_devpath(std::string_view p) {
    constexpr std::string_view kPrefix = "/devices/";
    if (p.size() > kMaxDevpath || p.substr(0, kPrefix.size()) != kPrefix) return false;
    std::string_view rest = p.substr(1);
    while (!rest.empty()) {
        std::size_t slash = rest.find('/');
        std::string_view step = rest.substr(0, slash);
        if (step.empty() || step == "." || step == ".." || !plain_name(step)) return false;
        if (slash == std::string_view::npos) break;
        rest = rest.substr(slash + 1);
        if (rest.empty()) return false;  // a trailing slash
    }
    return true;
}

}  // namespace

bool uevent_is_sane(const Uevent& ev) {
    if (ev.action.empty() || !plain_name(ev.action) || !sane_devpath(ev.devpath)) return false;
    // DEVNAME may hold a folder (bus/usb/001/002): only its steps must be plain.
    for (const std::string* s : {&ev.subsystem, &ev.devtype})
        if (!plain_name(*s)) return false;
    for (char c : ev.devname)
        if (c != '/' && !plain_name(std::string_view(&c, 1))) return false;
    return true;
}

bool apply_property(Uevent& ev, const char* key, std::size_t key_len, const char* value, std::size_t value_len) {
    std::string_view k(key, key_len);
    std::string* field = nullptr;
    std::size_t limit = kMaxValue;
    if (k == "ACTION") {
        field = &ev.action;
    } else if (k == "DEVPATH") {
        field = &ev.devpath;
        limit = kMaxDevpath;
    } else if (k == "SUBSYSTEM") {
        field = &ev.subsystem;
    } else if (k == "DEVNAME") {
        field = &ev.devname;
    } else if (k == "DEVTYPE") {
        field = &ev.devtype;
    } else {
        return true;
    }
    if (value_len > limit) return false;
    field->assign(value, value_len);
    return true;
}

std::optional<Uevent> parse_kernel_message(const char* data, std::size_t len) {
    if (data == nullptr || len == 0 || len > kMaxUeventMessage) return std::nullopt;
    std::string_view msg(data, len);
    std::size_t end = msg.find('\0');
    std::string_view head = msg.substr(0, end);
    std::size_t at = head.find('@');
    if (at == std::string_view::npos || at == 0) return std::nullopt;
    Uevent ev;
    if (!apply_property(ev, "ACTION", 6, head.data(), at) ||
        !apply_property(ev, "DEVPATH", 7, head.data() + at + 1, head.size() - at - 1))
        return std::nullopt;
    const std::string head_action = ev.action;
    const std::string head_devpath = ev.devpath;
    while (end != std::string_view::npos && end + 1 < msg.size()) {
        std::size_t start = end + 1;
        end = msg.find('\0', start);
        std::string_view prop = msg.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        std::size_t eq = prop.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;
        if (!apply_property(ev, prop.data(), eq, prop.data() + eq + 1, prop.size() - eq - 1)) return std::nullopt;
    }
    // The heading and the properties tell the same event, or it is not the kernel's.
    if (ev.action != head_action || ev.devpath != head_devpath) return std::nullopt;
    if (!uevent_is_sane(ev)) return std::nullopt;
    return ev;
}

void UeventBlockReader::feed(const char* data, std::size_t len, std::vector<Uevent>& out) {
    for (std::size_t i = 0; i < len; ++i) {
        char c = data[i];
        if (c == '\n') {
            end_line(out);
        } else if (line_.size() < kMaxLine) {
            line_.push_back(c);
        } else {
            line_too_long_ = true;
        }
    }
}

void UeventBlockReader::finish(std::vector<Uevent>& out) {
    if (!line_.empty() || line_too_long_) end_line(out);
    end_block(out);
}

void UeventBlockReader::end_line(std::vector<Uevent>& out) {
    std::string line;
    line.swap(line_);
    const bool too_long = line_too_long_;
    line_too_long_ = false;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (too_long) {
        block_spoilt_ = true;
        block_empty_ = false;
        return;
    }
    if (line.empty()) {
        end_block(out);
        return;
    }
    std::size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) return;  // a heading line
    block_empty_ = false;
    if (line.find('\0') != std::string::npos || !apply_property(block_, line.data(), eq, line.data() + eq + 1,
                                                               line.size() - eq - 1))
        block_spoilt_ = true;
}

void UeventBlockReader::end_block(std::vector<Uevent>& out) {
    if (!block_empty_ && !block_spoilt_ && uevent_is_sane(block_)) out.push_back(block_);
    block_ = Uevent{};
    block_spoilt_ = false;
    block_empty_ = true;
}

}  // namespace dusb
