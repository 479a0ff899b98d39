#include "db_util/runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cerrno>
#include <cstring>

#include "db_util/log.h"
#include "db_util/owners.h"
#include "db_util/str.h"

namespace usbmgr {

namespace {

// A child's output beyond this is read and dropped, so that it never blocks.
constexpr std::size_t kMaxOutput = 1 << 20;

SystemRunner g_system_runner;
CommandRunner* g_runner = &g_system_runner;

}  // namespace

namespace detail {
int format_into(char* buf, std::size_t size, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = std::vsnprintf(buf, size, fmt, ap);
#pragma GCC diagnostic pop
    va_end(ap);
    return n;
}
}  // namespace detail

bool shell_word_ok(std::string_view s) {
    if (s.empty() || s.front() == '-') return false;
    for (char c : s) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                  c == '.' || c == '/' || c == ',' || c == ':' || c == '+' || c == '@' || c == '%' || c == '=' ||
                  c == '-';
        if (!ok) return false;
    }
    return true;
}

CommandLine CommandLine::exec(std::vector<std::string> argv) {
    CommandLine cmd;
    for (const auto& a : argv) {
        if (!cmd.text.empty()) cmd.text += ' ';
        cmd.text += a;
    }
    cmd.valid = !argv.empty() && !argv.front().empty();
    for (const auto& a : argv)
        if (a.find('\0') != std::string::npos) cmd.valid = false;
    cmd.argv = std::move(argv);
    return cmd;
}

CommandLine CommandLine::shell(std::string text) {
    CommandLine cmd;
    cmd.text = std::move(text);
    cmd.valid = !cmd.text.empty();
    return cmd;
}

RunResult SystemRunner::start_and_wait(const CommandLine& cmd, bool capture, const StartedFn& started) {
    RunResult result;
    if (!cmd.valid) return result;

    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls.
    std::vector<const char*> argv;
    static const char kShell[] = "/bin/sh";
    if (cmd.argv.empty()) {
        argv = {kShell, "-c", cmd.text.c_str(), nullptr};
    } else {
        for (const auto& a : cmd.argv) argv.push_back(a.c_str());
        argv.push_back(nullptr);
    }

    int pipefd[2] = {-1, -1};
    if (capture && ::pipe2(pipefd, O_CLOEXEC) != 0) return result;
    UniqueFd rd(pipefd[0]), wr(pipefd[1]);

    pid_t pid = ::fork();
    if (pid < 0) return result;
    if (pid == 0) {
        // Threads of the daemon block signals; the programs it runs must not inherit that.
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        if (capture) {
            if (dup2(pipefd[1], STDOUT_FILENO) < 0) _exit(127);
        }
        execvp(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    result.started = true;
    wr.reset();
    if (started) started();
    if (capture) {
        char buf[4096];
        for (;;) {
            ssize_t n = ::read(rd.get(), buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            if (result.output.size() < kMaxOutput)
                result.output.append(buf, std::min<std::size_t>(static_cast<std::size_t>(n), kMaxOutput - result.output.size()));
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

CommandRunner& runner() { return *g_runner; }

void set_runner(CommandRunner* r) { g_runner = r ? r : &g_system_runner; }

bool run_logged(const CommandLine& cmd, const char* module, int line) {
    if (!cmd.valid) {
        char shown[160];
        OrbIilTrace(USBMGR_LOG_ERROR, module, line, "refusing command line '%s'", clean_copy(shown, cmd.text.c_str()));
        return false;
    }
    RunResult r = runner().run(cmd, /*capture=*/true, [&] {
        OrbIilTrace(USBMGR_LOG_DEBUG, module, line, "run command : %s", cmd.text.c_str());
    });
    return r.started;
}

std::vector<std::string> fgets_lines(std::string_view output, std::size_t size) {
    std::vector<std::string> lines;
    if (size < 2) return lines;
    std::size_t pos = 0;
    while (pos < output.size()) {
        std::size_t max = std::min(size - 1, output.size() - pos);
        std::size_t nl = output.substr(pos, max).find('\n');
        std::size_t len = nl == std::string_view::npos ? max : nl + 1;
        // fgets stops at a NUL only in the sense that the C string ends there.
        std::string piece(output.substr(pos, len));
        piece.resize(std::strlen(piece.c_str()));
        lines.push_back(std::move(piece));
        pos += len;
    }
    return lines;
}

std::string first_line(std::string_view output, std::size_t size) {
    auto lines = fgets_lines(output.substr(0, std::min(output.size(), size)), size);
    return lines.empty() ? std::string() : lines.front();
}

}  // namespace usbmgr
