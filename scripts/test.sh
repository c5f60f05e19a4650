#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DTORIX_BUILD_TESTS=ON > build-configure.log 2>&1 || { cat build-configure.log; exit 1; }
cmake --build build -j "$(nproc)"
cd build && ctest --output-on-failure -j "$(nproc)" --timeout 600
