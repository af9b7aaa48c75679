#pragma once

#include "dsp/Heterodyne.h"

#include <atomic>
#include <cstdint>

namespace widmo {

class FFTPlanCache;

/// Makes ultrasound audible in real time, in one of two ways:
///
/// Transposition shifts a stream down by a whole number of octaves (factor T =
/// 1..64) and keeps its timing: an input second gives an output second. It is
/// a phase vocoder that compresses time by T, followed by an interpolator that
/// stretches it back by T (which divides every frequency by T):
/// - Analysis: frames of M samples (M = the power of two nearest rate / 192
///   at or above it: 5.3 ms at 192 and 384 kHz; 256..4,096), Hann-windowed, every
///   H = M / 4 samples; a real forward transform. Bin 0 and bin M/2 are
///   dropped; with the 20 kHz filter, so is every bin below 20 kHz.
/// - Each peak of the magnitudes gets the phase that continues the previous
///   frame at its true frequency (read from the turn of its phase over one
///   hop) over the compressed hop H / T; the bins around it (to the valleys
///   on either side) turn with it, magnitudes unchanged.
/// - Synthesis: the inverse transform's middle M / T samples, weighted so that
///   the analysis window times this weight is a Hann window of M / T points,
///   are overlap-added every H / T samples into the compressed stream (Hann at
///   a quarter of its length sums to 2, so a steady tone keeps its amplitude).
/// - Interpolation by T: a Kaiser-windowed sinc (48 taps per phase, beta 7.35,
///   pass band to 0.4 and stop band from 0.5 of the compressed stream's rate,
///   75 dB down there) makes the T output samples of each compressed one.
///
/// Why this way: the interpolator band-limits to the output's share of the
/// band, so a tone has no mirror image (the stretched stream's images around
/// multiples of rate / T lie in the stop band), and the level of a steady tone
/// is the input's for every factor (no gain depends on T). The synthesis
/// frame lasts as long as the analysis frame (M output samples), so the
/// latency is M - H + 24 T samples, not the T M of a frame stretched whole:
/// 4.0 ms + 0.125 T ms at 192 kHz (5 ms for three octaves).
///
/// Heterodyne (`setMode`) mixes the input with a tuned oscillator and
/// low-passes it to the audio band (see `Heterodyne`); the output follows the
/// input by one input block.
///
/// A change of the factor while running fades the output out over 4 ms,
/// restarts the stream at the new factor from the input of the last frame, and
/// the first frames' overlap fades it in again: no step at the change.
///
/// Output follows input: a request that would come closer than one input
/// block to the newest input the stream can give gets silence (and leaves the
/// output position where it was, so that the delay settles at what the blocks'
/// timing needs). A late block can leave the output further behind than
/// that; more than three blocks and two requests behind, it fades out over 4
/// ms, moves up to one block and one request behind, and fades in again, so
/// the delay does not grow with every hiccup of a loaded machine. Past the start-up (more than
/// 32,768 input samples), ten such requests in a row mean the transposer cannot keep up:
/// `getTransposedData` answers false once, and the caller stops the recording with
/// `kTooSlowMessage`.
///
/// Transforms run on the plans of the FFTW plan cache (real forward and
/// complex backward, M points), made ahead by its planning thread (or
/// `preparePlans`); a frame whose plans are not made yet is silent, never
/// planned here. All buffers are allocated at construction.
///
/// Threading: `addNewData` runs on one thread (the audio delivery queue),
/// `getTransposedData`, `setFilter20kHzOn` and `setMode` on another (the
/// real-time render thread); neither allocates, locks or waits. They share the
/// input ring and `inputSampleID`, an atomic that the writer advances
/// (release) only after the samples are in the ring, and the reader (acquire)
/// never reads past it. The ring holds 65,536 samples, far more than the two
/// sides ever lie apart; a reader that falls a whole ring behind starts over at
/// the newest input. `heterodyne()`'s tuning and band are atomics (any
/// thread). `setupTransposition` runs while neither side runs, on any thread;
/// the hand-over that starts the two sides orders it before them.
class Transposer {
public:
    enum class Mode { Transpose, Heterodyne };

    static constexpr int32_t kRingSize = 65536;
    static constexpr int32_t kMaxFactor = 64;
    static constexpr int32_t kMinFrame = 256;
    static constexpr int32_t kMaxFrame = 4096;
    /// Taps of the interpolator on each side of the interpolated point.
    static constexpr int32_t kInterpolatorHalf = 24;
    /// Transformed samples after which empty requests count as too slow.
    static constexpr int64_t kStartUpSamples = 32768;
    /// Consecutive empty requests that mean "too slow".
    static constexpr int32_t kTooSlowRequests = 10;
    /// Successful requests after which the empty-request count starts afresh.
    static constexpr int32_t kRegionRequests = 1001;
    static constexpr double kFilterCutHz = 20000.0;
    /// The fade at a change of the factor, seconds.
    static constexpr double kFadeSeconds = 0.004;
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

    /// Makes the plans every rate needs in `plans` (blocks while planning;
    /// milliseconds with stored wisdom). Any non-real-time thread. False when
    /// FFTW could not plan one of them.
    static bool preparePlans(FFTPlanCache& plans);
    /// The analysis frame M at `sampleRate` Hz.
    static int32_t frameSize(int32_t sampleRate);
    /// The delay from input to output that the transposition itself adds at
    /// `sampleRate` and `factor`, in samples: M - H + 24 T (input blocks and
    /// the output stream not counted).
    static int32_t latencySamples(int32_t sampleRate, int32_t factor);

    /// Starts afresh: both rings zeroed, every sample count and request counter
    /// 0, the too-slow report cleared. Factor, filter, rate and mode stay.
    void setupTransposition();

    /// Sets the filter (on: everything below 20 kHz is dropped), the input
    /// `sampleRate` in Hz, and the `factor`: at most 64, rounded down to a
    /// power of two, below 1 meaning 0 (off: silence, no too-slow report). A
    /// new rate restarts the stream at once; a new factor after a fade (see
    /// the class comment). Reader's thread.
    void setFilter20kHzOn(bool filterOn, int32_t factor, int32_t sampleRate);
    /// Transposition or heterodyne; a change restarts the stream from the
    /// newest input. Reader's thread.
    void setMode(Mode mode);
    Mode mode() const { return mode_; }
    /// The heterodyne's tuning and band (atomics: any thread).
    Heterodyne& heterodyne() { return heterodyne_; }

    /// Appends `count` input samples (at most the ring's size are kept: the
    /// newest). Writer's thread.
    void addNewData(const float* data, int32_t count);

    /// Transforms every frame the input completes, then writes `count` output
    /// samples to `out` (silence while the output would come closer than one
    /// input block to what the input allows). False exactly once when it
    /// cannot keep up (see the class comment), else true. Reader's thread.
    bool getTransposedData(float* out, int32_t count);

    int32_t factor() const { return factor_; }
    bool filterOn() const { return filterOn_; }
    int32_t sampleRate() const { return sampleRate_; }
    /// Input samples received so far (any thread).
    int64_t inputSampleID() const { return inputSampleID_.load(std::memory_order_acquire); }
    /// Output samples handed out since the start, as input positions (the
    /// silence of a start-up not counted).
    int64_t outputSampleID() const { return outputSampleID_; }
    /// Input position of the next frame to transform.
    int64_t transpSampleID() const { return transpSampleID_; }
    bool tooSlow() const { return mTooSlow_; }

private:
    /// Frame, hops, windows, interpolator and filter for the rate and factor
    /// in force (no allocation).
    void configure();
    /// Transformation and output continue from input position `position`.
    void restartAt(int64_t position);
    /// Transforms the frame at `transpSampleID_` and overlap-adds its middle
    /// into the compressed stream.
    void transformFrame();
    /// Writes `count` interpolated samples from output position `outputSampleID_`.
    void interpolate(float* out, int32_t count);
    /// The newest output position (exclusive) that the frames so far complete.
    int64_t readyUntil() const;
    /// Fades the `count` samples of `out` while a change of factor or a move
    /// of the output waits, applies it once faded out, then fades in.
    void fade(float* out, int32_t count);

    FFTPlanCache& plans_;
    // Parameters (reader's thread).
    Mode mode_ = Mode::Transpose;
    int32_t factor_ = 0;
    int32_t pendingFactor_ = -1; ///< a factor waiting for the fade to end (-1: none)
    int32_t fadeDone_ = 0;       ///< samples of the fade-out played
    int32_t fadeIn_ = 0;         ///< samples of the fade-in still to play
    bool pendingJump_ = false;   ///< the output moves up after the fade-out
    bool filterOn_ = false;
    int32_t sampleRate_ = 0;
    int32_t frame_ = 0;             ///< M
    int32_t hop_ = 0;               ///< H
    int32_t segment_ = 0;           ///< M / T
    int32_t segmentHop_ = 0;        ///< H / T
    int32_t firstKeptBin_ = 1;      ///< bins below are dropped
    const float* phases_ = nullptr; ///< the interpolator's T phases of 48 taps
    // Shared between the writer and the reader.
    float* inputBuffer_ = nullptr; ///< kRingSize samples, indexed by sample number
    std::atomic<int64_t> inputSampleID_{0};
    std::atomic<int32_t> lastDataInCount_{0};
    // Reader's thread.
    int64_t outputSampleID_ = 0;
    int64_t transpSampleID_ = 0;
    int64_t startSampleID_ = 0; ///< input position of the last restart (frame 0)
    int64_t framesDone_ = 0;    ///< frames transformed since the restart
    bool mTooSlow_ = false;
    int32_t mTooSlowCounter_ = 0;
    int32_t mRegionTooSlowCounter_ = 0;
    float* analysisWindow_ = nullptr;   ///< kMaxFrame: Hann of M points
    float* synthesisWeight_ = nullptr;  ///< kMaxFrame: per middle sample
    float* frameData_ = nullptr;        ///< kMaxFrame real samples
    float* spectrum_ = nullptr;         ///< kMaxFrame + 2: M/2 + 1 complex bins
    float* previousSpectrum_ = nullptr; ///< the same, of the previous frame
    float* inverse_ = nullptr;          ///< 2 kMaxFrame: M complex values
    float* turn_ = nullptr;         ///< per bin: the turn its peak gives it (output - input phase)
    float* previousTurn_ = nullptr; ///< the same, in the previous frame
    int32_t* peakBins_ = nullptr;   ///< the frame's peaks, ascending
    bool phasesValid_ = false;
    float* compressed_ = nullptr;    ///< kCompressedRing samples, by compressed sample number
    float* interpolators_ = nullptr; ///< every factor's phases, one after the other
    Heterodyne heterodyne_;
};

} // namespace widmo
