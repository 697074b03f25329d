#!/bin/sh
# End to end: heat protection across a restart of the agent. The root helper runs on a fake
# battery charging at 78 % under an 80 % limit; the agent, with a batteryHot rule at 40 °C and a
# hysteresis of 3, pulls the ceiling down to 72 when the battery reaches 41 °C and remembers the
# pause; a new agent finds the pause and puts 80 back once the battery is at 36.9 °C.
#   heat_e2e.sh QUOREL_BINARY QUOREL_HELPER_BINARY
set -eu
quorel="$1"
helper="$2"
work="$(mktemp -d)"
helper_pid=""
agent_pid=""
cleanup() {
  for pid in $agent_pid $helper_pid; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; cat "$work"/agent*.log "$work/helper.log" >&2 || true; exit 1; }

export HOME="$work/home" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
export XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$HOME" "$work/run" "$XDG_CONFIG_HOME/quorel" "$work/helper-state"
chmod 700 "$work/run"
defaults="$XDG_CONFIG_HOME/quorel/defaults.json"

supplies="$work/sys/class/power_supply"
mkdir -p "$supplies/AC" "$supplies/BAT0"
printf 'POWER_SUPPLY_NAME=AC\nPOWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=1\n' > "$supplies/AC/uevent"
echo Mains > "$supplies/AC/type"
echo 1 > "$supplies/AC/online"
# The battery's temperature, in tenths of a degree, as the driver reports it.
battery_at() {
  cat > "$supplies/BAT0/uevent" <<EOT
POWER_SUPPLY_NAME=BAT0
POWER_SUPPLY_TYPE=Battery
POWER_SUPPLY_STATUS=Charging
POWER_SUPPLY_PRESENT=1
POWER_SUPPLY_VOLTAGE_NOW=12600000
POWER_SUPPLY_CURRENT_NOW=1500000
POWER_SUPPLY_CHARGE_FULL_DESIGN=4500000
POWER_SUPPLY_CHARGE_FULL=4200000
POWER_SUPPLY_CHARGE_NOW=3276000
POWER_SUPPLY_CAPACITY=78
POWER_SUPPLY_TEMP=$1
EOT
  echo "$1" > "$supplies/BAT0/temp"
}
battery_at 300
echo Battery > "$supplies/BAT0/type"
echo 78 > "$supplies/BAT0/capacity"
echo Charging > "$supplies/BAT0/status"
echo 1 > "$supplies/BAT0/present"
echo 100 > "$supplies/BAT0/charge_control_end_threshold"
echo 0 > "$supplies/BAT0/charge_control_start_threshold"
echo '[auto] inhibit-charge force-discharge' > "$supplies/BAT0/charge_behaviour"
end_threshold() { tr -d '\n' < "$supplies/BAT0/charge_control_end_threshold"; }
# Waits up to 30 s for a shell condition.
wait_for() {
  i=0
  until eval "$1"; do i=$((i + 1)); [ $i -le 150 ] || fail "$2"; sleep 0.2; done
}

"$helper" --socket "$work/helper.sock" --sysfs-root "$work/sys" --state-dir "$work/helper-state" \
  --allow-file "$work/none" --allow-uid "$(id -u)" > "$work/helper.log" 2>&1 &
helper_pid=$!
wait_for '[ -S "$work/helper.sock" ]' "no helper socket"

"$quorel" settings set lowPowerRules '[{"id":"2E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F62",
  "kind":"batteryHot","enabled":true,"thresholdPercent":20,"temperatureThresholdC":40,
  "bundleID":"","displayName":""}]' > /dev/null || fail "the rule was not stored"
"$quorel" settings set heatProtectionThresholdC 40 > /dev/null
"$quorel" settings set heatProtectionHysteresisC 3 > /dev/null

start_agent() {
  "$quorel" --sysfs-root "$work/sys" --helper-socket "$work/helper.sock" --interval 1 \
    > "$work/agent$1.log" 2>&1 &
  agent_pid=$!
  wait_for '"$quorel" battery status --json 2>/dev/null | grep -q "\"helper_ready\":true"' \
    "the agent never linked to the helper"
}
start_agent 1
"$quorel" battery limit 80 > /dev/null || fail "limit 80 refused"
[ "$(end_threshold)" = 80 ] || fail "limit 80 left the end threshold at $(end_threshold)"

battery_at 410
wait_for '[ "$(end_threshold)" = 72 ]' "41 °C left the end threshold at $(end_threshold), not 72"
grep -q '"LowPowerRulesEngine.heatPauseActive": *true' "$defaults" || fail "no pause recorded"
grep -q '"LowPowerRulesEngine.prePauseChargeLimit": *80' "$defaults" || fail "no limit recorded"

kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the agent did not stop cleanly"
agent_pid=""
[ "$(end_threshold)" = 72 ] || fail "the lowered ceiling did not outlive the agent"

start_agent 2
sleep 3  # still hot: the adopted pause must hold
[ "$(end_threshold)" = 72 ] || fail "a restart at 41 °C ended the pause"
battery_at 369
wait_for '[ "$(end_threshold)" = 80 ]' "36.9 °C left the end threshold at $(end_threshold)"
wait_for '! grep -q "LowPowerRulesEngine.prePauseChargeLimit" "$defaults"' "the limit key stayed"
grep -q '"LowPowerRulesEngine.heatPauseActive": *false' "$defaults" || fail "the pause is still on"
echo "heat protection end to end: ok"
