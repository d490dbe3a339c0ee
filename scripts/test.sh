#!/usr/bin/env bash
# Every test: install what is needed, build with AddressSanitizer and
# UndefinedBehaviorSanitizer, and run the whole suite with CTest (the benchmarks are built too,
# so they keep compiling, but not run); then the armhf build, its tests under qemu-arm
# (scripts/armhf.sh). Both runs always happen; the script fails when either does.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTVX_SANITIZE=ON -DTVX_BUILD_BENCH=ON >/dev/null
cmake --build build/sanitize -j"$(nproc)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
(cd build/sanitize && ctest --output-on-failure -j"$(nproc)" --timeout 300) || status=$?
env -u ASAN_OPTIONS -u UBSAN_OPTIONS scripts/armhf.sh || status=$?
exit $status
