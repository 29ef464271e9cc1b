#!/usr/bin/env bash
# Runs the fuzz targets of a TOLVEN_FUZZ build for SECONDS each (default 30), each from a copy of
# its seed corpus so that the tree stays as it is. Stops at the first finding; libFuzzer saves the
# input as crash-*, leak-*, oom-* or timeout-* in the work folder named below.
#   scripts/fuzz.sh BUILD_DIR [SECONDS] [TARGET...]
set -euo pipefail
build=${1:?usage: scripts/fuzz.sh BUILD_DIR [SECONDS] [TARGET...]}
seconds=${2:-30}
shift $(($# < 2 ? $# : 2))
list=$build/fuzzers.txt
[ -f "$list" ] || { echo "fuzz.sh: no $list; configure with -DTOLVEN_FUZZ=ON first" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/tolven-fuzz.XXXXXX")
echo "fuzz work folder: $work"
while read -r name program corpus; do
    if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$name"; then continue; fi
    mkdir -p "$work/$name/corpus"
    cp -r "$corpus"/. "$work/$name/corpus/" 2>/dev/null || true
    echo "---- $name: ${seconds} s"
    # Quiet trace; leaks are findings too.
    TOLVEN_LOG_SYSLOG=none ASAN_OPTIONS=detect_leaks=1 \
        "$program" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
        -print_final_stats=1 -artifact_prefix="$work/$name/" "$work/$name/corpus" \
        >"$work/$name/log" 2>&1 || {
        tail -n 60 "$work/$name/log"
        echo "fuzz.sh: $name found a problem; input and log in $work/$name/" >&2
        exit 1
    }
    grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$work/$name/log" | tr '\n' ' '
    echo
done <"$list"
rm -rf "$work"
