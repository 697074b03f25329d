#include "energy/energy_tracker.hpp"

#include <cmath>
#include <utility>

#include "core/logging.hpp"

namespace quorel {

EnergyTracker::EnergyTracker(Kind kind, SerialQueue& queue, const Clock& clock)
    : kind_(std::move(kind)),
      queue_(queue),
      clock_(clock),
      log_(logging::get(kind_.name)),
      integrator_(kind_.selfCoveredName),
      lastFlush_(clock.now()) {}

EnergyTracker::~EnergyTracker() {
  stop();
  std::lock_guard wait(tickGuard_->running);
  tickGuard_->alive = false;
}

void EnergyTracker::start(double interval_s, QuorelDatabase* database) {
  {
    std::lock_guard lock(bufferLock_);
    database_ = database;
  }
  const std::optional<double> interval = usableInterval(interval_s);
  if (!interval) return;
  std::lock_guard lock(timerLock_);
  if (timer_.pending() && interval_s_ == *interval) return;
  schedule(*interval);
}

void EnergyTracker::updateInterval(double seconds) {
  const std::optional<double> interval = usableInterval(seconds);
  if (!interval) return;
  std::lock_guard lock(timerLock_);
  schedule(*interval);
}

void EnergyTracker::stop() {
  std::lock_guard lock(timerLock_);
  timer_.cancel();
  interval_s_.reset();
}

std::optional<double> EnergyTracker::usableInterval(double seconds) const {
  if (!std::isfinite(seconds) || seconds <= 0) {
    log_->warn("sampling interval {} s is not a positive number — keeping the current schedule",
               seconds);
    return std::nullopt;
  }
  if (seconds < kMinimumInterval_s) {
    log_->warn("sampling interval {} s is below the minimum — sampling every {} s", seconds,
               kMinimumInterval_s);
    return kMinimumInterval_s;
  }
  return seconds;
}

void EnergyTracker::schedule(double interval_s) {
  timer_.cancel();
  interval_s_ = interval_s;
  const Seconds period{interval_s};
  timer_ = queue_.every(period, period, [this, guard = tickGuard_] {
    std::lock_guard running(guard->running);
    if (guard->alive) sampleOnBackground();
  });
}

void EnergyTracker::sampleOnBackground() {
  const EnergyBatch batch = kind_.sample();
  const TimePoint now = clock_.now();
  bool flushDue = false;
  {
    std::lock_guard lock(bufferLock_);
    integrator_.add(batch, now);
    flushDue = secondsBetween(lastFlush_, now) >= kFlushInterval_s;
  }
  if (flushDue) flush();
}

bool EnergyTracker::flush() {
  // A caller whose flush found nothing must still be able to rely on rows another thread's flush
  // took a moment earlier being queued by now; so taking and handing over are one step.
  std::lock_guard ordered(flushLock_);
  const TimePoint now = clock_.now();
  EnergyIntegrator::Accumulators taken;
  QuorelDatabase* database = nullptr;
  {
    std::lock_guard lock(bufferLock_);
    taken = integrator_.takeAccumulators();
    lastFlush_ = now;
    database = database_;
  }
  if (taken.empty() || database == nullptr) return false;
  std::vector<TrackedEnergyRecord> records = EnergyIntegrator::makeRecords(taken, now);
  if (records.empty()) return false;
  kind_.write(*database, std::move(records));
  return true;
}

EnergyIntegrator::RecentBuffer EnergyTracker::recentBuffer() const {
  std::lock_guard lock(bufferLock_);
  return integrator_.recentBuffer();
}

}  // namespace quorel
