#!/usr/bin/env bash
# Installs the project into a scratch prefix, builds a client against the installed library
# with pkg-config and with CMake's find_package, runs both on our platform libraries, then runs
# the first unchanged with another implementation of the platform contract put first through
# LD_LIBRARY_PATH.
# usage: install_and_swap.sh BUILD_DIR SOURCE_DIR WORK_DIR "EXTRA_CFLAGS"
set -eu
build=$1 src=$2 work=$3 extra=${4:-}
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

libdir=$(ls -d "$prefix"/lib* | head -n 1)
for f in "$libdir/libtvx_toipmi.so.1" "$libdir/libipmi.so.2" "$libdir/libtvx_decodeUtil.so.1" \
         "$libdir/pkgconfig/libtvx_toipmi.pc" "$prefix/include/tvx_toipmi.h" "$prefix/include/libipmi.h" \
         "$prefix/include/decodeUtil.h" "$prefix/include/libipmi_host.h" "$prefix/bin/tvxctl" \
         "$prefix/share/tvx/machines/default.json" "$prefix/bin/tvx-selnotifyd" "$prefix/bin/tvx-snmp-agent" \
         "$prefix/share/man/man1/tvxctl.1" "$prefix/share/snmp/mibs/TVX-HARDWARE-MIB.txt" \
         "$libdir/cmake/tvx_toipmi/tvx_toipmiConfig.cmake"; do
  [ -e "$f" ] || { echo "FAIL: not installed: $f"; exit 1; }
done

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
cc -std=c11 -Wall -Werror $extra -o "$work/client" "$src/tests/install/client.c" $(pkg-config --cflags --libs libtvx_toipmi) -Wl,-rpath-link,"$libdir"

export TVX_IPMI_STATE_DIR=$work/state
ours=$(LD_LIBRARY_PATH=$libdir "$work/client")
echo "with our platform libraries:   $ours"
[ "$ours" = "firmware 3.52 product 0x0B4D manufacturer 32473" ] || { echo "FAIL: unexpected identity"; exit 1; }

cmake -S "$src/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCLIENT_SOURCE="$src/tests/install/client.c" -DCMAKE_C_FLAGS="$extra" >/dev/null
cmake --build "$work/consumer" >/dev/null
viacmake=$("$work/consumer/client")
echo "built with find_package:       $viacmake"
[ "$viacmake" = "$ours" ] || { echo "FAIL: the CMake-built client differs"; exit 1; }

alt=$work/alt
mkdir -p "$alt"
cc -std=c11 -shared -fPIC -Wall -Werror -I"$prefix/include" -Wl,-soname,libipmi.so.2 \
   -o "$alt/libipmi.so.2" "$src/tests/install/alt_libipmi.c"
cc -std=c11 -shared -fPIC -Wall -Werror -I"$prefix/include" -Wl,-soname,libtvx_decodeUtil.so.1 \
   -o "$alt/libtvx_decodeUtil.so.1" "$src/tests/install/alt_decodeutil.c"
theirs=$(LD_LIBRARY_PATH=$alt:$libdir "$work/client")
echo "with another implementation:   $theirs"
[ "$theirs" = "firmware 9.99 product 0x4242 manufacturer 4660" ] || { echo "FAIL: the swapped library was not used"; exit 1; }
echo "OK"
