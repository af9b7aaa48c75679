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
    stopping_.store(true, std::memory_order_release);
    waitUntilPrepared();
    std::lock_guard lock(plannerMutex());
    for (auto& p : plans_) {
        if (fftwf_plan plan = p.exchange(nullptr, std::memory_order_acq_rel))
            fftwf_destroy_plan(plan);
    }
    for (auto& p : complexPlans_) {
        if (fftwf_plan plan = p.exchange(nullptr, std::memory_order_acq_rel))
            fftwf_destroy_plan(plan);
    }
    for (fftwf_plan& plan : retired_) {
        if (plan)
            fftwf_destroy_plan(plan);
        plan = nullptr;
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

fftwf_plan FFTPlanCache::plannedPlan(int32_t size) const {
    const int32_t slot = slotOf(size);
    return slot < 0 ? nullptr : plans_[static_cast<size_t>(slot)].load(std::memory_order_acquire);
}

std::mutex& FFTPlanCache::plannerMutexForTesting() { return plannerMutex(); }

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

int32_t FFTPlanCache::complexSlotOf(int32_t points, int sign) {
    if (sign != FFTW_FORWARD && sign != FFTW_BACKWARD)
        return -1;
    const int32_t slot = slotOf(points);
    return slot < 0 ? -1 : 2 * slot + (sign == FFTW_BACKWARD ? 1 : 0);
}

fftwf_plan FFTPlanCache::plannedComplexPlan(int32_t points, int sign) const {
    const int32_t slot = complexSlotOf(points, sign);
    return slot < 0 ? nullptr
                    : complexPlans_[static_cast<size_t>(slot)].load(std::memory_order_acquire);
}

fftwf_plan FFTPlanCache::complexPlan(int32_t points, int sign) {
    const int32_t slot = complexSlotOf(points, sign);
    if (slot < 0)
        return nullptr;
    if (fftwf_plan p = complexPlans_[static_cast<size_t>(slot)].load(std::memory_order_acquire))
        return p;
    std::lock_guard lock(plannerMutex());
    fftwf_plan p = makeComplexPlanLocked(slot);
    saveWisdomLocked();
    return p;
}

void FFTPlanCache::prepareAll(int32_t firstSize, bool withComplex) {
    // The mutex is taken per plan, so that a transform waiting for another
    // size than the one being planned gets its turn in between.
    bool planned = false;
    const auto planSlot = [&](int32_t slot) {
        if (slot < 0 || stopping_.load(std::memory_order_acquire))
            return;
        std::lock_guard lock(plannerMutex());
        if (!plans_[static_cast<size_t>(slot)].load(std::memory_order_acquire)) {
            makePlanLocked(slot);
            planned = true;
        }
    };
    const auto planComplexSlot = [&](int32_t slot) {
        if (!withComplex || slot < 0 || stopping_.load(std::memory_order_acquire))
            return;
        std::lock_guard lock(plannerMutex());
        if (!complexPlans_[static_cast<size_t>(slot)].load(std::memory_order_acquire)) {
            makeComplexPlanLocked(slot);
            planned = true;
        }
    };
    planSlot(slotOf(firstSize));
    planComplexSlot(complexSlotOf(firstSize, FFTW_FORWARD));
    planComplexSlot(complexSlotOf(firstSize, FFTW_BACKWARD));
    for (int32_t slot = 0; slot < static_cast<int32_t>(kSlots); ++slot)
        planSlot(slot);
    for (int32_t slot = 0; slot < static_cast<int32_t>(2 * kSlots); ++slot)
        planComplexSlot(slot);
    if (planned) {
        std::lock_guard lock(plannerMutex());
        saveWisdomLocked();
    }
}

void FFTPlanCache::refine(int32_t fromSize, int32_t toSize) {
    for (int32_t slot = 0; slot < static_cast<int32_t>(kSlots); ++slot) {
        const int32_t n = sizeOf(slot);
        if (n < fromSize || n > toSize || stopping_.load(std::memory_order_acquire))
            continue;
        std::lock_guard lock(plannerMutex());
        const auto s = static_cast<size_t>(slot);
        if (refined_[s].load(std::memory_order_acquire))
            continue;
        fftwf_plan better = newPlanLocked(n, FFTW_PATIENT);
        if (!better)
            continue;
        // The replaced plan may be executing on the analysis queue right now;
        // it is destroyed with the cache, never earlier.
        retired_[s] = plans_[s].exchange(better, std::memory_order_acq_rel);
        refined_[s].store(true, std::memory_order_release);
        saveWisdomLocked();
    }
}

bool FFTPlanCache::isRefined(int32_t size) const {
    const int32_t slot = slotOf(size);
    return slot >= 0 && refined_[static_cast<size_t>(slot)].load(std::memory_order_acquire);
}

void FFTPlanCache::startPreparing(int32_t firstSize, int32_t patientFromSize, bool withComplex) {
    if (preparingStarted_)
        return;
    preparingStarted_ = true;
    planner_ = std::thread([this, firstSize, patientFromSize, withComplex] {
        prepareAll(firstSize, withComplex);
        refine(patientFromSize);
    });
}

void FFTPlanCache::waitUntilPrepared() {
    if (planner_.joinable())
        planner_.join();
}

fftwf_plan FFTPlanCache::makePlanLocked(int32_t slot) {
    auto& entry = plans_[static_cast<size_t>(slot)];
    if (fftwf_plan existing = entry.load(std::memory_order_acquire))
        return existing; // planned by another thread while this one waited
    fftwf_plan p = newPlanLocked(sizeOf(slot), plannerFlags_);
    if (p)
        entry.store(p, std::memory_order_release);
    return p;
}

fftwf_plan FFTPlanCache::makeComplexPlanLocked(int32_t complexSlot) {
    auto& entry = complexPlans_[static_cast<size_t>(complexSlot)];
    if (fftwf_plan existing = entry.load(std::memory_order_acquire))
        return existing;
    const int32_t n = sizeOf(complexSlot / 2);
    const int sign = complexSlot % 2 == 0 ? FFTW_FORWARD : FFTW_BACKWARD;
    // In place on a scratch array of its own, aligned like the callers' arrays.
    auto* data = static_cast<fftwf_complex*>(
        std::aligned_alloc(64, static_cast<size_t>(n) * sizeof(fftwf_complex)));
    fftwf_plan p = nullptr;
    if (data)
        p = fftwf_plan_dft_1d(n, data, data, sign, plannerFlags_);
    std::free(data);
    if (p)
        entry.store(p, std::memory_order_release);
    else
        qWarning("FFTW could not plan a complex transform of %d points", n);
    return p;
}

fftwf_plan FFTPlanCache::newPlanLocked(int32_t n, unsigned flags) {
    // Planning scratch: FFTW_MEASURE overwrites the arrays it plans on, so the
    // plan is made on its own pair and later executed on the caller's arrays
    // (64-byte aligned like the engine's own, same out-of-place layout).
    auto* in = static_cast<float*>(std::aligned_alloc(64, static_cast<size_t>(n) * sizeof(float)));
    auto* out = static_cast<fftwf_complex*>(
        std::aligned_alloc(64, (static_cast<size_t>(n) + 16) * sizeof(float)));
    fftwf_plan p = nullptr;
    if (in && out)
        p = fftwf_plan_dft_r2c_1d(n, in, out, flags);
    std::free(out);
    std::free(in);
    if (!p)
        qWarning("FFTW could not plan a real transform of %d points", n);
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
