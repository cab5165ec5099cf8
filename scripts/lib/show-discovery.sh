# Sourced by the quick start and the lab: show_discovery TITLE FILE prints
# tshark's decoding of the PPPoE discovery frames of a capture, one line per
# frame: MACs, VLAN, code and the Vendor-Specific tag's vendor id, Circuit ID
# and Remote ID. Paths under $root are shown relative to it.
show_discovery() {
  local title=$1 file=$2
  echo
  echo "== ${title} (${file#"${root:-}"/})"
  tshark -r "${file}" -T fields -E header=y -E separator=$'\t' \
    -e frame.number -e eth.src -e eth.dst -e vlan.id -e pppoe.code \
    -e pppoed.tags.vendor_id -e pppoed.tags.circuit_id -e pppoed.tags.remote_id 2>/dev/null |
    sed -e 's/\t0x09\t/\tPADI\t/; s/\t0x07\t/\tPADO\t/; s/\t0x19\t/\tPADR\t/; s/\t0x65\t/\tPADS\t/; s/\t0xa7\t/\tPADT\t/' |
    column -t -s $'\t' -o '  '
}
