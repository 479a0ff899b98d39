// The one way the daemon replaces a file: the new contents go into a file
// made exclusively beside the target (never through a link someone planted
// there), are flushed to the disk and then renamed over the target, so a
// reader sees the old file or the new one, never half of either.
#ifndef USBMGR_DB_UTIL_FILE_WRITER_H
#define USBMGR_DB_UTIL_FILE_WRITER_H

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "db_util/owners.h"

namespace usbmgr {

// A replacement of one file under way. The new file is made when the
// replacement is constructed: "<target>.XXXXXX" (random suffix) in the
// target's own folder, created with O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC, so
// neither a link at that name nor one at the target is ever followed.
// Nothing changes at the target until commit(); a replacement dropped
// without a commit (an early return) removes its new file.
class FileReplacement {
public:
    FileReplacement(const char* target, mode_t mode);
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;
    ~FileReplacement();

    // False when the new file could not be made; then nothing was created.
    explicit operator bool() const noexcept { return static_cast<bool>(file_); }
    // The new file, for writing; null when it could not be made.
    std::FILE* stream() const noexcept { return file_.get(); }
    // Flushes and syncs the new file, gives it its mode and renames it over
    // the target (a link at the target is replaced, not followed). False,
    // with the target as it was and the new file gone, when any step fails.
    bool commit();
    // The new file's path; empty once committed or dropped.
    const std::string& temp_path() const noexcept { return temp_; }

private:
    void drop() noexcept;

    std::string target_;
    std::string temp_;
    mode_t mode_;
    FilePtr file_;
};

// Replaces target with text in one step as above; false leaves it as it was.
bool replace_file(const char* target, std::string_view text, mode_t mode);

// Modes of the files the daemon writes: the settings hold Samba passwords.
inline constexpr mode_t kPrivateFileMode = 0600;
inline constexpr mode_t kPublicFileMode = 0644;

}  // namespace usbmgr

#endif
