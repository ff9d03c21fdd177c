#!/usr/bin/env bash
# Set-up for a Debian 12 machine, in two commands:
#   ./setup.sh demo   install the packages, build, decode samples/demo.pcap
#   ./setup.sh test   install the packages, build, run every test, then the
#                     fuzz targets briefly over their kept inputs, and the
#                     unit tests again under AddressSanitizer and
#                     UndefinedBehaviorSanitizer
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  build-essential cmake pkg-config clang libclang-rt-14-dev
  libpcap-dev libssl-dev libasio-dev libgtest-dev libbenchmark-dev libtins-dev uuid-dev
  tshark tcpdump curl python3 nlohmann-json3-dev
  libplist-dev libsystemd-dev libelf-dev polkitd pkexec passwd
  libavahi-common-dev avahi-daemon avahi-utils dbus-daemon iproute2
)
JOBS=$(nproc)

install_packages() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  # tshark asks whether ordinary users may capture; the default answer is fine.
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

build() {  # build DIR [cmake options...]
  local dir=$1
  shift
  cmake -S . -B "$dir" -DWIRELOOM_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

case "${1:-}" in
  demo)
    install_packages
    build build
    ./build/cli/wireloom read samples/demo.pcap
    ;;
  test)
    install_packages
    build build
    ctest --test-dir build --output-on-failure -j "$JOBS"
    echo "== Fuzz targets (libFuzzer): replay the kept inputs, then a short fresh run"
    CC=clang CXX=clang++ build build-fuzz -DWIRELOOM_BUILD_FUZZ=ON -DWIRELOOM_BUILD_TESTS=OFF -DWIRELOOM_BUILD_CLI=OFF
    for target in build-fuzz/fuzz/fuzz_*; do
      name=$(basename "$target")
      name=${name#fuzz_}
      mkdir -p build-fuzz/corpus-"$name"
      inputs=()
      for dir in fuzz/corpus/"$name" fuzz/regressions/"$name"; do
        [ -d "$dir" ] && inputs+=("$dir")
      done
      "$target" -max_total_time=20 -print_final_stats=0 build-fuzz/corpus-"$name" "${inputs[@]}" 2>&1 | tail -n 2
    done
    echo "== Unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
    build build-sanitize -DWIRELOOM_SANITIZE=ON
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      ctest --test-dir build-sanitize --output-on-failure -j "$JOBS"
    ;;
  *)
    echo "usage: $0 demo|test" >&2
    exit 2
    ;;
esac
