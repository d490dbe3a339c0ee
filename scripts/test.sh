#!/usr/bin/env bash
# Every test: install what is needed, build with AddressSanitizer and
# UndefinedBehaviorSanitizer, and run the whole suite with CTest (the benchmarks are built too,
# so they keep compiling, but not run); then every fuzz target for 30 s on its seed corpus
# (scripts/fuzz.sh; any finding fails the run); with TVX_CI_ARMHF=1, then the armhf build and
# its tests under qemu-arm (scripts/armhf.sh; about 12 minutes from an empty compiler cache,
# which together with the steps before it would exceed the 30 minutes a run may take). Every
# step runs; the script fails when any does.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTVX_SANITIZE=ON -DTVX_BUILD_BENCH=ON >/dev/null
cmake --build build/sanitize -j"$(nproc)"
status=0
(
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  cd build/sanitize && ctest --output-on-failure -j"$(nproc)" --timeout 300
) || status=$?
scripts/fuzz.sh all 30 || status=$?
if [ "${TVX_CI_ARMHF:-0}" = 1 ]; then
  scripts/armhf.sh || status=$?
fi
exit $status
