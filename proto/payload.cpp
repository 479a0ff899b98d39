#include "proto/payload.h"

namespace {

constexpr const char* kKindNames[USBMGR_TR140_KIND_COUNT] = {
    "USBMGR_TR140_ADD_STORAGE",
    "USBMGR_TR140_REMOVE_STORAGE",
    "USBMGR_TR140_SERVICE_CHANGE",
    "USBMGR_TR140_NETINFO_CHANGE",
    "USBMGR_TR140_NETWORK_SERVICE_CHANGE",
    "USBMGR_TR140_ADD_USER",
    "USBMGR_TR140_REMOVE_USER",
    "USBMGR_TR140_MODIFY_USER",
    "USBMGR_TR140_PHYSICAL_MEDIUM_CHANGE",
    "USBMGR_TR140_LOGICAL_VOLUME_CHANGE",
    "USBMGR_TR140_LOGICAL_VOLUME_FOLDER_CHANGE",
    "USBMGR_TR140_ADD_USER_ACCESS",
    "USBMGR_TR140_REMOVE_USER_ACCESS",
    "USBMGR_TR140_MODIFY_USER_ACCES",
    "USBMGR_TR140_STORAGE_SAFE_REMOVE",
};

constexpr const char* kCodeNames[] = {
    "OK",          "ERR",           "OVERSIZE",      "BAD_PARAM",        "NO_MEM",      "TX_FAIL",
    "RX_FAIL",     "TIMEOUT",       "UNKNOWN_SRC_ID", "UNKNOWN_DST_ID",  "UNKNOWN_COMM", "MISMATCH_COMM",
    "UNSUPPORT",   "UNKNOWN_CMD",   "BAD_CMD",       "BAD_RET",          "MISMATCH_CMD_LEN", "UNKNOWN_EVT",
    "BAD_EVT",     "MISMATCH_EVT_LEN", "CONFLICT_ID", "BUSY",
};

}  // namespace

const char* usbmgr_iil_err_str(int code) {
    if (code < 0 || code >= static_cast<int>(sizeof kCodeNames / sizeof kCodeNames[0])) return "Unknown";
    return kCodeNames[code];
}

const char* usbmgr_tr140_kind_name(int32_t kind) {
    if (kind < 0 || kind >= USBMGR_TR140_KIND_COUNT) return nullptr;
    return kKindNames[kind];
}
