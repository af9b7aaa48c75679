#!/usr/bin/env bash
# Installs every package Widmo needs on Debian 12.
#   install-deps.sh          to build, run and test (with the test services)
#   install-deps.sh --build  to build and run only: the test services (a
#                            PulseAudio and a PipeWire server, Xvfb, jackd) are
#                            left out, so a desktop's own sound server is never
#                            replaced (pipewire-pulse enables a user socket that
#                            takes PulseAudio's place at the next login)
# Idempotent: packages already present are skipped, and apt-get update runs
# only when something is missing.
set -euo pipefail

PACKAGES=(
    build-essential cmake ninja-build ccache pkg-config git clang-format
    qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev
    libgl-dev libgles-dev libgl1-mesa-dri
    libfftw3-dev libsndfile1-dev libsoxr-dev libjack-jackd2-dev libpulse-dev zlib1g-dev
    libdeflate-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    fonts-liberation
    # the package: icons rendered from the SVG, dpkg-shlibdeps and file for CPack's Depends
    librsvg2-bin dpkg-dev file
)
TEST_PACKAGES=(
    pulseaudio pulseaudio-utils sox
    # scripts/test.sh --pipewire: the same tests against PipeWire; its session
    # manager needs a D-Bus session bus (dbus-daemon)
    pipewire pipewire-pulse wireplumber dbus-daemon
    xvfb xauth mesa-utils x11-utils
    jackd2 xdotool python3
    # bench/FrameCostBench.cpp: the peer analyser measured beside Widmo
    jaaa
    # tests/batch: widmo-analyze run by GNU parallel over a folder
    parallel
    # tests/package: the package's checks and the completion's test
    lintian desktop-file-utils appstream bash-completion man-db debootstrap
    # scripts/fuzz.sh: clang with its libFuzzer and sanitizer runtimes
    clang libclang-rt-14-dev
)
if [ "${1:-}" != "--build" ]; then
    PACKAGES+=("${TEST_PACKAGES[@]}")
fi

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
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
