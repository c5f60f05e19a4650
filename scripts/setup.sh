#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
set -euo pipefail
pkgs=(cmake g++ make pkg-config libopenblas-openmp-dev liblapacke-dev libarpack2-dev
      libfftw3-dev libfftw3-mpi-dev libgtest-dev libbenchmark-dev libpng-dev libslepc-complex-dev
      libmpfr-dev openmpi-bin ghostscript python3-vtk9 clang libclang-rt-14-dev time)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# The pthread flavour of OpenBLAS oversubscribes cores when called inside OpenMP regions.
if dpkg-query -W -f='${Status}' libopenblas0-pthread 2>/dev/null | grep -q "install ok installed"; then
  missing+=("libopenblas0-pthread-")
fi
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
