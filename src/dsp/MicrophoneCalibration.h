#pragma once

#include <QString>

#include <optional>
#include <vector>

namespace widmo {

/// A measurement microphone's calibration file: its frequency response as
/// points of frequency (Hz) and level (dB), which the analyser removes from
/// what it measures, and the maker's sensitivity line if the file has one.
///
/// File format (what microphones ship with and common analysers read): one
/// point per line, `frequency dB` or `frequency dB phase`, separated by
/// spaces, tabs or one comma; lines starting with `*`, `#` or `"` are comments,
/// blank lines are skipped. A comment holding `Sens Factor` or `Sensitivity`
/// followed by `=` and a number (for example `"Sens Factor =-1.23dB, SERNO:
/// 1234567"`) is the sensitivity line: its text is kept for display and its
/// number is taken as the level in dBFS that 94 dB SPL at 1 kHz produces.
///
/// A file is refused, with a message naming the file and the first bad line
/// (number and text), when it is not text (NUL bytes or invalid UTF-8), has
/// no numeric line, a line that is neither a comment nor a point, a frequency
/// that is not above the previous one or not positive, a value that is not a
/// finite number, a level beyond ±60 dB, or more than 100,000 lines.
///
/// Threading: immutable once loaded; any thread may read it.
class MicrophoneCalibration {
public:
    struct Point {
        double frequency; ///< Hz, strictly increasing
        double levelDB;   ///< the microphone's response at `frequency`
    };

    /// Reads and checks the file at `path`. On failure returns nothing and
    /// sets `*error` to a message for the user naming the file (and the
    /// first bad line where there is one).
    static std::optional<MicrophoneCalibration> load(const QString& path, QString* error);
    /// The same from the file's bytes; `name` stands for the file in messages.
    static std::optional<MicrophoneCalibration> parse(const QByteArray& bytes, const QString& name,
                                                      QString* error);

    /// The correction in dB to add to a level measured at `frequency` Hz: the
    /// negated response, interpolated linearly in dB over log frequency between
    /// points and held at the end values outside the file's range.
    double correctionDB(double frequency) const;
    /// Power factors 10^(correctionDB/10) for `count` FFT bins spaced
    /// `binHz` apart from 0 Hz (bin 0 takes the lowest point's value).
    void fillPowerFactors(float* factors, int count, double binHz) const;

    const std::vector<Point>& points() const { return points_; }
    /// The sensitivity line as written (without its quotes); empty when none.
    const QString& sensitivityText() const { return sensitivityText_; }
    /// dBFS at 94 dB SPL from the sensitivity line; empty when none.
    std::optional<double> sensitivityDBFS() const { return sensitivityDBFS_; }

private:
    std::vector<Point> points_;
    QString sensitivityText_;
    std::optional<double> sensitivityDBFS_;
};

} // namespace widmo
