// usbmgrctl's typed verbs for the sharing and settings commands (2 to 12):
// show and set the MiniDLNA and Samba settings and the serial login switch,
// count, read, add, remove and modify Samba users. Requests are built and
// replies decoded through the field lists of ctl_layout.
#ifndef USBMGRCTL_CTL_SHARING_H
#define USBMGRCTL_CTL_SHARING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace usbmgrctl {

// A verb such as "user-add": its command, the request fields its arguments
// fill in order (the trailing ones optional, with their defaults), the reply
// fields it shows, and how it is typed.
struct SharingVerb {
    const char* name;
    uint32_t id;
    std::vector<const char*> args;      // request field names, in argument order
    std::vector<const char*> defaults;  // values of the trailing optional arguments
    std::vector<const char*> shown;     // reply fields printed, in payload order; empty: none
    const char* usage;                  // arguments as --help shows them
    const char* what;                   // one line for --help
};

// Every sharing verb, in command order.
const std::vector<SharingVerb>& sharing_verbs();
// Verb by name, or nullptr.
const SharingVerb* find_sharing_verb(const std::string& name);

// Zeroed request of the verb's command with its arguments (and the defaults
// of the optional ones left out) in their fields. False with a reason in
// error for a wrong number of arguments or a value that does not fit.
bool build_sharing_request(const SharingVerb& verb, const std::vector<std::string>& args,
                           std::vector<unsigned char>& out, std::string& error);

// Meaning of the status word of 7 or the result word of 9 to 12.
const char* sharing_status_text(uint32_t id, int64_t status);

// The reply as lines "  field = value" after "code: N NAME" (strings quoted,
// the status or result with its meaning).
std::string format_sharing_text(const SharingVerb& verb, int code, const unsigned char* reply, std::size_t len);
// The same as one JSON object: {"code":N,"code_name":..,"reply":{..}}.
std::string format_sharing_json(const SharingVerb& verb, int code, const unsigned char* reply, std::size_t len);

// The usage lines of the sharing verbs for usbmgrctl help.
std::string sharing_usage();

}  // namespace usbmgrctl

#endif
