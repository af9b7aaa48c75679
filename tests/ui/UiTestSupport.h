#pragma once

#include "audio/AudioSession.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "dsp/FFTManager.h"
#include "ui/AppLifecycle.h"
#include "ui/GainPanel.h"
#include "ui/MainScreen.h"
#include "ui/ShareSheet.h"
#include "ui/TransportControls.h"
#include "ui/ViewArrangement.h"

#include "TempSettings.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMainWindow>
#include <QMessageBox>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace widmo::test {

/// The visible message boxes, newest last.
inline QList<QMessageBox*> openBoxes() {
    QList<QMessageBox*> boxes;
    for (QWidget* w : QApplication::topLevelWidgets())
        if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible())
            boxes.append(box);
    return boxes;
}

inline QMessageBox* visibleMessage() {
    const QList<QMessageBox*> boxes = openBoxes();
    return boxes.isEmpty() ? nullptr : boxes.last();
}

/// The newest message box once one shows within `ms`, else null.
inline QMessageBox* waitMessage(int ms = 3000) {
    QMessageBox* box = nullptr;
    (void)QTest::qWaitFor([&] { return (box = visibleMessage()) != nullptr; }, ms);
    return box;
}

inline QAbstractButton* buttonOf(QMessageBox* box, const QString& text) {
    for (QAbstractButton* b : box->buttons())
        if (b->text() == text)
            return b;
    return nullptr;
}

/// The box's button texts, sorted, joined by '|'.
inline std::string buttonTexts(QMessageBox* box) {
    QStringList texts;
    for (QAbstractButton* b : box->buttons())
        texts << b->text();
    texts.sort();
    return texts.join('|').toStdString();
}

/// Clicks the button `text` of `box` and waits for the box to close.
inline void press(QMessageBox* box, const QString& text) {
    QAbstractButton* b = buttonOf(box, text);
    ASSERT_NE(b, nullptr) << "no button " << text.toStdString();
    b->click();
    (void)QTest::qWaitFor([&] { return !box->isVisible(); }, 1000);
}

/// One product's whole application on the test sound and X servers, as it
/// starts: settings (store "app-test"), FFT engine, audio object and the main
/// screen in its window, its document prepared.
class AppTest : public TempSettings {
protected:
    static constexpr const char* kTag = "app-test";

    void TearDown() override {
        while (QMessageBox* box = visibleMessage())
            box->close();
        release();
    }

    /// `sampleRate` > 0 replaces the stored rate before the start.
    void launch(const AnalyzerFeatures& features, float sampleRate = 0.0f) {
        features_ = std::make_unique<AnalyzerFeatures>(features);
        defaults_ = std::make_unique<AnalyzerDefaults>(*features_, kTag);
        if (sampleRate > 0.0f) {
            defaults_->setSampleRate(sampleRate);
            defaults_->copyCurrentToPreferred();
        }
        audio_ = std::make_unique<AudioSession>(*defaults_, *features_);
        fft_ = std::make_unique<FFTManager>(*defaults_);
        app_ = std::make_unique<AppLifecycle>(*defaults_, *audio_, *fft_);
        ASSERT_TRUE(app_->showMainWindow());
        ASSERT_TRUE(QTest::qWaitForWindowExposed(app_->window()));
        // The first activation prepares the document with the buttons blocked.
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return app_->dataPrepared() && !screen()->buttonsBlocked(); }, 5000));
        ASSERT_TRUE(defaults_->dataValid());
    }
    /// Quits as the application does, then releases everything.
    void quit() {
        app_->prepareToQuit();
        release();
    }
    void release() {
        app_.reset();
        audio_.reset();
        fft_.reset();
        defaults_.reset();
    }
    MainScreen* screen() const { return app_->mainScreen(); }

    std::unique_ptr<AnalyzerFeatures> features_;
    std::unique_ptr<AnalyzerDefaults> defaults_;
    std::unique_ptr<AudioSession> audio_;
    std::unique_ptr<FFTManager> fft_;
    std::unique_ptr<AppLifecycle> app_;
};

} // namespace widmo::test
