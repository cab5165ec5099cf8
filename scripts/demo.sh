#!/usr/bin/env bash
# Quick start: install what is missing, build, and run the switch with the
# agent on the bundled example for a few seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2
./build/default/bin/pppoe-plus-switch --topology examples/topology.yaml --run-for 3 "$@"
