#pragma once

#include <QSettings>
#include <QString>

#include <optional>

namespace widmo {

/// The per-user key/value store: one `QSettings` file at the platform's standard
/// place, with readers that never fail.
///
/// Values read back from the store may be of another kind than asked for (the
/// file was edited by hand, or written by another build). The typed readers turn
/// such a value into 0, false or 0.0 instead of guessing.
///
/// While the shared state is read-only (`SharedStateAccess`), writes are
/// ignored and `sync` answers false: the values read stay those on disk.
///
/// Threading: main thread only.
class SettingsStore {
public:
    /// Opens the store named `name` (the file's base name) of the organisation
    /// "Widmo". An empty name means the running application's name, or "widmo"
    /// when the application has none.
    explicit SettingsStore(const QString& name = QString());

    bool contains(const QString& key) const;

    int readInt(const QString& key) const;
    float readFloat(const QString& key) const;
    bool readBool(const QString& key) const;
    /// The value as a number ("true" and "false" are 1 and 0; "inf" and "nan"
    /// are numbers too); empty when absent or not a number.
    std::optional<double> readNumber(const QString& key) const;
    /// An absent key reads as the empty string.
    QString readString(const QString& key) const;

    void writeInt(const QString& key, int value);
    void writeFloat(const QString& key, float value);
    void writeBool(const QString& key, bool value);
    void writeString(const QString& key, const QString& value);
    void remove(const QString& key);

    /// Writes pending changes to disk; false when the file could not be written.
    bool sync();

    /// Path of the backing file.
    QString fileName() const;

private:
    QSettings settings_;
};

} // namespace widmo
