#pragma once

// The main of the test binaries that need neither a display nor the sound
// server: the settings stores of the run stay in a temporary folder.

#include <QCoreApplication>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace widmo::test {

/// `ownHome`: HOME is the temporary folder too, so documents and the FFT
/// wisdom of the run never touch the user's own. Otherwise the wisdom goes to
/// the test-mode cache folder and is kept between runs, as in the application.
inline int runHeadlessTests(int argc, char** argv, bool ownHome) {
    QTemporaryDir home;
    if (ownHome) {
        qputenv("HOME", home.path().toLocal8Bit());
        for (const char* var : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
            qunsetenv(var);
    }
    QCoreApplication app(argc, argv);
    QStandardPaths::setTestModeEnabled(true);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace widmo::test
