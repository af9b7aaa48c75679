#pragma once

#include <QString>

namespace widmo {

/// Names the equal-tempered note nearest to a frequency (A4 = 440 Hz, sharps
/// only, octaves numbered from C as in scientific pitch notation) with the
/// deviation in cents, for the measuring cursors.
///
/// Threading: stateless; any thread.
class MusicConverter {
public:
    MusicConverter() = delete;

    /// "A4 +0.0c", "A#4 -0.0c", "C-4 -37.6c": note, octave, a space, the
    /// deviation in [-50, +50) cents to one decimal with "+" unless negative
    /// (the sign is decided before rounding, so -0.01 prints "-0.0"), "c".
    /// "-" for a frequency that is not greater than 0 (or not finite).
    static QString convertToNote(double frequency);
};

} // namespace widmo
