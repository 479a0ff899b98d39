#!/usr/bin/env bash
# The host pdbedit adapter with Debian's pdbedit, useradd and the account
# list replaced by stand-ins that record what they are given: the gateway's
# add and delete forms reach Debian's pdbedit on the gateway's password file,
# the password goes on stdin, and the Unix account Samba needs is made only
# when no account has the name (an all-digit name is a name, never a UID).
#
#   test_pdbedit_adapter.sh SOURCE_DIR
set -euo pipefail
adapter=$1/platform/host/samba/pdbedit
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
failures=0
check() {
    local what=$1
    shift
    if "$@"; then echo "ok - $what"; else echo "not ok - $what"; failures=$((failures + 1)); fi
}

cat >"$work/bin/getent" <<'STUB'
#!/bin/sh
[ "$1" = passwd ] || exit 2
if [ $# -eq 1 ]; then
    printf 'root:x:0:0::/root:/bin/sh\nnobody:x:65534:65534::/:/bin/false\nalice:x:1000:1000::/:/bin/false\n'
else
    # A lookup by key: the real getent takes an all-digit key for a UID.
    case $2 in root | 0) echo 'root:x:0:0::/root:/bin/sh' ;; nobody | 65534) echo 'nobody:x:65534:65534::/:/bin/false' ;;
        alice | 1000) echo 'alice:x:1000:1000::/:/bin/false' ;; *) exit 2 ;; esac
fi
STUB
cat >"$work/bin/id" <<'STUB'
#!/bin/sh
# As the real id: an all-digit operand that names no user is taken for a UID.
for a; do last=$a; done
case $last in root | 0) echo 0 ;; nobody | 65534) echo 65534 ;; alice | 1000) echo 1000 ;; *) exit 1 ;; esac
STUB
cat >"$work/bin/useradd" <<STUB
#!/bin/sh
echo "useradd \$*" >>"$work/calls"
STUB
cat >"$work/pdbedit" <<STUB
#!/bin/sh
echo "pdbedit \$* stdin=\$(tr '\n' ,)" >>"$work/calls"
STUB
chmod +x "$work"/bin/* "$work/pdbedit"
run() {
    : >"$work/calls"
    PATH="$work/bin:$PATH" USBMGR_DEBIAN_PDBEDIT="$work/pdbedit" bash "$adapter" "$@"
}

run -a -u alice -T 'pw 1' -A
check "an existing account: no useradd, the password twice on stdin" \
    [ "$(cat "$work/calls")" = "pdbedit -b smbpasswd:/var/samba/smbpasswd -a -u alice -t stdin=pw 1,pw 1," ]

run -a -u carol -T secret -A
check "a new name gets its Unix account first" \
    [ "$(cat "$work/calls")" = "useradd -M -- carol
pdbedit -b smbpasswd:/var/samba/smbpasswd -a -u carol -t stdin=secret,secret," ]

run -a -u 65534 -T secret -A
check "an all-digit name that is some account's UID still gets its own account" \
    [ "$(head -n 1 "$work/calls")" = "useradd -M -- 65534" ]

run -x -u carol -A
check "the delete form goes to Debian's pdbedit on the gateway's file" \
    [ "$(cat "$work/calls")" = "pdbedit -b smbpasswd:/var/samba/smbpasswd -x -u carol stdin=" ]

run -L
check "any other form passes through on the gateway's file" \
    [ "$(cat "$work/calls")" = "pdbedit -b smbpasswd:/var/samba/smbpasswd -L stdin=" ]

[ "$failures" -eq 0 ]
