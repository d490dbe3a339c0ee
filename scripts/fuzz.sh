#!/usr/bin/env bash
# Fuzzing campaigns: builds the libFuzzer targets with clang (build/fuzz), makes their seed
# corpora from the default virtual controller's real answers, and runs each target for
# SECONDS (default 30) on its corpus. Fails on any finding (crash, leak, sanitizer report,
# time-out of one input, out of memory); the input that found it is kept in
# build/fuzz/artifacts/. The corpus grows in build/fuzz/corpus/TARGET across runs.
#
# usage: scripts/fuzz.sh [TARGET|all] [SECONDS]      (TARGET without the fuzz_ prefix)
# TVX_FUZZ_JOBS=N runs N targets at a time (default: one per two cores).
# TVX_FUZZ_RUNS=N stops each target after N executions instead (SECONDS still caps the time).
# A summary line per target (executions, coverage, corpus size) goes to build/fuzz/summary.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
which=${1:-all}
seconds=${2:-30}
build=$root/build/fuzz
clang=$(command -v clang || command -v clang-14)
clangxx=$(command -v clang++ || command -v clang++-14)

cmake -S . -B "$build" -G "$(command -v ninja >/dev/null && echo Ninja || echo 'Unix Makefiles')" \
  -DCMAKE_C_COMPILER="$clang" -DCMAKE_CXX_COMPILER="$clangxx" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTVX_FUZZ=ON -DTVX_BUILD_TESTS=OFF -DTVX_IPMI_SIM=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null

exchange=(identity_raw_config sdr_sensors sensor_lists_getters sel_lines sel_texts lan_banner fru_inventory
          memory_pci_language processor_memory_getters iel platform_fru platform_walks)
all=("${exchange[@]}" sim_requests profile lan_target)
if [ "$which" = all ]; then targets=("${all[@]}"); else targets=("$which"); fi

# The virtual controller's state files are written and synced on every request: on a
# memory file system where there is one, so that syncing costs nothing.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then work=$(mktemp -d /dev/shm/tvx-fuzz.XXXXXX); else work=$(mktemp -d); fi
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work TVX_IPMI_STATE_DIR=$work/state
# A controller may announce an SDR repository of gigabytes, which getSDRInfo allocates as it
# is told: the allocation fails (NULL) instead of counting as a finding.
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Seeds: every exchange target's operation against the default machine, and the requests they
# sent for the virtual controller's request handling.
seeds=$work/seeds
mkdir -p "$seeds/sim_requests" "$seeds/profile" "$seeds/lan_target"
for t in "${exchange[@]}"; do
  mkdir -p "$seeds/$t"
  TVX_FUZZ_NAME=$t TVX_FUZZ_MAKE_SEEDS=$seeds/$t TVX_FUZZ_MAKE_REQUEST_SEEDS=$seeds/sim_requests \
    "$build/fuzz/fuzz_$t" >/dev/null 2>&1 || { echo "seeds of $t could not be made"; exit 1; }
done
# Profiles: inputs up to 12 KiB, which the machines' profiles reduced to a few entries per list
# (fuzz/seeds/profile, made by fuzz/reduce_profile.py) fit with every section they have; a
# document of 50 KiB costs eight times as long per input.
profile_max=12288
find machines -name '*.json' -size -$((profile_max + 1))c -exec cp {} "$seeds/profile/" \;
# Hand-made seeds, among them the inputs of findings fixed since: replayed by every run.
for d in fuzz/seeds/*/; do t=$(basename "$d"); mkdir -p "$seeds/$t"; cp "$d"* "$seeds/$t/"; done

mkdir -p "$build/artifacts"
jobs=${TVX_FUZZ_JOBS:-$(( ($(nproc) + 1) / 2 ))}

# Runs one target; its result line goes to $work/result-TARGET.
campaign() {
  local t=$1 corpus=$build/corpus/$1 log=$build/fuzz_$1.log
  mkdir -p "$corpus"
  local result=ok started=$SECONDS
  local extra=()
  [ "$t" = profile ] && extra=(-max_len=$profile_max)
  if ! "$build/fuzz/fuzz_$t" "${extra[@]}" -max_total_time="$seconds" ${TVX_FUZZ_RUNS:+-runs=$TVX_FUZZ_RUNS} -timeout=25 -rss_limit_mb=4096 -malloc_limit_mb=65536 \
      -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" \
      "$corpus" "$seeds/$t" >"$log" 2>&1; then
    result="FINDING (see $log)"
  fi
  local runs cov took=$((SECONDS - started))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -o -E 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
  echo "fuzz_$t: ${runs:-0} executions in ${took}s, ${cov:-no coverage line}, corpus $(ls "$corpus" | wc -l): $result" \
    >"$work/result-$t"
}

for t in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  echo "== fuzz_$t for ${seconds}s"
  campaign "$t" &
done
wait
status=0
for t in "${targets[@]}"; do
  line=$(cat "$work/result-$t")
  echo "$line" | tee -a "$build/summary.txt"
  case $line in
    *FINDING*) status=1; grep -E -A25 '^==[0-9]+==|runtime error|ERROR: libFuzzer' "$build/fuzz_$t.log" | head -60 ;;
  esac
done
exit $status
