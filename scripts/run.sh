#!/usr/bin/env bash
# The main job: installs what it needs (the build's packages and Debian's mricron-data for the
# Colin27 brain), builds, and runs the demo: the lateral ventricles segmented from shipped
# seeds, measured and meshed, written into merivane-demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh release >/dev/null
if [ ! -f /usr/share/mricron/templates/ch2.nii.gz ]; then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends mricron-data >/dev/null
fi
./build/bin/merivane list
./build/bin/merivane demo --out merivane-demo "$@"
