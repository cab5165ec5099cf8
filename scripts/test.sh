#!/usr/bin/env bash
# Install what is missing, check the formatting of what this branch
# changed, build, and run every test suite under the default and the
# AddressSanitizer/UBSan presets, then the fuzz targets' smoke runs (the
# fuzz preset: each target 30 s over its checked-in seeds). Further presets
# given as arguments run too ("tsan" for ThreadSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --lab

# Lines changed since the branch left main (FORMAT_BASE), and lines not yet
# committed, must be laid out as .clang-format says; the rest of the tree is
# left as it is.
check_format() {
  local target=${FORMAT_BASE:-main} base out
  if ! base=$(git merge-base HEAD "${target}" 2>/dev/null); then
    echo "== format: no git history or no ${target} to compare with; not checked"
    return 0
  fi
  out=$(git clang-format-14 --extensions c,h,cc,cpp,hpp --diff "${base}")
  case "${out}" in
    "" | "no modified files to format" | "clang-format did not modify any files")
      echo "== format: the lines changed since ${target} follow .clang-format" ;;
    *)
      echo "${out}"
      echo "== format: the lines above differ from .clang-format; git clang-format-14 ${base} formats them"
      return 1 ;;
  esac
}
check_format

presets=(default asan fuzz "$@")
for preset in "${presets[@]}"; do
  echo "== preset ${preset}"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j2
  ctest --preset "${preset}"
done
