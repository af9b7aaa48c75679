#include "dsp/FFTPlanCache.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QtGlobal>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <mutex>

namespace widmo {

namespace {

/// FFTW's planner, its wisdom and plan destruction share global state and are
/// not thread-safe; every call into them in the process goes through this
/// mutex. It is never taken on the audio path: the real-time thread never
/// plans.
std::mutex& plannerMutex() {
    static std::mutex m;
    return m;
}

} // namespace

FFTPlanCache::FFTPlanCache(const QString& wisdomPath, unsigned plannerFlags)
    : wisdomPath_(wisdomPath), plannerFlags_(plannerFlags) {
    std::lock_guard lock(plannerMutex());
    wisdomLoaded_ = loadWisdomLocked();
}

FFTPlanCache::~FFTPlanCache() {
    std::lock_guard lock(plannerMutex());
    for (auto& p : plans_) {
        if (fftwf_plan plan = p.exchange(nullptr, std::memory_order_acq_rel))
            fftwf_destroy_plan(plan);
    }
}

FFTPlanCache& FFTPlanCache::shared() {
    static FFTPlanCache cache(defaultWisdomPath());
    return cache;
}

QString FFTPlanCache::defaultWisdomPath() {
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    return dir.isEmpty() ? QString() : dir + QStringLiteral("/fftw-wisdom-f");
}

int32_t FFTPlanCache::slotOf(int32_t size) {
    const auto u = static_cast<uint32_t>(size);
    if (size < (int32_t{1} << kMinLog2Size) || size > (int32_t{1} << kMaxLog2Size) ||
        !std::has_single_bit(u))
        return -1;
    return std::countr_zero(u) - kMinLog2Size;
}

bool FFTPlanCache::hasPlan(int32_t size) const {
    const int32_t slot = slotOf(size);
    return slot >= 0 && plans_[static_cast<size_t>(slot)].load(std::memory_order_acquire);
}

fftwf_plan FFTPlanCache::plan(int32_t size) {
    const int32_t slot = slotOf(size);
    if (slot < 0)
        return nullptr;
    if (fftwf_plan p = plans_[static_cast<size_t>(slot)].load(std::memory_order_acquire))
        return p;
    std::lock_guard lock(plannerMutex());
    fftwf_plan p = makePlanLocked(slot);
    saveWisdomLocked();
    return p;
}

void FFTPlanCache::prepareAll(int32_t firstSize) {
    std::lock_guard lock(plannerMutex());
    bool planned = false;
    const int32_t first = slotOf(firstSize);
    if (first >= 0 && !plans_[static_cast<size_t>(first)].load(std::memory_order_acquire)) {
        makePlanLocked(first);
        planned = true;
    }
    for (int32_t slot = 0; slot < static_cast<int32_t>(plans_.size()); ++slot) {
        if (!plans_[static_cast<size_t>(slot)].load(std::memory_order_acquire)) {
            makePlanLocked(slot);
            planned = true;
        }
    }
    if (planned)
        saveWisdomLocked();
}

fftwf_plan FFTPlanCache::makePlanLocked(int32_t slot) {
    auto& entry = plans_[static_cast<size_t>(slot)];
    if (fftwf_plan existing = entry.load(std::memory_order_acquire))
        return existing; // planned by another thread while this one waited
    const int32_t n = int32_t{1} << (slot + kMinLog2Size);
    // Planning scratch: FFTW_MEASURE overwrites the arrays it plans on, so the
    // plan is made on its own pair and later executed on the caller's arrays
    // (64-byte aligned like the engine's own, same out-of-place layout).
    auto* in = static_cast<float*>(std::aligned_alloc(64, static_cast<size_t>(n) * sizeof(float)));
    auto* out = static_cast<fftwf_complex*>(
        std::aligned_alloc(64, (static_cast<size_t>(n) + 16) * sizeof(float)));
    fftwf_plan p = nullptr;
    if (in && out)
        p = fftwf_plan_dft_r2c_1d(n, in, out, plannerFlags_);
    std::free(out);
    std::free(in);
    if (!p) {
        qWarning("FFTW could not plan a real transform of %d points", n);
        return nullptr;
    }
    entry.store(p, std::memory_order_release);
    return p;
}

bool FFTPlanCache::loadWisdomLocked() {
    if (wisdomPath_.isEmpty())
        return false;
    QFile file(wisdomPath_);
    if (!file.exists())
        return false; // first run: nothing stored yet
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning("FFT wisdom %s unreadable; plans will be measured again", qPrintable(wisdomPath_));
        return false;
    }
    const QByteArray text = file.readAll();
    if (fftwf_import_wisdom_from_string(text.constData()) == 0) {
        qWarning("FFT wisdom %s is not valid; plans will be measured again",
                 qPrintable(wisdomPath_));
        return false;
    }
    return true;
}

void FFTPlanCache::saveWisdomLocked() {
    if (wisdomPath_.isEmpty())
        return;
    char* text = fftwf_export_wisdom_to_string();
    if (!text) {
        qWarning("FFT wisdom could not be exported");
        return;
    }
    const QByteArray bytes(text);
    std::free(text); // allocated by FFTW with malloc
    QDir().mkpath(QFileInfo(wisdomPath_).absolutePath());
    // Written whole or not at all, so that a crash never leaves half a file.
    QSaveFile file(wisdomPath_);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        qWarning("FFT wisdom %s could not be written: %s", qPrintable(wisdomPath_),
                 qPrintable(file.errorString()));
}

} // namespace widmo
