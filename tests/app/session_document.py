"""Test signals as WAV files, and the document a last-session file keeps."""
import array
import configparser
import sys
import wave


def write_mono_wav(path, rate, seconds, sample):
    """A 16-bit mono WAV of `sample(t)` (full scale 1.0) over `seconds`."""
    frames = int(seconds * rate)
    data = array.array("h", (int(32767 * sample(k / rate)) for k in range(frames)))
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(data.tobytes())


class Document:
    """The last session's samples (a ring of float32) and the keys describing
    them: `keys`, `rate`, `written` (frames recorded in all), `capacity`."""

    def __init__(self, samples_path, state_path):
        state = configparser.ConfigParser()
        state.read(state_path)
        self.keys = state["General"]
        intervals = int(self.keys["analyzerDefaults.actualInterval"])
        size = int(self.keys["lastSession.intervalSizeInFrames"])
        self.rate = float(self.keys["lastSession.sampleRate"])
        self.store = array.array("f")
        with open(samples_path, "rb") as f:
            self.store.frombytes(f.read())
        if sys.byteorder != "little":
            self.store.byteswap()
        self.capacity = len(self.store)
        self.written = intervals * size

    def samples(self, first, end):
        """Frames [first, end) of the recording (the file is a ring)."""
        return [self.store[k % self.capacity] for k in range(first, end)]
