// usbmgrctl's typed verbs for the storage service reads (commands 14 to 23)
// and the walk that reads the whole StorageService tree. Requests are built
// and replies decoded through the field lists of ctl_layout, so a verb
// shows what the payload struct holds; the bus is reached only through the
// Call function the caller hands in, so the walk runs against a fake in tests.
#ifndef USBMGRCTL_CTL_MODEL_H
#define USBMGRCTL_CTL_MODEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace usbmgrctl {

// A verb such as "disk": its command, the request fields its arguments
// fill in order, and how it is typed.
struct ReadVerb {
    const char* name;
    uint32_t id;
    std::vector<const char*> args;  // request field names, in argument order
    const char* usage;              // arguments as --help shows them
    const char* what;               // one line for --help
};

// Every read verb, in command order.
const std::vector<ReadVerb>& read_verbs();
// Verb by name, or nullptr.
const ReadVerb* find_read_verb(const std::string& name);

// Zeroed request of the verb's command with its arguments in their fields.
// False with a reason in error for a wrong number of arguments or a value
// that does not fit its field.
bool build_read_request(const ReadVerb& verb, const std::vector<std::string>& args, std::vector<unsigned char>& out,
                        std::string& error);

// Meaning of a status word of the storage reads; "unknown status" outside.
const char* storage_status_text(int64_t status);

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

// The reply of a verb as lines "  Field = value" (strings quoted, the
// status with its meaning), after "code: N NAME".
std::string format_verb_text(const ReadVerb& verb, int code, const unsigned char* reply, std::size_t len);
// The same as one JSON object: {"code":N,"code_name":..,"reply":{..}}.
std::string format_verb_json(const ReadVerb& verb, int code, const unsigned char* reply, std::size_t len);

// Runs command id with payload as the request; the reply replaces payload.
// Returns the bus code (0 success).
using Call = std::function<int(uint32_t id, std::vector<unsigned char>& payload)>;

// One object of the tree: its path name ("StorageService.0",
// "PhysicalMedium.2" with the table slot, "Folder.1", "UserAccess.5",
// "UserAccount.0" with the user number), its fields and its children.
struct Node {
    std::string name;
    std::vector<Value> fields;
    std::vector<Node> children;
};

// Slots and numbers the walk tries: table slots 0 to 24, users 0 to 24,
// user-access numbers 0 to 24.
inline constexpr int kTreeSlots = 25;

// Reads service's tree through call: the service record, capabilities,
// network information and server, the disks and volumes of every table
// slot, each volume's folders and its root folder's user access, and
// (service 0 only) the Samba users. A bus failure ends the walk: false
// with the failing command in error, and the tree as far as it was read.
bool walk_tree(int32_t service, const Call& call, Node& tree, std::string& error);

// The tree indented two blanks a level, "Name" lines then "Field = value".
std::string render_tree_text(const Node& tree);
// The tree as nested JSON objects keyed by the node names.
std::string render_tree_json(const Node& tree);

}  // namespace usbmgrctl

#endif
