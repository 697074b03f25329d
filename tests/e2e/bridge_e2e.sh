#!/bin/sh
# End to end: one bridge process, as an assistant runs it, answers for an agent that is not
# there, reaches one started afterwards, finds it again once restarted on another port with a
# new token, writes nothing but protocol lines to standard output, and exits 0 as soon as its
# input ends.
#   bridge_e2e.sh QUOREL_BINARY QUOREL_MCP_BINARY
set -eu
quorel="$1"
work="$(mktemp -d)"
agent_pid=""
bridge_pid=""
cleanup() {
  for pid in $agent_pid $bridge_pid; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; cat "$work/out" "$work/err" >&2 || true; exit 1; }

export HOME="$work/home" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
export XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$HOME" "$work/run" "$XDG_CONFIG_HOME/quorel"
endpoint="$XDG_DATA_HOME/quorel/mcp-endpoint"
token="$XDG_DATA_HOME/quorel/mcp-token"

start_agent() {  # port
  printf '{"Quorel.mcpServerEnabled": true, "Quorel.mcpServerPort": %s}\n' "$1" \
    > "$XDG_CONFIG_HOME/quorel/defaults.json"
  rm -f "$endpoint"
  # Not holding the bridge's input open: its end must be the script's alone.
  "$quorel" --sandbox > /dev/null 2>&1 3>&- &
  agent_pid=$!
  i=0
  until [ -s "$endpoint" ]; do i=$((i + 1)); [ $i -le 100 ] || fail "no endpoint"; sleep 0.1; done
}
stop_agent() { kill "$agent_pid"; wait "$agent_pid" || true; agent_pid=""; }
# Sends one line, waits for answer number `n`, and checks it against a pattern.
ask() {  # line n pattern
  printf '%s\n' "$1" >&3
  i=0
  until [ "$(wc -l < "$work/out")" -ge "$2" ]; do
    i=$((i + 1)); [ $i -le 100 ] || fail "no answer to $1"; sleep 0.1
  done
  sed -n "$2p" "$work/out" | grep -q "$3" || fail "answer $2 is not $3"
}

mkfifo "$work/in"
: > "$work/out"
"$2" < "$work/in" > "$work/out" 2> "$work/err" &
bridge_pid=$!
exec 3> "$work/in"

ask '{"jsonrpc":"2.0","id":1,"method":"ping"}' 1 '"code":-32000.*`quorel mcp enable`.*"id":1'
first=$((20000 + $$ % 20000))
start_agent "$first"
printf '%s\n' '{"jsonrpc":"2.0","method":"notifications/initialized"}' >&3
ask '{"jsonrpc":"2.0","id":2,"method":"initialize"}' 2 '"id":2,"jsonrpc":"2.0","result":{"cap'
old_token="$(cat "$token")"
old_endpoint="$(cat "$endpoint")"
stop_agent
rm -f "$token"
start_agent $((first + 1))
[ "$(cat "$endpoint")" != "$old_endpoint" ] || fail "the agent came back on the same port"
[ "$(cat "$token")" != "$old_token" ] || fail "the agent kept its token"
ask '{"jsonrpc":"2.0","id":3,"method":"tools/list"}' 3 '^{"id":3,"jsonrpc":"2.0","result":{"tools":'
ask 'not json' 4 '"code":-32700.*"id":null'

exec 3>&-
# A watchdog ends a bridge that outlives its input by more than 2 s.
( sleep 2; kill -9 "$bridge_pid" ) > /dev/null 2>&1 &
status=0
wait "$bridge_pid" || status=$?
bridge_pid=""
[ "$status" -eq 0 ] || fail "the bridge exited $status (137: not at the end of its input)"
[ "$(wc -l < "$work/out")" -eq 4 ] || fail "more than the four answers on standard output"
stop_agent
echo "bridge e2e: ok"
