#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once in
# the release build, once under the address and undefined-behaviour
# sanitizers (clang), and then every fuzz target for a short while
# (FUZZ_SECONDS, default 20 s each) on the same sanitizer build.  Each build
# has a folder of its own (build-test/, build-fuzz/), apart from the
# developer's build/ and the examples' build-example/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
JOBS=$(nproc)
cmake -S . -B build-test -DCMAKE_BUILD_TYPE=Release -DTORIX_BUILD_TESTS=ON > build-test-configure.log 2>&1 || { cat build-test-configure.log; exit 1; }
cmake --build build-test -j "$JOBS"
(cd build-test && ctest --output-on-failure -j "$JOBS" --timeout 300)
# One sanitizer build of the library serves the test suite and the fuzz targets.
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Release -DTORIX_BUILD_TESTS=ON -DTORIX_FUZZ=ON \
    > build-fuzz-configure.log 2>&1 || { cat build-fuzz-configure.log; exit 1; }
cmake --build build-fuzz -j "$JOBS"
(cd build-fuzz && ctest --output-on-failure -j "$JOBS" --timeout 300)
bash scripts/fuzz.sh "${FUZZ_SECONDS:-20}" build-fuzz
