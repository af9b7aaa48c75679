#include "ui/MessagePresenter.h"

#include "ui/MessageDialogs.h"

namespace widmo {

void MessagePresenter::showMessage(const QString& message, const QString& button) {
    MessageDialogs::showMessage(message, button);
}

void MessagePresenter::showMessage(const QString& message, const QString& title,
                                   const QString& cancelButton, const QStringList& buttons,
                                   std::function<void(int)> callBack) {
    MessageDialogs::showMessage(message, title, cancelButton, buttons, std::move(callBack));
}

} // namespace widmo
