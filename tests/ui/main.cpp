#include <QApplication>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

// Widget tests run on the X server that the test command starts. The home
// folder is a temporary one, so that documents, caches and settings of the run
// never touch the user's own.
int main(int argc, char** argv) {
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    for (const char* var : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        qunsetenv(var);
    QApplication app(argc, argv);
    QApplication::setApplicationName("widmo-ui-tests");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
