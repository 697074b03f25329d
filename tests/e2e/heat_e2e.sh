#!/bin/sh
# End to end: heat protection across a restart of the agent. The root helper runs on a fake
# battery charging at 78 % under an 80 % limit; the agent, with a batteryHot rule at 40 °C and a
# hysteresis of 3, pulls the ceiling down to 72 when the battery reaches 41 °C and remembers the
# pause; a new agent finds the pause and puts 80 back once the battery is at 36.9 °C.
#   heat_e2e.sh QUOREL_BINARY QUOREL_HELPER_BINARY
set -eu
quorel="$1"
helper="$2"
. "$(dirname "$0")/e2e_common.sh"

fake_battery 78 300
start_helper

"$quorel" settings set lowPowerRules '[{"id":"2E4B1C7A-3F51-4F0B-9B8E-2D4C1A7E5F62",
  "kind":"batteryHot","enabled":true,"thresholdPercent":20,"temperatureThresholdC":40,
  "bundleID":"","displayName":""}]' > /dev/null || fail "the rule was not stored"
"$quorel" settings set heatProtectionThresholdC 40 > /dev/null
"$quorel" settings set heatProtectionHysteresisC 3 > /dev/null

start_agent 1
"$quorel" battery limit 80 > /dev/null || fail "limit 80 refused"
[ "$(end_threshold)" = 80 ] || fail "limit 80 left the end threshold at $(end_threshold)"

fake_battery 78 410
wait_for '[ "$(end_threshold)" = 72 ]' "41 °C left the end threshold at $(end_threshold), not 72"
grep -q '"LowPowerRulesEngine.heatPauseActive": *true' "$defaults" || fail "no pause recorded"
grep -q '"LowPowerRulesEngine.prePauseChargeLimit": *80' "$defaults" || fail "no limit recorded"

stop_agent
[ "$(end_threshold)" = 72 ] || fail "the lowered ceiling did not outlive the agent"

start_agent 2
sleep 3  # still hot: the adopted pause must hold
[ "$(end_threshold)" = 72 ] || fail "a restart at 41 °C ended the pause"
fake_battery 78 375  # cooler, but not yet below the threshold less the hysteresis
sleep 3
[ "$(end_threshold)" = 72 ] || fail "37.5 °C ended the pause before 37 °C"
fake_battery 78 369
wait_for '[ "$(end_threshold)" = 80 ]' "36.9 °C left the end threshold at $(end_threshold)"
wait_for '! grep -q "LowPowerRulesEngine.prePauseChargeLimit" "$defaults"' "the limit key stayed"
grep -q '"LowPowerRulesEngine.heatPauseActive": *false' "$defaults" || fail "the pause is still on"
echo "heat protection end to end: ok"
