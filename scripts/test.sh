#!/usr/bin/env bash
# Installs what is missing, configures, builds everything with warnings as errors and runs every
# test, in parallel (many tests wait on the library's fixed sleeps).
# TOLVEN_SANITIZE=address|thread runs the same suite under the sanitizers, in build-<name>/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

sanitize=${TOLVEN_SANITIZE:-}
build=build${sanitize:+-$sanitize}
scale=1
[ -n "$sanitize" ] && scale=4

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTOLVEN_SANITIZE="$sanitize" -DTOLVEN_TEST_TIME_SCALE="$scale"
cmake --build "$build" -j2
ctest --test-dir "$build" -j8 --output-on-failure
