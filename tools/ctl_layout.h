// Field tables of the command payloads, so that usbmgrctl can build a request
// from name=value pairs and print a reply field by field.
#ifndef USBMGRCTL_CTL_LAYOUT_H
#define USBMGRCTL_CTL_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace usbmgrctl {

enum class FieldType { I32, U32, STR };

struct Field {
    const char* name;
    uint32_t offset;
    FieldType type;
    uint32_t size;  // bytes: 4 for integers, the array size for strings
};

struct Layout {
    uint32_t id;
    const Field* fields;
    std::size_t count;
};

// Layout of command id, or nullptr when its payload has no known fields.
const Layout* find_layout(uint32_t id);

// Field of a layout by name (case-insensitive), or nullptr.
const Field* find_field(const Layout& layout, const char* name);

// Stores text as the value of field f into buf (of size buf_size).
// Integers are decimal or 0x hex; a string must leave room for its NUL.
// Returns false with a reason in error when the value does not fit.
bool encode_field(const Field& f, const char* text, unsigned char* buf, std::size_t buf_size, std::string& error);

// Reads an integer field (host byte order) from buf.
int64_t read_int(const Field& f, const unsigned char* buf);

// Reads a string field, stopping at its NUL or at the field's end.
std::string read_str(const Field& f, const unsigned char* buf);

}  // namespace usbmgrctl

#endif
