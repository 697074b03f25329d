#include "core/batched_poster.hpp"

#include <mutex>
#include <utility>
#include <vector>

#include "core/serial_queue.hpp"

namespace quorel {

struct BatchedPoster::State {
  explicit State(SerialQueue& t) : target(t) {}

  SerialQueue& target;
  std::mutex mutex;
  std::vector<std::function<void()>> pending;
  // A drain is on its way to the target; new items join it instead of sending their own.
  bool drainPosted = false;

  // Drains never overlap (one is posted only once the last has taken its batch, and the target
  // runs one job at a time), so the drain owns this; handing it back and forth with `pending`
  // keeps both vectors' storage instead of growing a new one for every batch.
  std::vector<std::function<void()>> spare;

  static void drain(const std::shared_ptr<State>& state) {
    auto batch = std::move(state->spare);
    {
      std::lock_guard lock(state->mutex);
      batch.swap(state->pending);
      state->drainPosted = false;
    }
    for (auto& work : batch) work();
    batch.clear();
    state->spare = std::move(batch);
  }
};

BatchedPoster::BatchedPoster(SerialQueue& target) : state_(std::make_shared<State>(target)) {}

void BatchedPoster::post(std::function<void()> work) const {
  {
    std::lock_guard lock(state_->mutex);
    state_->pending.push_back(std::move(work));
    if (state_->drainPosted) return;
    state_->drainPosted = true;
  }
  auto state = state_;
  SerialQueue* here = SerialQueue::current();
  if (here == nullptr || here == &state->target) {
    state->target.async([state] { State::drain(state); });
    return;
  }
  // Posting to the queue we are on wakes nobody; the hop to the target leaves when the work
  // queued here before it is done, with every item that work has added meanwhile.
  here->async([state] { state->target.async([state] { State::drain(state); }); });
}

}  // namespace quorel
