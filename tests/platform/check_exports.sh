#!/bin/sh
# check_exports.sh LIBRARY NAME...: succeeds when the library offers these functions to others and nothing else.
set -eu
library=$1
shift
expected=$(printf '%s\n' "$@" | LC_ALL=C sort)
# The sanitizers' own entry points come with their builds and say nothing about ours.
actual=$("${NM:-nm}" -D --defined-only --format=posix "$library" | cut -d ' ' -f 1 |
    grep -Ev '^(__asan_|__tsan_|__ubsan_|__odr_asan)' | LC_ALL=C sort)
if [ "$actual" != "$expected" ]; then
    printf 'expected:\n%s\nexported by %s:\n%s\n' "$expected" "$library" "$actual" >&2
    exit 1
fi
