// orbcm_util: anything but "cfg save" is a usage error. ("cfg save" writes
// /var/log, which these tests leave alone.)
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The tool sits in the build tree beside the libraries.
std::string tool_path() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return "";
    auto tool = exe.parent_path() / "../../platform/host/orbcm_util";
    return std::filesystem::exists(tool, ec) ? tool.lexically_normal().string() : "";
}

int run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0) dup2(devnull, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OrbcmUtil, AnythingButCfgSaveIsAUsageErrorWithStatusTwo) {
    std::string tool = tool_path();
    if (tool.empty()) GTEST_SKIP() << "orbcm_util not built";
    EXPECT_EQ(run({tool}), 2);
    EXPECT_EQ(run({tool, "cfg"}), 2);
    EXPECT_EQ(run({tool, "cfg", "load"}), 2);
    EXPECT_EQ(run({tool, "cfg", "save", "extra"}), 2);
}

}  // namespace
