#include "core/AnalyzerDefaults.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>

// With "--write-settings <dir> <fftSize>" the binary acts as a separate process
// that saves changed settings into <dir> and exits, so that the tests can check
// that one process reads what another wrote.
int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--write-settings") == 0) {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                           QString::fromLocal8Bit(argv[2]));
        widmo::AnalyzerDefaults defaults(widmo::AnalyzerFeatures::spectrumProduct(), "widmo-test");
        defaults.setFftSize(std::atoi(argv[3]));
        defaults.setIntervalSizePower(3);
        defaults.setTrigLevel(-40.5f);
        defaults.setLinearFrequency(true);
        defaults.saveDefaults();
        return 0;
    }
    QCoreApplication app(argc, argv);
    // Keep every store of the run away from the user's own settings.
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
