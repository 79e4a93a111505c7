#!/usr/bin/env bash
# Builds and runs Vellatone. Until the application exists this runs the
# engine's measuring program.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build
echo "The application is not built yet: running the engine benchmark (build/bin/vellatone-bench) instead."
exec build/bin/vellatone-bench "$@"
