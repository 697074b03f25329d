# Shared by the end-to-end scripts that drive a fake battery: a private home and runtime
# directory, a fake power_supply tree, the root helper on it, and waits that give up.
# Source it after setting `quorel` and `helper`; it sets `work`, `supplies` and `defaults`.

work="$(mktemp -d)"
helper_pid=""
agent_pid=""
e2e_cleanup() {
  [ -z "$helper_pid" ] || kill -CONT "$helper_pid" 2>/dev/null || true
  for pid in $agent_pid $helper_pid; do kill -9 "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap e2e_cleanup EXIT
fail() { echo "FAIL: $*" >&2; cat "$work"/*.log >&2 || true; exit 1; }

export HOME="$work/home" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
export XDG_STATE_HOME="$work/state" XDG_RUNTIME_DIR="$work/run"
mkdir -p "$HOME" "$work/run" "$XDG_CONFIG_HOME/quorel" "$work/helper-state"
chmod 700 "$work/run"
defaults="$XDG_CONFIG_HOME/quorel/defaults.json"
supplies="$work/sys/class/power_supply"

# Waits up to 30 s for a shell condition: wait_for CONDITION WHAT-FAILED
wait_for() {
  i=0
  until eval "$1"; do i=$((i + 1)); [ $i -le 150 ] || fail "$2"; sleep 0.2; done
}

# A laptop on its adapter, charging, whose driver has both thresholds and charge_behaviour:
# fake_battery PERCENT TEMPERATURE-IN-TENTHS-OF-A-DEGREE. Called again, it changes the reading.
fake_battery() {
  mkdir -p "$supplies/AC" "$supplies/BAT0"
  printf 'POWER_SUPPLY_NAME=AC\nPOWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=1\n' \
    > "$supplies/AC/uevent"
  echo Mains > "$supplies/AC/type"
  echo 1 > "$supplies/AC/online"
  cat > "$supplies/BAT0/uevent" <<EOT
POWER_SUPPLY_NAME=BAT0
POWER_SUPPLY_TYPE=Battery
POWER_SUPPLY_STATUS=Charging
POWER_SUPPLY_PRESENT=1
POWER_SUPPLY_VOLTAGE_NOW=12600000
POWER_SUPPLY_CURRENT_NOW=1500000
POWER_SUPPLY_CHARGE_FULL_DESIGN=4500000
POWER_SUPPLY_CHARGE_FULL=4200000
POWER_SUPPLY_CHARGE_NOW=$((4200000 * $1 / 100))
POWER_SUPPLY_CAPACITY=$1
POWER_SUPPLY_CYCLE_COUNT=12
POWER_SUPPLY_TEMP=$2
EOT
  echo Battery > "$supplies/BAT0/type"
  echo "$1" > "$supplies/BAT0/capacity"
  echo "$2" > "$supplies/BAT0/temp"
  echo Charging > "$supplies/BAT0/status"
  echo 1 > "$supplies/BAT0/present"
  [ -e "$supplies/BAT0/charge_control_end_threshold" ] || {
    echo 100 > "$supplies/BAT0/charge_control_end_threshold"
    echo 0 > "$supplies/BAT0/charge_control_start_threshold"
    echo '[auto] inhibit-charge force-discharge' > "$supplies/BAT0/charge_behaviour"
  }
}
end_threshold() { tr -d '\n' < "$supplies/BAT0/charge_control_end_threshold"; }

start_helper() {
  "$helper" --socket "$work/helper.sock" --sysfs-root "$work/sys" --state-dir "$work/helper-state" \
    --allow-file "$work/none" --allow-uid "$(id -u)" > "$work/helper.log" 2>&1 &
  helper_pid=$!
  wait_for '[ -S "$work/helper.sock" ]' "no helper socket"
}

# The agent on the fake tree, linked to the helper: start_agent LOG-NAME
start_agent() {
  "$quorel" --sysfs-root "$work/sys" --helper-socket "$work/helper.sock" --interval 1 \
    > "$work/$1.log" 2>&1 &
  agent_pid=$!
  wait_for '"$quorel" battery status --json 2>/dev/null | grep -q "\"helper_ready\":true"' \
    "the agent never linked to the helper"
}
stop_agent() {
  kill -TERM "$agent_pid"
  wait "$agent_pid" || fail "the agent did not stop cleanly"
  agent_pid=""
}
