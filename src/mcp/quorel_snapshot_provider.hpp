#pragma once
// What the read tools answer with: the live view model's current state and the history store,
// shaped into the objects assistants receive (mcp/live_snapshot_json.hpp and
// mcp/snapshot_history.hpp).
//
// Threading: every operation is called on the main queue. The live ones answer at once from the
// view model, which lives there. The history ones run their reads as one job on the store's
// queue, never waiting on it from the main queue, and answer through `reply` back on the main
// queue, exactly once; a reply that finds the provider gone is dropped.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"
#include "core/json_text_writer.hpp"
#include "core/json_value.hpp"
#include "core/serial_queue.hpp"
#include "devices/usb_device.hpp"
#include "insights/carbon_footprint_service.hpp"
#include "mcp/live_snapshot_json.hpp"

namespace quorel {

class PowerViewModel;
class QuorelDatabase;
namespace history_text {
class SampleTextCache;
}

class QuorelSnapshotProvider {
 public:
  using Reply = std::function<void(JSONValue)>;
  // The answer as compact JSON text, for answers large enough that building them as a value
  // first would cost more than the reads behind them.
  using TextReply = std::function<void(std::string)>;
  using USBDeviceSource = std::function<std::vector<USBDevice>()>;
  using CarbonRegionSource = std::function<CarbonRegionIntensity()>;

  struct Sources {
    // The live view model; null reads as gone, and the live tools say there is no data yet.
    PowerViewModel* viewModel = nullptr;
    // The history store; null, or a store that could not open, reads as not ready.
    QuorelDatabase* database = nullptr;
    // Today's carbon; required whenever `database` is given.
    CarbonFootprintService* carbon = nullptr;
    // The configured region, read at each call; the first known region when not given.
    CarbonRegionSource carbonRegion;
    // The attached devices; the view model's list when not given.
    USBDeviceSource usbDevices;
    // Names a charger's maker for the adapter's source label; unknown makers when not given.
    live_snapshot_json::ChargerVendorNames chargerVendorNames;
  };

  // The queue and the clock must outlive the provider.
  QuorelSnapshotProvider(SerialQueue& mainQueue, const Clock& clock, Sources sources);
  ~QuorelSnapshotProvider();
  QuorelSnapshotProvider(const QuorelSnapshotProvider&) = delete;
  QuorelSnapshotProvider& operator=(const QuorelSnapshotProvider&) = delete;

  // ISO-8601 with or without fractional seconds; absent for an empty or unreadable text.
  static std::optional<TimePoint> parseISO(const std::optional<std::string>& text);

  JSONValue getCurrentPower() const;
  JSONValue getBatteryStatus() const;
  JSONValue getAdapter() const;
  JSONValue listConnectedDevices() const;
  JSONValue getSystemComponents() const;
  JSONValue getOverview() const;

  // `to` defaults to now, `from` to an hour before `to`.
  void queryPowerHistory(const std::optional<std::string>& from,
                         const std::optional<std::string>& to, int maxPoints, Reply reply);
  // `to` defaults to now, `from` to a day before `to`; `limit` is clamped to 1...500.
  void topEnergyApps(const std::optional<std::string>& from, const std::optional<std::string>& to,
                     std::int64_t limit, Reply reply);
  void listSessions(std::int64_t limit, Reply reply);
  void batteryHealthTrend(Reply reply);
  void energyTotals(Reply reply);

  // The same answers as text: in the json form, what writing the value above gives, byte for
  // byte; in the inString form, that text as it stands inside a JSON string.
  using TextForm = JSONTextWriter::Form;
  void queryPowerHistoryText(const std::optional<std::string>& from,
                             const std::optional<std::string>& to, int maxPoints, TextForm form,
                             TextReply reply);
  void topEnergyAppsText(const std::optional<std::string>& from,
                         const std::optional<std::string>& to, std::int64_t limit, TextForm form,
                         TextReply reply);
  void listSessionsText(std::int64_t limit, TextForm form, TextReply reply);
  void batteryHealthTrendText(TextForm form, TextReply reply);

  static constexpr double kDefaultHistoryWindow_s = 3600;
  static constexpr double kDefaultRankingWindow_s = 86400;

 private:
  const PowerState* currentState() const;
  std::vector<USBDevice> usbDevices() const;
  // Runs `read` as one job on the store's queue and replies with what it gives, or with why
  // the store could not answer, on the main queue.
  void onStore(std::function<Result<JSONValue>(QuorelDatabase&)> read, Reply reply);
  void onStoreText(std::function<Result<std::string>(QuorelDatabase&)> read, TextForm form,
                   TextReply reply);

  SerialQueue& mainQueue_;
  const Clock& clock_;
  Sources sources_;
  // Cleared by the destructor, so that a store job finishing later finds nobody to answer.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  // The samples of the last power-history answer; touched only by jobs on the store's queue.
  std::shared_ptr<history_text::SampleTextCache> sampleTexts_;
};

}  // namespace quorel
