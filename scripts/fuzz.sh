#!/usr/bin/env bash
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET]
# Builds the libFuzzer targets with clang and runs each one for a bounded time on a copy
# of its seed corpus. Any crash, leak or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
dir=build-fuzz
CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQV_FUZZ=ON -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" --parallel "$(nproc)"

shopt -s nullglob
targets=("$dir"/fuzz/fuzz_*)
if ((${#targets[@]} == 0)); then
    echo "fuzz: no targets built" >&2
    exit 1
fi
for t in "${targets[@]}"; do
    [ -f "$t" ] && [ -x "$t" ] || continue
    name=$(basename "$t")
    corpus=$(mktemp -d)
    cp -r fuzz/corpus/"${name#fuzz_}"/. "$corpus"/ 2>/dev/null || true
    echo "fuzz: $name for ${seconds}s"
    "$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$dir/$name-" "$corpus" 2>"$dir/$name.log" || {
        tail -n 40 "$dir/$name.log" >&2
        rm -rf "$corpus"
        echo "fuzz: $name found a failure" >&2
        exit 1
    }
    grep -E 'stat::number_of_executed_units' "$dir/$name.log" || true
    rm -rf "$corpus"
done
