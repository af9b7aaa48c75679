#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// The GL tests need a display (the test command starts Xvfb with Mesa); the
// pure arithmetic tests run without one too but share the binary.
int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
