// The Samba configuration text over any settings, mount root and shares.
//
// Input: the 18 text settings of SambaConf in field order, each a u8-length
// text copied into its field as it comes (a text as long as the field leaves
// it without its terminator); the mount root, a u8-length text; then shares,
// each a folder name and a stored volume name, u8-length texts (cut at a NUL,
// as the C strings they come from would be).
//
// The text is read the way Samba reads it: every line is newline-terminated
// and at most 199 characters long, holds no control character, and is
// either a section header whose name ends at the line's one ']' or a
// parameter "   name = value" of the global section or of a share, whose
// value does not end in a backslash (Samba's line continuation). The first
// section is [global] with its 19 parameters; then exactly one section per
// share, none of them named like one of Samba's own sections, each with its
// five parameters in order.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "app_util/app_util.h"
#include "db_util/db_util.h"
#include "fuzz_support.h"

namespace {

struct TextField {
    char* text;
    std::size_t size;
};

SambaConf g_conf;

#define FIELD(f) TextField{g_conf.f, sizeof g_conf.f}
const TextField kFields[] = {
    FIELD(conf_dir),       FIELD(log_file),        FIELD(max_log_size),
    FIELD(log_level),      FIELD(load_printers),   FIELD(printcap_name),
    FIELD(printing),       FIELD(security),        FIELD(workgroup),
    FIELD(disable_netbios), FIELD(netbios_name),   FIELD(server_string),
    FIELD(usershare_allow_guests), FIELD(guest_account), FIELD(interfaces),
    FIELD(bind_interfaces_only), FIELD(username_map), FIELD(username_map_dir),
};
#undef FIELD
static_assert(sizeof kFields / sizeof kFields[0] == 18);

const std::vector<std::string> kGlobalParameters = {
    "log file",       "max log size", "log level",         "password level",   "load printers",
    "printcap name",  "printing",     "security",          "encrypt passwords", "display charset",
    "unix charset",   "workgroup",    "disable netbios",   "netbios name",     "name resolve order",
    "server string",  "usershare allow guests", "guest account", "username map",
};
const std::vector<std::string> kShareParameters = {"comment", "path", "public", "writable", "create mode"};

bool samba_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string trimmed(std::string_view s) {
    std::size_t b = 0, e = s.size();
    while (b < e && samba_space(s[b])) ++b;
    while (e > b && samba_space(s[e - 1])) --e;
    return std::string(s.substr(b, e - b));
}

// Samba's comparison of section names: case and white space ignored.
std::string folded(std::string_view s) {
    std::string out;
    for (char c : s)
        if (!samba_space(c)) out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return out;
}

std::string c_string(const std::string& s) { return s.substr(0, s.find('\0')); }

struct Section {
    std::string name;
    std::vector<std::string> parameters;
};

std::vector<Section> parse(const std::string& text) {
    std::vector<Section> sections;
    if (text.empty() || text.back() != '\n') fuzz::finding("text does not end with a newline", text);
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl - pos);
        pos = nl + 1;
        if (line.size() + 1 > 199) fuzz::finding("line longer than the line buffer", line);
        for (unsigned char c : line)
            if (c < 0x20 || c == 0x7f) fuzz::finding("control character in a line", line);
        std::string t = trimmed(line);
        if (!t.empty() && t[0] == '[') {
            std::size_t close = line.find(']');
            if (close == std::string::npos || close + 1 != line.size() || line.find(']', close + 1) != std::string::npos)
                fuzz::finding("section header not ended by its one ']'", line);
            if (line[0] != '[' || line.find('[', 1) != std::string::npos)
                fuzz::finding("section header with a second '['", line);
            std::string name = line.substr(1, close - 1);
            if (folded(name).empty()) fuzz::finding("section header with an empty name", line);
            sections.push_back({name, {}});
            continue;
        }
        std::size_t sep = line.find(" = ");
        if (sep == std::string::npos || line.rfind("   ", 0) != 0) fuzz::finding("line that is neither a header nor a parameter", line);
        if (line.find('=') != sep + 1) fuzz::finding("parameter name holding '='", line);
        std::string value = trimmed(line.substr(sep + 3));
        if (!value.empty() && value.back() == '\\') fuzz::finding("value continued on the next line", line);
        if (sections.empty()) fuzz::finding("parameter before any section", line);
        sections.back().parameters.push_back(trimmed(line.substr(0, sep)));
    }
    return sections;
}

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
    char mount_root[MOUNT_DISK_PATH_SIZE] = {};
    std::string root = in.text8();
    std::memcpy(mount_root, root.data(), std::min(root.size(), sizeof mount_root));

    std::vector<AppUtilSambaShare> shares;
    while (!in.empty()) {
        std::string folder = c_string(in.text8());
        std::string name = c_string(in.text8());
        shares.push_back({folder, name});
    }

    const std::string text = app_util_render_samba_conf(g_conf, mount_root, shares);
    const std::vector<Section> sections = parse(text);
    if (sections.size() != shares.size() + 1)
        fuzz::finding("sections are not the global one and one a share", fuzz::shown(text));
    if (sections[0].name != "global" || sections[0].parameters != kGlobalParameters)
        fuzz::finding("global section is not the table's", fuzz::shown(text));
    for (std::size_t i = 1; i < sections.size(); ++i) {
        const std::string f = folded(sections[i].name);
        if (f == "global" || f == "homes" || f == "printers")
            fuzz::finding("share named like one of Samba's own sections", sections[i].name);
        if (sections[i].parameters != kShareParameters)
            fuzz::finding("share section without its five parameters", fuzz::shown(text));
    }
    return 0;
}
