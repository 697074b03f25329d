#include "core/batched_poster.hpp"

#include "core/serial_queue.hpp"

namespace quorel::detail {

void sendDrain(SerialQueue& target, std::function<void()> drain) {
  SerialQueue* here = SerialQueue::current();
  if (here == nullptr || here == &target) {
    target.async(std::move(drain));
    return;
  }
  // Posting to the queue we are on wakes nobody; the hop to the target leaves when the work
  // queued here before it is done, with every item that work has added meanwhile.
  here->async([&target, drain = std::move(drain)]() mutable { target.async(std::move(drain)); });
}

}  // namespace quorel::detail
