#include "ui/MessageDialogs.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QWidget>

#include <algorithm>
#include <memory>
#include <vector>

namespace widmo {

namespace {

// Holders of the messages on screen; they keep the callbacks alive until a
// button is pressed. Main thread only.
std::vector<std::unique_ptr<MessageDialogs>>& pendingHolders() {
    static std::vector<std::unique_ptr<MessageDialogs>> holders;
    return holders;
}

QPointer<QWidget>& mainScreenWidget() {
    static QPointer<QWidget> widget;
    return widget;
}

// Closes the dialogs and popups that the main screen shows, so that a new
// message is never stacked behind a panel.
void dismissPresented(QWidget* mainScreen) {
    if (QWidget* popup = QApplication::activePopupWidget())
        popup->close();
    const auto windows = QApplication::topLevelWidgets();
    for (QWidget* w : windows) {
        if (w == mainScreen || !w->isVisible())
            continue;
        for (QWidget* p = w->parentWidget(); p; p = p->parentWidget()) {
            if (p == mainScreen) {
                w->close();
                break;
            }
        }
    }
}

} // namespace

MessageDialogs::MessageDialogs(CallBack callBack) : alertCallback_(std::move(callBack)) {}

void MessageDialogs::showMessage(const QString& message, QWidget* inController,
                                 const QString& withTitle, bool actionSheet,
                                 const QString& cancelButton, const QStringList& buttons,
                                 CallBack withCallBack) {
    QPointer<QWidget> controller(inController);
    const bool hadController = inController != nullptr;
    auto run = [=, cb = std::move(withCallBack)]() mutable {
        auto holder = std::unique_ptr<MessageDialogs>(new MessageDialogs(std::move(cb)));
        MessageDialogs* raw = holder.get();
        pendingHolders().push_back(std::move(holder));
        // A presenting widget that has gone away falls back to the main screen.
        present(raw, message, hadController ? controller.data() : nullptr, withTitle, actionSheet,
                cancelButton, buttons);
    };
    QMetaObject::invokeMethod(qApp, std::move(run), Qt::QueuedConnection);
}

void MessageDialogs::showMessage(const QString& message, QWidget* inController,
                                 const QString& withTitle, const QString& cancelButton,
                                 const QStringList& buttons, CallBack withCallBack) {
    showMessage(message, inController, withTitle, false, cancelButton, buttons,
                std::move(withCallBack));
}

void MessageDialogs::showMessage(const QString& message, const QString& withTitle,
                                 const QString& cancelButton, const QStringList& buttons,
                                 CallBack withCallBack) {
    showMessage(message, nullptr, withTitle, false, cancelButton, buttons, std::move(withCallBack));
}

void MessageDialogs::showActionSheetWithTitle(const QString& title, QWidget* inController,
                                              const QString& cancelButton,
                                              const QStringList& actionButtons,
                                              CallBack withCallBack) {
    showMessage(QString(), inController, title, true, cancelButton, actionButtons,
                std::move(withCallBack));
}

void MessageDialogs::showMessage(const QString& message, const QString& button) {
    showMessage(message, nullptr, QString(), false, button, {}, CallBack());
}

void MessageDialogs::setMainScreen(QWidget* mainScreen) { mainScreenWidget() = mainScreen; }

int MessageDialogs::pendingCount() { return static_cast<int>(pendingHolders().size()); }

void MessageDialogs::present(MessageDialogs* holder, const QString& message, QWidget* inController,
                             const QString& title, bool actionSheet, const QString& cancelButton,
                             const QStringList& buttons) {
    QWidget* parent = inController;
    if (!parent) {
        parent = mainScreenWidget().data();
        if (parent)
            dismissPresented(parent);
    }

    auto* box = new QMessageBox(parent);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowTitle(QApplication::applicationDisplayName());
    box->setIcon(QMessageBox::NoIcon);
    // The title leads in the box's main text and the message follows it; an
    // action sheet has only its title above the actions.
    if (title.isEmpty()) {
        box->setText(message);
    } else {
        box->setText(title);
        if (!actionSheet)
            box->setInformativeText(message);
    }

    std::vector<QAbstractButton*> order;
    QAbstractButton* cancel = nullptr;
    if (!cancelButton.isNull()) {
        cancel = box->addButton(cancelButton, QMessageBox::RejectRole);
        box->setEscapeButton(cancel);
    }
    for (const QString& text : buttons)
        order.push_back(box->addButton(text, QMessageBox::AcceptRole));
    if (!order.empty())
        box->setDefaultButton(qobject_cast<QPushButton*>(order.front()));

    holder->box_ = box;
    QObject::connect(box, &QMessageBox::buttonClicked, box,
                     [holder, cancel, order](QAbstractButton* b) {
                         if (b == cancel) {
                             holder->finish(0);
                             return;
                         }
                         const auto it = std::find(order.begin(), order.end(), b);
                         if (it != order.end())
                             holder->finish(static_cast<int>(it - order.begin()) + 1);
                     });
    // A message closed without a button (its panel was dismissed) drops its
    // holder without calling back.
    QObject::connect(box, &QObject::destroyed, qApp, [holder] {
        auto& holders = pendingHolders();
        holders.erase(std::remove_if(holders.begin(), holders.end(),
                                     [holder](const auto& h) { return h.get() == holder; }),
                      holders.end());
    });
    if (!actionSheet && buttons.isEmpty()) {
        // A notice with only its dismiss button (a device that went away, a
        // failed start) asks nothing: it stays beside the window without
        // taking the keyboard, so that the window's keys (Space, Ctrl+Q) work
        // while it is up.
        box->setWindowModality(Qt::NonModal);
        box->setAttribute(Qt::WA_ShowWithoutActivating);
        // Nor later: the window system never gives it the keyboard (a window
        // manager would on a click, or a key to the newest window), so a Space
        // meant for the window can never press its button. It closes with a
        // click.
        box->setWindowFlag(Qt::WindowDoesNotAcceptFocus);
        box->show();
    } else {
        box->open();
    }
}

void MessageDialogs::finish(int buttonIndex) {
    CallBack callBack = alertCallback_;
    if (callBack)
        callBack(buttonIndex);
    // Destroying the box removes this holder.
    if (box_)
        box_->close();
}

} // namespace widmo
