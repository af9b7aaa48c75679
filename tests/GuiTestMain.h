#pragma once

// The main of every test binary that shows widgets or draws with GL. The test
// command starts Xvfb with Mesa for them.

#include <QApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "common/TestExit.h"

#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#endif

namespace widmo::test {

/// `soundServer`: the tests play and record through the sound server, and the
/// binary ends without Qt's global teardown (see exitAfterTests).
inline int runGuiTests(int argc, char** argv, const char* applicationName,
                       bool soundServer = false) {
    // Listing the tests (ctest's discovery) needs no display.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) {
            ::testing::InitGoogleTest(&argc, argv);
            return RUN_ALL_TESTS();
        }
#if defined(__SANITIZE_ADDRESS__)
    // Mesa unloads its driver when the display closes, before the leak check;
    // the driver's process-lifetime allocations then come from an unknown
    // module and escape the swrast_dri suppression. Pinning the driver keeps
    // them attributed (no effect if the file is elsewhere).
    dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", RTLD_NOW | RTLD_NODELETE);
#endif
    // A temporary home, so that settings, documents and caches of the run never
    // touch the user's own.
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    for (const char* var : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        qunsetenv(var);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QString::fromLatin1(applicationName));
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    if (!soundServer)
        return status;
    home.remove();
    exitAfterTests(status);
}

} // namespace widmo::test
