#include "core/CaptureGaps.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace widmo {
namespace {

using Gap = CaptureGaps::Gap;
using Cause = CaptureGaps::Cause;

TEST(CaptureGapsTest, gapAt_holdsFromStartToBeforeEnd_newest64Kept) {
    CaptureGaps gaps;
    EXPECT_FALSE(gaps.gapAt(0));
    gaps.add({100, 50, 1, Cause::SoundServer});
    gaps.add({1000, 1, 2, Cause::InputDevice});
    EXPECT_FALSE(gaps.gapAt(99));
    EXPECT_EQ(gaps.gapAt(100)->lostAtMs, 1);
    EXPECT_EQ(gaps.gapAt(149)->lostAtMs, 1);
    EXPECT_FALSE(gaps.gapAt(150));
    EXPECT_EQ(gaps.gapAt(1000)->cause, Cause::InputDevice);
    EXPECT_FALSE(gaps.gapAt(1001));

    // Past the capacity the oldest go; frames before every kept gap are in none.
    for (int64_t i = 2; i < 100; ++i)
        gaps.add({i * 1000, 10, i, Cause::InputDevice});
    EXPECT_EQ(gaps.count(), 100);
    const std::vector<Gap> kept = gaps.gaps();
    ASSERT_EQ(kept.size(), size_t(CaptureGaps::kCapacity));
    EXPECT_EQ(kept.front().startFrame, 36000);
    EXPECT_EQ(kept.back().startFrame, 99000);
    EXPECT_FALSE(gaps.gapAt(120));
    EXPECT_EQ(gaps.gapAt(36005)->lostAtMs, 36);

    gaps.clear();
    EXPECT_TRUE(gaps.gaps().empty());
    EXPECT_FALSE(gaps.gapAt(99005));
}

TEST(CaptureGapsTest, encodeDecode_roundTrip_damagedEntriesLeftOut) {
    const std::vector<Gap> list{{0, 44100, 1795610665022, Cause::SoundServer},
                                {88200, 3, 1795610700000, Cause::InputDevice}};
    EXPECT_EQ(CaptureGaps::decode(CaptureGaps::encode(list)), list);
    EXPECT_TRUE(CaptureGaps::decode(QString()).empty());
    // Malformed, empty, unknown cause, negative start, overlapping its predecessor.
    EXPECT_EQ(CaptureGaps::decode("0:10:5:0;x:1:1:0;20:0:1:0;30:5:1:2;-4:2:1:0;5:10:1:1;40:2:9:1"),
              (std::vector<Gap>{{0, 10, 5, Cause::SoundServer}, {40, 2, 9, Cause::InputDevice}}));
}

// The intake adds while the analysis and the saver read: a reader never sees
// half of an entry (each gap written here has frames = startFrame / 1000 and
// lostAtMs = startFrame).
TEST(CaptureGapsTest, readerDuringWrites_neverSeesATornEntry) {
    CaptureGaps gaps;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int64_t i = 1; !done.load(); ++i)
            gaps.add({i * 1000, i, i * 1000, Cause::InputDevice});
    });
    int64_t torn = 0, seen = 0;
    while (gaps.count() < CaptureGaps::kCapacity)
        std::this_thread::yield();
    for (int round = 0; round < 3000; ++round) {
        for (const Gap& g : gaps.gaps()) {
            ++seen;
            if (g.frames != g.startFrame / 1000 || g.lostAtMs != g.startFrame)
                ++torn;
        }
        const int64_t newest = gaps.count() * 1000;
        if (const auto g = gaps.gapAt(newest + 1); g && (g->frames != g->startFrame / 1000))
            ++torn;
    }
    done.store(true);
    writer.join();
    EXPECT_GT(seen, 0);
    EXPECT_EQ(torn, 0);
}

} // namespace
} // namespace widmo
