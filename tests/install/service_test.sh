#!/bin/sh
# service_test.sh SYSTEMD_ANALYZE UNIT INSTALLED BUILT: succeeds when the unit starts the program at the place where it is
# installed, starts it again whenever it ends, and has no line that systemd does not understand.
set -eu
unit=$(mktemp -d)/$(basename "$2")
trap 'rm -rf "$(dirname "$unit")"' EXIT
grep -qx "ExecStart=$3" "$2" || { echo "$2 does not start $3" >&2; exit 1; }
grep -qx 'Restart=always' "$2" || { echo "$2 does not start the program again" >&2; exit 1; }
# systemd looks whether the program is there: before the installation, it is where it was built.
sed "s|^ExecStart=.*|ExecStart=$4|" "$2" >"$unit"
faults=$("$1" verify --man=no "$unit" 2>&1 | grep -F "$(basename "$2")" || true)
[ -z "$faults" ] || { printf '%s\n' "$faults" >&2; exit 1; }
