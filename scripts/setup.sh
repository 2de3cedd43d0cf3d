#!/usr/bin/env bash
# Installs every Debian package the build needs, then configures and builds.
# Idempotent: re-running only rebuilds what changed.
#   scripts/setup.sh            release build in build/
#   scripts/setup.sh asan       ASan/UBSan build in build-asan/
#   scripts/setup.sh --deps     install packages only
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build ccache pkg-config
  libeigen3-dev qtbase5-dev libfmt-dev libzstd-dev libpugixml-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri libepoxy-dev
  libviennacl-dev ocl-icd-opencl-dev opencl-headers pocl-opencl-icd
  libnifti2-dev zlib1g-dev libpng-dev
  libdcmtk-dev          # DICOM series and Segmentation objects
  libfftw3-dev          # FFT convolution of the dose kernels
  libopenmesh-dev
  clang libclang-rt-dev libomp-dev
  xvfb xauth            # the window's end-to-end test runs under a virtual X server
  mricron-data          # the demo brain (Colin27 T1) that the demo and that test open
  pybind11-dev python3-dev python3-numpy python3-pytest   # the Python package merivane
  python3-distributed python3-dask  # merivane batch --scheduler and its test
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

[ "${1:-}" = "--deps" ] && exit 0

preset="${1:-release}"
case "$preset" in
  release) dir=build; extra=(-DCMAKE_BUILD_TYPE=Release) ;;
  asan)    dir=build-asan; extra=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DMERIVANE_SANITIZE=ON) ;;
  debug)   dir=build-debug; extra=(-DCMAKE_BUILD_TYPE=Debug) ;;
  *) echo "setup: unknown build '$preset' (release, asan, debug)" >&2; exit 2 ;;
esac

if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja "${extra[@]}"
fi
cmake --build "$dir" -j "$(nproc)"

# The release build makes the Python package importable system-wide: a .pth file in the
# interpreter's site-packages names build/python, where the build puts merivane.
if [ "$preset" = release ] && [ -d "$dir/python/merivane" ]; then
  # The interpreter the module was built for (Debian's, whose numpy it uses).
  python=$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' "$dir/CMakeCache.txt")
  python=${python:-python3}
  site=$("$python" -c 'import site; print(site.getsitepackages()[0])')
  mkdir -p "$site"
  echo "$(cd "$dir/python" && pwd)" > "$site/merivane.pth"
  "$python" -c 'import merivane' && echo "setup: merivane importable by $python ($site/merivane.pth)"
fi
