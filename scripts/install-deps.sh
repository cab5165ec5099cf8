#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need (as root, or
# through sudo). Packages already present are left alone. tshark decodes the
# captures the interop tests and the quick start write; bsdextrautils gives
# the quick start its column(1); libyang checks the YANG model and yanglint
# (libyang-tools) lints it; libnetconf2 and libssh give the switch its
# NETCONF server, which python3-ncclient drives in the tests; libnl-route-3
# follows the links of live ports; clang-format and clang-tidy hold the
# style. With --lab, also what the lab (scripts/lab.sh), its tests and the
# live benchmark run: rp-pppoe's client, server and relay (pppoe), iproute2,
# ssh-keygen (openssh-client) for the lab's NETCONF key.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config g++ clang-14 libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  libsafec-dev libyaml-cpp-dev libcli11-dev libpcap-dev libxml2-dev
  libyang2-dev libyang-tools libnl-3-dev libnl-route-3-dev
  libnetconf2-dev libssh-dev python3-ncclient
  tshark bsdextrautils
  clang-format-14 clang-tidy-14
)
if [ "${1:-}" = "--lab" ]; then
  packages+=(pppoe iproute2 openssh-client)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
