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

TEST(MusicConverterTest, namesNotesAcrossOctaves) {
    EXPECT_EQ(MusicConverter::convertToNote(440.0), "A4 +0.0c");
    EXPECT_EQ(MusicConverter::convertToNote(261.63), "C4 +0.0c");
    EXPECT_EQ(MusicConverter::convertToNote(27.5), "A0 +0.0c");
    EXPECT_EQ(MusicConverter::convertToNote(4186.01), "C8 +0.0c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(2, 403.0)), "E2 +3.0c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(6, 688.0)), "G6 -12.0c");
    EXPECT_EQ(MusicConverter::convertToNote(1.0), "C-4 -37.6c");
}

TEST(MusicConverterTest, boundariesBetweenNotes) {
    // The wrap into the next octave's C starts at 1150 cents.
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(3, 1149.9)), "B3 +49.9c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(3, 1150.1)), "C4 -49.9c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(4, 49.9)), "C4 +49.9c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(4, 50.0001)), "C#4 -50.0c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(4, 1049.9)), "A#4 +49.9c");
}

TEST(MusicConverterTest, signDecidedBeforeRounding) {
    EXPECT_EQ(MusicConverter::convertToNote(466.16), "A#4 -0.0c");
    EXPECT_EQ(MusicConverter::convertToNote(aboveC(5, 0.01)), "C5 +0.0c");
}

TEST(MusicConverterTest, nonPositiveOrInvalidFrequencyGivesDash) {
    EXPECT_EQ(MusicConverter::convertToNote(0.0), "-");
    EXPECT_EQ(MusicConverter::convertToNote(-440.0), "-");
    EXPECT_EQ(MusicConverter::convertToNote(std::nan("")), "-");
}

} // namespace
} // namespace widmo
