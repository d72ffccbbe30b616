# shellcheck shell=bash
# Functions of all scripts. Sourced, never run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# A heading, with the time since the script began.
say() { printf '\n== %s (%d:%02d)\n' "$*" $((SECONDS / 60)) $((SECONDS % 60)); }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# The comment at the head of a script is its help.
print_help() { sed -n '2,/^[^#]/ { s/^# \{0,1\}//p }' "$0"; }

# need TOOL...: ends with a hint when one is missing.
need() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null || die "$tool is missing; scripts/setup installs it"
    done
}

# configure PRESET|FOLDER [OPTION...]: a preset by its name, or a build of its own in a folder.
configure() {
    local target=$1
    shift
    if command -v ccache >/dev/null; then
        set -- -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
    fi
    case $target in
        */*) (cd "$root" && cmake -S . -B "$target" -G Ninja "$@") ;;
        *) (cd "$root" && cmake --preset "$target" "$@") ;;
    esac
}

# configure_logged PRESET|FOLDER [OPTION...]: what the output goes to a file, which is named on failure.
configure_logged() {
    local log=$root/build/${1##*/}-configure.log
    mkdir -p "$root/build"
    configure "$@" >"$log" || die "see $log"
}

# Sanitizers need a fixed part of the address space. Address randomization is turned off if that is permitted.
run_ctest() {
    local without_randomization=()
    if setarch --addr-no-randomize true 2>/dev/null; then
        without_randomization=(setarch --addr-no-randomize)
    fi
    (cd "$root" && "${without_randomization[@]}" ctest "$@")
}

# our_files NAME_PATTERN...: the project's own files, built or fetched ones left out.
our_files() {
    local names=() pattern
    for pattern in "$@"; do
        names+=(-o -name "$pattern")
    done
    find "$root" \( -path "$root/build" -o -path "$root/out" -o -path "$root/.git" \) -prune -o \
        -type f \( "${names[@]:1}" \) -print | sort
}
