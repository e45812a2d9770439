#!/usr/bin/env bash
# Prints, per component, the lines of C++ code and of C++ tests and their ratio, for the working
# tree or for a git revision (scripts/test-ratio.sh [REV]). Blank lines and comment-only lines
# are not counted.
set -euo pipefail
cd "$(dirname "$0")/.."
REV=${1:-}

# component: code folders | test folders
COMPONENTS=(
  "sdk|platform/sdk sdk|tests/unit/sdk tests/unit/queue"
  "framework|platform/framework|tests/unit/framework"
  "container|platform/modules/container|tests/unit/container tests/integration/container"
  "filenotify|platform/modules/filenotify|tests/unit/filenotify tests/integration/filenotify"
  "process_collect|platform/modules/process_collect|tests/unit/process_collect tests/integration/process_collect"
  "report|platform/modules/report|tests/unit/report tests/integration/report"
  "module|module/module_dockerfile platform/engine|tests/unit/dockerfile tests/integration/dockerfile"
  "agent|agent|tests/unit/agent tests/integration/agent"
  "bench|bench|"
  "support+fuzz||tests/support tests/fuzz"
)

files() {
  if [ -n "$REV" ]; then
    git ls-tree -r --name-only "$REV" -- "$@" 2>/dev/null
  else
    git ls-files --cached --others --exclude-standard -- "$@"
  fi | grep -E '\.(h|hpp|cpp|cc)$' || true
}

count() {
  [ $# -gt 0 ] || { echo 0; return; }
  local total=0 f n
  while read -r f; do
    [ -n "$f" ] || continue
    if [ -n "$REV" ]; then
      n=$(git show "$REV:$f" | grep -cvE '^\s*($|//)' || true)
    else
      n=$(grep -cvE '^\s*($|//)' "$f" || true)
    fi
    total=$((total + n))
  done < <(files "$@")
  echo "$total"
}

printf '%-16s %7s %7s %6s\n' component code tests ratio
all_code=0
all_tests=0
for entry in "${COMPONENTS[@]}"; do
  IFS='|' read -r name code tests <<<"$entry"
  # shellcheck disable=SC2086
  c=$(count $code)
  # shellcheck disable=SC2086
  t=$(count $tests)
  all_code=$((all_code + c))
  all_tests=$((all_tests + t))
  printf '%-16s %7d %7d %6s\n' "$name" "$c" "$t" "$(awk -v t="$t" -v c="$c" 'BEGIN{printf "%.2f", c ? t / c : 0}')"
done
printf '%-16s %7d %7d %6s\n' all "$all_code" "$all_tests" "$(awk -v t="$all_tests" -v c="$all_code" 'BEGIN{printf "%.2f", t / c}')"
