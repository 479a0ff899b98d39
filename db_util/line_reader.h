// Line reading for the key=value file rewrites: pieces as fgets into the
// 256-character line buffer sees them, and the rest of a line longer than
// one piece, so that a rewrite keeps or drops such a line whole.
#ifndef USBMGR_DB_UTIL_LINE_READER_H
#define USBMGR_DB_UTIL_LINE_READER_H

#include <cstddef>
#include <cstdio>
#include <string>

namespace usbmgr {

// Reads one piece as fgets into N characters would (up to and with the
// newline, at most N - 1 bytes) and returns its length, 0 at the end. The
// length lets a kept piece be copied whole: a NUL in it would end the copy
// of a C string early and lose the newline behind it.
template <std::size_t N>
std::size_t read_line_piece(FILE* f, char (&buf)[N]) {
    static_assert(N > 1);
    std::size_t n = 0;
    while (n < N - 1) {
        const int c = getc_unlocked(f);
        if (c == EOF) break;
        buf[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    buf[n] = '\0';
    return n;
}

// A line longer than this goes on as lines of its own.
inline constexpr std::size_t kMaxWholeLineSize = 1 << 20;

// The rest of a line whose first piece (head, head_len bytes, no newline)
// filled a read: whole becomes the line up to and with its newline, at most
// kMaxWholeLineSize bytes. False when the head was the file's last bytes.
inline bool read_rest_of_line(FILE* f, const char* head, std::size_t head_len, std::string& whole) {
    whole.assign(head, head_len);
    while (whole.size() < kMaxWholeLineSize) {
        const int c = getc_unlocked(f);
        if (c == EOF) break;
        whole.push_back(static_cast<char>(c));
        if (c == '\n') break;
    }
    return whole.size() > head_len;
}

}  // namespace usbmgr

#endif
