#!/usr/bin/env bash
# The agent's SHA-256 of a large file (SDK::FileUtils::GetFileSha256, the call behind every
# executable's digest) against OpenSSL's own figure for the same digest, in one run.
#   bash bench/e2e/hashing.sh [MIB]                   (default 256)
# hash_bench hashes a MIB MiB file of random bytes, hot cache, best of 5; `openssl speed -evp
# sha256` gives the digest alone on 16384-byte blocks (no reads). Needs no root, no engine.
# Leaves nothing behind. Not part of the test command.
set -euo pipefail
cd "$(dirname "$0")/../.."
MIB=${1:-256}
BUILD_DIR=${BUILD_DIR:-build}
BENCH=$BUILD_DIR/bin/hash_bench
[ -x "$BENCH" ] || { echo "no $BENCH: build with -DTARNWICK_BENCH=ON first" >&2; exit 2; }
FILE=$(mktemp /tmp/tarnwick-hashing.XXXXXX)
trap 'rm -f "$FILE"' EXIT
head -c "$((MIB * 1024 * 1024))" /dev/urandom > "$FILE"

agent=$("$BENCH" "$FILE" 5)
expected=$(sha256sum "$FILE" | cut -d' ' -f1)
digest=$(echo "$agent" | awk '$1 == "sha256" {print $2}')
[ "$digest" = "$expected" ] || { echo "hash_bench digest $digest != sha256sum $expected" >&2; exit 1; }
agent_mbs=$(echo "$agent" | awk '$1 == "bytes" {print $6}')
# The last column is 16384-byte blocks, in thousands of bytes per second.
openssl_line=$(openssl speed -evp sha256 -seconds 3 2>/dev/null | grep -Ei '^sha256 ' | tail -n 1)
openssl_mbs=$(echo "$openssl_line" | awk '{v = $NF; sub(/k$/, "", v); printf "%.1f", v / 1000}')

# What reading alone costs: the same file copied out of the page cache in the agent's 256 KiB
# reads, best of 3. A digest computed over read(2) can reach at most
# 1 / (1 / openssl + 1 / read) of it; only a mapping of the file would avoid the copy.
read_mbs=0
for _ in 1 2 3; do
  mbs=$(dd if="$FILE" of=/dev/null bs=256K 2>&1 | awk '/copied/ {
    for (i = 1; i <= NF; i++) if ($i == "copied,") s = $(i + 1); b = $1; printf "%.1f", b / s / 1e6 }')
  read_mbs=$(awk -v a="$mbs" -v b="$read_mbs" 'BEGIN { print (a > b ? a : b) }')
done

printf '%-48s %s MB/s (best of 5, %s MiB file, hot cache)\n' \
  "agent GetFileSha256" "$agent_mbs" "$MIB"
printf '%-48s %s MB/s\n' "openssl speed -evp sha256, 16384-byte blocks" "$openssl_mbs"
awk -v a="$agent_mbs" -v o="$openssl_mbs" \
  'BEGIN { printf "%-48s %.3f\n", "agent / openssl", a / o }'
printf '%-48s %s MB/s\n' "read(2) alone, 256 KiB reads (dd)" "$read_mbs"
awk -v r="$read_mbs" -v o="$openssl_mbs" \
  'BEGIN { printf "%-48s %.3f\n", "ceiling of a digest over read(2) / openssl", (1 / (1 / o + 1 / r)) / o }'
