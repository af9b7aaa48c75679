#include "ui/MessageDialogs.h"

#include "UiTestSupport.h"

#include <QDialog>
#include <QPushButton>
#include <QShortcut>

#include <memory>

namespace widmo {
namespace {

using test::buttonOf;
using test::openBoxes;

// Runs the event loop until `condition` holds or `ms` pass; the assertions
// that follow say what was expected.
template <typename F> void waitUntil(F condition, int ms) {
    static_cast<void>(QTest::qWaitFor(condition, ms));
}

QMessageBox* waitForBox() { return test::waitMessage(5000); }

class MessageDialogsTest : public ::testing::Test {
protected:
    void SetUp() override {
        mainScreen = std::make_unique<QWidget>();
        mainScreen->resize(400, 300);
        mainScreen->show();
        MessageDialogs::setMainScreen(mainScreen.get());
    }
    void TearDown() override {
        for (QMessageBox* box : openBoxes())
            box->close();
        QTest::qWait(50);
        MessageDialogs::setMainScreen(nullptr);
    }
    std::unique_ptr<QWidget> mainScreen;
};

TEST_F(MessageDialogsTest, callbackGetsZeroForCancelAndPositionPlusOneForButtons) {
    const QStringList buttons{"Export", "Import", "Delete"};
    for (int pressed = 0; pressed <= 3; ++pressed) {
        int received = -1;
        int calls = 0;
        MessageDialogs::showMessage("Choose", "Title", "Cancel", buttons, [&](int i) {
            received = i;
            ++calls;
        });
        EXPECT_TRUE(openBoxes().isEmpty()) << "presented later on the event loop, never inline";
        QMessageBox* box = waitForBox();
        ASSERT_NE(nullptr, box);
        EXPECT_EQ(1, MessageDialogs::pendingCount());
        const QString text = pressed == 0 ? QString("Cancel") : buttons[pressed - 1];
        QAbstractButton* b = buttonOf(box, text);
        ASSERT_NE(nullptr, b);
        b->click();
        waitUntil([] { return MessageDialogs::pendingCount() == 0; }, 2000);
        EXPECT_EQ(pressed, received);
        EXPECT_EQ(1, calls);
        EXPECT_EQ(0, MessageDialogs::pendingCount());
    }
}

TEST_F(MessageDialogsTest, presentingFromTheMainScreenDismissesItsOpenPanelFirst) {
    auto* panel = new QDialog(mainScreen.get());
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->show();
    QPointer<QDialog> watch(panel);
    int pressedFirst = -1;
    MessageDialogs::showMessage("First", QString(), "OK", {}, [&](int i) { pressedFirst = i; });
    QMessageBox* first = waitForBox();
    ASSERT_NE(nullptr, first);
    waitUntil([&] { return watch.isNull(); }, 2000);
    EXPECT_TRUE(watch.isNull()) << "the open panel was closed before the message";

    // A second message replaces the first; the first never calls back.
    MessageDialogs::showMessage("Second", "");
    waitUntil([&] { return openBoxes().size() == 1 && openBoxes().first() != first; }, 2000);
    ASSERT_EQ(1, openBoxes().size());
    QMessageBox* second = openBoxes().first();
    EXPECT_EQ("Second", second->text());
    ASSERT_EQ(1, second->buttons().size()) << "a plain message has one button";
    EXPECT_EQ(-1, pressedFirst);
    second->buttons().first()->click();
    waitUntil([] { return MessageDialogs::pendingCount() == 0; }, 2000);
    EXPECT_EQ(0, MessageDialogs::pendingCount());
}

TEST_F(MessageDialogsTest, plainAlertLeavesTheKeyboardToTheWindow_aChoiceStaysModal) {
    int spaces = 0;
    auto* space = new QShortcut(QKeySequence(Qt::Key_Space), mainScreen.get());
    QObject::connect(space, &QShortcut::activated, [&] { ++spaces; });
    QApplication::setActiveWindow(mainScreen.get()); // no window manager to do it

    // A device-lost alert, as it appears while recording: Space still reaches
    // the window (through the window system's path, where modality applies).
    MessageDialogs::showMessage("The connection to the sound server was lost.",
                                "Recording stopped.", "OK", {}, nullptr);
    QMessageBox* alert = waitForBox();
    ASSERT_NE(nullptr, alert);
    QTest::keyClick(mainScreen->windowHandle(), Qt::Key_Space);
    EXPECT_EQ(1, spaces);
    EXPECT_TRUE(alert->isVisible());
    alert->buttons().first()->click();
    waitUntil([] { return MessageDialogs::pendingCount() == 0; }, 2000);

    // A question waits for its answer.
    MessageDialogs::showMessage("Delete?", "Title", "Cancel", {"Delete"}, [](int) {});
    QMessageBox* question = waitForBox();
    ASSERT_NE(nullptr, question);
    QTest::keyClick(mainScreen->windowHandle(), Qt::Key_Space);
    EXPECT_EQ(1, spaces);
}

TEST_F(MessageDialogsTest, messageOverAGivenWidgetLeavesOtherPanelsOpen) {
    QDialog panel(mainScreen.get());
    panel.show();
    int received = -1;
    MessageDialogs::showActionSheetWithTitle("Share", &panel, "Cancel", {"Send a copy"},
                                             [&](int i) { received = i; });
    QMessageBox* box = waitForBox();
    ASSERT_NE(nullptr, box);
    EXPECT_EQ(&panel, box->parentWidget());
    EXPECT_TRUE(panel.isVisible());
    buttonOf(box, "Send a copy")->click();
    waitUntil([&] { return received != -1; }, 2000);
    EXPECT_EQ(1, received);
}

} // namespace
} // namespace widmo
