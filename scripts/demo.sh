#!/usr/bin/env bash
# Builds quelworks in release mode and runs the examples.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
for example in build/release/examples/example_*; do
    [ -x "$example" ] || continue
    printf '\n--- %s ---\n' "${example##*/}"
    "$example"
done
