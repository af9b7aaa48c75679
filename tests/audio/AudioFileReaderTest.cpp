#include "HeadlessTestMain.h"

#include "audio/AudioFileReader.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <string>
#include <vector>

using widmo::AudioFileReader;

namespace {

class AudioFileReaderTest : public ::testing::Test {
protected:
    std::string path(const char* name) const { return dir_.filePath(name).toStdString(); }

    /// Writes interleaved `samples` of `channels` channels at `rate` Hz into `name`.
    void write(const char* name, int format, int rate, int channels,
               const std::vector<float>& samples) const {
        SF_INFO info{0, rate, channels, format, 0, 0};
        SNDFILE* sf = sf_open(path(name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(sf, nullptr) << sf_strerror(nullptr);
        const sf_count_t frames = sf_count_t(samples.size()) / channels;
        ASSERT_EQ(sf_writef_float(sf, samples.data(), frames), frames);
        sf_close(sf);
    }
    void writeBytes(const char* name, const QByteArray& bytes) const {
        QFile f(QString::fromStdString(path(name)));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(bytes);
    }

    QTemporaryDir dir_;
};

std::vector<float> sine(double frequency, double amplitude, int rate, double seconds) {
    std::vector<float> s(size_t(seconds * rate));
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = float(amplitude * std::sin(2.0 * std::numbers::pi * frequency * double(i) / rate));
    return s;
}

} // namespace

// Every unreadable input fails `open` with a text and leaves no file open.
TEST_F(AudioFileReaderTest, badInputsFailWithAText) {
    // A real WAV cut inside its header (12 of its 44 header bytes).
    write("whole.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, sine(440, 0.5, 48000, 0.1));
    QFile whole(QString::fromStdString(path("whole.wav")));
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    writeBytes("truncated.wav", whole.read(12));
    writeBytes("empty.wav", {});
    std::mt19937 random(7);
    QByteArray noise(4096, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
    writeBytes("noise.wav", noise);
    // A PNG's signature and header chunk: a real format libsndfile does not read.
    writeBytes("picture.png", QByteArray::fromHex("89504e470d0a1a0a0000000d49484452000000"
                                                  "100000001008020000009091683600000000"));
    QDir(dir_.path()).mkdir("folder.wav");

    for (const char* name :
         {"truncated.wav", "empty.wav", "noise.wav", "picture.png", "folder.wav", "missing.wav"}) {
        SCOPED_TRACE(name);
        AudioFileReader reader;
        EXPECT_FALSE(reader.open(path(name)));
        EXPECT_FALSE(reader.isOpen());
        EXPECT_NE(reader.errorText().find(name), std::string::npos) << reader.errorText();
        std::vector<float> out{1.0f};
        EXPECT_FALSE(reader.readMono(out));
        EXPECT_TRUE(out.empty());
    }

    // A valid header claiming 1 Hz: converting it to 48 kHz would need buffers
    // of gigabytes. Refused with a text instead.
    writeBytes("slow.au", QByteArray::fromHex("2e736e640000002c800003200000000100000001"
                                              "00000001"));
    AudioFileReader slow;
    ASSERT_TRUE(slow.open(path("slow.au"))) << slow.errorText();
    std::vector<float> out;
    EXPECT_FALSE(slow.readMono(out, 48000.0));
    EXPECT_NE(slow.errorText().find("cannot be converted"), std::string::npos);

    if (geteuid() != 0) { // the superuser reads files whatever their permissions
        QFile::setPermissions(whole.fileName(), QFileDevice::WriteOwner);
        AudioFileReader reader;
        EXPECT_FALSE(reader.open(path("whole.wav")));
        EXPECT_NE(reader.errorText().find("Permission denied"), std::string::npos)
            << reader.errorText();
    }
}

// Six channels holding 0.1 .. 0.6: the mix is their mean, a chosen channel its own value,
// and a cut stops at the frames asked for.
TEST_F(AudioFileReaderTest, sixChannelsMixToTheirMeanOrGiveOneChannel) {
    const int frames = 100000; // more than three read blocks
    std::vector<float> samples(size_t(frames) * 6);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = 0.1f * float(i % 6 + 1);
    write("six.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 6, samples);

    AudioFileReader reader;
    ASSERT_TRUE(reader.open(path("six.wav"))) << reader.errorText();
    EXPECT_EQ(reader.channels(), 6);
    EXPECT_EQ(reader.frames(), frames);
    EXPECT_DOUBLE_EQ(reader.sampleRate(), 48000.0);
    int64_t lastProgress = 0;
    std::vector<float> out;
    ASSERT_TRUE(reader.readMono(out, 0.0, AudioFileReader::kMixAllChannels, -1,
                                [&](int64_t done, int64_t) { lastProgress = done; }));
    ASSERT_EQ(out.size(), size_t(frames));
    EXPECT_EQ(lastProgress, frames);
    EXPECT_TRUE(
        std::all_of(out.begin(), out.end(), [](float v) { return std::fabs(v - 0.35f) < 1e-6f; }));

    ASSERT_TRUE(reader.readMono(out, 0.0, 4, 40000));
    ASSERT_EQ(out.size(), 40000u);
    EXPECT_FLOAT_EQ(out.front(), 0.5f);
    EXPECT_FLOAT_EQ(out.back(), 0.5f);
    EXPECT_FALSE(reader.readMono(out, 0.0, 6));
}

// A 1 kHz tone at -6 dBFS in each format users bring, read at 48 kHz: same
// length in seconds, frequency within 1 Hz (one bin of a one-second window),
// level within 0.1 dB (0.3 dB through the lossy codecs). The 44.1 kHz files go
// through the rate converter.
TEST_F(AudioFileReaderTest, formatsReadAt48000KeepToneAndLevel) {
    const struct {
        const char* name;
        int format, rate;
        double lengthSlack, levelSlack;
    } files[] = {
        {"tone.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 44100, 2.0 / 48000, 0.1},
        {"tone.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 48000, 0.0, 0.1},
        {"tone.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 0.05, 0.3},
        {"tone.opus", SF_FORMAT_OGG | SF_FORMAT_OPUS, 48000, 0.05, 0.3},
        {"tone.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100, 0.1, 0.3},
    };
    for (const auto& f : files) {
        SCOPED_TRACE(f.name);
        write(f.name, f.format, f.rate, 1, sine(1000.0, 0.5, f.rate, 3.0));
        AudioFileReader reader;
        ASSERT_TRUE(reader.open(path(f.name))) << reader.errorText();
        EXPECT_DOUBLE_EQ(reader.sampleRate(), f.rate);
        std::vector<float> out;
        ASSERT_TRUE(reader.readMono(out, 48000.0)) << reader.errorText();
        EXPECT_NEAR(double(out.size()) / 48000, 3.0, f.lengthSlack);

        // The middle second, away from the converter's and codecs' edges.
        int crossings = 0;
        double energy = 0.0;
        for (size_t i = 48000; i < 96000; ++i) {
            crossings += (out[i - 1] < 0.0f) != (out[i] < 0.0f);
            energy += double(out[i]) * out[i];
        }
        EXPECT_NEAR(crossings / 2.0, 1000.0, 1.0);
        const double levelDb = 20.0 * std::log10(std::sqrt(2.0 * energy / 48000) / 0.5);
        EXPECT_NEAR(levelDb, 0.0, f.levelSlack);
    }
}

int main(int argc, char** argv) { return widmo::test::runHeadlessTests(argc, argv, true); }
