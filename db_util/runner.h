// Command runner: the one place where the daemon starts other programs.
//
// Every command line is composed as text (that text is what the log and the
// tests see) and carries how it runs: as an argument vector without a shell,
// or, where a pipe or a glob is needed, through /bin/sh with every value that
// was put into it checked to be a plain word.
#ifndef USBMGR_DB_UTIL_RUNNER_H
#define USBMGR_DB_UTIL_RUNNER_H

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace usbmgr {

// True when s can stand unquoted in a shell command line as one plain word:
// non-empty, only letters, digits and _ . / , : + @ % = -, not starting with -.
bool shell_word_ok(std::string_view s);

struct CommandLine {
    std::string text;               // the command line as logged
    std::vector<std::string> argv;  // empty: run text through /bin/sh -c
    bool valid = false;             // false: a value was refused or did not fit

    // A program and its arguments, run without a shell; text joins them with blanks.
    static CommandLine exec(std::vector<std::string> argv);
    // A fixed shell command line (pipes, globs), no outside values in it.
    static CommandLine shell(std::string text);
};

namespace detail {
inline bool shell_arg_ok(const char* s) { return s != nullptr && shell_word_ok(s); }
inline bool shell_arg_ok(const std::string& s) { return shell_word_ok(s); }
template <typename T>
inline std::enable_if_t<std::is_integral_v<T>, bool> shell_arg_ok(T) { return true; }
inline const char* shell_arg_c(const std::string& s) { return s.c_str(); }
inline const char* shell_arg_c(const char* s) { return s; }
template <typename T>
inline std::enable_if_t<std::is_integral_v<T>, T> shell_arg_c(T v) { return v; }
// vsnprintf behind a call the compiler cannot see through: the format is
// the caller's literal, the bound is the buffer.
int format_into(char* buf, std::size_t size, const char* fmt, ...);
}  // namespace detail

// Formats a shell command line into at most Size - 1 characters (the command
// buffer of the caller). The result is invalid, and must not run, when a
// value is not a plain word or the line does not fit.
template <std::size_t Size, typename... Args>
CommandLine shell_command(const char* fmt, const Args&... args) {
    CommandLine cmd;
    char buf[Size] = {};
    bool ok = (detail::shell_arg_ok(args) && ... && true);
    int n = detail::format_into(buf, sizeof buf, fmt, detail::shell_arg_c(args)...);
    cmd.text = buf;
    cmd.valid = ok && n >= 0 && static_cast<std::size_t>(n) < Size;
    return cmd;
}

struct RunResult {
    bool started = false;  // the program (or the shell) could be started
    std::string output;    // its standard output, when asked for
};

// Called once a command has started, before it is waited for.
using StartedFn = std::function<void()>;

class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    // Starts cmd and waits for it to end; collects its standard output when
    // capture is set (as popen(cmd, "r") would), else lets it through (as
    // system would). started, when set, is called between the start and the
    // wait, and only when the command started. The exit status is not
    // reported: callers never look at it.
    RunResult run(const CommandLine& cmd, bool capture, const StartedFn& started = {}) {
        return start_and_wait(cmd, capture, started);
    }

protected:
    // What run does; each runner says how.
    virtual RunResult start_and_wait(const CommandLine& cmd, bool capture, const StartedFn& started) = 0;
};

// Runs commands for real: fork, exec, close-on-exec descriptors, _exit.
class SystemRunner final : public CommandRunner {
protected:
    RunResult start_and_wait(const CommandLine& cmd, bool capture, const StartedFn& started) override;
};

// The process's runner; tests install their own.
CommandRunner& runner();
void set_runner(CommandRunner* r);  // nullptr restores the system runner

// Runs cmd through the process's runner as popen and pclose would (output
// collected and dropped) and logs "run command : %s" (DEBUG) under the
// caller's module name once the command has started, so that a command that
// hangs still shows its line. A command line refused when it was composed
// does not run and is logged (ERROR) as "refusing command line '%s'". True
// when the command started.
// line is the caller's source line (clang 14 has no std::source_location).
bool run_logged(const CommandLine& cmd, const char* module, int line = __builtin_LINE());

// Splits output the way repeated fgets(buf, size) calls see it: pieces of at
// most size - 1 characters, each ending at a newline where one comes first.
std::vector<std::string> fgets_lines(std::string_view output, std::size_t size);
// The first fgets(buf, size) piece of output, or empty when there is none.
std::string first_line(std::string_view output, std::size_t size);

}  // namespace usbmgr

#endif
