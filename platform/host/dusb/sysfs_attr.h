// Reading sysfs attribute files: small text files of one line. Shared by
// libdusb and dusbd. A file is read at most once and never past its buffer;
// an attribute is never a link, so none is followed.
#ifndef USBMGR_PLATFORM_HOST_DUSB_SYSFS_ATTR_H
#define USBMGR_PLATFORM_HOST_DUSB_SYSFS_ATTR_H

#include <cstddef>
#include <string>

namespace dusb {

// Reads the first line of dir/name into buf (size bytes, NUL-terminated),
// without its line end and cut at a NUL byte; false when the file cannot
// be opened (buf then empty). An empty file gives true and an empty text.
bool read_sysfs_line(const std::string& dir, const char* name, char* buf, std::size_t size);

template <std::size_t N>
bool read_sysfs_line(const std::string& dir, const char* name, char (&buf)[N]) {
    return read_sysfs_line(dir, name, buf, N);
}

// Removes leading and trailing blanks (spaces, tabs) in place.
void trim_blanks(char* buf);

// A number attribute in the given base; -1 when missing or not a number.
long read_sysfs_number(const std::string& dir, const char* name, int base);

// True when dir/name is a regular file (not a link).
bool sysfs_file_exists(const std::string& dir, const char* name);

// True when path is a folder (not a link).
bool sysfs_dir_exists(const std::string& path);

}  // namespace dusb

#endif
