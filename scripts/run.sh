#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh
./build/tools/vrx_params_demo "${@:-Threads=1}"
