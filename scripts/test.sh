#!/usr/bin/env bash
# Every test: install what is needed, build with AddressSanitizer and
# UndefinedBehaviorSanitizer, and run the whole suite with CTest (the benchmarks are built too,
# so they keep compiling, but not run); then every fuzz target for 30 s on its seed corpus
# (scripts/fuzz.sh, as many targets at a time as there are cores; any finding fails the run);
# then the armhf build and its tests under qemu-arm (scripts/armhf.sh; TVX_CI_ARMHF=0 leaves
# it out). Every step runs; the script fails when any does, and ends with each step's time.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0 times=()
step() {
  local name=$1 started=$SECONDS rc=0
  shift
  "$@" || rc=$?
  times+=("$(printf '%-22s %4d s  %s' "$name" $((SECONDS - started)) "$([ $rc = 0 ] && echo ok || echo "FAILED ($rc)")")")
  [ $rc = 0 ] || status=1
  return 0
}
sanitized_suite() {
  cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTVX_SANITIZE=ON -DTVX_BUILD_BENCH=ON >/dev/null
  cmake --build build/sanitize -j"$(nproc)" || return
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  (cd build/sanitize && ctest --output-on-failure -j"$(nproc)" --timeout 300)
}
step "packages" scripts/deps.sh
step "sanitized suite" sanitized_suite
step "fuzz targets, 30 s" env TVX_FUZZ_JOBS="${TVX_FUZZ_JOBS:-$(nproc)}" scripts/fuzz.sh all 30
if [ "${TVX_CI_ARMHF:-1}" != 0 ]; then
  step "armhf under qemu-arm" scripts/armhf.sh
fi
echo "== steps (total $SECONDS s)"
printf '%s\n' "${times[@]}"
exit $status
