// Typed dispatch of the bus commands: the bus library calls one entry point
// per command with a raw buffer; it hands the handler a typed copy, so no
// handler repeats the copy, the size check or the entry log line.
#ifndef USBMGR_USBMGRD_DISPATCH_H
#define USBMGR_USBMGRD_DISPATCH_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "db_util/log.h"
#include "orbiil.h"
#include "proto/commands.h"

// Bus entry point of command Id: copies at most the declared size and at
// most len bytes of payload into a zeroed Payload, logs "cmd - " and the
// command's name at DEBUG unless its row says silent, runs Handler on the
// copy, copies the same bytes back and returns 0 (errors travel in the
// payload). Bytes the copy did not cover are neither read nor written.
template <uint32_t Id, typename Payload, void (*Handler)(Payload&)>
int usbmgr_dispatch(OrbIilHandle*, uint32_t, uint32_t len, void* payload) {
    static_assert(std::is_trivially_copyable_v<Payload>);
    constexpr int row = usbmgr_command_index(Id);
    static_assert(row >= 0, "command not in the list");
    static_assert(usbmgr_command_info[row].size == sizeof(Payload), "declared size is not that of the payload struct");
    const UsbmgrCommandInfo* info = &usbmgr_command_info[row];
    static constexpr const char kLogModule[] = "usbmgrd.c";

    Payload cmd{};
    std::size_t n = payload == nullptr ? 0 : len < sizeof cmd ? len : sizeof cmd;
    if (n > 0) std::memcpy(&cmd, payload, n);
    if (info->flags & USBMGR_CMD_LOGGED) USBMGR_TRACE(USBMGR_LOG_DEBUG, "cmd - %s", info->name);
    Handler(cmd);
    if (n > 0) std::memcpy(payload, &cmd, n);
    return 0;
}

#endif
