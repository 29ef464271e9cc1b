#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the benchmarks need, if missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build binutils
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    android-liblog-dev android-libbase-dev
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A third-party source that cannot be reached must not stop the install from Debian's own.
$sudo apt-get update || echo "apt-get update reported errors; installing from what it fetched"
$sudo apt-get install -y --no-install-recommends "${missing[@]}"
