#pragma once

#include <QString>

#include <cstdint>
#include <cstdio>

namespace widmo {

struct PeriodLevels;

/// The level log of a recording: a CSV file with one line per period (its
/// wall-clock time, its start in seconds since the recording began, Leq,
/// the Fast and Slow maxima and the C-weighted peak). Each line is flushed
/// as it is written, so a killed program loses at most the period under
/// way. A file that exists already is appended to. Events of the capture
/// (it stopped because the input went away, it resumed) are lines of their
/// own: the time and start, empty levels, and the event's text last.
///
/// A failed write (a full disk, a removed folder) ends the log: `failed`
/// says so and nothing more is written; the recording is not affected.
///
/// Threading: one thread at a time (opened on the main thread while the
/// engine is stopped, written on the analysis thread, closed on the main
/// thread after the analysis has stopped).
class LevelLog {
public:
    LevelLog() = default;
    ~LevelLog();
    LevelLog(const LevelLog&) = delete;
    LevelLog& operator=(const LevelLog&) = delete;

    /// Opens `path` for appending and writes the header when the file is
    /// empty. `weighting` is the letter of the levels' weighting ("A", "C",
    /// "Z"), `unit` their unit ("dBFS", "dB SPL", "dBA", "dBC"), `peakUnit`
    /// that of the C-weighted peak. False, with `error` set, when the file
    /// cannot be opened.
    bool open(const QString& path, const QString& weighting, const QString& unit,
              const QString& peakUnit, QString* error);
    /// One period starting `startSeconds` after the recording began, its
    /// levels raised by `offset` dB. False once a write has failed.
    bool write(double startSeconds, const PeriodLevels& levels, double offset);
    /// An event line at wall-clock time `atMs` (ms since the epoch), at
    /// `startSeconds` after the recording began; `text` holds no comma. False
    /// once a write has failed.
    bool writeEvent(int64_t atMs, double startSeconds, const QString& text);
    void close();

    bool isOpen() const { return file_ != nullptr; }
    bool failed() const { return failed_; }
    const QString& path() const { return path_; }

private:
    bool writeLine(const QByteArray& line);

    std::FILE* file_ = nullptr;
    QString path_;
    bool failed_ = false;
};

} // namespace widmo
