#!/usr/bin/env bash
# `cpack -G DEB` makes the package from the installed files: every program,
# library, service file, the init script, the factory settings as a conffile,
# the dependencies on what the daemon runs, and no path that a package
# installed on this machine owns (the host adapters replace nobody's file).
#
#   test_debian_package.sh BUILD_DIR SOURCE_DIR HAS_DUSBD
set -euo pipefail
build=$1
source=$2
has_dusbd=${3:-0}

work=$(mktemp -d "${TMPDIR:-/tmp}/usbmgr-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || {
    cat "$work/cpack.log" >&2
    echo "FAILED: cpack -G DEB" >&2
    exit 1
}
deb=$(ls "$work"/out/usbmgrd_*.deb)
echo "made $(basename "$deb")"

# Contents.
dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's|^\./|/|; s|/$||' >"$work/paths"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sed 's|^\./|/|' >"$work/files"
expect=(
    /usr/sbin/usbmgrd /usr/bin/usbmgrctl /usr/sbin/orbcm_util
    /usr/lib/x86_64-linux-gnu/usbmgrd/liborbiil.so /usr/lib/x86_64-linux-gnu/usbmgrd/libdusb.so
    /usr/lib/x86_64-linux-gnu/usbmgrd/liborbsm.so
    /usr/bin/smbd /usr/bin/nmbd /usr/libexec/usbmgrd/pdbedit /usr/libexec/usbmgrd/usbmgrd-setup
    /etc/usbmgrd/usbmgr.conf /etc/init.d/usbmgrd /lib/systemd/system/usbmgrd.service
    /usr/share/doc/usbmgrd/README.md /usr/share/doc/usbmgrd/bus-api.md
)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x86_64-linux-gnu)
expect=("${expect[@]//x86_64-linux-gnu/$multiarch}")
if [ "$has_dusbd" = 1 ]; then
    expect+=(/usr/sbin/dusbd /lib/systemd/system/dusbd.service)
fi
if [ -f "$source/etc/dbus-1/system.d/org.orbiil.conf" ]; then
    expect+=(/usr/share/dbus-1/system.d/org.orbiil.conf)
fi
for p in "${expect[@]}"; do
    grep -qxF "$p" "$work/files" || fail "the package lacks $p"
done
echo "holds the ${#expect[@]} expected files"

# Control fields.
[ "$(dpkg-deb -f "$deb" Package)" = usbmgrd ] || fail "package name"
depends=$(dpkg-deb -f "$deb" Depends)
for d in dbus samba minidlna ntfs-3g exfat-fuse psmisc libc6 libsystemd0; do
    echo "$depends" | tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -qxF "$d" || fail "Depends lacks $d: $depends"
done
echo "Depends: $depends"

# Conffiles: exactly the files under /etc.
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | sort >"$work/conffiles"
grep '^/etc/' "$work/files" | sort >"$work/etc-files"
cmp -s "$work/conffiles" "$work/etc-files" || {
    diff "$work/etc-files" "$work/conffiles" >&2 || true
    fail "the conffiles are not the files under /etc"
}
grep -qxF /etc/usbmgrd/usbmgr.conf "$work/conffiles" || fail "the factory settings are no conffile"

# Maintainer scripts: enable the units, and no removal anywhere near the
# gateway's settings, history or users.
dpkg-deb -e "$deb" "$work/control"
grep -q 'deb-systemd-helper enable' "$work/control/postinst" || fail "postinst does not enable the units"
for s in postinst prerm postrm; do
    [ -x "$work/control/$s" ] || fail "no $s"
    if grep -v '^\s*#' "$work/control/$s" | grep -Eq '\brm\b|/var/config|userdel|deluser'; then
        fail "$s removes files or accounts"
    fi
done

# No file of another package: the daemon's /bin/smbd and /bin/nmbd are files
# no Debian package has; Debian's /usr/bin/pdbedit is never shipped.
aliases=()
while read -r f; do
    aliases+=("$f" "${f/#\/usr\/bin\//\/bin\/}" "${f/#\/usr\/sbin\//\/sbin\/}" "${f/#\/lib\//\/usr\/lib\/}")
done <"$work/files"
dpkg-query -S "${aliases[@]}" 2>/dev/null | grep -v '^usbmgrd: ' >"$work/owned" || true
[ ! -s "$work/owned" ] || fail "the package ships files of other packages: $(cat "$work/owned")"

# The unit files, as installed: systemd-analyze may only miss our own
# programs, which are not installed on this machine.
dpkg-deb -x "$deb" "$work/root"
if command -v systemd-analyze >/dev/null; then
    for unit in "$work"/root/lib/systemd/system/*.service; do
        systemd-analyze verify "$unit" >"$work/verify.log" 2>&1 || true
        while IFS= read -r line; do
            if [[ $line =~ Command\ (/[^ ]+)\ is\ not\ executable ]] && [ -x "$work/root${BASH_REMATCH[1]}" ]; then
                continue
            fi
            fail "systemd-analyze verify $(basename "$unit"): $line"
        done <"$work/verify.log"
    done
    echo "systemd-analyze verify: clean"
else
    fail "no systemd-analyze (Debian package systemd)"
fi

# The programs find their private libraries through their run path.
LD_LIBRARY_PATH='' ldd "$work/root/usr/sbin/usbmgrd" >"$work/ldd" 2>&1 || true
grep -q 'not found' "$work/ldd" && fail "usbmgrd misses a library: $(grep 'not found' "$work/ldd")"
LD_LIBRARY_PATH='' ldd "$work/root/usr/bin/usbmgrctl" | grep -q 'not found' && fail "usbmgrctl misses a library"

[ "$failures" -eq 0 ] || exit 1
echo "package: every check passed"
