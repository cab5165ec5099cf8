#!/usr/bin/env bash
# Quick start: install what is missing, build, and relay the bundled sample
# subscriber and server captures through the example switch with the agent
# on; then show, decoded by tshark, what left the uplink (the Circuit-ID and
# Remote-ID the agent inserted) and what reached the subscribers (the
# agent's tag stripped). The captures stay in build/demo/ for Wireshark.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2

out="${root}/build/demo"
rm -rf "${out}"
mkdir -p "${out}/ports"
examples="${root}/examples"
echo
echo "== relaying examples/captures through the example switch (settings: examples/pppoe-plus.yaml)"
./build/default/bin/pppoe-plus-switch \
  --topology "${examples}/topology.yaml" \
  --in "GigabitEthernet0/0/1=${examples}/captures/subscribers.pcap" \
  --in "GigabitEthernet0/0/3=${examples}/captures/subscribers-port3.pcap" \
  --in "XGigabitEthernet0/0/1=${examples}/captures/servers.pcap" \
  --out "XGigabitEthernet0/0/1=${out}/uplink.pcap" \
  --capture-dir "${out}/ports" \
  --log-file "${out}/switch.log" "$@"

show() {
  local title=$1 file=$2
  echo
  echo "== ${title} (${file#"${root}"/})"
  tshark -r "${file}" -T fields -E header=y -E separator=$'\t' \
    -e frame.number -e eth.src -e eth.dst -e vlan.id -e pppoe.code \
    -e pppoed.tags.vendor_id -e pppoed.tags.circuit_id -e pppoed.tags.remote_id 2>/dev/null |
    sed -e 's/\t0x09\t/\tPADI\t/; s/\t0x07\t/\tPADO\t/; s/\t0x19\t/\tPADR\t/; s/\t0x65\t/\tPADS\t/; s/\t0xa7\t/\tPADT\t/' |
    column -t -s $'\t' -o '  '
}
show "towards the access concentrator: the agent's Vendor-Specific tag (vendor id, Circuit ID, Remote ID)" \
  "${out}/uplink.pcap"
for capture in "${out}"/ports/*.pcap; do
  show "towards the subscriber on $(basename "${capture}" .pcap | tr _ /): the tag stripped" "${capture}"
done
echo
echo "Captures for Wireshark: ${out#"${root}"/}/uplink.pcap, ${out#"${root}"/}/ports/; the switch's log: ${out#"${root}"/}/switch.log"
