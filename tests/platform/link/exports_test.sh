#!/bin/sh
# The library shows the five functions of its interface and nothing else.
set -eu
expected="FreeAppResourceProxy2 FreeLinkPlatform GetLinkPlatform GetLinkSecurity GetNextAppResourceProxy"
found=$("${NM:-nm}" -D --defined-only "$1" | awk '{print $NF}' | sort | tr '\n' ' ' | sed 's/ $//')
if [ "$found" != "$expected" ]; then
    echo "exported: $found"
    echo "expected: $expected"
    exit 1
fi
