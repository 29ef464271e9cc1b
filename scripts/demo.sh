#!/usr/bin/env bash
# Builds the library and the tolven-diag tool, then shows the main job against the simulated
# modem: decoded replies in both transports, a reply in several pieces, a repeated run, the JSON
# form, an error reply and a time-out.
set -euo pipefail
cd "$(dirname "$0")/.."

# Bold only on a terminal that can show it.
bold="" plain=""
if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$(printf '\033[1m') plain=$(printf '\033[0m')
fi

say() { printf '%s==> %s%s\n' "$bold" "$*" "$plain"; }

# Runs a build step quietly; its output is shown when it fails.
quiet() {
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        cat "$log"
        rm -f "$log"
        echo "demo: '$*' failed" >&2
        exit 1
    fi
    rm -f "$log"
}

say "packages the build needs (scripts/install-deps.sh)"
scripts/install-deps.sh
say "configuring and building tolven-diag in build/"
quiet cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
quiet cmake --build build -j2 --target tolven-diag

tool=build/tools/tolven-diag/tolven-diag
step() {
    printf '\n%s$ %s%s\n' "$bold" "$*" "$plain"
    "$@" || printf '(exit status %d)\n' "$?"
}

echo
echo "tolven-diag against the simulated modem (host libdiag)"
step "$tool" 00
step "$tool" --mode callback 7c
# A 10000-byte reply arrives in pieces of 4096, 4096 and 1808 (the library's trace shows them).
step sh -c "$tool --verbose 4b fe 02 00 0c 27 | grep -E 'cmd_code|^reply:|^result:'"
step "$tool" --count 3 --interval 200 1c
step "$tool" --json 60 01
step "$tool" 4b:21:01:00:ff
step env LIBDIAG_SIM_DELAY_MS=1500 "$tool" --timeout 500 1c
step "$tool" --mdm
