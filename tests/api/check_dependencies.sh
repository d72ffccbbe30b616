#!/bin/sh
# check_dependencies.sh LIBRARY PLATFORM LOG SECUREC: succeeds when the library finds the three at run time by
# names that any vendor's files can have, and takes from them what it is meant to take and nothing else.
set -eu
LC_ALL=C
export LC_ALL
library=$1
shift

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

defined() { "${NM:-nm}" -D --defined-only --format=posix "$@" | awk 'NF > 1 { sub("@.*", "", $1); print $1 }'; }
undefined() { "${NM:-nm}" -D --undefined-only --format=posix "$1" | awk 'NF > 1 { sub("@.*", "", $1); print $1 }'; }
dynamic() { readelf -d "$2" | sed -n "s/.*($1).*\[\(.*\)\]\$/\1/p"; }

needed=$(dynamic NEEDED "$library")
for name in liblumora.so liblink_log.so libsecurec.so; do
    printf '%s\n' "$needed" | grep -Fqx "$name" || fail "$name is not needed by $library:" "$needed"
done
printf '%s\n' "$needed" | grep -Eq '^libcjson\.so(\.|$)' || fail "cJSON is not needed by $library:" "$needed"
# Whatever our own versions of the three are made of is their affair.
others=$(printf '%s\n' "$needed" | grep -Ev \
    '^(liblumora|liblink_log|libsecurec)\.so$|^libcjson\.so|^(libstdc\+\+|libm|libgcc_s|libc|libpthread)\.so|^ld-linux|^ld64|^lib(a|t|ub)san\.so' || true)
[ -z "$others" ] || fail "unexpected libraries are needed by $library:" "$others"

for dependency in "$@"; do
    soname=$(dynamic SONAME "$dependency")
    case $soname in
        liblumora.so | liblink_log.so | libsecurec.so) ;;
        *) fail "$dependency has the soname $soname" ;;
    esac
done

expected='FreeAppResourceProxy2
FreeLinkPlatform
GetLinkPlatform
GetLinkSecurity
GetNextAppResourceProxy
LogInfo
memcpy_s
memset_s
strncpy_s'
# Of all that the three offer (a sanitizer's own entry points begin with underscores).
offered=$(for dependency in "$@"; do defined "$dependency"; done | grep -v '^__' | sort -u)
taken=$(undefined "$library" | sort -u | grep -Fx "$offered" || true)
[ "$taken" = "$expected" ] || fail "expected:" "$expected" "taken by $library:" "$taken"
