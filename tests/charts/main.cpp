#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>

// The chart views need a display: the test command starts Xvfb with Mesa.
// The home folder is a temporary one, so that settings and caches of the run
// never touch the user's own.
int main(int argc, char** argv) {
    // Listing the tests (ctest's discovery) needs no display.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) {
            ::testing::InitGoogleTest(&argc, argv);
            return RUN_ALL_TESTS();
        }
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    for (const char* var : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        qunsetenv(var);
    QApplication app(argc, argv);
    QApplication::setApplicationName("widmo-charts-tests");
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
