// usbmgrctl's typed verbs: one row per daemon command it names ("minidlna",
// "disk", "disk-rename", ...), in command order. Requests are built and
// replies decoded through the field lists of ctl_layout, so a verb shows
// what the payload struct holds.
#ifndef USBMGRCTL_CTL_VERBS_H
#define USBMGRCTL_CTL_VERBS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace usbmgrctl {

// What a verb prints of its reply.
enum class Shown {
    REST,    // every reply field but the request fields its arguments fill
    LISTED,  // the fields in `shown`, in payload order (none when empty)
    WORD,    // the one word in `shown` (a status or a result), its meaning also
             // in JSON; a note instead when `shown` is empty, as the command
             // answers nothing
};

// A verb such as "user-add": its command, the request fields its arguments
// fill in order (the trailing ones optional, with their defaults), the reply
// fields it shows, and how it is typed.
struct Verb {
    const char* name;
    uint32_t id;
    std::vector<const char*> args;      // request field names, in argument order
    std::vector<const char*> defaults;  // values of the trailing optional arguments
    Shown show;
    std::vector<const char*> shown;  // reply fields for LISTED and WORD
    const char* usage;               // arguments as --help shows them
    const char* what;                // one line for --help
};

// Every verb, in command order.
const std::vector<Verb>& verbs();
// Verb by name, or nullptr.
const Verb* find_verb(const std::string& name);

// Zeroed request of the verb's command with its arguments (and the defaults
// of the optional ones left out) in their fields. False with a reason in
// error for a wrong number of arguments or a value that does not fit.
bool build_request(const Verb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                   std::string& error);

// Meaning of the status or result word of command id; "unknown status" (or
// "unknown result") for a word the command does not answer.
const char* status_text(uint32_t id, int64_t word);

// One decoded field of a reply.
struct Value {
    std::string name;
    bool is_text = false;
    int64_t number = 0;
    std::string text;
};

// The reply fields of command id in payload order, less the request fields
// in skip and any field the reply is too short to hold.
std::vector<Value> decode_reply(uint32_t id, const unsigned char* reply, std::size_t len,
                                const std::vector<const char*>& skip);

// A field's value as text: strings quoted, a status or result word of
// command id followed by its meaning.
std::string value_text(uint32_t id, const Value& v);
// A field's value as JSON.
std::string value_json(const Value& v);

// The reply as lines "  field = value" after "code: N NAME".
std::string format_verb_text(const Verb& verb, int code, const unsigned char* reply, std::size_t len);
// The same as one JSON object: {"code":N,"code_name":..,"reply":{..}}.
std::string format_verb_json(const Verb& verb, int code, const unsigned char* reply, std::size_t len);

// The help lines of every verb, a heading before each group of commands.
std::string verbs_usage();

}  // namespace usbmgrctl

#endif
