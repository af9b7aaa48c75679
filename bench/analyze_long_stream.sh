#!/usr/bin/env bash
# widmo-analyze's peak memory on a long stream that exists only as a pipe:
# sox synthesises HOURS of sound at RATE Hz (a sweep under a steady tone and
# pink noise) into widmo-analyze's standard input as an AU stream (a WAV
# stream stops at 2 GiB, 47 minutes at 384 kHz), with every output that
# does not need the length beforehand. /usr/bin/time reports the maximum
# resident set size, and the wall and CPU time of the analysis.
#   bench/analyze_long_stream.sh path/to/widmo-analyze [hours] [rate] [work folder]
set -euo pipefail
analyze=${1:?usage: $0 path/to/widmo-analyze [hours] [rate] [work folder]}
hours=${2:-3}
rate=${3:-384000}
work=${4:-$(mktemp -d)}
mkdir -p "$work"
seconds=$((hours * 3600))
top=$((rate * 4 / 10))

sox -V1 -n -r "$rate" -b 16 -t au - synth "$seconds" sine 100-"$top" synth "$seconds" sine mix 1000 \
    synth "$seconds" pinknoise mix vol 0.3 |
    /usr/bin/time -v -o "$work/time" "$analyze" --summary --spectrum --bands 3 --levels 60 --ltsa 60 \
        --spectrogram --tile 60 --no-progress --name long -o "$work/out" - > "$work/summary.jsonl"

rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/time")
wall=$(awk -F': ' '/Elapsed \(wall clock\)/ { print $2 }' "$work/time")
user=$(awk -F': ' '/User time/ { print $2 }' "$work/time")
echo "$hours h at $rate Hz through standard input: peak resident $((rss / 1024)) MB," \
    "wall $wall, user ${user} s"
echo "summary: $(cat "$work/summary.jsonl")"
echo "tiles: $(find "$work/out" -name 'long.*.png' ! -name '*.ltsa.png' | wc -l)," \
    "LTSA rows: $(($(wc -l < "$work/out/long.ltsa.csv") - 1))"
