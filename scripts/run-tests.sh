#!/bin/sh
# Builds Quorel with warnings as errors (installing what is missing) and runs every test.
#   scripts/run-tests.sh                    all tests, normal build, benchmarks built
#   scripts/run-tests.sh --sanitize address all tests under AddressSanitizer + UBSan
#   scripts/run-tests.sh --sanitize thread  the threaded tests under ThreadSanitizer
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
sanitize=""
if [ "${1:-}" = "--sanitize" ]; then
  sanitize="${2:?--sanitize needs address or thread}"
fi
case "$sanitize" in
  "" | address | thread) ;;
  *) echo "run-tests: --sanitize takes address or thread, not '$sanitize'" >&2; exit 2 ;;
esac

"$root/scripts/install-deps.sh"
jobs="$(nproc 2>/dev/null || echo 2)"
# The assistants' end-to-end test runs the MCP client SDK pinned in its lock file.
if command -v npm >/dev/null 2>&1; then
  npm ci --prefix "$root/tests/e2e/mcp_sdk" --no-audit --no-fund --loglevel=error >&2
fi

# A skipped test is a test that did not run; here it counts as a failure, whoever runs the suite.
run_ctest() {
  log="$build/ctest.log"
  status=0
  ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@" 2>&1 | tee "$log" || status=1
  # tee hides ctest's status; ctest's own summary line tells it.
  grep -q "tests passed, 0 tests failed" "$log" || status=1
  if grep -q "(Skipped)" "$log"; then
    echo "run-tests: these tests skipped instead of running:" >&2
    grep "(Skipped)" "$log" >&2
    status=1
  fi
  return "$status"
}

if [ -z "$sanitize" ]; then
  build="$root/build/ci"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOREL_WERROR=ON \
    -DQUOREL_BUILD_BENCH=ON >/dev/null
  cmake --build "$build" -j "$jobs"
  run_ctest
else
  build="$root/build/$sanitize"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUOREL_WERROR=ON \
    -DQUOREL_SANITIZE="$sanitize" -DQUOREL_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" -j "$jobs"
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
  if [ "$sanitize" = "thread" ]; then
    run_ctest -L threaded
  else
    run_ctest -LE e2e
  fi
fi
