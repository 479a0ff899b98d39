#!/usr/bin/env bash
# A gateway build (no host platform) installs, with DESTDIR, exactly what
# the gateway's image takes: the daemon and the client for the gateway's
# processor, the factory settings, usbmgrd-setup, the init script and the
# documentation. The host platform, its Samba adapters, the systemd units
# and the bus policy stay out: the gateway brings its own platform.
#
#   test_gateway_install.sh BUILD_DIR [MACHINE]
#
# BUILD_DIR is a built gateway-style build (scripts/mips-test.sh's);
# MACHINE, when given, is a word `file` must print for the programs (MIPS).
set -euo pipefail
build=$1
machine=${2:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/usbmgr-gateway-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

grep -qx 'USBMGR_HOST_PLATFORM:BOOL=OFF' "$build/CMakeCache.txt" ||
    { echo "FAILED: $build is not a gateway build (USBMGR_HOST_PLATFORM is on)" >&2; exit 1; }
prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")

DESTDIR="$work/root" cmake --install "$build" >"$work/install.log" 2>&1 || {
    cat "$work/install.log" >&2
    echo "FAILED: cmake --install" >&2
    exit 1
}
(cd "$work/root" && find . -type f -o -type l) | sed 's|^\.||' | LC_ALL=C sort >"$work/files"

# Everything but the documentation, exactly.
expect=(
    /etc/init.d/usbmgrd
    /etc/usbmgrd/usbmgr.conf
    "$prefix/bin/usbmgrctl"
    "$prefix/libexec/usbmgrd/usbmgrd-setup"
    "$prefix/sbin/usbmgrd"
)
printf '%s\n' "${expect[@]}" | LC_ALL=C sort >"$work/expected"
grep -v "^$prefix/share/doc/usbmgrd/" "$work/files" >"$work/programs" || true
if ! cmp -s "$work/expected" "$work/programs"; then
    diff "$work/expected" "$work/programs" >&2 || true
    fail "the gateway's install is not the daemon, the client, the settings and the init script"
fi
grep -qx "$prefix/share/doc/usbmgrd/README.md" "$work/files" || fail "no README"
echo "installs the ${#expect[@]} gateway files and the documentation"

for p in "$prefix/sbin/usbmgrd" "$prefix/bin/usbmgrctl" "$prefix/libexec/usbmgrd/usbmgrd-setup" /etc/init.d/usbmgrd; do
    [ -x "$work/root$p" ] || fail "$p is not executable"
done
if [ -n "$machine" ]; then
    for p in "$prefix/sbin/usbmgrd" "$prefix/bin/usbmgrctl"; do
        file -b "$work/root$p" | grep -qw "$machine" || fail "$p is not for $machine: $(file -b "$work/root$p")"
    done
    echo "the programs are $machine executables"
fi
# The init script names the installed paths and parses under BusyBox.
grep -qF "$prefix/sbin/usbmgrd" "$work/root/etc/init.d/usbmgrd" || fail "the init script does not start $prefix/sbin/usbmgrd"
if command -v busybox >/dev/null; then
    busybox sh -n "$work/root/etc/init.d/usbmgrd" || fail "busybox sh -n /etc/init.d/usbmgrd"
fi

[ "$failures" -eq 0 ] || exit 1
echo "gateway install: every check passed"
