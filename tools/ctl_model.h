// usbmgrctl's walk that reads the whole StorageService tree (commands 14 to
// 23). Replies are decoded as the verbs decode them (ctl_verbs); the bus is
// reached only through the Call function the caller hands in, so the walk
// runs against a fake in tests.
#ifndef USBMGRCTL_CTL_MODEL_H
#define USBMGRCTL_CTL_MODEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/ctl_verbs.h"

namespace usbmgrctl {

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
