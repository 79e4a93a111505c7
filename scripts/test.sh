#!/usr/bin/env bash
# Builds everything and runs every test: the full suite in build/ (the
# integration tests on each sound server), then the unit tests again with
# AddressSanitizer and UndefinedBehaviorSanitizer in build-asan/ and with
# ThreadSanitizer in build-tsan/, then the format check and each fuzzer for a
# bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# The npm packages a test runs (pinned by its lock file), fetched here so
# that the tests themselves download nothing.
(cd tests/airplay/hap-accessory && npm ci --no-audit --no-fund >/dev/null)

scripts/check-format.sh

scripts/build.sh build
(cd build && ctest -LE integration --output-on-failure -j2 --timeout 900)
# Integration tests measure timing on a real sound server: one at a time, so
# that they never starve each other of the machine's two cores. Every one runs
# once on PulseAudio and once on PipeWire (with WirePlumber and pipewire-pulse),
# the two servers people really have.
# Those labelled "serverless" use no sound server and run in the first pass
# only.
for server in pulseaudio pipewire; do
    started=$(date +%s)
    skip=()
    [ "$server" = pulseaudio ] || skip=(-LE serverless)
    (cd build && VELLATONE_TEST_SERVER=$server ctest -L integration "${skip[@]}" \
        --output-on-failure --timeout 900)
    echo "integration tests on $server: $(($(date +%s) - started)) s"
done

scripts/build.sh build-asan -DVELLATONE_SANITIZE=ON -DVELLATONE_UNIT_ONLY=ON
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest -L unit --output-on-failure -j2 --timeout 900)

scripts/build.sh build-tsan -DVELLATONE_TSAN=ON -DVELLATONE_UNIT_ONLY=ON
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest -L unit --output-on-failure -j2 --timeout 900)

if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh --ci; fi
