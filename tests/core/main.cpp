#include "../HeadlessTestMain.h"

#include "core/AnalyzerDefaults.h"

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
        defaults.setTrigLevel(-40.1234589f); // nine digits to read back
        defaults.setLinearFrequency(true);
        defaults.saveDefaults();
        return 0;
    }
    return widmo::test::runHeadlessTests(argc, argv, false);
}
