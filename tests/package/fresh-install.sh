#!/usr/bin/env bash
# The package on a fresh Debian 12: a minimal root made by debootstrap from
# the machine's Debian mirror, `apt-get install --no-install-recommends
# ./widmo_*.deb` in it (Depends alone must be enough), the installed
# programs run from /usr/bin (--version; widmo-analyze --summary and a
# spectrogram of a test file), then `apt-get remove` must leave none of the
# package's files. About two minutes and a 100 MB download; needs root and
# debootstrap. CI runs it after the release tests (.ci/run).
# (The ctest check, tests/package/check.sh, does the same without network or
# root on the unpacked package.)
#   fresh-install.sh DEB
set -euo pipefail
deb=$(readlink -f "$1")
# chroot and mount need root.
[ "$(id -u)" -eq 0 ] || exec sudo bash "$0" "$@"
command -v debootstrap >/dev/null || { echo "fresh-install: debootstrap missing"; exit 1; }
mirror=$(sed -n 's/^URIs: *\(http[^ ]*debian\)$/\1/p' /etc/apt/sources.list.d/debian.sources 2>/dev/null |
    head -1)
mirror=${mirror:-http://deb.debian.org/debian}

root=$(mktemp -d /tmp/widmo-fresh.XXXXXX)
cleanup() {
    mountpoint -q "$root/proc" && umount "$root/proc"
    rm -rf "$root"
}
trap cleanup EXIT
# A mirror that drops one download is tried once more from a clean root.
if ! debootstrap --variant=minbase bookworm "$root" "$mirror" >"$root.log" 2>&1; then
    rm -rf "$root" && mkdir -p "$root"
    debootstrap --variant=minbase bookworm "$root" "$mirror" >"$root.log" 2>&1 ||
        { tail -20 "$root.log"; rm -f "$root.log"; echo "fresh-install: debootstrap failed"; exit 1; }
fi
rm -f "$root.log"
[ -f /etc/apt/sources.list.d/debian.sources ] &&
    cp /etc/apt/sources.list.d/debian.sources "$root/etc/apt/sources.list.d/" &&
    rm -f "$root/etc/apt/sources.list"
mount -t proc proc "$root/proc"
cp "$deb" "$root/tmp/"
python3 - "$root/tmp/tone.wav" <<'PY'
import array, math, sys, wave
data = array.array("h", (int(9000 * math.sin(2 * math.pi * 1000 * k / 48000)) for k in range(96000)))
with wave.open(sys.argv[1], "wb") as w:
    w.setnchannels(1); w.setsampwidth(2); w.setframerate(48000); w.writeframes(data.tobytes())
PY

chroot "$root" /bin/bash -euo pipefail -c '
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q >/tmp/apt.log 2>&1
    apt-get install -y -q --no-install-recommends /tmp/'"$(basename "$deb")"' >>/tmp/apt.log 2>&1 ||
        { cat /tmp/apt.log; exit 1; }
    for p in widmo widmo-studio widmo-voice widmo-analyze; do
        [ "$(command -v $p)" = /usr/bin/$p ]
        $p --version
    done
    cd /tmp
    widmo-analyze --summary tone.wav | grep -q "\"strongest_hz\":996.094"
    widmo-analyze --spectrogram --no-progress tone.wav
    [ -s tone.wav.png ]
    dpkg -L widmo >/tmp/files
    apt-get remove -y -q widmo >>/tmp/apt.log 2>&1
    if dpkg -s widmo >/dev/null 2>&1; then echo "still installed after apt-get remove"; exit 1; fi
    left=0
    while read -r f; do
        if [ -f "$f" ] || { [ -d "$f" ] && [[ $f == *widmo* ]]; }; then
            echo "left behind: $f"; left=1
        fi
    done </tmp/files
    [ "$left" -eq 0 ]
' || { echo "fresh-install: failed"; exit 1; }
echo "fresh-install: installed, ran and removed cleanly"
