#!/bin/sh
# End to end: an agent reading a generated process table and energy counters that this script
# advances (busy programs, an assistant's build under an interpreter under a shell, a model
# runtime's server under its owner, a kernel thread) must store minutes whose rows add up to
# the cores' energy with "Other" taking what no listed program accounts for, attribute each
# program to its assistant, and show both through `quorel history apps|agents --json`.
#   energy_e2e.sh QUOREL_BINARY
set -eu
quorel="$1"
work="$(mktemp -d)"
agent_pid=""
driver_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill -9 "$agent_pid" 2>/dev/null || true
  [ -n "$driver_pid" ] && kill -9 "$driver_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; echo "--- agent log" >&2; cat "$work/agent.err" >&2 || true; exit 1; }

export XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
sys="$work/sys"
proc="$work/proc"
mkdir -p "$work/run" "$sys/class/power_supply/BAT0" "$sys/class/power_supply/AC" "$proc" \
  "$sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/intel-rapl:0:0" "$sys/class/powercap"

cat > "$sys/class/power_supply/BAT0/uevent" <<EOT
POWER_SUPPLY_NAME=BAT0
POWER_SUPPLY_TYPE=Battery
POWER_SUPPLY_STATUS=Discharging
POWER_SUPPLY_PRESENT=1
POWER_SUPPLY_VOLTAGE_NOW=16000000
POWER_SUPPLY_CURRENT_NOW=1000000
POWER_SUPPLY_CHARGE_FULL_DESIGN=5000000
POWER_SUPPLY_CHARGE_FULL=4500000
POWER_SUPPLY_CHARGE_NOW=3000000
POWER_SUPPLY_CAPACITY=66
POWER_SUPPLY_SERIAL_NUMBER=E2E
EOT
printf 'POWER_SUPPLY_NAME=AC\nPOWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=0\n' \
  > "$sys/class/power_supply/AC/uevent"
# As sysfs lays it out: the zones nested under their device, listed flat in the class.
rapl="$sys/devices/virtual/powercap/intel-rapl/intel-rapl:0"
ln -s "$rapl" "$sys/class/powercap/intel-rapl:0"
ln -s "$rapl/intel-rapl:0:0" "$sys/class/powercap/intel-rapl:0:0"
echo package-0 > "$rapl/name"
echo core > "$rapl/intel-rapl:0:0/name"
for zone in "$rapl" "$rapl/intel-rapl:0:0"; do echo 262143328850 > "$zone/max_energy_range_uj"; done

hz=$(getconf CLK_TCK)
printf 'cpu  1 2 3 4\nbtime %s\nprocesses 9\n' "$(($(date +%s) - 3600))" > "$proc/stat"
# process PID PPID NAME FLAGS CMDLINE...: comm, cmdline and a first stat line
process() {
  pid=$1 ppid=$2 name=$3 flags=$4
  shift 4
  mkdir -p "$proc/$pid"
  printf '%s\n' "$name" > "$proc/$pid/comm"
  : > "$proc/$pid/cmdline"
  for arg in "$@"; do printf '%s\0' "$arg" >> "$proc/$pid/cmdline"; done
  echo "$ppid $name $flags" > "$proc/$pid/.meta"
  stat_line "$pid" 0
}
# stat_line PID TICKS: the 52 fields of the kernel's line, with the busy time in utime
stat_line() {
  read -r ppid name flags < "$proc/$1/.meta"
  printf '%s (%s) S %s %s %s 0 -1 %s 0 0 0 0 %s 0 0 0 20 0 1 0 %s 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0 0 0 0 0 0 0 0\n' \
    "$1" "$name" "$ppid" "$1" "$1" "$flags" "$2" "$((1000 + $1))" > "$proc/$1/stat.new"
  mv "$proc/$1/stat.new" "$proc/$1/stat"
}
kthread=2097152   # PF_KTHREAD
process 1 0 systemd 0 /sbin/init
process 2 0 kthreadd "$kthread"
process 40 2 kworker/0:1 "$kthread"
process 100 1 bash 0 bash
process 101 100 node 0 node /home/u/.local/bin/claude --resume
process 102 101 cargo 0 cargo build --release
process 200 1 ollama 0 /usr/bin/ollama serve
process 201 200 llama-server 0 /usr/lib/ollama/llama-server --port 4000
process 300 1 firefox 0 /usr/lib/firefox/firefox

# Busy shares in percent of one core, and the cores' power in watts.
busy="40:10 102:50 201:20 300:30"
core_watts=10
package_watts=15
start_ns=$(date +%s%N)
counter() { echo "$2" > "$1/energy_uj.new" && mv "$1/energy_uj.new" "$1/energy_uj"; }
drive() {
  while :; do
    elapsed_ms=$((($(date +%s%N) - start_ns) / 1000000))
    for entry in $busy; do
      stat_line "${entry%%:*}" $((elapsed_ms * ${entry##*:} * hz / 100000))
    done
    counter "$rapl/intel-rapl:0:0" $((elapsed_ms * core_watts * 1000))
    counter "$rapl" $((elapsed_ms * package_watts * 1000))
    sleep 0.2
  done
}
drive &
driver_pid=$!

"$quorel" --sysfs-root "$sys" --proc-root "$proc" --data-dir "$work/data" --interval 1 \
  2> "$work/agent.err" &
agent_pid=$!
sleep 140
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the agent exited with status $?"
agent_pid=""
kill "$driver_pid"
driver_pid=""

count() { sqlite3 "$work/data/quorel.db" "$1"; }
names=$(count "SELECT group_concat(name, ' ') FROM (SELECT DISTINCT process_name AS name FROM process_energy ORDER BY name)")
[ "$names" = "Other cargo firefox llama-server" ] || fail "process rows: $names"
agents=$(count "SELECT group_concat(id, ' ') FROM (SELECT DISTINCT agent_id AS id FROM ai_agent_energy ORDER BY id)")
[ "$agents" = "claude-code ollama" ] || fail "agent rows: $agents"
[ "$(count "SELECT count(DISTINCT source) FROM process_energy WHERE process_name = 'Other' AND source = 'cpu_package_unattributed'")" = 1 ] || \
  fail "the source of Other"

# Every minute but the first (whose first batch only starts the integration) and the last (cut
# short by the stop) adds up to the cores' power over the time observed, within 2 %: the
# counters here advance in 0.2-second steps, so a 20-second component reading may be off by one.
minutes=$(count "SELECT count(DISTINCT timestamp) FROM process_energy")
[ "$minutes" -ge 3 ] || fail "expected at least 3 flushed minutes, got $minutes"
off=$(count "
  WITH m AS (SELECT timestamp, SUM(energy_wh) AS wh,
                    MAX(CASE WHEN process_name = 'Other' THEN observed_duration_s END) AS seen
             FROM process_energy GROUP BY timestamp ORDER BY timestamp
             LIMIT -1 OFFSET 1)
  SELECT count(*) FROM m
  WHERE timestamp < (SELECT MAX(timestamp) FROM process_energy)
    AND abs(wh * 3600.0 / seen - $core_watts) > 0.02 * $core_watts")
[ "$off" = 0 ] || fail "$off minutes do not add up: $(count "SELECT timestamp, SUM(energy_wh), group_concat(process_name || '=' || energy_wh) FROM process_energy GROUP BY timestamp")"

apps=$("$quorel" history apps --json --data-dir "$work/data" --from 2000-01-01T00:00:00Z)
echo "$apps" | grep -q '"app":"Other"' || fail "history apps: $apps"
agents=$("$quorel" history agents --json --data-dir "$work/data" --from 2000-01-01T00:00:00Z)
echo "$agents" | grep -q '"agent":"claude-code"' || fail "history agents: $agents"
grep -q "used .* ms of CPU" "$work/agent.err" || fail "the agent did not account for its CPU"
echo "energy end to end: $minutes minutes, names $names, agents $agents — ok"
