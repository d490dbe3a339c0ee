#!/usr/bin/env bash
# Checks the shared objects' binary interface:
#  - libtvx_toipmi.so.1 exports exactly the promised symbols;
#  - it needs only libc and the two platform libraries at run time (no C++ runtime);
#  - libtvx_decodeUtil.so.1 exports exactly its five functions and needs only libc and
#    libipmi.so.2 (through which it reads network port-function areas);
#  - the sonames are exactly libtvx_toipmi.so.1, libipmi.so.2 and libtvx_decodeUtil.so.1.
#  - libipmi.so.2 exports exactly the functions its two headers declare (the contract and the
#    host-side control API);
# usage: check_abi.sh LIBTVX LIBIPMI LIBDECODE EXPECTED_SYMBOLS SANITIZED(0|1) LIBIPMI_HEADERS...
set -u
lib=$1 ipmi=$2 decode=$3 expected=$4 sanitized=$5
shift 5
ipmi_headers=("$@")
fail=0

soname() { readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'; }
for pair in "$lib:libtvx_toipmi.so.1" "$ipmi:libipmi.so.2" "$decode:libtvx_decodeUtil.so.1"; do
  file=${pair%%:*} want=${pair#*:}
  got=$(soname "$file")
  if [ "$got" != "$want" ]; then echo "FAIL: soname of $file is '$got', want '$want'"; fail=1; fi
done

# Sanitizer runtimes add their own instrumentation symbols; they are not part of the interface.
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v -E '^(__asan|__odr_asan|__ubsan|___asan|__sancov)' | sort -u)
want=$(grep -v -E '^\s*(#|$)' "$expected" | sort -u)
if [ "$actual" != "$want" ]; then
  echo "FAIL: exported symbols differ from the promised list (< promised, > exported):"
  diff <(echo "$want") <(echo "$actual") | grep -E '^[<>]'
  fail=1
fi

allowed='^(libc\.so\.6|libipmi\.so\.2|libtvx_decodeUtil\.so\.1)$'
[ "$sanitized" = 1 ] && allowed='^(libc\.so\.6|libipmi\.so\.2|libtvx_decodeUtil\.so\.1|libasan\.so\.[0-9]+|libubsan\.so\.[0-9]+)$'
needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for n in $needed; do
  if ! echo "$n" | grep -q -E "$allowed"; then echo "FAIL: libtvx_toipmi.so.1 needs $n"; fail=1; fi
done
for must in libipmi.so.2 libtvx_decodeUtil.so.1 libc.so.6; do
  echo "$needed" | grep -qx "$must" || { echo "FAIL: libtvx_toipmi.so.1 does not record $must"; fail=1; }
done

# The decode-utility library exports its contract and nothing else, and needs only libc and
# the IPMI library (the port-function areas come from the controller).
decode_actual=$(nm -D --defined-only "$decode" | awk '{print $3}' | grep -v -E '^(__asan|__odr_asan|__ubsan|___asan|__sancov)' | sort -u)
decode_want=$(printf '%s\n' pniReadPortFnSpecificArea spdUtilGetDDRFrequencyType spdUtilGetDeviceTypeString \
  spdUtilGetModuleTypeString spdUtilGetVoltageInterface | sort -u)
if [ "$decode_actual" != "$decode_want" ]; then
  echo "FAIL: libtvx_decodeUtil.so.1 exports differ (< promised, > exported):"
  diff <(echo "$decode_want") <(echo "$decode_actual") | grep -E '^[<>]'
  fail=1
fi
for n in $(readelf -d "$decode" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
  echo "$n" | grep -q -E "$allowed" && [ "${n#libtvx}" = "$n" ] ||
    { echo "FAIL: libtvx_decodeUtil.so.1 needs $n"; fail=1; }
done

# libipmi.so.2: the functions its headers declare, nothing more.
ipmi_actual=$(nm -D --defined-only "$ipmi" | awk '{print $3}' | grep -v -E '^(__asan|__odr_asan|__ubsan|___asan|__sancov)' | sort -u)
ipmi_want=$(cat "${ipmi_headers[@]}" | tr '\n' ' ' | grep -o -E '(LIBIPMI_API|IPMIHOST_API) [A-Za-z_][A-Za-z_0-9 ]*[ *]+[A-Za-z_0-9]+\(' |
  sed -E 's/.*[ *]([A-Za-z_0-9]+)\($/\1/' | grep -v '^__attribute__$' | sort -u)
if [ -z "$ipmi_want" ] || [ "$ipmi_actual" != "$ipmi_want" ]; then
  echo "FAIL: libipmi.so.2 exports differ from its headers (< declared, > exported):"
  diff <(echo "$ipmi_want") <(echo "$ipmi_actual") | grep -E '^[<>]'
  fail=1
fi

[ $fail = 0 ] && echo "ABI OK: $(echo "$actual" | wc -l) symbols; needs: $(echo $needed)"
exit $fail
