// An assistant's session with a running agent, through the official MCP client SDK: connect with
// the token and endpoint from the agent's files (or through the stdio bridge), list the tools,
// call every one, and hold each answer to its published keys and the rules between its fields.
//   node assistant.mjs --machine sandbox|year|helper --data-dir DIR [--bridge PATH]
//                      [--sys DIR] [--expect-devices JSON] [--label NAME]
// Prints one line per failed check and exits 1 if there was any.
import { readFileSync } from 'node:fs';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { McpError } from '@modelcontextprotocol/sdk/types.js';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, word, i, all) => {
    if (word.startsWith('--')) pairs.push([word.slice(2), all[i + 1]]);
    return pairs;
  }, []),
);
const machine = args.machine;
const label = args.label ?? machine;
const dataDir = args['data-dir'];
const sysRoot = args.sys;
const catalogue = JSON.parse(readFileSync(new URL('./catalogue.json', import.meta.url), 'utf8'));

let failures = 0;
function check(condition, what) {
  if (!condition) {
    failures += 1;
    console.log(`FAIL [${label}${args.bridge ? ' stdio' : ''}] ${what}`);
  }
  return condition;
}
const show = (v) => JSON.stringify(v);

// ---- shape helpers ----------------------------------------------------------------------------
function exactKeys(object, keys, where) {
  if (!check(object !== null && typeof object === 'object' && !Array.isArray(object),
    `${where}: not an object: ${show(object)}`)) return false;
  const have = Object.keys(object).sort();
  const want = [...keys].sort();
  return check(show(have) === show(want), `${where}: keys ${show(have)}, expected ${show(want)}`);
}
const isNumber = (v) => typeof v === 'number' && Number.isFinite(v);
const numberOrNull = (v) => v === null || isNumber(v);
const integerOrNull = (v) => v === null || Number.isInteger(v);
// Internet date-time with a fraction of a second, as every answer writes its times.
const isoPattern = /^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{1,9}(Z|[+-]\d{2}:\d{2})$/;
const isIso = (v) => typeof v === 'string' && isoPattern.test(v) && !Number.isNaN(Date.parse(v));
const near = (a, b, tolerance = 1e-6) => Math.abs(a - b) <= tolerance * Math.max(1, Math.abs(b));

function allNumbersOrNull(object, keys, where) {
  for (const k of keys) check(numberOrNull(object[k]), `${where}.${k} is ${show(object[k])}`);
}
function allTimes(object, keys, where, nullable = false) {
  for (const k of keys) {
    check(isIso(object[k]) || (nullable && object[k] === null), `${where}.${k} is ${show(object[k])}`);
  }
}

const PHASES = ['On Battery', 'Charging', 'Plugged In', 'Fully Charged', 'On Hold', 'Charge Limit',
  'Thermal Hold', 'Supplementing', 'Boot Surge', 'No Battery'];
const QUALITIES = ['measured', 'estimated', 'inferred', 'legacy', 'rejected', 'unavailable'];
const SESSION_MODES = ['battery', 'charging', 'holding', 'supplementing', 'force_discharge', 'legacy'];
const SPEEDS = ['USB 1.0', 'USB 1.1', 'USB 2.0', 'USB 3.0', 'USB 3.1', 'USB 3.2', 'USB'];
const DEVICE_TYPES = ['hub', 'storage', 'audio', 'hid', 'camera', 'printer', 'network', 'smartCard',
  'wireless', 'vendor', 'unknown'];

// ---- the connection ---------------------------------------------------------------------------
async function connect() {
  const client = new Client({ name: 'quorel-e2e-assistant', version: '1.0.0' });
  if (args.bridge) {
    // The bridge finds the agent through the same files; it needs the agent's environment.
    await client.connect(new StdioClientTransport({
      command: args.bridge, env: { ...process.env }, stderr: 'ignore',
    }));
  } else {
    const token = readFileSync(`${dataDir}/mcp-token`, 'utf8').trim();
    const endpoint = readFileSync(`${dataDir}/mcp-endpoint`, 'utf8').trim();
    check(/^http:\/\/127\.0\.0\.1:\d+\/mcp$/.test(endpoint), `endpoint file holds ${show(endpoint)}`);
    check(/^[A-Za-z0-9_-]{43}$/.test(token), 'the token is 43 URL-safe characters');
    await client.connect(new StreamableHTTPClientTransport(new URL(endpoint), {
      requestInit: { headers: { Authorization: `Bearer ${token}` } },
    }));
  }
  const version = client.getServerVersion();
  check(version?.name === 'quorel', `server name ${show(version)}`);
  check(show(client.getServerCapabilities()) === show({ tools: {} }),
    `capabilities ${show(client.getServerCapabilities())}`);
  return client;
}

async function call(client, name, argumentsObject = {}) {
  const result = await client.callTool({ name, arguments: argumentsObject });
  check(result.isError === false, `${name}: isError is ${show(result.isError)}`);
  check(Array.isArray(result.content) && result.content.length === 1 &&
    result.content[0].type === 'text', `${name}: content is not one text item`);
  return JSON.parse(result.content[0].text);
}

// A JSON-RPC refusal: the SDK raises it, with the server's code and words.
async function refused(client, name, argumentsObject, message) {
  const where = `${name}(${show(argumentsObject)})`;
  try {
    const result = await client.callTool({ name, arguments: argumentsObject });
    check(false, `${where} answered ${show(result).slice(0, 200)} instead of refusing`);
  } catch (error) {
    if (!check(error instanceof McpError, `${where} threw ${error}`)) return;
    check(error.code === -32602, `${where}: code ${error.code}`);
    check(error.message === `MCP error -32602: ${message}`,
      `${where}: said ${show(error.message)}, expected ${show(message)}`);
  }
}

// Key order is not part of the contract, so comparisons sort it away.
function sortDeep(v) {
  if (Array.isArray(v)) return v.map(sortDeep);
  if (v && typeof v === 'object') {
    return Object.fromEntries(Object.keys(v).sort().map((k) => [k, sortDeep(v[k])]));
  }
  return v;
}

// ---- the catalogue ----------------------------------------------------------------------------
async function checkCatalogue(client) {
  const { tools } = await client.listTools();
  check(show(tools.map((t) => t.name)) === show(catalogue.tools.map((t) => t.name)),
    `tool names and order: ${show(tools.map((t) => t.name))}`);
  for (const expected of catalogue.tools) {
    const tool = tools.find((t) => t.name === expected.name);
    if (!check(tool, `${expected.name} is not listed`)) continue;
    exactKeys(tool, ['name', 'description', 'inputSchema'], `tools/list ${tool.name}`);
    check(tool.description === expected.description,
      `${tool.name} description ${show(tool.description)}`);
    check(show(sortDeep(tool.inputSchema)) === show(sortDeep(expected.inputSchema)),
      `${tool.name} schema ${show(tool.inputSchema)}`);
  }
}

// ---- live answers -----------------------------------------------------------------------------
const COMPONENT_KEYS = ['ecpu_w', 'pcpu_w', 'gpu_w', 'ane_w', 'dram_w', 'total_w'];
function checkComponents(c, where) {
  allNumbersOrNull(c, COMPONENT_KEYS, where);
  if (c.total_w !== null) {
    const parts = c.ecpu_w + c.pcpu_w + c.gpu_w + c.ane_w + c.dram_w;
    check(near(c.total_w, parts), `${where}: total_w ${c.total_w} is not the sum ${parts}`);
  } else {
    // A total is withheld only when the CPU and memory figures are, and never alone.
    for (const k of ['ecpu_w', 'pcpu_w', 'dram_w']) {
      check(c[k] === null, `${where}: ${k} ${c[k]} kept while total_w is null`);
    }
  }
}

function checkPower(p, externalConnected, where) {
  if (!exactKeys(p, ['watts', 'battery_flow_w', 'battery_flow_definition', 'battery_flow_quality',
    'power_in_w', 'system_consumption_w', 'system_consumption_definition',
    'system_consumption_quality', 'phase', 'components', 'timestamp'], where)) return;
  check(isNumber(p.watts) && p.battery_flow_w === p.watts,
    `${where}: flow ${p.battery_flow_w} is not watts ${p.watts}`);
  check(p.battery_flow_definition ===
    'signed battery-terminal flow; positive charging, negative discharging', `${where} flow definition`);
  check(p.battery_flow_quality === 'inferred', `${where} flow quality`);
  check(p.system_consumption_definition ===
    'on AC: max(0, power_in_w - battery_flow_w); on battery: max(0, -battery_flow_w)',
  `${where} consumption definition`);
  check(numberOrNull(p.power_in_w), `${where}.power_in_w is ${show(p.power_in_w)}`);
  if (p.power_in_w !== null) {
    check(near(p.system_consumption_w, Math.max(0, p.power_in_w - p.watts)),
      `${where}: consumption ${p.system_consumption_w} from in ${p.power_in_w} and flow ${p.watts}`);
    check(p.system_consumption_quality === 'inferred', `${where} consumption quality`);
  } else if (externalConnected) {
    check(p.system_consumption_w === null && p.system_consumption_quality === 'unavailable',
      `${where}: on AC with no power-in, consumption ${p.system_consumption_w} ` +
      `(${p.system_consumption_quality})`);
  } else {
    check(near(p.system_consumption_w, Math.max(0, -p.watts)),
      `${where}: consumption ${p.system_consumption_w} on battery from flow ${p.watts}`);
  }
  check(PHASES.includes(p.phase), `${where}.phase ${show(p.phase)}`);
  if (exactKeys(p.components, COMPONENT_KEYS, `${where}.components`)) {
    checkComponents(p.components, `${where}.components`);
  }
  check(isIso(p.timestamp), `${where}.timestamp ${show(p.timestamp)}`);
}

function humanTime(minutes, untilFull) {
  const m = Math.abs(minutes);
  const amount = m >= 60 ? `${Math.floor(m / 60)}h ${m % 60}m` : `${m}m`;
  return `${amount} ${untilFull ? 'until full' : 'until empty'}`;
}

function checkBattery(b, where) {
  if (b.available === false) {
    exactKeys(b, ['available', 'reason'], where);
    check(b.reason === 'no battery', `${where}.reason ${show(b.reason)}`);
    return;
  }
  if (!exactKeys(b, ['available', 'percent', 'percent_raw', 'charging', 'phase',
    'external_connected', 'time_remaining_min', 'calculated_time_remaining_min',
    'time_remaining_human', 'temperature_c'], where)) return;
  check(b.available === true, `${where}.available`);
  check(Number.isInteger(b.percent) && b.percent >= 0 && b.percent <= 100, `${where}.percent ${b.percent}`);
  check(isNumber(b.percent_raw) && Math.abs(b.percent - b.percent_raw) <= 1,
    `${where}: percent ${b.percent} far from raw ${b.percent_raw}`);
  check(b.charging === (b.phase === 'Charging' || b.phase === 'Plugged In'),
    `${where}: charging ${b.charging} in phase ${b.phase}`);
  check(typeof b.external_connected === 'boolean', `${where}.external_connected`);
  check(integerOrNull(b.time_remaining_min) && integerOrNull(b.calculated_time_remaining_min),
    `${where}: remaining minutes ${b.time_remaining_min} / ${b.calculated_time_remaining_min}`);
  let expected = null;
  if (b.time_remaining_min !== null) {
    if (b.time_remaining_min !== 0) expected = humanTime(b.time_remaining_min, b.charging);
  } else if (b.calculated_time_remaining_min !== null && b.calculated_time_remaining_min !== 0) {
    expected = humanTime(b.calculated_time_remaining_min, b.calculated_time_remaining_min > 0);
  }
  check(b.time_remaining_human === expected,
    `${where}: time_remaining_human ${show(b.time_remaining_human)}, expected ${show(expected)}`);
  check(b.temperature_c === null || (isNumber(b.temperature_c) && b.temperature_c > 0),
    `${where}.temperature_c ${b.temperature_c}`);
}

function checkAdapter(a, where) {
  if (a.connected === false) return exactKeys(a, ['connected'], where);
  if (!exactKeys(a, ['connected', 'watts', 'actual_watts', 'pd_spec_revision', 'is_apple_source',
    'source_label', 'port_max_power_w', 'cable_type', 'data_speed', 'charging_port'], where)) return;
  check(a.connected === true, `${where}.connected`);
  allNumbersOrNull(a, ['watts', 'actual_watts', 'port_max_power_w', 'charging_port'], where);
  check(a.source_label === null || typeof a.source_label === 'string', `${where}.source_label`);
}

function checkDevices(d, where) {
  if (!exactKeys(d, ['count', 'devices'], where)) return;
  check(Array.isArray(d.devices) && d.count === d.devices.length,
    `${where}: count ${d.count} for ${d.devices?.length} devices`);
  d.devices.forEach((device, i) => {
    const at = `${where}.devices[${i}]`;
    if (!exactKeys(device, ['name', 'vendor_name', 'device_type', 'speed', 'bus_power_used_ma',
      'vendor_id', 'product_id'], at)) return;
    check(SPEEDS.includes(device.speed), `${at}.speed ${show(device.speed)}`);
    check(DEVICE_TYPES.includes(device.device_type), `${at}.device_type ${show(device.device_type)}`);
    check(integerOrNull(device.bus_power_used_ma), `${at}.bus_power_used_ma`);
    check(Number.isInteger(device.vendor_id) && Number.isInteger(device.product_id), `${at} ids`);
  });
  if (args['expect-devices']) {
    const expected = JSON.parse(args['expect-devices']);
    // Only the keys the caller knows are compared; the rest were held to their kinds above.
    const seen = d.devices.map((device, i) =>
      Object.fromEntries(Object.keys(expected[i] ?? device).map((k) => [k, device[k]])));
    check(show(sortDeep(seen)) === show(sortDeep(expected)),
      `${where}: devices ${show(d.devices)}, expected ${show(expected)}`);
  }
}

function checkSystemComponents(s, where) {
  if (s.available === false) {
    exactKeys(s, ['available', 'reason'], where);
    check(['component power unavailable', 'no power data yet'].includes(s.reason),
      `${where}.reason ${show(s.reason)}`);
    return;
  }
  if (!exactKeys(s, ['available', 'complete', ...COMPONENT_KEYS, 'timestamp'], where)) return;
  checkComponents(s, where);
  check(typeof s.complete === 'boolean', `${where}.complete`);
  if (s.complete === false) {
    check(s.ecpu_w === null && s.pcpu_w === null && s.dram_w === null && s.total_w === null,
      `${where}: an incomplete reading kept its CPU and memory figures`);
  }
  check(isIso(s.timestamp), `${where}.timestamp`);
}

async function checkLive(client) {
  const battery = await call(client, 'get_battery_status');
  checkBattery(battery, 'get_battery_status');
  const adapter = await call(client, 'get_adapter');
  checkAdapter(adapter, 'get_adapter');
  const power = await call(client, 'get_current_power');
  checkPower(power, adapter.connected === true, 'get_current_power');
  const devices = await call(client, 'list_connected_devices');
  checkDevices(devices, 'list_connected_devices');
  checkSystemComponents(await call(client, 'get_system_components'), 'get_system_components');

  const overview = await call(client, 'get_overview');
  if (exactKeys(overview, ['power', 'battery', 'adapter', 'device_count'], 'get_overview')) {
    checkPower(overview.power, overview.adapter.connected === true, 'get_overview.power');
    checkBattery(overview.battery, 'get_overview.battery');
    checkAdapter(overview.adapter, 'get_overview.adapter');
    check(overview.device_count === devices.count,
      `get_overview.device_count ${overview.device_count} but ${devices.count} devices listed`);
    // One state behind all three parts.
    if (overview.battery.available) {
      check(overview.power.phase === overview.battery.phase,
        `overview phases ${overview.power.phase} / ${overview.battery.phase}`);
      check(overview.battery.external_connected === overview.adapter.connected,
        'overview: battery and adapter disagree on external power');
    }
  }
  return { battery, adapter, power };
}

// ---- history answers --------------------------------------------------------------------------
const COVERAGE_KEYS = ['ratio', 'confidence', 'collected_s', 'sleep_s', 'missing_s',
  'rejected_values', 'estimated_values'];
function checkCoverage(c, where) {
  if (!exactKeys(c, COVERAGE_KEYS, where)) return;
  allNumbersOrNull(c, COVERAGE_KEYS, where);
  let expected = 0;
  if (c.collected_s > 0) {
    expected = c.ratio - Math.min(0.5, 0.01 * c.rejected_values) -
      Math.min(0.25, 0.002 * c.estimated_values);
    expected = Math.min(1, Math.max(0, expected));
  }
  check(near(c.confidence, expected), `${where}: confidence ${c.confidence}, expected ${expected}`);
}

const SAMPLE_KEYS = ['t', 'watts', 'battery_pct', 'ecpu_w', 'pcpu_w', 'gpu_w', 'ane_w', 'dram_w',
  'component_sum_w', 'component_quality', 'component_rejection_reason', 'power_in_w',
  'system_power_quality', 'apple_wall_energy_estimate_raw_w', 'wall_estimate_quality',
  'observed_duration_s', 'system_total_rail_w', 'battery_rail_w', 'dc_in_rail_w',
  'thunderbolt_left_rail_w', 'thunderbolt_right_rail_w', 'pd_brightness_rail_w', 'charging',
  'external_connected', 'temperature_c'];
function checkSample(s, where) {
  if (!exactKeys(s, SAMPLE_KEYS, where)) return;
  check(isIso(s.t), `${where}.t ${show(s.t)}`);
  allNumbersOrNull(s, ['watts', 'battery_pct', 'ecpu_w', 'pcpu_w', 'gpu_w', 'ane_w', 'dram_w',
    'component_sum_w', 'power_in_w', 'observed_duration_s', 'temperature_c'], where);
  const present = ['ecpu_w', 'pcpu_w', 'gpu_w', 'ane_w', 'dram_w'].filter((k) => s[k] !== null);
  const sum = present.reduce((a, k) => a + s[k], 0);
  check(present.length === 0 ? s.component_sum_w === null : near(s.component_sum_w, sum),
    `${where}: component_sum_w ${s.component_sum_w}, the present parts add to ${sum}`);
  for (const k of ['component_quality', 'system_power_quality', 'wall_estimate_quality']) {
    check(QUALITIES.includes(s[k]), `${where}.${k} ${show(s[k])}`);
  }
}

function secondsBetween(from, to) { return (Date.parse(to) - Date.parse(from)) / 1000; }

async function checkHistory(client, { yearOfHistory }) {
  const now = Date.now();
  const history = await call(client, 'query_power_history');
  if (history.available === false) {
    // Only a store that is not open excuses a history answer; then every one says so alike.
    check(show(history) === show({ available: false, reason: 'database not ready' }),
      `query_power_history ${show(history)}`);
    for (const name of ['top_energy_apps', 'list_sessions', 'battery_health_trend', 'energy_totals']) {
      const answer = await call(client, name);
      check(show(answer) === show(history), `${name} without a store: ${show(answer)}`);
    }
    check(!yearOfHistory, 'the store was not open over a year of history');
    return;
  }
  const powerKeys = ['available', 'from', 'to', 'count', 'coverage', 'samples'];
  exactKeys(history, powerKeys, 'query_power_history');
  check(secondsBetween(history.from, history.to) === 3600,
    `default history window ${history.from} .. ${history.to}`);
  check(Math.abs(Date.parse(history.to) - now) < 60000, `history "to" ${history.to} is not now`);
  check(history.count === history.samples.length, 'history count is not the number of samples');
  checkCoverage(history.coverage, 'query_power_history.coverage');
  history.samples.forEach((s, i) => checkSample(s, `query_power_history.samples[${i}]`));

  const to = new Date(now - 7200 * 1000).toISOString();
  const onlyTo = await call(client, 'query_power_history', { to });
  check(Date.parse(onlyTo.to) === Date.parse(to) && secondsBetween(onlyTo.from, onlyTo.to) === 3600,
    `history with only "to": ${onlyTo.from} .. ${onlyTo.to}`);
  const numericFrom = await call(client, 'query_power_history', { from: 5 });
  check(secondsBetween(numericFrom.from, numericFrom.to) === 3600,
    `a numeric "from" was not ignored: ${numericFrom.from} .. ${numericFrom.to}`);
  const yearFrom = new Date(now - 366 * 86400 * 1000).toISOString();
  const year = await call(client, 'query_power_history', { from: yearFrom, to: new Date(now).toISOString() });
  check(year.count === year.samples.length && year.count <= 240,
    `a year of history gave ${year.count} points, over the 240 budget`);
  check(Date.parse(year.from) === Date.parse(yearFrom), `explicit from came back as ${year.from}`);
  year.samples.forEach((s, i) => checkSample(s, `year samples[${i}]`));
  checkCoverage(year.coverage, 'year coverage');
  for (let i = 1; i < year.samples.length; i += 1) {
    if (Date.parse(year.samples[i].t) < Date.parse(year.samples[i - 1].t)) {
      check(false, `year samples out of order at ${i}`);
      break;
    }
  }
  if (yearOfHistory) {
    check(year.count > 200, `a full year thinned to only ${year.count} points`);
    check(history.count > 0, 'the last hour of a year-long history is empty');
    check(history.coverage.collected_s > 0 && year.coverage.collected_s > 300 * 86400,
      `year coverage collected ${year.coverage.collected_s} s`);
  }

  await checkApps(client, now, yearOfHistory);
  await checkSessions(client, yearOfHistory);
  await checkHealth(client, yearOfHistory);
  await checkTotals(client, yearOfHistory);
}

const APP_KEYS = ['app', 'wh', 'avg_w', 'peak_w', 'current_w', 'observed_duration_s',
  'missing_duration_s', 'coverage_ratio', 'quality', 'source'];
async function checkApps(client, now, yearOfHistory) {
  const apps = await call(client, 'top_energy_apps');
  exactKeys(apps, ['available', 'from', 'to', 'apps'], 'top_energy_apps');
  check(secondsBetween(apps.from, apps.to) === 86400, `default app window ${apps.from} .. ${apps.to}`);
  check(Math.abs(Date.parse(apps.to) - now) < 60000, `top_energy_apps "to" ${apps.to}`);
  check(apps.apps.length <= 8, `default limit gave ${apps.apps.length} apps`);
  apps.apps.forEach((a, i) => {
    const at = `top_energy_apps.apps[${i}]`;
    if (!exactKeys(a, APP_KEYS, at)) return;
    allNumbersOrNull(a, ['wh', 'avg_w', 'peak_w', 'current_w', 'observed_duration_s',
      'missing_duration_s', 'coverage_ratio'], at);
    check(a.source === 'cpu_package_apportionment', `${at}.source ${show(a.source)}`);
    check(QUALITIES.includes(a.quality), `${at}.quality ${show(a.quality)}`);
    if (i > 0) check(apps.apps[i - 1].wh >= a.wh, `${at} ranked above a larger consumer`);
  });
  // The limits: clamped to 1..500, a wrong type means the default, a fraction is cut.
  const sizes = {};
  for (const [name, limit] of [['3', 3], ['0', 0], ['x', 'x'], ['2.9', 2.9], ['9999', 9999]]) {
    sizes[name] = (await call(client, 'top_energy_apps', { limit })).apps.length;
  }
  check(sizes['0'] === Math.min(1, apps.apps.length), `limit 0 gave ${sizes['0']} apps`);
  check(sizes.x === apps.apps.length, `limit "x" gave ${sizes.x}, the default gave ${apps.apps.length}`);
  check(sizes['3'] === Math.min(3, apps.apps.length) && sizes['2.9'] === Math.min(2, apps.apps.length),
    `limits 3 and 2.9 gave ${sizes['3']} and ${sizes['2.9']}`);
  check(sizes['9999'] >= apps.apps.length, `limit 9999 gave ${sizes['9999']}`);
  if (yearOfHistory) {
    // Nine generated processes; the agent may have recorded a few real ones beside them.
    check(apps.apps.length === 8 && sizes['9999'] >= 9, `a year of apps ranked ${apps.apps.length} ` +
      `by default and ${sizes['9999']} unlimited`);
    check(show(apps.apps.slice(0, 3).map((a) => a.app)) === show(['process-8', 'process-7', 'process-6']),
      `the day's largest consumers: ${show(apps.apps.map((a) => a.app))}`);
  }
}

const SESSION_KEYS = ['start', 'end', 'duration_min', 'start_pct', 'end_pct', 'charging', 'mode',
  'avg_watts', 'total_wh', 'battery_energy_wh', 'collected_duration_s', 'missing_duration_s',
  'coverage_ratio', 'confidence', 'quality', 'energy_definition'];
async function checkSessions(client, yearOfHistory) {
  const list = await call(client, 'list_sessions');
  exactKeys(list, ['available', 'count', 'sessions'], 'list_sessions');
  check(list.count === list.sessions.length, `list_sessions count ${list.count}`);
  check(list.count <= 20, `default session limit gave ${list.count}`);
  list.sessions.forEach((s, i) => {
    const at = `list_sessions.sessions[${i}]`;
    if (!exactKeys(s, SESSION_KEYS, at)) return;
    allTimes(s, ['start'], at);
    allTimes(s, ['end'], at, true);
    check(Number.isInteger(s.duration_min), `${at}.duration_min ${s.duration_min}`);
    if (s.end !== null) {
      check(Math.abs(s.duration_min - secondsBetween(s.start, s.end) / 60) <= 0.5,
        `${at}: duration_min ${s.duration_min} for ${s.start} .. ${s.end}`);
    }
    check(s.battery_energy_wh === s.total_wh, `${at}: battery_energy_wh is not total_wh`);
    const observed = s.collected_duration_s + s.missing_duration_s;
    check(near(s.coverage_ratio, observed > 0 ? s.collected_duration_s / observed : 0),
      `${at}: coverage_ratio ${s.coverage_ratio}`);
    check(s.energy_definition === 'absolute battery-side energy over collected intervals',
      `${at}.energy_definition`);
    check(typeof s.charging === 'boolean', `${at}.charging`);
    check(SESSION_MODES.includes(s.mode) && QUALITIES.includes(s.quality),
      `${at}: mode ${show(s.mode)}, quality ${show(s.quality)}`);
  });
  const one = await call(client, 'list_sessions', { limit: -3 });
  check(one.count === Math.min(1, list.count), `limit -3 gave ${one.count} sessions`);
  if (yearOfHistory) {
    check(list.count === 20, `a year of sessions listed ${list.count} by default`);
    const many = await call(client, 'list_sessions', { limit: 100000 });
    check(many.count === 500, `limit 100000 listed ${many.count}, not the 500 ceiling`);
  }
}

const TREND_KEYS = ['t', 'nominal_mah', 'design_mah', 'cycle_count', 'health_pct',
  'average_temperature_c', 'max_observed_temperature_c', 'capacity_sample_count',
  'temperature_observed_s', 'temperature_sample_count', 'quality'];
async function checkHealth(client, yearOfHistory) {
  const health = await call(client, 'get_battery_health');
  const trend = await call(client, 'battery_health_trend');
  check(show(health) === show(trend), 'get_battery_health and battery_health_trend differ');
  if (!exactKeys(health, ['available', 'epoch', 'count', 'trend'], 'battery_health_trend')) return;
  check(health.count === health.trend.length, `health count ${health.count}`);
  if (health.epoch !== null) {
    exactKeys(health.epoch, ['first_seen', 'source', 'serial', 'baseline_cycle_count',
      'baseline_design_mah', 'baseline_nominal_mah'], 'battery_health_trend.epoch');
    allTimes(health.epoch, ['first_seen'], 'battery_health_trend.epoch');
  }
  health.trend.forEach((p, i) => {
    const at = `battery_health_trend.trend[${i}]`;
    if (!exactKeys(p, TREND_KEYS, at)) return;
    allTimes(p, ['t'], at);
    allNumbersOrNull(p, TREND_KEYS.filter((k) => k !== 't' && k !== 'quality'), at);
    check(QUALITIES.includes(p.quality), `${at}.quality ${show(p.quality)}`);
  });
  if (yearOfHistory) {
    check(health.count >= 365, `a year of daily metrics gave ${health.count} points`);
    check(health.epoch !== null, 'a year of history has no battery epoch');
  }
}

async function checkTotals(client, yearOfHistory) {
  const t = await call(client, 'energy_totals');
  if (!exactKeys(t, ['available', 'lifetime_wh', 'lifetime_system_consumption_wh',
    'lifetime_definition', 'lifetime_quality', 'lifetime_from', 'lifetime_to',
    'lifetime_collection_coverage', 'co2_g_today', 'co2_quality', 'co2_definition',
    'today_collection_coverage', 'carbon_region', 'carbon_intensity_g_per_kwh'], 'energy_totals')) return;
  allNumbersOrNull(t, ['lifetime_wh', 'lifetime_system_consumption_wh', 'co2_g_today'], 'energy_totals');
  check(t.lifetime_definition === 'gap-aware trapezoidal integral of inferred whole-system ' +
    'consumption; intervals over 300 seconds and unavailable AC input are excluded',
  'energy_totals.lifetime_definition');
  check(t.co2_definition === "today's gap-aware whole-system energy multiplied by configured " +
    'regional grid intensity', 'energy_totals.co2_definition');
  check(t.lifetime_quality === 'inferred' && t.co2_quality === 'inferred', 'energy_totals qualities');
  allTimes(t, ['lifetime_from', 'lifetime_to'], 'energy_totals', true);
  check((t.lifetime_from === null) === (t.lifetime_to === null), 'energy_totals: half a range');
  checkCoverage(t.lifetime_collection_coverage, 'energy_totals.lifetime_collection_coverage');
  checkCoverage(t.today_collection_coverage, 'energy_totals.today_collection_coverage');
  check(typeof t.carbon_region === 'string' && t.carbon_region.length > 0, 'energy_totals.carbon_region');
  check(isNumber(t.carbon_intensity_g_per_kwh) && t.carbon_intensity_g_per_kwh > 0,
    `energy_totals.carbon_intensity_g_per_kwh ${t.carbon_intensity_g_per_kwh}`);
  if (yearOfHistory) {
    check(secondsBetween(t.lifetime_from, t.lifetime_to) > 364 * 86400,
      `lifetime range ${t.lifetime_from} .. ${t.lifetime_to}`);
    check(t.lifetime_wh > 1000, `a year of use totals ${t.lifetime_wh} Wh`);
  }
}

// ---- battery control --------------------------------------------------------------------------
const STATE_KEYS = ['availability', 'helper_enabled', 'helper_ready', 'charge_limit', 'sailing_band',
  'force_discharge_active', 'top_up_active', 'heat_pause_active', 'capacity_percent',
  'is_on_external_power', 'is_clamshell_closed', 'last_discharge_abort_reason',
  'last_discharge_abort_at'];
const AUTOMATION_KEYS = ['smart_top_off_rules', 'heat_protection_threshold_c',
  'heat_protection_hysteresis_c', 'calendar_authorization', 'location_authorization'];

async function controlState(client) {
  const state = await call(client, 'get_battery_control_state');
  exactKeys(state, STATE_KEYS, 'get_battery_control_state');
  check(['available', 'intel_mac', 'no_battery', 'helper_unsupported_os'].includes(state.availability),
    `availability ${show(state.availability)}`);
  allTimes(state, ['last_discharge_abort_at'], 'get_battery_control_state', true);
  for (const k of ['helper_enabled', 'helper_ready', 'is_on_external_power', 'is_clamshell_closed']) {
    check(typeof state[k] === 'boolean', `get_battery_control_state.${k} is ${show(state[k])}`);
  }
  // Without a helper's state these are unknown, and say so with null rather than a guess.
  for (const k of ['force_discharge_active', 'top_up_active', 'heat_pause_active']) {
    check(state[k] === null || typeof state[k] === 'boolean', `get_battery_control_state.${k}`);
  }
  for (const k of ['charge_limit', 'sailing_band', 'capacity_percent']) {
    check(integerOrNull(state[k]), `get_battery_control_state.${k} is ${show(state[k])}`);
  }
  check(state.charge_limit === null || (state.charge_limit >= 20 && state.charge_limit <= 100),
    `charge_limit ${state.charge_limit}`);
  return state;
}
async function automation(client) {
  const a = await call(client, 'get_battery_automation');
  exactKeys(a, AUTOMATION_KEYS, 'get_battery_automation');
  return a;
}

const CALENDAR = (id, extra = {}) => ({
  type: 'calendar', id, eventTitleSubstring: 'Standup', leadMinutes: 15, ...extra,
});
const GEOFENCE = (id, extra = {}) => ({
  type: 'geofence', id, latitude: 48.2, longitude: 16.37, radiusMeters: 250, label: 'Office', ...extra,
});
const IDS = ['6F9619FF-8B86-D011-B42D-00C04FC964FF', '1B4E28BA-2FA1-11D2-883F-0016D3CCA427',
  '3F2504E0-4F89-11D3-9A0C-0305E82C3301', '7C9E6679-7425-40DE-944B-E07FC1F90AE7'];

async function checkAutomationWrites(client) {
  // A round trip first, so that "unchanged" below is about values this run chose.
  const written = await call(client, 'set_heat_protection', { threshold_c: 44.9, hysteresis_c: 4 });
  check(written.heat_protection_threshold_c === 44 && written.heat_protection_hysteresis_c === 4,
    `set_heat_protection 44.9/4 answered ${show(written)}`);
  const rules = await call(client, 'set_smart_topoff_rules', {
    rules: [CALENDAR(IDS[0].toLowerCase()), GEOFENCE(IDS[1])],
  });
  check(show(sortDeep(rules.smart_top_off_rules)) === show(sortDeep([
    { type: 'calendar', id: IDS[0], event_title_substring: 'Standup', lead_minutes: 15 },
    { type: 'geofence', id: IDS[1], latitude: 48.2, longitude: 16.37, radius_meters: 250, label: 'Office' },
  ])),
  `rules came back as ${show(rules.smart_top_off_rules)}`);
  return automation(client);
}

async function checkRefusals(client, { commandRefusal }) {
  const before = await controlState(client);
  const rulesBefore = await checkAutomationWrites(client);

  const decode = 'Invalid params: Could not decode `rules`: ';
  const table = [
    ['set_charge_limit', { percent: '80' }, 'Invalid params: `percent` (integer) is required.'],
    ['set_charge_limit', {}, 'Invalid params: `percent` (integer) is required.'],
    ['set_charge_limit', { percent: 1e300 }, 'Invalid params: `percent` (integer) is required.'],
    ['set_charge_limit', { percent: 19.99 }, commandRefusal('Charge limit must be between 20 and 100 percent.')],
    ['set_charge_limit', { percent: 101 }, commandRefusal('Charge limit must be between 20 and 100 percent.')],
    ['set_force_discharge', { enabled: 'true' }, 'Invalid params: `enabled` (boolean) is required.'],
    ['set_top_up', { enabled: 1 }, 'Invalid params: `enabled` (boolean) is required.'],
    ['set_heat_protection', { threshold_c: 40 },
      'Invalid params: `threshold_c` and `hysteresis_c` (integers) are required.'],
    ['set_heat_protection', { threshold_c: 40, hysteresis_c: '3' },
      'Invalid params: `threshold_c` and `hysteresis_c` (integers) are required.'],
    ['set_heat_protection', { threshold_c: 46, hysteresis_c: 3 }, 'Heat-protection threshold must be 32–45 °C.'],
    ['set_heat_protection', { threshold_c: 31.9, hysteresis_c: 3 }, 'Heat-protection threshold must be 32–45 °C.'],
    ['set_heat_protection', { threshold_c: 40, hysteresis_c: 0 }, 'Heat-protection hysteresis must be 1–10 °C.'],
    ['set_smart_topoff_rules', { rules: { type: 'calendar' } }, 'Invalid params: `rules` (array) is required.'],
    ['set_smart_topoff_rules', {}, 'Invalid params: `rules` (array) is required.'],
    ['set_smart_topoff_rules', { rules: [{}] }, `${decode}missing key \`type\` at \`Index 0\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0]), 'calendar'] },
      `${decode}wrong type (expected Dictionary<String, Any>) at \`Index 1\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0], { leadMinutes: '15' })] },
      `${decode}wrong type (expected Int) at \`Index 0.leadMinutes\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0], { leadMinutes: null })] },
      `${decode}missing Int value at \`Index 0.leadMinutes\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0]), CALENDAR(IDS[1], { leadMinutes: 121 })] },
      `${decode}leadMinutes 121 outside 5...120 at \`Index 1.leadMinutes\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0], { eventTitleSubstring: ' \n ' })] },
      `${decode}eventTitleSubstring must contain non-whitespace characters at \`Index 0.eventTitleSubstring\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR('not-a-uuid')] },
      `${decode}Attempted to decode UUID from invalid UUID string. at \`Index 0.id\``],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0]), CALENDAR(IDS[0].toLowerCase())] },
      `Rule 1: duplicate rule id ${IDS[0]} — every rule needs a unique id.`],
    ['set_smart_topoff_rules', { rules: [CALENDAR(IDS[0], { leadMinutes: 15.5 })] },
      `${decode}Parsed JSON number <15.5> does not fit in Int. at \`Index 0.leadMinutes\``],
    ['set_smart_topoff_rules', { rules: [GEOFENCE(IDS[0], { latitude: 91 })] },
      `${decode}latitude 91.0 outside [-90, 90] or non-finite at \`Index 0.latitude\``],
    ['set_smart_topoff_rules', { rules: [GEOFENCE(IDS[0]), GEOFENCE(IDS[1], { radiusMeters: 99.5 })] },
      `${decode}radiusMeters 99.5 outside 100.0...1000.0 or non-finite at \`Index 1.radiusMeters\``],
    ['set_smart_topoff_rules', { rules: IDS.map((id) => CALENDAR(id)) }, 'At most 3 calendar rules are allowed.'],
    ['set_smart_topoff_rules', { rules: [GEOFENCE(IDS[0]), GEOFENCE(IDS[1])] }, 'At most 1 geofence rule is allowed.'],
    ['Get_Current_Power', {}, 'Invalid params: Unknown tool: Get_Current_Power'],
    ['get_current_power ', {}, 'Invalid params: Unknown tool: get_current_power '],
  ];
  for (const [name, argumentsObject, message] of table) await refused(client, name, argumentsObject, message);

  // A call without a name is the protocol's own refusal, before any tool.
  try {
    await client.request({ method: 'tools/call', params: { name: 5 } },
      (await import('@modelcontextprotocol/sdk/types.js')).CallToolResultSchema);
    check(false, 'tools/call with a numeric name was answered');
  } catch (error) {
    check(error.code === -32602 &&
      error.message === 'MCP error -32602: Invalid params: `name` is required for tools/call.',
    `tools/call with a numeric name: ${error.message}`);
  }

  const after = await controlState(client);
  check(after.charge_limit === before.charge_limit,
    `charge limit ${before.charge_limit} became ${after.charge_limit} through refusals`);
  const rulesAfter = await automation(client);
  check(show(rulesAfter) === show(rulesBefore),
    `automation changed through refusals: ${show(rulesBefore)} -> ${show(rulesAfter)}`);
  return after;
}

// ---- the helper's writes ----------------------------------------------------------------------
function sysfs(file) { return readFileSync(`${sysRoot}/class/power_supply/BAT0/${file}`, 'utf8').trim(); }
const sleep = (ms) => new Promise((resolve) => { setTimeout(resolve, ms); });
async function eventually(what, test, tries = 50) {
  for (let i = 0; i < tries; i += 1) {
    if (await test()) return true;
    await sleep(100);
  }
  return check(false, what);
}

async function checkCommands(client) {
  const state = await call(client, 'set_charge_limit', { percent: 60.7 });
  exactKeys(state, STATE_KEYS, 'set_charge_limit answer');
  check(sysfs('charge_control_end_threshold') === '60',
    `set_charge_limit 60.7 left the end threshold at ${sysfs('charge_control_end_threshold')}`);
  // The answer may predate the helper's refreshed state; the state tool catches up.
  await eventually('the control state never showed the 60 % limit',
    async () => (await controlState(client)).charge_limit === 60);

  await call(client, 'set_force_discharge', { enabled: true });
  // The kernel shows the choice in brackets; the fake file holds what the helper wrote.
  check(/(^|\[)force-discharge(\]|$)/.test(sysfs('charge_behaviour')),
    `force discharge left charge_behaviour at ${sysfs('charge_behaviour')}`);
  await call(client, 'set_force_discharge', { enabled: false });
  check(/(^|\[)auto(\]|$)/.test(sysfs('charge_behaviour')),
    `stopping discharge left charge_behaviour at ${sysfs('charge_behaviour')}`);

  await call(client, 'set_top_up', { enabled: true });
  check(sysfs('charge_control_end_threshold') === '100',
    `a top-up left the end threshold at ${sysfs('charge_control_end_threshold')}`);
  // The fake battery charges at some 19 W, so a second top-up finds it already filling.
  await refused(client, 'set_top_up', { enabled: true }, 'Already charging to full.');
  await call(client, 'set_top_up', { enabled: false });
  check(sysfs('charge_control_end_threshold') === '60',
    `a cancelled top-up left the end threshold at ${sysfs('charge_control_end_threshold')}`);
}

// ---- the session ------------------------------------------------------------------------------
async function main() {
  const client = await connect();
  try {
    // The endpoint is published before the first reading; an assistant that asks that early is
    // told so, and asks again.
    const first = await call(client, 'get_current_power');
    if (first.available === false) {
      check(show(first) === show({ available: false, reason: 'no power data yet' }),
        `get_current_power before the first reading: ${show(first)}`);
      await eventually('no power reading within 15 s', async () =>
        (await call(client, 'get_current_power')).available !== false, 150);
    }
    await checkCatalogue(client);
    await checkLive(client);
    await checkHistory(client, { yearOfHistory: machine === 'year' });
    const state = await controlState(client);
    const battery = await call(client, 'get_battery_status');
    // The gating inputs are the same live reading the battery tool shows.
    if (battery.available) {
      check(state.is_on_external_power === battery.external_connected,
        `control state on external power ${state.is_on_external_power}, battery ${battery.external_connected}`);
      check(Math.abs(state.capacity_percent - battery.percent) <= 1,
        `control state capacity ${state.capacity_percent}, battery ${battery.percent}`);
    }
    const helperReady = state.helper_ready === true;
    const notEnabled = 'Battery control isn\'t enabled — turn it on in Quorel → Settings → Battery Control.';
    if (machine === 'helper') check(helperReady, `the helper is not ready: ${show(state)}`);
    const limitFile = machine === 'sandbox' ? null : () => sysfs('charge_control_end_threshold');
    const fileBefore = limitFile?.();
    await checkRefusals(client, { commandRefusal: (m) => (helperReady ? m : notEnabled) });
    if (limitFile) {
      check(limitFile() === fileBefore, `refusals moved the end threshold ${fileBefore} -> ${limitFile()}`);
    }
    if (machine === 'helper') await checkCommands(client);
  } finally {
    await client.close();
  }
}

try {
  await main();
} catch (error) {
  failures += 1;
  console.log(`FAIL [${label}] the session broke off: ${error?.stack ?? error}`);
}
console.log(`assistant [${label}${args.bridge ? ' stdio' : ' http'}]: ${failures} failed checks`);
process.exit(failures === 0 ? 0 : 1);
