#include "db_util/file_writer.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace usbmgr {

namespace {

constexpr int kNameTries = 100;
constexpr char kSuffixChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

// Six random characters, as mkstemp's XXXXXX; false when no randomness came.
bool random_suffix(std::string& out) {
    std::uint8_t bytes[6];
    std::size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    out.clear();
    for (std::uint8_t b : bytes) out.push_back(kSuffixChars[b % (sizeof kSuffixChars - 1)]);
    return true;
}

// The folder a path names its file in, for the sync after the rename.
std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

}  // namespace

FileReplacement::FileReplacement(const char* target, mode_t mode) : target_(target ? target : ""), mode_(mode) {
    if (target_.empty() || target_.back() == '/') return;
    for (int attempt = 0; attempt < kNameTries; ++attempt) {
        std::string suffix;
        if (!random_suffix(suffix)) return;
        std::string name = target_ + "." + suffix;
        // Owner-only until the contents are complete; the mode comes at commit.
        UniqueFd fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd) {
            if (errno == EEXIST) continue;  // taken, or a link planted there
            return;
        }
        std::FILE* f = ::fdopen(fd.get(), "w");
        if (f == nullptr) {
            ::unlink(name.c_str());
            return;
        }
        fd.release();
        file_.reset(f);
        temp_ = std::move(name);
        return;
    }
}

FileReplacement::~FileReplacement() { drop(); }

void FileReplacement::drop() noexcept {
    file_.reset();
    if (!temp_.empty()) ::unlink(temp_.c_str());
    temp_.clear();
}

bool FileReplacement::commit() {
    if (!file_) return false;
    const int fd = ::fileno(file_.get());
    const bool written = std::fflush(file_.get()) == 0 && std::ferror(file_.get()) == 0 &&
                         ::fchmod(fd, mode_) == 0 && ::fsync(fd) == 0;
    // fclose reports a write error the flush may still have left.
    const bool closed = std::fclose(file_.release()) == 0;
    if (!written || !closed || ::rename(temp_.c_str(), target_.c_str()) != 0) {
        drop();
        return false;
    }
    temp_.clear();
    // The rename itself reaches the disk with its folder.
    if (UniqueFd dir(::open(folder_of(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); dir) ::fsync(dir.get());
    return true;
}

bool replace_file(const char* target, std::string_view text, mode_t mode) {
    FileReplacement file(target, mode);
    if (!file) return false;
    if (!text.empty() && std::fwrite(text.data(), 1, text.size(), file.stream()) != text.size()) return false;
    return file.commit();
}

}  // namespace usbmgr
