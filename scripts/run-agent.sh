#!/bin/sh
# Builds Quorel (installing what is missing) and starts the agent in the foreground.
# Every argument is passed to the agent, e.g. scripts/run-agent.sh --json --interval 1
# Everything the build says goes to standard error: with --json, standard output carries only
# the agent's JSON stream.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh" >&2
build="$root/build/release"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQUOREL_BUILD_TESTS=OFF -DQUOREL_BUILD_BENCH=OFF >&2
cmake --build "$build" --target quorel >&2
exec "$build/programs/quorel/quorel" "$@"
