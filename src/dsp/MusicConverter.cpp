#include "dsp/MusicConverter.h"

#include <cmath>
#include <cstdio>

namespace widmo {

namespace {

constexpr const char* kNoteNames[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                        "F#", "G",  "G#", "A",  "A#", "B"};
/// log2(440): A4.
constexpr double kLog2A4 = 8.78135971352466;

} // namespace

QString MusicConverter::convertToNote(double frequency) {
    if (!(frequency > 0.0) || !std::isfinite(frequency))
        return QStringLiteral("-");

    // A4 lands at 4.75: the integer part then counts octaves from C.
    const double p = std::log2(frequency) - kLog2A4 + 4.0 + 0.75;
    int octave = static_cast<int>(std::floor(p));
    double cents = (p - std::floor(p)) * 1200.0;

    int note = 0;
    if (cents >= 1150.0) {
        // Less than 50 cents below the next octave's C.
        cents -= 1200.0;
        ++octave;
    } else if (cents >= 50.0) {
        note = static_cast<int>((cents - 50.0) / 100.0) + 1;
        // Guard the boundaries against the division's rounding.
        if (cents < 50.0 + 100.0 * (note - 1))
            --note;
        else if (cents >= 50.0 + 100.0 * note)
            ++note;
        cents -= 100.0 * note;
    }

    // One decimal, always; a negative deviation brings its own sign, also
    // when it rounds to zero ("-0.0").
    // (std::snprintf, not QString::asprintf: Qt's formatter drops the sign of
    // negative zero.)
    const double rounded = std::round(cents * 10.0) / 10.0;
    char text[48];
    std::snprintf(text, sizeof text, "%s%d %s%.1fc", kNoteNames[note], octave,
                  cents >= 0.0 ? "+" : "", rounded);
    return QString::fromLatin1(text);
}

} // namespace widmo
