#!/usr/bin/env bash
# Installs the Debian 12 packages that a group of jobs needs, if missing.
#   scripts/install-deps.sh [GROUP...]     groups: base (default), fuzz, valgrind, aarch64
set -euo pipefail

groups=("$@")
[ ${#groups[@]} -eq 0 ] && groups=(base)

packages=()
foreign_arch=""
for g in "${groups[@]}"; do
    case $g in
        base)
            packages+=(build-essential cmake ninja-build binutils
                googletest libgtest-dev libgmock-dev libbenchmark-dev ser2net
                android-liblog-dev android-libbase-dev android-libziparchive-dev blueprint-tools pkgconf libjsoncpp-dev
                libudev-dev umockdev libumockdev-dev
                golang-go golang-android-soong-dev golang-github-google-blueprint-dev
                golang-github-golang-protobuf-1-5-dev) ;;
        valgrind)
            packages+=(valgrind) ;;
        fuzz)
            # libFuzzer and its FuzzedDataProvider.h come with clang's runtime.
            packages+=(clang-14 libclang-rt-14-dev) ;;
        aarch64)
            # The cross compiler and the emulator, and the target's libraries through multiarch.
            foreign_arch=arm64
            packages+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user
                android-liblog-dev:arm64 android-libbase-dev:arm64 android-libziparchive-dev:arm64 libjsoncpp-dev:arm64
                libudev-dev:arm64
                libgtest-dev:arm64 libgmock-dev:arm64 libbenchmark-dev:arm64) ;;
        *)
            echo "install-deps: unknown group '$g'" >&2
            exit 2 ;;
    esac
done

# A package named without an architecture must be installed for this machine's (pkg:amd64), or be
# one for all architectures (pkg:all): a copy for another one, such as the cross build's
# android-liblog-dev:arm64, does not serve the host build.
native=$(dpkg --print-architecture)
installed() {
    local query
    if [[ $1 == *:* ]]; then set -- "$1"; else set -- "$1:$native" "$1:all"; fi
    for query; do
        dpkg-query -W -f='${Status}' "$query" 2>/dev/null | grep -q "install ok installed" && return 0
    done
    return 1
}
missing=()
for p in "${packages[@]}"; do
    installed "$p" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: ${groups[*]}: all ${#packages[@]} packages are installed"
    exit 0
fi
echo "install-deps: ${groups[*]}: missing ${missing[*]}"

# Root installs directly; anyone else needs sudo rights, asked for on a terminal only.
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    manual="apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
    if ! command -v sudo >/dev/null 2>&1; then
        echo "install-deps: installing packages needs root, and sudo is not installed." >&2
        echo "install-deps: as root, run: $manual" >&2
        exit 1
    fi
    if ! sudo -n true 2>/dev/null; then
        if [ ! -t 0 ]; then
            echo "install-deps: sudo wants a password and there is no terminal to ask on." >&2
            echo "install-deps: run it yourself: sudo sh -c '$manual'" >&2
            exit 1
        fi
        echo "install-deps: sudo asks for your password to install them"
        if ! sudo -v; then
            echo "install-deps: sudo refused; without root rights the packages cannot be installed." >&2
            echo "install-deps: as root, run: $manual" >&2
            exit 1
        fi
    fi
    sudo="sudo"
fi
if [ -n "$foreign_arch" ] && ! dpkg --print-foreign-architectures | grep -qx "$foreign_arch"; then
    echo "install-deps: dpkg --add-architecture $foreign_arch"
    $sudo dpkg --add-architecture "$foreign_arch"
fi
export DEBIAN_FRONTEND=noninteractive
echo "install-deps: apt-get update"
# A third-party source that cannot be reached must not stop the install from Debian's own.
$sudo apt-get update || echo "install-deps: apt-get update reported errors; installing from what it fetched"
echo "install-deps: apt-get install ${missing[*]}"
$sudo apt-get install -y --no-install-recommends "${missing[@]}"
