#!/usr/bin/env bash
# Quick start: install what is missing, build, and start the example switch
# with its datastore: the example configuration (examples/pppoe-plus.xml)
# goes in through the datastore, the bundled sample subscriber and server
# captures are relayed, pppoe-plus-cli queries the agent, and tshark shows
# what left the uplink (the Circuit-ID and Remote-ID the agent inserted) and
# what reached the subscribers (the agent's tag stripped). Everything stays
# in build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/lib/show-discovery.sh
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j2

out="${root}/build/demo"
rm -rf "${out}"
mkdir -p "${out}/ports"
examples="${root}/examples"
bin="${root}/build/default/bin"
cli() {
  echo "\$ pppoe-plus-cli $(printf "%q " "$@")"
  "${bin}/pppoe-plus-cli" --socket "${out}/yangdb.sock" --control "${out}/control.sock" "$@"
}

echo
echo "== the example switch: configuration from examples/pppoe-plus.xml through its datastore, then the sample captures"
"${bin}/pppoe-plus-switch" --stay \
  --topology "${examples}/topology.yaml" \
  --yangdb-socket "${out}/yangdb.sock" --yangdb-store "${out}/running.xml" \
  --startup-config "${examples}/pppoe-plus.xml" \
  --control "${out}/control.sock" \
  --in "GigabitEthernet0/0/1=${examples}/captures/subscribers.pcap" \
  --in "GigabitEthernet0/0/3=${examples}/captures/subscribers-port3.pcap" \
  --in "XGigabitEthernet0/0/1=${examples}/captures/servers.pcap" \
  --out "XGigabitEthernet0/0/1=${out}/uplink.pcap" \
  --capture-dir "${out}/ports" \
  --log-file "${out}/switch.log" "$@" >"${out}/switch.out" 2>&1 &
switch=$!
trap 'kill ${switch} 2>/dev/null || true' EXIT
for _ in $(seq 600); do
  grep -qs "pppoe-plus-switch: fwm:" "${out}/switch.out" && break
  kill -0 ${switch} 2>/dev/null || break
  sleep 0.1
done
grep "^pppoe-plus-switch:" "${out}/switch.out" | grep -v "outstanding" || true
grep -q "pppoe-plus-switch: fwm:" "${out}/switch.out" || { echo "the switch did not finish the replay"; exit 1; }

echo
echo "== the agent, asked through the datastore"
cli show statistics
cli show encapsulation
cli show policy
cli check-format '"%sysname/%port"'
echo
echo "== who discovered through which port, as the forwarding plane saw it"
cli show subscribers
kill -TERM ${switch}
wait ${switch} || true
trap - EXIT

show_discovery "towards the access concentrator: the agent's Vendor-Specific tag (vendor id, Circuit ID, Remote ID)" \
  "${out}/uplink.pcap"
for capture in "${out}"/ports/*.pcap; do
  show_discovery "towards the subscriber on $(basename "${capture}" .pcap | tr _ /): the tag stripped" "${capture}"
done
echo
echo "Captures for Wireshark: ${out#"${root}"/}/uplink.pcap, ${out#"${root}"/}/ports/;" \
  "the switch's output and log: ${out#"${root}"/}/switch.out, switch.log; its saved configuration: running.xml"
