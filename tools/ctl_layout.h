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

// The field list of one command's payload struct. Every byte of the struct
// belongs to exactly one field or to one of the unused ranges (padding and
// unused words, which usbmgrctl neither fills nor prints).
struct Layout {
    uint32_t id;
    uint32_t size;  // sizeof the payload struct: the declared size
    const Field* fields;
    std::size_t count;
    const Field* unused;
    std::size_t unused_count;
};

// Layout of command id (any id of the command list), or nullptr.
const Layout* find_layout(uint32_t id);

// Why a layout does not cover its struct (a field outside it, two fields
// over one byte, a byte that nothing accounts for), or nullptr when it does.
constexpr const char* layout_problem(const Layout& layout) {
    constexpr uint32_t kMaxSize = 4096;
    if (layout.size > kMaxSize) return "struct larger than the check handles";
    bool owned[kMaxSize] = {};
    for (int part = 0; part < 2; ++part) {
        const Field* list = part == 0 ? layout.fields : layout.unused;
        std::size_t n = part == 0 ? layout.count : layout.unused_count;
        for (std::size_t i = 0; i < n; ++i) {
            const Field& f = list[i];
            if (f.size == 0 || f.offset > layout.size || f.size > layout.size - f.offset)
                return "a field lies outside the struct";
            if (f.type != FieldType::STR && f.size != 4) return "an integer field is not 4 bytes";
            for (uint32_t b = f.offset; b < f.offset + f.size; ++b) {
                if (owned[b]) return "two fields overlap";
                owned[b] = true;
            }
        }
    }
    for (uint32_t b = 0; b < layout.size; ++b)
        if (!owned[b]) return "a byte belongs to no field and is not listed as unused";
    return nullptr;
}

// Field of a layout by name: the exact name first, else case-insensitive; nullptr.
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
