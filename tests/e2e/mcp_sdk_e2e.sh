#!/bin/sh
# End to end: an assistant built on the official MCP client SDK holds the agent's tools to their
# published contract on three machines: the simulated one (over HTTP and through the stdio
# bridge), a fake battery with a year of history behind it, and a fake battery driven by the
# root helper, where the command tools must land in the battery's files.
#   mcp_sdk_e2e.sh QUOREL_BINARY QUOREL_MCP_BINARY QUOREL_HELPER_BINARY
# Exits 77 (skipped) only when there is no node to run the client with.
set -eu
if ! command -v node > /dev/null 2>&1; then
  echo "SKIP: node is not installed, so the MCP client SDK cannot run (scripts/install-deps.sh)"
  exit 77
fi
absolute() { case "$1" in /*) echo "$1" ;; *) echo "$(pwd)/$1" ;; esac; }
quorel="$(absolute "$1")"
bridge="$(absolute "$2")"
helper="$(absolute "$3")"
here="$(cd "$(dirname "$0")" && pwd)"
client="$here/mcp_sdk"

if [ ! -d "$client/node_modules/@modelcontextprotocol/sdk" ]; then
  command -v npm > /dev/null 2>&1 || { echo "FAIL: node without npm to install the SDK" >&2; exit 1; }
  npm ci --prefix "$client" --no-audit --no-fund --loglevel=error > /dev/null ||
    { echo "FAIL: npm ci could not install the MCP client SDK" >&2; exit 1; }
fi

work="$(mktemp -d)"
agent_pid=""
helper_pid=""
cleanup() {
  for pid in $agent_pid $helper_pid; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; tail -n 40 "$work"/*.log >&2 || true; exit 1; }

export HOME="$work/home" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
export XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$HOME" "$work/run" "$XDG_CONFIG_HOME/quorel" "$work/helper-state"
chmod 700 "$work/run"
data="$XDG_DATA_HOME/quorel"
port=$((20000 + $$ % 20000))
printf '{"Quorel.mcpServerEnabled": true, "Quorel.mcpServerPort": %s}\n' "$port" \
  > "$XDG_CONFIG_HOME/quorel/defaults.json"

start_agent() {  # log, then the agent's arguments
  log="$work/$1.log"
  shift
  rm -f "$data/mcp-endpoint"
  "$quorel" "$@" > "$log" 2>&1 &
  agent_pid=$!
  i=0
  until [ -s "$data/mcp-endpoint" ]; do
    i=$((i + 1)); [ $i -le 150 ] || fail "the agent ($*) published no endpoint"; sleep 0.1
  done
}
stop_agent() {
  kill "$agent_pid" 2>/dev/null || true
  wait "$agent_pid" 2>/dev/null || true
  agent_pid=""
}
assistant() {  # the client's arguments
  node "$client/assistant.mjs" --data-dir "$data" "$@" || fail "the assistant's checks failed ($*)"
}

# --- A laptop in a fake /sys: on its adapter at 71 %, a driver with both thresholds and
# charge_behaviour, and a USB bus with a root hub, two devices, a hub and a built-in camera.
sys="$work/sys"
supplies="$sys/class/power_supply"
mkdir -p "$supplies/AC" "$supplies/BAT0"
printf 'POWER_SUPPLY_NAME=AC\nPOWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=1\n' > "$supplies/AC/uevent"
echo Mains > "$supplies/AC/type"
echo 1 > "$supplies/AC/online"
cat > "$supplies/BAT0/uevent" <<'EOF'
POWER_SUPPLY_NAME=BAT0
POWER_SUPPLY_TYPE=Battery
POWER_SUPPLY_STATUS=Charging
POWER_SUPPLY_PRESENT=1
POWER_SUPPLY_VOLTAGE_NOW=12600000
POWER_SUPPLY_CURRENT_NOW=1500000
POWER_SUPPLY_CHARGE_FULL_DESIGN=4500000
POWER_SUPPLY_CHARGE_FULL=4200000
POWER_SUPPLY_CHARGE_NOW=3000000
POWER_SUPPLY_CAPACITY=71
POWER_SUPPLY_CYCLE_COUNT=12
POWER_SUPPLY_SERIAL_NUMBER=E2E-0001
EOF
echo Battery > "$supplies/BAT0/type"
echo 71 > "$supplies/BAT0/capacity"
echo Charging > "$supplies/BAT0/status"
echo 1 > "$supplies/BAT0/present"
echo 100 > "$supplies/BAT0/charge_control_end_threshold"
echo 0 > "$supplies/BAT0/charge_control_start_threshold"
echo '[auto] inhibit-charge force-discharge' > "$supplies/BAT0/charge_behaviour"

usb_device() {  # name idVendor idProduct class speed bMaxPower product [manufacturer] [removable]
  d="$sys/bus/usb/devices/$1"
  mkdir -p "$d"
  echo "$2" > "$d/idVendor"; echo "$3" > "$d/idProduct"; echo "$4" > "$d/bDeviceClass"
  echo "$5" > "$d/speed"; echo "$6" > "$d/bMaxPower"; echo "$7" > "$d/product"
  [ -z "${8:-}" ] || echo "$8" > "$d/manufacturer"
  [ -z "${9:-}" ] || echo "$9" > "$d/removable"
  echo 1 > "$d/busnum"; echo " 2.00" > "$d/version"; echo e0 > "$d/bmAttributes"
}
usb_device usb1 1d6b 0002 09 480 0mA "xHCI Host Controller" "Linux 6.1.0 xhci-hcd"
usb_device 1-1 046d c31c 00 12 98mA "USB Keyboard" Logitech removable
usb_device 1-2 0781 5583 00 5000 896mA "Ultra Fit" SanDisk removable
usb_device 1-3 05e3 0610 09 480 100mA "USB2.0 Hub" "" removable
usb_device 1-4 04f2 b6dd ef 480 500mA "Integrated Camera" Chicony fixed
mkdir -p "$sys/bus/usb/devices/1-1:1.0"  # an interface, not a device
devices='[
 {"name":"Ultra Fit","vendor_name":"SanDisk","device_type":"unknown","speed":"USB 3.0","bus_power_used_ma":896,"vendor_id":1921,"product_id":21891},
 {"name":"USB Keyboard","vendor_name":"Logitech","device_type":"hid","speed":"USB 1.1","bus_power_used_ma":98,"vendor_id":1133,"product_id":49948},
 {"name":"USB2.0 Hub","vendor_name":null,"device_type":"hub","speed":"USB 2.0","bus_power_used_ma":100,"vendor_id":1507,"product_id":1552}]'

# --- 1. The simulated machine, over HTTP and through the bridge; then on its adapter with a
# power-in reading and two devices plugged in, which it lists in the order of its toggles.
start_agent sandbox --sandbox
assistant --machine sandbox
assistant --machine sandbox --bridge "$bridge"
stop_agent
printf '%s\n' '{"powerSource": "AC (Supplementing)", "adapterWatts": 30, "systemLoad": "Heavy",' \
  '"keyboard": true, "webcam": true}' > "$work/sandbox.json"
start_agent sandbox-ac --sandbox --sandbox-config "$work/sandbox.json"
assistant --machine sandbox --label sandbox-on-ac --expect-devices '[
 {"name":"Magic Keyboard","vendor_name":"Apple Inc.","bus_power_used_ma":20,"vendor_id":1452,"product_id":668},
 {"name":"Logitech C920","vendor_name":"Logitech","bus_power_used_ma":500,"vendor_id":1133,"product_id":2093}]'
stop_agent

# --- 2. The fake battery with a year of history. The agent makes the schema; the year goes in
# with the sqlite3 shell, ending now so that the default windows of the tools find data.
db="$data/quorel.db"
start_agent schema --sysfs-root "$sys" --interval 1
stop_agent
[ -s "$db" ] || fail "the agent made no database at $db"
end=$(( $(date +%s) / 30 * 30 ))
start=$((end - 365 * 86400))
seconds_before=$(date +%s)
sqlite3 "$db" > /dev/null <<EOF || fail "could not write the year of history"
PRAGMA journal_mode = WAL;
BEGIN;
WITH RECURSIVE s(t) AS (SELECT $start UNION ALL SELECT t + 30 FROM s WHERE t + 30 < $end),
  p(t, phase) AS (SELECT t, ((t - $start) % 86400) / 86400.0 FROM s)
INSERT INTO power_samples (timestamp, wattage, battery_pct, temperature_c, observed_duration_s,
  power_in_w, external_connected, ecpu_w, pcpu_w, gpu_w, ane_w, dram_w, component_quality,
  system_power_quality)
SELECT t, CASE WHEN phase > 0.75 THEN 20.0 ELSE -9.0 END, 20 + 70 * phase, 28 + 15 * phase, 30.0,
  CASE WHEN phase > 0.75 THEN 45.0 ELSE NULL END, phase > 0.75, 0.6, 2.0 + phase, 0.8, 0.0, 0.4,
  'measured', 'measured' FROM p;
WITH RECURSIVE s(t) AS (SELECT $start UNION ALL SELECT t + 300 FROM s WHERE t + 300 < $end),
  n(p) AS (VALUES (0), (1), (2), (3), (4), (5), (6), (7), (8))
INSERT INTO process_energy (timestamp, process_name, avg_cpu, avg_watts, peak_watts,
  observed_duration_s, energy_wh, coverage_ratio, quality, source)
SELECT t, 'process-' || p, 10.0 * p, 0.5 + p, (0.5 + p) * 1.5, 300, (0.5 + p) * 300 / 3600.0, 1,
  'measured', 'cpu_package_apportionment' FROM s, n;
WITH RECURSIVE d(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM d WHERE n + 1 < 365),
  days(n, t) AS (SELECT n, $start + n * 86400 FROM d)
INSERT OR REPLACE INTO daily_battery_metrics (day_key, day_start, nominal_capacity_mah,
  design_capacity_mah, cycle_count, health_pct, avg_temperature_c, max_temperature_c)
SELECT date(t, 'unixepoch'), t, 5000 - 2.0 * n, 5000.0, n, 100 - 0.04 * n, 34.0, 41.0 FROM days;
WITH RECURSIVE d(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM d WHERE n + 1 < 365 * 3)
INSERT INTO sessions (id, start_time, end_time, start_pct, end_pct, is_charging, mode, quality,
  confidence, collected_duration_s)
SELECT printf('00000000-0000-4000-8000-%012d', n), $start + (n / 3) * 86400 + (n % 3) * 28800,
  $start + (n / 3) * 86400 + (n % 3) * 28800 + 3600, 30.0, 80.0, n % 3 = 2,
  CASE WHEN n % 3 = 2 THEN 'charging' ELSE 'battery' END, 'measured', 0.9, 3600 FROM d;
WITH RECURSIVE d(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM d WHERE n + 1 < 365)
INSERT INTO collection_intervals (start_time, end_time, status)
SELECT $start + n * 86400, $start + (n + 1) * 86400, 'collected' FROM d;
INSERT INTO battery_epoch (first_seen, serial, baseline_cycle_count, baseline_design_mah,
  baseline_nominal_mah, source)
SELECT $start, 'E2E-0001', 0, 5000, 5000, 'initial' WHERE NOT EXISTS (SELECT 1 FROM battery_epoch);
-- The lifetime counter starts over, so that the agent integrates the whole year.
UPDATE lifetime_energy_state SET last_ts = 0, last_total_w = 0, accumulated_wh = 0;
COMMIT;
EOF
echo "a year of history written in $(( $(date +%s) - seconds_before )) s"
start_agent year --sysfs-root "$sys" --interval 1
assistant --machine year --sys "$sys" --expect-devices "$devices"
stop_agent

# --- 3. The root helper on the same battery: the command tools write its files.
"$helper" --socket "$work/helper.sock" --sysfs-root "$sys" --state-dir "$work/helper-state" \
  --allow-file "$work/none" --allow-uid "$(id -u)" > "$work/helper.log" 2>&1 &
helper_pid=$!
i=0
until [ -S "$work/helper.sock" ]; do i=$((i + 1)); [ $i -le 100 ] || fail "no helper socket"; sleep 0.1; done
start_agent agent-with-helper --sysfs-root "$sys" --helper-socket "$work/helper.sock" --interval 1
i=0
until "$quorel" battery status --json 2>/dev/null | grep -q '"helper_ready":true'; do
  i=$((i + 1)); [ $i -le 150 ] || fail "the agent never linked to the helper"; sleep 0.2
done
assistant --machine helper --sys "$sys" --expect-devices "$devices"
stop_agent
echo "mcp sdk e2e: ok"
