#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include "../common/TestExit.h"
#include "TestSignals.h"

namespace {

// A null sink renders nothing while nothing plays into it, and a stream
// started into an idle sink reaches its monitor only after about a second and
// a half. One stream of silence plays for the whole run, so the virtual
// microphone delivers in real time and the tests' signals arrive at once.
class SilenceKeepAlive : public ::testing::Environment {
public:
    void SetUp() override {
        process_.start("pacat",
                       {"--playback", "--raw", "--format=float32le", "--rate=48000", "--channels=2",
                        "--latency-msec=10", "-d",
                        qEnvironmentVariable("WIDMO_TEST_SINK", "widmo_sink")},
                       "/dev/zero");
        QThread::msleep(2000);
    }
    void TearDown() override { process_.stop(); }

private:
    widmo::test::ChildProcess process_;
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
