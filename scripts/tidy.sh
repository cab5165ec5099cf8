#!/usr/bin/env bash
# Runs the checks of .clang-tidy over every source the default preset
# builds (the layering probes, written not to compile, aside) and fails on
# any finding (arguments: file patterns to check instead). Slow: a few
# seconds per file (JOBS=N runs N at once).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2  # headers the build generates
# The compile commands without the g++-only flags clang does not take.
db=$(mktemp -d -t tidy-db.XXXXXX)
trap 'rm -rf "${db}"' EXIT
sed -E 's/ -m(tls-dialect|stringop-strategy)=[a-z0-9]+//g' build/default/compile_commands.json >"${db}/compile_commands.json"
run-clang-tidy-14 -p "${db}" -quiet -j "${JOBS:-2}" -extra-arg=-Wno-unknown-warning-option \
  "${@:-^(?!.*/tests/layering/).*\.cpp$}"
