#pragma once

#include <QFile>
#include <QString>

#include <atomic>

namespace widmo {

/// An output file written under a hidden temporary name beside its final
/// one (".NAME.PID-N.part") and renamed when complete, so that no partial
/// file ever carries the final name. Not synced to disk: on a run over
/// thousands of files each sync costs more than the analysis, and a file
/// lost in a crash is made again by the next run. Dropped without `commit`,
/// the temporary file is removed.
///
/// Threading: one thread at a time.
class OutputFile {
public:
    explicit OutputFile(const QString& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Opens the temporary file; false with `error`.
    bool open();
    /// The temporary file, open for writing (and seeking).
    QFile& file() { return file_; }
    bool write(const QByteArray& bytes);
    /// Closes and renames to the final name; false with `error` (the
    /// temporary file is then removed).
    bool commit();
    /// Why opening, writing or committing failed; empty when nothing did.
    QString error() const;
    const QString& path() const { return path_; }

    /// Writes `bytes` to `path` through a temporary file: empty, or why not.
    static QString writeWhole(const QString& path, const QByteArray& bytes);

private:
    /// A file that keeps the system's reason for its first failed write
    /// (Qt's own text for a short write on a full disk is "Unknown error"),
    /// on whichever thread the write ran.
    class File : public QFile {
    public:
        using QFile::QFile;
        int cause() const { return cause_.load(std::memory_order_acquire); }

    protected:
        qint64 writeData(const char* data, qint64 size) override;

    private:
        std::atomic<int> cause_{0};
    };
    /// Why writing failed: the system's reason, else Qt's text.
    QString reason() const;

    QString path_;
    File file_;
    QString error_;
    bool committed_ = false;
};

} // namespace widmo
