#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The UDP demo: an echo server and a client, two processes on 127.0.0.1. The client
# sends four requests; the server answers three and ignores one, which the client's
# framework sends twice more and then reports as timed out. Exit status 0 on success.
set -euo pipefail
build=${1:-build/release}
server="$build/examples/udp_echo_server"
client="$build/examples/udp_client"
for program in "$server" "$client"; do
  [ -x "$program" ] || { echo "udp demo: $program has not been built" >&2; exit 1; }
done

# Only errors from the library's log, so that the transcript stays readable.
export VELMAR_LOG_LEVEL=${VELMAR_LOG_LEVEL:-error}
workdir=$(mktemp -d)
"$server" 0 "$workdir/port" &
server_pid=$!
stop_server() {
  if kill -0 "$server_pid" 2>/dev/null; then
    kill -TERM "$server_pid"
    wait "$server_pid" || return 1
  fi
}
trap 'stop_server || true; rm -rf "$workdir"' EXIT

for _ in $(seq 100); do
  [ -s "$workdir/port" ] && break
  sleep 0.05
done
[ -s "$workdir/port" ] || { echo "udp demo: the server did not start" >&2; exit 1; }

status=0
"$client" 127.0.0.1 "$(cat "$workdir/port")" || status=$?
stop_server || { echo "udp demo: the server did not stop cleanly" >&2; status=1; }
exit "$status"
