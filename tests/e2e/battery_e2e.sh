#!/bin/sh
# End to end: the root helper on a fake battery, the agent on the same tree linked to it, and a
# person and an assistant driving the battery through the one command service. A write lands in
# the battery's files; a guard's refusal is the same sentence at the terminal and over the tools,
# and leaves the files as they were; a helper that stops answering gives the crash sentence.
#   battery_e2e.sh QUOREL_BINARY QUOREL_MCP_BINARY QUOREL_HELPER_BINARY
set -eu
quorel="$1"
bridge="$2"
helper="$3"
. "$(dirname "$0")/e2e_common.sh"

fake_battery 71 300
start_helper
[ "$(end_threshold)" = 100 ] || fail "a fresh helper wrote the battery"

printf '{"Quorel.mcpServerEnabled": true, "Quorel.mcpServerPort": %s}\n' $((20000 + $$ % 20000)) \
  > "$XDG_CONFIG_HOME/quorel/defaults.json"
start_agent agent

# A person at the terminal.
"$quorel" battery limit 80 > "$work/out" || fail "limit 80 exited $?"
[ "$(end_threshold)" = 80 ] || fail "limit 80 left the end threshold at $(end_threshold)"
status=0
"$quorel" battery limit 10 > "$work/out" 2> "$work/err" || status=$?
[ $status = 2 ] || fail "limit 10 exited $status, not 2"
grep -qx 'Charge limit must be between 20 and 100 percent.' "$work/err" || fail "limit 10 said: $(cat "$work/err")"
status=0
"$quorel" battery discharge on > "$work/out" 2> "$work/err" || status=$?
[ $status = 2 ] || fail "discharge at 71 % under an 80 % limit exited $status, not 2"
grep -q '\[auto\]' "$supplies/BAT0/charge_behaviour" || fail "a refused discharge reached the battery"

# An assistant through the bridge: the same refusal in the same words, then a write that lands.
printf '%s\n' \
  '{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"e2e","version":"1"}}}' \
  '{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"set_charge_limit","arguments":{"percent":19}}}' \
  '{"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"set_force_discharge","arguments":{"enabled":true}}}' \
  '{"jsonrpc":"2.0","id":4,"method":"tools/call","params":{"name":"set_charge_limit","arguments":{"percent":65.9}}}' \
  | "$bridge" > "$work/tools.out" 2> "$work/tools.err" || fail "the bridge exited $?"
grep -q '"id":2' "$work/tools.out" && grep '"id":2' "$work/tools.out" |
  grep -q '"code":-32602,"message":"Charge limit must be between 20 and 100 percent."' ||
  fail "set_charge_limit 19 answered: $(cat "$work/tools.out")"
grep '"id":3' "$work/tools.out" |
  grep -q '"message":"Battery is already at or below the 80% limit."' ||
  fail "set_force_discharge answered: $(grep '"id":3' "$work/tools.out")"
grep '"id":4' "$work/tools.out" | grep -q '"isError":false' || fail "set_charge_limit 65.9 failed"
[ "$(end_threshold)" = 65 ] || fail "the tool's 65.9 left the end threshold at $(end_threshold)"

# A helper that stops answering: the crash sentence after the 8-second deadline, exit 1.
kill -STOP "$helper_pid"
status=0
"$quorel" battery limit 70 > "$work/out" 2> "$work/err" || status=$?
kill -CONT "$helper_pid"
[ $status = 1 ] || fail "a silent helper gave exit $status, not 1"
grep -qx "The battery helper didn't respond (it may have crashed). Try again." "$work/err" ||
  fail "a silent helper said: $(cat "$work/err")"
echo "battery end to end: ok"
