#!/bin/bash
# Installs the Debian packages that building, testing and the demo need.
# Does nothing when every package is installed already, so reruns are fast.
# Must run as root.
#
#   scripts/install-deps.sh [demo|all]
#
# demo: what scripts/demo.sh needs to build the daemon, the client and the
#       host platform and to run them in the sandbox (compiler, CMake, sd-bus,
#       D-Bus, Samba, MiniDLNA, the disk tools);
# all:  (the default) that and what the tests, the analysis, the fuzzing, the
#       MIPS build and the Debian package need.
set -euo pipefail

demo_packages=(
    build-essential cmake ninja-build pkg-config libsystemd-dev
    dbus-daemon dbus-bin dbus-system-bus-common
    samba smbclient minidlna ntfs-3g exfat-fuse exfatprogs
    psmisc e2fsprogs iproute2 util-linux fdisk curl procps
)
all_packages=(
    "${demo_packages[@]}"
    libgtest-dev libgmock-dev googletest libbenchmark-dev python3
    clang libclang-rt-14-dev clang-tidy cppcheck
    g++-mips-linux-gnu qemu-user-static
    dpkg-dev busybox systemd file
)

case "${1:-all}" in
    demo) packages=("${demo_packages[@]}") ;;
    all) packages=("${all_packages[@]}") ;;
    *)
        echo "usage: $0 [demo|all]" >&2
        exit 2
        ;;
esac

installed() {
    # "dpkg -s" also succeeds for removed packages that left their
    # configuration behind: ask for the installed state itself.
    [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing=()
for p in "${packages[@]}"; do
    installed "$p" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
    echo "install-deps.sh: all ${#packages[@]} packages are installed"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps.sh: must run as root to install: ${missing[*]}" >&2
    exit 2
fi

echo "install-deps.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${packages[@]}"
