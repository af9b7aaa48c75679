#include "audio/AudioSession.h"

#include "audio/AudioStreams.h"
#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "core/RealTimeScope.h"
#include "core/SoundLevelSettings.h"
#include "engine/AudioSessionDelegate.h"
#include "engine/MainQueue.h"
#include "engine/MainScreenInterface.h"
#include "engine/MessageInterface.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QMetaObject>
#include <QtGlobal>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

namespace widmo {

namespace {

AudioSession* sharedInstance = nullptr;

void deleteSharedAudio() {
    delete sharedInstance;
    sharedInstance = nullptr;
}

// The device of `devices` with the id of `device` (null when none): the list
// has its current fields (rate, channels).
AudioDevice findDevice(const QList<AudioDevice>& devices, const AudioDevice& device) {
    for (const AudioDevice& d : devices) {
        if (d.id == device.id)
            return d;
    }
    return AudioDevice();
}

QList<QByteArray> inputIds(const SoundServer& server) {
    QList<QByteArray> ids;
    for (const AudioDevice& device : server.inputs())
        ids << device.id;
    ids << server.defaultInput().id;
    return ids;
}

} // namespace

AudioSession::AudioSession(AnalyzerDefaults& defaults, const AnalyzerFeatures& features)
    : defaults_(defaults), features_(features) {
    for (DeliveryTask& task : deliveries_)
        task.owner = this;
    knownInputIds_ = inputIds(server_);
    connect(&server_, &SoundServer::devicesChanged, this, &AudioSession::checkInputs);
    // While waiting, a start that failed (the device listed before it takes
    // streams) is tried again; the lists' changes try at once.
    resumeTimer_.setInterval(250);
    connect(&resumeTimer_, &QTimer::timeout, this, &AudioSession::tryResume);
    if (features_.featureTranspositionEnabled()) {
        transposer_ = std::make_unique<Transposer>();
        transposerFeed_.assign(size_t(AudioStreams::kMaxInputFrames), 0.0f);
        // A tenth of a second between a stall and the message is soon enough.
        tooSlowTimer_.setInterval(100);
        connect(&tooSlowTimer_, &QTimer::timeout, this, &AudioSession::checkTranspositionTooSlow);
    }

    audioThread_.setObjectName("widmo audio control");
    unit_ = new AudioStreams(*this, server_);
    unit_->moveToThread(&audioThread_);
    audioCalls_ = new CallMailbox;
    audioCalls_->moveToThread(&audioThread_);
    audioThread_.start();
}

AudioSession::~AudioSession() {
    stop();
    stopAudioUnits();
    setDelegate(nullptr);
    AudioStreams* unit = unit_;
    audioCalls_->postAndWait([unit] { delete unit; });
    unit_ = nullptr;
    audioThread_.quit();
    audioThread_.wait();
    delete audioCalls_;
    audioDispatchQueue_.waitUntilEmpty();
}

AudioSession& AudioSession::sharedAudio() {
    if (sharedInstance == nullptr) {
        sharedInstance = new AudioSession(AnalyzerDefaults::sharedDefaults(),
                                          AnalyzerFeatures::sharedFeatures());
        // Streams close while the application object still exists, as the
        // rest of the process's objects do.
        qAddPostRoutine(deleteSharedAudio);
    }
    return *sharedInstance;
}

// --- Engine's view ------------------------------------------------------------------

void AudioSession::setDelegate(AudioSessionDelegate* delegate) {
    AudioSessionDelegate* old = delegate_.exchange(delegate, std::memory_order_acq_rel);
    if (old != nullptr && old != delegate && !audioDispatchQueue_.isCurrent())
        audioDispatchQueue_.waitUntilEmpty();
}

bool AudioSession::isSetupInProgress() const {
    return (mWillPlay_.load(std::memory_order_acquire) && !isPlaying()) ||
           (mWillRecord_.load(std::memory_order_acquire) && !isRecording());
}

void AudioSession::setCurrentInputChannel(int64_t channel) {
    currentInputChannel_.store(std::clamp<int64_t>(channel, 0, 1), std::memory_order_release);
}

void AudioSession::startRecorder(std::function<void(bool)> completion) {
    if (mWillPlay_.load(std::memory_order_acquire) || mWillRecord_.load(std::memory_order_acquire))
        return;
    mWillRecord_.store(true, std::memory_order_release);
    setupAndStartAudioUnit([this, completion = std::move(completion)](bool ok) mutable {
        finishStart(true, std::move(completion), ok);
    });
}

void AudioSession::startPlayer(std::function<void(bool)> completion) {
    if (mWillRecord_.load(std::memory_order_acquire) || mWillPlay_.load(std::memory_order_acquire))
        return;
    mWillPlay_.store(true, std::memory_order_release);
    lastPortBeforePlaying_ = currentInput();
    setupAndStartAudioUnit([this, completion = std::move(completion)](bool ok) mutable {
        finishStart(false, std::move(completion), ok);
    });
}

void AudioSession::finishStart(bool recording, std::function<void(bool)> completion, bool ok) {
    if (recording) {
        if (ok) {
            // The first cycles after a start are dropped while the device settles:
            // 7 at 44.1 and 48 kHz, 15 at 96 kHz.
            renderCycles_.store(0, std::memory_order_release);
            droppedBlocks_.store(0, std::memory_order_release);
            lastBlockEndNs_.store(0, std::memory_order_release);
            gapPending_.store(false, std::memory_order_release);
            captureRate_.store(runningConfig_.sampleRate, std::memory_order_release);
            skipThreshold_.store(int32_t(double(defaults_.sampleRate()) * 7.0 / 44100.0),
                                 std::memory_order_release);
            isRecording_.store(true, std::memory_order_release);
            if (isTransposing())
                tooSlowTimer_.start();
        } else {
            isRecording_.store(false, std::memory_order_release);
            mWillRecord_.store(false, std::memory_order_release);
        }
    } else {
        isPlaying_.store(ok, std::memory_order_release);
        if (!ok)
            mWillPlay_.store(false, std::memory_order_release);
    }
    if (completion)
        completion(ok);
    if (!ok && lastStartFailure_ != AudioIOFailure::None)
        reportFailure(lastStartFailure_, lastStartFailureDevice_, !recording, true);
}

void AudioSession::stop() {
    const bool playing = isPlaying();
    if (!playing && !isRecording())
        return;
    isRecording_.store(false, std::memory_order_release);
    isPlaying_.store(false, std::memory_order_release);
    mWillRecord_.store(false, std::memory_order_release);
    mWillPlay_.store(false, std::memory_order_release);
    tooSlowTimer_.stop();
    endWaiting();
    stopAudioUnits();
    if (const int64_t dropped = droppedBlocks(); dropped > 0)
        qWarning("recording: %lld capture blocks dropped (the analysis fell a whole capture ring "
                 "behind)",
                 static_cast<long long>(dropped));
    if (playing)
        setPreferredInput(lastPortBeforePlaying_);
}

// --- Session ----------------------------------------------------------------------------

void AudioSession::activateAudioSession(std::function<void(bool)> completion) {
    // The sound server asks no microphone permission; the answer is
    // "granted", delivered as the permission answer would be: on the main
    // queue.
    MainQueue::async(
        [this, completion = std::move(completion)] {
            if (mSessionActivatedForMultiRoute_) {
                completion(true);
                return;
            }
            // The session is usable when the sound server answers with at
            // least one device; without a server it lists none.
            if (server_.inputs().isEmpty() && server_.defaultOutput().isNull()) {
                qWarning("error %d from %s", -1, "SoundServer: no audio devices");
                completion(false);
                return;
            }
            mSessionActivatedForMultiRoute_ = true;
            completion(true);
        },
        this);
}

void AudioSession::deactivateAudioSession() { mSessionActivatedForMultiRoute_ = false; }

int AudioSession::ioBufferFrames() const {
    // A small device buffer keeps the display responsive; the spectrogram
    // products use longer ones, where every column costs more work.
    if (!features_.featureSpectrogramEnabled())
        return 512;
    return features_.featureUltrasonicEnabled() ? 2048 : 1024;
}

void AudioSession::setupAndStartAudioUnit(std::function<void(bool)> completion) {
    // The set-up runs whatever the activation reports: a failed activation
    // shows up as a device that cannot be opened.
    activateAudioSession([this, completion = std::move(completion)](bool) mutable {
        const bool willRecord = mWillRecord_.load(std::memory_order_acquire);
        const bool willPlay = mWillPlay_.load(std::memory_order_acquire);
        const int sampleRate = int(defaults_.sampleRate());
        if (willPlay)
            setPreferredToInternalInput();

        // Recording with transposition plays the transposed input; otherwise
        // the output runs for playback only: while recording, the cycles of
        // the capture stream are the device's cycles, and no silence needs
        // playing.
        const bool transposing =
            willRecord && transposer_ != nullptr && defaults_.recordingTranspositionOn();
        AudioStreams::Config config;
        config.enableInput = willRecord;
        config.enableOutput = willPlay || transposing;
        config.input = willRecord ? currentInput() : AudioDevice();
        config.output = config.enableOutput ? server_.defaultOutput() : AudioDevice();
        config.sampleRate = sampleRate;
        config.outputSampleRate = sampleRate;
        if (willPlay && features_.featureTranspositionEnabled() &&
            defaults_.playbackTranspType() == 1) {
            // Slowed-down playback: the device plays the samples slower and lower.
            config.outputSampleRate =
                int(sampleRate / std::pow(2.0, defaults_.playbackSlowDownOctaves()));
        }
        config.ioBufferFrames = ioBufferFrames();
        if (transposing) {
            // Listening: short blocks in and a short queue out.
            config.ioBufferFrames = Transposer::frameSize(sampleRate);
            config.outputBufferFrames = 3 * Transposer::frameSize(sampleRate);
        }
        config.inputVolume = inputGain_;
        outputRunning_.store(config.enableOutput, std::memory_order_release);
        ring_.reset();
        prepareTransposition(transposing, sampleRate);

        AudioStreams* unit = unit_;
        audioCalls_->post([this, unit, config, completion = std::move(completion)]() mutable {
            const AudioStreams::Result result = unit->start(config);
            mainCalls_.post([this, config, result, completion = std::move(completion)] {
                lastStartFailure_ = result.failure;
                lastStartFailureDevice_ = result.deviceName;
                if (result.ok()) {
                    runningInput_ = config.input;
                    runningConfig_ = config;
                    runningSampleRate_ =
                        config.enableInput ? config.sampleRate : config.outputSampleRate;
                } else {
                    stopAudioUnits();
                }
                completion(result.ok());
            });
        });
    });
}

void AudioSession::prepareTransposition(bool transposing, int sampleRate) {
    transposing_.store(transposing, std::memory_order_release);
    transpositionTooSlow_.store(false, std::memory_order_release);
    if (!transposing)
        return;
    // The streams are closed: once the blocks of an earlier recording have
    // been delivered, nothing else touches the transposer until they open.
    audioDispatchQueue_.waitUntilEmpty();
    transposeRate_.store(sampleRate, std::memory_order_release);
    refreshListening();
    limiter_.prepare(sampleRate);
    transposer_->setupTransposition();
    transposer_->setFilter20kHzOn(transposeFilter_.load(std::memory_order_acquire),
                                  transposeFactor_.load(std::memory_order_acquire), sampleRate);
    transposer_->setMode(listeningMode_.load(std::memory_order_acquire) == 1
                             ? Transposer::Mode::Heterodyne
                             : Transposer::Mode::Transpose);
}

void AudioSession::refreshListening() {
    if (transposer_ == nullptr)
        return;
    const int32_t octaves = std::clamp(defaults_.realTimeTransposeOctavesDown(), 0, 6);
    transposeFilter_.store(defaults_.realTimeTranspFilterBelow20kHz(), std::memory_order_release);
    transposeFactor_.store(int32_t{1} << octaves, std::memory_order_release);
    outputGainFactor_.store(float(std::pow(10.0, double(defaults_.outputGainValue()) / 20.0)),
                            std::memory_order_release);
    listeningMode_.store(defaults_.listeningMode(), std::memory_order_release);
    // The heterodyne's tuning and band are atomics of their own.
    transposer_->heterodyne().setTuning(defaults_.heterodyneTuningHz());
    transposer_->heterodyne().setBandwidth(defaults_.heterodyneBandHz());
}

int64_t AudioSession::outputUnderruns() const {
    return unit_ != nullptr ? unit_->outputUnderruns() : 0;
}

void AudioSession::stopAudioUnits() {
    AudioStreams* unit = unit_;
    if (unit != nullptr)
        audioCalls_->postAndWait([unit] { unit->stop(); });
    outputRunning_.store(false, std::memory_order_release);
    runningInput_ = AudioDevice();
}

void AudioSession::setPreferredToInternalInput() { setPreferredInput(AudioDevice()); }

AudioDevice AudioSession::currentInput() const {
    const QList<AudioDevice> inputs = availableInputs();
    if (!runningInput_.isNull()) {
        const AudioDevice running = findDevice(inputs, runningInput_);
        return running.isNull() ? runningInput_ : running;
    }
    if (!preferredInput_.isNull()) {
        const AudioDevice preferred = findDevice(inputs, preferredInput_);
        if (!preferred.isNull())
            return preferred;
    }
    // Nothing chosen (or the choice is gone): the server's default input, read
    // anew each time, so that a change of the default is followed.
    if (inputs.isEmpty())
        return AudioDevice();
    const AudioDevice fallback = server_.defaultInput();
    return fallback.isNull() ? inputs.first() : fallback;
}

bool AudioSession::isInputGainSettable() const {
    return server_.isConnected() && !currentInput().isNull();
}

float AudioSession::inputGain() const { return inputGain_; }

void AudioSession::setInputGain(float gain) {
    inputGain_ = std::clamp(gain, 0.0f, 1.0f);
    AudioStreams* unit = unit_;
    const float value = inputGain_;
    audioCalls_->post([unit, value] { unit->setInputVolume(value); });
}

// --- Audio thread ---------------------------------------------------------------------------

void AudioSession::inputAvailable(int32_t frames) {
    const RealTimeScope realTime;
    // Only the cycles of a running recording count: the stream delivers a
    // little before its start completes and until the control thread has
    // closed it after a stop.
    if (!isRecording())
        return;
    // Without an output stream the capture cycles are the device's cycles and
    // are counted here, as the render callback counts them during playback.
    // (A read-modify-write, so that the reset of a new recording is never lost.)
    const int64_t cycle = outputRunning_.load(std::memory_order_acquire)
                              ? renderCycles_.load(std::memory_order_acquire)
                              : renderCycles_.fetch_add(1, std::memory_order_acq_rel);
    if (cycle <= skipThreshold_.load(std::memory_order_acquire))
        return;
    // The task (and buffer) of the next slot is still waiting when the queue
    // lags 127 blocks behind; the block is then dropped rather than written
    // over data not yet delivered.
    const int32_t next = (ring_.actualBuffer() + 1) % kCaptureBufferCount;
    DeliveryTask& task = deliveries_[size_t(next)];
    // Claimed with an exchange: a task is queued at most once, even if a
    // stream being replaced still calls in beside the new one.
    if (task.queued.exchange(true, std::memory_order_acq_rel)) {
        droppedBlocks_.fetch_add(1, std::memory_order_acq_rel);
        return;
    }
    // Render before moving the ring on: a cycle whose stream delivered nothing
    // leaves no empty slot behind, so blocks stay in consecutive slots.
    float* buffer = ring_.buffer(next);
    const int32_t rendered = unit_->renderInput(buffer, frames);
    if (rendered <= 0) {
        task.queued.store(false, std::memory_order_release);
        return;
    }
    ring_.advance();
    // The block's end, and for the first block after a loss its start: the
    // frames missed in between, at the capture rate.
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    const double rate = double(captureRate_.load(std::memory_order_acquire));
    task.gapFrames = 0;
    if (gapPending_.exchange(false, std::memory_order_acq_rel)) {
        const int64_t lastEnd = lastBlockEndNs_.load(std::memory_order_acquire);
        const int64_t from = lastEnd > 0 ? lastEnd : lostAtNs_.load(std::memory_order_acquire);
        const double start = double(now) - double(rendered) * 1e9 / rate;
        task.gapFrames = std::max<int64_t>(1, std::llround((start - double(from)) * rate / 1e9));
    }
    lastBlockEndNs_.store(now, std::memory_order_release);
    task.data = buffer;
    task.frames = rendered;
    audioDispatchQueue_.async(task);
}

void AudioSession::DeliveryTask::run() {
    const RealTimeScope realTime;
    if (owner->isTransposing())
        owner->feedTransposer(data, frames);
    AudioSessionDelegate* delegate = owner->delegate();
    if (delegate != nullptr && gapFrames > 0)
        delegate->didMissAudio(
            gapFrames, owner->lostAtMs_.load(std::memory_order_acquire),
            static_cast<CaptureGaps::Cause>(owner->gapCause_.load(std::memory_order_acquire)));
    if (delegate != nullptr)
        delegate->didGetNewAudioData(AudioBlock{frames, data});
    queued.store(false, std::memory_order_release);
}

void AudioSession::feedTransposer(const float* interleaved, int32_t frames) {
    const auto channel = size_t(std::clamp<int64_t>(currentInputChannel(), 0, 1));
    const float gain = float(std::pow(10.0, double(defaults_.softwareInputGainValue()) / 20.0));
    const int32_t n = std::min(frames, int32_t(transposerFeed_.size()));
    for (int32_t i = 0; i < n; ++i)
        transposerFeed_[size_t(i)] = gain * interleaved[2 * size_t(i) + channel];
    transposer_->addNewData(transposerFeed_.data(), n);
}

void AudioSession::renderOutput(int32_t frames, float* out) {
    const RealTimeScope realTime;
    // Silence unless the delegate or the transposer writes the samples.
    std::memset(out, 0, size_t(frames) * sizeof(float));
    if (isPlaying()) {
        if (AudioSessionDelegate* delegate = this->delegate()) {
            AudioBlock block{frames, out};
            delegate->giveNewAudioData(&block);
        }
    } else if (isRecording() && isTransposing() &&
               renderCycles_.load(std::memory_order_acquire) >
                   skipThreshold_.load(std::memory_order_acquire)) {
        transposer_->setFilter20kHzOn(transposeFilter_.load(std::memory_order_acquire),
                                      transposeFactor_.load(std::memory_order_acquire),
                                      transposeRate_.load(std::memory_order_acquire));
        transposer_->setMode(listeningMode_.load(std::memory_order_acquire) == 1
                                 ? Transposer::Mode::Heterodyne
                                 : Transposer::Mode::Transpose);
        if (!transposer_->getTransposedData(out, frames))
            transpositionTooSlow_.store(true, std::memory_order_release);
        limiter_.process(out, frames, outputGainFactor_.load(std::memory_order_acquire));
    }
    renderCycles_.fetch_add(1, std::memory_order_acq_rel);
}

void AudioSession::checkTranspositionTooSlow() {
    if (!transpositionTooSlow_.exchange(false, std::memory_order_acq_rel) || !isRecording())
        return;
    tooSlowTimer_.stop();
    auto show = [messages = messages_] {
        if (messages != nullptr)
            messages->showMessage(Transposer::kTooSlowMessage, "OK");
    };
    if (mainScreen_ == nullptr) {
        stop();
        show();
    } else {
        mainScreen_->stopAnalyzerWithoutBlockButtonsAndRunBlock(show);
    }
}

void AudioSession::unitFailed(AudioIOFailure failure, const QString& deviceName) {
    mainCalls_.post([this, failure, deviceName] { handleRunningFailure(failure, deviceName); });
}

// --- Failures (main thread) ----------------------------------------------------------------

void AudioSession::checkInputs() {
    const QList<QByteArray> ids = inputIds(server_);
    if (ids == knownInputIds_) {
        if (waiting_)
            tryResume();
        return;
    }
    knownInputIds_ = ids;
    emit availableInputsChanged();
    if (waiting_) {
        tryResume();
        return;
    }
    // A capture device that is no longer listed has gone away (its stream
    // fails too; whichever is seen first stops the analyser). A server that
    // went away lists nothing: its own failure says so.
    if (isRecording() && server_.isConnected() && !runningInput_.isNull() &&
        findDevice(availableInputs(), runningInput_).isNull()) {
        qWarning("error %d from %s", -1, "SoundServer: input removed");
        handleRunningFailure(AudioIOFailure::InputDeviceLost, runningInput_.description);
        return;
    }
    followDefaultInput();
}

void AudioSession::followDefaultInput() {
    // Nothing chosen: a running capture moves to the server's new default
    // input (a new stream on it; the ring and the deliveries go on).
    if (!isRecording() || !preferredInput_.isNull() || runningInput_.isNull() ||
        !server_.isConnected())
        return;
    const AudioDevice target = server_.defaultInput();
    if (target.isNull() || target.id == runningInput_.id)
        return;
    AudioStreams::Config config = runningConfig_;
    config.input = target;
    config.inputVolume = inputGain_;
    runningInput_ = target;
    runningConfig_ = config;
    AudioStreams* unit = unit_;
    audioCalls_->post([this, unit, config] {
        const AudioStreams::Result result = unit->start(config);
        if (!result.ok())
            mainCalls_.post(
                [this, result] { handleRunningFailure(result.failure, result.deviceName); });
    });
}

void AudioSession::handleRunningFailure(AudioIOFailure failure, const QString& deviceName) {
    const bool playing = isPlaying();
    if (!playing && !isRecording())
        return; // already stopped (for example by the user meanwhile)
    if (waiting_)
        return; // the streams are closed already; a failed resume is tried again
    if (!playing && keepsRecording() &&
        (failure == AudioIOFailure::ServerLost || failure == AudioIOFailure::InputDeviceLost ||
         failure == AudioIOFailure::InputOpenFailed || failure == AudioIOFailure::NoInputDevice)) {
        startWaiting(failure, deviceName);
        return;
    }
    if (mainScreen_ == nullptr)
        stop();
    reportFailure(failure, deviceName, playing, false);
}

void AudioSession::reportFailure(AudioIOFailure failure, const QString& deviceName, bool playback,
                                 bool startFailed) {
    Alert alert = alertForFailure(
        failure, deviceName,
        runningSampleRate_ > 0 && !startFailed ? runningSampleRate_ : int(defaults_.sampleRate()),
        playback);
    if (startFailed && failure == AudioIOFailure::ServerLost)
        alert.title = playback ? "Playback disabled." : "Recording disabled.";
    auto show = [messages = messages_, alert] {
        if (messages != nullptr)
            messages->showMessage(alert.message, alert.title, "OK", {}, nullptr);
    };
    if (mainScreen_ == nullptr) {
        show();
    } else if (startFailed) {
        // As for a refused microphone: the main screen stops the analyser with
        // its buttons refreshed, then the message appears.
        mainScreen_->stopAnalyzerWithRefreshButtonsEnable(true);
        show();
    } else {
        mainScreen_->stopAnalyzerWithoutBlockButtonsAndRunBlock(show);
    }
}

// --- Keep recording (main thread) -------------------------------------------------------

bool AudioSession::keepsRecording() const {
    const SoundLevelSettings& levels = defaults_.soundLevels();
    return defaults_.keepRecording().activeFor(levels.logEnabled() && !levels.logPath().isEmpty());
}

QString AudioSession::waitingText() const {
    if (!waiting_)
        return QString();
    if (!server_.isConnected() || lostInput_.isNull())
        return QStringLiteral("Waiting for the sound server…");
    return QStringLiteral("Waiting for %1…").arg(lostInput_.description);
}

void AudioSession::startWaiting(AudioIOFailure failure, const QString& deviceName) {
    const CaptureGaps::Cause cause = failure == AudioIOFailure::ServerLost
                                         ? CaptureGaps::Cause::SoundServer
                                         : CaptureGaps::Cause::InputDevice;
    // The device to wait for: the one that ran (or was about to).
    lostInput_ = runningInput_.isNull() ? runningConfig_.input : runningInput_;
    const int64_t lostAtMs = QDateTime::currentMSecsSinceEpoch();
    lostAtMs_.store(lostAtMs, std::memory_order_release);
    lostAtNs_.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count(),
                    std::memory_order_release);
    gapCause_.store(static_cast<int32_t>(cause), std::memory_order_release);
    lostClock_.start();
    backClock_.invalidate();
    waiting_ = true;
    qInfo("Capture lost (%s); the recording waits for its input",
          qUtf8Printable(deviceName.isEmpty() ? QStringLiteral("sound server") : deviceName));
    stopAudioUnits();
    if (AudioSessionDelegate* d = delegate())
        d->captureStopped(lostAtMs, cause);
    resumeTimer_.start();
    emit waitingChanged();
}

void AudioSession::tryResume() {
    if (!waiting_ || resumeInFlight_ || !server_.isConnected())
        return;
    const QList<AudioDevice> inputs = availableInputs();
    AudioDevice target = lostInput_.isNull() ? AudioDevice() : findDevice(inputs, lostInput_);
    const bool fallback =
        lostClock_.elapsed() >= int64_t{defaults_.keepRecording().fallbackSeconds()} * 1000;
    if (target.isNull() && (lostInput_.isNull() || fallback) && !inputs.isEmpty()) {
        target = server_.defaultInput();
        if (target.isNull())
            target = inputs.first();
    }
    if (target.isNull())
        return;
    if (!backClock_.isValid())
        backClock_.start();
    AudioStreams::Config config = runningConfig_;
    config.input = target;
    config.inputVolume = inputGain_;
    if (config.enableOutput)
        config.output = server_.defaultOutput();
    resumeInFlight_ = true;
    gapPending_.store(true, std::memory_order_release);
    AudioStreams* unit = unit_;
    audioCalls_->post([this, unit, config] {
        const AudioStreams::Result result = unit->start(config);
        mainCalls_.post([this, config, result] {
            resumeInFlight_ = false;
            if (!waiting_)
                return; // stopped meanwhile; the stop closed the streams after this start
            if (!result.ok())
                return; // tried again on the next change or tick
            runningInput_ = config.input;
            runningConfig_ = config;
            ++resumeCount_;
            lastResumeDelayMs_ = backClock_.elapsed();
            qInfo("Capture resumed on %s after %lld ms, %lld ms after the input was back",
                  qUtf8Printable(config.input.description),
                  static_cast<long long>(lostClock_.elapsed()),
                  static_cast<long long>(lastResumeDelayMs_));
            waiting_ = false;
            resumeTimer_.stop();
            emit waitingChanged();
        });
    });
}

void AudioSession::endWaiting() {
    gapPending_.store(false, std::memory_order_release);
    if (!waiting_)
        return;
    waiting_ = false;
    resumeTimer_.stop();
    emit waitingChanged();
}

AudioSession::Alert AudioSession::alertForFailure(AudioIOFailure failure, const QString& deviceName,
                                                  int sampleRate, bool playback) {
    const QString stopped = playback ? "Playback stopped." : "Recording stopped.";
    switch (failure) {
    case AudioIOFailure::NoInputDevice:
        return {"Recording disabled.",
                "No audio input was found. Connect a microphone or another input device, then "
                "start recording again."};
    case AudioIOFailure::InputOpenFailed:
        return {"Recording disabled.",
                QString("The audio input \"%1\" could not be opened at %2 Hz. Choose another "
                        "input or another sample rate in the settings, then start recording "
                        "again.")
                    .arg(deviceName)
                    .arg(sampleRate)};
    case AudioIOFailure::NoOutputDevice:
        return {"Playback disabled.", "No audio output was found. Connect headphones or "
                                      "speakers, then start playback again."};
    case AudioIOFailure::OutputOpenFailed:
        return {"Playback disabled.",
                QString("The audio output \"%1\" could not be opened at %2 Hz. Choose another "
                        "output in the system's sound settings, then start playback again.")
                    .arg(deviceName)
                    .arg(sampleRate)};
    case AudioIOFailure::InputDeviceLost:
        return {stopped, QString("The audio input \"%1\" was disconnected. Connect it again or "
                                 "choose another input in the settings, then start recording "
                                 "again.")
                             .arg(deviceName)};
    case AudioIOFailure::OutputDeviceLost:
        return {stopped, QString("The audio output \"%1\" stopped working. Check headphones or "
                                 "speakers, then start playback again.")
                             .arg(deviceName)};
    case AudioIOFailure::ServerLost:
        return {stopped, "The connection to the sound server was lost. Make sure the sound "
                         "server (PulseAudio or PipeWire) is running, then start again."};
    case AudioIOFailure::None:
        break;
    }
    return {};
}

} // namespace widmo
