#!/usr/bin/env bash
# The main job: install what is needed, build, and ask the default machine's controller who
# it is with tvxctl. Extra arguments go to tvxctl instead (e.g. scripts/run.sh raw 0x06 0x01).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTVX_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc)" >/dev/null
tvxctl=build/release/tools/tvxctl/tvxctl
if [ $# -gt 0 ]; then
  exec "$tvxctl" "$@"
fi
echo "== tvxctl devid (the default machine)"
"$tvxctl" devid
echo
echo "== tvxctl --json devid"
"$tvxctl" --json devid
