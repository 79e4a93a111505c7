#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh [DIR] [cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
else
    cmake -S . -B "$dir" "$@" >/dev/null
fi
cmake --build "$dir"
