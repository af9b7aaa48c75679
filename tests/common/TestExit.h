#pragma once

// The end of a test binary whose tests used the sound server. The process
// ends here without Qt's global teardown, as the application does (see
// AppLifecycle::run), after the leak check that exit would have run: the tests'
// own objects (and with them every connection to the sound server) are gone by
// now.

#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace widmo::test {

[[noreturn]] inline void exitAfterTests(int status) {
    std::fflush(nullptr);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check(); // reports and ends the process on a leak
#endif
    std::_Exit(status);
}

} // namespace widmo::test
