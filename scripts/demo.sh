#!/usr/bin/env bash
# Runs the demo from a build folder. The demo grows with the transports.
set -euo pipefail
build=${1:-build/release}
if [ -x "$build/examples/selfloop_daemon" ]; then
  exec "$build/examples/selfloop_daemon"
fi
echo "demo: no demo program has been built yet in $build" >&2
exit 1
