// A temporary folder under $TMPDIR (else /tmp), removed with its contents
// when the object goes away; path() is empty when it could not be made.
#ifndef USBMGR_TESTS_PLATFORM_TEMP_DIR_H
#define USBMGR_TESTS_PLATFORM_TEMP_DIR_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

class TempDir {
public:
    explicit TempDir(const char* prefix) {
        const char* base = std::getenv("TMPDIR");
        std::string templ = std::string(base && base[0] ? base : "/tmp") + "/" + prefix + "-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

#endif
