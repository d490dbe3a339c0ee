#!/usr/bin/env bash
# Builds the Debian package from the build tree, checks what it holds and what it depends on,
# installs it into a scratch root with dpkg (maintainer scripts and triggers included) and runs
# the installed tvxctl from there.
# usage: debian_package.sh BUILD_DIR WORK_DIR
set -eu
build=$1 work=$2
rm -rf "$work" && mkdir -p "$work"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >/dev/null
deb=$(ls "$work"/out/*.deb)
echo "package: $(basename "$deb")"

dpkg-deb -c "$deb" | awk '{print $6}' > "$work/contents"
# The library directory is the build's (GNUInstallDirs): /usr/lib/MULTIARCH when configured
# for /usr, else /usr/lib; both are searched by the dynamic linker.
lib=$(grep -m1 '/libtvx_toipmi.so.1.0.0$' "$work/contents" | sed 's|/libtvx_toipmi.so.1.0.0$||')
lib=${lib:-./usr/lib}
for f in $lib/libtvx_toipmi.so.1.0.0 $lib/libipmi.so.2.0.0 \
         $lib/libtvx_decodeUtil.so.1.0.0 ./usr/include/tvx_toipmi.h ./usr/bin/tvxctl \
         ./usr/bin/tvx-selnotifyd ./usr/bin/tvx-snmp-agent ./usr/share/man/man1/tvxctl.1 \
         ./usr/share/snmp/mibs/TVX-HARDWARE-MIB.txt \
         ./usr/share/tvx/machines/default.json $lib/pkgconfig/libtvx_toipmi.pc \
         $lib/cmake/tvx_toipmi/tvx_toipmiConfig.cmake; do
  grep -qx "$f" "$work/contents" || { echo "FAIL: not in the package: $f"; exit 1; }
done
depends=$(dpkg-deb -f "$deb" Depends)
echo "depends: $depends"
for d in libc6 libfreeipmi; do
  case "$depends" in *"$d"*) ;; *) echo "FAIL: no dependency on $d"; exit 1 ;; esac
done
dpkg-deb --ctrl-tarfile "$deb" | tar -t | grep -q shlibs || { echo "FAIL: no shlibs file"; exit 1; }

# A scratch root of its own: dpkg keeps its database there and runs the package's scripts.
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends --force-not-root --force-script-chrootless --log=/dev/null \
     -i "$deb" >/dev/null
dpkg --root="$root" -s libtvx-toipmi | grep -q "^Status: install ok installed" || { echo "FAIL: not installed"; exit 1; }
export TVX_IPMI_STATE_DIR=$work/state
out=$(LD_LIBRARY_PATH=$root/${lib#./} "$root/usr/bin/tvxctl" devid)
echo "$out" | grep -q "^Firmware Revision *: 3.52" || { echo "FAIL: the installed tvxctl printed: $out"; exit 1; }
echo "OK"
