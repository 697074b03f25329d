#!/bin/sh
# Installs the Debian 12 packages Quorel builds with, only those that are missing. Idempotent.
# Usage: scripts/install-deps.sh [--ci]   (--ci adds clang's fuzzing runtime and clang-format)
# dbus-daemon is for the tests, which start a private message bus of their own; node and npm run
# the assistants' end-to-end test, and a node already on PATH, from wherever, will do.
# Progress goes to standard error, so a caller's standard output stays its own.
set -eu

packages="g++ cmake ninja-build pkg-config libsqlite3-dev libasio-dev nlohmann-json3-dev
libspdlog-dev libfmt-dev libcli11-dev libssl-dev libsystemd-dev libgtest-dev libgmock-dev
libbenchmark-dev libical-dev sqlite3 dbus-daemon"
command -v node >/dev/null 2>&1 || packages="$packages nodejs"
command -v npm >/dev/null 2>&1 || packages="$packages npm"
if [ "${1:-}" = "--ci" ]; then
  packages="$packages clang libclang-rt-14-dev clang-format"
fi

missing=""
for p in $packages; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=""
elif command -v sudo >/dev/null 2>&1; then
  as_root="sudo"
else
  echo "install-deps: missing packages:$missing — run this script as root to install them" >&2
  exit 1
fi
echo "install-deps: installing$missing" >&2
$as_root apt-get update -qq >&2
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing >&2
