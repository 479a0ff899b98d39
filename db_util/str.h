// Bounded text helpers: every copy and format stops at its destination.
#ifndef USBMGR_DB_UTIL_STR_H
#define USBMGR_DB_UTIL_STR_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace usbmgr {

// Copies src into dst, cut to fit and always NUL-terminated; returns dst.
inline char* copy_bounded(char* dst, std::size_t size, const char* src) {
    if (size == 0) return dst;
    std::size_t n = src ? strnlen(src, size - 1) : 0;
    if (n) std::memcpy(dst, src, n);
    dst[n] = '\0';
    return dst;
}

template <std::size_t N>
inline char* copy_str(char (&dst)[N], const char* src) {
    return copy_bounded(dst, N, src);
}

// Length of a fixed field that may lack its terminator.
template <std::size_t N>
inline std::size_t field_len(const char (&field)[N]) {
    return strnlen(field, N);
}

// A payload's text field as a terminated string: the field may lack its
// NUL, so it is read up to its own end and no further.
template <std::size_t N>
struct FieldText {
    explicit FieldText(const char (&field)[N]) { std::memcpy(text, field, field_len(field)); }
    char text[N + 1] = {};
};

// snprintf into a fixed array; returns false when the text was cut.
template <std::size_t N>
__attribute__((format(printf, 2, 3))) inline bool format_str(char (&dst)[N], const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(dst, N, fmt, ap);
    va_end(ap);
    return n >= 0 && static_cast<std::size_t>(n) < N;
}

// The daemon's one text cleaner. Makes a text from outside (a serial
// number, a vendor name, a device list, a folder name) safe to stand as a
// value in a key=value line and in a log line: each control character
// (below 0x20, and 0x7f) becomes '_'; everything else stays, '=' included,
// since a value runs to the end of its line. Applied wherever such a text
// enters the daemon, so every copy of it agrees.
inline void sanitize_value_text(char* s, std::size_t size) {
    for (std::size_t i = 0; i < size && s[i] != '\0'; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x20 || c == 0x7f) s[i] = '_';
    }
}

// src copied into out (cut to fit) and cleaned as above; returns out.
template <std::size_t N>
inline const char* clean_copy(char (&out)[N], const char* src) {
    copy_str(out, src);
    sanitize_value_text(out, N);
    return out;
}

// strerror's text for err, through strerror_r: strerror may hand every
// thread one shared buffer (uClibc does), and the daemon logs from several.
// The text is strerror's own, "Unknown error N" included.
class ErrnoText {
public:
    explicit ErrnoText(int err) { text_ = pick(strerror_r(err, buf_, sizeof buf_), err); }
    ErrnoText(const ErrnoText&) = delete;
    ErrnoText& operator=(const ErrnoText&) = delete;
    const char* c_str() const { return text_; }

private:
    // GNU strerror_r returns the text, which may or may not be buf_.
    const char* pick(const char* text, int /*err*/) const { return text ? text : buf_; }
    // XSI strerror_r fills buf_ and returns 0, or an error number.
    const char* pick(int rc, int err) {
        if (rc != 0) std::snprintf(buf_, sizeof buf_, "Unknown error %d", err);
        return buf_;
    }

    char buf_[128] = {};
    const char* text_ = nullptr;
};

}  // namespace usbmgr

#endif
