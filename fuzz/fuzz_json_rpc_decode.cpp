// Feeds arbitrary bytes to JSON reading and JSON-RPC decoding, and checks that whatever reads
// writes back to text that reads as the same value, and that decoding a request straight from
// the text agrees with reading the text as a value and converting that.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/json_value.hpp"
#include "mcp/json_rpc.hpp"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const auto read = quorel::JSONValue::read(text);
  check(read.value.has_value() == read.error.empty());
  if (read.value) {
    // Reading refuses what is not finite, so every value read can be written again.
    const auto written = read.value->write();
    check(written.has_value());
    check(quorel::JSONValue::parse(*written) == read.value);
    (void)read.value->member("id");
  }

  auto request = quorel::JSONRPCRequest::decode(text);
  check(request == (read.value ? quorel::JSONRPCRequest::fromJSON(*read.value) : std::nullopt));
  if (request) {
    check(!request->id || !request->id->isNull());
    auto again = quorel::JSONRPCRequest::fromJSON(request->toJSON());
    check(again == request);
    auto response = quorel::JSONRPCResponse::success(
        request->id, request->params.value_or(quorel::JSONValue::Object{}));
    const auto encoded = response.encode();
    check(encoded.has_value());
    check(quorel::JSONRPCResponse::decode(*encoded) == response);
    (void)quorel::mcpMethodFromString(request->method);
  }
  (void)quorel::JSONRPCResponse::decode(text);
  return 0;
}
