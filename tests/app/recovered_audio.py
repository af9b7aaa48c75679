#!/usr/bin/env python3
"""A chirp played into the virtual microphone, and what the last-session file
kept of it.

  recovered_audio.py make <wav>
      Writes the test signal: a linear chirp (16-bit mono WAV at 44.1 kHz).
  recovered_audio.py check <samples file> <state file> <seconds played at the kill>
      Finds the chirp in the document that the file and its keys describe,
      prints how many seconds of it were lost, and fails when more than 10 s
      were, or when the last 5 s kept differ from what was played anywhere
      (a lost or misplaced interval breaks the alignment).

The chirp's frequency rises linearly, so the frequency of the newest samples
tells which moment of the playback they are; one alignment then has to hold
over all of the last 5 s.
"""
import math
import sys

from session_document import Document, write_mono_wav

RATE = 44100
F0 = 200.0  # Hz at the start
SLOPE = 150.0  # Hz per second
SECONDS = 16.0
AMPLITUDE = 0.5


def chirp(t):
    if t < 0.0 or t > SECONDS:
        return 0.0
    return AMPLITUDE * math.sin(2.0 * math.pi * (F0 * t + 0.5 * SLOPE * t * t))


def make(path):
    write_mono_wav(path, RATE, SECONDS, chirp)


def correlation(a, b):
    ab = sum(x * y for x, y in zip(a, b))
    aa = sum(x * x for x in a)
    bb = sum(y * y for y in b)
    return ab / math.sqrt(aa * bb) if aa > 0 and bb > 0 else 0.0


def check(samples_path, state_path, played):
    document = Document(samples_path, state_path)
    rate, written, capacity = document.rate, document.written, document.capacity
    keep = int(5 * rate)
    if rate != RATE or written < keep or capacity < keep:
        sys.exit(f"recovered: {written} samples at {rate} Hz, not 5 s at {RATE} Hz")
    # The document's newest `keep` samples, oldest first (the file is a ring).
    doc = document.samples(written - keep, written)

    # Which moment of the chirp the newest samples are: their frequency.
    tail = doc[-4096:]
    crossings = sum(1 for x, y in zip(tail, tail[1:]) if (x < 0.0) != (y < 0.0))
    frequency = crossings / 2.0 / (len(tail) / rate)
    newest = (frequency - F0) / SLOPE + (len(tail) / 2) / rate
    # To the sample: a short window finds every candidate (one per period of
    # the tone, all alike over a few milliseconds), two seconds pick the one.
    def score(t_end, length, step):
        part = doc[keep - length :: step]
        ref = [chirp(t_end - (length - 1 - k * step) / rate) for k in range(len(part))]
        return correlation(part, ref)

    shifts = [newest + s / rate for s in range(-2500, 2501)]
    short = [score(t, 512, 1) for t in shifts]
    candidates = [shifts[k] for k in range(1, len(short) - 1)
                  if short[k] > 0.8 and short[k] >= short[k - 1] and short[k] >= short[k + 1]]
    if not candidates:
        sys.exit("recovered: the newest samples are not the chirp")
    best_t = max(candidates, key=lambda t: score(t, int(2 * rate), 3))
    # The one alignment must hold over every half second of the last 5 s.
    worst = 1.0
    piece = int(rate / 2)
    for start in range(0, keep - piece + 1, piece):
        part = doc[start : start + piece]
        ref = [chirp(best_t - (keep - 1 - (start + k)) / rate) for k in range(piece)]
        worst = min(worst, correlation(part, ref))
    lost = played - best_t
    print(f"recovered: newest sample is {best_t:.3f} s into the chirp, killed at {played:.3f} s:"
          f" {lost:.2f} s lost; correlation over the last 5 s >= {worst:.4f}")
    if worst < 0.95:
        sys.exit("recovered: the kept samples differ from what was played")
    if lost > 10.0 or best_t < 5.0:
        sys.exit("recovered: more than 10 s lost")


if __name__ == "__main__":
    if sys.argv[1] == "make":
        make(sys.argv[2])
    else:
        check(sys.argv[2], sys.argv[3], float(sys.argv[4]))
