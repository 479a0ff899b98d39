#!/bin/bash
# Runs a command inside a throw-away namespace sandbox that looks enough like
# the gateway for usbmgrd: private mount, PID, network, UTS and IPC
# namespaces; tmpfs on /tmp, /var and /run; an overlay on /etc (so accounts
# can be added without touching the machine's own) with an empty /etc/samba;
# the gateway's /bin/smbd, /bin/nmbd, /bin/pdbedit and smbcontrol (host adapters from
# platform/host/samba) and orbcm_util on the PATH; a private dbus-daemon as
# the message bus.
#
#   scripts/sandbox.sh [--build BUILD_DIR] -- COMMAND...
#
# Must run as root. Everything started inside dies with the PID namespace
# when COMMAND ends. Loop devices are not namespaced: the ones attached
# through sandbox-lib.sh are recorded and detached here on exit.
set -euo pipefail

script_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$script_dir/.." && pwd)

die() {
    echo "sandbox.sh: $*" >&2
    exit 2
}

usage() {
    echo "usage: $0 [--build BUILD_DIR] -- COMMAND..." >&2
    exit 2
}

build_dir="${USBMGR_BUILD_DIR:-$source_dir/build}"
inner=0
state_dir=""
while [ $# -gt 0 ]; do
    case "$1" in
        --build)
            [ $# -ge 2 ] || usage
            build_dir="$2"
            shift 2
            ;;
        --inner)
            # Set by the outer half only.
            [ $# -ge 2 ] || usage
            inner=1
            state_dir="$2"
            shift 2
            ;;
        --)
            shift
            break
            ;;
        *)
            usage
            ;;
    esac
done
[ $# -gt 0 ] || usage
[ "$(id -u)" -eq 0 ] || die "must be run as root"
[ -d "$build_dir" ] || die "no build folder $build_dir"
build_dir=$(cd "$build_dir" && pwd)

# ---------------------------------------------------------------------------
# Outer half: on the host. Starts the namespaces and cleans the loop devices.
if [ "$inner" -eq 0 ]; then
    host_state=$(mktemp -d "${TMPDIR:-/tmp}/usbmgr-sandbox.XXXXXX")
    : >"$host_state/loops"

    cleanup() {
        local dev
        if [ -f "$host_state/loops" ]; then
            while read -r dev; do
                [ -n "$dev" ] || continue
                # The mounts on it went with the namespace; detach what is left.
                if losetup "$dev" >/dev/null 2>&1; then
                    losetup -d "$dev" 2>/dev/null || echo "sandbox.sh: could not detach $dev" >&2
                fi
            done <"$host_state/loops"
        fi
        rm -rf "$host_state"
    }
    trap cleanup EXIT

    # In the background so that a signal to this script is handled at once:
    # it ends the namespace (--kill-child), then the EXIT trap detaches.
    unshare --mount --pid --net --uts --ipc --fork --kill-child --mount-proc \
        "$script_dir/sandbox.sh" --build "$build_dir" --inner "$host_state" -- "$@" <&0 &
    child=$!
    trap 'kill -TERM "$child" 2>/dev/null || true' INT TERM HUP
    rc=0
    wait "$child" || rc=$?
    # A trapped signal interrupts wait: wait again for the namespace to end.
    while kill -0 "$child" 2>/dev/null; do
        wait "$child" || rc=$?
    done
    exit "$rc"
fi

# ---------------------------------------------------------------------------
# Inner half: PID 1 of the new namespaces.

start_dir=$PWD

# Nothing mounted from here on may leak back to the host.
mount --make-rprivate /
ip link set lo up
hostname gateway

# A checkout or build folder under one of the folders hidden below (a CI
# clone in /tmp, say) is kept reachable at its own path.
hidden_below() {
    case "$1/" in
        /tmp/* | /var/* | /run/* | /etc/samba/*) return 0 ;;
    esac
    return 1
}
keep_dirs=()
for dir in "$source_dir" "$build_dir"; do
    if hidden_below "$dir"; then keep_dirs+=("$dir"); fi
done
if [ "${#keep_dirs[@]}" -gt 0 ]; then
    mount -t tmpfs -o mode=0755 sandbox-keep /mnt
    for i in "${!keep_dirs[@]}"; do
        mkdir -p "/mnt/keep$i"
        mount --bind "${keep_dirs[$i]}" "/mnt/keep$i"
    done
fi

# The host state folder (loop device record) lives under the host's /tmp,
# which the tmpfs below hides: keep it reachable under /var first.
mount -t tmpfs -o mode=0755 sandbox-var /var
mkdir -p /var/lib/sandbox/state
mount --bind "$state_dir" /var/lib/sandbox/state

mount -t tmpfs -o mode=1777 sandbox-tmp /tmp
mount -t tmpfs -o mode=0755 sandbox-run /run

# An overlay on /etc, its upper layer on the /var tmpfs: useradd (through the
# pdbedit adapter) changes /etc/passwd here and never the machine's own.
# Samba starts from an empty /etc/samba: the daemon writes smb.conf itself.
mkdir -p /var/lib/sandbox/etc/upper /var/lib/sandbox/etc/work
mount -t overlay sandbox-etc \
    -o lowerdir=/etc,upperdir=/var/lib/sandbox/etc/upper,workdir=/var/lib/sandbox/etc/work /etc
rm -rf /etc/samba
mkdir -m 0755 /etc/samba

for i in "${!keep_dirs[@]}"; do
    mkdir -p "${keep_dirs[$i]}"
    mount --bind "/mnt/keep$i" "${keep_dirs[$i]}"
done

mkdir -p /var/config /var/dev /var/samba /var/log/samba /var/cache/minidlna /var/lib/minidlna \
    /var/lib/samba/private /var/cache/samba /var/tmp /run/samba /run/lock /tmp/usb
ln -s /run /var/run
ln -s /run/lock /var/lock
chmod 1777 /var/tmp

# Finds one built file by name and type in the build folder.
find_built() {
    find "$build_dir" -name "$1" -type "$2" -not -path '*/CMakeFiles/*' 2>/dev/null | head -n 1
}

# Debian's pdbedit, kept reachable before the overlay below puts the
# gateway-style adapter in its place (the adapter calls it here).
mkdir -p /var/lib/sandbox/debian
if [ -x /usr/bin/pdbedit ]; then
    : >/var/lib/sandbox/debian/pdbedit
    mount --bind /usr/bin/pdbedit /var/lib/sandbox/debian/pdbedit
else
    echo "sandbox.sh: warning: no /usr/bin/pdbedit (Debian package samba-common-bin)" >&2
fi
export USBMGR_DEBIAN_PDBEDIT=/var/lib/sandbox/debian/pdbedit
# Debian's smbcontrol likewise, for the smbcontrol adapter.
if [ -x /usr/bin/smbcontrol ]; then
    : >/var/lib/sandbox/debian/smbcontrol
    mount --bind /usr/bin/smbcontrol /var/lib/sandbox/debian/smbcontrol
else
    echo "sandbox.sh: warning: no /usr/bin/smbcontrol (Debian package samba-common-bin)" >&2
fi
export USBMGR_DEBIAN_SMBCONTROL=/var/lib/sandbox/debian/smbcontrol

# /bin is /usr/bin here: an overlay adds the programs the gateway has in /bin.
# smbd, nmbd, pdbedit and smbcontrol are adapters that give Debian's Samba the gateway's
# command lines and password file (platform/host/samba).
mkdir -p /var/lib/sandbox/usr-bin/upper /var/lib/sandbox/usr-bin/work
for adapter in smbd nmbd pdbedit smbcontrol; do
    install -m 0755 "$source_dir/platform/host/samba/$adapter" "/var/lib/sandbox/usr-bin/upper/$adapter"
done
orbcm_util=$(find_built orbcm_util f)
if [ -n "$orbcm_util" ] && [ -x "$orbcm_util" ]; then
    ln -s "$orbcm_util" /var/lib/sandbox/usr-bin/upper/orbcm_util
else
    echo "sandbox.sh: warning: no orbcm_util built in $build_dir" >&2
fi
mount -t overlay sandbox-usr-bin \
    -o lowerdir=/usr/bin,upperdir=/var/lib/sandbox/usr-bin/upper,workdir=/var/lib/sandbox/usr-bin/work /usr/bin

# Debian's "mount -t auto" would mount NTFS itself through its mount.ntfs
# helpers; the gateway has none, so its NTFS disks take the daemon's own
# ntfs-3g path; likewise exFAT takes its mount.exfat-fuse path, as on a
# kernel without exfat. Whiteouts in an overlay hide the helpers here.
mkdir -p /var/lib/sandbox/usr-sbin/upper /var/lib/sandbox/usr-sbin/work
for helper in mount.ntfs mount.ntfs-3g mount.lowntfs-3g mount.exfat; do
    mknod "/var/lib/sandbox/usr-sbin/upper/$helper" c 0 0
done
mount -t overlay sandbox-usr-sbin \
    -o lowerdir=/usr/sbin,upperdir=/var/lib/sandbox/usr-sbin/upper,workdir=/var/lib/sandbox/usr-sbin/work /usr/sbin

if [ -f "$source_dir/etc/usbmgr.conf" ]; then
    cp "$source_dir/etc/usbmgr.conf" /var/config/usbmgr.conf
else
    echo "sandbox.sh: warning: no $source_dir/etc/usbmgr.conf" >&2
fi

# smbd refuses to start without a Unix account for its guest account (the
# gateway has one); the factory settings name it. Added in the /etc overlay.
guest=$(sed -n 's/^USBMGR\.SAMBA\.GUEST_ACCOUNT=//p' /var/config/usbmgr.conf 2>/dev/null | head -n 1)
# Looked up by name: "getent passwd 1234" would find the UID 1234.
if [[ $guest =~ ^[A-Za-z0-9_][A-Za-z0-9_.-]*$ ]] && ! getent passwd | cut -d: -f1 | grep -xF -- "$guest" >/dev/null; then
    echo "$guest:x:60123:65534:gateway guest:/nonexistent:/usr/sbin/nologin" >>/etc/passwd
fi

# A private message bus.
cat >/var/lib/sandbox/bus.conf <<'EOF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=/run/orbiil-bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
bus_address=$(dbus-daemon --config-file=/var/lib/sandbox/bus.conf --fork --print-address </dev/null)
bus_address=${bus_address%%$'\n'*}
[ -n "$bus_address" ] || die "dbus-daemon gave no address"
export ORBIIL_BUS_ADDRESS="$bus_address"
export DBUS_SESSION_BUS_ADDRESS="$bus_address"

# Programs and libraries of the build.
path_dirs=""
for prog in usbmgrd usbmgrctl dusbd; do
    found=$(find_built "$prog" f)
    [ -n "$found" ] && path_dirs="$path_dirs$(dirname "$found"):"
done
lib_dirs=""
for lib in liborbiil.so libdusb.so liborbsm.so; do
    found=$(find_built "$lib" f)
    [ -n "$found" ] || found=$(find_built "$lib" l)
    [ -n "$found" ] && lib_dirs="$lib_dirs$(dirname "$found"):"
done
export PATH="$path_dirs$PATH"
export LD_LIBRARY_PATH="${lib_dirs%:}${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export USBMGR_BUILD_DIR="$build_dir"
export USBMGR_SOURCE_DIR="$source_dir"
export USBMGR_SANDBOX=1
export USBMGR_SANDBOX_LOOPS=/var/lib/sandbox/state/loops
export ORBIIL_LOG_FILE=/var/log/usbmgr.log

# Stay in the caller's folder when it is still visible.
cd "$start_dir" 2>/dev/null || cd /tmp
exec "$@"
