#!/usr/bin/env bash
# Runs every test from a fresh clone: installs packages, builds, runs unit and integration
# tests, the queue stress test under ThreadSanitizer, and (as root) the end-to-end suite.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

bash scripts/setup.sh
bash scripts/build.sh -DTARNWICK_BENCH=ON

if [ "$(id -u)" -eq 0 ]; then
  # The integration tests that need a real engine skip themselves without one.
  echo "== Docker engine for the integration tests"
  # An engine that already answers belongs to someone else and stays up afterwards.
  if ! bash scripts/dockerd.sh status; then
    bash scripts/dockerd.sh start
    trap 'bash scripts/dockerd.sh stop >/dev/null' EXIT
  fi
  bash scripts/dockerd.sh image
fi

echo "== unit and integration tests"
(cd build && ctest --output-on-failure -j2 -L 'unit|integration|tsan')

echo "== queue and framework stress under ThreadSanitizer"
# Only the thread-heavy tests (label tsan): a whole instrumented tree would not fit CI's time.
TSAN_TARGETS=(queue_stress_test framework_test report_test)
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_TSAN=ON \
  -DTARNWICK_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$(nproc)" --target "${TSAN_TARGETS[@]}"
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --output-on-failure -L tsan --no-tests=error)

if [ "$(id -u)" -eq 0 ] && [ -x scripts/e2e.sh ]; then
  echo "== end-to-end tests (installed agent, real dockerd)"
  bash scripts/e2e.sh
else
  echo "== end-to-end tests skipped: they need root"
fi
echo "== all tests passed"
