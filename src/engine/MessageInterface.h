#pragma once

#include <QString>
#include <QStringList>

#include <functional>

namespace widmo {

/// The alert helper (`MessageDialogs`) as the engine and the audio library reach it;
/// the user-interface library implements it.
///
/// Threading: may be called from any thread; presentation happens on the main
/// thread.
class MessageInterface {
public:
    virtual ~MessageInterface() = default;

    /// An alert with an empty title and one cancel-style button; no callback.
    virtual void showMessage(const QString& message, const QString& button) = 0;

    /// An alert presented by the main screen. The callback (may be empty) gets
    /// 0 for the cancel button and i + 1 for `buttons[i]`.
    virtual void showMessage(const QString& message, const QString& title,
                             const QString& cancelButton, const QStringList& buttons,
                             std::function<void(int)> callBack) = 0;
};

} // namespace widmo
