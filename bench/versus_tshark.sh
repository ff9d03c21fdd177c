#!/bin/sh
# Whole processes side by side on the generated mix: `wireloom read` in one
# output format against tshark doing the comparable work. Runs alternate, so
# both see the same machine; the figures are medians of user+system CPU
# seconds (wall seconds beside them). Output goes to /dev/null.
#
#   bench/versus_tshark.sh tree   [BUILD_DIR] [MEGABYTES] [RUNS]   defaults: build-bench 100 3
#       wireloom read --format tree   against  tshark -r FILE -V -x  (every field and a hex dump)
#   bench/versus_tshark.sh oneline [BUILD_DIR] [MEGABYTES] [RUNS]  defaults: build-bench 200 3
#       wireloom read --format oneline  against  tshark -r FILE  (its one-line summaries; -q
#       would not dissect at all)
set -eu

mode=${1:-}
case "$mode" in
    tree) tshark_args="-V -x" target=5 default_megabytes=100 ;;
    oneline) tshark_args="" target=10 default_megabytes=200 ;;
    *)
        echo "usage: $0 tree|oneline [BUILD_DIR] [MEGABYTES] [RUNS]" >&2
        exit 2
        ;;
esac
build=${2:-build-bench}
megabytes=${3:-$default_megabytes}
runs=${4:-3}
dir=$(mktemp -d "${TMPDIR:-/tmp}/wireloom-versus-XXXXXX")
trap 'rm -rf "$dir"' EXIT INT TERM
capture=$dir/mix.pcap

"$build/bench/entry_benchmark" --write-capture "$capture" --megabytes "$megabytes"

# One timed run: prints "cpu wall" in seconds.
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
    timed "$build/cli/wireloom" read "$capture" --format "$mode" >> "$dir/wireloom"
    # shellcheck disable=SC2086  # the arguments are meant to split
    timed tshark -r "$capture" $tshark_args >> "$dir/tshark"
    i=$((i + 1))
done

for tool in wireloom tshark; do
    printf '%-9s cpu s: %s   wall s: %s\n' "$tool" "$(cut -d' ' -f1 "$dir/$tool" | tr '\n' ' ')" \
        "$(cut -d' ' -f2 "$dir/$tool" | tr '\n' ' ')"
done
w=$(cut -d' ' -f1 "$dir/wireloom" | median)
t=$(cut -d' ' -f1 "$dir/tshark" | median)
ww=$(cut -d' ' -f2 "$dir/wireloom" | median)
tw=$(cut -d' ' -f2 "$dir/tshark" | median)
echo "medians: wireloom $w s, tshark $t s CPU (wall $ww s, $tw s)"
awk -v w="$w" -v t="$t" -v ww="$ww" -v tw="$tw" -v target="$target" \
    'BEGIN { printf "tshark / wireloom: %.2f CPU, %.2f wall (target: at least %d)\n", t / w, tw / ww, target }'
