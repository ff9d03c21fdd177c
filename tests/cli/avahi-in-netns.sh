#!/usr/bin/env bash
# avahi-in-netns.sh WIRELOOM OUT.pcap: two network namespaces joined by a
# veth pair, each with its own avahi-daemon (and a private D-Bus for it). The
# first publishes a service with TXT records, the second browses for it and
# resolves it (avahi-browse's resolved lines go to standard output), and
# `wireloom capture -w` records the first's side of the link meanwhile.
# Exits 77, with the reason on standard error, where it cannot run here.
set -uo pipefail

wireloom=$1
capture=$2
skip() { echo "$*" >&2; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "network namespaces need root"
for program in ip avahi-daemon avahi-publish avahi-browse dbus-daemon; do
  command -v "$program" >/dev/null 2>&1 || skip "$program is not installed"
done

a=wl-mdns-a-$$
b=wl-mdns-b-$$
work=$(mktemp -d)
pids=()
cleanup() {
  kill "${pids[@]}" 2>/dev/null
  wait 2>/dev/null
  ip netns del "$a" 2>/dev/null
  ip netns del "$b" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

{ ip netns add "$a" && ip netns add "$b"; } 2>/dev/null || skip "network namespaces cannot be made here"
ip link add wla netns "$a" type veth peer name wlb netns "$b" || skip "a veth pair cannot be made here"
for side in a b; do
  ns=${!side}
  # No duplicate address detection, so the link-local IPv6 address (and
  # avahi's AAAA record for it) is there at once.
  ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 2>/dev/null
  ip -n "$ns" link set lo up
  ip -n "$ns" addr add "10.253.0.$([ $side = a ] && echo 1 || echo 2)/24" dev "wl$side"
  ip -n "$ns" link set "wl$side" up multicast on
done

# Each daemon gets a bus of its own: an abstract socket, which belongs to the
# namespace's network, so the same name serves both sides.
bus=unix:abstract=wireloom-mdns-test
cat >"$work/bus.conf" <<EOF
<busconfig><type>system</type><listen>$bus</listen><auth>EXTERNAL</auth><policy context="default">
  <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>
EOF
in_ns() {  # in_ns NAMESPACE LOG COMMAND...: in the background, its pid kept
  local ns=$1 log=$2
  shift 2
  ip netns exec "$ns" env DBUS_SYSTEM_BUS_ADDRESS=$bus "$@" >"$log" 2>&1 &
  pids+=($!)
}
wait_for() {  # wait_for LOG TEXT: up to 10 s
  for _ in $(seq 100); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  return 1
}

for side in a b; do
  in_ns "${!side}" "$work/bus-$side.log" dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile
done
sleep 0.5

in_ns "$a" "$work/capture.log" "$wireloom" capture -i wla -w "$capture" --duration 14 --format none
wait_for "$work/capture.log" "capturing on" || skip "wireloom cannot capture on the veth: $(cat "$work/capture.log")"
capture_pid=${pids[-1]}

for side in a b; do
  printf '%s\n' "[server]" "host-name=wl-$side" "domain-name=local" "allow-interfaces=wl$side" \
    "[wide-area]" "enable-wide-area=no" "[publish]" "publish-hinfo=no" "publish-workstation=no" \
    >"$work/avahi-$side.conf"
  # The pid file lives in /run/avahi-daemon: a private one per daemon, which
  # the mount namespace of `ip netns exec` keeps from the host.
  in_ns "${!side}" "$work/avahi-$side.log" sh -c "mkdir -p /run/avahi-daemon && mount -t tmpfs tmpfs /run/avahi-daemon &&
      exec avahi-daemon -f '$work/avahi-$side.conf' --no-drop-root --no-chroot --no-rlimits"
done
for side in a b; do
  wait_for "$work/avahi-$side.log" "Server startup complete" ||
    skip "avahi-daemon did not start: $(tail -n 3 "$work/avahi-$side.log")"
done

in_ns "$a" "$work/publish.log" avahi-publish -s "Wireloom Test" _wltest._tcp 4242 "path=/x" "flag" "model=kd 10"
wait_for "$work/publish.log" "Established" || skip "avahi-publish failed: $(cat "$work/publish.log")"
sleep 1
ip netns exec "$b" env DBUS_SYSTEM_BUS_ADDRESS=$bus timeout 10 avahi-browse -rpt _wltest._tcp | grep '^='
# Let the resolver's queries and the answers to them reach the capture.
wait "$capture_pid"
