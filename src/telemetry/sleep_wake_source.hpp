#pragma once
// Where the application learns that the machine is about to sleep and has woken.

#include <functional>
#include <string>

namespace quorel {

class SleepWakeSource {
 public:
  virtual ~SleepWakeSource() = default;
  struct Handlers {
    std::function<void()> willSleep;
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
