#include "ui/iPad_GainInfoViewController.h"

#include "render/DeviceClass.h"
#include "ui/TQPopover.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace widmo {

namespace {
constexpr int kWidth = 320;
} // namespace

iPad_GainInfoViewController::iPad_GainInfoViewController(QWidget* parent)
    : QWidget(parent), recalculateButton_(new QPushButton("Recalculate")), textLabel_(new QLabel),
      valueLabel_(new QLabel) {
    TQPopover::makePopup(this);
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

void iPad_GainInfoViewController::setRecalculateButtonEnable(bool enable) {
    recalculateButtonEnable_ = enable;
    refresh();
}

void iPad_GainInfoViewController::setRecalculateButtonHidden(bool hidden) {
    recalculateButtonHidden_ = hidden;
    refresh();
}

void iPad_GainInfoViewController::setText(const QString& text) {
    text_ = text;
    refresh();
}

void iPad_GainInfoViewController::setValue(const QString& value) {
    value_ = value;
    refresh();
}

void iPad_GainInfoViewController::refresh() {
    textLabel_->setText(text_);
    valueLabel_->setText(value_);
    recalculateButton_->setEnabled(recalculateButtonEnable_);
    recalculateButton_->setHidden(recalculateButtonHidden_);
}

QSize iPad_GainInfoViewController::preferredContentSize() const {
    return QSize(kWidth, layout()->heightForWidth(kWidth) > 0 ? layout()->heightForWidth(kWidth)
                                                              : sizeHint().height());
}

void iPad_GainInfoViewController::presentFrom(QWidget* anchor) {
    refresh();
    actionTaken_ = false;
    TQPopover::presentFrom(this, anchor, preferredContentSize());
}

void iPad_GainInfoViewController::closeViewController() { hide(); }

void iPad_GainInfoViewController::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (!actionTaken_) {
        actionTaken_ = true;
        emit closedWithNoAction();
    }
}

} // namespace widmo
