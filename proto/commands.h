// The command list of proto/commands.def as data: id, handler name,
// declared payload size and flags of every command. Shared by the daemon
// (bus table, entry log line) and usbmgrctl (names and sizes).
#ifndef USBMGR_PROTO_COMMANDS_H
#define USBMGR_PROTO_COMMANDS_H

#include <cstdint>

#include "proto/payload.h"

// Flags of a command row.
enum : uint32_t {
    USBMGR_CMD_SILENT = 0,  // writes no "cmd - " entry line
    USBMGR_CMD_LOGGED = 1,  // writes "cmd - " and its name at DEBUG on entry
};

// One row of the command list: id, handler name, declared payload size
// (sizeof its payload struct) and flags.
struct UsbmgrCommandInfo {
    uint32_t id;
    const char* name;
    uint32_t size;
    uint32_t flags;
};

// Each command's id under its handler's name, so that code naming one
// command takes its id from the list instead of repeating the number.
namespace usbmgr_command_id {
#define USBMGR_COMMAND(id, handler, payload, flags) inline constexpr uint32_t handler = id;
#include "proto/commands.def"
}  // namespace usbmgr_command_id

inline constexpr UsbmgrCommandInfo usbmgr_command_info[] = {
#define USBMGR_COMMAND(id, handler, payload, flags) {id, #handler, static_cast<uint32_t>(sizeof(payload)), flags},
#include "proto/commands.def"
};

inline constexpr int USBMGR_COMMAND_COUNT = static_cast<int>(sizeof usbmgr_command_info / sizeof usbmgr_command_info[0]);
static_assert(USBMGR_COMMAND_COUNT == 34);

// The bus table is handed over in this order and the tests walk it so.
constexpr bool usbmgr_command_ids_ascending() {
    for (int i = 1; i < USBMGR_COMMAND_COUNT; ++i)
        if (usbmgr_command_info[i].id <= usbmgr_command_info[i - 1].id) return false;
    return true;
}
static_assert(usbmgr_command_ids_ascending());

// Position of command id in the list, or -1; usable at compile time.
// Compile-time checks use the position, not a pointer: GCC does not fold a
// comparison of an object's address with nullptr when sanitizers are on.
constexpr int usbmgr_command_index(uint32_t id) {
    for (int i = 0; i < USBMGR_COMMAND_COUNT; ++i)
        if (usbmgr_command_info[i].id == id) return i;
    return -1;
}

// Row of command id, or nullptr.
constexpr const UsbmgrCommandInfo* usbmgr_command_find(uint32_t id) {
    int i = usbmgr_command_index(id);
    return i < 0 ? nullptr : &usbmgr_command_info[i];
}

#endif
