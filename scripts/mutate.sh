#!/bin/bash
# Removes one mandated call at a time from the daemon's command handlers,
# hot-plug intake, deferred reload, folder watcher, start-up and shutdown
# (a model rebuild, an event queued or published, a ring flush, a
# configuration hand-off or settings save, a server stop or reload, an
# unmount, a table row deleted, a status or result word written), or swaps
# a rebuild with the publish right after it, on a copy of the sources;
# builds the daemon's unit tests and runs them for each change, and prints
# the changes no test noticed. The changes are listed in
# scripts/mutations.txt; "--list" prints what the sources hold now, so a new
# handler's calls can be added to it.
#
# usage: scripts/mutate.sh [--work DIR] [--list] [--check] [FILTER]
#   --work DIR  the copy and its build (default: /var/tmp/usbmgr-mutate);
#               kept between runs, so a second run rebuilds only what changed
#   --list      print the changes the sources hold now and stop
#   --check     compare the list with the sources and stop (status 1 when
#               they differ)
#   FILTER      only the changes whose line holds this text
# Exit status: 0 when every change was noticed, 1 when some went unnoticed
# (or the list is stale), 2 on a broken set-up.
set -euo pipefail

src="$(cd "$(dirname "$0")/.." && pwd)"
work=/var/tmp/usbmgr-mutate
mode=run
filter=""
while [ $# -gt 0 ]; do
    case "$1" in
        --work) work="$2"; shift 2 ;;
        --list) mode=list; shift ;;
        --check) mode=check; shift ;;
        -h|--help) sed -n '2,21p' "$0"; exit 0 ;;
        *) filter="$1"; shift ;;
    esac
done

awk_prog="$src/scripts/mutate.awk"
list_file="$src/scripts/mutations.txt"
files=(
    usbmgrd/usbmgr_cmd_sharing.cpp
    usbmgrd/usbmgr_cmd_model_write.cpp
    usbmgrd/usbmgr_cmd_safe_remove.cpp
    usbmgrd/usbmgr_intake.cpp
    usbmgrd/usbmgr_deferred.cpp
    usbmgrd/usbmgr_watcher.cpp
    usbmgrd/usbmgr_daemon.cpp
)

current_list() {
    local f
    for f in "${files[@]}"; do (cd "$1" && awk -v mode=list -f "$awk_prog" "$f"); done
}

listed() { grep -v '^#' "$list_file" | grep -v '^[[:space:]]*$' || true; }

if [ "$mode" = list ]; then
    current_list "$src"
    exit 0
fi
if [ "$mode" = check ]; then
    if diff <(listed) <(current_list "$src"); then echo "mutations.txt matches the sources"; exit 0; fi
    echo "mutations.txt differs from the sources (< listed only, > in the sources only)"
    exit 1
fi

if ! diff -q <(listed) <(current_list "$src") >/dev/null; then
    echo "note: mutations.txt differs from the sources (scripts/mutate.sh --check shows how)" >&2
fi

# The copy: every file git knows of (committed or not), as the tree has it
# now. It is made afresh, with the files' own times, so the build of a
# second run redoes only what changed.
rm -rf "$work/src"
mkdir -p "$work/src"
(cd "$src" && git ls-files -z --cached --others --exclude-standard | tar --null --ignore-failed-read -T - -cf - 2>/dev/null) |
    (cd "$work/src" && tar -xf -)
mkdir -p "$work/pristine"

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    export CCACHE_BASEDIR="$work"
fi
if [ ! -f "$work/build/build.ninja" ]; then
    cmake -S "$work/src" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUSBMGR_BENCH=OFF \
        "${launcher[@]}" >"$work/configure.log" 2>&1 || { echo "configure failed: $work/configure.log"; exit 2; }
fi

build() { cmake --build "$work/build" --target unit_usbmgrd -j2 >"$work/build.log" 2>&1; }
run_tests() {
    # Every test in one process, stopping at the first failure; a change that
    # makes a test hang is noticed too.
    (cd "$work/build" && timeout 600 tests/unit_usbmgrd --gtest_brief=1 --gtest_fail_fast >"$work/test.log" 2>&1)
}

echo "building the unmodified copy ..."
build || { echo "the unmodified copy does not build: $work/build.log"; exit 2; }
run_tests || { echo "the unit tests fail on the unmodified copy: $work/test.log"; exit 2; }

total=0
noticed=0
unbuilt=0
stale=0
unnoticed=()
while IFS='|' read -r file func action text nth; do
    case "$file" in ''|'#'*) continue ;; esac
    line="$file|$func|$action|$text|$nth"
    if [ -n "$filter" ] && [[ "$line" != *"$filter"* ]]; then continue; fi
    total=$((total + 1))
    cp "$work/src/$file" "$work/pristine/current"
    if ! awk -v mode=apply -v fname="$func" -v action="$action" -v text="$text" -v nth="$nth" \
        -f "$awk_prog" "$work/pristine/current" >"$work/src/$file.mutant"; then
        rm -f "$work/src/$file.mutant"
        echo "STALE      $line (not in the sources)"
        stale=$((stale + 1))
        continue
    fi
    mv "$work/src/$file.mutant" "$work/src/$file"
    if ! build; then
        echo "NO BUILD   $line"
        unbuilt=$((unbuilt + 1))
    elif run_tests; then
        echo "UNNOTICED  $line"
        unnoticed+=("$line")
    else
        echo "noticed    $line ($(grep -m1 -o '\[  FAILED  \] [^ ]*' "$work/test.log" | sed 's/.*\] //' || echo timeout))"
        noticed=$((noticed + 1))
    fi
    cp "$work/pristine/current" "$work/src/$file"
done < "$list_file"
build || true

echo
echo "$total changes: $noticed noticed, ${#unnoticed[@]} unnoticed, $unbuilt did not build, $stale not in the sources"
for u in "${unnoticed[@]}"; do echo "  unnoticed: $u"; done
[ ${#unnoticed[@]} -eq 0 ] && [ "$stale" -eq 0 ] || exit 1
