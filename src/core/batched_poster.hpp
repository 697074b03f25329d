#pragma once
// Hands work to a serial queue so that many items ride one wakeup of its thread. Waking a
// sleeping thread costs a system call on each side and a context switch; under load most items
// then cost neither.
//
// Items posted while an earlier one still waits for the target join it. Posted from work on
// another serial queue, the wakeup itself waits until that queue has finished what it is doing,
// so that everything one handler (an accept loop, a batch of routed requests) produces travels
// together. Order among the items of one poster is kept; relative to work posted to the target
// directly it is not.

#include <functional>
#include <memory>

namespace quorel {

class SerialQueue;

class BatchedPoster {
 public:
  // The target must outlive every item posted (as for SerialQueue::async).
  explicit BatchedPoster(SerialQueue& target);

  // Safe from any thread. Items still waiting when the poster is destroyed run all the same.
  void post(std::function<void()> work) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace quorel
