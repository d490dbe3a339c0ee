#!/usr/bin/env bash
# Instructions per request of the agent's sensor getters in-process, counted by callgrind over
# agent passes (bench/agent_bench.cpp, --passes=N): everything the library and the platform
# library execute, beside what the virtual controller executes to answer (Controller::handle,
# inclusive). Setup (profile, SDR cache) is outside the counted function.
#   usage: bench/agent_callgrind.sh [AGENT_BENCH] [PASSES]
set -euo pipefail
bench=${1:-build/bench/bench/agent_bench}
passes=${2:-20}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
valgrind --tool=callgrind --toggle-collect='*agentPasses*' --callgrind-out-file="$out/cg.out" \
  "$bench" --passes="$passes" >"$out/run.txt" 2>"$out/valgrind.txt"
read -r _ _ _ requests _ sessions _ calls <"$out/run.txt"
# The first line that names it (awk reads on, so that the annotator is not cut off).
first() { awk -v re="$1" '!done && $0 ~ re {gsub(",", "", $1); print $1; done = 1}'; }
total=$(callgrind_annotate "$out/cg.out" | first 'PROGRAM TOTALS')
controller=$(callgrind_annotate --inclusive=yes "$out/cg.out" | first 'tvxsim::Controller::handle[(]')
opening=$(callgrind_annotate --inclusive=yes "$out/cg.out" | first ':ipmiOpenSession [[]')
closing=$(callgrind_annotate --inclusive=yes "$out/cg.out" | first ':ipmiHelperCloseSession [[]')
own=$((total - controller))
echo "passes $passes: $requests requests, $sessions sessions, $calls getter calls"
echo "instructions: $total in all, $controller in the virtual controller, $own in the library and platform"
echo "per request: library + platform $((own / requests)), virtual controller $((controller / requests))"
echo "per getter call: library + platform $((own / calls))"
echo "per session (open and close, library + platform): $(((opening + closing) / sessions)); without the sessions," \
  "library + platform per request: $(((own - opening - closing) / requests))"
