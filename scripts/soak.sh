#!/usr/bin/env bash
# Soak: 10,000 back-to-back sends of each transport, every reply byte checked, RSS reported; then
# the same under valgrind memcheck (fewer sends: it is about 50 times slower), which must find no
# error and no lost byte.
#   scripts/soak.sh [SENDS] [VALGRIND_SENDS]     (defaults 10000 and 10000)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh base valgrind
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target soak

echo "== soak, ${1:-10000} sends per transport"
build/bench/soak "${1:-10000}"
echo "== soak under valgrind memcheck, ${2:-10000} sends per transport"
valgrind --quiet --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --error-exitcode=3 \
    build/bench/soak "${2:-10000}"
echo "== valgrind: no errors, nothing lost"
