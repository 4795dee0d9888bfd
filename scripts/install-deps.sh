#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building and testing need, when they are missing.
# Safe to run again: it does nothing on a machine that has everything.
# libpcap-dev and tshark serve `dmctl capture` and the dissector's test only: dmctl is
# built without the capture command, and that test skips, where they are missing.
# tshark's install asks whether non-root users may capture; noninteractive keeps its
# default (no) and the question never blocks.
set -euo pipefail

packages=(cmake ninja-build g++ gcc make pkg-config binutils libgtest-dev libgmock-dev
          libbenchmark-dev iproute2 pandoc nlohmann-json3-dev libpcap-dev tshark clang
          libclang-rt-14-dev)

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    sudo_cmd=(sudo)
  else
    echo "install-deps: missing packages (${missing[*]}) and no root rights to install them" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
