#!/usr/bin/env bash
# widmo-analyze --spectrogram against sox's spectrogram on the same 10-minute
# 48 kHz WAV, at the same FFT size (2048: sox's largest, 1025 rows) and hop
# (512 samples: 93.75 columns a second), both with a Hamming window. Each
# command runs three times; the best wall time counts (the machine may be
# shared). What the picture costs is the same analysis without it
# (--spectrum only); the deflate alone is timed on the picture's own pixels
# with python's zlib at the encoder's settings. Then the audio analysed per
# second at widmo-analyze's defaults (a 10-minute picture of 2048 rows is
# past the one-picture limit, so that run draws it into 4000 columns).
#   bench/analyze_vs_sox.sh path/to/widmo-analyze [work folder]
set -euo pipefail
analyze=${1:?usage: $0 path/to/widmo-analyze [work folder]}
work=${2:-$(mktemp -d)}
mkdir -p "$work"
wav=$work/ten-minutes.wav
cores=$(nproc)

if [ ! -f "$wav" ]; then
    # A slow sweep under two steady tones and some noise: every part of the
    # image has detail, as a field recording's has.
    sox -r 48000 -n -b 16 "$wav" synth 600 sine 200-15000 synth 600 sine mix 1000 \
        synth 600 pinknoise mix vol 0.3
fi

best() { # "wall cpu": the best wall time of three runs of "$@" and that run's CPU seconds
    local b= c=
    for _ in 1 2 3; do
        /usr/bin/time -f '%e %U %S' -o "$work/time" "$@" > /dev/null
        read -r w u s < "$work/time"
        if [ -z "$b" ] || [ "$(echo "$w < $b" | bc -l)" = 1 ]; then
            b=$w
            c=$(echo "$u + $s" | bc -l)
        fi
    done
    echo "$b $c"
}

read -r sox_t sox_c < <(best sox "$wav" -n spectrogram -y 1025 -X 93.75 -w Hamming -o "$work/sox.png")
read -r one_t one_c < <(best "$analyze" --spectrogram --fft-size 2048 --rows 1024 --interval 4 --window hamming \
    --jobs 1 --no-progress -o "$work/one" "$wav")
read -r all_t all_c < <(best "$analyze" --spectrogram --fft-size 2048 --rows 1024 --interval 4 --window hamming \
    --jobs "$cores" --no-progress -o "$work/all" "$wav")
read -r nopic_t nopic_c < <(best "$analyze" --spectrum --fft-size 2048 --rows 1024 --interval 4 --window hamming \
    --jobs 1 --no-progress -o "$work/nopicture" "$wav")
read -r def_t def_c < <(best "$analyze" --spectrogram --width 4000 --spectrum --bands 3 --ltsa 10 --summary \
    --no-progress -o "$work/defaults" "$wav")
read -r spec_t spec_c < <(best "$analyze" --spectrum --no-progress -o "$work/spectrum" "$wav")

row() { printf '%-58s %7.2f %7.2f %8s %8s\n' "$@"; }
printf '%-58s %7s %7s %8s %8s\n' "10 min of 48 kHz audio" "wall s" "cpu s" "sox/wall" "sox/cpu"
row "sox spectrogram (FFT 2048, hop 512)" "$sox_t" "$sox_c" 1.00 1.00
row "widmo-analyze --spectrogram, same FFT and hop, 1 thread" "$one_t" "$one_c" \
    "$(printf %.2f "$(echo "$sox_t / $one_t" | bc -l)")" "$(printf %.2f "$(echo "$sox_c / $one_c" | bc -l)")"
row "widmo-analyze, same FFT and hop, no picture, 1 thread" "$nopic_t" "$nopic_c" - -
row "widmo-analyze --spectrogram, same FFT and hop, $cores threads" "$all_t" "$all_c" \
    "$(printf %.2f "$(echo "$sox_t / $all_t" | bc -l)")" "$(printf %.2f "$(echo "$sox_c / $all_c" | bc -l)")"
row "widmo-analyze defaults, all outputs (--width 4000), $cores threads" "$def_t" "$def_c" - -
row "widmo-analyze defaults, --spectrum only, $cores threads" "$spec_t" "$spec_c" - -
echo "audio seconds analysed per second at the defaults: all outputs $(echo "600 / $def_t" | bc -l | xargs printf '%.0f'), spectrum only $(echo "600 / $spec_t" | bc -l | xargs printf '%.0f')"
cmp -s "$work/one/ten-minutes.wav.png" "$work/all/ten-minutes.wav.png" &&
    echo "1 thread and $cores threads wrote the same image"
# The deflate of the picture's rows (Sub-filtered, as the encoder writes
# them) at zlib level 1 with the run-length strategy, on one thread.
python3 - "$work/one/ten-minutes.wav.png" <<'PY'
import struct, sys, time, zlib
data = open(sys.argv[1], 'rb').read()
pos, idat = 8, bytearray()
while pos < len(data):
    n = struct.unpack('>I', data[pos:pos + 4])[0]
    if data[pos + 4:pos + 8] == b'IDAT':
        idat += data[pos + 8:pos + 8 + n]
    pos += 12 + n
raw = zlib.decompress(bytes(idat))
best = None
for _ in range(3):
    start = time.perf_counter()
    for k in range(0, len(raw), 1 << 22):
        c = zlib.compressobj(1, zlib.DEFLATED, -15, 9, zlib.Z_RLE)
        c.compress(raw[k:k + (1 << 22)])
        c.flush()
    t = time.perf_counter() - start
    best = t if best is None else min(best, t)
print(f"deflate alone of the picture's {len(raw) / 1e6:.0f} MB of rows: {best:.2f} s (the encoder's floor with zlib)")
PY
