#include "ui/GainInfoPopover.h"

#include "render/DeviceClass.h"
#include "ui/Popover.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace widmo {

namespace {
constexpr int kWidth = 320;
} // namespace

GainInfoPopover::GainInfoPopover(QWidget* parent)
    : QWidget(parent), recalculateButton_(new QPushButton("Recalculate")), textLabel_(new QLabel),
      valueLabel_(new QLabel) {
    Popover::makePopup(this);
    setAutoFillBackground(true);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 12, 16, 12);
    textLabel_->setWordWrap(true);
    textLabel_->setAlignment(Qt::AlignCenter);
    valueLabel_->setAlignment(Qt::AlignCenter);
    valueLabel_->setFont(DeviceClass::systemFont(24.0, true));
    layout->addWidget(textLabel_);
    layout->addWidget(valueLabel_);
    layout->addWidget(recalculateButton_, 0, Qt::AlignHCenter);
    connect(recalculateButton_, &QPushButton::clicked, this, [this] {
        actionTaken_ = true;
        hide();
        emit recalculateRequested();
    });
}

void GainInfoPopover::setRecalculateButtonEnable(bool enable) {
    recalculateButtonEnable_ = enable;
    refresh();
}

void GainInfoPopover::setRecalculateButtonHidden(bool hidden) {
    recalculateButtonHidden_ = hidden;
    refresh();
}

void GainInfoPopover::setText(const QString& text) {
    text_ = text;
    refresh();
}

void GainInfoPopover::setValue(const QString& value) {
    value_ = value;
    refresh();
}

void GainInfoPopover::refresh() {
    textLabel_->setText(text_);
    valueLabel_->setText(value_);
    recalculateButton_->setEnabled(recalculateButtonEnable_);
    recalculateButton_->setHidden(recalculateButtonHidden_);
}

QSize GainInfoPopover::preferredContentSize() const {
    return QSize(kWidth, layout()->heightForWidth(kWidth) > 0 ? layout()->heightForWidth(kWidth)
                                                              : sizeHint().height());
}

void GainInfoPopover::presentFrom(QWidget* anchor) {
    refresh();
    actionTaken_ = false;
    Popover::presentFrom(this, anchor, preferredContentSize());
}

void GainInfoPopover::dismiss() { hide(); }

void GainInfoPopover::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (!actionTaken_) {
        actionTaken_ = true;
        emit closedWithNoAction();
    }
}

} // namespace widmo
