#pragma once

#include <QString>

#include <fftw3.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace widmo {

/// The FFTW plans of the real forward transform for every power-of-two size
/// from 256 to 65,536 points, with their wisdom kept in a file.
///
/// A plan is made once per size with FFTW_MEASURE. The large sizes, where the
/// transform's time dominates an interval, can be planned a second time with
/// FFTW_PATIENT (`refine`); the better plan replaces the first, which stays
/// valid until the cache is destroyed, so a transform running on it finishes
/// undisturbed. Every plan is kept for the life of the cache. Plans are
/// made for 64-byte aligned arrays (out of place, input preserved), so any
/// pair of arrays of sufficient length aligned like those (64 bytes, or what
/// `fftwf_malloc` gives: `fftwf_alignment_of` 0) can be transformed with
/// `fftwf_execute_dft_r2c(plan(n), in, out)`.
///
/// On request (`withComplex`, for the EGG filter) the cache also holds the
/// plans of in-place complex transforms, forward and backward, of the same
/// sizes (256 to 65,536 points), made with the same flags for 64-byte aligned interleaved arrays
/// and run with `fftwf_execute_dft(complexPlan(n, sign), a, a)`. They are not refined.
///
/// Wisdom: loaded from `wisdomPath` when the cache is created, written back
/// (atomically, through a temporary file) whenever new plans were made. A
/// missing, unreadable or corrupt file only means the planner measures again;
/// it is logged and never an error.
///
/// Threading: `plan` is safe from any thread except the real-time audio
/// thread: a size that has no plan yet is planned on the spot, under the
/// process-wide planner mutex (FFTW's planner and its wisdom are global and not
/// thread-safe). A size that is already planned costs one atomic load and never
/// touches the mutex; `plannedPlan` never touches it at all (null while a size
/// is unplanned), for callers that must not wait. Executing plans is thread-safe in FFTW. `startPreparing`
/// owns one planning thread, which plans and refines under the same mutex, one
/// size at a time; the destructor stops it between two sizes and joins it.
class FFTPlanCache {
public:
    static constexpr int32_t kMinLog2Size = 8;  // 256 points
    static constexpr int32_t kMaxLog2Size = 16; // 65,536 points

    /// Planner flags for every plan. FFTW_MEASURE, chosen by measurement on the
    /// target machines (all sizes 256..65536, total planning time / execution
    /// time at 65,536 points): FFTW_ESTIMATE plans in 9 ms but executes 1.2 to
    /// 2 times slower from 4,096 points up (158 us against 85 us at 65,536);
    /// FFTW_PATIENT takes 15 s to plan every size for at most 15 % less time
    /// per transform; FFTW_MEASURE takes 2.4 s once, and the stored wisdom makes
    /// every later start and every size change cost milliseconds.
    static constexpr unsigned kPlannerFlags = FFTW_MEASURE;
    /// Sizes from this one up are refined with FFTW_PATIENT by the planning
    /// thread. Measured on the target machine (time per transform, PATIENT
    /// against MEASURE): 0.71 at 16,384 points, 0.89 at 32,768, 0.70 at
    /// 65,536; below 16,384 no gain. It costs about 13 s of one core on the
    /// first run only: the wisdom file keeps the result, and a later run gets
    /// the same plans in milliseconds.
    static constexpr int32_t kPatientFromSize = 16384;
    static constexpr int32_t kMaxSize = int32_t{1} << kMaxLog2Size;

    /// A cache whose wisdom lives at `wisdomPath` (empty: no wisdom file).
    /// Loads the file now. Any non-real-time thread.
    explicit FFTPlanCache(const QString& wisdomPath, unsigned plannerFlags = kPlannerFlags);
    ~FFTPlanCache();
    FFTPlanCache(const FFTPlanCache&) = delete;
    FFTPlanCache& operator=(const FFTPlanCache&) = delete;

    /// The process's cache, with its wisdom in the cache folder
    /// (QStandardPaths::CacheLocation + "/fftw-wisdom-f"). Created on first
    /// use; create it before any concurrent use.
    static FFTPlanCache& shared();
    /// The wisdom file of the shared cache.
    static QString defaultWisdomPath();

    /// The plan of `size` points (a power of two in 256..65536), planning it
    /// first if needed. Null for any other size, or if FFTW cannot plan.
    fftwf_plan plan(int32_t size);
    /// True when `size` has a plan already (never plans).
    bool hasPlan(int32_t size) const;
    /// The plan of `size` if it is made already, else null: never plans and
    /// never waits (one atomic load), so the audio delivery path may call it.
    fftwf_plan plannedPlan(int32_t size) const;
    /// The in-place complex plan of `points` (a power of two in 256..65536) in
    /// direction `sign` (FFTW_FORWARD or FFTW_BACKWARD), planning it first if
    /// needed, like `plan`. Null for any other size or sign, or if FFTW cannot plan.
    fftwf_plan complexPlan(int32_t points, int sign);
    /// The same but never planning and never waiting: null while that plan is
    /// not made yet. Any thread but the real-time one (one atomic load).
    fftwf_plan plannedComplexPlan(int32_t points, int sign) const;
    /// Plans every size that has no plan yet, `firstSize` first (so that a
    /// caller waiting for one size gets it soonest), then saves the wisdom.
    /// With `withComplex`, the complex plans too: those of `firstSize` right
    /// after its real plan, the others after every real size.
    void prepareAll(int32_t firstSize = 0, bool withComplex = false);
    /// Plans the sizes `fromSize`..`toSize` again with FFTW_PATIENT, one at a
    /// time, each swapped in as soon as it is ready and the wisdom saved after
    /// each. A size refined once is not refined again. Blocks (seconds for the
    /// large sizes on a first run); any non-real-time thread.
    void refine(int32_t fromSize, int32_t toSize = kMaxSize);
    /// True when `size` has its FFTW_PATIENT plan.
    bool isRefined(int32_t size) const;

    /// Starts the planning thread, which runs `prepareAll(firstSize,
    /// withComplex)` and then `refine(patientFromSize)`, and returns at once. A transform that
    /// needs a size meanwhile waits for that size only. Once per cache; later calls do nothing.
    /// Called from the thread that owns the cache, like `waitUntilPrepared`.
    void startPreparing(int32_t firstSize, int32_t patientFromSize = kPatientFromSize,
                        bool withComplex = false);
    /// Waits for the planning thread to finish (returns at once if none runs).
    void waitUntilPrepared();

    /// The process-wide mutex around FFTW's planner and wisdom. Only for tests
    /// that hold it to show that a path never waits for the planner.
    static std::mutex& plannerMutexForTesting();

    const QString& wisdomPath() const { return wisdomPath_; }
    /// Whether the wisdom file was read successfully at creation.
    bool wisdomLoaded() const { return wisdomLoaded_; }

private:
    static int32_t slotOf(int32_t size);
    static int32_t sizeOf(int32_t slot) { return int32_t{1} << (slot + kMinLog2Size); }
    /// Index into `complexPlans_` of `points` and `sign`; -1 for neither.
    static int32_t complexSlotOf(int32_t points, int sign);
    /// Plans one complex slot unless it has a plan; planner mutex held by the caller.
    fftwf_plan makeComplexPlanLocked(int32_t complexSlot);
    /// Plans one slot with the cache's flags unless it has a plan; planner
    /// mutex held by the caller.
    fftwf_plan makePlanLocked(int32_t slot);
    /// A new plan of `n` points with `flags` (null if FFTW cannot); planner
    /// mutex held by the caller.
    static fftwf_plan newPlanLocked(int32_t n, unsigned flags);
    bool loadWisdomLocked();
    void saveWisdomLocked();

    const QString wisdomPath_;
    const unsigned plannerFlags_;
    bool wisdomLoaded_ = false;
    static constexpr size_t kSlots = kMaxLog2Size - kMinLog2Size + 1;
    std::array<std::atomic<fftwf_plan>, kSlots> plans_{};
    /// The plans that refinement replaced (at most one per size); planner
    /// mutex.
    std::array<fftwf_plan, kSlots> retired_{};
    std::array<std::atomic<bool>, kSlots> refined_{};
    /// Complex plans: slot k holds 256 << (k / 2) points, forward for even k,
    /// backward for odd k.
    std::array<std::atomic<fftwf_plan>, 2 * kSlots> complexPlans_{};
    /// Set by the destructor: the planning thread stops before its next size.
    std::atomic<bool> stopping_{false};
    std::thread planner_;
    bool preparingStarted_ = false;
};

} // namespace widmo
