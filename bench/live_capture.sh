#!/bin/sh
# Live capture on lo while udp_flood sends small datagrams at a steady rate:
# for each rate, whether libpcap dropped anything and whether every frame it
# received was announced. Needs root. On lo the kernel counts each datagram
# twice (libpcap drops the outgoing copy), so "received" is twice "sent".
#
#   bench/live_capture.sh [BUILD_DIR] [SECONDS] [RATES...]
#       defaults: build-bench 10 100000 200000 400000
set -eu

build=${1:-build-bench}
seconds=${2:-10}
shift 2 2>/dev/null || shift $#
rates=${*:-100000 200000 400000}
port=47999
dir=$(mktemp -d "${TMPDIR:-/tmp}/wireloom-live-XXXXXX")
trap 'rm -rf "$dir"' EXIT INT TERM

echo "asked/s  sent  achieved/s  received  dropped  announced  (received and dropped: libpcap's counters)"
for rate in $rates; do
    "$build/cli/wireloom" capture -i lo -f "udp dst port $port" --format oneline > /dev/null 2> "$dir/capture.log" &
    capture=$!
    until grep -q "capturing on" "$dir/capture.log" 2>/dev/null; do sleep 0.1; done
    sent=$("$build/bench/udp_flood" "$port" "$rate" "$seconds")  # "count rate"
    sleep 1
    kill -INT "$capture"
    wait "$capture" || true
    summary=$(grep "frames announced" "$dir/capture.log")
    announced=$(echo "$summary" | sed 's/.*: \([0-9]*\) frames announced.*/\1/')
    received=$(echo "$summary" | sed 's/.*received \([0-9]*\),.*/\1/')
    dropped=$(echo "$summary" | sed 's/.*dropped \([0-9]*\).*/\1/')
    echo "$rate  $sent  $received  $dropped  $announced"
done
