#include "dsp/FFTPlanCache.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

namespace widmo {
namespace {

/// Runs `plan` on a real input and checks the one number a broken plan could
/// not produce: bin 3 of a cosine with three periods holds N/2.
void expectWorkingPlan(fftwf_plan plan, int n) {
    ASSERT_NE(plan, nullptr);
    float* in = fftwf_alloc_real(static_cast<size_t>(n));
    fftwf_complex* out = fftwf_alloc_complex(static_cast<size_t>(n / 2 + 1));
    for (int t = 0; t < n; ++t)
        in[t] = static_cast<float>(std::cos(2.0 * 3.14159265358979 * 3.0 * t / n));
    fftwf_execute_dft_r2c(plan, in, out);
    EXPECT_NEAR(out[3][0], n / 2.0, 1e-3 * n);
    EXPECT_NEAR(out[5][0], 0.0, 1e-3 * n);
    fftwf_free(out);
    fftwf_free(in);
}

TEST(FFTPlanCacheTest, corruptWisdomFile_plansAnywayAndRewritesIt) {
    QTemporaryDir dir;
    const QString path = dir.filePath("fftw-wisdom-f");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("(fftw-3.3.10 fftwf_wisdom #x0 garbage \x01\x02 not wisdom");
    file.close();
    {
        FFTPlanCache cache(path, FFTW_ESTIMATE);
        EXPECT_FALSE(cache.wisdomLoaded());
        expectWorkingPlan(cache.plan(256), 256);
    }
    // Planning stored fresh wisdom over the corrupt file.
    FFTPlanCache again(path, FFTW_ESTIMATE);
    EXPECT_TRUE(again.wisdomLoaded());
}

TEST(FFTPlanCacheTest, missingWisdomFolder_isCreatedOnSave_sizesOutsideTheRangeHaveNoPlan) {
    QTemporaryDir dir;
    const QString path = dir.filePath("not/yet/there/fftw-wisdom-f");
    FFTPlanCache cache(path, FFTW_ESTIMATE);
    EXPECT_FALSE(cache.wisdomLoaded());
    EXPECT_FALSE(cache.hasPlan(512));
    cache.prepareAll(512, true); // with the EGG filter's complex plans
    for (int n = 256; n <= 65536; n *= 2) {
        EXPECT_TRUE(cache.hasPlan(n)) << n;
        EXPECT_NE(cache.plannedComplexPlan(n, FFTW_FORWARD), nullptr) << n;
        EXPECT_NE(cache.plannedComplexPlan(n, FFTW_BACKWARD), nullptr) << n;
    }
    EXPECT_TRUE(QFile::exists(path));
    for (int n : {0, 128, 1000, 131072, -256}) // outside the powers of two offered
        EXPECT_EQ(cache.plan(n), nullptr) << n;
}

TEST(FFTPlanCacheTest, concurrentFirstUse_plansEachSizeOnceUnderTheMutex) {
    // Two caches and several threads asking at once: the planner is global in
    // FFTW, so without the process-wide mutex this races (ThreadSanitizer).
    FFTPlanCache a(QString(), FFTW_ESTIMATE);
    FFTPlanCache b(QString(), FFTW_ESTIMATE);
    std::vector<fftwf_plan> got(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            FFTPlanCache& cache = (t % 2) ? a : b;
            got[static_cast<size_t>(t)] = cache.plan(1024 << (t / 2 % 2));
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(got[0], got[4]); // same cache, same size: one plan
    EXPECT_EQ(got[1], got[5]);
    expectWorkingPlan(got[2], 2048);
    expectWorkingPlan(got[3], 2048);
}

TEST(FFTPlanCacheTest, refinement_swapsPlansUnderRunningTransformsAndKeepsTheOldOnesValid) {
    QTemporaryDir dir;
    const QString path = dir.filePath("fftw-wisdom-f");
    FFTPlanCache cache(path, FFTW_ESTIMATE);
    cache.prepareAll();
    const fftwf_plan first = cache.plan(512);
    // The analysis queue keeps transforming while the planning thread swaps
    // the refined plan in; the plan it loaded must stay alive throughout.
    std::atomic<bool> done{false};
    std::thread planner([&] {
        cache.refine(256, 512);
        done.store(true);
    });
    int transforms = 0;
    while (!done.load() || transforms == 0) {
        expectWorkingPlan(cache.plan(transforms % 2 ? 512 : 256), transforms % 2 ? 512 : 256);
        ++transforms;
    }
    planner.join();
    EXPECT_TRUE(cache.isRefined(256));
    EXPECT_TRUE(cache.isRefined(512));
    EXPECT_FALSE(cache.isRefined(1024));
    const fftwf_plan refined = cache.plan(512);
    EXPECT_NE(refined, first);
    expectWorkingPlan(first, 512);
    expectWorkingPlan(refined, 512);
    cache.refine(256, 512); // once only
    EXPECT_EQ(cache.plan(512), refined);
    EXPECT_TRUE(QFile::exists(path));
}

TEST(FFTPlanCacheTest, planningThread_plansEverySizeWhileATransformAsksForOne) {
    FFTPlanCache cache(QString(), FFTW_ESTIMATE);
    cache.startPreparing(4096, 1 << 20); // nothing refined: that takes seconds
    cache.startPreparing(256, 256);      // a second start changes nothing
    expectWorkingPlan(cache.plan(1024), 1024);
    cache.waitUntilPrepared();
    for (int n = 256; n <= 65536; n *= 2) {
        EXPECT_TRUE(cache.hasPlan(n)) << n;
        EXPECT_FALSE(cache.isRefined(n)) << n;
    }
}

} // namespace
} // namespace widmo
