#!/usr/bin/env bash
# Instructions per request of the virtual controller and the platform library in-process, as
# the event log grows: a read (Get Device ID), a reservation (Reserve SDR Repository) and an
# SEL addition, each with 50 and 3,000 entries in the log, counted by callgrind over N
# requests (bench/state_bench.cpp, --count). Setup (the profile, the state's first reading)
# is outside the counted function.
#   usage: bench/state_callgrind.sh [STATE_BENCH] [N]
set -euo pipefail
bench=${1:-build/bench/bench/state_bench}
n=${2:-200}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
printf '%-12s %8s %14s\n' request entries instructions
for kind in read reservation addition; do
  for entries in 50 3000; do
    valgrind --tool=callgrind --toggle-collect='*measuredRequests*' --callgrind-out-file="$out/cg.out" \
      "$bench" --count="$kind:$entries:$n" >"$out/run.txt" 2>"$out/valgrind.txt"
    total=$(callgrind_annotate "$out/cg.out" | awk '/PROGRAM TOTALS/ && !done {gsub(",", "", $1); print $1; done = 1}')
    printf '%-12s %8d %14d\n' "$kind" "$entries" $((total / n))
  done
done
