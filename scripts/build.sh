#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh [DIR] [cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
elif [ $# -gt 0 ]; then
    cmake -S . -B "$dir" "$@" >/dev/null
fi
# Otherwise the build reconfigures itself only when a CMakeLists changed, so
# that an unchanged tree says nothing at configure time.
cmake --build "$dir"
