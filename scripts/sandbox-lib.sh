#!/bin/bash
# Helpers for scripts that run inside scripts/sandbox.sh (tests, the demo).
# Source it:  . "$USBMGR_SOURCE_DIR/scripts/sandbox-lib.sh"
#
#   make_disk_image PATH SIZE_MB FSTYPE NPARTS   ext4 or ntfs; NPARTS 0 = no partition table
#   attach_disk NAME PATH                        loop device + block nodes /var/dev/NAME, NAME1..
#   detach_disk NAME                             unmount leftovers, remove nodes, detach
#   make_disk_nodes NAME                         the nodes of an attached disk again
#   alias_disk_nodes SRC NAME NPARTS             nodes of a disk made of SRC's first partition
#   wait_for COND_COMMAND TIMEOUT_S              poll every 50 ms until COND succeeds
#   start_daemon [LEVEL]                         start usbmgrd (default DEBUG); prints its pid
#   stop_daemon [TIMEOUT_S]                      SIGTERM and wait until it is gone
#   log_has TEXT                                 TEXT is in $ORBIIL_LOG_FILE
#   wait_log TEXT TIMEOUT_S                      wait until TEXT is in the log
#   bus_has_name NAME                            org.orbiil.NAME is owned on the bus
#   check DESCRIPTION COMMAND...                 one "ok"/"not ok" line of a test
#   expect DESCRIPTION EXPECTED COMMAND...       check that the output is EXPECTED
#   start_monitor, count_kind K, kind_time K N   notifications seen (in $work)
#   proc_uss_kib PID, proc_rss_kib PID           private (USS) and resident memory, KiB
#   proc_idle_uss_kib PID                        USS, the largest of five samples (forks share pages)
#   proc_fds PID, proc_threads PID               open descriptors and threads
#   proc_private_by_mapping PID                  private KiB of each mapping, largest first
#
# Every function returns non-zero on failure and says why on stderr.

if [ "${USBMGR_SANDBOX:-}" != 1 ]; then
    echo "sandbox-lib.sh: not inside scripts/sandbox.sh; refusing to load" >&2
    return 1 2>/dev/null || exit 1
fi

SANDBOX_LIB_STATE=/var/lib/sandbox
mkdir -p "$SANDBOX_LIB_STATE/disks" "$SANDBOX_LIB_STATE/nodes"

_sandbox_err() {
    echo "sandbox-lib: $*" >&2
}

# Milliseconds of the monotonic-enough wall clock, for deadlines.
_sandbox_now_ms() {
    local ns
    ns=$(date +%s%N)
    echo $((ns / 1000000))
}

# Seconds (integer or with up to three decimals) to milliseconds.
_sandbox_seconds_to_ms() {
    local s=$1
    if [[ $s =~ ^([0-9]+)$ ]]; then
        echo $((10#${BASH_REMATCH[1]} * 1000))
    elif [[ $s =~ ^([0-9]*)\.([0-9]{1,3})$ ]]; then
        local whole=${BASH_REMATCH[1]:-0} frac=${BASH_REMATCH[2]}
        while [ ${#frac} -lt 3 ]; do frac="${frac}0"; done
        echo $((10#$whole * 1000 + 10#$frac))
    else
        return 1
    fi
}

# wait_for COND_COMMAND TIMEOUT_S: evaluates COND_COMMAND (a shell command
# line, so sandbox-lib functions work in it) every 50 ms until it succeeds.
# Returns 1 when the deadline passes first.
wait_for() {
    if [ $# -ne 2 ]; then
        _sandbox_err "usage: wait_for COND_COMMAND TIMEOUT_S"
        return 2
    fi
    local cond=$1 timeout_ms deadline
    timeout_ms=$(_sandbox_seconds_to_ms "$2") || {
        _sandbox_err "wait_for: bad timeout '$2'"
        return 2
    }
    deadline=$(($(_sandbox_now_ms) + timeout_ms))
    while true; do
        if eval "$cond" >/dev/null 2>&1; then
            return 0
        fi
        if [ "$(_sandbox_now_ms)" -ge "$deadline" ]; then
            _sandbox_err "timed out after $2 s waiting for: $cond"
            return 1
        fi
        sleep 0.05
    done
}

log_has() {
    [ -f "$ORBIIL_LOG_FILE" ] && grep -qF -- "$1" "$ORBIIL_LOG_FILE"
}

wait_log() {
    local text=$1 timeout=$2
    local deadline
    deadline=$(($(_sandbox_now_ms) + $(_sandbox_seconds_to_ms "$timeout")))
    while ! log_has "$text"; do
        if [ "$(_sandbox_now_ms)" -ge "$deadline" ]; then
            _sandbox_err "timed out after $timeout s waiting for log text: $text"
            return 1
        fi
        sleep 0.05
    done
}

bus_has_name() {
    busctl --address="$ORBIIL_BUS_ADDRESS" list --no-legend 2>/dev/null | awk '{print $1}' | grep -qxF -- "org.orbiil.$1"
}

# ---------------------------------------------------------------------------
# Loop devices. Every device attached here is written to the record that
# sandbox.sh reads on exit, and struck from it when detached here.

_sandbox_record_loop() {
    echo "$1" >>"$USBMGR_SANDBOX_LOOPS"
}

_sandbox_forget_loop() {
    local dev=$1 tmp
    tmp=$(mktemp "$SANDBOX_LIB_STATE/loops.XXXXXX")
    grep -vxF -- "$dev" "$USBMGR_SANDBOX_LOOPS" >"$tmp" || true
    # Rewrite in place: the record is a bind mount's file, so keep its inode.
    cat "$tmp" >"$USBMGR_SANDBOX_LOOPS"
    rm -f "$tmp"
}

# Makes sure a free loop device node exists: losetup -f names the next free
# device, whose /dev node some machines lack until it is made by hand.
_sandbox_ensure_free_loop() {
    local dev n
    dev=$(losetup -f 2>/dev/null) || dev=""
    if [ -z "$dev" ]; then
        for n in $(seq 0 63); do
            if [ ! -e "/dev/loop$n" ]; then
                mknod -m 0660 "/dev/loop$n" b 7 "$n" || return 1
                break
            fi
        done
        dev=$(losetup -f 2>/dev/null) || return 1
    fi
    if [ ! -e "$dev" ]; then
        n=${dev#/dev/loop}
        [[ $n =~ ^[0-9]+$ ]] || return 1
        mknod -m 0660 "$dev" b 7 "$n" || return 1
    fi
}

# Attaches PATH to a free loop device with partition scanning; prints the device.
_sandbox_loop_attach() {
    local path=$1 dev try
    for try in 1 2 3 4 5; do
        _sandbox_ensure_free_loop || true
        if dev=$(losetup -f --show -P "$path" 2>/dev/null) && [ -n "$dev" ]; then
            _sandbox_record_loop "$dev"
            echo "$dev"
            return 0
        fi
        sleep 0.1
    done
    _sandbox_err "no loop device for $path"
    return 1
}

_sandbox_loop_detach() {
    local dev=$1
    losetup -d "$dev" 2>/dev/null || _sandbox_err "could not detach $dev"
    _sandbox_forget_loop "$dev"
}

# Partition block names of a loop device (loop3p1 loop3p2 ...), in order.
_sandbox_loop_parts() {
    local base
    base=$(basename "$1")
    local p
    for p in /sys/class/block/"$base"p*; do
        [ -e "$p" ] && basename "$p"
    done | sort -V
}

# Waits until the kernel shows COUNT partitions of a loop device. Some
# kernels read no partition table by themselves (no DOS label support):
# partx then adds the partitions from user space.
_sandbox_wait_parts() {
    local dev=$1 count=$2
    if [ "$(_sandbox_loop_parts "$dev" | wc -l)" -lt "$count" ]; then
        partx -a "$dev" >/dev/null 2>&1 || true
    fi
    wait_for "[ \$(_sandbox_loop_parts $dev | wc -l) -ge $count ]" 5
}

# A block node for sysfs block name BLK at node path NODE.
_sandbox_mknod_for() {
    local blk=$1 node=$2 majmin
    majmin=$(cat "/sys/class/block/$blk/dev") || return 1
    rm -f "$node"
    mknod -m 0660 "$node" b "${majmin%%:*}" "${majmin##*:}"
}

_sandbox_mkfs() {
    local fstype=$1 target=$2
    case "$fstype" in
        ext4) mkfs.ext4 -q -F "$target" ;;
        ntfs)
            # mkntfs warns about boot geometry it cannot read from a loop
            # partition; show its words only when it fails.
            local out
            out=$(mkntfs -q -F -f "$target" 2>&1) || {
                echo "$out" >&2
                return 1
            }
            ;;
        exfat) mkfs.exfat "$target" >/dev/null ;;
        # Nothing any mount can take: the partition stays zeros.
        none) ;;
        *)
            _sandbox_err "unknown file system '$fstype' (ext4, ntfs, exfat or none)"
            return 1
            ;;
    esac
}

# Writes a DOS partition table of NPARTS equal primary partitions.
# sfdisk when the machine has it, else the table is written byte by byte.
_sandbox_partition() {
    local path=$1 size_mb=$2 fstype=$3 nparts=$4
    local type_hex=83
    [ "$fstype" = ntfs ] || [ "$fstype" = exfat ] && type_hex=07
    local total=$((size_mb * 2048)) first=2048
    local each=$(((total - first) / nparts / 2048 * 2048))
    if [ "$each" -lt 2048 ]; then
        _sandbox_err "image of $size_mb MB is too small for $nparts partitions"
        return 1
    fi
    if [ -z "${USBMGR_SANDBOX_NO_SFDISK:-}" ] && command -v sfdisk >/dev/null 2>&1; then
        local script="label: dos"$'\n' i
        for ((i = 0; i < nparts; i++)); do
            script+="start=$((first + i * each)), size=$each, type=$type_hex"$'\n'
        done
        printf '%s' "$script" | sfdisk -q "$path" >/dev/null
        return
    fi
    if [ "$nparts" -gt 4 ]; then
        _sandbox_err "at most 4 partitions without sfdisk"
        return 1
    fi
    le32() {
        printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $((($1 >> 8) & 255)) $((($1 >> 16) & 255)) $((($1 >> 24) & 255))
    }
    local table="" i
    for ((i = 0; i < nparts; i++)); do
        # status, CHS first (LBA only), type, CHS last, LBA start, sector count
        table+="\\x00\\xfe\\xff\\xff\\x$type_hex\\xfe\\xff\\xff$(le32 $((first + i * each)))$(le32 "$each")"
    done
    # Disk signature at 440, the entries at 446, the boot mark at 510.
    printf '\x55\x53\x42\x4d' | dd of="$path" bs=1 seek=440 conv=notrunc status=none
    # shellcheck disable=SC2059
    printf "$table" | dd of="$path" bs=1 seek=446 conv=notrunc status=none
    printf '\x55\xaa' | dd of="$path" bs=1 seek=510 conv=notrunc status=none
}

# make_disk_image PATH SIZE_MB FSTYPE NPARTS
make_disk_image() {
    if [ $# -ne 4 ]; then
        _sandbox_err "usage: make_disk_image PATH SIZE_MB FSTYPE NPARTS"
        return 2
    fi
    local path=$1 size_mb=$2 fstype=$3 nparts=$4
    [[ $size_mb =~ ^[0-9]+$ ]] && [ "$size_mb" -ge 4 ] || {
        _sandbox_err "bad size '$size_mb' (MB, at least 4)"
        return 2
    }
    [[ $nparts =~ ^[0-9]+$ ]] || {
        _sandbox_err "bad partition count '$nparts'"
        return 2
    }
    rm -f "$path"
    truncate -s "${size_mb}M" "$path" || return 1
    if [ "$nparts" -eq 0 ]; then
        _sandbox_mkfs "$fstype" "$path"
        return
    fi
    _sandbox_partition "$path" "$size_mb" "$fstype" "$nparts" || return 1
    local dev rc=0 blk n=0
    dev=$(_sandbox_loop_attach "$path") || return 1
    if _sandbox_wait_parts "$dev" "$nparts"; then
        for blk in $(_sandbox_loop_parts "$dev"); do
            n=$((n + 1))
            local node="$SANDBOX_LIB_STATE/nodes/$blk"
            _sandbox_mknod_for "$blk" "$node" && _sandbox_mkfs "$fstype" "$node" || rc=1
            rm -f "$node"
        done
    else
        rc=1
    fi
    _sandbox_loop_detach "$dev"
    [ "$rc" -eq 0 ] || _sandbox_err "formatting $path failed"
    return "$rc"
}

# attach_disk NAME PATH: the image becomes disk NAME (sdb): /var/dev/NAME for
# the whole disk and /var/dev/NAME1.. for its partitions, as the kernel's
# nodes would be. Prints the loop device.
attach_disk() {
    if [ $# -ne 2 ]; then
        _sandbox_err "usage: attach_disk NAME PATH"
        return 2
    fi
    local name=$1 path=$2
    [[ $name =~ ^[a-zA-Z][a-zA-Z0-9]*$ ]] || {
        _sandbox_err "bad disk name '$name'"
        return 2
    }
    [ -f "$path" ] || {
        _sandbox_err "no image $path"
        return 1
    }
    [ ! -e "$SANDBOX_LIB_STATE/disks/$name" ] || {
        _sandbox_err "disk $name is already attached"
        return 1
    }
    local expected
    expected=$(partx -g -o NR "$path" 2>/dev/null | wc -l) || expected=0
    local dev
    dev=$(_sandbox_loop_attach "$path") || return 1
    echo "$dev" >"$SANDBOX_LIB_STATE/disks/$name"
    if [ "$expected" -gt 0 ] && ! _sandbox_wait_parts "$dev" "$expected"; then
        detach_disk "$name"
        return 1
    fi
    make_disk_nodes "$name" || return 1
    echo "$dev"
}

# make_disk_nodes NAME: (re)makes /var/dev/NAME and /var/dev/NAME1.. of an
# attached disk, as the kernel would for the disk plugged in again (the
# daemon removes them when the disk leaves).
make_disk_nodes() {
    local name=$1 dev
    dev=$(cat "$SANDBOX_LIB_STATE/disks/$name" 2>/dev/null) || {
        _sandbox_err "disk $name is not attached"
        return 1
    }
    mkdir -p /var/dev
    _sandbox_mknod_for "$(basename "$dev")" "/var/dev/$name" || return 1
    local blk
    for blk in $(_sandbox_loop_parts "$dev"); do
        _sandbox_mknod_for "$blk" "/var/dev/$name${blk##*p}" || return 1
    done
}

# alias_disk_nodes SRC NAME NPARTS: nodes of a disk NAME with NPARTS
# partitions made of attached disk SRC's blocks: /var/dev/NAME is SRC's whole
# disk and NAME1..NAMEn all its first partition, so that one loop device
# gives many mountable volumes (the same file system at many folders).
alias_disk_nodes() {
    if [ $# -ne 3 ]; then
        _sandbox_err "usage: alias_disk_nodes SRC NAME NPARTS"
        return 2
    fi
    local src=$1 name=$2 nparts=$3 dev first i
    dev=$(cat "$SANDBOX_LIB_STATE/disks/$src" 2>/dev/null) || {
        _sandbox_err "disk $src is not attached"
        return 1
    }
    first=$(_sandbox_loop_parts "$dev" | head -n 1)
    [ -n "$first" ] || {
        _sandbox_err "disk $src has no partition"
        return 1
    }
    mkdir -p /var/dev
    _sandbox_mknod_for "$(basename "$dev")" "/var/dev/$name" || return 1
    for ((i = 1; i <= nparts; i++)); do
        _sandbox_mknod_for "$first" "/var/dev/$name$i" || return 1
    done
}

# detach_disk NAME: lazily unmounts whatever still uses the disk, removes its
# nodes and detaches the loop device.
detach_disk() {
    if [ $# -ne 1 ]; then
        _sandbox_err "usage: detach_disk NAME"
        return 2
    fi
    local name=$1 dev
    [ -f "$SANDBOX_LIB_STATE/disks/$name" ] || {
        _sandbox_err "disk $name is not attached"
        return 1
    }
    dev=$(cat "$SANDBOX_LIB_STATE/disks/$name")
    local ids=" $(cat "/sys/class/block/$(basename "$dev")/dev" 2>/dev/null) " blk
    for blk in $(_sandbox_loop_parts "$dev"); do
        ids+="$(cat "/sys/class/block/$blk/dev") "
    done
    local source majmin target
    while read -r source majmin target; do
        case "$source" in
            "/var/dev/$name" | "/var/dev/$name"[0-9]* | "$dev" | "$dev"p[0-9]*) ;;
            *) [[ $ids == *" $majmin "* ]] || continue ;;
        esac
        umount -l "$(printf '%b' "$target")" 2>/dev/null || true
    done < <(findmnt -rn -o SOURCE,MAJ:MIN,TARGET)
    rm -f "/var/dev/$name" "/var/dev/$name"[0-9]*
    _sandbox_loop_detach "$dev"
    rm -f "$SANDBOX_LIB_STATE/disks/$name"
}

# ---------------------------------------------------------------------------
# The daemon.

# A daemon that ended may stay a zombie until this shell (the sandbox's init)
# reaps it: only live ones count.
_sandbox_daemon_pids() {
    local pid
    for pid in $(pgrep -x usbmgrd || true); do
        if _sandbox_alive "$pid"; then echo "$pid"; fi
    done
}

# no_daemon: true when no usbmgrd runs (an unreaped zombie does not).
no_daemon() {
    [ -z "$(_sandbox_daemon_pids)" ]
}

# start_daemon [LEVEL]: runs usbmgrd with no controlling terminal; its parent
# returns once the child is on the bus. Waits until commands are served and
# prints the child's pid.
start_daemon() {
    local level=${1:-DEBUG} rc=0
    if [ -n "$(_sandbox_daemon_pids)" ]; then
        _sandbox_err "usbmgrd is already running"
        return 1
    fi
    setsid --wait usbmgrd "$level" </dev/null >>/var/log/usbmgrd.out 2>&1 || rc=$?
    if [ "$rc" -ne 0 ]; then
        _sandbox_err "usbmgrd start failed with status $rc"
        return 1
    fi
    wait_for "bus_has_name USBMGR_DMON" 10 || return 1
    # The command table is installed just after readiness is reported.
    wait_for "usbmgrctl call 14" 10 || return 1
    # The daemon is the oldest usbmgrd once its parent has ended: a newer one
    # may be a child of the daemon's own about to run a command (seen under
    # ThreadSanitizer, where a fork takes long enough to be listed).
    local pid
    pid=$(pgrep -o -x usbmgrd) || {
        _sandbox_err "usbmgrd is not running"
        return 1
    }
    echo "$pid"
}

# _sandbox_alive PID: the process runs (not a zombie). Its status is read
# once: a zombie reaped between two looks would otherwise pass for alive.
_sandbox_alive() {
    local state
    [ -n "$1" ] || return 1
    state=$(_sandbox_state "/proc/$1") || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

# _sandbox_state DIR: the state letter in DIR/status (a process or a task).
_sandbox_state() {
    sed -n 's/^State:[[:space:]]*\([A-Z]\).*/\1/p' "$1/status" 2>/dev/null
}

# leave_sandbox TIMEOUT_S [DISK...]: a script's end, on an error too: the
# monitor of start_monitor and the daemon stopped, the named disks detached
# if still attached (detach_disk unmounts whatever still uses them).
leave_sandbox() {
    local timeout=$1 d
    shift
    [ -z "${monitor_pid:-}" ] || kill "$monitor_pid" 2>/dev/null || true
    stop_daemon "$timeout" >/dev/null 2>&1 || true
    for d in "$@"; do
        [ ! -e "/var/lib/sandbox/disks/$d" ] || detach_disk "$d" >/dev/null 2>&1 || true
    done
}

# stop_daemon [TIMEOUT_S]: SIGTERM to every usbmgrd, then waits (default 30 s).
stop_daemon() {
    local timeout=${1:-30} pid pids
    pids=$(_sandbox_daemon_pids)
    [ -n "$pids" ] || return 0
    for pid in $pids; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in $pids; do
        wait_for "! _sandbox_alive $pid" "$timeout" || {
            _sandbox_stuck_report "$pid"
            return 1
        }
    done
}

# Where a daemon that does not end waits: its threads and its children.
_sandbox_stuck_report() {
    local t c
    echo "# usbmgrd $1 still runs; its threads (state, kernel wait):"
    for t in /proc/"$1"/task/*; do
        echo "#   $(basename "$t") $(_sandbox_state "$t") $(cat "$t/wchan" 2>/dev/null)"
    done
    for c in $(pgrep -P "$1" || true); do
        echo "#   child $c: $(tr '\0' ' ' <"/proc/$c/cmdline" 2>/dev/null | cut -c1-80) state $(_sandbox_state "/proc/$c") $(cat "/proc/$c/wchan" 2>/dev/null)"
    done
    _sandbox_log_tail
}

# ---------------------------------------------------------------------------
# Test checks: `check DESCRIPTION COMMAND...` runs the command and prints
# "ok - DESCRIPTION" or "not ok - DESCRIPTION"; the counts are in $passed and
# $failed.
passed=0
failed=0
check() {
    local what=$1
    shift
    if "$@"; then
        echo "ok - $what"
        passed=$((passed + 1))
    else
        echo "not ok - $what"
        failed=$((failed + 1))
        _sandbox_log_tail
    fi
}

# The end of the daemon's log, as comments: printed at a failed check, since
# the sandbox and its log are gone once the script ends.
_sandbox_log_tail() {
    [ -f "${ORBIIL_LOG_FILE:-}" ] || return 0
    echo "# the last ${USBMGR_LOG_TAIL:-40} lines of $ORBIIL_LOG_FILE:"
    tail -n "${USBMGR_LOG_TAIL:-40}" "$ORBIIL_LOG_FILE" | sed 's/^/#   /'
    echo "# the sandbox's processes:"
    ps -eo pid,ppid,stat,etimes,comm,args 2>/dev/null | cut -c1-120 | sed 's/^/#   /'
}

# Microseconds of the wall clock, for the gaps a test measures.
now_us() { echo "${EPOCHREALTIME/./}"; }

# start_monitor: `usbmgrctl monitor` in the background, each line it prints
# written to $work/mon.out with the time it was read (µs) in front; its pid
# in $monitor_pid. Returns once the monitor has subscribed.
start_monitor() {
    usbmgrctl monitor 2>"$work/mon.err" > >(while IFS= read -r line; do
        echo "$(now_us) $line"
    done >"$work/mon.out") &
    monitor_pid=$!
    wait_for "grep -q monitoring '$work/mon.err'" 5
}
# count_kind K: notifications of change kind K seen so far.
count_kind() { grep -c " kind $1 " "$work/mon.out" || true; }
# kind_time K N: time (µs) of the Nth (1-based) notification of kind K.
kind_time() { grep " kind $1 " "$work/mon.out" | sed -n "$2p" | cut -d' ' -f1; }

# expect DESCRIPTION EXPECTED COMMAND...: a check that the command's output
# is exactly EXPECTED; shows both when it is not.
expect() {
    local what=$1 want=$2
    shift 2
    local got
    got=$("$@" 2>&1)
    if [ "$got" = "$want" ]; then
        check "$what" true
    else
        echo "# want: $want"
        echo "# got:  $got"
        check "$what" false
    fi
}

# ---------------------------------------------------------------------------
# Resource figures of a process, for the soak and footprint benchmarks.

# proc_uss_kib PID: unique set size, the pages no other process shares
# (Private_Clean + Private_Dirty of smaps_rollup), in KiB.
proc_uss_kib() {
    awk '$1 == "Private_Clean:" || $1 == "Private_Dirty:" { kib += $2 } END { print kib + 0 }' \
        "/proc/$1/smaps_rollup"
}
# proc_idle_uss_kib PID: the largest of five USS samples 100 ms apart. While
# the process has forked a child for a command, the pages they still share
# are nobody's own, and one sample can show a third of the figure.
proc_idle_uss_kib() {
    local i uss max=0
    for i in 1 2 3 4 5; do
        uss=$(proc_uss_kib "$1")
        [ "$uss" -le "$max" ] || max=$uss
        [ "$i" -eq 5 ] || sleep 0.1
    done
    echo "$max"
}
proc_rss_kib() { awk '$1 == "VmRSS:" { print $2 }' "/proc/$1/status"; }
proc_fds() { ls "/proc/$1/fd" | wc -l; }
proc_threads() { ls "/proc/$1/task" | wc -l; }

# proc_private_by_mapping PID: the private KiB of each mapping of a process
# (what its pages belong to: the binary, a library, [heap], [stack], or
# "anon" for nameless ones such as thread stacks), largest first, as
# "KIB NAME" lines.
proc_private_by_mapping() {
    awk '
        /^[0-9a-f]+-[0-9a-f]+ / { name = ($6 == "" ? "anon" : $6); next }
        $1 == "Private_Clean:" || $1 == "Private_Dirty:" { kib[name] += $2 }
        END { for (n in kib) if (kib[n] > 0) print kib[n], n }
    ' "/proc/$1/smaps" | sort -rn
}
