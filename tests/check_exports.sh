#!/bin/sh
# The library defines exactly the exports of its version script, needs the three platform
# libraries, and leaves their functions to the dynamic linker. NM and READELF name the binutils of
# the build's target; ELF_MACHINE, when set, is the machine readelf -h must report.
lib=$1
map=$2
nm=${NM:-nm}
readelf=${READELF:-readelf}
if [ -n "${ELF_MACHINE:-}" ]; then
    machine=$($readelf -h "$lib" | sed -n 's/^ *Machine: *//p')
    [ "$machine" = "$ELF_MACHINE" ] || { echo "built for '$machine', not '$ELF_MACHINE'"; exit 1; }
fi
expected=$(sed -n 's/^ *\([a-z_A-Z0-9]*\);$/\1/p' "$map" | sort)
defined=$($nm -D --defined-only "$lib" | awk '{print $3}' | sort)
[ "$expected" = "$defined" ] || { echo "defined: $defined"; exit 1; }
for so in libdiag.so libtolven_utils.so libproperties.so; do
    $readelf -d "$lib" | grep -q "(NEEDED).*\[$so\]" || { echo "does not need $so"; exit 1; }
done
! $readelf -d "$lib" | grep -q SYMBOLIC || { echo "imports bound at link time"; exit 1; }
for sym in Diag_LSM_Init diag_send_dci_async_req tolven_utils_syslog_dbg property_get; do
    $nm -D --undefined-only "$lib" | grep -qw "$sym" || { echo "$sym is not imported"; exit 1; }
done
echo "exports and imports match the contract${ELF_MACHINE:+ ($ELF_MACHINE)}"
