#!/usr/bin/env bash
# widmo-analyze --spectrogram against sox's spectrogram on the same 10-minute
# 48 kHz WAV, at the same FFT size (2048: sox's largest, 1025 rows) and hop
# (512 samples: 93.75 columns a second), both with a Hamming window. Each
# command runs three times; the best wall time counts (the machine may be
# shared). Then the audio analysed per second at widmo-analyze's defaults.
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

best() { # best wall time in seconds of three runs of "$@"
    local b=
    for _ in 1 2 3; do
        local t0 t1
        t0=$(date +%s.%N)
        "$@" > /dev/null
        t1=$(date +%s.%N)
        b=$(echo "$t1 - $t0" | bc -l | awk -v b="$b" '{ if (b == "" || $1 < b) print $1; else print b }')
    done
    echo "$b"
}

sox_t=$(best sox "$wav" -n spectrogram -y 1025 -X 93.75 -w Hamming -o "$work/sox.png")
one_t=$(best "$analyze" --spectrogram --fft-size 2048 --rows 1024 --interval 4 --window hamming \
    --jobs 1 --no-progress -o "$work/one" "$wav")
all_t=$(best "$analyze" --spectrogram --fft-size 2048 --rows 1024 --interval 4 --window hamming \
    --jobs "$cores" --no-progress -o "$work/all" "$wav")
def_t=$(best "$analyze" --spectrogram --spectrum --bands 3 --summary --no-progress \
    -o "$work/defaults" "$wav")
spec_t=$(best "$analyze" --spectrum --no-progress -o "$work/spectrum" "$wav")

printf '%-58s %8s %8s\n' "10 min of 48 kHz audio" "wall s" "sox / it"
printf '%-58s %8.2f %8s\n' "sox spectrogram (FFT 2048, hop 512)" "$sox_t" "1.00"
printf '%-58s %8.2f %8.2f\n' "widmo-analyze --spectrogram, same FFT and hop, 1 thread" "$one_t" \
    "$(echo "$sox_t / $one_t" | bc -l)"
printf '%-58s %8.2f %8.2f\n' "widmo-analyze --spectrogram, same FFT and hop, $cores threads" "$all_t" \
    "$(echo "$sox_t / $all_t" | bc -l)"
printf '%-58s %8.2f %8s\n' "widmo-analyze defaults, all outputs, $cores threads" "$def_t" "-"
printf '%-58s %8.2f %8s\n' "widmo-analyze defaults, --spectrum only, $cores threads" "$spec_t" "-"
echo "audio seconds analysed per second at the defaults: all outputs $(echo "600 / $def_t" | bc -l | xargs printf '%.0f'), spectrum only $(echo "600 / $spec_t" | bc -l | xargs printf '%.0f')"
cmp -s "$work/one/ten-minutes.wav.png" "$work/all/ten-minutes.wav.png" &&
    echo "1 thread and $cores threads wrote the same image"
