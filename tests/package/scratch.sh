# shellcheck shell=bash
# What the tests of this folder share: WORK, a folder of their own with consumer/, where they run; and
# the SOURCE tree.
SOURCE=$(readlink -f -- "$(dirname -- "${BASH_SOURCE[0]}")/../..")
WORK=$(mktemp -d)
trap 'rm -rf -- "$WORK"' EXIT
cp -r -- "$SOURCE/tests/package/consumer" "$SOURCE/tests/package/other_log" "$WORK"
cd -- "$WORK" || exit
export CCACHE_NOHASHDIR=1 CCACHE_BASEDIR=$WORK
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# quietly COMMAND... : shows the output of a command that fails.
quietly() { "$@" >quietly.txt 2>&1 || { cat quietly.txt >&2; fail "failed: $*"; }; }
