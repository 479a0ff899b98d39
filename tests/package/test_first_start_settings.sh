#!/usr/bin/env bash
# usbmgrd-setup gives a gateway its factory settings at the first start and
# never replaces what stands at /var/config/usbmgr.conf. Runs in a private
# mount namespace with a tmpfs on /var, so the machine's /var is untouched.
#
#   test_first_start_settings.sh SOURCE_DIR
set -euo pipefail
source=$1
if [ "${2:-}" != --inner ]; then
    exec unshare --mount --propagation private bash "$0" "$source" --inner
fi
mount -t tmpfs test-var /var
setup=$source/etc/usbmgrd-setup
factory=$source/etc/usbmgr.conf
failures=0
fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

echo "== a missing settings file is made from the factory settings, mode 0600"
"$setup" "$factory"
cmp -s "$factory" /var/config/usbmgr.conf || fail "the settings are not the factory settings"
[ "$(stat -c %a /var/config/usbmgr.conf)" = 600 ] || fail "mode $(stat -c %a /var/config/usbmgr.conf)"
[ -z "$(find /var/config -name '.usbmgr.conf.*')" ] || fail "a temporary file was left behind"

echo "== an existing settings file is kept byte for byte"
echo "USBMGR.MOUNT_DISK_PATH=/tmp/mine" >/var/config/usbmgr.conf
"$setup" "$factory"
[ "$(cat /var/config/usbmgr.conf)" = "USBMGR.MOUNT_DISK_PATH=/tmp/mine" ] || fail "the gateway's settings were replaced"

echo "== an empty settings file is the gateway's too"
: >/var/config/usbmgr.conf
"$setup" "$factory"
[ ! -s /var/config/usbmgr.conf ] || fail "an empty settings file was filled"

echo "== a link at the settings' name is neither followed nor replaced"
rm /var/config/usbmgr.conf
ln -s /var/elsewhere /var/config/usbmgr.conf
"$setup" "$factory"
[ -L /var/config/usbmgr.conf ] || fail "the link was replaced"
[ ! -e /var/elsewhere ] || fail "the link was followed"

echo "== without factory settings nothing is made, and the start goes on"
rm /var/config/usbmgr.conf
"$setup" /nonexistent/usbmgr.conf 2>/dev/null || fail "a missing factory file failed the start"
[ ! -e /var/config/usbmgr.conf ] || fail "a settings file appeared from nothing"

[ "$failures" -eq 0 ] || exit 1
echo "first start settings: every check passed"
