#!/usr/bin/env bash
# Fuzzes the audio import read path (AudioFileReader on libsndfile and libsoxr)
# with clang's libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer.
#   scripts/fuzz.sh [seconds]   (default 600)
# Builds into build-fuzz/, seeds the corpus with small real files made by sox,
# and keeps the corpus and any crashing input in build-fuzz/. Outside CI.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="$root/build-fuzz"
seconds="${1:-600}"
mkdir -p "$out/corpus" "$out/crashes"

clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/src" \
    "$root/tests/fuzz/AudioFileReaderFuzzer.cpp" "$root/src/audio/AudioFileReader.cpp" \
    $(pkg-config --cflags --libs sndfile soxr) -o "$out/audio_file_reader_fuzzer"

if [ -z "$(ls -A "$out/corpus")" ]; then
    for format in "wav -e floating-point -b 32" "wav -e signed-integer -b 16" "aiff -b 24" \
                "flac -b 16" "ogg" "au -e mu-law" "w64 -b 16" "caf -b 16"; do
        read -r type rest <<< "$format"
        # shellcheck disable=SC2086
        sox -n -r 8000 -c 2 $rest "$out/corpus/seed-${type}-${RANDOM}.${type}" \
            synth 0.05 sine 440 2>/dev/null || true
    done
fi

cd "$out"
./audio_file_reader_fuzzer -max_total_time="$seconds" -max_len=65536 -timeout=10 \
    -rss_limit_mb=2048 -artifact_prefix="$out/crashes/" -print_final_stats=1 "$out/corpus"
