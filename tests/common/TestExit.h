#pragma once

// The end of a test binary whose tests used the sound server through Qt
// Multimedia. Its PulseAudio back-end is a global that Qt tears down after
// main returns, while the back-end's own main-loop thread may still be
// answering the server; that teardown can abort inside libpulse
// ("Assertion 'pd' failed ... pa_pdispatch_register_reply") after every test
// has passed. The application ends the same way (see AppDelegate::run): the
// tests' own objects are gone by now, so the process ends here without the
// global teardown, after the leak check that exit would have run.

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
