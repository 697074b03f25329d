#!/bin/sh
# End to end: smart top-off from a calendar file. The root helper runs on a fake battery held at
# an 80 % limit; a calendar rule for "flight" with a 30-minute lead meets an event ten minutes
# away in an iCalendar file, and the agent has the helper release the limit for one top-up. The
# rule then rests: stopping the top-up and starting a new agent, whose first poll sees the same
# event, leaves the limit alone.
#   topoff_e2e.sh QUOREL_BINARY QUOREL_HELPER_BINARY
set -eu
quorel="$1"
helper="$2"
. "$(dirname "$0")/e2e_common.sh"

fake_battery 71 300
start_helper
# The limit first, with no rule yet: the helper keeps it across agents.
start_agent agent0
"$quorel" battery limit 80 > /dev/null || fail "limit 80 refused"
stop_agent

rule=7D1E0A4C-52B8-4E63-A0F1-6C9B2D8E4F17
cat > "$work/trips.ics" <<EOT
BEGIN:VCALENDAR
VERSION:2.0
PRODID:-//Quorel end to end//EN
BEGIN:VEVENT
UID:e2e-flight@quorel.test
DTSTAMP:$(date -u +%Y%m%dT%H%M%SZ)
DTSTART:$(date -u -d '+10 minutes' +%Y%m%dT%H%M%SZ)
DTEND:$(date -u -d '+130 minutes' +%Y%m%dT%H%M%SZ)
SUMMARY:Flight to Lisbon
END:VEVENT
END:VCALENDAR
EOT
"$quorel" calendars add "$work/trips.ics" > /dev/null || fail "the calendar file was refused"
"$quorel" settings set smartTopOffRules "[{\"type\":\"calendar\",\"id\":\"$rule\",
  \"eventTitleSubstring\":\"flight\",\"leadMinutes\":30}]" > /dev/null || fail "the rule was refused"

# The engine polls as soon as the helper link has settled.
start_agent agent1
wait_for '"$quorel" battery status --json | grep -q "\"top_up_active\":true"' "no top-up started"
[ "$(end_threshold)" = 100 ] || fail "the top-up left the end threshold at $(end_threshold)"
grep -q "topOffFires $rule" "$work/agent1.log" || fail "the firing was not logged"
grep -q "\"BatteryControlRulesEngine.cooldown.$rule\"" "$defaults" || fail "no cooldown stored"
[ "$(grep -c "topOffFires" "$work/agent1.log")" = 1 ] || fail "the rule fired more than once"
"$quorel" battery automation --json | grep -q '"calendar_authorization":"full_access"' ||
  fail "the calendar file was not reported readable"

"$quorel" battery top-up off > /dev/null || fail "top-up off refused"
wait_for '[ "$(end_threshold)" = 80 ]' "stopping the top-up left the end threshold at $(end_threshold)"
stop_agent

# A new agent polls at once; the event is still inside the lead, the rule still resting.
start_agent agent2
sleep 3
"$quorel" battery status --json | grep -q '"top_up_active":false' || fail "the rule fired again"
[ "$(end_threshold)" = 80 ] || fail "the limit moved to $(end_threshold) while the rule rested"
! grep -q "topOffFires" "$work/agent2.log" || fail "the resting rule fired after a restart"
echo "smart top-off end to end: ok"
