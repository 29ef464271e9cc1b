#!/usr/bin/env bash
# scripts/check-android-bp.sh passes on a copy of the tree and fails, naming the cause, on each
# kind of drift below.
#   tests/android_bp_drift_test.sh SOURCE_DIR
set -euo pipefail
src=$(cd "$1" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

copy_tree() {
    rm -rf "$tmp/tree"
    mkdir -p "$tmp/tree/modem/hal" "$tmp/tree/tools" "$tmp/tree/host"
    cp "$src/CMakeLists.txt" "$src/TEST_MAPPING" "$tmp/tree/"
    cp -r "$src/platform" "$src/fuzz" "$tmp/tree/"
    cp -r "$src/modem/hal/diag" "$tmp/tree/modem/hal/"
    cp -r "$src/tools/tolven-diag" "$tmp/tree/tools/"
    cp -r "$src/host/diag_wire" "$tmp/tree/host/"
}

# Each row: the change, made in the copy, and a part of the message it must cause.
drifts=(
    "rm tools/tolven-diag/main.cpp|tools/tolven-diag/main.cpp does not exist"
    "touch tools/tolven-diag/extra.cpp|extra.cpp is not in the srcs of any module"
    "rm -r platform/include|platform/include is not a folder"
    "sed -i 's/\"tolven_diag_send.cpp\"/\"*.cpp\"/' modem/hal/diag/Android.bp|must name one file"
    "sed -i 's/\"main.cpp\"/\"..\/main.cpp\"/' tools/tolven-diag/Android.bp|must name one file"
    "sed -i 's/^    name: \"tolven-diag\"/  name: \"tolven-diag\"/' tools/tolven-diag/Android.bp|not as bpfmt leaves it"
    "sed -i 's/\"libtolven_diag_defaults\"]/\"libtolven_diag_default\"]/' tools/tolven-diag/Android.bp|no module 'libtolven_diag_default'"
    "sed -i 's/libtolven_diag.map.txt/other.map.txt/' modem/hal/diag/CMakeLists.txt|is not the map"
    "sed -i 's/VERSION 1.0/VERSION 1.1/' CMakeLists.txt|the project's version is 1.1"
    "printf 'srcs = [\"x.cpp\"]\n' >>tools/tolven-diag/Android.bp|not understood"
    "cat platform/Android.bp >>tools/tolven-diag/Android.bp|modules defined twice"
    "sed -i 's/^    vendor: true,/    vendr: true,/' platform/Android.bp|platform/Android.bp:4:10: unrecognized property \"vendr\""
    "sed -i 's/^    shared_libs: \[\"libtolven_diag\"\],/    shared_libs: \"liblog\",/' modem/hal/diag/Android.bp|can't assign string value to list property \"shared_libs\""
    "sed -i 's/^cc_library_headers {/cc_foo {/' platform/Android.bp|platform/Android.bp:2:1: unrecognized module type \"cc_foo\""
    "sed -i 's/device_test/device_tests/' TEST_MAPPING|presubmit: \"libtolven_diag_device_tests\" is not a cc_test module of the tree"
    "rm fuzz/hdlc_fuzzer.cpp|host-only: fuzz/hdlc_fuzzer.cpp does not exist"
    "rm -r fuzz/corpus/hexdump_fuzzer|fuzz/corpus/hexdump_fuzzer is not a folder of seeds"
)

failed=0
copy_tree
"$src/scripts/check-android-bp.sh" "$tmp/tree" >/dev/null 2>"$tmp/err" ||
    { echo "FAIL: the unchanged copy: $(cat "$tmp/err")"; failed=1; }
for row in "${drifts[@]}"; do
    change=${row%%|*}
    expected=${row#*|}
    copy_tree
    (cd "$tmp/tree" && eval "$change")
    if "$src/scripts/check-android-bp.sh" "$tmp/tree" >/dev/null 2>"$tmp/err"; then
        echo "FAIL: not caught: $change"
        failed=1
    elif ! grep -qF -- "$expected" "$tmp/err"; then
        echo "FAIL: $change: expected '$expected', got: $(cat "$tmp/err")"
        failed=1
    fi
done
[ "$failed" -eq 0 ] && echo "every drift of ${#drifts[@]} caught"
exit "$failed"
