// Helpers shared by the server files of app_util: bounded configuration
// lines, field texts and command lines. Not part of the module's interface.
#ifndef USBMGR_APP_UTIL_INTERNAL_H
#define USBMGR_APP_UTIL_INTERNAL_H

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "db_util/owners.h"
#include "db_util/runner.h"

namespace app_util_internal {

// Line buffer of the generators: a line, its newline included, never holds
// more than kLineSize - 1 characters. MiniDLNA reads its file through a
// buffer of the same size, so a longer line would come back as two.
inline constexpr std::size_t kLineSize = 200;
// Command buffer of the server commands.
inline constexpr std::size_t kCommandSize = 100;

// The text of a fixed settings field, up to its NUL or its end.
template <std::size_t N>
std::string field_text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Control characters (newline and carriage return among them) become '_',
// so a value always stays on its own line.
inline std::string line_safe(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) c = '_';
    }
    return out;
}

// value cut so that prefix, value, suffix and the newline fit one line.
inline std::string fit_value(std::string_view prefix, std::string_view value, std::string_view suffix) {
    std::size_t fixed = prefix.size() + suffix.size() + 1;
    std::size_t room = fixed < kLineSize - 1 ? kLineSize - 1 - fixed : 0;
    return std::string(value.substr(0, room));
}

// Appends one line; the caller has made value safe and fitted it.
inline void append_line(std::string& out, std::string_view prefix, std::string_view value, std::string_view suffix) {
    out.append(prefix).append(value).append(suffix).push_back('\n');
}

// True when a value from the settings can stand as a program's argument:
// it cannot pass for an option and holds no control character.
inline bool value_argument_ok(std::string_view value) {
    if (!value.empty() && value.front() == '-') return false;
    for (char c : value) {
        unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return false;
    }
    return true;
}

// A program run without a shell whose line must fit the command buffer; a
// longer one is refused rather than cut, and so is one whose arguments at
// value_args (values from the settings) are not value_argument_ok.
inline usbmgr::CommandLine server_command(std::vector<std::string> argv,
                                          std::initializer_list<std::size_t> value_args = {}) {
    bool values_ok = true;
    for (std::size_t i : value_args)
        if (i < argv.size() && !value_argument_ok(argv[i])) values_ok = false;
    usbmgr::CommandLine cmd = usbmgr::CommandLine::exec(std::move(argv));
    if (cmd.text.size() >= kCommandSize || !values_ok) cmd.valid = false;
    return cmd;
}

}  // namespace app_util_internal

#endif
