#!/usr/bin/env bash
# The live benchmark (root): PADI flooded from a subscriber's namespace
# through a relay on veths, counted where they reach the access
# concentrator's namespace, for two relays in the same run:
#
#   switch  pppoe-plus-switch, the example switch and configuration (HA master,
#           so its diagnostic records flow): subscriber on GigabitEthernet0/0/1
#           (access, VLAN 100), concentrator on XGigabitEthernet0/0/1 (trusted
#           trunk), punt policing off; counted: PADI tagged VLAN 100 with the agent's
#           Vendor-Specific tag
#   relay   rp-pppoe's pppoe-relay between two veths (it relays discovery and
#           inserts no Circuit-ID); counted: PADI
#
# Prints each relay's rate, the ratio switch / pppoe-relay, and the machine's
# load: the load average before the run and the share of CPU time busy
# during each flood (the flood's sender runs on the same machine).
#
#   sudo bash bench/live_bench.sh [SECONDS]      (5 by default)
#
# Environment: BENCH_BUILD (build folder, default build/default),
# BENCH_PREFIX (namespace and netdev prefix, default "plb", at most 7 characters).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/lib/netns.sh

seconds=${1:-5}
P=${BENCH_PREFIX:-plb}
bin="${BENCH_BUILD:-${root}/build/default}/bin"
state=$(mktemp -d "/tmp/${P}-bench.XXXXXX")
namespaces=("${P}-sub" "${P}-mid" "${P}-ac")

[ "$(id -u)" -eq 0 ] || { echo "live_bench: needs root: sudo bash bench/live_bench.sh" >&2; exit 1; }
for program in pppoe-plus-switch padi-flood; do
  [ -x "${bin}/${program}" ] || { echo "live_bench: ${bin}/${program} is missing: build it first" >&2; exit 1; }
done
command -v pppoe-relay >/dev/null || { echo "live_bench: pppoe-relay is missing: bash scripts/install-deps.sh --lab" >&2; exit 1; }

cleanup() {
  remove_namespaces
  rm -rf "${state}"
}
trap cleanup EXIT

# Busy and total jiffies of every CPU.
cpu_times() {
  awk '/^cpu / {idle = $5 + $6; total = 0; for (i = 2; i <= NF; i++) total += $i; print total - idle, total}' /proc/stat
}

# The subscriber, the middle (where the relay runs) and the concentrator.
layout() {
  remove_namespaces
  make_namespaces
  veth "${P}-s" "${P}-sub" "${P}-ms" "${P}-mid"
  veth "${P}-a" "${P}-ac" "${P}-ma" "${P}-mid"
}

# One flood: the counter on the concentrator's side (ARGS: count options),
# then the sender; prints the counter's line and the CPU busy share.
flood() {
  local name=$1
  shift
  start_in "${P}-ac" "count-${name}" "${bin}/padi-flood" count --netdev "${P}-a" --seconds $((seconds + 3)) "$@"
  sleep 1
  local before after
  before=$(cpu_times)
  ip netns exec "${P}-sub" "${bin}/padi-flood" send --netdev "${P}-s" --seconds "${seconds}" >"${state}/send-${name}.log"
  after=$(cpu_times)
  wait "$(cat "${state}/count-${name}.pid")" || true
  rm -f "${state}/count-${name}.pid"
  read -r b0 t0 <<<"${before}"
  read -r b1 t1 <<<"${after}"
  echo "$(sed 's/rate=/sendrate=/' "${state}/send-${name}.log") $(cat "${state}/count-${name}.log")" \
    "busy=$(((b1 - b0) * 100 / (t1 - t0)))%"
}

field() {   # field NAME LINE
  sed -n "s/.*\b$1=\([^ ]*\).*/\1/p" <<<"$2"
}

echo "live benchmark: ${seconds} s PADI floods from one subscriber, $(nproc) CPU(s), load average $(cut -d' ' -f1-3 /proc/loadavg)"

layout
start_in "${P}-mid" switch "${bin}/pppoe-plus-switch" --topology "${root}/examples/topology.yaml" \
  --netdev "GigabitEthernet0/0/1=${P}-ms" --netdev "XGigabitEthernet0/0/1=${P}-ma" \
  --yangdb-socket "${state}/yangdb.sock" --yangdb-store "${state}/running.xml" \
  --startup-config "${root}/examples/pppoe-plus.xml" --control "${state}/control.sock"
wait_for_line switch "${state}/switch.log" "control socket" 120 ||
  { echo "live_bench: the switch did not start:"; tail -20 "${state}/switch.log"; exit 1; }
# The flood measures the relay, not the punt policer: no limit for it.
for scope in global default; do
  "${bin}/pppoe-plus-cli" --control "${state}/control.sock" world police "${scope}" off >/dev/null
done
switch_line=$(flood switch --vlan 100)
stop_recorded "${state}/switch.pid"

layout
start_in "${P}-mid" relay pppoe-relay -F -C "${P}-ms" -S "${P}-ma"
sleep 1
relay_line=$(flood relay)
stop_recorded "${state}/relay.pid"

report() {   # report TITLE LINE
  printf '  %-16s sent %9s PADI (%7s/s); reached the concentrator %9s (%7s/s), %s with a Vendor-Specific tag; CPU busy %s\n' \
    "$1" "$(field sent "$2")" "$(field sendrate "$2")" "$(field padi "$2")" "$(field rate "$2")" \
    "$(field vendor "$2")" "$(field busy "$2")"
}
report "pppoe-plus-switch" "${switch_line}"
report "pppoe-relay" "${relay_line}"
switch_rate=$(field rate "${switch_line}")
relay_rate=$(field rate "${relay_line}")
if [ "${relay_rate:-0}" -gt 0 ]; then
  echo "  ratio switch / pppoe-relay: $(awk -v s="${switch_rate}" -v r="${relay_rate}" 'BEGIN {printf "%.2f", s / r}')"
fi
echo "  load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
