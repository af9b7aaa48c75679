// Cold start of the FFT engine, measured in a fresh process:
//
//   widmo_dsp_coldstart [--forget-wisdom] [--all-sizes] [--size N]
//
// Prints the time from entering main to the first spectrum of an N-point
// interval (default 65,536), with the wisdom file as it is, or deleted first
// with --forget-wisdom. --all-sizes plans every size before the first
// transform (what preparePlans does); without it only N is planned, on first
// use. Then runs 1,000 intervals and prints the resident memory.
#include "core/AnalyzerDefaults.h"
#include "dsp/FFTManager.h"
#include "dsp/FFTPlanCache.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

/// VmRSS of this process in kB, from /proc.
long residentKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    }
    return -1;
}

} // namespace

int main(int argc, char** argv) {
    const auto t0 = Clock::now();
    bool forget = false;
    bool allSizes = false;
    int32_t size = 65536;
    for (int k = 1; k < argc; ++k) {
        if (std::strcmp(argv[k], "--forget-wisdom") == 0)
            forget = true;
        else if (std::strcmp(argv[k], "--all-sizes") == 0)
            allSizes = true;
        else if (std::strcmp(argv[k], "--size") == 0 && k + 1 < argc)
            size = std::atoi(argv[++k]);
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("widmo_dsp_coldstart");
    QTemporaryDir home;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path());
    const QString wisdom = widmo::FFTPlanCache::defaultWisdomPath();
    if (forget)
        QFile::remove(wisdom);
    const bool hadWisdom = QFile::exists(wisdom);
    const long rssStart = residentKb();

    widmo::AnalyzerDefaults defaults(widmo::AnalyzerFeatures::spectrumProduct(), "coldstart");
    defaults.setFftSize(size);
    defaults.recalculateDocumentSettings();
    defaults.audioBuffersData().assign(static_cast<size_t>(defaults.audioBufferByteSize() / 4),
                                       0.0f);
    for (size_t k = 0; k < defaults.audioBuffersData().size(); ++k)
        defaults.audioBuffersData()[k] =
            static_cast<float>(std::sin(0.05 * static_cast<double>(k)));
    const long rssDefaults = residentKb();
    widmo::FFTManager manager(defaults);
    const long rssManager = residentKb();
    const double tManager = msSince(t0);
    if (allSizes)
        manager.preparePlans();
    float* out = nullptr;
    manager.computeFFTForInterval(10, nullptr, &out);
    const double tFirst = msSince(t0);

    for (int64_t i = 11; i < 1011; ++i)
        manager.computeFFTForInterval(i, nullptr, &out);
    const long rssRun = residentKb();

    std::printf("fft %d, wisdom %s, %s: engine ready %.1f ms, first spectrum %.1f ms "
                "(bin 0 %.3g)\n",
                size, hadWisdom ? "stored" : "absent",
                allSizes ? "all sizes planned first" : "planned on first use", tManager, tFirst,
                static_cast<double>(out[0]));
    std::printf("RSS: at start %ld kB, settings and store %ld kB, FFT engine allocated %ld kB, "
                "after 1000 intervals %ld kB (FFT engine +%ld kB, store %d kB)\n",
                rssStart, rssDefaults, rssManager, rssRun, rssRun - rssDefaults,
                defaults.audioBufferByteSize() / 1024);
    return 0;
}
