#pragma once
// Hands items to a handler on a serial queue so that many items ride one wakeup of its thread.
// Waking a sleeping thread costs a system call on each side and a context switch; under load
// most items then cost neither. Items are kept by value in a vector that keeps its storage from
// batch to batch, so passing one costs no allocation once the traffic has warmed it up.
//
// Items posted while an earlier one still waits for the target join it. Posted from work on
// another serial queue, the wakeup itself waits until that queue has finished what it is doing,
// so that everything one handler (an accept loop, a batch of routed requests) produces travels
// together. Order among the items of one poster is kept; relative to work posted to the target
// directly it is not.

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace quorel {

class SerialQueue;

namespace detail {
// Sends `drain` to `target`; from a handler of another queue, only once that handler is done.
void sendDrain(SerialQueue& target, std::function<void()> drain);
}  // namespace detail

template <class Item>
class BatchedPoster {
 public:
  // Runs on the target queue, once for each item, in the order posted.
  using Handler = std::function<void(Item&)>;

  // The target must outlive every item posted (as for SerialQueue::async).
  BatchedPoster(SerialQueue& target, Handler handler)
      : state_(std::make_shared<State>(target, std::move(handler))) {}

  // Safe from any thread. Items still waiting when the poster is destroyed are handled all
  // the same.
  void post(Item item) const {
    {
      std::lock_guard lock(state_->mutex);
      state_->pending.push_back(std::move(item));
      if (state_->drainPosted) return;
      state_->drainPosted = true;
    }
    detail::sendDrain(state_->target, [state = state_] { state->drain(); });
  }

 private:
  struct State {
    State(SerialQueue& t, Handler h) : target(t), handler(std::move(h)) {}

    SerialQueue& target;
    const Handler handler;
    std::mutex mutex;
    std::vector<Item> pending;
    // A drain is on its way to the target; new items join it instead of sending their own.
    bool drainPosted = false;
    // Drains never overlap (one is sent only once the last has taken its batch, and the target
    // runs one job at a time), so the drain owns this; handing it back and forth with `pending`
    // keeps both vectors' storage instead of growing a new one for every batch.
    std::vector<Item> spare;

    void drain() {
      auto batch = std::move(spare);
      {
        std::lock_guard lock(mutex);
        batch.swap(pending);
        drainPosted = false;
      }
      for (auto& item : batch) handler(item);
      batch.clear();
      spare = std::move(batch);
    }
  };
  std::shared_ptr<State> state_;
};

}  // namespace quorel
