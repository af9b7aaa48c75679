#include "audio/AudioFileReader.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace widmo {

namespace {

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// Frees the converter on every way out of readMono.
struct SoxrHandle {
    soxr_t handle = nullptr;
    ~SoxrHandle() {
        if (handle != nullptr)
            soxr_delete(handle);
    }
};

} // namespace

AudioFileReader::~AudioFileReader() { close(); }

void AudioFileReader::close() {
    if (file_ != nullptr)
        sf_close(file_);
    file_ = nullptr;
    formatCode_ = 0;
    sampleRate_ = 0.0;
    channels_ = 0;
    frames_ = 0;
}

bool AudioFileReader::open(const std::string& path) {
    close();
    error_.clear();
    cancelled_.store(false, std::memory_order_release);
    const std::string name = fileName(path);
    std::error_code ec;
    const auto status = std::filesystem::status(path, ec);
    if (ec || !std::filesystem::exists(status)) {
        error_ = "The file " + name + " does not exist.";
        return false;
    }
    if (std::filesystem::is_directory(status)) {
        error_ = name + " is a folder, not an audio file.";
        return false;
    }
    // Opened once with the C++ library first: libsndfile's own text for a
    // refused open ("System error") does not say why.
    {
        std::ifstream probe(path, std::ios::binary);
        if (!probe) {
            error_ = "The file " + name + " cannot be read: " + std::strerror(errno) + ".";
            return false;
        }
    }
    if (std::filesystem::is_regular_file(status) && std::filesystem::file_size(path, ec) == 0 &&
        !ec) {
        error_ = "The file " + name + " is empty.";
        return false;
    }
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        error_ =
            "The file " + name + " is not audio that can be read (" + sf_strerror(nullptr) + ").";
        return false;
    }
    if (info.samplerate <= 0 || info.channels <= 0 || info.frames < 0) {
        sf_close(file);
        error_ = "The file " + name + " has no valid sample rate or channel count.";
        return false;
    }
    file_ = file;
    formatCode_ = info.format;
    sampleRate_ = double(info.samplerate);
    channels_ = info.channels;
    frames_ = info.frames;
    return true;
}

std::string AudioFileReader::formatName() const {
    if (file_ == nullptr)
        return {};
    std::string name;
    for (const int part : {formatCode_ & SF_FORMAT_TYPEMASK, formatCode_ & SF_FORMAT_SUBMASK}) {
        SF_FORMAT_INFO info{};
        info.format = part;
        if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof info) == 0 &&
            info.name != nullptr) {
            if (!name.empty())
                name += " / ";
            name += info.name;
        }
    }
    return name;
}

bool AudioFileReader::readMono(std::vector<float>& out, double targetRate, int32_t channel,
                               int64_t maxFrames, const Progress& progress) {
    out.clear();
    error_.clear();
    if (file_ == nullptr) {
        error_ = "No audio file is open.";
        return false;
    }
    if (channel < kMixAllChannels || channel >= channels_ || !std::isfinite(targetRate) ||
        targetRate < 0.0) {
        error_ = "Invalid channel or sample rate for reading the file.";
        return false;
    }
    if (sf_seek(file_, 0, SEEK_SET) < 0 && frames_ > 0) {
        error_ =
            std::string("The file cannot be read from its start (") + sf_strerror(file_) + ").";
        return false;
    }

    const bool convert = targetRate > 0.0 && targetRate != sampleRate_;
    const double ratio = convert ? targetRate / sampleRate_ : 1.0;
    if (ratio > kMaxRateRatio || ratio < 1.0 / kMaxRateRatio) {
        error_ = "A sample rate of " + std::to_string(int64_t(sampleRate_)) +
                 " Hz cannot be converted to " + std::to_string(int64_t(targetRate)) + " Hz.";
        return false;
    }
    SoxrHandle soxr;
    if (convert) {
        soxr_error_t err = nullptr;
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        soxr.handle = soxr_create(sampleRate_, targetRate, 1, &err, &io, &quality, nullptr);
        if (soxr.handle == nullptr || err != nullptr) {
            error_ = std::string("The sample rate converter could not start (") +
                     (err != nullptr ? err : "unknown error") + ").";
            return false;
        }
    }

    const auto wanted = [&](int64_t have) { return maxFrames < 0 || have < maxFrames; };
    // The header's frame count only sizes the first reservation, within a
    // bound: a damaged header can claim any length.
    const double expected = std::ceil(double(frames_) * ratio) + 16.0;
    const double limit = maxFrames >= 0 ? double(maxFrames) : double(kMaxReserveFrames);
    out.reserve(size_t(std::min(expected, std::min(limit, double(kMaxReserveFrames)))));
    // A block holds at most kBlockFrames frames and kBlockFrames * 8 samples,
    // whatever the channel count; the converter's output goes through a
    // buffer of fixed size, whatever the ratio.
    const int64_t blockFrames =
        std::max<int64_t>(1, std::min<int64_t>(kBlockFrames, kBlockFrames * 8 / channels_));
    std::vector<float> block(static_cast<size_t>(blockFrames * channels_));
    std::vector<float> mono(static_cast<size_t>(blockFrames));
    std::vector<float> converted(static_cast<size_t>(kBlockFrames));

    // Feeds `count` mono frames (nullptr: the end of the input) through the
    // converter into `out`.
    const auto appendConverted = [&](const float* in, size_t count) {
        size_t offset = 0;
        for (;;) {
            size_t used = 0;
            size_t made = 0;
            const soxr_error_t err =
                soxr_process(soxr.handle, in != nullptr ? in + offset : nullptr, count - offset,
                             &used, converted.data(), converted.size(), &made);
            if (err != nullptr)
                return false;
            out.insert(out.end(), converted.begin(), converted.begin() + std::ptrdiff_t(made));
            offset += used;
            if (in != nullptr ? offset >= count && made < converted.size() : made == 0)
                return true;
        }
    };

    int64_t framesRead = 0;
    bool atEnd = false;
    while (wanted(int64_t(out.size())) && !atEnd) {
        if (cancelled_.load(std::memory_order_acquire)) {
            error_ = "Reading the file was cancelled.";
            return false;
        }
        const sf_count_t n = sf_readf_float(file_, block.data(), blockFrames);
        if (n <= 0) {
            if (sf_error(file_) != SF_ERR_NO_ERROR && framesRead < frames_) {
                error_ = std::string("The file could not be read to its end (") +
                         sf_strerror(file_) + ").";
                return false;
            }
            atEnd = true;
            break;
        }
        for (sf_count_t i = 0; i < n; ++i) {
            const float* frame = block.data() + i * channels_;
            float v;
            if (channel == kMixAllChannels) {
                float sum = 0.0f;
                for (int32_t c = 0; c < channels_; ++c)
                    sum += frame[c];
                v = sum / float(channels_);
            } else {
                v = frame[channel];
            }
            // A damaged float file can hold NaN or infinity; they would
            // poison every spectrum computed over them.
            mono[size_t(i)] = std::isfinite(v) ? v : 0.0f;
        }
        framesRead += n;
        if (convert) {
            if (!appendConverted(mono.data(), size_t(n))) {
                error_ = "The sample rate conversion failed.";
                return false;
            }
        } else {
            out.insert(out.end(), mono.begin(), mono.begin() + std::ptrdiff_t(n));
        }
        if (progress)
            progress(framesRead, frames_);
    }
    if (convert && wanted(int64_t(out.size())) && !appendConverted(nullptr, 0)) {
        error_ = "The sample rate conversion failed.";
        return false;
    }
    if (maxFrames >= 0 && int64_t(out.size()) > maxFrames)
        out.resize(size_t(maxFrames));
    return true;
}

bool AudioFileReader::readFile(const std::string& path, std::vector<float>& out, std::string& error,
                               double targetRate, int32_t channel, int64_t maxFrames) {
    AudioFileReader reader;
    const bool ok = reader.open(path) && reader.readMono(out, targetRate, channel, maxFrames);
    error = reader.errorText();
    return ok;
}

} // namespace widmo
