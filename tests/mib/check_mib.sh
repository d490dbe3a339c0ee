#!/usr/bin/env bash
# The hardware MIB module passes smilint without an error or a warning, and net-snmp loads it
# with every object and notification under the module's own arc.
# Usage: check_mib.sh MIB_DIR SCRATCH_DIR
set -euo pipefail
mibdir=$1 scratch=$2
module=TVX-HARDWARE-MIB
file="$mibdir/$module.txt"
root=.1.3.6.1.4.1.32473.1

# The SMIv2 base modules (SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF). Debian keeps the IETF's modules
# out of main (snmp-mibs-downloader in non-free fetches them into /usr/share/snmp/mibs/ietf);
# erlang-snmp in main ships them; other distributions put them in /usr/share/snmp/mibs.
base=
for dir in ${TVX_SMI_BASE_DIR:-} /usr/share/snmp/mibs/ietf /usr/share/snmp/mibs \
           /usr/lib/erlang/lib/snmp-*/mibs; do
  for name in SNMPv2-SMI SNMPv2-SMI.txt SNMPv2-SMI.mib; do
    if [ -f "$dir/$name" ]; then base=$dir; break 2; fi
  done
done
if [ -z "$base" ]; then
  echo "FAIL: no SMIv2 base modules (SNMPv2-SMI) found; install erlang-snmp or set TVX_SMI_BASE_DIR"
  exit 1
fi

# smilint exits 0 whatever it finds, so any diagnostic up to level 6 counts as a failure.
lint=$(SMIPATH="$base" smilint -s -l 6 "$file" 2>&1)
if [ -n "$lint" ]; then
  printf '%s\n' "$lint"
  echo "FAIL: smilint reports the diagnostics above"
  exit 1
fi

# net-snmp, with no configuration of the host's: only this module and what it imports.
rm -rf "$scratch"
mkdir -p "$scratch/conf" "$scratch/persist/cert_indexes"
translate() {
  env -u MIBS -u MIBDIRS SNMPCONFPATH="$scratch/conf" SNMP_PERSISTENT_DIR="$scratch/persist" \
    snmptranslate -m "$module" -M "$mibdir:$base" -On "$@" 2>"$scratch/stderr"
  if [ -s "$scratch/stderr" ]; then
    cat "$scratch/stderr"
    echo "FAIL: snmptranslate complains while loading $module"
    exit 1
  fi
}

mapfile -t names < <(grep -oE '^[a-z][A-Za-z0-9]* +(OBJECT-TYPE|NOTIFICATION-TYPE)' "$file" |
                     awk -v m="$module" '{ print m "::" $1 }')
if [ "${#names[@]}" -lt 50 ]; then
  echo "FAIL: found only ${#names[@]} objects and notifications in $file"
  exit 1
fi
mapfile -t oids < <(translate "${names[@]}" | grep .)
if [ "${#oids[@]}" -ne "${#names[@]}" ]; then
  echo "FAIL: ${#names[@]} names but ${#oids[@]} OIDs"
  exit 1
fi
for i in "${!names[@]}"; do
  case "${oids[$i]}" in
    "$root".*) ;;
    *) echo "FAIL: ${names[$i]} is ${oids[$i]}, outside $root"; exit 1 ;;
  esac
done

# OIDs that managers and the subagent rely on.
expected=(
  tvxHardwareMIB "$root"
  tvxHwStatusOverall "$root.1.2.1"
  tvxHwFanStatus "$root.1.4.1.3"
  tvxHwTestTrapControl "$root.1.11.1"
  tvxHwTestTrap "$root.0.1"
  tvxHwOverallStatusChange "$root.0.2"
)
for ((i = 0; i < ${#expected[@]}; i += 2)); do
  got=$(translate "$module::${expected[$i]}")
  if [ "$got" != "${expected[$i + 1]}" ]; then
    echo "FAIL: ${expected[$i]} is $got, expected ${expected[$i + 1]}"
    exit 1
  fi
done
echo "$module: smilint clean, ${#names[@]} objects and notifications load under $root"
