#!/usr/bin/env bash
# Runs every test from a fresh clone: installs packages, builds, runs unit and integration
# tests, every multi-threaded test under ThreadSanitizer, every parser under libFuzzer for a
# minute, and (as root) the Debian package test and the end-to-end suite, once against the
# ordinary build and once against an AddressSanitizer+UBSan build of the agent.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

bash scripts/setup.sh --bench
echo "== format"
bash scripts/format-check.sh
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

echo "== every multi-threaded test binary under ThreadSanitizer"
# Label tsan marks the unit tests that start threads; every integration test runs tasks on
# threads of their own.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_TSAN=ON \
  -DTARNWICK_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$(nproc)"
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --output-on-failure -j2 -L 'tsan|integration' --no-tests=error)

echo "== parsers under libFuzzer (clang, ASan+UBSan)"
bash scripts/fuzz.sh

if [ "$(id -u)" -eq 0 ] && [ -x scripts/e2e.sh ]; then
  # Before the end-to-end suite installs to /usr/local/tarnwick (the package test moves an
  # existing install aside and puts it back in any case).
  echo "== Debian package: built, installed, run as its unit would, upgraded, purged"
  bash tests/package/package-test.sh build
  echo "== end-to-end tests (installed agent, real dockerd)"
  bash scripts/e2e.sh
  echo "== end-to-end tests against an AddressSanitizer and UndefinedBehaviorSanitizer build"
  cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_ASAN=ON \
    -DTARNWICK_TESTS=OFF -DTARNWICK_BENCH=OFF >/dev/null
  cmake --build build-asan -j"$(nproc)"
  SANITIZER_LOG_DIR=$(mktemp -d /tmp/tarnwick-sanitizer.XXXXXX)
  # Leaks are not checked: the agent's singletons live until exit by design.
  SANITIZER_LOG_DIR=$SANITIZER_LOG_DIR E2E_BUILD_DIR=build-asan STORM_MAX_MS=1000 \
    ASAN_OPTIONS="detect_leaks=0:log_path=$SANITIZER_LOG_DIR/asan" \
    UBSAN_OPTIONS="print_stacktrace=1:log_path=$SANITIZER_LOG_DIR/ubsan" \
    bash scripts/e2e.sh
  rm -rf "$SANITIZER_LOG_DIR"
  # Leave the ordinary build installed.
  cmake --install build >/dev/null
else
  echo "== end-to-end tests skipped: they need root"
fi
echo "== all tests passed"
