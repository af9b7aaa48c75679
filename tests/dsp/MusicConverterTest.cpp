#include "dsp/MusicConverter.h"

#include <gtest/gtest.h>

#include <cmath>

namespace widmo {
namespace {

/// The frequency `cents` above C of `octave`.
double aboveC(int octave, double cents) {
    const double c = 440.0 * std::pow(2.0, (octave - 4) + (-9.0 / 12.0));
    return c * std::pow(2.0, cents / 1200.0);
}

// The wrap into the next octave's C starts at 1150 cents; the sign of the cents
// is decided before rounding; what is no positive frequency reads "-".
TEST(MusicConverterTest, namesNoteAndCents_acrossOctavesAndAtTheBoundaries) {
    const std::pair<double, const char*> table[] = {{440.0, "A4 +0.0c"},
                                                    {261.63, "C4 +0.0c"},
                                                    {27.5, "A0 +0.0c"},
                                                    {4186.01, "C8 +0.0c"},
                                                    {aboveC(2, 403.0), "E2 +3.0c"},
                                                    {aboveC(6, 688.0), "G6 -12.0c"},
                                                    {1.0, "C-4 -37.6c"},
                                                    {aboveC(3, 1149.9), "B3 +49.9c"},
                                                    {aboveC(3, 1150.1), "C4 -49.9c"},
                                                    {aboveC(4, 49.9), "C4 +49.9c"},
                                                    {aboveC(4, 50.0001), "C#4 -50.0c"},
                                                    {aboveC(4, 1049.9), "A#4 +49.9c"},
                                                    {466.16, "A#4 -0.0c"},
                                                    {aboveC(5, 0.01), "C5 +0.0c"},
                                                    {0.0, "-"},
                                                    {-440.0, "-"},
                                                    {std::nan(""), "-"}};
    for (const auto& [hz, note] : table)
        EXPECT_EQ(MusicConverter::convertToNote(hz), note) << hz;
}

} // namespace
} // namespace widmo
