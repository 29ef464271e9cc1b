#!/usr/bin/env bash
# Installs the built tree into a temporary prefix, moves the prefix, and checks that it stands on
# its own there: no RUNPATH into the build or source tree, tolven-diag runs, and a consumer builds
# against it once with find_package(TolvenDiag) and once with pkg-config, and talks to the
# installed simulated modem. Writes only below its temporary folder; the build's
# install_manifest.txt, which `cmake --install` rewrites, is put back as it was.
#   tests/package/check_package.sh BUILD_DIR LIBDIR BINDIR CC [FLAG...]
# LIBDIR and BINDIR are relative to the prefix; the FLAGs (the build's sanitizer and warning
# flags) go to every compile and link of the consumer. TOLVEN_TEST_EMULATOR runs cross-built
# programs; TOLVEN_TOOLCHAIN_FILE is handed to the consumer's CMake.
set -euo pipefail
build=$(cd "$1" && pwd)
libdir=$2
bindir=$3
cc=$4
shift 4
flags=("$@")
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
read -r -a emulator <<<"${TOLVEN_TEST_EMULATOR:-}"
unset LD_LIBRARY_PATH

tmp=$(mktemp -d)
manifest=$build/install_manifest.txt
[ ! -e "$manifest" ] || cp -p "$manifest" "$tmp/manifest.saved"
restore() {
    if [ -e "$tmp/manifest.saved" ]; then cp -p "$tmp/manifest.saved" "$manifest"; else rm -f "$manifest"; fi
    rm -rf "$tmp"
}
trap restore EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# run NAME PROGRAM [ARG...]: runs a built program, prints its output, and checks the version
# request's answer in it.
run() {
    local name=$1
    shift
    local out
    out=$("${emulator[@]}" "$@" 2>&1) || fail "$name exited with $?: $out"
    echo "$name: $out"
    [[ $out == *"$expect"* ]] || fail "$name: expected '$expect'"
}

cmake --install "$build" --prefix "$tmp/staged" >"$tmp/install.log" ||
    fail "cmake --install: $(cat "$tmp/install.log")"
mv "$tmp/staged" "$tmp/prefix"
prefix=$tmp/prefix

for file in "$bindir/tolven-diag" include/tolven_diag.h "$libdir/libtolven_diag.so" \
    "$libdir/libdiag.so" "$libdir/libtolven_utils.so" "$libdir/libproperties.so" \
    "$libdir/cmake/TolvenDiag/TolvenDiagConfig.cmake" \
    "$libdir/cmake/TolvenDiag/TolvenDiagConfigVersion.cmake" "$libdir/pkgconfig/tolven_diag.pc" \
    share/doc/tolven_diag/README.md share/bash-completion/completions/tolven-diag; do
    [ -f "$prefix/$file" ] || fail "$file is not installed"
done
bash -c 'source "$1" && complete -p tolven-diag' _ \
    "$prefix/share/bash-completion/completions/tolven-diag" >/dev/null 2>&1 ||
    fail "the installed bash completion does not register tolven-diag"
if [ -f "$source_dir/tools/tolven-diag/tolven-diag.1" ]; then
    [ -f "$prefix/share/man/man1/tolven-diag.1" ] || fail "the man page is not installed"
fi
for elf in "$prefix/$bindir/tolven-diag" "$prefix/$libdir"/*.so; do
    paths=$(readelf -d "$elf" | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]/\2/p')
    [[ $paths == *'$ORIGIN'* ]] || fail "$elf: RUNPATH '$paths' has no \$ORIGIN"
    [[ $paths != *"$build"* && $paths != *"$source_dir"* ]] ||
        fail "$elf: RUNPATH '$paths' points into the build or source tree"
done

expect="reply: 55 bytes"
run tolven-diag "$prefix/$bindir/tolven-diag" 00
expect="result 0, reply 55 bytes, first 00"

toolchain=()
[ -z "${TOLVEN_TOOLCHAIN_FILE:-}" ] || toolchain=("-DCMAKE_TOOLCHAIN_FILE=$TOLVEN_TOOLCHAIN_FILE")
cmake -S "$here" -B "$tmp/cmake" "${toolchain[@]}" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="${flags[*]}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$tmp/cmake.log" 2>&1 ||
    fail "configuring the find_package consumer: $(cat "$tmp/cmake.log")"
grep -q "^TolvenDiag_DIR:PATH=$prefix/$libdir/cmake/TolvenDiag$" "$tmp/cmake/CMakeCache.txt" ||
    fail "find_package took another TolvenDiag: $(grep TolvenDiag_DIR "$tmp/cmake/CMakeCache.txt")"
cmake --build "$tmp/cmake" >"$tmp/build.log" 2>&1 ||
    fail "building the find_package consumer: $(cat "$tmp/build.log")"
run find_package "$tmp/cmake/consumer"

export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig
unset PKG_CONFIG_PATH
read -r -a pc_flags <<<"$(pkg-config --cflags --libs tolven_diag)"
pc_libdir=$(pkg-config --variable=libdir tolven_diag)
"$cc" "${flags[@]}" "$here/consumer.c" "${pc_flags[@]}" -Wl,-rpath,"$pc_libdir" \
    -o "$tmp/pc-consumer" || fail "building the pkg-config consumer"
run pkg-config "$tmp/pc-consumer"

echo "the installed package works from a moved prefix"
