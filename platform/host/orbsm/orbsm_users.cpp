// liborbsm on a text file: one account a line, "flag:name:password", in
// ORBSM_USERS_FILE (default /var/config/orbsm.users). The password is the
// rest of the line, so it may itself hold ':'.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "db_util/owners.h"
#include "db_util/str.h"
#include "orbsm.h"
#include "platform_export.h"

namespace {

constexpr const char kDefaultUsersFile[] = "/var/config/orbsm.users";

using usbmgr::FilePtr;

// getline's buffer, freed however the loop ends.
struct LineBuffer {
    char* data = nullptr;
    size_t size = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { free(data); }
};

// Parses one line into rec; false for a line that is no account.
bool parse_account(char* line, OrbSmUser* rec) {
    line[strcspn(line, "\r\n")] = '\0';
    char* name = strchr(line, ':');
    if (name == nullptr) return false;
    *name++ = '\0';
    char* password = strchr(name, ':');
    if (password == nullptr) return false;
    *password++ = '\0';
    char* end = nullptr;
    long flag = strtol(line, &end, 10);
    if (end == line) return false;

    memset(rec, 0, sizeof *rec);
    rec->flag = static_cast<int32_t>(flag);
    usbmgr::copy_str(rec->name, name);
    usbmgr::copy_str(rec->password, password);
    return true;
}

}  // namespace

extern "C" {

PLATFORM_API int OrbSmGetAllUser(OrbIilHandle* /*handle*/, int* count, OrbSmUser* users) {
    if (count == nullptr) return 1;
    const int capacity = *count;
    *count = 0;
    if (users == nullptr && capacity > 0) return 1;

    const char* path = getenv("ORBSM_USERS_FILE");
    if (path == nullptr || path[0] == '\0') path = kDefaultUsersFile;
    FilePtr f(fopen(path, "re"));
    if (!f) return 1;

    int filled = 0;
    LineBuffer line;
    while (filled < capacity && getline(&line.data, &line.size, f.get()) >= 0) {
        if (parse_account(line.data, &users[filled])) ++filled;
    }
    *count = filled;
    return 0;
}

}  // extern "C"
