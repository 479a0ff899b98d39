// The MiniDLNA configuration text over any settings.
//
// Input: the 13 text settings of MiniDlnaConf in field order, each a
// u8-length text copied into its field as it comes (a text as long as the
// field leaves it without its terminator).
//
// The text is read the way MiniDLNA reads it (lines through a 200-byte
// buffer, split at the first '='): exactly the 13 enabled rows, in order,
// each newline-terminated, at most 199 characters long, without control
// characters, with its own key before the first '='.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "app_util/app_util.h"
#include "fuzz_support.h"

namespace {

struct TextField {
    char* text;
    std::size_t size;
};

MiniDlnaConf g_conf;

#define FIELD(f) TextField{g_conf.f, sizeof g_conf.f}
const TextField kFields[] = {
    FIELD(conf_dir),  FIELD(db_dir),         FIELD(log_dir),      FIELD(media_dir), FIELD(log_level),
    FIELD(root_container), FIELD(port),      FIELD(friendly_name), FIELD(serial),   FIELD(model_name),
    FIELD(model_number), FIELD(inotify),     FIELD(notify_interval),
};
#undef FIELD
static_assert(sizeof kFields / sizeof kFields[0] == 13);

const std::vector<std::string> kKeys = {
    "user", "media_dir", "db_dir", "log_dir", "log_level", "root_container", "port",
    "friendly_name", "inotify", "album_art_names", "album_art_names", "album_art_names", "notify_interval",
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::init(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Reader in(data, size);
    std::memset(&g_conf, 0, sizeof g_conf);
    g_conf.enable = 1;
    for (const TextField& f : kFields) {
        std::string v = in.text8();
        std::memcpy(f.text, v.data(), std::min(v.size(), f.size));
    }

    const std::string text = app_util_render_minidlna_conf(g_conf);
    if (text.empty() || text.back() != '\n') fuzz::finding("text does not end with a newline", fuzz::shown(text));
    std::vector<std::string> keys;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl - pos);
        pos = nl + 1;
        if (line.size() + 1 > 199) fuzz::finding("line longer than MiniDLNA's buffer", fuzz::shown(line));
        for (unsigned char c : line)
            if (c < 0x20 || c == 0x7f) fuzz::finding("control character in a line", fuzz::shown(line));
        std::size_t eq = line.find('=');
        if (eq == std::string::npos) fuzz::finding("line without '='", fuzz::shown(line));
        keys.push_back(line.substr(0, eq));
    }
    if (keys != kKeys) fuzz::finding("lines are not the 13 enabled rows in order", fuzz::shown(text));
    return 0;
}
