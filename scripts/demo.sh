#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the demo from a build folder: dmctl demo, which shows the framework over the
# self-loop, UDP on loopback and HDC through the host simulator, between processes, with
# one request that times out on purpose. The example programs in examples/ run as tests.
set -euo pipefail
build=${1:-build/release}
dmctl="$build/tools/dmctl/dmctl"
if [ ! -x "$dmctl" ]; then
  echo "demo: $dmctl has not been built (make demo builds it)" >&2
  exit 1
fi
exec "$dmctl" demo
