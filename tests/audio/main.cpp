#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "../common/TestExit.h"
#include "TestSignals.h"

namespace {

class SilenceKeepAlive : public ::testing::Environment {
public:
    void SetUp() override { widmo::test::keepSinkRendering(); }
    void TearDown() override { widmo::test::stopSinkRendering(); }
};

} // namespace

// The audio tests talk to the private sound server that the test command
// starts (PULSE_SERVER); settings stores stay in a temporary folder.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("widmo-audio-tests");
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new SilenceKeepAlive);
    const int status = RUN_ALL_TESTS();
    home.remove();
    widmo::test::exitAfterTests(status);
}
