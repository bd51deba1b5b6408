#!/usr/bin/env bash
# Installs what the build and the tests need, with apt-get, and only what is missing.
set -euo pipefail

# clang and its runtime libraries: the fuzz targets (scripts/fuzz.sh) are built with libFuzzer.
# clang-tidy for scripts/tidy.sh, python3 for scripts/check-layers.sh.
packages=(cmake make g++ git libgtest-dev libgmock-dev libbenchmark-dev libpcre3-dev libboost-dev clang libclang-rt-dev
          clang-tidy python3)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
echo "installing: ${missing[*]}"
"${sudo_cmd[@]}" apt-get update -q
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q "${missing[@]}"
