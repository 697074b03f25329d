#pragma once
// The agent's connection to the helper's Unix socket: JSON-RPC 2.0, one object per line, answers
// in the order asked. The socket's reads and writes run on an I/O queue of their own; every
// completion is posted to the main queue.
//
// Connecting starts when the client is made. With socket activation the connect succeeds while
// systemd is still starting the helper, and the first answer simply takes longer; the caller's
// deadlines (the manager's ping budgets) decide how long that may be.

#include <filesystem>
#include <memory>

#include "control/helper_channel.hpp"
#include "core/clock.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

class HelperClient final : public HelperChannel {
 public:
  // Above this an answer is not the helper's: the connection is dropped.
  static constexpr std::size_t kMaxLineBytes = 1 << 20;

  // REQUIRES: `ioQueue` is running (started) for as long as the client lives; both queues
  // outlive it. Made on the main queue.
  HelperClient(SerialQueue& ioQueue, SerialQueue& mainQueue, std::filesystem::path socketPath);
  ~HelperClient() override;
  HelperClient(const HelperClient&) = delete;
  HelperClient& operator=(const HelperClient&) = delete;

  void call(std::string method, JSONValue params, HelperCallCompletion done) override;
  void setClosedHandler(ClosedHandler handler) override;
  void close() override;

  static HelperChannelFactory factory(SerialQueue& ioQueue, SerialQueue& mainQueue,
                                      std::filesystem::path socketPath);

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

// One request's line: {"jsonrpc":"2.0","id":ID,"method":...,"params":...}, without the newline.
std::string helperRequestLine(std::int64_t id, std::string_view method, const JSONValue& params);
// The outcome carried by one answer line, and its id; absent when the line is not an answer.
struct HelperAnswer {
  std::int64_t id = 0;
  HelperCallOutcome outcome;
};
std::optional<HelperAnswer> parseHelperAnswer(std::string_view line);

// One call on a connection of its own, waiting at most `timeout` on `clock` in all. For callers
// that may not wait on the main queue (the uninstaller, the energy counters on the poll queue).
// A transport error carries the errno in `code`: ENOENT or ECONNREFUSED when nothing listens,
// ETIMEDOUT when the answer did not come in time.
HelperCallOutcome callHelperOnce(const std::filesystem::path& socketPath, std::string_view method,
                                 const JSONValue& params, Seconds timeout, const Clock& clock);

}  // namespace quorel
