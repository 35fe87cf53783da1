#!/usr/bin/env bash
# The main job: builds the miner and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target ombry-miner
./build/src/miner/ombry-miner dump && echo "ombry-miner built and ran its dump run."
