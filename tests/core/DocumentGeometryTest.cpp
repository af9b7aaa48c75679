#include "core/AnalyzerDefaults.h"

#include "TempSettings.h"

#include <vector>

namespace widmo {
namespace {

class DocumentGeometryTest : public test::TempSettings {
protected:
    std::unique_ptr<AnalyzerDefaults> make(const AnalyzerFeatures& f) {
        return std::make_unique<AnalyzerDefaults>(f, "geometry-test");
    }
};

/// The geometry a document is sized from: FFT output size, lower edge of the
/// logarithmic axis, interval, segment size, spectrogram width and seconds,
/// segments, intervals held, store bytes, then step and count of the time,
/// spectrum-frequency and spectrogram-frequency scales.
void expectGeometry(const AnalyzerDefaults& d, const std::vector<double>& want) {
    const std::vector<double> got = {double(d.fftOutSize()),
                                     d.logStartFrequency(),
                                     double(d.intervalSizeInFrames()),
                                     double(d.segmentSize()),
                                     double(d.spectrogramWidth()),
                                     d.spectrogramDuration(),
                                     double(d.segmentCount()),
                                     double(d.audioBuffersIntervalsCount()),
                                     double(d.audioBufferByteSize()),
                                     d.timeLabelStep(),
                                     double(d.timeLabelCount()),
                                     d.spectrumFrequencyTexturesMinValue(),
                                     double(d.spectrumFrequencyTexturesCount()),
                                     d.spectrogramFrequencyTexturesMinValue(),
                                     double(d.spectrogramFrequencyTexturesCount())};
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) // exact, but the seconds to 1e-5
        EXPECT_NEAR(got[i], want[i], i == 5 ? 1e-5 : 0.0) << "value " << i;
}

TEST_F(DocumentGeometryTest, workedResultsWithoutSpectrogram) {
    auto d = make(AnalyzerFeatures::spectrumProduct());
    expectGeometry(*d,
                   {2048, 20.0f, 512, 64, 172, 2.0f, 6, 448, 917504, 0.2f, 11, 200, 111, 200, 111});

    d->setSampleRate(96000.0f);
    d->recalculateDocumentSettings();
    expectGeometry(
        *d, {2048, 23.4375f, 1024, 64, 187, 2.0f, 6, 448, 1835008, 0.2f, 11, 500, 97, 500, 97});
}

TEST_F(DocumentGeometryTest, workedResultsWithSpectrogram) {
    auto d = make(AnalyzerFeatures::studioProduct());
    expectGeometry(*d, {2048, 20.0f, 512, 64, 5168, 60.000362f, 115, 7424, 15204352, 0.2f, 301, 200,
                        111, 200, 111});

    // A read-only document is shown as long as it was recorded, no longer.
    d->setReadOnly(true);
    d->setTimeOfDocument(10.0f);
    d->recalculateDocumentSettings();
    EXPECT_FLOAT_EQ(10.0f, d->spectrogramDuration());
    EXPECT_EQ(861, d->spectrogramWidth()); // trunc(10 / (512 / 44100))

    d->setReadOnly(false);
    d->setCpu64bit(false);
    d->recalculateDocumentSettings();
    EXPECT_EQ(2584, d->spectrogramWidth()) << "a reduced device gets half the width";
}

TEST_F(DocumentGeometryTest, logarithmicAxisStartsAtOneBinButNotBelow20Hz) {
    auto d = make(AnalyzerFeatures::studioProduct());
    EXPECT_EQ(20.0f, d->logStartFrequency()); // one bin is 10.77 Hz

    d->setSampleRate(384000.0f);
    d->setFftSize(256);
    d->recalculateDocumentSettings();
    EXPECT_EQ(128, d->fftOutSize());
    EXPECT_EQ(1500.0f, d->logStartFrequency());
    EXPECT_EQ(7.0f, d->logIntervalDelta());
}

TEST_F(DocumentGeometryTest, intervalLengthIsAboutOneMillisecondTimesPowerOfTwo) {
    const std::pair<float, float> table[] = {{44100, 32},   {48000, 32},   {88200, 64},
                                             {96000, 64},   {176400, 128}, {192000, 128},
                                             {352800, 256}, {384000, 256}};
    for (auto [rate, frames] : table)
        EXPECT_EQ(frames, AnalyzerDefaults::calculateMinIntervalSizeInFramesFromSampleRate(rate))
            << rate;

    auto d = make(AnalyzerFeatures::spectrumProduct());
    const int expected[] = {32, 64, 128, 256, 512};
    for (int power = 0; power <= 4; ++power) {
        d->setIntervalSizePower(power);
        d->recalculateDocumentSettings();
        EXPECT_EQ(expected[power], d->intervalSizeInFrames());
    }
}

TEST_F(DocumentGeometryTest, segmentSizeFollowsDisplaySize) {
    auto d = make(AnalyzerFeatures::studioProduct());
    const std::pair<int, int> table[] = {{512, 256}, {1024, 128}, {2048, 64}, {4096, 32}};
    for (auto [display, segment] : table) {
        d->setFftDisplaySize(display);
        d->recalculateDocumentSettings();
        EXPECT_EQ(segment, d->segmentSize()) << display;
    }
}

TEST(RoundTo125Test, roundsUpToTheSequenceThenClamps) {
    const struct {
        float value;
        int minimum, maximum, rounded;
    } table[] = {{17, 1, 1000, 20},
                 {20, 1, 1000, 20},
                 {0.5f, 10, 10000, 10},
                 {2000, 100, 1000, 1000},
                 {1.0001f, 1, 10, 2},
                 {1, 1, 10, 1},
                 {21, 1, 1000, 50},
                 {51, 1, 1000, 100},
                 {std::numeric_limits<float>::infinity(), 1, 1000, 1000}};
    for (const auto& c : table)
        EXPECT_EQ(c.rounded, AnalyzerDefaults::roundUpTo125Series(c.value, c.minimum, c.maximum))
            << c.value;
}

} // namespace
} // namespace widmo
