#!/usr/bin/env bash
# Installs what is missing, builds, and solves a model with vornix_cl
# (by default the shared Netlib model afiro; any arguments go to vornix_cl).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh
if [ $# -eq 0 ]; then
  set -- ../shared/data/netlib/afiro.mps.gz
fi
./build/tools/vornix_cl "$@"
