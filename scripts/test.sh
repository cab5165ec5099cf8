#!/usr/bin/env bash
# Install what is missing, build, and run every test suite under the default
# and the AddressSanitizer/UBSan presets (add "tsan" as an argument to run
# the ThreadSanitizer preset too).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --lab
presets=(default asan "$@")
for preset in "${presets[@]}"; do
  echo "== preset ${preset}"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j2
  ctest --preset "${preset}"
done
