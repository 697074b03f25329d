#pragma once
// Keeps a bus connection's traffic moving on the queue that owns it: Asio waits for the bus's
// socket to be ready or for sd-bus's next deadline, and sd-bus does the reading, writing and
// dispatching to the connection's match and reply callbacks.
//
// Threading: create, pump and close on the owning queue's thread only. The watch never closes
// the bus's socket; that stays sd-bus's.

#include <functional>
#include <memory>

struct sd_bus;

namespace asio {
class io_context;
}

namespace quorel {

class BusWatch : public std::enable_shared_from_this<BusWatch> {
 public:
  // `onLost` runs once, on the owning queue, with sd-bus's negative errno when the connection
  // fails; the watch has stopped by then. `bus` must outlive the watch or its close().
  static std::shared_ptr<BusWatch> create(asio::io_context& io, sd_bus* bus,
                                          std::function<void(int error)> onLost);
  ~BusWatch();
  BusWatch(const BusWatch&) = delete;
  BusWatch& operator=(const BusWatch&) = delete;

  // Starts watching the socket; false (with the negative errno in `error`) when it cannot be.
  bool start(int& error);
  // Dispatches what sd-bus already holds, then waits again. A blocking call on the bus reads
  // messages past its reply into sd-bus's buffer, so call this after every one.
  void pump();
  // Stops waiting; idempotent.
  void close();

 private:
  struct Impl;
  explicit BusWatch(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorel
