#pragma once

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

typedef struct sf_private_tag SNDFILE;

namespace widmo {

/// Reads a recording front to back in blocks, as one mono channel of float
/// samples: a file of any format libsndfile reads, or (for the name "-") a
/// WAV, AIFF, FLAC, ... stream on standard input, which is never seeked.
///
/// A stream's header may not give its length: a FLAC stream may leave it
/// out, and a WAV writer that cannot seek back (sox into a pipe) writes a
/// placeholder near the 32-bit limit. A stream whose declared data size is
/// within 64 KiB of 1, 2 or 4 GiB, or beyond 128 GiB, counts as one of
/// unknown length (`declaredFrames` -1).
/// A known length is a promise: a stream or file that ends before it fails
/// as truncated.
///
/// Threading: one thread at a time (any but the real-time audio thread).
class SoundStream {
public:
    /// The name that reads standard input.
    static constexpr const char* kStandardInput = "-";

    SoundStream();
    ~SoundStream();
    SoundStream(const SoundStream&) = delete;
    SoundStream& operator=(const SoundStream&) = delete;

    /// Opens `path` (or standard input for "-"); `channel` 0 mixes all
    /// channels, n > 0 reads channel n. False with `errorText` (a sentence
    /// for the user) when the file is missing, a folder, unreadable, empty,
    /// not audio, or lacks the channel.
    bool open(const QString& path, int32_t channel);

    /// Reads up to `maxFrames` mono frames into `out`: the count read, 0 at
    /// the end, -1 on a read error or truncation (`errorText` says which).
    /// Samples that are not finite (a damaged float file) read as 0.
    int64_t read(float* out, int64_t maxFrames);

    double sampleRate() const { return sampleRate_; }
    int32_t channels() const { return channels_; }
    /// Frames the header promises, -1 when it does not say.
    int64_t declaredFrames() const { return declaredFrames_; }
    int64_t framesRead() const { return framesRead_; }
    const QString& errorText() const { return error_; }

private:
    struct StandardInput;

    SNDFILE* file_ = nullptr;
    std::unique_ptr<StandardInput> input_;
    double sampleRate_ = 0.0;
    int32_t channels_ = 0;
    int32_t channel_ = 0;
    int64_t declaredFrames_ = -1;
    int64_t framesRead_ = 0;
    std::vector<float> interleaved_;
    QString error_;
};

} // namespace widmo
