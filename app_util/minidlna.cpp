// MiniDLNA: the configuration file from its line table and the settings,
// and starting and reloading minidlnad. The stop loop is in process.cpp.
#include <cstring>
#include <string>

#include "app_util/app_util.h"
#include "app_util/app_util_internal.h"
#include "db_util/clock.h"
#include "db_util/db_util.h"
#include "db_util/file_writer.h"
#include "db_util/log.h"

namespace {

constexpr const char kLogModule[] = "app_util.c";
constexpr const char kServer[] = "/sbin/minidlnad";

using app_util_internal::field_text;

// Where a row takes its value from: a settings field, or nothing (the row's
// default is written).
using MiniDlnaField = std::string (*)(const MiniDlnaConf&);
#define FIELD(name) [](const MiniDlnaConf& c) { return field_text(c.name); }

struct MiniDlnaRow {
    bool enabled;
    const char* key;  // already ends in "="
    const char* default_value;
    MiniDlnaField field;
};

// The switched-off rows stay off even where a setting exists (serial, model
// name and number are stored but never written). album_art_names stands three
// times on purpose: one line per group of names.
const MiniDlnaRow kRows[] = {
    {true, "user=", "root", nullptr},
    {true, "media_dir=", "/tmp/disk", FIELD(media_dir)},
    {false, "merge_media_dirs=", "yes", nullptr},
    {true, "db_dir=", "/var/cache/minidlna", FIELD(db_dir)},
    {true, "log_dir=", "/var/log", FIELD(log_dir)},
    {true, "log_level=", "off", FIELD(log_level)},
    {true, "root_container=", ".", FIELD(root_container)},
    {true, "port=", "8200", FIELD(port)},
    {true, "friendly_name=", "pelvan_kro", FIELD(friendly_name)},
    {false, "serial=", "", FIELD(serial)},
    {false, "model_name=", "Windows Media Connect compatible (MiniDLNA)", FIELD(model_name)},
    {false, "model_number=", "", FIELD(model_number)},
    {true, "inotify=", "yes", FIELD(inotify)},
    {true, "album_art_names=", "Cover.jpg/cover.jpg/AlbumArtSmall.jpg/albumartsmall.jpg", nullptr},
    {true, "album_art_names=", "AlbumArt.jpg/albumart.jpg/Album.jpg/album.jpg", nullptr},
    {true, "album_art_names=", "Folder.jpg/folder.jpg/Thumb.jpg/thumb.jpg", nullptr},
    {false, "strict_dlna=", "no", nullptr},
    {false, "enable_tivo=", "no", nullptr},
    {false, "tivo_discovery=", "bonjour", nullptr},
    {true, "notify_interval=", "300", FIELD(notify_interval)},
    {false, "minissdpdsocket=", "/run/minissdpd.sock", nullptr},
    {false, "force_sort_criteria=", "", nullptr},
    {false, "max_connections=", "50", nullptr},
    {false, "wide_links=", "no", nullptr},
};
#undef FIELD
static_assert(sizeof kRows / sizeof kRows[0] == 24);

// "/sbin/minidlnad -f CONF -R": the server reads the generated file and
// rebuilds its media database on every start.
int run_server() {
    return db_util_exe_command(
        app_util_internal::server_command({kServer, "-f", field_text(MINIDLNA_CONF.conf_dir), "-R"}, {2}));
}

}  // namespace

std::string app_util_render_minidlna_conf(const MiniDlnaConf& conf) {
    std::string out;
    for (const MiniDlnaRow& row : kRows) {
        if (!row.enabled) continue;
        std::string value = row.field ? row.field(conf) : std::string(row.default_value);
        value = app_util_internal::fit_value(row.key, app_util_internal::line_safe(value), "");
        app_util_internal::append_line(out, row.key, value, "");
    }
    return out;
}

void app_util_write_minidlna_conf() {
    std::string path = field_text(MINIDLNA_CONF.conf_dir);
    usbmgr::replace_file(path.c_str(), app_util_render_minidlna_conf(MINIDLNA_CONF), usbmgr::kPublicFileMode);
}

int app_util_start_minidlna() {
    if (app_util_check_process("minidlnad") == 1) {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Kill minidlna");
        db_util_exe_command(app_util_internal::server_command({"killall", "minidlnad"}));
        // Only a restart drops the media database; a first start keeps it.
        // The folder goes whole, so only one where it may be thrown away.
        const std::string db_dir = field_text(MINIDLNA_CONF.db_dir);
        if (usbmgr_setting_ok("USBMGR.MINIDLNA.DB_DIR", db_dir.c_str()))
            db_util_exe_command(app_util_internal::server_command({"rm", "-rf", db_dir}, {2}));
        usbmgr::sys_clock().sleep_us(500000);
    } else {
        USBMGR_TRACE(USBMGR_LOG_DEBUG, "Start minidlna");
    }
    app_util_write_minidlna_conf();
    return run_server();
}

void app_util_minidlna_reload_conf(OrbIilHandle*) {
    app_util_write_minidlna_conf();
    app_util_stop_minidllna();
    usbmgr::sys_clock().sleep_us(1000000);
    if (MINIDLNA_CONF.enable) run_server();
}
