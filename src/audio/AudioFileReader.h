#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

typedef struct sf_private_tag SNDFILE;

namespace widmo {

/// Reads an audio file of any format libsndfile reads (WAV, AIFF, FLAC, Ogg,
/// Opus, MP3, ...) as one mono channel of float samples, optionally converted
/// to another sample rate with libsoxr.
///
/// `open` checks the file and reports its rate, channels and length, or an
/// error text meant for the user; `readMono` then reads it from the start,
/// either as the mean of all channels or as one chosen channel. A file whose
/// frame count libsndfile cannot know beforehand (some compressed streams)
/// is read to its end all the same.
///
/// Threading: one reader belongs to one thread at a time (any thread but the
/// real-time audio thread: it allocates and reads the disk). `cancel` may be
/// called from any other thread while `readMono` runs; it makes the read stop
/// at its next block and fail.
class AudioFileReader {
public:
    /// `readMono`'s channel argument for the mean of all channels.
    static constexpr int32_t kMixAllChannels = -1;
    /// Frames read from the file per block (and per progress report); files
    /// of more than 8 channels are read in proportionally shorter blocks.
    static constexpr int64_t kBlockFrames = 32768;
    /// The largest conversion ratio (either way) `readMono` accepts: a file
    /// at a rate 256 times lower or higher than the target is refused.
    static constexpr double kMaxRateRatio = 256.0;
    /// The most output frames reserved before reading (64 MiB of samples); a
    /// longer file grows its output as it is read.
    static constexpr int64_t kMaxReserveFrames = int64_t{1} << 24;

    /// Progress of `readMono`: frames of the file read so far and the file's
    /// frame count (as `frames()`). Called on the reading thread after each block.
    using Progress = std::function<void(int64_t framesRead, int64_t framesTotal)>;

    AudioFileReader() = default;
    ~AudioFileReader();
    AudioFileReader(const AudioFileReader&) = delete;
    AudioFileReader& operator=(const AudioFileReader&) = delete;

    /// Opens the file at `path` (UTF-8), closing any file opened before.
    /// False when it is missing, a folder, unreadable, empty, or not audio
    /// libsndfile can read; `errorText` then says which.
    bool open(const std::string& path);
    void close();
    bool isOpen() const { return file_ != nullptr; }

    /// Why the last `open` or `readMono` failed, as a sentence for the user;
    /// empty after a success.
    const std::string& errorText() const { return error_; }

    /// The open file's sample rate in Hz (> 0), channel count (>= 1), length
    /// in frames (>= 0; an estimate for some compressed formats) and duration
    /// in seconds. Zero when no file is open.
    double sampleRate() const { return sampleRate_; }
    int32_t channels() const { return channels_; }
    int64_t frames() const { return frames_; }
    double duration() const { return sampleRate_ > 0 ? double(frames_) / sampleRate_ : 0.0; }
    /// The container and encoding as libsndfile names them, e.g. "WAV (Microsoft)
    /// / 16 bit PCM". Empty when no file is open.
    std::string formatName() const;

    /// Reads the open file from its first frame into `out` (replacing its
    /// contents) as mono: `channel` kMixAllChannels for the mean of all
    /// channels, else the channel of that index (0 .. channels()-1).
    /// `targetRate` in Hz (> 0) converts with libsoxr at high quality; 0 or the
    /// file's own rate keeps the samples as they are. `maxFrames` (>= 0) stops
    /// after that many output frames; negative reads the whole file.
    /// False on a bad argument, a rate too far from the target (kMaxRateRatio),
    /// a read error of the file, or `cancel`;
    /// `errorText` says which and `out` then holds what was read before.
    bool readMono(std::vector<float>& out, double targetRate = 0.0,
                  int32_t channel = kMixAllChannels, int64_t maxFrames = -1,
                  const Progress& progress = {});

    /// Makes a running or the next `readMono` stop and fail. Any thread.
    void cancel() { cancelled_.store(true, std::memory_order_release); }

    /// Convenience: opens `path` and reads it whole as `readMono` does.
    /// False with `error` set when either step fails.
    static bool readFile(const std::string& path, std::vector<float>& out, std::string& error,
                         double targetRate = 0.0, int32_t channel = kMixAllChannels,
                         int64_t maxFrames = -1);

private:
    SNDFILE* file_ = nullptr;
    int formatCode_ = 0;
    double sampleRate_ = 0.0;
    int32_t channels_ = 0;
    int64_t frames_ = 0;
    std::string error_;
    std::atomic<bool> cancelled_{false};
};

} // namespace widmo
