// usbmgrctl's field lists against the command list and the payload structs.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "proto/commands.h"
#include "proto/payload.h"
#include "tools/ctl_layout.h"

using usbmgrctl::Field;
using usbmgrctl::FieldType;
using usbmgrctl::Layout;

namespace {

// Which entry owns each byte of a layout: -1 none, else the entry's number
// (fields first, then unused ranges); the test's own count, independent of
// layout_problem.
std::vector<int> byte_owners(const Layout& l, std::string& error) {
    std::vector<int> owner(l.size, -1);
    int number = 0;
    auto claim = [&](const Field& f) {
        if (static_cast<uint64_t>(f.offset) + f.size > l.size) {
            error += std::string(f.name) + " lies outside the struct; ";
            return;
        }
        for (uint32_t b = f.offset; b < f.offset + f.size; ++b) {
            if (owner[b] != -1) error += std::string(f.name) + " overlaps at byte " + std::to_string(b) + "; ";
            owner[b] = number;
        }
    };
    for (std::size_t i = 0; i < l.count; ++i, ++number) claim(l.fields[i]);
    for (std::size_t i = 0; i < l.unused_count; ++i, ++number) claim(l.unused[i]);
    return owner;
}

// The rows of the payload list, with each member's place as the compiler
// lays out the struct, and the payload struct of each command.
struct PayloadRow {
    std::string_view payload;
    const char* name;
    bool shown;
    uint32_t offset;
    uint32_t width;
};

const PayloadRow kPayloadRows[] = {
#define USBMGR_PAYLOAD(S, size)
#define USBMGR_FIELD(S, kind, name, width, offset)                                                           \
    {#S, #name, std::string_view(#kind).substr(0, 7) != "UNUSED_", static_cast<uint32_t>(offsetof(S, name)), \
     static_cast<uint32_t>(sizeof(S::name))},
#define USBMGR_PAYLOAD_END(S)
#include "proto/payloads.def"
};

struct CommandPayload {
    uint32_t id;
    std::string_view payload;
};

const CommandPayload kCommandPayloads[] = {
#define USBMGR_COMMAND(id, handler, payload, flags) {id, #payload},
#include "proto/commands.def"
};

std::string describe(const char* name, uint32_t offset, uint32_t width) {
    return std::string(name) + "@" + std::to_string(offset) + "+" + std::to_string(width);
}

}  // namespace

TEST(CtlLayout, EachCommandShowsTheFieldsOfItsPayloadStructInOrderWhereTheCompilerPutsThem) {
    for (const auto& c : kCommandPayloads) {
        const Layout* l = usbmgrctl::find_layout(c.id);
        ASSERT_NE(l, nullptr) << c.id;
        std::vector<std::string> want_shown;
        std::vector<std::string> want_unused;
        for (const auto& r : kPayloadRows)
            if (r.payload == c.payload) (r.shown ? want_shown : want_unused).push_back(describe(r.name, r.offset, r.width));
        std::vector<std::string> shown;
        for (std::size_t i = 0; i < l->count; ++i)
            shown.push_back(describe(l->fields[i].name, l->fields[i].offset, l->fields[i].size));
        std::vector<std::string> unused;
        for (std::size_t i = 0; i < l->unused_count; ++i)
            if (std::strcmp(l->unused[i].name, "(padding)") != 0)
                unused.push_back(describe(l->unused[i].name, l->unused[i].offset, l->unused[i].size));
        EXPECT_FALSE(want_shown.empty()) << c.payload;
        EXPECT_EQ(shown, want_shown) << c.id << " " << c.payload;
        EXPECT_EQ(unused, want_unused) << c.id << " " << c.payload;
    }
}

TEST(CtlLayout, EveryCommandOfTheListHasAFieldListOfItsDeclaredSize) {
    for (const auto& c : usbmgr_command_info) {
        const Layout* l = usbmgrctl::find_layout(c.id);
        ASSERT_NE(l, nullptr) << c.id;
        EXPECT_EQ(l->id, c.id);
        EXPECT_EQ(l->size, c.size) << c.name;
        EXPECT_GT(l->count, 0u) << c.name;
    }
    EXPECT_EQ(usbmgrctl::find_layout(13), nullptr);
    EXPECT_EQ(usbmgrctl::find_layout(37), nullptr);
}

TEST(CtlLayout, FieldsLieInsideTheirStructWithoutOverlapAndCoverEveryByteButTheListedUnusedOnes) {
    for (const auto& c : usbmgr_command_info) {
        const Layout* l = usbmgrctl::find_layout(c.id);
        ASSERT_NE(l, nullptr) << c.id;
        std::string error;
        std::vector<int> owner = byte_owners(*l, error);
        EXPECT_EQ(error, "") << c.name;
        for (uint32_t b = 0; b < l->size; ++b) EXPECT_NE(owner[b], -1) << c.name << " byte " << b;
        EXPECT_EQ(usbmgrctl::layout_problem(*l), nullptr) << c.name;
    }
}

TEST(CtlLayout, IntegerFieldsAreFourBytesAndFieldNamesAreUniqueInALayout) {
    for (const auto& c : usbmgr_command_info) {
        const Layout* l = usbmgrctl::find_layout(c.id);
        ASSERT_NE(l, nullptr);
        for (std::size_t i = 0; i < l->count; ++i) {
            if (l->fields[i].type != FieldType::STR) {
                EXPECT_EQ(l->fields[i].size, 4u) << c.name;
            }
            for (std::size_t j = i + 1; j < l->count; ++j)
                EXPECT_STRNE(l->fields[i].name, l->fields[j].name) << c.name;
        }
    }
}

TEST(CtlLayout, UnusedBytesAreOnlyPaddingAndTheUnusedWords) {
    std::vector<std::string> seen;
    for (const auto& c : usbmgr_command_info) {
        const Layout* l = usbmgrctl::find_layout(c.id);
        ASSERT_NE(l, nullptr);
        for (std::size_t i = 0; i < l->unused_count; ++i)
            seen.push_back(std::to_string(c.id) + ":" + l->unused[i].name + "@" + std::to_string(l->unused[i].offset) +
                           "+" + std::to_string(l->unused[i].size));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"2:(padding)@866+2", "3:(padding)@746+2", "16:unused@94+2",
                                              "21:unused@424+4", "22:unused@88+4", "32:unused@88+4",
                                              "34:unused@12+64"}));
}

TEST(CtlLayout, CommandFourShowsOnlyTheSwitchAndCommandSevenAlsoItsStatus) {
    const Layout* get = usbmgrctl::find_layout(4);
    const Layout* set = usbmgrctl::find_layout(7);
    ASSERT_NE(get, nullptr);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(get->count, 1u);
    EXPECT_STREQ(get->fields[0].name, "enable");
    ASSERT_EQ(set->count, 2u);
    EXPECT_STREQ(set->fields[1].name, "status");
    EXPECT_EQ(set->fields[1].offset, 4u);
}

TEST(CtlLayout, LayoutProblemNamesAnOverlapAGapAndAFieldOutsideTheStruct) {
    const Field two[] = {{"a", 0, FieldType::I32, 4}, {"b", 2, FieldType::STR, 4}};
    EXPECT_STREQ(usbmgrctl::layout_problem(Layout{1, 8, two, 2, nullptr, 0}), "two fields overlap");
    const Field gap[] = {{"a", 0, FieldType::I32, 4}};
    EXPECT_STREQ(usbmgrctl::layout_problem(Layout{1, 8, gap, 1, nullptr, 0}),
                 "a byte belongs to no field and is not listed as unused");
    const Field outside[] = {{"a", 6, FieldType::I32, 4}};
    EXPECT_STREQ(usbmgrctl::layout_problem(Layout{1, 8, outside, 1, nullptr, 0}), "a field lies outside the struct");
    const Field pad[] = {{"(padding)", 4, FieldType::STR, 4}};
    EXPECT_EQ(usbmgrctl::layout_problem(Layout{1, 8, gap, 1, pad, 1}), nullptr);
}

TEST(CtlLayout, FieldNameMatchesExactlyBeforeIgnoringCase) {
    const Layout* l = usbmgrctl::find_layout(20);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(usbmgrctl::find_field(*l, "status")->type, FieldType::I32);
    EXPECT_EQ(usbmgrctl::find_field(*l, "Status")->type, FieldType::STR);
    EXPECT_STREQ(usbmgrctl::find_field(*l, "VENDOR")->name, "Vendor");
}
