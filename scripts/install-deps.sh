#!/usr/bin/env bash
# Installs every package Widmo needs to build, test and run on Debian 12.
# Idempotent: packages already present are skipped, and apt-get update runs
# only when something is missing.
set -euo pipefail

PACKAGES=(
    build-essential cmake ninja-build ccache pkg-config git clang-format
    qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev qt6-multimedia-dev
    libgl-dev libgles-dev
    libfftw3-dev libsndfile1-dev libsoxr-dev libjack-jackd2-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    fonts-liberation
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-pulseaudio
    pulseaudio pulseaudio-utils sox
    xvfb xauth libgl1-mesa-dri mesa-utils
    jackd2
)

if [ "$(id -u)" -eq 0 ]; then
    SUDO=()
else
    SUDO=(sudo)
fi

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all packages present"
    exit 0
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# jackd2 asks whether to enable real-time scheduling; answer once, non-interactively.
echo "jackd2 jackd/tweak_rt_limits boolean false" | "${SUDO[@]}" debconf-set-selections
"${SUDO[@]}" apt-get update -q
"${SUDO[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
