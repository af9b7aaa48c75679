#pragma once

#include "engine/MessageInterface.h"

namespace widmo {

/// The engine's and the audio library's way to `MessageDialogs`: every call is
/// passed on unchanged, so their messages look and behave like the rest.
///
/// Threading: any thread, as `MessageDialogs`.
class MessagePresenter final : public MessageInterface {
public:
    void showMessage(const QString& message, const QString& button) override;
    void showMessage(const QString& message, const QString& title, const QString& cancelButton,
                     const QStringList& buttons, std::function<void(int)> callBack) override;
};

} // namespace widmo
