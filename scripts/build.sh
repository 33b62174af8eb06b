#!/usr/bin/env bash
# Usage: scripts/build.sh BUILD_DIR [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" --parallel "$(nproc)"
