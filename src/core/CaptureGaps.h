#pragma once

#include <QString>

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

namespace widmo {

/// The stretches of the document where capture stopped because the sound
/// server or the input device went away, in document frames. The document's
/// time stays wall-clock time: a gap is as long as the capture was away, and
/// its frames are silence in the sample store, so that what follows is at its
/// true time. The spectrogram draws a gap as a band of its own, the level log
/// says when capture stopped and resumed, and the last session keeps the list.
///
/// The newest `kCapacity` gaps are kept (older ones have left the document's
/// ring long before, unless the input fails every few seconds).
///
/// Threading: one writer at a time, `add` from the intake (no allocation, no
/// lock, no wait); `clear` and `restore` on the main thread while no intake
/// runs. Readers on any thread: every entry is published with a sequence
/// count, so `gapAt` never sees half of an entry being written (it tries again).
class CaptureGaps {
public:
    static constexpr int kCapacity = 64;

    enum class Cause : int32_t {
        SoundServer = 0, ///< the connection to the sound server was lost
        InputDevice = 1, ///< the input device went away
    };

    struct Gap {
        int64_t startFrame = 0; ///< first missing frame of the document
        int64_t frames = 0;     ///< missing frames at the document's rate
        int64_t lostAtMs = 0;   ///< wall-clock time of the loss, ms since the epoch
        Cause cause = Cause::SoundServer;

        int64_t endFrame() const { return startFrame + frames; }
        bool operator==(const Gap& other) const = default;
    };

    CaptureGaps() = default;
    CaptureGaps(const CaptureGaps&) = delete;
    CaptureGaps& operator=(const CaptureGaps&) = delete;

    /// Appends `gap` (frames >= 1; later than every gap before). Intake.
    void add(const Gap& gap);
    /// Forgets every gap (a new document). Main thread, no intake running.
    void clear();
    /// Replaces the list with `gaps` (a recovered document), oldest first.
    void restore(const std::vector<Gap>& gaps);

    /// The kept gaps, oldest first. Allocates: not for the intake.
    std::vector<Gap> gaps() const;
    /// The gap that holds document frame `frame`, if any. Any thread, no allocation.
    std::optional<Gap> gapAt(int64_t frame) const;
    /// The newest gap, if any. Any thread, no allocation.
    std::optional<Gap> newest() const;
    /// Gaps added since the document began (also those no longer kept).
    int64_t count() const { return added_.load(std::memory_order_acquire); }

    /// "start:frames:lostAtMs:cause" per gap, separated by ";", for the
    /// last-session keys.
    static QString encode(const std::vector<Gap>& gaps);
    /// The list `encode` wrote; entries that do not parse, overlap or run
    /// backwards are left out.
    static std::vector<Gap> decode(const QString& text);

private:
    struct Entry {
        std::atomic<uint32_t> sequence{0}; ///< odd while being written
        std::atomic<int64_t> startFrame{0};
        std::atomic<int64_t> frames{0};
        std::atomic<int64_t> lostAtMs{0};
        std::atomic<int32_t> cause{0};
    };
    /// One entry read whole; false when the writer was in it.
    static bool readEntry(const Entry& entry, Gap& out);

    std::array<Entry, kCapacity> entries_;
    std::atomic<int64_t> added_{0};
};

} // namespace widmo
