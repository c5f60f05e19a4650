#!/usr/bin/env bash
# Installs what is missing, builds the program and runs a bundled example
# (default: pipeline) in build-example/<name>/.  The build has a folder of
# its own, build-example/, so it never reconfigures the test build in build/.
set -euo pipefail
cd "$(dirname "$0")/.."
name="${1:-pipeline}"
[ -d "examples/$name" ] || { echo "no example named $name in examples/" >&2; exit 1; }
bash scripts/setup.sh
cmake -S . -B build-example -DCMAKE_BUILD_TYPE=Release > build-example-configure.log 2>&1 || { cat build-example-configure.log; exit 1; }
cmake --build build-example -j "$(nproc)" --target torix
run="build-example/$name"
rm -rf "$run"
cp -r "examples/$name" "$run"
(cd "$run" && ../torix)
echo "example output is in $run/:"
ls "$run"
