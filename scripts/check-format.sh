#!/bin/sh
# Fails when a C++ file under src/, platform/, programs/, tests/, bench/ or fuzz/ differs from
# what clang-format makes of it.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
files=$(git ls-files '*.cpp' '*.hpp' | grep -E '^(src|platform|programs|tests|bench|fuzz)/' || true)
[ -z "$files" ] && exit 0
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
