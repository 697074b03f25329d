#!/bin/sh
# End to end: an agent reading a power-supply tree that this script changes (discharging, then
# charging on AC, then a new battery serial) must leave samples, a session, a capacity reading
# and its day, an initial then an automatic epoch, and a replacement log line; a second agent
# must refuse to start; SIGTERM must end the first within 2 s with an intact database; and the
# simulated machine must write nothing but the schema.
#   recording_e2e.sh QUOREL_BINARY
set -eu
quorel="$1"
work="$(mktemp -d)"
agent_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill -9 "$agent_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; echo "--- agent log" >&2; cat "$work/agent.err" >&2 || true; exit 1; }

export XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$work/run" "$work/sys/class/power_supply/BAT0" "$work/sys/class/power_supply/AC"
supply="$work/sys/class/power_supply"

battery() {  # status microamps serial
  cat > "$supply/BAT0/uevent.new" <<EOT
POWER_SUPPLY_NAME=BAT0
POWER_SUPPLY_TYPE=Battery
POWER_SUPPLY_STATUS=$1
POWER_SUPPLY_PRESENT=1
POWER_SUPPLY_CYCLE_COUNT=123
POWER_SUPPLY_VOLTAGE_MIN_DESIGN=15400000
POWER_SUPPLY_VOLTAGE_NOW=16000000
POWER_SUPPLY_CURRENT_NOW=$2
POWER_SUPPLY_CHARGE_FULL_DESIGN=5000000
POWER_SUPPLY_CHARGE_FULL=4500000
POWER_SUPPLY_CHARGE_NOW=3000000
POWER_SUPPLY_CAPACITY=66
POWER_SUPPLY_TEMP=312
POWER_SUPPLY_SERIAL_NUMBER=$3
EOT
  mv "$supply/BAT0/uevent.new" "$supply/BAT0/uevent"
}
mains() {
  printf 'POWER_SUPPLY_NAME=AC\nPOWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=%s\n' "$1" \
    > "$supply/AC/uevent.new"
  mv "$supply/AC/uevent.new" "$supply/AC/uevent"
}
count() { sqlite3 "$work/data/quorel.db" "$1"; }

battery Discharging 625000 SERIAL-A   # 16 V x 0.625 A = 10 W out of the pack
mains 0
"$quorel" --sysfs-root "$work/sys" --data-dir "$work/data" --interval 1 2> "$work/agent.err" &
agent_pid=$!
sleep 3
"$quorel" --sysfs-root "$work/sys" --data-dir "$work/data" 2> "$work/second.err" && \
  fail "a second agent on the same user started"
grep -q "Quorel is already running (pid $agent_pid)" "$work/second.err" || \
  fail "the second agent did not name the first: $(cat "$work/second.err")"

sleep 65
mains 1
battery Charging 1250000 SERIAL-A     # 20 W into the pack
sleep 35
battery Charging 1250000 SERIAL-B
sleep 4

start=$(date +%s%N)
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the agent exited with status $?"
agent_pid=""
elapsed_ms=$(( ($(date +%s%N) - start) / 1000000 ))
[ "$elapsed_ms" -lt 2000 ] || fail "SIGTERM took ${elapsed_ms} ms"

[ "$(count 'PRAGMA integrity_check')" = "ok" ] || fail "integrity check"
samples=$(count "SELECT count(*) FROM power_samples")
[ "$samples" -ge 3 ] && [ "$samples" -le 5 ] || fail "expected about one sample per 30 s, got $samples"
[ "$(count "SELECT count(*) FROM power_samples WHERE observed_duration_s BETWEEN 29 AND 32")" -ge 2 ] || \
  fail "observed durations"
[ "$(count "SELECT count(*) FROM power_samples WHERE system_power_quality IS NULL OR component_quality IS NULL")" = 0 ] || \
  fail "quality labels"
[ "$(count "SELECT mode || ' ' || (total_wh > 0.15 AND total_wh < 0.25) || ' ' || (confidence > 0.9) || ' ' || quality FROM sessions")" = "battery 1 1 measured" ] || \
  fail "the discharging session: $(count 'SELECT * FROM sessions')"
[ "$(count "SELECT count(*) FROM capacity_log")" -ge 1 ] || fail "capacity log"
[ "$(count "SELECT count(*) FROM daily_battery_metrics WHERE health_pct > 0")" = 1 ] || fail "daily metrics"
[ "$(count "SELECT group_concat(source || ':' || serial, ' ') FROM (SELECT * FROM battery_epoch ORDER BY id)")" = "initial:SERIAL-A auto:SERIAL-B" ] || \
  fail "epochs: $(count 'SELECT * FROM battery_epoch')"
grep -q "battery replacement detected — serial changed, opened epoch 2" "$work/agent.err" || \
  fail "replacement log line"

# The simulated machine writes nothing but the schema.
"$quorel" --sandbox --data-dir "$work/sandbox" --interval 1 2> "$work/agent.err" &
agent_pid=$!
sleep 35
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the simulated agent exited with status $?"
agent_pid=""
for table in power_samples sessions capacity_log battery_epoch daily_battery_metrics; do
  [ "$(sqlite3 "$work/sandbox/quorel.db" "SELECT count(*) FROM $table")" = 0 ] || \
    fail "the simulated machine wrote to $table"
done
echo "recording end to end: $samples samples, session, capacity, epochs — ok"
