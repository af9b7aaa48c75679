#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#endif

// The GL tests need a display (the test command starts Xvfb with Mesa); the
// pure arithmetic tests run without one too but share the binary.
int main(int argc, char** argv) {
#if defined(__SANITIZE_ADDRESS__)
    // Mesa unloads its driver when the display closes, before the leak check;
    // the driver's process-lifetime allocations then come from an unknown
    // module and escape the swrast_dri suppression. Pinning the driver keeps
    // them attributed (no effect if the file is elsewhere).
    dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", RTLD_NOW | RTLD_NODELETE);
#endif
    QApplication app(argc, argv);
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
