#!/usr/bin/env bash
# Runs every test: installs what is missing, builds with warnings as errors and runs each stage.
#   scripts/test.sh              every stage, in the order below
#   scripts/test.sh --host ...   only the stages named
# Stages (each in its own build folder):
#   --host      the whole suite, built as shipped (build/)
#   --address   the whole suite under ASan + UBSan (build-address/)
#   --thread    the whole suite under TSan (build-thread/)
#   --aarch64   the whole suite cross-built for AArch64, run under qemu-user (build-aarch64/)
#   --fuzz      every fuzz target for TOLVEN_FUZZ_SECONDS (default 30) each (build-fuzz/)
# Tests run in parallel under ctest: many wait on the library's fixed sleeps.
set -euo pipefail
cd "$(dirname "$0")/.."

all_stages=(host address thread aarch64 fuzz)
stages=()
for arg in "$@"; do
    case $arg in
        --host | --address | --thread | --aarch64 | --fuzz) stages+=("${arg#--}") ;;
        -h | --help)
            sed -n '2,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//'
            exit 0 ;;
        *)
            echo "test.sh: unknown argument '$arg' (see --help)" >&2
            exit 2 ;;
    esac
done
[ ${#stages[@]} -eq 0 ] && stages=("${all_stages[@]}")

jobs=${TOLVEN_TEST_JOBS:-8}

# configure_and_test DIR TIME_SCALE [CMAKE_ARGS...]
configure_and_test() {
    local dir=$1 scale=$2
    shift 2
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTOLVEN_TEST_TIME_SCALE="$scale" "$@"
    local start=$SECONDS
    cmake --build "$dir" -j2
    echo "$dir: built in $((SECONDS - start)) s"
    start=$SECONDS
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure
    echo "$dir: tests passed in $((SECONDS - start)) s"
}

stage_host() { configure_and_test build 1 -DTOLVEN_SANITIZE=; }
stage_address() {
    configure_and_test build-address 4 -DTOLVEN_SANITIZE=address -DTOLVEN_BUILD_BENCHMARKS=OFF
}
stage_thread() {
    configure_and_test build-thread 4 -DTOLVEN_SANITIZE=thread -DTOLVEN_BUILD_BENCHMARKS=OFF
}
stage_aarch64() {
    local start=$SECONDS
    scripts/install-deps.sh aarch64
    echo "aarch64: installed in $((SECONDS - start)) s"
    configure_and_test build-aarch64 4 -DTOLVEN_SANITIZE= \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake"
}
stage_fuzz() {
    scripts/install-deps.sh fuzz
    CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTOLVEN_FUZZ=ON -DTOLVEN_BUILD_TESTS=OFF -DTOLVEN_BUILD_BENCHMARKS=OFF
    cmake --build build-fuzz -j2
    scripts/fuzz.sh build-fuzz "${TOLVEN_FUZZ_SECONDS:-30}"
}

scripts/install-deps.sh base
for stage in "${stages[@]}"; do
    echo "==== test stage: $stage ===="
    start=$SECONDS
    "stage_$stage"
    echo "==== test stage: $stage passed in $((SECONDS - start)) s ===="
done
