#!/usr/bin/env bash
# Builds every libFuzzer target under fuzz/ with clang in build-fuzz/ and runs
# each one from its committed seeds, two at a time (VELLATONE_FUZZ_JOBS).
#   scripts/fuzz.sh --ci        about a minute per target (what scripts/test.sh runs)
#   scripts/fuzz.sh [seconds]   a longer local run, 600 s per target by default
# New inputs go to build-fuzz/corpus/<name>, never into the committed seeds.
# VELLATONE_FUZZ_BUILD_DIR names another build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
out="${VELLATONE_FUZZ_BUILD_DIR:-build-fuzz}"

if [ "${1:-}" = "--ci" ]; then
    seconds=60
else
    seconds="${1:-600}"
fi

targets=()
for dir in fuzz/*/; do
    name="$(basename "$dir")"
    [ -f "$dir/CMakeLists.txt" ] && targets+=("fuzz_$name")
done
[ ${#targets[@]} -gt 0 ] || { echo "no fuzz targets"; exit 0; }

CC=clang CXX=clang++ cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVELLATONE_FUZZ=ON -DVELLATONE_UNIT_ONLY=ON >/dev/null
ninja -C "$out" -j2 "${targets[@]}"

# Two targets at a time, one per core; each one's lines are printed when it ends
# so that the two do not interleave.
parallel="${VELLATONE_FUZZ_JOBS:-2}"

run_target() {
    local target=$1 name="${1#fuzz_}"
    local work="$out/corpus/$name"
    mkdir -p "$work" "$out/artifacts/$name"
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$out/bin/$target" "$work" "fuzz/$name/corpus" \
        -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
        -artifact_prefix="$out/artifacts/$name/" -print_final_stats=1 >"$out/$target.log" 2>&1 || true
    local ok=0
    {
        echo "== $target for ${seconds}s"
        grep -E "^(#[0-9]+ +DONE|==|SUMMARY|stat::number_of_executed_units)" "$out/$target.log"
        if ! grep -q "Done [0-9]* runs" "$out/$target.log"; then
            echo "$target: failed, see $out/$target.log"
            ok=1
        fi
    } >"$out/$target.summary"
    cat "$out/$target.summary"
    return $ok
}

status=0
pids=()
for target in "${targets[@]}"; do
    run_target "$target" &
    pids+=($!)
    if [ ${#pids[@]} -ge "$parallel" ]; then
        wait "${pids[0]}" || status=1
        pids=("${pids[@]:1}")
    fi
done
for pid in "${pids[@]}"; do
    wait "$pid" || status=1
done
exit $status
