#!/usr/bin/env bash
# Installs every Debian package the project needs to build and test, skipping what is
# installed already. Safe to run again. Needs root (or sudo) only when something is missing.
set -euo pipefail

PACKAGES=(
  # toolchain and build
  g++ cmake ninja-build ccache clang libclang-rt-14-dev
  # layout and lint: scripts/format.sh, .clang-tidy
  clang-format clang-tidy
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # capture files
  libpcap-dev
  # the agent and the tools: event loop and sockets, configuration, JSON, command lines
  libasio-dev libtomlplusplus-dev nlohmann-json3-dev libcli11-dev
  # flowspec-fwd: the kernel's nftables through libnftables, and the tools its tests drive
  nftables libnftables-dev iproute2
  # flowspec-fwd's XDP backend: libbpf to load the program clang compiles for the BPF target
  # (the kernel headers for linux/bpf.h), bpftool to look at it
  libbpf-dev linux-libc-dev bpftool
  # BGP speakers the interoperability tests peer with (gobgpd also brings the gobgp client
  # the API tests drive)
  gobgpd bird2 exabgp frr
  # the agent's gRPC API for controllers, and the metrics' checker and scraper
  libgrpc++-dev protobuf-compiler-grpc libprotobuf-dev protobuf-compiler prometheus
)
# Extra packages may be named in the environment (space separated).
PACKAGES+=(${EXTRA_PACKAGES:-})

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#PACKAGES[@]} packages are installed"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}"
# Package scripts must not start daemons on this machine: the tests start their own.
policy_created=0
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee /usr/sbin/policy-rc.d >/dev/null
  $SUDO chmod +x /usr/sbin/policy-rc.d
  policy_created=1
fi
trap '[ $policy_created -eq 1 ] && $SUDO rm -f /usr/sbin/policy-rc.d' EXIT
$SUDO apt-get update
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
