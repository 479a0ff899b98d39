/*
 * liborbiil: the gateway's inter-daemon message bus.
 *
 * Every daemon owns one connection under a name (USBMGR_DMON, DUSB_DMON),
 * serves numbered commands with fixed-size payloads, declares the events it
 * may send and subscribes to the events of other daemons.  All operations
 * return ORBIIL_OK (0) or one of the codes below unless said otherwise.
 */
#ifndef ORBIIL_H
#define ORBIIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bus codes, the wire codes of every reply. */
enum {
    ORBIIL_OK = 0,
    ORBIIL_ERR = 1,
    ORBIIL_OVERSIZE = 2,
    ORBIIL_BAD_PARAM = 3,
    ORBIIL_NO_MEM = 4,
    ORBIIL_TX_FAIL = 5,
    ORBIIL_RX_FAIL = 6,
    ORBIIL_TIMEOUT = 7,
    ORBIIL_UNKNOWN_SRC_ID = 8,
    ORBIIL_UNKNOWN_DST_ID = 9,
    ORBIIL_UNKNOWN_COMM = 10,
    ORBIIL_MISMATCH_COMM = 11,
    ORBIIL_UNSUPPORT = 12,
    ORBIIL_UNKNOWN_CMD = 13,
    ORBIIL_BAD_CMD = 14,
    ORBIIL_BAD_RET = 15,
    ORBIIL_MISMATCH_CMD_LEN = 16,
    ORBIIL_UNKNOWN_EVT = 17,
    ORBIIL_BAD_EVT = 18,
    ORBIIL_MISMATCH_EVT_LEN = 19,
    ORBIIL_CONFLICT_ID = 20,
    ORBIIL_BUSY = 21
};

/* Log levels; a message above the level set is dropped. */
enum {
    ORBIIL_LOG_QUITE = 0,
    ORBIIL_LOG_ERROR = 1,
    ORBIIL_LOG_WARNING = 2,
    ORBIIL_LOG_INFO = 3,
    ORBIIL_LOG_DEBUG = 4
};

#define ORBIIL_HANDLE_SIZE 896
#define ORBIIL_NAME_SIZE 32

/* A daemon's connection record: opaque, cleared by the caller before OrbIilInit. */
typedef struct OrbIilHandle {
    unsigned char opaque[ORBIIL_HANDLE_SIZE];
} OrbIilHandle;

/*
 * Command handler: called on the library's dispatch thread with the request
 * in a zero-filled buffer of the command's declared size, which the handler
 * overwrites with the reply.  Returns 0.
 */
typedef int (*OrbIilCmdHandler)(OrbIilHandle *handle, uint32_t cmd_id, uint32_t len, void *payload);

/* Event handler: called on the dispatch thread with a received event's payload. */
typedef int (*OrbIilEvtHandler)(OrbIilHandle *handle, uint32_t evt_id, uint32_t len, void *payload);

/* NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the field order is the library's binary interface. */
typedef struct OrbIilCmdEntry {
    uint32_t id;              /* command id */
    OrbIilCmdHandler handler; /* handler run for it */
    uint32_t size;            /* declared payload size in bytes */
} OrbIilCmdEntry;

typedef struct OrbIilEvtEntry {
    char src[ORBIIL_NAME_SIZE]; /* daemon that sends the event, NUL-padded */
    uint32_t id;                /* event id */
    OrbIilEvtHandler handler;   /* handler run for it */
} OrbIilEvtEntry;

/* Opens the process's log under app_name; non-zero on success. */
int OrbIilInitLog(const char *app_name);
/* Sets the highest level written. */
void OrbIilSetLogLevel(int level);
/* Writes one log line: level, source module name, source line, printf format. */
void OrbIilTrace(int level, const char *module, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Closes the log. */
void OrbIilResetLog(void);

/* Connects to the bus as name and fills the handle. */
int OrbIilInit(OrbIilHandle *handle, const char *name);
/* Installs the command table (count entries). */
int OrbIilSetCmdHandler(OrbIilHandle *handle, const OrbIilCmdEntry *table, uint32_t count);
/* Installs the event table (count entries). */
int OrbIilSetEvtHandler(OrbIilHandle *handle, const OrbIilEvtEntry *table, uint32_t count);
/* Declares an event this daemon may send, with its payload length. */
int OrbIilIssueEvent(OrbIilHandle *handle, uint32_t evt_id, uint32_t len);
/* Asks to receive event evt_id of daemon src. */
int OrbIilSubscribeEvent(OrbIilHandle *handle, const char *src, uint32_t evt_id);
/* Sends a declared event to its subscribers. */
int OrbIilNotify(OrbIilHandle *handle, uint32_t evt_id, uint32_t len, const void *payload);
/*
 * Runs command cmd_id of daemon dst with request_len bytes of request; copies
 * at most reply_size bytes of the reply into reply and its full length into
 * *reply_len. Returns the transport's code or the code the serving daemon
 * answered (ORBIIL_UNKNOWN_DST_ID when no daemon owns dst).
 */
int OrbIilExecute(OrbIilHandle *handle, const char *dst, uint32_t cmd_id, const void *request, uint32_t request_len,
                  void *reply, uint32_t reply_size, uint32_t *reply_len);
/* 1 while the connection runs, 0 once it is lost or reset. */
int OrbIilIsRunning(OrbIilHandle *handle);
/* Disconnects. */
int OrbIilReset(OrbIilHandle *handle);

#ifdef __cplusplus
}
#endif

#endif /* ORBIIL_H */
