#include "mcp/quorel_snapshot_provider.hpp"

#include <chrono>

#include "core/iso8601.hpp"
#include "mcp/history_text.hpp"
#include "mcp/sample_text_cache.hpp"
#include "mcp/snapshot_history.hpp"
#include "store/quorel_database.hpp"
#include "telemetry/power_view_model.hpp"

namespace quorel {

namespace {

constexpr std::string_view kDatabaseNotReady = "database not ready";

JSONValue notAvailable(std::string_view reason) {
  return JSONValue::object({{"available", false}, {"reason", reason}});
}

// In the clock's own ticks: a round trip through a double's seconds moves a present-day time
// by up to a quarter microsecond, and the window's start then writes a millisecond early.
TimePoint secondsBefore(TimePoint t, double seconds) {
  return t -
         std::chrono::duration_cast<TimePoint::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

QuorelSnapshotProvider::QuorelSnapshotProvider(SerialQueue& mainQueue, const Clock& clock,
                                               Sources sources)
    : mainQueue_(mainQueue),
      clock_(clock),
      sources_(std::move(sources)),
      sampleTexts_(std::make_shared<history_text::SampleTextCache>()) {}

QuorelSnapshotProvider::~QuorelSnapshotProvider() {
  *alive_ = false;
}

std::optional<TimePoint> QuorelSnapshotProvider::parseISO(const std::optional<std::string>& text) {
  // One reader takes the form with fractional seconds and the form without alike.
  if (!text || text->empty()) return std::nullopt;
  return parseIso8601(*text);
}

const PowerState* QuorelSnapshotProvider::currentState() const {
  if (sources_.viewModel == nullptr || !sources_.viewModel->currentState()) return nullptr;
  return &*sources_.viewModel->currentState();
}

std::vector<USBDevice> QuorelSnapshotProvider::usbDevices() const {
  if (sources_.usbDevices) return sources_.usbDevices();
  if (sources_.viewModel == nullptr) return {};
  return sources_.viewModel->displayState().usbDevices;
}

JSONValue QuorelSnapshotProvider::getCurrentPower() const {
  const PowerState* state = currentState();
  return state ? live_snapshot_json::currentPower(*state) : live_snapshot_json::noPowerData();
}

JSONValue QuorelSnapshotProvider::getBatteryStatus() const {
  const PowerState* state = currentState();
  return state ? live_snapshot_json::batteryStatus(*state) : live_snapshot_json::noPowerData();
}

JSONValue QuorelSnapshotProvider::getAdapter() const {
  const PowerState* state = currentState();
  return state ? live_snapshot_json::adapter(*state, sources_.chargerVendorNames)
               : live_snapshot_json::noPowerData();
}

JSONValue QuorelSnapshotProvider::listConnectedDevices() const {
  return live_snapshot_json::connectedDevices(usbDevices());
}

JSONValue QuorelSnapshotProvider::getSystemComponents() const {
  const PowerState* state = currentState();
  return state ? live_snapshot_json::systemComponents(*state) : live_snapshot_json::noPowerData();
}

JSONValue QuorelSnapshotProvider::getOverview() const {
  const double deviceCount =
      sources_.viewModel == nullptr ? 0 : static_cast<double>(usbDevices().size());
  return JSONValue::object({{"power", getCurrentPower()},
                            {"battery", getBatteryStatus()},
                            {"adapter", getAdapter()},
                            {"device_count", deviceCount}});
}

void QuorelSnapshotProvider::onStore(std::function<Result<JSONValue>(QuorelDatabase&)> read,
                                     Reply reply) {
  QuorelDatabase* db = sources_.database;
  if (db == nullptr) {
    reply(notAvailable(kDatabaseNotReady));
    return;
  }
  // The reads run in place on the store's queue, so the job never waits on another queue and
  // the main queue never waits on this one.
  db->queue().async([db, read = std::move(read), reply = std::move(reply), &main = mainQueue_,
                     alive = alive_]() mutable {
    JSONValue value = notAvailable(kDatabaseNotReady);
    if (db->isAvailable()) {
      Result<JSONValue> answer = read(*db);
      // A read that failed is told in the store's words rather than passed off as no data.
      value = answer ? std::move(*answer) : notAvailable(answer.error().message);
    }
    main.async(
        [alive = std::move(alive), reply = std::move(reply), value = std::move(value)]() mutable {
          if (*alive) reply(std::move(value));
        });
  });
}

void QuorelSnapshotProvider::onStoreText(std::function<Result<std::string>(QuorelDatabase&)> read,
                                         TextForm form, TextReply reply) {
  // The store's own refusals are small values, written and then put in the asked form.
  auto refusal = [form](std::string_view why) {
    const std::string text = *notAvailable(why).write();
    if (form == TextForm::json) return text;
    std::string inString;
    json_text::appendEscaped(inString, text);
    return inString;
  };
  QuorelDatabase* db = sources_.database;
  if (db == nullptr) {
    reply(refusal(kDatabaseNotReady));
    return;
  }
  db->queue().async([db, read = std::move(read), refusal, reply = std::move(reply),
                     &main = mainQueue_, alive = alive_]() mutable {
    std::string text;
    if (!db->isAvailable()) {
      text = refusal(kDatabaseNotReady);
    } else if (Result<std::string> answer = read(*db)) {
      text = std::move(*answer);
    } else {
      text = refusal(answer.error().message);
    }
    main.async(
        [alive = std::move(alive), reply = std::move(reply), text = std::move(text)]() mutable {
          if (*alive) reply(std::move(text));
        });
  });
}

namespace {

// The value form of a text answer; the text is this process's own writing, so it always reads.
QuorelSnapshotProvider::TextReply asValue(QuorelSnapshotProvider::Reply reply) {
  return [reply = std::move(reply)](std::string text) {
    reply(JSONValue::parse(text).value_or(JSONValue()));
  };
}

}  // namespace

void QuorelSnapshotProvider::queryPowerHistoryText(const std::optional<std::string>& from,
                                                   const std::optional<std::string>& to,
                                                   int maxPoints, TextForm form, TextReply reply) {
  const TimePoint end = parseISO(to).value_or(clock_.now());
  const TimePoint start = parseISO(from).value_or(secondsBefore(end, kDefaultHistoryWindow_s));
  onStoreText(
      [start, end, maxPoints, form, cache = sampleTexts_](QuorelDatabase& db) {
        return history_text::powerHistory(db, start, end, maxPoints, form, cache.get());
      },
      form, std::move(reply));
}

void QuorelSnapshotProvider::topEnergyAppsText(const std::optional<std::string>& from,
                                               const std::optional<std::string>& to,
                                               std::int64_t limit, TextForm form, TextReply reply) {
  const TimePoint end = parseISO(to).value_or(clock_.now());
  const TimePoint start = parseISO(from).value_or(secondsBefore(end, kDefaultRankingWindow_s));
  onStoreText(
      [start, end, limit, form](QuorelDatabase& db) {
        return history_text::energyRanking(db, EnergyHistoryKind::processes, start, end, limit,
                                           form);
      },
      form, std::move(reply));
}

void QuorelSnapshotProvider::listSessionsText(std::int64_t limit, TextForm form, TextReply reply) {
  onStoreText(
      [limit, form](QuorelDatabase& db) { return history_text::recentSessions(db, limit, form); },
      form, std::move(reply));
}

void QuorelSnapshotProvider::batteryHealthTrendText(TextForm form, TextReply reply) {
  onStoreText([form](QuorelDatabase& db) { return history_text::batteryHealthTrend(db, form); },
              form, std::move(reply));
}

void QuorelSnapshotProvider::queryPowerHistory(const std::optional<std::string>& from,
                                               const std::optional<std::string>& to, int maxPoints,
                                               Reply reply) {
  queryPowerHistoryText(from, to, maxPoints, TextForm::json, asValue(std::move(reply)));
}

void QuorelSnapshotProvider::topEnergyApps(const std::optional<std::string>& from,
                                           const std::optional<std::string>& to, std::int64_t limit,
                                           Reply reply) {
  topEnergyAppsText(from, to, limit, TextForm::json, asValue(std::move(reply)));
}

void QuorelSnapshotProvider::listSessions(std::int64_t limit, Reply reply) {
  listSessionsText(limit, TextForm::json, asValue(std::move(reply)));
}

void QuorelSnapshotProvider::batteryHealthTrend(Reply reply) {
  batteryHealthTrendText(TextForm::json, asValue(std::move(reply)));
}

void QuorelSnapshotProvider::energyTotals(Reply reply) {
  const CarbonRegionIntensity region =
      sources_.carbonRegion ? sources_.carbonRegion() : kCarbonRegions.front();
  const TimePoint now = clock_.now();
  CarbonFootprintService* carbon = sources_.carbon;
  if (carbon == nullptr) {
    reply(notAvailable(kDatabaseNotReady));
    return;
  }
  onStore(
      [carbon, region, now](QuorelDatabase& db) {
        return snapshot_history::energyTotals(db, *carbon, region, now);
      },
      std::move(reply));
}

}  // namespace quorel
