#pragma once

#include <atomic>
#include <cstdint>

namespace widmo {

class FFTPlanCache;

/// Shifts a stream of samples down by a whole number of octaves in real time,
/// so that ultrasound (bat calls, for example) becomes audible, keeping its
/// timing: an input second gives an output second.
///
/// Frame by frame in the frequency domain, with T the factor (1, 2, 4, 8 or
/// 16), M = 8192 / T the input frame and H = min(M, 2048) the hop: the M
/// samples of a frame are packed as M/2 complex values (even samples real, odd
/// samples imaginary), padded with zeros and transformed with an M-point
/// complex FFT. Bins 0..M/2-1 are kept (their magnitudes unchanged, their
/// phases carried on as below) as the lowest bins of an 8,192-point inverse
/// transform; there they lie T times closer together, so
/// every frequency comes out divided by T. The first 4,096 complex values of
/// the inverse, scaled by 1/4096 and unpacked, are 8,192 output samples, which
/// a Hann window of 8,192 points times the output gain g = (32768 / M) /
/// (8192 / H) (1 for T = 1, 2 for T = 2, 4 above) weights before they are
/// overlap-added into the output ring at the frame's own input position. Bin
/// 0 (DC) is always dropped; with the 20 kHz filter every bin below 20 kHz
/// is, so that only the ultrasonic band is heard. The kept bins cover input
/// frequencies from 0 to a quarter of the rate (48 kHz at 192 kHz); a tone
/// above that comes out mirrored about it.
///
/// Frames overlap (8,192 output samples every H). A tone carried with the
/// phase it has at each frame's start would continue from frame to frame only
/// for input frequencies that are whole multiples of rate / (H (1 - 1/T))
/// (214.3 Hz at 192 kHz and T = 8), and frames of a steady tone between two
/// of them would cancel. So each kept bin is given, before the inverse
/// transform, the phase that continues the previous output frame: its true
/// frequency is read from the turn of its phase since the previous frame,
/// divided by T, and advanced over one hop (a phase vocoder); magnitudes stay.
///
/// The gain g is fixed once per process, by the factor in force at the first
/// frame any transposer makes, and the weighted window once per object: a later
/// change of the factor keeps both (the level then differs by the ratio of the
/// two gains).
///
/// Output lags input by at least one frame (M samples) plus one input block:
/// a request that would come closer than that to the newest transformed frame
/// gets silence. Past the start-up (more than 32,768 transformed samples), ten
/// such requests in a row mean the transposer cannot keep up:
/// `getTransposedData` answers false once, and the caller stops the recording
/// with `kTooSlowMessage`.
///
/// The transforms run on the complex plans of the FFTW plan cache (M points
/// forward, 8,192 backward), made ahead by its planning thread (or
/// `preparePlans`); a frame whose plans are not made yet is skipped (its hop is
/// silent), never planned here. All buffers are allocated once, at
/// construction; nothing else allocates.
///
/// Threading: `addNewData` runs on one thread (the audio delivery queue),
/// `getTransposedData` and `setFilter20kHzOn` on another (the real-time render
/// thread); neither allocates, locks or waits. They share the input ring and
/// `inputSampleID`, an atomic that the writer advances (release) only after
/// the samples are in the ring, and the reader (acquire) never reads past it.
/// The ring holds 65,536 samples, far more than the two sides ever lie apart;
/// a reader that falls a whole ring behind starts over at the newest input.
/// `setupTransposition` runs while neither side runs (before a recording or
/// playback starts), on any thread; the hand-over that starts the two sides
/// orders it before them. The read-outs are for the reader's thread (or when
/// nothing runs).
class Transposer {
public:
    static constexpr int32_t kRingSize = 65536;
    static constexpr int32_t kOutputFrame = 8192;
    static constexpr int32_t kMaxFactor = 16;
    static constexpr int32_t kMaxHop = 2048;
    /// Transformed samples after which empty requests count as too slow.
    static constexpr int64_t kStartUpSamples = 32768;
    /// Consecutive empty requests that mean "too slow".
    static constexpr int32_t kTooSlowRequests = 10;
    /// Successful requests after which the empty-request count starts afresh.
    static constexpr int32_t kRegionRequests = 1001;
    static constexpr double kFilterCutHz = 20000.0;
    static constexpr const char* kTooSlowMessage =
        "There are performance issues with an real-time transposition. Please restart recording.";

    /// A transposer on the plans of `plans` (the process's cache by default),
    /// which must outlive it. Factor 0 (nothing is transformed) until
    /// `setFilter20kHzOn` sets one. Allocates every buffer; non-real-time thread.
    explicit Transposer(FFTPlanCache& plans);
    Transposer();
    ~Transposer();
    Transposer(const Transposer&) = delete;
    Transposer& operator=(const Transposer&) = delete;

    /// Makes the complex plans every factor needs in `plans` (blocks while
    /// planning; milliseconds with stored wisdom). Any non-real-time thread.
    /// False when FFTW could not plan one of them.
    static bool preparePlans(FFTPlanCache& plans);

    /// Starts afresh: both rings zeroed, every sample count and request counter
    /// 0, the too-slow report cleared. Factor, filter and rate stay.
    void setupTransposition();

    /// Sets the filter (on: everything below 20 kHz is dropped) and the input
    /// `sampleRate` in Hz, and the `factor`: at most 16, rounded down to a
    /// power of two, below 1 meaning 0 (off: silence, no too-slow report
    /// before the start-up is over). A factor that differs from the current one
    /// also restarts the stream: transformation and output continue from the
    /// newest input, the output ring zeroed and the too-slow report cleared.
    /// Reader's thread.
    void setFilter20kHzOn(bool filterOn, int32_t factor, int32_t sampleRate);

    /// Appends `count` input samples (at most the ring's size are kept: the
    /// newest). Writer's thread.
    void addNewData(const float* data, int32_t count);

    /// Transforms every frame the input completes, then writes `count`
    /// transposed samples to `out` (silence while the output would come closer
    /// than one input block to the transformed frames). False exactly once
    /// when it cannot keep up (see the class comment), else true. Reader's
    /// thread.
    bool getTransposedData(float* out, int32_t count);

    int32_t factor() const { return factor_; }
    bool filterOn() const { return filterOn_; }
    int32_t sampleRate() const { return sampleRate_; }
    /// Input samples received so far (any thread).
    int64_t inputSampleID() const { return inputSampleID_.load(std::memory_order_acquire); }
    /// Output samples handed out since the last start (silence of the start-up
    /// not counted).
    int64_t outputSampleID() const { return outputSampleID_; }
    /// Input position of the next frame to transform.
    int64_t transpSampleID() const { return transpSampleID_; }
    bool tooSlow() const { return mTooSlow_; }
    /// The process's output gain g; 0 until the first frame.
    static float outputGain();
    /// Bins that the 20 kHz filter drops from a frame of `frameSize` samples
    /// at `sampleRate` Hz: the kept bins 0..M/2-1 span 0..rate/4, so
    /// trunc((M/2) * 20000 / (rate / 4)), at most M/2 (every bin below 80 kHz).
    static int32_t filteredBins(int32_t frameSize, int32_t sampleRate);

private:
    /// Transforms one frame at `transpSampleID_` and overlap-adds it.
    void transformFrame();
    /// Transformation and output continue from input position `position`.
    void restartAt(int64_t position);
    /// Gives each kept bin of the frame just transformed (M points, hop H) the
    /// phase that continues the previous output frame at its true frequency
    /// divided by the factor; keeps its magnitude.
    void carryPhases(int32_t m, int32_t h);

    FFTPlanCache& plans_;
    // Parameters (reader's thread).
    int32_t factor_ = 0;
    bool filterOn_ = false;
    int32_t sampleRate_ = 0;
    int32_t lastWindowSize_ = 0;
    // Shared between the writer and the reader.
    float* inputBuffer_ = nullptr; ///< kRingSize samples, indexed by sample number
    std::atomic<int64_t> inputSampleID_{0};
    std::atomic<int32_t> lastDataInCount_{0};
    // Reader's thread.
    int64_t outputSampleID_ = 0;
    int64_t transpSampleID_ = 0;
    int64_t startSampleID_ = 0; ///< input position of the last restart
    bool mTooSlow_ = false;
    int32_t mTooSlowCounter_ = 0;
    int32_t mRegionTooSlowCounter_ = 0;
    float* hannWindow_ = nullptr;   ///< kOutputFrame points, periodic
    float* fftOutWindow_ = nullptr; ///< hannWindow_ * g
    float* fftData_ = nullptr;      ///< kOutputFrame interleaved complex values, 64-byte aligned
    float* inputPhase_ = nullptr;   ///< per kept bin: its phase in the previous frame
    float* outputPhase_ = nullptr;  ///< per kept bin: the phase given to the previous output
    bool phasesValid_ = false;      ///< a frame has been transformed since the last start
    float* outputBuffer_ = nullptr; ///< kRingSize samples, overlap-added
};

} // namespace widmo
