#!/usr/bin/env bash
# Runs the example programs under Wine, as ctest's example_* tests.
#   run_example.sh <wine-exec> single <program> [arguments...]
#       runs one program; its exit code is the result.
#   run_example.sh <wine-exec> pair <server> <client> [arguments for both...]
#       starts the server on a port of its choice, waits for its ready line
#       ("listening on 127.0.0.1:<port>"), runs the client against that port,
#       then waits for the server to end after its one connection.
set -uo pipefail
wine_exec=$1
mode=$2
shift 2

# TLS examples: the server shows a certificate of a demo CA that the client trusts.
source "$(dirname "$0")/../scripts/lib/demo-pki.sh"
demo_pki_export "${WINEPREFIX:-/tmp}/../demo-pki" || { echo "FAILED: no demo certificates"; exit 1; }

if [ "$mode" = single ]; then
  exec timeout 30 "$wine_exec" "$@"
fi

server=$1
client=$2
shift 2
work=$(mktemp -d)
server_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; [ -s "$work/server.out" ] && sed 's/^/server: /' "$work/server.out"; exit 1; }

# The server's stdout comes through a fifo, so its ready line is read as soon
# as it is written; --seconds bounds the server should the client never come.
mkfifo "$work/fifo"
timeout 30 "$wine_exec" "$server" "$@" --port 0 --connections 1 --seconds 15 >"$work/fifo" &
server_pid=$!
exec 3<"$work/fifo"
read -r -t 20 ready <&3 || fail "the server printed no ready line within 20 s"
echo "server: $ready"
port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9][0-9]*\).*/\1/p' <<<"$ready")
[ -n "$port" ] || fail "no port in the ready line"

timeout 30 "$wine_exec" "$client" "$@" --port "$port"
client_rc=$?
[ "$client_rc" = 0 ] || fail "the client ended with $client_rc"

wait "$server_pid"
server_rc=$?
server_pid=
while read -r -t 5 line <&3; do echo "$line" >>"$work/server.out"; done   # the server's summary
sed 's/^/server: /' "$work/server.out"
[ "$server_rc" = 0 ] || fail "the server ended with $server_rc"
grep -q '^served 1 connection' "$work/server.out" || fail "the server did not count the client's connection"
