#!/usr/bin/env bash
# Installs what building and testing need from Debian's packages (as root). apt's lists are
# refreshed only when something is missing, so a prepared machine needs no network.
# erlang-snmp is there for its copies of the SMIv2 base modules (SNMPv2-SMI, -TC, -CONF),
# which the MIB tools need and Debian's snmp packages leave out (they are not DFSG-free).
set -euo pipefail
packages=(g++ gcc make cmake pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev
          nlohmann-json3-dev
          libfreeipmi-dev libopenipmi-dev openipmi ipmitool freeipmi-tools i2c-tools
          smitools snmp snmpd snmptrapd libsnmp-dev erlang-snmp
          clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
