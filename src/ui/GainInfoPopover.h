#pragma once

#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace widmo {

/// The gain information popover of the main screen: what the bottom
/// slider sets (`text`), its value (`value`) and a recalculate button. The
/// main screen fills it in before presenting it (`Popover::presentFrom`).
///
/// Threading: main thread only.
class GainInfoPopover : public QWidget {
    Q_OBJECT
public:
    explicit GainInfoPopover(QWidget* parent = nullptr);

    bool recalculateButtonEnable() const { return recalculateButtonEnable_; }
    void setRecalculateButtonEnable(bool enable);
    bool recalculateButtonHidden() const { return recalculateButtonHidden_; }
    void setRecalculateButtonHidden(bool hidden);
    QString text() const { return text_; }
    void setText(const QString& text);
    QString value() const { return value_; }
    void setValue(const QString& value);

    QPushButton* recalculateButton() const { return recalculateButton_; }
    QLabel* textLabel() const { return textLabel_; }
    QLabel* valueLabel() const { return valueLabel_; }

    /// The size the popover asks for.
    QSize preferredContentSize() const;
    /// Shows the popover under (or over) `anchor`.
    void presentFrom(QWidget* anchor);
    /// Closes without any action.
    void dismiss();

signals:
    /// The recalculate button was pressed; the popover has closed.
    void recalculateRequested();
    /// The popover closed without an action (Escape, a click outside it).
    void closedWithNoAction();

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void refresh();

    bool recalculateButtonEnable_ = true;
    bool recalculateButtonHidden_ = false;
    QPushButton* recalculateButton_;
    QLabel* textLabel_;
    QLabel* valueLabel_;
    QString text_;
    QString value_;
    bool actionTaken_ = false;
};

} // namespace widmo
