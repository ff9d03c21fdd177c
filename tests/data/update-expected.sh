#!/usr/bin/env bash
# Writes the expected outputs of the command-line tests again, from a build
# in build/ (or the directory given). Review the diff before committing it.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
for sample in demo demo-loopback; do
  for format in tree json oneline none; do
    "$build"/cli/wireloom read samples/$sample.pcap --format $format | sed -E 's/: 0x[0-9a-f]+>/: 0x?>/g' \
      > tests/data/$sample-$format.txt
  done
done
for format in tree json; do
  "$build"/cli/wireloom read samples/demo.pcap --flows --format $format > tests/data/demo-flows-$format.txt
done
for format in tree json; do
  "$build"/cli/wireloom read samples/demo.pcap --http --format $format > tests/data/demo-http-$format.txt
done
for format in tree json; do
  "$build"/cli/wireloom read samples/demo.pcap --mdns --format $format > tests/data/demo-mdns-$format.txt
done
