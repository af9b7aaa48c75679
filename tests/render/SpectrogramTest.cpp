#include "dsp/FFTManager.h"
#include "render/SpectrogramScrollView.h"
#include "render/SpectrogramScrollViewSegment.h"

#include "RenderTestSupport.h"

#include <QCoreApplication>
#include <QImage>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <thread>
#include <vector>

using widmo::FFTManager;
using widmo::SpectrogramColorRamp;
using widmo::SpectrogramScrollView;
using widmo::SpectrogramScrollViewSegment;
using widmo::test::spectrogramDocument;

namespace {

std::array<uint8_t, 4> bytes(const std::array<float, 4>& c) {
    return {static_cast<uint8_t>(c[0] * 255.0f), static_cast<uint8_t>(c[1] * 255.0f),
            static_cast<uint8_t>(c[2] * 255.0f), 255};
}

std::array<uint8_t, 4> pixel(const SpectrogramScrollViewSegment& s, int32_t column, int32_t row) {
    std::array<uint8_t, 4> out{};
    std::memcpy(out.data(),
                s.imageData() + (static_cast<size_t>(row) * s.segmentSize() + column) * 4, 4);
    return out;
}

void drainMainQueue() {
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
}

// Ramp edges in every scheme, and one column through the dB path: a level at
// or below the minimum is colour 0, 0 dB is colour 3, the top row stays clear.
TEST(SpectrogramColours, rampEdgesAndDecibelColumn) {
    auto d = spectrogramDocument();
    SpectrogramScrollView view(*d);
    for (int32_t scheme : {0, 1, 2}) {
        d->setSpectrogramColorType(scheme);
        view.setColorForSpectrogram();
        const SpectrogramColorRamp& r = view.colorRamp();
        EXPECT_EQ(r.colorForLevel(r.levelThresholds[0]), bytes(r.levelColors[0])) << scheme;
        EXPECT_EQ(r.colorForLevel(r.levelThresholds[3]), bytes(r.levelColors[3])) << scheme;
        EXPECT_EQ(r.colorForLevel(1.0f), bytes(r.levelColors[3])) << scheme;
        EXPECT_EQ(r.colorForLevel(r.levelThresholds[1]), bytes(r.levelColors[1])) << scheme;
        EXPECT_EQ(r.colorForLevel(0.0f), bytes(r.levelColors[0])) << scheme;
    }
    d->setSpectrogramColorType(7); // unknown: the white scheme stays
    view.setColorForSpectrogram();
    EXPECT_EQ(bytes(view.colorRamp().levelColors[0]), (std::array<uint8_t, 4>{255, 255, 255, 255}));

    d->setSpectrogramColorType(0);
    view.setColorForSpectrogram();
    const SpectrogramColorRamp& r = view.colorRamp();
    // Halfway between the second and third thresholds: blue 0.8 to green 0.9.
    const float mid = (r.levelThresholds[1] + r.levelThresholds[2]) / 2.0f;
    const std::array<uint8_t, 4> half = r.colorForLevel(mid);
    EXPECT_EQ(half[0], 0);
    EXPECT_NEAR(half[1], 114, 1);
    EXPECT_NEAR(half[2], 102, 1);

    SpectrogramScrollViewSegment segment(*d, r);
    std::vector<float> column(static_cast<size_t>(d->fftDisplaySize()), -200.0f);
    column[1] = 0.0f;
    column[2] = -120.0f;
    column[3] = -60.0f; // level 0.5: between green (0.54) and blue (0.27)
    column.back() = 0.0f;
    segment.addFFTdata(column.data(), 5);
    EXPECT_EQ(pixel(segment, 0, 0), bytes(r.levelColors[0])) << "-200 dB against a -120 dB minimum";
    EXPECT_EQ(pixel(segment, 0, 1), bytes(r.levelColors[3]));
    EXPECT_EQ(pixel(segment, 0, 2), bytes(r.levelColors[0]));
    EXPECT_EQ(pixel(segment, 0, 3), r.colorForLevel(0.5f));
    EXPECT_EQ(pixel(segment, 0, d->fftDisplaySize() - 1), bytes(r.levelColors[0]))
        << "top row written";
    EXPECT_EQ(pixel(segment, 1, 1), bytes(r.levelColors[0])) << "next column touched";
    EXPECT_EQ(segment.parametersAtIndex(0).intervalIndex, 5);
    EXPECT_EQ(segment.parametersAtIndex(1).intervalIndex, -1);
    EXPECT_EQ(segment.parametersAtIndex(0).valuesInDBMinimumLevelDB, -120.0f);
}

// Logarithmic rows between two points are interpolated in row space; the
// column's running cursor agrees with the row-by-row search on every row, up
// to the last point and beyond it.
TEST(SpectrogramColours, logarithmicRowsInterpolateBetweenPoints) {
    auto d = spectrogramDocument(false);
    const int32_t points = d->spectrogramLogIndexesCount() - 1;
    ASSERT_GT(points, 10);
    const int32_t* idx = d->spectrogramLogIndexes();
    std::vector<float> values(static_cast<size_t>(points));
    for (int32_t j = 0; j < points; ++j)
        values[static_cast<size_t>(j)] =
            -120.0f + 120.0f * static_cast<float>(j) / static_cast<float>(points - 1);
    // A gap of more than one row between two points: the midpoint reads halfway.
    int32_t j = 0;
    while (j + 1 < points && idx[j + 1] - idx[j] < 4)
        ++j;
    ASSERT_LT(j + 1, points);
    const int32_t r = idx[j] + (idx[j + 1] - idx[j]) / 2;
    const float t = static_cast<float>(r - idx[j]) / static_cast<float>(idx[j + 1] - idx[j]);
    const auto vj = static_cast<size_t>(j);
    EXPECT_FLOAT_EQ(SpectrogramScrollViewSegment::valueAtRow(*d, values.data(), r),
                    values[vj] + t * (values[vj + 1] - values[vj]));
    EXPECT_EQ(SpectrogramScrollViewSegment::valueAtRow(*d, values.data(), idx[points - 1] + 3),
              0.0f);

    SpectrogramScrollView view(*d);
    const SpectrogramColorRamp& ramp = view.colorRamp();
    SpectrogramScrollViewSegment segment(*d, ramp);
    segment.addFFTdata(values.data(), 0);
    for (int32_t row = 0; row + 1 < d->fftDisplaySize(); ++row) {
        const float x = SpectrogramScrollViewSegment::valueAtRow(*d, values.data(), row);
        const float n = std::clamp(1.0f - x / -120.0f, 0.0f, 1.0f);
        ASSERT_EQ(pixel(segment, 0, row), ramp.colorForLevel(n)) << "row " << row;
    }
}

// Uploads: one per 8 columns, none while one is queued, always the full segment.
TEST(SpectrogramSegment, uploadThrottle) {
    auto d = spectrogramDocument();
    SpectrogramColorRamp ramp;
    SpectrogramScrollViewSegment segment(*d, ramp);
    const int32_t size = segment.segmentSize();
    ASSERT_EQ(size, 64);
    drainMainQueue();
    const int64_t base = segment.uploadCount(); // the construction's clear
    std::vector<float> column(static_cast<size_t>(d->fftDisplaySize()), -10.0f);
    for (int i = 0; i < 7; ++i)
        segment.addFFTdata(column.data(), i);
    EXPECT_EQ(segment.pendingUploads(), 0);
    segment.addFFTdata(column.data(), 7);
    EXPECT_EQ(segment.pendingUploads(), 1);
    for (int i = 8; i < 16; ++i) // the 16th column finds one queued: skipped
        segment.addFFTdata(column.data(), i);
    EXPECT_EQ(segment.pendingUploads(), 1);
    drainMainQueue();
    EXPECT_EQ(segment.uploadCount(), base + 1);
    EXPECT_EQ(segment.uploadedColumns(), 16);
    EXPECT_EQ(segment.pendingUploads(), 0);
    for (int i = 16; i < 63; ++i)
        segment.addFFTdata(column.data(), i);
    EXPECT_EQ(segment.pendingUploads(), 1); // queued at 24, the rest skipped
    segment.addFFTdata(column.data(), 63);  // full: queued although one is pending
    EXPECT_EQ(segment.pendingUploads(), 2);
    segment.addFFTdata(column.data(), 64); // full: ignored
    EXPECT_EQ(segment.writeIndex(), size);
    drainMainQueue();
    EXPECT_EQ(segment.uploadCount(), base + 3);
    EXPECT_EQ(segment.uploadedColumns(), size);
    EXPECT_EQ(segment.parametersAtIndex(size - 1).intervalIndex, 63);

    // After resetWrite nothing of the old picture is shown until the next upload.
    segment.resetWrite();
    EXPECT_EQ(segment.uploadedColumns(), 0);
    EXPECT_EQ(segment.writeIndex(), 0);
}

// The analysis writes lap after lap into one segment (reset when full, as the
// ring does) while the main thread uploads what it publishes: every column a
// lap published holds that lap's colour, whole, and the thread checker sees
// no upload read a column being written or reset.
TEST(SpectrogramSegment, lapsWrittenWhileUploadsRun_columnsStayWhole) {
    auto d = spectrogramDocument();
    SpectrogramColorRamp ramp;
    ASSERT_TRUE(SpectrogramColorRamp::forColorType(0, &ramp));
    SpectrogramScrollViewSegment segment(*d, ramp);
    const int32_t size = segment.segmentSize();
    const auto rows = static_cast<size_t>(d->fftDisplaySize());
    constexpr int kLaps = 40;
    // Lap k writes -k * 3 dB in every row: a colour of its own per lap.
    std::atomic<int> lapsDone{0};
    std::thread writer([&] {
        std::vector<float> column(rows);
        for (int lap = 0; lap < kLaps; ++lap) {
            std::fill(column.begin(), column.end(), -3.0f * static_cast<float>(lap));
            for (int32_t c = 0; c < size; ++c)
                segment.addFFTdata(column.data(), int64_t{lap} * size + c);
            lapsDone.store(lap + 1, std::memory_order_release);
            if (lap + 1 < kLaps)
                segment.resetWrite();
        }
    });
    while (lapsDone.load(std::memory_order_acquire) < kLaps)
        QCoreApplication::processEvents();
    writer.join();
    drainMainQueue();
    EXPECT_EQ(segment.uploadedColumns(), size);
    EXPECT_GT(segment.uploadCount(), kLaps);
    std::vector<float> last(rows, -3.0f * (kLaps - 1));
    std::vector<float> scratch(rows);
    std::vector<uint32_t> colors(rows);
    SpectrogramScrollViewSegment::columnColors(*d, ramp, last.data(), scratch.data(),
                                               colors.data());
    for (int32_t c = 0; c < size; ++c)
        for (int32_t r = 0; r + 1 < d->fftDisplaySize(); r += 97)
            ASSERT_EQ(std::memcmp(pixel(segment, c, r).data(), &colors[size_t(r)], 4), 0)
                << "column " << c << " row " << r;
}

// The ring: the oldest segment is reset, moves to the front and continues the
// time axis; the show list never changes.
TEST(SpectrogramRing, segmentsRotateAndAreReused) {
    auto d = spectrogramDocument();
    SpectrogramScrollView view(*d);
    view.prepareData();
    const auto count = static_cast<size_t>(d->segmentCount());
    ASSERT_GE(count, 3u);
    ASSERT_EQ(view.segmentsToShow().size(), count);
    const auto shown = view.segmentsToShow();
    EXPECT_EQ(view.currentToWrite(), shown.front());
    const int32_t size = d->segmentSize();
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(shown[i]->position(), static_cast<float>(i) * static_cast<float>(size));

    std::vector<float> spectrum(static_cast<size_t>(d->fftOutSize()), 1e-6f);
    int64_t interval = 0;
    for (int32_t c = 0; c < size; ++c)
        view.addFFTdata(spectrum.data(), interval++);
    EXPECT_EQ(view.segmentOffset(), 1);
    EXPECT_EQ(view.currentToWrite(), shown.back()) << "the last of the write list comes next";
    EXPECT_EQ(view.segmentsToWrite().front(), shown.back());
    EXPECT_EQ(view.currentToWrite()->position(), static_cast<float>(size));
    EXPECT_EQ(view.currentToWrite()->writeIndex(), 0);

    // Once around the ring: the first segment is written again, after the others.
    for (size_t s = 1; s < count; ++s)
        for (int32_t c = 0; c < size; ++c)
            view.addFFTdata(spectrum.data(), interval++);
    EXPECT_EQ(view.segmentOffset(), static_cast<int64_t>(count));
    EXPECT_EQ(view.currentToWrite(), shown.front());
    EXPECT_EQ(view.currentToWrite()->position(),
              static_cast<float>(count) * static_cast<float>(size));
    view.addFFTdata(spectrum.data(), interval);
    EXPECT_EQ(shown.front()->parametersAtIndex(0).intervalIndex, interval);
    EXPECT_EQ(shown.back()->parametersAtIndex(0).intervalIndex, size);
    EXPECT_EQ(view.segmentsToShow(), shown);

    view.clearData();
    EXPECT_EQ(view.segmentOffset(), 0);
    EXPECT_EQ(view.segmentsToWrite(), shown);
    EXPECT_EQ(view.currentToWrite(), shown.front());
    EXPECT_EQ(shown.front()->parametersAtIndex(0).intervalIndex, -1);
}

// A 1 kHz full-scale tone in one interval, read back under the cursor.
TEST(SpectrogramMeasuring, toneCellReadsTimeFrequencyAndLevel) {
    auto d = spectrogramDocument();
    d->audioBuffersData().assign(static_cast<size_t>(d->audioBufferByteSize() / 4), 0.0f);
    const int32_t n = d->intervalSizeInFrames();
    const int64_t tone = 40; // the interval whose window holds the tone
    const int64_t newest = 50;
    const int32_t fftSize = d->fftSize();
    // Centred on bin 85, which is display row 85 (one bin per row).
    const double frequency = 85.0 * 24000.0 / 2048.0;
    std::vector<float>& store = d->audioBuffersData();
    const int64_t capacity = static_cast<int64_t>(store.size());
    const int64_t end = (tone + 1) * n;
    for (int64_t k = end - fftSize; k < end; ++k)
        store[static_cast<size_t>(k % capacity)] =
            static_cast<float>(std::sin(2.0 * std::numbers::pi * frequency * k / 48000.0));
    d->setActualInterval(newest);

    SpectrogramScrollView view(*d);
    view.prepareData();
    FFTManager fft(*d);
    for (int64_t i = newest - 20; i < newest; ++i) {
        float* out = nullptr;
        fft.computeFFTForInterval(i, nullptr, &out);
        view.addFFTdata(out, i);
    }

    const double width = d->spectrogramWidth();
    const double x = 1.0 - (static_cast<double>(newest - tone) - 0.5) / width;
    const double y = 85.5 / 2048.0;
    const SpectrogramScrollView::MeasureReading m = view.measureAt(QPointF(x, y));
    ASSERT_TRUE(m.valid);
    EXPECT_EQ(m.intervalIndex, tone);
    EXPECT_EQ(m.row, 85);
    EXPECT_NEAR(m.frequency, y * 24000.0, 1e-9);
    EXPECT_EQ(m.note, QStringLiteral("B5 +24.7c"));
    EXPECT_NEAR(m.secondsBack, (newest - 1 - tone) * n / 48000.0, 1e-9);
    ASSERT_TRUE(m.hasLevel);
    // A bin-centred full-scale sine reads 0 dB.
    EXPECT_NEAR(m.level, 0.0, 0.1);
    // The newest interval (its window ends long after the tone) and a far row
    // of the tone's interval are silent.
    ASSERT_GT((newest - 1 - tone) * n, fftSize);
    const auto newestCell = view.measureAt(QPointF(1.0 - 0.5 / width, y));
    EXPECT_EQ(newestCell.intervalIndex, newest - 1);
    EXPECT_LT(newestCell.level, -140.0);
    EXPECT_LT(view.measureAt(QPointF(x, 0.5)).level, -60.0);
}

// Written columns appear at the right edge of the picture, at their rows.
TEST(SpectrogramDrawing, writtenColumnsAppearAtTheRightPlace) {
    auto d = spectrogramDocument();
    SpectrogramScrollView view(*d);
    view.resize(400, 200);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.prepareData();
    const int32_t size = d->segmentSize();
    std::vector<float> spectrum(static_cast<size_t>(d->fftOutSize()), 0.0f);
    // Full scale in the lower quarter of the rows, silence above.
    for (size_t k = 0; k < spectrum.size() / 4; ++k)
        spectrum[k] = 1.0f;
    const int64_t first = 100;
    for (int64_t i = first; i < first + size; ++i)
        view.addFFTdata(spectrum.data(), i);
    d->setActualInterval(first + size);
    drainMainQueue();
    const QImage image = view.grabFramebuffer();
    ASSERT_FALSE(image.isNull());
    const double width = d->spectrogramWidth();
    const int w = image.width();
    const int h = image.height();
    auto isRed = [](QRgb c) { return qRed(c) > 200 && qGreen(c) < 40 && qBlue(c) < 40; };
    auto isBlack = [](QRgb c) { return qRed(c) < 30 && qGreen(c) < 30 && qBlue(c) < 30; };
    const int low = h - 1 - h / 8; // an eighth of the height from the bottom
    EXPECT_TRUE(isRed(image.pixel(w - 3, low)));
    EXPECT_TRUE(isBlack(image.pixel(w - 3, h / 2)));
    EXPECT_TRUE(isBlack(image.pixel(w / 4, low))) << "nothing was written there";
    // The band starts `size` columns before the right edge.
    int left = w - 3;
    while (left > 0 && isRed(image.pixel(left - 1, low)))
        --left;
    EXPECT_NEAR(left, w * (1.0 - size / width), 3.0);
}

// While following, the right edge slides through the newest column over one
// interval's duration (timed from when the count changed), never past it;
// stopped, it is the newest interval count.
TEST(SpectrogramDrawing, rightEdgeSlidesWithTheAudioClock) {
    auto d = spectrogramDocument();
    d->setIntervalSizePower(d->intervalSizePower() + 4); // intervals of about 0.17 s
    d->recalculateDocumentSettings();
    SpectrogramScrollView view(*d);
    view.resize(200, 100);
    view.prepareData();
    const double seconds = d->intervalSizeInFrames() / 48000.0;
    ASSERT_GT(seconds, 0.05);
    view.startScrolling();
    d->setActualInterval(10);
    view.grabFramebuffer();
    const double start = view.rightEdgeInterval();
    EXPECT_GE(start, 9.0);
    EXPECT_LT(start, 9.5);
    QTest::qWait(static_cast<int>(seconds * 500.0));
    view.grabFramebuffer();
    EXPECT_GT(view.rightEdgeInterval(), start + 0.2) << "not moving between columns";
    EXPECT_LT(view.rightEdgeInterval(), 10.0);
    QTest::qWait(static_cast<int>(seconds * 1000.0));
    view.grabFramebuffer();
    EXPECT_EQ(view.rightEdgeInterval(), 10.0) << "ran past the newest column";
    d->setActualInterval(11);
    view.grabFramebuffer();
    EXPECT_LT(view.rightEdgeInterval(), 10.5);
    view.pauseScrolling();
    view.grabFramebuffer();
    EXPECT_EQ(view.rightEdgeInterval(), 11.0);
}

} // namespace

namespace {

// While the analyser runs, a software frame is started from the last one
// moved by the pixels the columns slid; after many such frames the picture is
// the one a whole redraw gives.
TEST(SpectrogramDrawing, slidFramesMatchAWholeRedraw) {
    if (!widmo::GLView::drawsInSoftware())
        GTEST_SKIP() << "frames slide on the software path only";
    auto d = spectrogramDocument();
    d->setIntervalSizePower(d->intervalSizePower() + 4); // intervals of about 0.17 s
    d->recalculateDocumentSettings();
    // Not shown: frames are drawn only here, by `grabFramebuffer`.
    SpectrogramScrollView view(*d);
    view.resize(400, 200);
    view.prepareData();
    view.setAnalyzerRunning(true);
    view.startScrolling();
    // Each column lights a band of its own height: a column drawn at the
    // wrong place, or a stale one, changes many pixels.
    std::vector<float> spectrum(static_cast<size_t>(d->fftOutSize()), 0.0f);
    const auto addColumn = [&](int64_t i) {
        std::fill(spectrum.begin(), spectrum.end(), 0.0f);
        const auto top = static_cast<size_t>((i % 7 + 1) * spectrum.size() / 9);
        std::fill(spectrum.begin(), spectrum.begin() + static_cast<std::ptrdiff_t>(top), 1.0f);
        view.addFFTdata(spectrum.data(), i);
        d->setActualInterval(i + 1);
    };
    int64_t next = 0;
    for (; next < 40; ++next)
        addColumn(next);
    drainMainQueue();
    view.grabFramebuffer();
    for (int frame = 0; frame < 20; ++frame) {
        addColumn(next++);
        // Uploads (every 8 columns) reach the view late, after the columns
        // they hold have slid left of the newest pixels.
        if (frame % 5 == 4)
            drainMainQueue();
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // no events
        view.grabFramebuffer();
    }
    // One more column, the edge coming to rest on it: the slid frame there
    // against a whole one at the same place.
    addColumn(next++);
    drainMainQueue();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const QImage slidFrame = view.grabFramebuffer();
    EXPECT_GE(view.framesDrawnFromTheLast(), 20) << "the frames were drawn whole";
    view.setNeedsDisplay();
    const QImage whole = view.grabFramebuffer();
    EXPECT_EQ(view.framesDrawnFromTheLast(), 0);
    ASSERT_EQ(slidFrame.size(), whole.size());
    int differing = 0;
    for (int y = 0; y < whole.height(); ++y)
        for (int x = 0; x < whole.width(); ++x)
            differing += slidFrame.pixel(x, y) != whole.pixel(x, y) ? 1 : 0;
    // Columns start on whole pixels there: the pictures agree (one pixel
    // column of slack; a slide off by one pixel, or late columns left out,
    // differ in thousands).
    EXPECT_LE(differing, whole.height());
}

} // namespace
