#!/bin/sh
# End to end: one bridge process, as an assistant runs it, answers for an agent that is not
# there, reaches one started afterwards, finds it again once restarted on another port with a
# new token, writes nothing but protocol lines to standard output, and exits 0 as soon as its
# input ends.
#   bridge_e2e.sh QUOREL_BINARY QUOREL_MCP_BINARY
set -eu
quorel="$1"
bridge="$2"
work="$(mktemp -d)"
agent_pid=""
bridge_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill -9 "$agent_pid" 2>/dev/null || true
  [ -n "$bridge_pid" ] && kill -9 "$bridge_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  echo "--- bridge output" >&2; cat "$work/out" >&2 || true
  echo "--- bridge log" >&2; cat "$work/err" >&2 || true
  exit 1
}

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
  "$quorel" --sandbox > /dev/null 2> "$work/agent.err" 3>&- &
  agent_pid=$!
  i=0
  until [ -s "$endpoint" ]; do
    i=$((i + 1)); [ $i -le 100 ] || fail "the agent published no endpoint"; sleep 0.1
  done
}
stop_agent() {
  kill "$agent_pid"; wait "$agent_pid" || true; agent_pid=""
}
# Sends one line and waits for the bridge's output to hold `lines` lines.
ask() {  # line lines
  printf '%s\n' "$1" >&3
  i=0
  until [ "$(wc -l < "$work/out")" -ge "$2" ]; do
    i=$((i + 1)); [ $i -le 100 ] || fail "no answer to $1"; sleep 0.1
  done
}

mkfifo "$work/in"
: > "$work/out"
"$bridge" < "$work/in" > "$work/out" 2> "$work/err" &
bridge_pid=$!
exec 3> "$work/in"

ask '{"jsonrpc":"2.0","id":1,"method":"ping"}' 1
sed -n 1p "$work/out" | grep -q '"code":-32000.*`quorel mcp enable`.*"id":1' || fail "no agent: $(sed -n 1p "$work/out")"

first=$((20000 + $$ % 20000))
start_agent "$first"
ask '{"jsonrpc":"2.0","method":"notifications/initialized"}' 1
ask '{"jsonrpc":"2.0","id":2,"method":"initialize","params":{}}' 2
sed -n 2p "$work/out" | grep -q '"id":2,"jsonrpc":"2.0","result":{"capabilities"' || fail "initialize"
old_endpoint="$(cat "$endpoint")"
old_token="$(cat "$token")"

stop_agent
rm -f "$token"
start_agent $((first + 1))
[ "$(cat "$endpoint")" != "$old_endpoint" ] || fail "the agent came back on the same port"
[ "$(cat "$token")" != "$old_token" ] || fail "the agent kept its token"
ask '{"jsonrpc":"2.0","id":3,"method":"tools/list"}' 3
sed -n 3p "$work/out" | grep -q '^{"id":3,"jsonrpc":"2.0","result":{"tools":' || fail "restarted agent"
ask 'not json' 4
sed -n 4p "$work/out" | grep -q '"code":-32700.*"id":null' || fail "parse error"

exec 3>&-
# A watchdog ends a bridge that outlives its input by more than 2 s.
( sleep 2; kill -9 "$bridge_pid" ) > /dev/null 2>&1 &
watchdog=$!
status=0
wait "$bridge_pid" || status=$?
kill "$watchdog" 2>/dev/null || true
[ "$status" -ne 137 ] || fail "the bridge did not exit at the end of its input"
[ "$status" -eq 0 ] || fail "the bridge exited $status"
bridge_pid=""
[ "$(wc -l < "$work/out")" -eq 4 ] || fail "more than the four answers on standard output"
stop_agent
echo "bridge e2e: ok"
