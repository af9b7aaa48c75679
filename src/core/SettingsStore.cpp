#include "core/SettingsStore.h"

#include "core/SharedStateAccess.h"

#include <QCoreApplication>
#include <QVariant>

namespace widmo {

namespace {

QString storeName(const QString& name) {
    if (!name.isEmpty())
        return name;
    const QString app = QCoreApplication::applicationName();
    return app.isEmpty() ? QStringLiteral("widmo") : app;
}

// The INI backend hands every scalar back as text; a native number may still
// arrive when the value was written in this process and not yet re-read.
bool parseNumber(const QVariant& v, double& out) {
    switch (v.typeId()) {
    case QMetaType::Bool:
        out = v.toBool() ? 1.0 : 0.0;
        return true;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
        out = v.toDouble();
        return true;
    case QMetaType::QString: {
        const QString s = v.toString().trimmed();
        if (s.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0) {
            out = 1.0;
            return true;
        }
        if (s.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0) {
            out = 0.0;
            return true;
        }
        bool ok = false;
        out = s.toDouble(&ok);
        return ok;
    }
    default:
        return false;
    }
}

} // namespace

SettingsStore::SettingsStore(const QString& name)
    : settings_(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Widmo"),
                storeName(name)) {}

bool SettingsStore::contains(const QString& key) const { return settings_.contains(key); }

int SettingsStore::readInt(const QString& key) const {
    double d = 0.0;
    if (!parseNumber(settings_.value(key), d) || !(d > -2147483649.0 && d < 2147483648.0))
        return 0;
    return static_cast<int>(d);
}

float SettingsStore::readFloat(const QString& key) const {
    double d = 0.0;
    if (!parseNumber(settings_.value(key), d))
        return 0.0f;
    return static_cast<float>(d);
}

bool SettingsStore::readBool(const QString& key) const {
    double d = 0.0;
    return parseNumber(settings_.value(key), d) && d != 0.0;
}

std::optional<double> SettingsStore::readNumber(const QString& key) const {
    double d = 0.0;
    if (!parseNumber(settings_.value(key), d))
        return std::nullopt;
    return d;
}

QString SettingsStore::readString(const QString& key) const {
    const QVariant v = settings_.value(key);
    return v.typeId() == QMetaType::QString ? v.toString() : QString();
}

void SettingsStore::writeInt(const QString& key, int value) {
    if (SharedStateAccess::writable())
        settings_.setValue(key, value);
}

void SettingsStore::writeFloat(const QString& key, float value) {
    // Stored as the double of the float: the shortest text of that double reads
    // back to the very same float.
    if (SharedStateAccess::writable())
        settings_.setValue(key, static_cast<double>(value));
}

void SettingsStore::writeBool(const QString& key, bool value) {
    if (SharedStateAccess::writable())
        settings_.setValue(key, value);
}

void SettingsStore::writeString(const QString& key, const QString& value) {
    if (SharedStateAccess::writable())
        settings_.setValue(key, value);
}

void SettingsStore::remove(const QString& key) {
    if (SharedStateAccess::writable())
        settings_.remove(key);
}

bool SettingsStore::sync() {
    if (!SharedStateAccess::writable())
        return false;
    settings_.sync();
    return settings_.status() != QSettings::AccessError;
}

QString SettingsStore::fileName() const { return settings_.fileName(); }

} // namespace widmo
