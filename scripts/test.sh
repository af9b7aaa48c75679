#!/usr/bin/env bash
# The whole test suite on a fresh Debian 12 machine: installs the dependencies,
# builds, starts the test services, runs every test and stops the services
# again, also when a test fails.
#
#   scripts/test.sh           release build in build/, every test
#   scripts/test.sh --asan    AddressSanitizer + UBSan build in build-asan/, every test
#   scripts/test.sh --tsan    ThreadSanitizer build in build-tsan/: the subsystems'
#                             tests, drawing included (labels core, dsp, engine,
#                             audio, batch, render, charts), and the main screen's
#                             tests that record, play and rebuild (ui)
#   scripts/test.sh --pipewire  release build in build/, the tests that use the
#                             sound server (labels audio and app) against PipeWire
#                             with pipewire-pulse and WirePlumber instead of PulseAudio
#
# Extra arguments after the mode go to ctest (for example -R FFT).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

mode=release
tsan_ui=
if [ $# -gt 0 ]; then
    case "$1" in
        --asan) mode=asan; shift ;;
        --tsan) mode=tsan; shift ;;
        --pipewire) mode=pipewire; shift ;;
        --release) shift ;;
    esac
fi

bash scripts/install-deps.sh

cmake_args=(-G Ninja -DWIDMO_WERROR=ON)
ctest_args=(--output-on-failure --timeout 600)
case "$mode" in
    release)
        dir=build
        cmake_args+=(-DCMAKE_BUILD_TYPE=Release) ;;
    asan)
        dir=build-asan
        cmake_args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWIDMO_ASAN=ON -DWIDMO_BUILD_BENCHMARKS=OFF)
        # intercept_tls_get_addr=0: with it on, LeakSanitizer keeps a record of
        # the dynamic TLS of Mesa's driver after the driver is unloaded at exit
        # and its tracer crashes reading it ("Tracer caught signal 11", after
        # the tests passed). Without it the blocks are still found as heap.
        export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:intercept_tls_get_addr=0"
        export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
        export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp" ;;
    pipewire)
        dir=build
        cmake_args+=(-DCMAKE_BUILD_TYPE=Release)
        export WIDMO_SOUND_SERVER=pipewire
        ctest_args+=(-L '^(audio|app)$') ;;
    tsan)
        dir=build-tsan
        cmake_args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWIDMO_TSAN=ON -DWIDMO_BUILD_BENCHMARKS=OFF)
        export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp"
        # Frame rates counted against the clock are not a thread matter and do
        # not hold in an instrumented build.
        ctest_args+=(-L '^(core|dsp|engine|audio|batch|render|charts)$'
                     -E '^(GLViewTest\.(redrawRequestDrawsSixtyFramesThenStops|everyFrameAndLayoutAnimationKeepItRunning|viewsOfOneWindowDrawInTheSameTick)|KeepRecordingTest\.deviceNotBack.*)$')
        # KeepRecordingTest.deviceNotBack…: the checker reports the audio
        # queue's worker touching waitUntilEmpty's frame against a write the
        # main thread made in the test's SetUp. With a mutex and a condition
        # variable instead of the promise it reports the same while saying
        # the worker holds the mutex the waiting frame took after SetUp: the
        # report contradicts the lock order it recorded, so it is taken as a
        # false report. Left out here only; nothing is suppressed, and the
        # test runs in every other build.
        # Of the screens' tests, those whose threads meet: recording into the
        # chart and its level meter, a stop while recording followed by a
        # rebuild of the document, and leaving and regaining the foreground.
        # (The spectrogram's threads are in the render and charts tests.) The
        # others are widget tests whose waits and tone onsets are sized for an
        # uninstrumented build.
        tsan_ui='MainScreenTest\.(startWithTone|settingsCloseWithNewFftSizeOrRate|leavingForeground)' ;;
esac

cmake -S . -B "$dir" "${cmake_args[@]}"
cmake --build "$dir" -j2

# shellcheck source=services.sh
source scripts/services.sh
trap services_stop EXIT
services_start

ctest --test-dir "$dir" -j2 "${ctest_args[@]}" "$@"
if [ -n "${tsan_ui:-}" ]; then
    ctest --test-dir "$dir" --output-on-failure --timeout 600 -L '^ui$' -R "$tsan_ui" "$@"
fi
