#include "TempSettings.h"
#include "TestSignals.h"

#include "core/AnalyzerDefaults.h"
#include "core/LastSessionFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <functional>
#include <random>
#include <vector>

namespace widmo {
namespace {

using Session = LastSessionFile::Session;

/// A studio document with a recognisable store, the keys of a session of 40
/// intervals and its file, as a killed program leaves them.
class LastSessionFileTest : public test::TempSettings {
protected:
    void SetUp() override {
        TempSettings::SetUp();
        defaults_ = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures::studioProduct(), "ls");
        file_ = path() + "/" + LastSessionFile::kFileName;
        samples_ =
            test::noise(static_cast<size_t>(defaults_->audioBufferByteSize()) / sizeof(float), 7);
        session_ = Session::of(*defaults_, 40);
        session_.readOnly = true;
        session_.timeOfDocument = 12.5f;
    }

    std::unique_ptr<QSettings> coder() const {
        return std::make_unique<QSettings>(path() + "/state.conf", QSettings::IniFormat);
    }

    /// Writes the file and the keys, then restores into the document.
    bool restoreAfter(const std::function<void(QSettings&)>& damage) {
        EXPECT_TRUE(
            LastSessionFile::write(file_, samples_.data(), static_cast<int64_t>(samples_.size())));
        auto keys = coder();
        LastSessionFile::encode(*keys, session_);
        if (damage)
            damage(*keys);
        keys->sync();
        return LastSessionFile::restore(*coder(), file_, *defaults_);
    }

    void expectDocumentUntouched() const {
        EXPECT_TRUE(defaults_->audioBuffersData().empty());
        EXPECT_EQ(defaults_->actualInterval(), 0);
        EXPECT_FALSE(defaults_->readOnly());
        EXPECT_EQ(defaults_->timeOfDocument(), 0.0f);
        EXPECT_EQ(defaults_->sampleRate(), 44100.0f);
        EXPECT_EQ(defaults_->fftSize(), 4096);
    }

    std::unique_ptr<AnalyzerDefaults> defaults_;
    QString file_;
    std::vector<float> samples_;
    Session session_;
};

TEST_F(LastSessionFileTest, writtenSession_restoresSamplesAndKeys_fileServesOnce) {
    const std::vector<CaptureGaps::Gap> gaps{
        {4410, 88200, 1795610665022, CaptureGaps::Cause::SoundServer},
        {200000, 7, 1795610700000, CaptureGaps::Cause::InputDevice}};
    session_.gaps = gaps;
    ASSERT_TRUE(restoreAfter(nullptr));
    EXPECT_EQ(defaults_->captureGaps().gaps(), gaps) << "a recovered document keeps its gaps";
    EXPECT_EQ(defaults_->audioBuffersData(), samples_);
    EXPECT_EQ(defaults_->actualInterval(), 40);
    EXPECT_TRUE(defaults_->readOnly());
    EXPECT_EQ(defaults_->timeOfDocument(), 12.5f);
    EXPECT_FALSE(QFile::exists(file_));
    EXPECT_FALSE(LastSessionFile::restore(*coder(), file_, *defaults_));

    // A write replaces the file whole by a rename, never rewriting it in place:
    // a reader of the old file (or a kill during the write) still has it all.
    ASSERT_TRUE(LastSessionFile::write(file_, samples_.data(), 1000));
    QFile old(file_);
    ASSERT_TRUE(old.open(QIODevice::ReadOnly));
    ASSERT_TRUE(LastSessionFile::write(file_, samples_.data(), 10));
    EXPECT_EQ(old.readAll().size(), 4000);
    EXPECT_EQ(QFileInfo(file_).size(), 40);
    EXPECT_EQ(QDir(path()).entryList({"*.dat*"}, QDir::Files), QStringList{file_.section('/', -1)});
}

// A broken or foreign last session offers nothing, crashes nothing, leaves the
// document and the settings as they were, and is deleted.
TEST_F(LastSessionFileTest, badInput_restoresNothingAndLeavesSettings) {
    const auto setKey = [](const char* key, QVariant value) {
        return [key, value](QSettings& keys) { keys.setValue(QLatin1String(key), value); };
    };
    const auto resizeFile = [this](int64_t bytes) {
        return [this, bytes](QSettings&) {
            QFile f(file_);
            ASSERT_TRUE(f.resize(bytes));
        };
    };
    const int64_t size = defaults_->audioBufferByteSize();
    struct Case {
        const char* name;
        std::function<void(QSettings&)> damage;
    };
    const Case cases[] = {
        {"truncated file", resizeFile(size - 4096)},
        {"file longer than its geometry", resizeFile(size + 4)},
        {"zero-byte file", resizeFile(0)},
        {"random bytes of a random length",
         [this](QSettings&) {
             std::mt19937 random(3);
             QByteArray bytes(static_cast<int>(random() % 100000), '\0');
             for (char& c : bytes)
                 c = static_cast<char>(random());
             QFile f(file_);
             ASSERT_TRUE(f.open(QIODevice::WriteOnly));
             f.write(bytes);
         }},
        {"file that cannot be read",
         [this](QSettings&) {
             ASSERT_TRUE(QFile::remove(file_));
             ASSERT_TRUE(QDir().mkpath(file_)); // a folder where the file should be
         }},
        {"another sample rate", setKey(LastSessionFile::kSampleRateKey, 48000.0f)},
        {"another FFT size", setKey(LastSessionFile::kFftSizeKey, 8192)},
        {"another interval size", setKey(LastSessionFile::kIntervalSizeKey, 1024)},
        {"empty document", setKey(LastSessionFile::kActualIntervalKey, 0)},
        {"interval count out of range",
         setKey(LastSessionFile::kActualIntervalKey, qlonglong{1} << 40)},
        {"garbage key", setKey(LastSessionFile::kActualIntervalKey, "x\x01y")},
        {"missing key",
         [](QSettings& keys) { keys.remove(QLatin1String(LastSessionFile::kReadOnlyKey)); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(restoreAfter(c.damage));
        expectDocumentUntouched();
        EXPECT_FALSE(QFileInfo(file_).isFile());
        QDir(file_).removeRecursively();
        coder()->clear();
    }
}

} // namespace
} // namespace widmo
