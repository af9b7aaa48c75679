#include "batch/SoundStream.h"

#include <QFileInfo>

#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <unistd.h>

namespace widmo {

namespace {

constexpr int64_t kBlockSamples = 65536;

int bytesPerSample(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        return 1;
    case SF_FORMAT_PCM_16:
        return 2;
    case SF_FORMAT_PCM_24:
        return 3;
    case SF_FORMAT_DOUBLE:
        return 8;
    default:
        return 4;
    }
}

} // namespace

// Standard input for libsndfile: read forward only, except that its first
// 64 KiB are kept so that the format probes may seek back over the header.
struct SoundStream::StandardInput {
    static constexpr int64_t kKept = 65536;
    std::vector<char> head = std::vector<char>(kKept);
    int64_t headSize = 0; ///< bytes kept
    int64_t position = 0; ///< the reader's position in the stream
    int64_t received = 0; ///< bytes taken from standard input

    static sf_count_t length(void*) { return sf_count_t{1} << 40; }
    static sf_count_t tell(void* self) { return static_cast<StandardInput*>(self)->position; }
    static sf_count_t seek(sf_count_t offset, int whence, void* self) {
        auto* in = static_cast<StandardInput*>(self);
        const int64_t to = whence == SEEK_SET   ? offset
                           : whence == SEEK_CUR ? in->position + offset
                                                : -1;
        // Back into the kept header, or nowhere: a seek forward would read
        // and drop the stream (libsndfile probes for chunks after the data).
        if (to >= 0 &&
            ((to <= in->headSize && in->position <= in->headSize) || to == in->position)) {
            in->position = to;
            return to;
        }
        return -1;
    }
    static sf_count_t readBytes(void* data, sf_count_t count, void* self) {
        auto* in = static_cast<StandardInput*>(self);
        char* out = static_cast<char*>(data);
        sf_count_t got = 0;
        while (got < count) {
            if (in->position < in->headSize) {
                const auto n = std::min<int64_t>(in->headSize - in->position, count - got);
                std::memcpy(out + got, in->head.data() + in->position, static_cast<size_t>(n));
                in->position += n;
                got += n;
                continue;
            }
            // Still within the first kKept bytes: they are kept as they come.
            const bool keep = in->received < kKept && in->position == in->received;
            char* to = keep ? in->head.data() + in->headSize : out + got;
            const auto room =
                keep ? std::min<int64_t>(kKept - in->headSize, count - got) : count - got;
            const ssize_t n = ::read(STDIN_FILENO, to, static_cast<size_t>(room));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            in->received += n;
            if (keep) {
                in->headSize += n;
            } else {
                in->position += n;
                got += n;
            }
        }
        return got;
    }
};

SoundStream::SoundStream() = default;

SoundStream::~SoundStream() {
    if (file_ != nullptr)
        sf_close(file_);
}

bool SoundStream::open(const QString& path, int32_t channel) {
    SF_INFO info{};
    const bool standardInput = path == QLatin1String(kStandardInput);
    if (standardInput) {
        input_ = std::make_unique<StandardInput>();
        SF_VIRTUAL_IO io{&StandardInput::length, &StandardInput::seek, &StandardInput::readBytes,
                         nullptr, &StandardInput::tell};
        file_ = sf_open_virtual(&io, SFM_READ, &info, input_.get());
        if (file_ == nullptr) {
            error_ = input_->received == 0
                         ? QStringLiteral("standard input holds nothing")
                         : QStringLiteral("standard input is not audio that can be read (%1)")
                               .arg(QString::fromLocal8Bit(sf_strerror(nullptr)));
            return false;
        }
    } else {
        const QFileInfo fi(path);
        if (!fi.exists()) {
            error_ = QStringLiteral("The file %1 does not exist.").arg(fi.fileName());
            return false;
        }
        if (fi.isDir()) {
            error_ = QStringLiteral("%1 is a folder, not an audio file.").arg(fi.fileName());
            return false;
        }
        if (!fi.isReadable()) {
            error_ = QStringLiteral("The file %1 cannot be read.").arg(fi.fileName());
            return false;
        }
        if (fi.isFile() && fi.size() == 0) {
            error_ = QStringLiteral("The file %1 is empty.").arg(fi.fileName());
            return false;
        }
        file_ = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
        if (file_ == nullptr) {
            error_ = QStringLiteral("The file %1 is not audio that can be read (%2).")
                         .arg(fi.fileName(), QString::fromLocal8Bit(sf_strerror(nullptr)));
            return false;
        }
    }
    if (info.samplerate <= 0 || info.channels <= 0 || info.frames < 0) {
        error_ = QStringLiteral("no valid sample rate or channel count in its header");
        return false;
    }
    sampleRate_ = info.samplerate;
    channels_ = info.channels;
    declaredFrames_ = info.frames;
    if (standardInput) {
        const double bytes =
            static_cast<double>(info.frames) * info.channels * bytesPerSample(info.format);
        // Placeholders near the 32-bit limits (a WAV writer that cannot
        // seek back), or a length libsndfile derived from the endless size
        // this reader reports for standard input (FLAC without a total).
        const double endless = static_cast<double>(StandardInput::length(nullptr)) / 8.0;
        if (info.frames == SF_COUNT_MAX || bytes >= endless)
            declaredFrames_ = -1;
        for (const double limit : {0x40000000 * 1.0, 0x80000000 * 1.0, 0x100000000 * 1.0}) {
            if (bytes > limit - 65536.0 && bytes <= limit)
                declaredFrames_ = -1;
        }
    }
    if (channel > channels_) {
        error_ = QStringLiteral("has %1 channel(s), channel %2 was asked for")
                     .arg(channels_)
                     .arg(channel);
        return false;
    }
    channel_ = channel;
    interleaved_.resize(static_cast<size_t>(std::max<int64_t>(channels_, kBlockSamples)));
    return true;
}

int64_t SoundStream::read(float* out, int64_t maxFrames) {
    int64_t done = 0;
    const int64_t perRead =
        std::max<int64_t>(1, static_cast<int64_t>(interleaved_.size()) / channels_);
    while (done < maxFrames) {
        const int64_t want = std::min(perRead, maxFrames - done);
        const sf_count_t n = sf_readf_float(file_, interleaved_.data(), want);
        if (n <= 0) {
            if (sf_error(file_) != SF_ERR_NO_ERROR) {
                error_ = QStringLiteral("cannot be read to its end (%1)")
                             .arg(QString::fromLocal8Bit(sf_strerror(file_)));
                return -1;
            }
            if (declaredFrames_ >= 0 && framesRead_ < declaredFrames_) {
                error_ = QStringLiteral("is truncated: it ends after %1 of the %2 frames its "
                                        "header declares")
                             .arg(framesRead_)
                             .arg(declaredFrames_);
                return -1;
            }
            break;
        }
        const float* frame = interleaved_.data();
        for (sf_count_t i = 0; i < n; ++i, frame += channels_) {
            float v;
            if (channel_ == 0) {
                float sum = 0.0f;
                for (int32_t c = 0; c < channels_; ++c)
                    sum += frame[c];
                v = sum / static_cast<float>(channels_);
            } else {
                v = frame[channel_ - 1];
            }
            out[done + i] = std::isfinite(v) ? v : 0.0f;
        }
        done += n;
        framesRead_ += n;
    }
    return done;
}

} // namespace widmo
