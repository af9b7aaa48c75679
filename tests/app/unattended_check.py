#!/usr/bin/env python3
"""A 1 kHz tone played into the virtual microphone, and what the document and
the level log kept of a recording whose sound server went away.

  unattended_check.py make <wav>
      Writes the tone: 1 kHz at half of full scale, 60 s, 16-bit mono WAV at 44.1 kHz.
  unattended_check.py check <samples file> <state file> <level log> <seconds away> <seconds recorded>
      Fails unless the document (the last-session file and keys) holds one
      capture gap as long as capture was away (within 0.2 s), silence in it,
      the tone before and after it, and as many frames as the recording's
      wall-clock time, less up to the input's start-up (at most 7 cycles of
      2048 frames are dropped), within 0.15 s (the test's polling of the
      server, the last partial interval);
      and unless the level log says when capture stopped and when it
      resumed, after as long.
"""
import datetime
import math
import sys

from session_document import Document, write_mono_wav

RATE = 44100
TONE = 1000.0
AMPLITUDE = 0.5


def make(path):
    write_mono_wav(path, RATE, 60, lambda t: AMPLITUDE * math.sin(2.0 * math.pi * TONE * t))


def tone_found(samples, rate):
    """The stretch is the tone: its level and its zero crossings' frequency."""
    rms = math.sqrt(sum(x * x for x in samples) / len(samples))
    crossings = sum(1 for x, y in zip(samples, samples[1:]) if (x < 0.0) != (y < 0.0))
    frequency = crossings / 2.0 / (len(samples) / rate)
    return rms > AMPLITUDE / math.sqrt(2) / 2 and abs(frequency - TONE) < 20, rms, frequency


def check(samples_path, state_path, log_path, away, recorded):
    failures = []
    document = Document(samples_path, state_path)
    rate, written, capacity = document.rate, document.written, document.capacity
    gaps = [g for g in document.keys.get("lastSession.gaps", "").strip('"').split(";") if g]
    print(f"document: {written / rate:.3f} s, recording {recorded:.3f} s; gaps {gaps}; "
          f"capture away {away:.3f} s")
    # The input's first 7 cycles are dropped: up to 7 x 2048 frames, fewer
    # when the stream starts with short fragments.
    startup = 7 * 2048 / rate
    if not -(startup + 0.15) <= written / rate - recorded <= 0.15:
        failures.append(f"the document holds {written / rate:.3f} s, the recording took "
                        f"{recorded:.3f} s with {startup:.3f} s of start-up")
    if len(gaps) != 1:
        sys.exit(f"unattended_check: {len(gaps)} gaps marked, 1 expected")
    start, frames, lost_ms, cause = (int(v) for v in gaps[0].split(":"))
    seconds = frames / rate
    if abs(seconds - away) > 0.2:
        failures.append(f"the gap is {seconds:.3f} s, capture was away {away:.3f} s")
    if cause != 0:
        failures.append(f"the gap's cause is {cause}, not the sound server (0)")
    end = start + frames
    if start - int(1.5 * rate) < written - capacity or end + int(2.5 * rate) > written:
        sys.exit(f"unattended_check: the document's ring ({capacity / rate:.1f} s) does not hold "
                 "the gap with 1.5 s before and 2.5 s after it")

    doc = document.samples
    before = tone_found(doc(start - int(1.5 * rate), start - int(0.2 * rate)), rate)
    after = tone_found(doc(end + int(1.0 * rate), end + int(2.5 * rate)), rate)
    silent = doc(start, end)
    print(f"before the gap: rms {before[1]:.3f} at {before[2]:.1f} Hz; after: rms {after[1]:.3f} "
          f"at {after[2]:.1f} Hz; largest sample in the gap {max(abs(x) for x in silent):.3g}")
    if not before[0]:
        failures.append("no tone before the gap")
    if not after[0]:
        failures.append("no tone after the gap")
    if any(x != 0.0 for x in silent):
        failures.append("the gap is not silence")

    with open(log_path, encoding="utf-8") as f:
        lines = f.read().splitlines()
    stop = [l for l in lines if l.endswith("capture stopped: the sound server went away")]
    resume = [l for l in lines if ",capture resumed after " in l]
    if len(stop) != 1 or len(resume) != 1:
        failures.append(f"level log: {len(stop)} stop and {len(resume)} resume lines, 1 each expected")
    else:
        stopped_at = datetime.datetime.fromisoformat(stop[0].split(",")[0])
        resumed_at = datetime.datetime.fromisoformat(resume[0].split(",")[0])
        said = float(resume[0].rsplit(" after ", 1)[1].split(" ")[0])
        between = (resumed_at - stopped_at).total_seconds()
        print(f"level log: stopped {stop[0]}\n           resumed {resume[0]}")
        if abs(said - seconds) > 0.01 or abs(between - seconds) > 0.2:
            failures.append(f"level log: resumed after {said} s, {between:.3f} s between the lines, "
                            f"the gap is {seconds:.3f} s")
    if failures:
        sys.exit("unattended_check: " + "; ".join(failures))


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "make":
        make(sys.argv[2])
    elif len(sys.argv) == 7 and sys.argv[1] == "check":
        check(sys.argv[2], sys.argv[3], sys.argv[4], float(sys.argv[5]), float(sys.argv[6]))
    else:
        sys.exit(__doc__)
