#pragma once
// Where the application learns that the machine is about to sleep and has woken.

#include <functional>
#include <memory>
#include <string>

namespace quorel {

// Holds the machine awake, within the delay the system grants, while work that must reach the
// disk before sleep finishes. Copies share one hold and may be dropped on any thread; when the
// last copy is gone the machine may sleep. A default-constructed permit holds nothing.
class SleepPermit {
 public:
  SleepPermit() = default;
  explicit SleepPermit(std::function<void()> onRelease)
      : hold_(std::make_shared<Hold>(std::move(onRelease))) {}

  // Gives up this copy's share now rather than at destruction.
  void reset() { hold_.reset(); }

 private:
  struct Hold {
    explicit Hold(std::function<void()> onRelease) : release(std::move(onRelease)) {}
    ~Hold() {
      if (release) release();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    std::function<void()> release;
  };
  std::shared_ptr<Hold> hold_;
};

class SleepWakeSource {
 public:
  virtual ~SleepWakeSource() = default;
  struct Handlers {
    // The permit keeps the machine awake until the handler, and every copy it hands on, has
    // let go of it.
    std::function<void(SleepPermit)> willSleep;
    std::function<void()> didWake;
  };
  // Starts delivering; handlers run on the queue given at construction of the implementation.
  // Returns false (after logging once why) when sleep cannot be observed on this machine.
  // Starting again replaces the handlers.
  virtual bool start(Handlers handlers) = 0;
  // Called on the delivery queue, no handler runs once it returns, not even one already posted.
  // Idempotent.
  virtual void stop() = 0;
  // Where the sleep intervals it reports come from, stored with each collection interval.
  virtual std::string sourceName() const = 0;
};

}  // namespace quorel
