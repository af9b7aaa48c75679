#include "ui/ScreenSaverInhibitor.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>

namespace widmo {
namespace {

constexpr const char* kService = "org.freedesktop.ScreenSaver";
constexpr const char* kPath = "/org/freedesktop/ScreenSaver";

} // namespace

ScreenSaverInhibitor::ScreenSaverInhibitor(QString applicationName)
    : applicationName_(std::move(applicationName)) {}

ScreenSaverInhibitor::~ScreenSaverInhibitor() { setInhibited(false); }

void ScreenSaverInhibitor::setInhibited(bool inhibited) {
    if (inhibited == isInhibited())
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusInterface screenSaver(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                               QString::fromLatin1(kService), bus);
    if (!screenSaver.isValid())
        return;
    if (inhibited) {
        const QDBusReply<uint32_t> reply = screenSaver.call(
            QStringLiteral("Inhibit"), applicationName_, QStringLiteral("Analysing live audio"));
        if (reply.isValid())
            cookie_ = reply.value();
    } else {
        screenSaver.call(QStringLiteral("UnInhibit"), cookie_);
        cookie_ = 0;
    }
}

} // namespace widmo
