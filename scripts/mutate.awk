# Finds and makes the "remove one mandated call" changes of scripts/mutate.sh.
#
# A function is a top-level definition: a line at column 0 that holds "(",
# up to the line at column 0 that is "}". Its name is the identifier before
# the first "(" (or, for USBMGR_EVT_HANDLER(name), the handler's name).
#
# mode=list   prints one change a line, "FILE|FUNCTION|drop|TEXT|N" for the
#             N-th line of FUNCTION whose code holds TEXT, a mandated call
#             (TEXT taken from the patterns below), and "FILE|FUNCTION|swap|
#             TEXT|N" for a rebuild followed at once by a publish.
# mode=apply  with fname, action, text and nth: prints the file with that one
#             change made (drop: TEXT put under "if (false)", so it still
#             compiles and its arguments still count as used, but never runs;
#             swap: the line swapped with the next code line). The exit
#             status is 3 when the change could not be made.

function trim(s) { sub(/^[ \t]+/, "", s); sub(/[ \t]+$/, "", s); return s }

function func_name(line,    name) {
    if (match(line, /^USBMGR_EVT_HANDLER\([A-Za-z0-9_]+\)/)) {
        name = substr(line, 20, RLENGTH - 20)
        return name
    }
    name = line
    sub(/\(.*/, "", name)
    sub(/.*[^A-Za-z0-9_]/, "", name)
    return name
}

# The mandated call a code line holds, or "".
function mandated(code,    i) {
    for (i = 1; i <= npat; ++i)
        if (match(code, pat[i])) return substr(code, RSTART, RLENGTH)
    return ""
}

function is_publish(code) {
    return code ~ /publish_now\(/ || code ~ /usbmgr_flush_notify\(\)/
}

BEGIN {
    npat = 0
    # The rebuild, the ring (queue, flush, publish), the hand-offs and saves,
    # server stops and reloads, unmounts, table rows, status and result words.
    pat[++npat] = "usbmgr_tr140_db_build\\(\\);"
    pat[++npat] = "dp_util_evt_buf_write\\([^;]*\\);"
    pat[++npat] = "usbmgr_flush_notify\\(\\);"
    pat[++npat] = "publish_now\\([^;]*\\);"
    pat[++npat] = "usbmgr_arm_reload\\([^;]*\\);"
    pat[++npat] = "usbmgr_cfg_save\\(\\);"
    pat[++npat] = "usbmgr_conf_save\\(\\);"
    pat[++npat] = "app_util_stop_minidllna\\(\\);"
    pat[++npat] = "app_util_stop_samba\\(\\);"
    pat[++npat] = "app_util_samba_reload_conf\\(\\);"
    pat[++npat] = "app_util_minidlna_reload_conf\\([^;]*\\);"
    pat[++npat] = "disk_util_umount_storage\\([^;]*\\);"
    pat[++npat] = "remove_all_mount_disk\\(\\);"
    pat[++npat] = "db_util_delete_usb_volume_info_item\\([^;]*\\);"
    pat[++npat] = "db_util_delete_usb_physical_info_item\\([^;]*\\);"
    pat[++npat] = "cmd\\.(status|result) = [^;]*;"
    pat[++npat] = "\\*status = [^;]*;"
    in_func = 0
    pending_func = ""
    changed = 0
}

{
    lines[NR] = $0
    owner[NR] = ""
    line = $0
    if (!in_func) {
        if (line ~ /^[A-Za-z].*\(/ && line !~ /;[ \t]*$/ && line !~ /^namespace/) pending_func = func_name(line)
        if (pending_func != "" && line ~ /\{[ \t]*$/) {
            in_func = 1
            cur = pending_func
            pending_func = ""
            delete seen
            next
        }
        if (line ~ /;[ \t]*$/ || line ~ /^}/) pending_func = ""
        next
    }
    if (line ~ /^}/) {
        in_func = 0
        next
    }
    code = line
    sub(/\/\/.*/, "", code)
    code = trim(code)
    if (code == "") next
    owner[NR] = cur
    codeline[NR] = code
    call = mandated(code)
    if (call != "") {
        seen[call]++
        callof[NR] = call
        nthof[NR] = seen[call]
    }
}

END {
    # The next code line of the same function after line i, or 0.
    for (i = 1; i <= NR; ++i) {
        next_code[i] = 0
        if (owner[i] == "") continue
        for (j = i + 1; j <= NR; ++j) {
            if (owner[j] == owner[i]) { next_code[i] = j; break }
            if (owner[j] == "" && lines[j] ~ /^}/) break
        }
    }
    if (mode == "list") {
        for (i = 1; i <= NR; ++i) {
            if (!(i in callof)) continue
            print FILENAME "|" owner[i] "|drop|" callof[i] "|" nthof[i]
            if (callof[i] ~ /usbmgr_tr140_db_build/ && next_code[i] && is_publish(codeline[next_code[i]]))
                print FILENAME "|" owner[i] "|swap|" callof[i] "|" nthof[i]
        }
        exit 0
    }
    target = 0
    for (i = 1; i <= NR; ++i)
        if ((i in callof) && owner[i] == fname && callof[i] == text && nthof[i] == nth) { target = i; break }
    if (!target) exit 3
    if (action == "drop") {
        p = index(lines[target], text)
        lines[target] = substr(lines[target], 1, p - 1) "if (false) { " text " }" substr(lines[target], p + length(text))
    } else if (action == "swap") {
        j = next_code[target]
        if (!j) exit 3
        t = lines[target]; lines[target] = lines[j]; lines[j] = t
    } else {
        exit 3
    }
    for (i = 1; i <= NR; ++i) print lines[i]
}
