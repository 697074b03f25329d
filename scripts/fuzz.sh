#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) into build-fuzz and runs each for a
# bounded time over a copy of the committed seed corpus. Any crash, leak or hang fails the run
# and leaves its reproducer in build-fuzz/artifacts/.
#
#   scripts/fuzz.sh [seconds-per-target]     (default 60)
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${root}/build-fuzz"

cmake -S "${root}" -B "${build}" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link" \
  -DQUOREL_SANITIZE=address -DQUOREL_WERROR=ON \
  -DQUOREL_BUILD_FUZZ=ON -DQUOREL_BUILD_TESTS=OFF -DQUOREL_BUILD_BENCH=OFF
ninja -C "${build}" -j2 fuzz_http_request_parser fuzz_json_rpc_decode

mkdir -p "${build}/artifacts"
status=0
run() {
  local target="$1" seeds="$2"
  local corpus="${build}/corpus/${target}"
  mkdir -p "${corpus}"
  cp -n "${root}/fuzz/corpus/${seeds}/"* "${corpus}/" 2>/dev/null || true
  echo "== ${target}: ${seconds}s"
  # -timeout flags a single input that runs for more than 10 s as a hang; -rss_limit_mb bounds
  # memory; leaks are reported by the address sanitizer at the end of each run.
  if ! "${build}/fuzz/${target}" "${corpus}" \
      -max_total_time="${seconds}" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="${build}/artifacts/${target}-"; then
    echo "== ${target} FAILED; reproducer in ${build}/artifacts/" >&2
    status=1
  fi
}
run fuzz_http_request_parser http_request
run fuzz_json_rpc_decode json_rpc
exit "${status}"
