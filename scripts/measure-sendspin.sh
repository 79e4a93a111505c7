#!/usr/bin/env bash
# Measures the Sendspin send path on loopback and prints two lines:
#   control under audio backlog: answered in N ms
#   12 clients x 60 s: N % of one core, frames lost N
# Details go to standard error. Builds the measuring program in build-sendspin/.
# Extra arguments go to the program (e.g. --seconds 10 for a quick look).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-sendspin -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build-sendspin -j2 vellatone-sendspin-load >/dev/null
exec build-sendspin/bin/vellatone-sendspin-load --clients 12 --seconds 60 "$@"
