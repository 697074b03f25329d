#include "platform/linux/bus_watch.hpp"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>

namespace quorel {

struct BusWatch::Impl {
  Impl(asio::io_context& io, sd_bus* b, std::function<void(int)> lost)
      : bus(b), descriptor(io), timer(io), onLost(std::move(lost)) {}
  sd_bus* bus;
  asio::posix::stream_descriptor descriptor;
  asio::steady_timer timer;
  std::function<void(int)> onLost;
  bool readWaiting = false;
  bool writeWaiting = false;
  bool closed = false;
};

std::shared_ptr<BusWatch> BusWatch::create(asio::io_context& io, sd_bus* bus,
                                           std::function<void(int error)> onLost) {
  return std::shared_ptr<BusWatch>(
      new BusWatch(std::make_unique<Impl>(io, bus, std::move(onLost))));
}

BusWatch::BusWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

BusWatch::~BusWatch() {
  close();
}

bool BusWatch::start(int& error) {
  const int fd = sd_bus_get_fd(impl_->bus);
  if (fd < 0) {
    error = fd;
    return false;
  }
  std::error_code ec;
  impl_->descriptor.assign(fd, ec);
  if (ec) {
    error = -ec.value();
    return false;
  }
  pump();
  return true;
}

void BusWatch::pump() {
  Impl& s = *impl_;
  if (s.closed) return;
  auto fail = [this](int error) {
    auto lost = std::move(impl_->onLost);
    close();
    if (lost) lost(error);
  };
  for (;;) {
    const int r = sd_bus_process(s.bus, nullptr);
    if (r < 0) return fail(r);
    // A callback may have closed the watch.
    if (s.closed) return;
    if (r == 0) break;
  }
  const int events = sd_bus_get_events(s.bus);
  if (events < 0) return fail(events);
  std::weak_ptr<BusWatch> weak = shared_from_this();
  if (!s.readWaiting) {
    s.readWaiting = true;
    s.descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                            [weak](const std::error_code& ec) {
                              auto self = weak.lock();
                              if (!self) return;
                              self->impl_->readWaiting = false;
                              if (!ec) self->pump();
                            });
  }
  if ((events & POLLOUT) != 0 && !s.writeWaiting) {
    s.writeWaiting = true;
    s.descriptor.async_wait(asio::posix::stream_descriptor::wait_write,
                            [weak](const std::error_code& ec) {
                              auto self = weak.lock();
                              if (!self) return;
                              self->impl_->writeWaiting = false;
                              if (!ec) self->pump();
                            });
  }
  std::uint64_t deadline_us = 0;
  if (sd_bus_get_timeout(s.bus, &deadline_us) > 0 && deadline_us != UINT64_MAX) {
    // sd-bus deadlines are CLOCK_MONOTONIC, which is what steady_clock reads on Linux.
    s.timer.expires_at(std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::microseconds(deadline_us))));
    s.timer.async_wait([weak](const std::error_code& ec) {
      auto self = weak.lock();
      if (self && !ec) self->pump();
    });
  } else {
    s.timer.cancel();
  }
}

void BusWatch::close() {
  Impl& s = *impl_;
  if (s.closed) return;
  s.closed = true;
  // The socket belongs to sd-bus: stop waiting on it without closing it.
  if (s.descriptor.is_open()) s.descriptor.release();
  s.timer.cancel();
}

}  // namespace quorel
