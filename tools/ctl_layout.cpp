#include "tools/ctl_layout.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_text.h"

namespace usbmgrctl {

namespace {

// One row of proto/payloads.def: a field, shown or (unused) not.
struct Row {
    Field field;
    bool shown;
};

#define CTL_ROW_INT(name, width, offset) Row{Field{#name, offset, FieldType::I32, width}, true}
#define CTL_ROW_UINT(name, width, offset) Row{Field{#name, offset, FieldType::U32, width}, true}
#define CTL_ROW_TEXT(name, width, offset) Row{Field{#name, offset, FieldType::STR, width}, true}
#define CTL_ROW_UNUSED_UINT(name, width, offset) Row{Field{#name, offset, FieldType::U32, width}, false}
#define CTL_ROW_UNUSED_TEXT(name, width, offset) Row{Field{#name, offset, FieldType::STR, width}, false}

// The rows of each payload struct, keyed by the struct, so that a
// command's fields follow its row of the command list. A struct of the
// command list without rows does not compile.
template <typename Payload>
struct PayloadRows;

#define USBMGR_PAYLOAD(S, size)  \
    template <>                  \
    struct PayloadRows<S> {      \
        static constexpr Row rows[] = {
#define USBMGR_FIELD(S, kind, name, width, offset) CTL_ROW_##kind(name, width, offset),
#define USBMGR_PAYLOAD_END(S) }; };
#include "proto/payloads.def"

#undef CTL_ROW_INT
#undef CTL_ROW_UINT
#undef CTL_ROW_TEXT
#undef CTL_ROW_UNUSED_UINT
#undef CTL_ROW_UNUSED_TEXT

// End of the last row: the struct's bytes after it are its tail padding.
template <typename Payload>
constexpr uint32_t rows_end() {
    uint32_t end = 0;
    for (const Row& r : PayloadRows<Payload>::rows) end = std::max(end, r.field.offset + r.field.size);
    return end;
}

template <typename Payload>
constexpr std::size_t row_count(bool shown) {
    std::size_t n = 0;
    for (const Row& r : PayloadRows<Payload>::rows) n += r.shown == shown ? 1 : 0;
    return n;
}

template <typename Payload>
constexpr bool has_tail() {
    return rows_end<Payload>() < sizeof(Payload);
}

// The fields usbmgrctl fills and prints, in wire order.
template <typename Payload>
constexpr auto shown_fields() {
    std::array<Field, row_count<Payload>(true)> list{};
    std::size_t n = 0;
    for (const Row& r : PayloadRows<Payload>::rows)
        if (r.shown) list[n++] = r.field;
    return list;
}

// The bytes no field shows on purpose: the unused rows and the tail padding.
template <typename Payload>
constexpr auto unused_fields() {
    std::array<Field, row_count<Payload>(false) + (has_tail<Payload>() ? 1 : 0)> list{};
    std::size_t n = 0;
    for (const Row& r : PayloadRows<Payload>::rows)
        if (!r.shown) list[n++] = r.field;
    if constexpr (has_tail<Payload>())
        list[n] = Field{"(padding)", rows_end<Payload>(), FieldType::STR,
                        static_cast<uint32_t>(sizeof(Payload)) - rows_end<Payload>()};
    return list;
}

template <typename Payload>
struct PayloadFields {
    static constexpr auto fields = shown_fields<Payload>();
    static constexpr auto unused = unused_fields<Payload>();
};

// The layout of command id, whose payload struct is Payload; a field list
// that does not cover its struct byte for byte does not compile.
template <typename Payload>
constexpr Layout layout_of(uint32_t id) {
    using F = PayloadFields<Payload>;
    constexpr Layout layout{0,
                            static_cast<uint32_t>(sizeof(Payload)),
                            F::fields.data(),
                            F::fields.size(),
                            F::unused.data(),
                            F::unused.size()};
    static_assert(layout_problem(layout) == nullptr, "field list does not cover its payload struct");
    Layout l = layout;
    l.id = id;
    return l;
}

// One layout a row of the command list.
const Layout kLayouts[] = {
#define USBMGR_COMMAND(id, handler, payload, flags) layout_of<payload>(id),
#include "proto/commands.def"
};

}  // namespace

const Layout* find_layout(uint32_t id) {
    for (const auto& l : kLayouts)
        if (l.id == id) return &l;
    return nullptr;
}

const Field* find_field(const Layout& layout, const char* name) {
    // An exact match first: some payloads have both Status (a text) and status.
    for (std::size_t i = 0; i < layout.count; ++i)
        if (std::strcmp(layout.fields[i].name, name) == 0) return &layout.fields[i];
    for (std::size_t i = 0; i < layout.count; ++i)
        if (strcasecmp(layout.fields[i].name, name) == 0) return &layout.fields[i];
    return nullptr;
}

bool encode_field(const Field& f, const char* text, unsigned char* buf, std::size_t buf_size, std::string& error) {
    if (static_cast<std::size_t>(f.offset) + f.size > buf_size) {
        error = "field lies outside the payload";
        return false;
    }
    if (f.type == FieldType::STR) {
        std::size_t len = std::strlen(text);
        if (len >= f.size) {
            error = "text longer than " + std::to_string(f.size - 1) + " characters";
            return false;
        }
        std::memset(buf + f.offset, 0, f.size);
        std::memcpy(buf + f.offset, text, len + 1);  // with its NUL: len < f.size
        return true;
    }
    int64_t v = 0;
    bool ok = f.type == FieldType::I32 ? parse_number(text, INT32_MIN, INT32_MAX, v)
                                       : parse_number(text, 0, UINT32_MAX, v);
    if (!ok) {
        error = f.type == FieldType::I32 ? "not a signed 32-bit number" : "not an unsigned 32-bit number";
        return false;
    }
    if (f.type == FieldType::I32) {
        int32_t w = static_cast<int32_t>(v);
        std::memcpy(buf + f.offset, &w, sizeof w);
    } else {
        uint32_t w = static_cast<uint32_t>(v);
        std::memcpy(buf + f.offset, &w, sizeof w);
    }
    return true;
}

int64_t read_int(const Field& f, const unsigned char* buf) {
    if (f.type == FieldType::I32) {
        int32_t w;
        std::memcpy(&w, buf + f.offset, sizeof w);
        return w;
    }
    uint32_t w;
    std::memcpy(&w, buf + f.offset, sizeof w);
    return w;
}

std::string read_str(const Field& f, const unsigned char* buf) {
    const char* p = reinterpret_cast<const char*>(buf + f.offset);
    return std::string(p, strnlen(p, f.size));
}

}  // namespace usbmgrctl
