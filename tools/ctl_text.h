// Text helpers of usbmgrctl: number and hex parsing, escaping for output.
#ifndef USBMGRCTL_CTL_TEXT_H
#define USBMGRCTL_CTL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace usbmgrctl {

// Parses a whole decimal number (optionally negative) or a 0x hex number.
// Returns false for empty text, trailing characters or a value outside [min, max].
bool parse_number(const char* text, int64_t min, int64_t max, int64_t& out);

// Parses a string of hex digit pairs (whitespace-free, upper or lower case)
// into bytes; at most max_bytes. Returns false for odd length or a non-hex digit.
bool parse_hex(const char* text, std::size_t max_bytes, std::vector<unsigned char>& out);

// Lower-case hex digits of the bytes, no separators.
std::string to_hex(const unsigned char* data, std::size_t len);

// Contents of a JSON string literal (without the quotes): quotes, backslashes,
// control characters and bytes above 0x7e escaped as \uXXXX.
std::string json_escape(const std::string& s);

// A C-like quoted form for terminal output: printable ASCII as is, the rest \xNN.
std::string quote_text(const std::string& s);

}  // namespace usbmgrctl

#endif
