# shellcheck shell=bash
# Sourced first by every script: goes to the root of the tree, and has what they share. The comment
# that a script opens with is its --help.

SCRIPT=$(readlink -f -- "$0")
cd -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")/../.." || exit
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi

say() { printf '%s\n' "$*"; }

die() {
    printf '%s: %s\n' "${SCRIPT##*/}" "$*" >&2
    exit 1
}

usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$SCRIPT"; }

# For an argument that the script does not know: -h and --help end it with the usage, others with an
# error.
other_argument() {
    case $1 in
        -h | --help)
            usage
            exit 0
            ;;
    esac
    printf '%s: unknown argument: %s\n\n' "${SCRIPT##*/}" "$1" >&2
    usage >&2
    exit 2
}

# need PROGRAM... : ends the script when one is missing.
need() {
    local program
    for program in "$@"; do
        PATH=$PATH:/usr/sbin command -v "$program" >/dev/null ||
            die "$program is missing: run scripts/install-deps"
    done
}

# logged FILE COMMAND... : runs a step with its output in FILE, which is shown when the step fails.
logged() {
    local log=$1
    shift
    mkdir -p -- "${log%/*}"
    if ! "$@" >"$log" 2>&1 </dev/null; then
        cat -- "$log" >&2
        printf 'FAILED: %s\n' "$*" >&2
        return 1
    fi
}

# build PRESET DIR [TARGET]... : configures and builds in DIR; the logs are in DIR/log.
build() {
    local preset=$1 dir=$2
    shift 2
    say "== building in $dir"
    logged "$dir/log/configure.txt" cmake --preset "$preset" -B "$dir" &&
        logged "$dir/log/build.txt" cmake --build "$dir" --parallel "$(nproc)" --target "${@:-all}"
}
