#!/usr/bin/env bash
# Installs the Debian packages nerva needs to build and test, when missing.
set -euo pipefail

packages=(
  cmake g++ make pkg-config ccache
  libgtest-dev libbenchmark-dev
  ocl-icd-opencl-dev opencl-headers opencl-clhpp-headers pocl-opencl-icd clinfo
  # Sanitized build and fuzz targets: clang 15 (its sanitizer and libFuzzer
  # runtimes come with it; it has _Float16 on x86) and llvm-symbolizer for reports.
  clang-15 llvm
  # Peers of the GEMM benchmark (loaded at run time, skipped when absent).
  libclblast-dev libopenblas-dev
  # The PyTorch device backend in adapters/torch (built and tested when present).
  python3-torch libtorch-dev
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
