#!/usr/bin/env bash
# Installs everything the agent needs to build, test, package and run on Debian 12 (run as
# root). Idempotent: does nothing when every package is already there.
#   --bench   also the queues the queue benchmark compares against (only the benchmark needs
#             them; it builds without them and leaves those peers out), and the tools the
#             end-to-end benchmarks measure against or with (inotifywait, perf, heaptrack and
#             the gdb it attaches with)
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  libpoco-dev libjsoncpp-dev libssl-dev libaudit-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  auditd docker.io podman busybox-static debootstrap
  procps util-linux jq curl clang-format
  clang-14 libclang-rt-14-dev
  rsyslog nginx openssl
  dpkg-dev file systemd logrotate
  # promtool checks the metrics endpoint's output; the Prometheus server it comes with is
  # switched off again below.
  prometheus
)
BENCH_PACKAGES=(dpdk-dev librte-ring23 libconcurrentqueue-dev libboost-dev inotify-tools linux-perf heaptrack gdb)

for arg in "$@"; do
  case "$arg" in
    --bench) PACKAGES+=("${BENCH_PACKAGES[@]}") ;;
    *) echo "setup: unknown option '$arg' (known: --bench)" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
# Debian's prometheus package enables and starts its server; only its promtool is wanted.
if [[ " ${missing[*]} " == *" prometheus "* ]] && command -v systemctl >/dev/null &&
  [ -d /run/systemd/system ]; then
  systemctl disable --now prometheus >/dev/null 2>&1 || true
fi
# The agent talks to the kernel audit system itself; an auditd that Debian starts is left
# alone (the agent reads the multicast group), but a fresh install must not fight over rules.
