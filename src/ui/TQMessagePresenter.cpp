#include "ui/TQMessagePresenter.h"

#include "ui/TQMessage.h"

namespace widmo {

void TQMessagePresenter::showMessage(const QString& message, const QString& button) {
    TQMessage::showMessage(message, button);
}

void TQMessagePresenter::showMessage(const QString& message, const QString& title,
                                     const QString& cancelButton, const QStringList& buttons,
                                     std::function<void(int)> callBack) {
    TQMessage::showMessage(message, title, cancelButton, buttons, std::move(callBack));
}

} // namespace widmo
