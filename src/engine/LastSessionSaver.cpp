#include "engine/LastSessionSaver.h"

#include "core/AnalyzerDefaults.h"
#include "core/LastSessionFile.h"
#include "engine/AnalyzerController.h"
#include "engine/MainQueue.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSettings>

#include <algorithm>
#include <utility>

namespace widmo {

LastSessionSaver::LastSessionSaver(AnalyzerDefaults& defaults, AnalyzerController& engine,
                                   QString path, StoreFactory storeFactory, WrittenHook written,
                                   FailedHook failed)
    : defaults_(defaults), engine_(engine), path_(std::move(path)),
      storeFactory_(std::move(storeFactory)), written_(std::move(written)),
      failed_(std::move(failed)),
      queue_(std::make_unique<DispatchQueue>("org.widmo.lastSessionSaver")) {
    timer_.setInterval(kPeriod);
    QObject::connect(&timer_, &QTimer::timeout, [this] { saveInBackground(); });
}

LastSessionSaver::~LastSessionSaver() {
    timer_.stop();
    queue_.reset(); // runs a queued save to its end
}

void LastSessionSaver::recordingStarted() {
    Q_ASSERT(MainQueue::isMainThread());
    timer_.start();
}

void LastSessionSaver::recordingStopped() {
    Q_ASSERT(MainQueue::isMainThread());
    timer_.stop();
    saveInBackground();
}

LastSessionSaver::Request LastSessionSaver::request() const {
    Request r;
    r.generation = engine_.storeGeneration();
    r.session = LastSessionFile::Session::of(defaults_, 0);
    const int64_t n = r.session.intervalSizeInFrames;
    r.capacity = int64_t{defaults_.audioBuffersIntervalsCount()} * n;
    // The recalculated intervals, and the start of the first one's FFT window.
    r.newestFrames =
        std::min(int64_t{defaults_.spectrogramWidth()} * n + defaults_.fftSize(), r.capacity);
    return r;
}

void LastSessionSaver::saveInBackground() {
    Q_ASSERT(MainQueue::isMainThread());
    QElapsedTimer clock;
    clock.start();
    if (!pending_.exchange(true, std::memory_order_acq_rel)) {
        queue_->async([this, r = request()] {
            pending_.store(false, std::memory_order_release);
            save(r);
        });
    }
    maxMainThreadMs_ = std::max(maxMainThreadMs_, static_cast<double>(clock.nsecsElapsed()) / 1e6);
}

void LastSessionSaver::waitUntilIdle() { queue_->waitUntilEmpty(); }

void LastSessionSaver::save(const Request& r) {
    const int64_t n = r.session.intervalSizeInFrames;
    if (r.capacity <= 0 || n <= 0) {
        return;
    }
    if (r.generation != mirrorGeneration_ || static_cast<int64_t>(mirror_.size()) != r.capacity) {
        // A new (or recalculated) document: start from an empty mirror.
        mirror_.assign(static_cast<size_t>(r.capacity), 0.0f);
        mirrorGeneration_ = r.generation;
        copiedUpTo_ = 0;
    }
    const int64_t frames = engine_.copyStoreInto(mirror_, copiedUpTo_, r.newestFrames);
    if (frames < 0) {
        return; // no store
    }
    copiedUpTo_ = frames;
    if (frames < n) {
        // An empty document: nothing to recover, and an older file must not be
        // offered in its place.
        QFile::remove(path_);
        return;
    }
    QString reason;
    if (!LastSessionFile::write(path_, mirror_.data(), r.capacity, &reason)) {
        if (!failing_ && failed_)
            failed_(path_, reason);
        failing_ = true;
        return;
    }
    failing_ = false;
    if (written_) {
        written_(path_);
    }
    LastSessionFile::Session session = r.session;
    session.actualInterval = frames / n;
    if (storeFactory_) {
        const std::unique_ptr<QSettings> coder = storeFactory_();
        LastSessionFile::encode(*coder, session);
        coder->sync();
    }
    savedFrames_.store(frames, std::memory_order_release);
    savesCompleted_.fetch_add(1, std::memory_order_acq_rel);
}

bool LastSessionSaver::saveNow(QSettings& coder) {
    Q_ASSERT(MainQueue::isMainThread());
    timer_.stop();
    waitUntilIdle();
    const std::vector<float>& store = defaults_.audioBuffersData();
    const int64_t n = defaults_.intervalSizeInFrames();
    const int64_t frames = engine_.framesWriteCount();
    if (store.empty() || n <= 0 || frames < n) {
        // Nothing worth recovering; what an earlier save left is not this
        // document.
        QFile::remove(path_);
        coder.remove(QLatin1String(LastSessionFile::kActualIntervalKey));
        return false;
    }
    if (!LastSessionFile::write(path_, store.data(), static_cast<int64_t>(store.size()))) {
        return false;
    }
    if (written_) {
        written_(path_);
    }
    LastSessionFile::encode(coder, LastSessionFile::Session::of(defaults_, frames / n));
    savedFrames_.store(frames, std::memory_order_release);
    savesCompleted_.fetch_add(1, std::memory_order_acq_rel);
    return true;
}

} // namespace widmo
