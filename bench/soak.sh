#!/bin/bash
# Soak run: the real daemon in the sandbox, Samba and MiniDLNA enabled as in
# the factory settings, a loop-image disk (ext4, two partitions, always the
# same serial) plugged and unplugged CYCLES times. Each cycle waits for the
# kind-0 notification after the plug and the kind-1 after the unplug (both
# come after the servers' reload), reads the model over the bus
# (usbmgrctl tree, service 0, disk 0 0, volume 0 0) while the disk is in, and
# every tenth cycle changes a setting (the Samba workgroup and the MiniDLNA
# friendly name in turns, each between two values) and waits for its reload.
#
#   bench/soak.sh [BUILD_DIR] [CYCLES]      (defaults: build, 1000)
#
# SOAK_RELOAD_EVERY=N: only every Nth cycle waits for the notifications and
# so for the servers' reload; the others wait for the mounts to come and go,
# so that events also arrive while a reload is pending or running (default
# 1: every cycle waits; a cycle then takes 9 s at the least).
#
# At cycle 10, CYCLES/2 and CYCLES it prints a row of the daemon's figures
# after the unplug: USS (Private_Clean + Private_Dirty of smaps_rollup), RSS,
# descriptors, threads, smbd/nmbd/minidlnad processes, history file lines,
# and what is left mounted under the mount root and in /var/dev. Every cycle
# prints its elapsed time. Exits non-zero when a goal is missed:
#   - USS at the last row at most USS_TOLERANCE_KIB (64) above the first
#   - descriptors and threads the same in every row
#   - nothing left mounted and no /var/dev node after any unplug
#   - the servers' process counts the same in every row
#   - the history file the one record of the disk (6 lines), unchanged
# Needs root; holds /tmp/usbmgr-sandbox.lock for the whole run.
set -euo pipefail

script_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$script_dir/.." && pwd)

# ---------------------------------------------------------------------------
# Inside the sandbox.
if [ "${1:-}" = --inner ]; then
    cycles=$2
    . "$source_dir/scripts/sandbox-lib.sh" || exit 1

    work=$(mktemp -d /tmp/soak.XXXXXX)
    settings=/var/config/usbmgr.conf
    history=/var/config/tr140.conf
    mount_root=$(sed -n 's/^USBMGR\.MOUNT_DISK_PATH=//p' "$settings" | head -n 1)
    mount_root=${mount_root:-/tmp/disk}
    serial=SOAK-0001
    uss_tolerance_kib=${USS_TOLERANCE_KIB:-64}
    monitor_pid=""
    reload_every=${SOAK_RELOAD_EVERY:-1}

    cleanup() { leave_sandbox 30 sda; }
    trap cleanup EXIT
    fail() {
        echo "soak: FAILED: $*" >&2
        echo "soak: the daemon's log, last 30 lines:" >&2
        tail -n 30 "$ORBIIL_LOG_FILE" >&2 || true
        exit 1
    }

    setting() { sed -n "s/^$1=//p" "$settings"; }
    # Log lines since byte OFFSET that hold TEXT: the DEBUG log grows by tens
    # of megabytes over a long run, so only its tail is searched.
    log_size() { stat -c %s "$ORBIIL_LOG_FILE" 2>/dev/null || echo 0; }
    log_count_since() { tail -c +"$(($1 + 1))" "$ORBIIL_LOG_FILE" | grep -cF -- "$2" || true; }
    left_mounted() { awk -v root="$mount_root/" 'index($2, root) == 1 { print $2 }' /proc/mounts | tr '\n' ' '; }
    left_nodes() { ls -A /var/dev | tr '\n' ' '; }
    mounted() { awk -v m="$1" '$2 == m { found = 1 } END { exit !found }' /proc/mounts; }
    servers() { echo "$(pgrep -c -x smbd || true) $(pgrep -c -x nmbd || true) $(pgrep -c -x minidlnad || true)"; }
    bus_ok() { usbmgrctl "$@" 2>&1 | grep -qx 'code: 0 OK'; }
    ms_since() { echo $((($(now_us) - $1) / 1000)); }
    # Waits until no reload has started for 3 s (the deferral is 900 ms).
    settle() {
        local off
        while :; do
            off=$(log_size)
            sleep 3
            [ "$(log_count_since "$off" "run command : /sbin/minidlnad")" -ne 0 ] || return 0
        done
    }

    # Rows at cycle 10, CYCLES/2 and CYCLES (fewer for short runs).
    first_row=$((cycles < 10 ? cycles : 10))
    rows=" $first_row "
    half=$((cycles / 2))
    [ "$half" -le "$first_row" ] || rows+="$half "
    [ "$cycles" -eq "$first_row" ] || rows+="$cycles "

    echo "== soak: $cycles cycles, rows at cycles${rows% }, every ${reload_every}. waits for the reload; $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg)"
    make_disk_image "$work/disk.img" 32 ext4 2
    attach_disk sda "$work/disk.img" >/dev/null

    daemon=$(start_daemon "${SOAK_LOG_LEVEL:-debug}") || fail "usbmgrd did not start"
    wait_for "pgrep -x smbd && pgrep -x nmbd && pgrep -x minidlnad" 20 || fail "the servers did not start"
    # The start-up's own reload is over before the first plug.
    wait_for '[ "$(log_count_since 0 "run command : /sbin/minidlnad")" -ge 1 ]' 20 || fail "MiniDLNA was not started"
    sleep 1
    start_monitor || fail "the monitor did not subscribe"
    echo "usbmgrd runs as pid $daemon, log level ${SOAK_LOG_LEVEL:-debug}; mount root $mount_root"

    header="| cycle | USS KiB | RSS KiB | fds | threads | smbd nmbd minidlnad | history lines | left mounted | left in /var/dev | run time s |"
    table=()
    row_uss=() row_fds=() row_threads=() row_servers=() row_history=()
    leftover_cycles=0
    first_leftover=""
    max_ms=0
    total_ms=0
    t_start=$(now_us)
    workgroups=(SOAKNET WORKGROUP)
    names=(soak_dlna "$(setting USBMGR.MINIDLNA.FRIENDLY_NAME)")

    for ((c = 1; c <= cycles; c++)); do
        t0=$(now_us)
        [ "$c" -eq 1 ] || make_disk_nodes sda || fail "cycle $c: no nodes for sda"

        # A cycle that waits for the reload starts once the reloads of the
        # quick cycles before it are over, so that the ring of change kinds
        # holds only its own events.
        waits=$((c % reload_every == 0))
        [[ $rows != *" $c "* ]] || waits=1
        [ "$waits" -eq 0 ] || [ "$reload_every" -eq 1 ] || settle
        k0=$(count_kind 0)
        usbmgrctl plug --port 1-1 --device sda,sda1,sda2 --serial "$serial" --vendor ACME --product Soak >/dev/null
        if [ "$waits" -eq 1 ]; then
            wait_for "[ \$(count_kind 0) -gt $k0 ]" 30 || fail "cycle $c: no kind-0 notification after the plug"
        else
            wait_for "mounted $mount_root/sda1 && mounted $mount_root/sda2" 30 || fail "cycle $c: sda1 or sda2 not mounted"
        fi
        plug_ms=$(ms_since "$t0")
        mounted "$mount_root/sda1" && mounted "$mount_root/sda2" || fail "cycle $c: sda1 or sda2 not mounted"

        t1=$(now_us)
        usbmgrctl tree >"$work/tree.out" 2>&1 || fail "cycle $c: usbmgrctl tree failed"
        grep -qF "$serial" "$work/tree.out" || fail "cycle $c: the tree does not show the disk"
        bus_ok service 0 && bus_ok disk 0 0 && bus_ok volume 0 0 || fail "cycle $c: a read command failed"
        read_ms=$(ms_since "$t1")

        t2=$(now_us)
        k1=$(count_kind 1)
        usbmgrctl unplug --port 1-1 --device sda,sda1,sda2 --serial "$serial" >/dev/null
        if [ "$waits" -eq 1 ]; then
            wait_for "[ \$(count_kind 1) -gt $k1 ]" 30 || fail "cycle $c: no kind-1 notification after the unplug"
        else
            wait_for '[ -z "$(left_mounted)$(left_nodes)" ]' 30 || true
        fi
        unplug_ms=$(ms_since "$t2")

        mounts=$(left_mounted)
        nodes=$(left_nodes)
        if [ -n "$mounts$nodes" ]; then
            leftover_cycles=$((leftover_cycles + 1))
            [ -n "$first_leftover" ] || first_leftover="cycle $c: mounted '${mounts% }', /var/dev '${nodes% }'"
        fi
        [ "$c" -ne 1 ] || cp "$history" "$work/history.first"

        set_ms=0
        if [ $((c % 10)) -eq 0 ]; then
            t3=$(now_us)
            turn=$((c / 20 % 2))
            if [ $((c % 20)) -eq 10 ]; then
                # Command 6: Samba is reloaded, then kind 2 is notified.
                k2=$(count_kind 2)
                bus_ok samba-set workgroup "${workgroups[$turn]}" || fail "cycle $c: samba-set failed"
                wait_for "[ \$(count_kind 2) -gt $k2 ]" 30 || fail "cycle $c: no kind-2 notification after samba-set"
            else
                # Command 5: MiniDLNA is reloaded, no notification.
                off=$(log_size)
                bus_ok minidlna-set friendly_name "${names[$turn]}" || fail "cycle $c: minidlna-set failed"
                wait_for '[ "$(log_count_since '"$off"' "run command : /sbin/minidlnad")" -ge 1 ]' 30 ||
                    fail "cycle $c: MiniDLNA was not reloaded after minidlna-set"
            fi
            set_ms=$(ms_since "$t3")
        fi

        cycle_ms=$(ms_since "$t0")
        total_ms=$((total_ms + cycle_ms))
        [ "$cycle_ms" -le "$max_ms" ] || max_ms=$cycle_ms
        echo "cycle $c: $cycle_ms ms (plug $plug_ms, reads $read_ms, unplug $unplug_ms, setting $set_ms)"

        if [[ $rows == *" $c "* ]]; then
            _sandbox_alive "$daemon" || fail "cycle $c: usbmgrd (pid $daemon) is gone"
            # Let a server that the last reload started finish daemonizing.
            sleep 2
            uss=$(proc_idle_uss_kib "$daemon")
            rss=$(proc_rss_kib "$daemon")
            fds=$(proc_fds "$daemon")
            threads=$(proc_threads "$daemon")
            procs=$(servers)
            lines=$(wc -l <"$history")
            run_s=$((($(now_us) - t_start) / 1000000))
            line="| $c | $uss | $rss | $fds | $threads | $procs | $lines | ${mounts:-none} | ${nodes:-none} | $run_s |"
            table+=("$line")
            echo "$header"
            echo "$line"
            ls -l "/proc/$daemon/fd" | awk 'NR > 1 { print $9, $10, $11 }' >"$work/fds.$c"
            row_uss+=("$uss") row_fds+=("$fds") row_threads+=("$threads") row_servers+=("$procs") row_history+=("$lines")
        fi
    done

    echo
    echo "== soak: $cycles cycles in $((total_ms / 1000)) s, $((total_ms / cycles)) ms a cycle on average, the longest $max_ms ms; load $(cut -d' ' -f1-3 /proc/loadavg)"
    echo "$header"
    echo "|---|---|---|---|---|---|---|---|---|---|"
    printf '%s\n' "${table[@]}"
    echo

    bad=0
    goal() {
        if "${@:2}"; then echo "ok - $1"; else echo "not ok - $1"; bad=1; fi
    }
    last=$((${#row_uss[@]} - 1))
    growth=$((row_uss[last] - row_uss[0]))
    goal "USS grew $growth KiB from the first row to the last (at most $uss_tolerance_kib)" [ "$growth" -le "$uss_tolerance_kib" ]
    same() { local v; for v in "${@:2}"; do [ "$v" = "$1" ] || return 1; done; }
    goal "descriptors the same in every row (${row_fds[*]})" same "${row_fds[@]}"
    same "${row_fds[@]}" || {
        echo "# the daemon's descriptors at cycle $first_row and at cycle $c:"
        diff "$work/fds.$first_row" "$work/fds.$((c - 1))" | sed 's/^/#   /' || true
    }
    goal "threads the same in every row (${row_threads[*]})" same "${row_threads[@]}"
    goal "smbd nmbd minidlnad counts the same in every row" same "${row_servers[@]}"
    goal "nothing left mounted or in /var/dev after any unplug (${first_leftover:-none})" [ "$leftover_cycles" -eq 0 ]
    goal "the history file keeps the disk's one record: 6 lines in every row (${row_history[*]})" same 6 "${row_history[@]}"
    goal "the history file is the same as after the first cycle" cmp -s "$work/history.first" "$history"

    kill "$monitor_pid" 2>/dev/null || true
    monitor_pid=""
    stop_daemon 30 || fail "usbmgrd did not stop"
    goal "SIGTERM: nothing stays mounted" [ -z "$(left_mounted)" ]
    detach_disk sda
    trap - EXIT
    rm -rf "$work"
    [ "$bad" -eq 0 ] && echo "== soak: every goal met" || echo "== soak: a goal was missed"
    exit "$bad"
fi

# ---------------------------------------------------------------------------
# On the host.
usage() {
    echo "usage: $0 [BUILD_DIR] [CYCLES]" >&2
    exit 2
}
[ $# -le 2 ] || usage
build_dir=${1:-$source_dir/build}
cycles=${2:-1000}
[[ $cycles =~ ^[1-9][0-9]*$ ]] || usage
[ -x "$build_dir/usbmgrd" ] || find "$build_dir" -name usbmgrd -type f -perm -u+x 2>/dev/null | grep -q . || {
    echo "soak.sh: no usbmgrd built in $build_dir" >&2
    exit 2
}
if [ "$(id -u)" -ne 0 ]; then
    echo "soak.sh: must run as root (loop disks and a namespace sandbox)" >&2
    exit 2
fi
# -o: the lock stays with flock itself, not with the daemon and servers.
exec flock -o /tmp/usbmgr-sandbox.lock \
    "$source_dir/scripts/sandbox.sh" --build "$build_dir" -- bash "$script_dir/soak.sh" --inner "$cycles"
