#!/usr/bin/env bash
# Fails, naming the files, when a C++ file of the tree does not follow .clang-format.
# `scripts/format-check.sh --fix` rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "format-check: clang-format missing" >&2; exit 1; }
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
bad=()
for f in "${files[@]}"; do
  clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if [ ${#bad[@]} -gt 0 ]; then
  echo "format-check: these files do not follow .clang-format (scripts/format-check.sh --fix):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "format-check: ${#files[@]} files follow .clang-format"
