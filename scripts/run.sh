#!/usr/bin/env bash
# On a fresh Debian 12 machine: installs what Widmo needs, builds it and
# starts `widmo` on the default input device. Later runs only rebuild what
# changed. Needs root or sudo for apt-get.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

bash scripts/install-deps.sh --build
cmake -S . -B build-run -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DWIDMO_BUILD_TESTS=OFF -DWIDMO_BUILD_BENCHMARKS=OFF
cmake --build build-run -j"$(nproc)"
exec build-run/app/widmo
