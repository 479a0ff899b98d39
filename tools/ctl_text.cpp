#include "tools/ctl_text.h"

#include <cstdio>
#include <cstring>

namespace usbmgrctl {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

bool parse_number(const char* text, int64_t min, int64_t max, int64_t& out) {
    if (text == nullptr || *text == '\0') return false;
    const char* p = text;
    bool negative = false;
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    } else if (p[0] == '-') {
        negative = true;
        ++p;
    }
    if (*p == '\0') return false;
    // Accumulate in unsigned 64 bits with an explicit ceiling so that no
    // input, however long, overflows.
    constexpr uint64_t kCeiling = uint64_t{1} << 40;
    uint64_t value = 0;
    for (; *p != '\0'; ++p) {
        int d = base == 16 ? hex_value(*p) : (*p >= '0' && *p <= '9' ? *p - '0' : -1);
        if (d < 0) return false;
        value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
        if (value > kCeiling) return false;
    }
    int64_t v = negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
    if (v < min || v > max) return false;
    out = v;
    return true;
}

bool parse_hex(const char* text, std::size_t max_bytes, std::vector<unsigned char>& out) {
    out.clear();
    if (text == nullptr) return false;
    std::size_t len = std::strlen(text);
    if (len % 2 != 0 || len / 2 > max_bytes) return false;
    out.reserve(len / 2);
    for (std::size_t i = 0; i < len; i += 2) {
        int hi = hex_value(text[i]);
        int lo = hex_value(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
    return true;
}

std::string to_hex(const unsigned char* data, std::size_t len) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string s;
    s.reserve(len * 2);
    for (std::size_t i = 0; i < len; ++i) {
        s.push_back(kDigits[data[i] >> 4]);
        s.push_back(kDigits[data[i] & 0x0f]);
    }
    return s;
}

std::string json_escape(const std::string& s) {
    std::string r;
    r.reserve(s.size() + 8);
    for (char ch : s) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c == '"') {
            r += "\\\"";
        } else if (c == '\\') {
            r += "\\\\";
        } else if (c == '\n') {
            r += "\\n";
        } else if (c == '\r') {
            r += "\\r";
        } else if (c == '\t') {
            r += "\\t";
        } else if (c < 0x20 || c > 0x7e) {
            // Bytes above ASCII are shown as their Latin-1 code points, which
            // keeps the output valid JSON whatever the payload holds.
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            r += esc;
        } else {
            r.push_back(static_cast<char>(c));
        }
    }
    return r;
}

std::string quote_text(const std::string& s) {
    std::string r = "\"";
    for (char ch : s) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            r.push_back('\\');
            r.push_back(static_cast<char>(c));
        } else if (c < 0x20 || c > 0x7e) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            r += esc;
        } else {
            r.push_back(static_cast<char>(c));
        }
    }
    r.push_back('"');
    return r;
}

}  // namespace usbmgrctl
