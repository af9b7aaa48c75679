#pragma once

#include "core/CaptureGaps.h"

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

class QSettings;

namespace widmo {

class AnalyzerDefaults;

/// The last session: the document's sample store in the file
/// "analyzer.last.dat" (raw native-endian 32-bit floats in ring order, no
/// header, exactly `audioBufferByteSize` bytes) and the keys that say what it
/// holds, in the main screen's restoration store.
///
/// Keys: "analyzerDefaults.actualInterval" (intervals in the document),
/// "analyzerDefaults.readOnly", "analyzerDefaults.timeOfDocument", and the
/// geometry the file was written with ("lastSession.sampleRate",
/// "lastSession.fftSize", "lastSession.intervalSizeInFrames",
/// "lastSession.audioBufferByteSize"), so that a file from other settings is
/// never taken for this document. "lastSession.gaps" lists where capture
/// stopped and resumed (`CaptureGaps::encode`; absent or empty: no gap).
///
/// Every write goes to a temporary file in the same folder that is then renamed
/// over the old one: a crash or a kill during a write leaves the previous file
/// whole.
///
/// Threading: no state; every function may run on any thread, one caller per
/// file at a time.
class LastSessionFile {
public:
    static constexpr const char* kFileName = "analyzer.last.dat";
    static constexpr const char* kActualIntervalKey = "analyzerDefaults.actualInterval";
    static constexpr const char* kReadOnlyKey = "analyzerDefaults.readOnly";
    static constexpr const char* kTimeOfDocumentKey = "analyzerDefaults.timeOfDocument";
    static constexpr const char* kSampleRateKey = "lastSession.sampleRate";
    static constexpr const char* kFftSizeKey = "lastSession.fftSize";
    static constexpr const char* kIntervalSizeKey = "lastSession.intervalSizeInFrames";
    static constexpr const char* kByteSizeKey = "lastSession.audioBufferByteSize";
    static constexpr const char* kGapsKey = "lastSession.gaps";

    /// What the file holds.
    struct Session {
        int64_t actualInterval = 0; ///< intervals in the document
        bool readOnly = false;
        float timeOfDocument = 0.0f; ///< seconds
        float sampleRate = 0.0f;     ///< Hz
        int32_t fftSize = 0;
        int32_t intervalSizeInFrames = 0;
        int64_t byteSize = 0;               ///< the file's length
        std::vector<CaptureGaps::Gap> gaps; ///< where capture stopped, in document frames

        /// The current document of `defaults` with `intervals` intervals.
        static Session of(const AnalyzerDefaults& defaults, int64_t intervals);
        /// The file was written with the geometry `defaults` has now.
        bool matches(const AnalyzerDefaults& defaults) const;
    };

    /// "analyzer.last.dat" in the application's data folder (created if missing).
    static QString defaultPath();

    /// Writes `count` samples to `path` through a temporary file renamed over
    /// it. False, with an "error %d from %s" log and the reason in `error`
    /// (when given), when anything fails; the old file is then untouched.
    static bool write(const QString& path, const float* samples, int64_t count,
                      QString* error = nullptr);

    enum class ReadResult {
        Ok,
        Missing,    ///< no file
        Unreadable, ///< cannot be opened or read whole
        WrongSize,  ///< its length is not `expectedBytes`
    };
    /// Reads the whole file into `out` when it is exactly `expectedBytes` long
    /// (checked before anything is allocated); otherwise `out` is left as it is.
    static ReadResult read(const QString& path, int64_t expectedBytes, std::vector<float>& out);

    /// Stores the keys of `session` and the version tag in `coder` (not synced).
    static void encode(QSettings& coder, const Session& session);
    /// The session the keys describe; none when a key is missing, of the
    /// wrong kind or out of range.
    static std::optional<Session> decode(const QSettings& coder);

    /// Restores the last session into `defaults`: when `coder` describes a
    /// session with the current geometry and at least one interval, and the
    /// file at `path` has exactly its length, the store becomes the file's
    /// samples and actualInterval, readOnly, timeOfDocument and the capture gaps take the keys'
    /// values. Otherwise `defaults` is untouched. The file is deleted in every
    /// case: it serves once. True when restored. Main thread, engine stopped.
    static bool restore(const QSettings& coder, const QString& path, AnalyzerDefaults& defaults);
};

} // namespace widmo
