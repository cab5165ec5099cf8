#!/usr/bin/env bash
# Install what is missing, build, and run every test suite under the default
# and the AddressSanitizer/UBSan presets, then the fuzz targets' smoke runs
# (the fuzz preset: each target 30 s over its checked-in seeds). Further
# presets given as arguments run too ("tsan" for ThreadSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --lab
presets=(default asan fuzz "$@")
for preset in "${presets[@]}"; do
  echo "== preset ${preset}"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j2
  ctest --preset "${preset}"
done
