#!/usr/bin/env bash
# The lab: the example switch (examples/topology.yaml, configured from
# examples/pppoe-plus.xml through its datastore) in a network namespace of
# its own, four of its ports bound to veth pairs, with real PPPoE software
# behind them: two subscribers running rp-pppoe's client and two access
# concentrators running rp-pppoe's pppoe-server.
#
#   sudo bash scripts/lab.sh up       install and build what is missing, then start the lab
#   sudo bash scripts/lab.sh demo     discovery (PADI, PADO, PADR, PADS) from each subscriber, the switch's
#                                     subscriber table, PADT from each; what the concentrators and the
#                                     subscribers saw; the agent's statistics
#   sudo bash scripts/lab.sh status   what runs
#   sudo bash scripts/lab.sh down     remove every namespace, netdev and process the lab made, even after a failure
#
# Layout (P is $LAB_PREFIX):
#
#   P-sub1  P-c1 ─── P-ge1   GigabitEthernet0/0/1  access, VLAN 100  ┐
#   P-sub2  P-c3 ─── P-ge3   GigabitEthernet0/0/3  access, VLAN 101  │ P-sw: pppoe-plus-switch
#   P-ac1   P-t1 ─── P-xge1  XGigabitEthernet0/0/1 trunk, trusted    │
#   P-ac2   P-t2 ─── P-xge2  XGigabitEthernet0/0/2 trunk, untrusted  ┘
#
# The uplinks are VLAN trunks. These machines' kernels have no 802.1Q
# sub-interfaces, so in each concentrator's namespace vlan-demux splits the
# trunk into one untagged veth pair per VLAN (P-dN-V to P-aN-V) and
# pppoe-server listens on the P-aN-V ends. There is no kernel PPP either:
# pppoe-server offers and confirms sessions and runs, instead of pppd,
# scripts/lib/lab-session.sh, which holds each session until the subscriber
# ends it with a PADT (or for 60 seconds); discovery and PADT are what the
# lab shows.
#
# Environment:
#   LAB_PREFIX  prefix of every namespace and netdev name (default "ppl", at most 7 characters)
#   LAB_BUILD   build folder whose programs run (default build/default; when given, nothing is built)
#   LAB_DIR     state folder: process ids, logs, captures, the datastore (default build/lab-<prefix>)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/lib/show-discovery.sh
source scripts/lib/netns.sh

P=${LAB_PREFIX:-ppl}
build=${LAB_BUILD:-${root}/build/default}
state=${LAB_DIR:-${root}/build/lab-${P}}
bin="${build}/bin"
vlans=(100 101)
netconf_port=830   # the switch's NETCONF port inside its namespace
namespaces=("${P}-sw" "${P}-sub1" "${P}-sub2" "${P}-ac1" "${P}-ac2")

# The switch's bound ports: PORT=NETDEV.
switch_ports=(
  "GigabitEthernet0/0/1=${P}-ge1"
  "GigabitEthernet0/0/3=${P}-ge3"
  "XGigabitEthernet0/0/1=${P}-xge1"
  "XGigabitEthernet0/0/2=${P}-xge2"
)

die() {
  echo "lab: $*" >&2
  exit 1
}

say() {
  echo "lab: $*"
}

need_root() {
  [ "$(id -u)" -eq 0 ] || die "needs root (network namespaces, packet sockets): sudo bash scripts/lab.sh $1"
}

cli() {
  "${bin}/pppoe-plus-cli" --socket "${state}/yangdb.sock" --control "${state}/control.sock" "$@"
}

down() {
  need_root down
  remove_namespaces
  rm -f "${state}/yangdb.sock" "${state}/control.sock"
  say "down: namespaces ${namespaces[*]} removed"
}

build_if_needed() {
  if [ -n "${LAB_BUILD:-}" ]; then
    for program in pppoe-plus-switch pppoe-plus-cli vlan-demux; do
      [ -x "${bin}/${program}" ] || die "${bin}/${program} is missing (LAB_BUILD=${LAB_BUILD})"
    done
    return
  fi
  bash scripts/install-deps.sh --lab
  cmake --preset default >/dev/null
  cmake --build --preset default -j2 --target pppoe-plus-switch pppoe-plus-cli vlan-demux
}

up() {
  need_root up
  [ ${#P} -le 7 ] || die "LAB_PREFIX must have at most 7 characters (netdev names are at most 15)"
  build_if_needed
  for program in ip pppoe pppoe-server tshark ssh-keygen; do
    command -v "${program}" >/dev/null || die "${program} is missing: bash scripts/install-deps.sh --lab"
  done
  down >/dev/null
  # From here on a failure takes down whatever was made.
  trap 'status=$?; if [ ${status} -ne 0 ]; then echo "lab: up failed; taking down what was made" >&2; down >/dev/null 2>&1 || true; fi' EXIT
  mkdir -p "${state}"
  rm -rf "${state:?}"/*

  make_namespaces
  veth "${P}-ge1" "${P}-sw" "${P}-c1" "${P}-sub1"
  veth "${P}-ge3" "${P}-sw" "${P}-c3" "${P}-sub2"
  for n in 1 2; do
    local ac="${P}-ac${n}" demux_args=() servers=()
    veth "${P}-xge${n}" "${P}-sw" "${P}-t${n}" "${ac}"
    for v in "${vlans[@]}"; do
      veth "${P}-d${n}-${v}" "${ac}" "${P}-a${n}-${v}" "${ac}"
      demux_args+=(--vlan "${v}=${P}-d${n}-${v}")
      servers+=(-I "${P}-a${n}-${v}")
    done
    start_in "${ac}" "demux${n}" "${bin}/vlan-demux" --trunk "${P}-t${n}" "${demux_args[@]}"
    wait_for_line "demux${n}" "${state}/demux${n}.log" "split into" 20 ||
      die "vlan-demux of ${ac} did not start: $(cat "${state}/demux${n}.log")"
    start_in "${ac}" "server${n}" pppoe-server -F -C "${P}-BRAS-$([ "${n}" = 1 ] && echo A || echo B)" \
      -S internet -q "${root}/scripts/lib/lab-session.sh" "${servers[@]}"
  done

  local switch_args=(
    --yangdb-socket "${state}/yangdb.sock" --yangdb-store "${state}/running.xml"
    --startup-config "${root}/examples/pppoe-plus.xml"
    --control "${state}/control.sock"
  )
  for binding in "${switch_ports[@]}"; do
    switch_args+=(--netdev "${binding}")
  done
  # NETCONF over SSH inside the switch's namespace, for a key made for the lab.
  ssh-keygen -q -t ed25519 -N "" -C "${P}-lab" -f "${state}/netconf-key"
  switch_args+=(--netconf-listen "127.0.0.1:${netconf_port}" --netconf-authorized-keys "${state}/netconf-key.pub")
  start_in "${P}-sw" switch "${bin}/pppoe-plus-switch" --topology "${root}/examples/topology.yaml" "${switch_args[@]}"
  wait_for_line switch "${state}/switch.log" "control socket" 120 ||
    die "the switch did not start: $(tail -20 "${state}/switch.log")"
  trap - EXIT

  say "up: the example switch runs in namespace ${P}-sw (its output: ${state#"${root}"/}/switch.log)"
  say "  subscriber 1: namespace ${P}-sub1, netdev ${P}-c1 on GigabitEthernet0/0/1 (VLAN 100)"
  say "  subscriber 2: namespace ${P}-sub2, netdev ${P}-c3 on GigabitEthernet0/0/3 (VLAN 101)"
  say "  concentrator A (trusted uplink XGigabitEthernet0/0/1): namespace ${P}-ac1"
  say "  concentrator B (untrusted uplink XGigabitEthernet0/0/2): namespace ${P}-ac2"
  say "  discover: ip netns exec ${P}-sub1 pppoe -I ${P}-c1 -d"
  say "  configure: ${bin#"${root}"/}/pppoe-plus-cli --socket ${state#"${root}"/}/yangdb.sock" \
    "--control ${state#"${root}"/}/control.sock show statistics"
  say "  NETCONF: ip netns exec ${P}-sw ssh -i ${state#"${root}"/}/netconf-key -p ${netconf_port} $(id -un)@127.0.0.1 -s netconf"
  say "    (or ncclient in that namespace: manager.connect(host='127.0.0.1', port=${netconf_port}," \
    "username='$(id -un)', key_filename='${state#"${root}"/}/netconf-key', hostkey_verify=False))"
  say "  then: sudo bash scripts/lab.sh demo; sudo bash scripts/lab.sh down"
}

# Captures PPPoE discovery on NETDEV of namespace NS into $state/demo/NAME.pcap.
capture() {
  local ns=$1 netdev=$2 name=$3
  start_in "${ns}" "capture-${name}" tshark -i "${netdev}" -q -w "${state}/demo/${name}.pcap" \
    -f "pppoed or (vlan and pppoed)"
  wait_for_line "capture-${name}" "${state}/capture-${name}.log" "Capturing on" 30 ||
    die "tshark did not start on ${netdev}: $(cat "${state}/capture-${name}.log")"
}

# One subscriber's discovery; the session it got ("id:mac") in sessions[n].
declare -A sessions
discover() {
  local n=$1 ns=$2 netdev=$3 port=$4
  echo
  echo "== subscriber ${n} (namespace ${ns}, ${port}): discovery"
  echo "\$ ip netns exec ${ns} pppoe -I ${netdev} -d"
  local session
  # rp-pppoe prints session 0 when no offer came.
  session=$(ip netns exec "${ns}" timeout 30 pppoe -I "${netdev}" -d) || true
  echo "${session}"
  [[ "${session}" =~ ^[1-9][0-9]*: ]] || die "subscriber ${n} got no session"
  echo "session ${session%%:*} with access concentrator ${session#*:}"
  sessions[${n}]=${session}
}

# A subscriber ends its session with a PADT.
end_session() {
  local n=$1 ns=$2 netdev=$3
  echo
  echo "== subscriber ${n}: PADT"
  echo "\$ ip netns exec ${ns} pppoe -I ${netdev} -k -e ${sessions[${n}]}"
  ip netns exec "${ns}" timeout 10 pppoe -I "${netdev}" -k -e "${sessions[${n}]}"
}

demo() {
  need_root demo
  [ -e "${state}/switch.pid" ] && kill -0 "$(cat "${state}/switch.pid")" 2>/dev/null ||
    die "the lab is not up: sudo bash scripts/lab.sh up"
  rm -rf "${state}/demo"
  mkdir -p "${state}/demo"
  capture "${P}-ac1" "${P}-t1" concentrator-A
  capture "${P}-ac2" "${P}-t2" concentrator-B
  capture "${P}-sub1" "${P}-c1" subscriber-1
  capture "${P}-sub2" "${P}-c3" subscriber-2
  trap 'for c in concentrator-A concentrator-B subscriber-1 subscriber-2; do stop_recorded "${state}/capture-${c}.pid"; done' EXIT

  discover 1 "${P}-sub1" "${P}-c1" "GigabitEthernet0/0/1, VLAN 100"
  discover 2 "${P}-sub2" "${P}-c3" "GigabitEthernet0/0/3, VLAN 101"
  echo
  echo "== the switch's subscriber table: who discovered through which port, with what the agent inserted"
  echo "\$ pppoe-plus-cli show subscribers"
  cli show subscribers
  end_session 1 "${P}-sub1" "${P}-c1"
  end_session 2 "${P}-sub2" "${P}-c3"
  sleep 1   # the last PADT on its way
  echo
  echo "== after the PADTs: their entries are gone"
  echo "\$ pppoe-plus-cli show subscribers"
  cli show subscribers
  for c in concentrator-A concentrator-B subscriber-1 subscriber-2; do
    stop_recorded "${state}/capture-${c}.pid"
  done
  trap - EXIT

  show_discovery "what concentrator A saw on its trunk: the agent's Vendor-Specific tag (vendor id, Circuit ID, Remote ID)" \
    "${state}/demo/concentrator-A.pcap"
  show_discovery "what concentrator B saw on the untrusted uplink: nothing" "${state}/demo/concentrator-B.pcap"
  show_discovery "what subscriber 1 received: no agent tag" "${state}/demo/subscriber-1.pcap"
  show_discovery "what subscriber 2 received: no agent tag" "${state}/demo/subscriber-2.pcap"
  echo
  echo "== the agent's statistics"
  echo "\$ pppoe-plus-cli show statistics"
  cli show statistics
  echo
  echo "== the switch's ports (policed: discovery frames over the punt rate)"
  echo "\$ pppoe-plus-cli world ports"
  cli world ports
  echo
  say "captures for Wireshark: ${state#"${root}"/}/demo/"
}

status() {
  for ns in "${namespaces[@]}"; do
    if has_namespace "${ns}"; then
      echo "${ns}: $(ip netns pids "${ns}" | wc -l) process(es); netdevs: $(ip -n "${ns}" -br link | awk '$1 != "lo" {print $1 " " $2}' | tr '\n' ' ')"
    else
      echo "${ns}: absent"
    fi
  done
}

case "${1:-}" in
  up) up ;;
  demo) demo ;;
  down) down ;;
  status) status ;;
  *) die "usage: sudo bash scripts/lab.sh up|demo|status|down" ;;
esac
