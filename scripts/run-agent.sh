#!/bin/sh
# Builds Quorel (installing what is missing) and starts the agent in the foreground.
# Every argument is passed to the agent, e.g. scripts/run-agent.sh --json --interval 1
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
build="$root/build/release"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQUOREL_BUILD_TESTS=OFF -DQUOREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target quorel
exec "$build/programs/quorel/quorel" "$@"
