#!/usr/bin/env bash
# The main job: install what is needed, build, and show the default machine through tvxctl:
# its controller's identity, the console banner, the sensors, power and LAN settings, processors
# and memory.
# Extra arguments go to tvxctl instead (e.g. scripts/run.sh raw 0x06 0x01).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTVX_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc)" >/dev/null
tvxctl=build/release/tools/tvxctl/tvxctl
if [ $# -gt 0 ]; then
  exec "$tvxctl" "$@"
fi
# The default machine, with its state in a scratch directory so the run starts from the profile.
export TVX_IPMI_STATE_DIR=${TVX_IPMI_STATE_DIR:-$(mktemp -d)}
for command in "devid" "--json devid" "banner" "sdr" "fru 0" "sel --text" "power status" "lan show" "cpu" "memory" \
    "memory spd 0"; do
  echo "== tvxctl $command"
  # shellcheck disable=SC2086
  "$tvxctl" $command
  echo
done
