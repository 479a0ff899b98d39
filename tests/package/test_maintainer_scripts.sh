#!/usr/bin/env bash
# The Debian package's maintainer scripts, run as dpkg runs them, with the
# service tools (deb-systemd-helper, deb-systemd-invoke, systemctl,
# update-rc.d, invoke-rc.d) replaced by stand-ins that only record their
# arguments: a first installation enables both units and starts nothing, an
# upgrade restarts what runs, a removal stops the services, and neither a
# removal nor a purge deletes anything in /var (the gateway's settings, disk
# history and users). Runs in a private mount namespace with tmpfs over
# /var, /run, /etc/init.d and systemd's unit folder, so nothing of this
# machine is seen or changed.
#
#   test_maintainer_scripts.sh SOURCE_DIR
set -euo pipefail
source=$1
if [ "${2:-}" != --inner ]; then
    exec unshare --mount --propagation private bash "$0" "$source" --inner
fi
scripts=$source/packaging/debian
unitdir=/lib/systemd/system
mkdir -p "$unitdir"
for dir in /var /run /etc/init.d "$unitdir"; do
    mount -t tmpfs test-maint "$dir"
done
work=/run/test
mkdir -p "$work/bin"
failures=0
fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

# The stand-ins. was-enabled answers as a first installation does (true)
# unless WAS_ENABLED=1 says the administrator disabled the unit.
for tool in deb-systemd-helper deb-systemd-invoke systemctl update-rc.d invoke-rc.d; do
    cat >"$work/bin/$tool" <<EOF
#!/bin/sh
echo "$tool \$*" >>$work/calls
if [ "$tool" = deb-systemd-helper ] && [ "\$1" = --quiet ] && [ "\$2" = was-enabled ]; then
    [ "\${WAS_ENABLED:-0}" = 0 ]
    exit
fi
exit 0
EOF
    chmod +x "$work/bin/$tool"
done
export PATH="$work/bin:$PATH"

: >"$unitdir/usbmgrd.service"
: >"$unitdir/dusbd.service"
printf '#!/bin/sh\n' >/etc/init.d/usbmgrd
chmod +x /etc/init.d/usbmgrd
mkdir -p /var/config /var/samba
echo "USBMGR.SAMBA.ENABLE=1" >/var/config/usbmgr.conf
echo "SERIAL_NUMBER=KEEP-ME" >/var/config/tr140.conf
echo "alice:1000:x" >/var/samba/smbpasswd
snapshot() { (cd /var && find . -type f -exec sha256sum {} + | LC_ALL=C sort); }
snapshot >"$work/var.before"

# run SCRIPT ARGS...: the calls it made, one a line.
run() {
    : >"$work/calls"
    sh "$scripts/$1" "${@:2}" || fail "$1 $* exited $?"
    cat "$work/calls"
}
has() { grep -qxF "$2" <<<"$1" || fail "$3: no '$2' in: $(tr '\n' ';' <<<"$1")"; }
lacks() { ! grep -Eq "$2" <<<"$1" || fail "$3: '$2' in: $(tr '\n' ';' <<<"$1")"; }

echo "== first installation, no systemd running: both units enabled, nothing started"
calls=$(run postinst configure "")
for unit in dusbd.service usbmgrd.service; do
    has "$calls" "deb-systemd-helper enable $unit" "first installation"
done
has "$calls" "update-rc.d usbmgrd defaults" "first installation"
lacks "$calls" 'start|restart|systemctl' "first installation"

echo "== reinstallation of a unit the administrator disabled: it stays disabled"
calls=$(WAS_ENABLED=1 run postinst configure "")
lacks "$calls" 'deb-systemd-helper enable' "disabled unit"
has "$calls" "deb-systemd-helper update-state usbmgrd.service" "disabled unit"

echo "== upgrade under systemd: what runs is restarted, nothing else is started"
mkdir -p /run/systemd/system
calls=$(run postinst configure 0.0)
for unit in dusbd.service usbmgrd.service; do
    has "$calls" "deb-systemd-invoke try-restart $unit" "upgrade"
done
lacks "$calls" ' restart ' "upgrade"
lacks "$calls" ' start ' "upgrade"

echo "== removal under systemd: both services stopped before the programs go"
calls=$(run prerm remove)
for unit in usbmgrd.service dusbd.service; do
    has "$calls" "deb-systemd-invoke stop $unit" "removal"
done

echo "== removal with the init script alone: stopped through it"
rm -r /run/systemd/system
calls=$(run prerm remove)
has "$calls" "invoke-rc.d usbmgrd stop" "removal without systemd"

echo "== upgrade's prerm stops nothing"
calls=$(run prerm upgrade 0.2)
lacks "$calls" 'stop' "upgrade's prerm"

echo "== postrm remove masks the units, purge forgets their links"
calls=$(run postrm remove)
for unit in usbmgrd.service dusbd.service; do
    has "$calls" "deb-systemd-helper mask $unit" "postrm remove"
done
calls=$(run postrm purge)
for unit in usbmgrd.service dusbd.service; do
    has "$calls" "deb-systemd-helper purge $unit" "postrm purge"
done
has "$calls" "update-rc.d usbmgrd remove" "postrm purge"

echo "== /var after removal and purge: every file as it was"
snapshot >"$work/var.after"
# The stand-ins' own record lives in /run, so /var holds only the gateway's.
cmp -s "$work/var.before" "$work/var.after" || {
    diff "$work/var.before" "$work/var.after" >&2 || true
    fail "the scripts changed /var"
}

[ "$failures" -eq 0 ] || exit 1
echo "maintainer scripts: every check passed"
