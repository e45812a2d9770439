#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz, clang with ASan+UBSan) into build-fuzz/ and runs each
# for SECONDS_PER_TARGET seconds (default 8: about a minute for all of them). Fails on the first
# crash, leak, timeout or memory blow-up, and names the input that caused it. Needs no root.
#   bash scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
# FUZZ_BUILD=0 runs what is built already. Seeds are tests/data/ and tests/fuzz/seeds/; the
# corpus a run grows stays in build-fuzz/fuzz-work/<target>/corpus (out of git) and is picked
# up again by the next run.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
SECONDS_PER_TARGET=${1:-8}
shift || true
BUILD_DIR=${FUZZ_BUILD_DIR:-build-fuzz}
ALL_TARGETS=(AuditRecordFuzzer AuditEventFuzzer CgroupFuzzer DockerDocumentsFuzzer
             InotifyDecoderFuzzer JsonUtilsFuzzer PolicyFuzzer)
[ $# -gt 0 ] && TARGETS=("$@") || TARGETS=("${ALL_TARGETS[@]}")

if [ "${FUZZ_BUILD:-1}" != 0 ]; then
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
    -DCMAKE_CXX_COMPILER=clang++-14 -DTARNWICK_FUZZ=ON -DTARNWICK_TESTS=OFF \
    -DTARNWICK_BENCH=OFF >/dev/null
  cmake --build "$BUILD_DIR" -j"$(nproc)" --target "${TARGETS[@]}"
fi
WORK=$ROOT/$BUILD_DIR/fuzz-work

# seeds_from_data TARGET DIR: the captured input of tests/data in the target's input format.
seeds_from_data() {
  local dir=$2
  case $1 in
    AuditRecordFuzzer)  # one record a seed
      for f in tests/data/audit/*.txt; do
        split -l 1 -a 4 "$f" "$dir/$(basename "$f" .txt)-"
      done ;;
    AuditEventFuzzer)  # whole captures, and short runs of records
      cp tests/data/audit/*.txt "$dir/"
      for f in tests/data/audit/*.txt; do
        split -l 12 -a 3 "$f" "$dir/$(basename "$f" .txt)-"
      done ;;
    DockerDocumentsFuzzer | JsonUtilsFuzzer)  # documents, and one event line a seed
      cp tests/data/container/*.json "$dir/"
      split -l 1 -a 3 tests/data/container/events.jsonl "$dir/event-"
      if [ "$1" = JsonUtilsFuzzer ]; then cp agent/etc/policy.d/*.json "$dir/"; fi ;;
    PolicyFuzzer)
      cp agent/etc/policy.d/*.json "$dir/" ;;
  esac
}

# The dictionary of a target, made of the shared token lists.
dictionary_of() {
  case $1 in
    AuditRecordFuzzer | AuditEventFuzzer) echo audit ;;
    CgroupFuzzer) echo cgroup ;;
    DockerDocumentsFuzzer) echo json docker ;;
    JsonUtilsFuzzer) echo json ;;
    PolicyFuzzer) echo json policy ;;
  esac
}

failed=()
for t in "${TARGETS[@]}"; do
  dir=$WORK/$t
  rm -rf "$dir/seeds" "$dir/tmp" "$dir/crashes"
  mkdir -p "$dir/seeds" "$dir/corpus" "$dir/tmp" "$dir/crashes"
  seeds_from_data "$t" "$dir/seeds"
  dict=()
  for d in $(dictionary_of "$t"); do cat "tests/fuzz/dict/$d.dict"; done >"$dir/dict"
  [ -s "$dir/dict" ] && dict=(-dict="$dir/dict")
  # -timeout: an input takes well under a millisecond; one that takes 3 s (the margin is for a
  # loaded machine) is a fault, a loop or a quadratic parse. Leak checking stays on (the
  # default). TMPDIR keeps the targets' scratch files inside the work directory.
  if TMPDIR=$dir/tmp "$BUILD_DIR/bin/$t" -max_total_time="$SECONDS_PER_TARGET" -timeout=3 \
      -rss_limit_mb=2048 -max_len=20000 -print_final_stats=1 "${dict[@]}" \
      -artifact_prefix="$dir/crashes/" "$dir/corpus" "$dir/seeds" "tests/fuzz/seeds/$t" \
      >"$dir/log" 2>&1; then
    echo "fuzz: $t ok, $(grep -m1 -o 'stat::number_of_executed_units: [0-9]*' "$dir/log" \
      | awk '{print $2}') inputs in ${SECONDS_PER_TARGET}s, corpus $(ls "$dir/corpus" | wc -l)"
  else
    echo "fuzz: $t FAILED; log $dir/log, input(s):" >&2
    ls "$dir/crashes" >&2
    grep -E 'ERROR|SUMMARY|property violated|runtime error' "$dir/log" | head -5 >&2 || true
    failed+=("$t")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]} (reproduce: $BUILD_DIR/bin/<target> <input>)" >&2
  exit 1
fi
echo "fuzz: all ${#TARGETS[@]} targets ran ${SECONDS_PER_TARGET}s without a fault"
