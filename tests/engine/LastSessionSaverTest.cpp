#include "EngineFixture.h"

#include "core/LastSessionFile.h"
#include "engine/LastSessionSaver.h"

namespace widmo {
namespace {

using test::EngineFixture;

class LastSessionSaverTest : public EngineFixture {
protected:
    void SetUp() override {
        EngineFixture::SetUp();
        build(Options{.features = AnalyzerFeatures::studioProduct(), .withSpectrogram = true});
        file_ = path() + "/" + LastSessionFile::kFileName;
        saver_ = std::make_unique<LastSessionSaver>(*defaults_, *engine_, file_, [this] {
            return std::make_unique<QSettings>(path() + "/state.conf", QSettings::IniFormat);
        });
        engine_->setSessionSaver(saver_.get());
    }
    void TearDown() override {
        engine_->setSessionSaver(nullptr);
        saver_.reset();
        EngineFixture::TearDown();
    }

    /// What a new start restores from the saved file and keys.
    std::unique_ptr<AnalyzerDefaults> restored() const {
        auto next = std::make_unique<AnalyzerDefaults>(AnalyzerFeatures::studioProduct(), "next");
        next->setSampleRate(defaults_->sampleRate());
        next->setIntervalSizePower(defaults_->intervalSizePower());
        next->setFftSize(defaults_->fftSize());
        next->recalculateDocumentSettings();
        QSettings keys(path() + "/state.conf", QSettings::IniFormat);
        EXPECT_TRUE(LastSessionFile::restore(keys, file_, *next));
        return next;
    }

    QString file_;
    std::unique_ptr<LastSessionSaver> saver_;
};

// Saves during and at the end of a recording leave the whole document in the
// file (each save copies only what is new); a new document does not inherit the
// old one's samples, and an empty one leaves no file to recover.
TEST_F(LastSessionSaverTest,
       savesDuringAndAfterRecording_fileHoldsDocument_newOrEmptyDocumentClean) {
    std::mt19937 random(21);
    startRecording();
    pushIntervals(30, random);
    saver_->saveInBackground();
    saver_->waitUntilIdle();
    EXPECT_EQ(saver_->savedFrames(), 30 * n());
    pushIntervals(20, random);
    engine_->stopRecorder(); // saves
    saver_->waitUntilIdle();
    EXPECT_EQ(saver_->savesCompleted(), 2);
    {
        const auto next = restored();
        EXPECT_EQ(next->actualInterval(), 50);
        EXPECT_TRUE(next->audioBuffersData() == defaults_->audioBuffersData());
    }

    // A new document; a rebuild follows a stop only once the analysis is done.
    const auto newRecording = [this] {
        drain();
        engine_->rebuildDataWithClear();
        defaults_->setDataValid(true);
        startRecording();
    };
    newRecording();
    pushIntervals(10, random);
    engine_->stopRecorder();
    saver_->waitUntilIdle();
    const auto next = restored();
    EXPECT_EQ(next->actualInterval(), 10);
    EXPECT_TRUE(next->audioBuffersData() == defaults_->audioBuffersData());

    // A document cleared and left empty takes the older file with it.
    saver_->saveInBackground();
    saver_->waitUntilIdle();
    ASSERT_TRUE(QFile::exists(file_));
    newRecording();
    std::vector<float> partial = stereoBlock(100, random);
    push(partial);
    engine_->stopRecorder();
    saver_->waitUntilIdle();
    EXPECT_FALSE(QFile::exists(file_));
}

} // namespace
} // namespace widmo
