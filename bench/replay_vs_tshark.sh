#!/bin/sh
# Whole processes side by side on the generated mix: `wireloom read --format
# oneline` (one summary line per frame, through the capture pipeline) against
# `tshark -r FILE` (tshark's one-line summaries; `tshark -q` would not dissect
# at all). Runs alternate; medians of user+system CPU seconds, wall beside.
#
#   bench/replay_vs_tshark.sh [BUILD_DIR] [MEGABYTES] [RUNS]     defaults: build-bench 200 3
set -eu

build=${1:-build-bench}
megabytes=${2:-200}
runs=${3:-3}
dir=$(mktemp -d "${TMPDIR:-/tmp}/wireloom-replay-XXXXXX")
trap 'rm -rf "$dir"' EXIT INT TERM
capture=$dir/mix.pcap

"$build/bench/entry_benchmark" --write-capture "$capture" --megabytes "$megabytes"

timed() {
    /usr/bin/time -o "$dir/time" -f '%U %S %e' "$@" > /dev/null 2> "$dir/stderr" || {
        cat "$dir/stderr" >&2
        exit 1
    }
    awk '{ printf "%.2f %.2f\n", $1 + $2, $3 }' "$dir/time"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

: > "$dir/wireloom"
: > "$dir/tshark"
i=0
while [ "$i" -lt "$runs" ]; do
    timed "$build/cli/wireloom" read "$capture" --format oneline >> "$dir/wireloom"
    timed tshark -r "$capture" >> "$dir/tshark"
    i=$((i + 1))
done

for tool in wireloom tshark; do
    printf '%-9s cpu s:' "$tool"
    awk '{ printf " %s", $1 }' "$dir/$tool"
    printf '    wall s:'
    awk '{ printf " %s", $2 }' "$dir/$tool"
    printf '\n'
done
w=$(cut -d' ' -f1 "$dir/wireloom" | median)
t=$(cut -d' ' -f1 "$dir/tshark" | median)
ww=$(cut -d' ' -f2 "$dir/wireloom" | median)
tw=$(cut -d' ' -f2 "$dir/tshark" | median)
echo "medians: wireloom $w s, tshark $t s CPU (wall $ww s, $tw s)"
awk -v w="$w" -v t="$t" -v ww="$ww" -v tw="$tw" \
    'BEGIN { printf "tshark / wireloom: %.2f CPU, %.2f wall (target: at least 10)\n", t / w, tw / ww }'
