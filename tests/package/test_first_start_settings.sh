#!/usr/bin/env bash
# usbmgrd-setup gives a gateway its factory settings at the first start and
# never replaces what stands at /var/config/usbmgr.conf; with --host it also
# makes the platform's folders and Samba's guest account. Runs in a private
# mount namespace with tmpfs on /var, /run and /tmp and a stand-in useradd,
# so nothing of the machine changes.
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

# --host, on a Linux box: the platform's folders and Samba's guest account.
# useradd is a stand-in that records its arguments.
mount -t tmpfs test-run /run
mount -t tmpfs test-tmp /tmp
mkdir -p /run/test-bin
printf '#!/bin/sh\necho "useradd $*" >>/run/useradd.calls\n' >/run/test-bin/useradd
chmod +x /run/test-bin/useradd
host_setup() {
    rm -f /run/useradd.calls
    printf 'USBMGR.SAMBA.GUEST_ACCOUNT=%s\n' "$1" >/var/config/usbmgr.conf
    PATH="/run/test-bin:$PATH" "$setup" --host "$factory" 2>/run/setup.err
}

echo "== --host makes the folders the gateway's platform would have made"
host_setup 1234 || fail "--host failed"
for d in /var/dev /var/samba /var/log/samba /var/cache/minidlna /var/cache/samba \
    /var/lib/samba/private /run/samba /tmp/usb; do
    [ -d "$d" ] || fail "--host did not make $d"
done

echo "== --host makes the settings' guest account, a system account without a home or a shell"
[ "$(cat /run/useradd.calls 2>/dev/null)" = \
    "useradd --system --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin -- 1234" ] ||
    fail "useradd for the guest 1234: $(cat /run/useradd.calls 2>/dev/null)"

echo "== an account of that name is not made again; a UID of that number is no account of that name"
host_setup root
[ ! -e /run/useradd.calls ] || fail "useradd for the existing root: $(cat /run/useradd.calls)"
host_setup 0
grep -q -- '-- 0$' /run/useradd.calls 2>/dev/null || fail "the guest 0 was taken for root's UID 0"

echo "== a guest name that is not a plain word is not made, with one log line"
host_setup '-o'
[ ! -e /run/useradd.calls ] || fail "useradd for '-o': $(cat /run/useradd.calls)"
host_setup 'a b;c'
[ ! -e /run/useradd.calls ] || fail "useradd for 'a b;c': $(cat /run/useradd.calls)"
[ "$(grep -c "not a plain name" /run/setup.err)" = 1 ] || fail "log: $(cat /run/setup.err)"

[ "$failures" -eq 0 ] || exit 1
echo "first start settings: every check passed"
