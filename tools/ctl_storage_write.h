// usbmgrctl's typed verbs for the storage service changes (commands 24 to
// 36): the Samba switch and security, Samba accounts, disk and volume names,
// user access, safe removal. Requests are built from the payload field
// lists of ctl_layout; replies are decoded to the one word the command
// answers (a status or a result) with its meaning for that command.
#ifndef USBMGRCTL_CTL_STORAGE_WRITE_H
#define USBMGRCTL_CTL_STORAGE_WRITE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/ctl_model.h"

namespace usbmgrctl {

// A verb such as "disk-rename": its command and arguments as for the read
// verbs, and the reply word it shows ("status", "result", or nullptr for
// the commands that answer nothing).
struct WriteVerb {
    ReadVerb verb;
    const char* word;
};

// Every write verb, in command order.
const std::vector<WriteVerb>& write_verbs();
// Verb by name, or nullptr.
const WriteVerb* find_write_verb(const std::string& name);

// Zeroed request of the verb's command with its arguments in their fields;
// false with a reason in error, as build_read_request.
bool build_write_request(const WriteVerb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                         std::string& error);

// Meaning of the reply word of command id: a status of the storage
// commands or the result of an account command; "unknown status" otherwise.
const char* write_status_text(uint32_t id, int64_t word);

// The reply as "code: N NAME" and "  status = W (meaning)", or a note that
// the command answers nothing.
std::string format_write_text(const WriteVerb& verb, int code, const unsigned char* reply, std::size_t len);
// The same as one JSON object: {"code":N,"code_name":..,"reply":{"status":W,"meaning":".."}}.
std::string format_write_json(const WriteVerb& verb, int code, const unsigned char* reply, std::size_t len);

// The help lines of the write verbs.
std::string write_verbs_usage();

}  // namespace usbmgrctl

#endif
