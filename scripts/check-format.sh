#!/usr/bin/env bash
# Fails when a C++ source is not formatted by the project's .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.hpp' | grep -v -E '^build')
[ ${#files[@]} -eq 0 ] && exit 0
if ! clang-format --dry-run --Werror "${files[@]}" 2>/tmp/vellatone-format.log; then
    head -40 /tmp/vellatone-format.log
    echo "format check failed: run clang-format -i on the files above" >&2
    exit 1
fi
echo "format check: ${#files[@]} files ok"
