#!/usr/bin/env bash
# Runs the demo from a build folder. The demo grows with the transports.
set -euo pipefail
build=${1:-build/release}
here=$(dirname "$0")
ran=0
if [ -x "$build/examples/selfloop_daemon" ]; then
  echo "=== self-loop: one process sends itself requests"
  "$build/examples/selfloop_daemon"
  ran=1
fi
if [ -x "$build/examples/udp_client" ]; then
  echo
  echo "=== UDP: an echo server and a client, two processes on 127.0.0.1"
  "$here/udp_demo.sh" "$build"
  ran=1
fi
if [ "$ran" -eq 0 ]; then
  echo "demo: no demo program has been built yet in $build" >&2
  exit 1
fi
