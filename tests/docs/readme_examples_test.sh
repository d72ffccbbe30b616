#!/usr/bin/env bash
# The programs that the README shows are the files that are built: text and example must not part.
set -euo pipefail
readme=$1/README.md
for example in examples/device.c examples/client.c examples/echo_client.cpp examples/python/device.py; do
    shown=$(awk -v mark="<!-- $example -->" '
        $0 == mark { marked = 1; next }
        marked && /^```(c|cpp|python)$/ { inside = 1; next }
        inside && /^```$/ { exit }
        inside { print }' "$readme")
    if ! diff <(printf '%s\n' "$shown") "$1/$example"; then
        echo "README.md shows another $example than the file: copy the file's text into the README" >&2
        exit 1
    fi
done
