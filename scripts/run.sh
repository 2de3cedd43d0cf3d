#!/usr/bin/env bash
# The main job: installs what it needs, builds, loads the plug-in through its entry points
# and lists the algorithms it registers.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh release >/dev/null
./build/bin/merivane list
