// Decoding of JSON-RPC request bodies as the endpoint receives them, with the heap allocations
// that one decode makes counted by a replaced global operator new.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string_view>

#include "core/json_value.hpp"
#include "mcp/json_rpc.hpp"

namespace {

std::atomic<long> allocations{0};

constexpr std::string_view kToolsList = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})";
constexpr std::string_view kToolsCall =
    R"({"jsonrpc":"2.0","id":7,"method":"tools/call",)"
    R"("params":{"name":"set_charge_limit","arguments":{"limit":80}}})";

void reportAllocations(benchmark::State& state, long before) {
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations.load() - before),
                                                benchmark::Counter::kAvgIterations);
}

void decodeBody(benchmark::State& state, std::string_view body) {
  if (!quorel::JSONRPCRequest::decode(body)) {
    state.SkipWithError("the body does not decode");
    return;
  }
  const long before = allocations.load();
  for (auto _ : state) {
    auto request = quorel::JSONRPCRequest::decode(body);
    benchmark::DoNotOptimize(request);
  }
  reportAllocations(state, before);
}

void readValue(benchmark::State& state, std::string_view body) {
  const long before = allocations.load();
  for (auto _ : state) {
    auto value = quorel::JSONValue::parse(body);
    benchmark::DoNotOptimize(value);
  }
  reportAllocations(state, before);
}

void BM_DecodeToolsList(benchmark::State& state) {
  decodeBody(state, kToolsList);
}
void BM_DecodeToolsCall(benchmark::State& state) {
  decodeBody(state, kToolsCall);
}
void BM_ReadValueToolsCall(benchmark::State& state) {
  readValue(state, kToolsCall);
}

BENCHMARK(BM_DecodeToolsList);
BENCHMARK(BM_DecodeToolsCall);
BENCHMARK(BM_ReadValueToolsCall);

}  // namespace

// Out of line, so that the compiler does not see free() meet a pointer from operator new.
[[gnu::noinline]] void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

BENCHMARK_MAIN();
