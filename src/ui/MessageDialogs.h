#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>

class QMessageBox;
class QWidget;

namespace widmo {

/// Every alert and action sheet of the application, with one callback
/// convention: the callback receives 0 for the cancel button and i + 1 for the
/// button at position i of the buttons list.
///
/// A message that asks something (an action sheet, or an alert with buttons
/// besides its cancel button) is window-modal: the window waits for the
/// answer. A notice (its cancel button only) is not modal and does not take
/// the keyboard, so that the window's shortcuts keep working while it shows.
///
/// A message is presented on the main thread's event loop, never inline. With a
/// presenting widget it is shown over that widget; with none, the main screen
/// (see `setMainScreen`) first closes whatever it presents (a settings panel,
/// another message) and then shows the message.
///
/// Threading: any thread may call the show functions; presentation, the
/// callbacks and the pending-holder list live on the main thread.
class MessageDialogs : public QObject {
    Q_OBJECT
public:
    using CallBack = std::function<void(int)>;

    /// The general form. A null `cancelButton` means no cancel button; a null
    /// title or message shows as empty. `withCallBack` may be empty.
    static void showMessage(const QString& message, QWidget* inController, const QString& withTitle,
                            bool actionSheet, const QString& cancelButton,
                            const QStringList& buttons, CallBack withCallBack);
    /// Alert style.
    static void showMessage(const QString& message, QWidget* inController, const QString& withTitle,
                            const QString& cancelButton, const QStringList& buttons,
                            CallBack withCallBack);
    /// Alert presented by the main screen.
    static void showMessage(const QString& message, const QString& withTitle,
                            const QString& cancelButton, const QStringList& buttons,
                            CallBack withCallBack);
    /// Action sheet with an empty message.
    static void showActionSheetWithTitle(const QString& title, QWidget* inController,
                                         const QString& cancelButton,
                                         const QStringList& actionButtons, CallBack withCallBack);
    /// An alert with an empty title and one cancel-style button; no callback.
    static void showMessage(const QString& message, const QString& button);

    /// The window that presents messages given no presenting widget.
    static void setMainScreen(QWidget* mainScreen);
    /// Messages on screen whose callback has not run yet.
    static int pendingCount();

    const CallBack& alertCallback() const { return alertCallback_; }

private:
    explicit MessageDialogs(CallBack callBack);
    static void present(MessageDialogs* holder, const QString& message, QWidget* inController,
                        const QString& title, bool actionSheet, const QString& cancelButton,
                        const QStringList& buttons);
    void finish(int buttonIndex);

    CallBack alertCallback_;
    QPointer<QMessageBox> box_;
};

} // namespace widmo
