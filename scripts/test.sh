#!/usr/bin/env bash
# The whole test run: dependencies, the normal build and its tests, the same under
# AddressSanitizer and UndefinedBehaviorSanitizer, the Windows type check and the fuzz smoke.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

# In this run a missing QEMU is a failure, not a skip.
export QV_REQUIRE_QEMU=1
jobs=$(nproc)

echo "== normal build"
scripts/build.sh build
ctest --test-dir build --output-on-failure --parallel "$jobs" --timeout 600

echo "== sanitizer build"
scripts/build.sh build-asan -DQV_SANITIZE=ON -DQV_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0 \
    ctest --test-dir build-asan --output-on-failure --parallel "$jobs" --timeout 900

echo "== windows type check"
scripts/wincheck.sh

echo "== fuzz smoke"
scripts/fuzz.sh "${QV_FUZZ_SECONDS:-30}"
