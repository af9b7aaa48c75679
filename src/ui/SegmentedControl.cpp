#include "ui/SegmentedControl.h"

#include <QButtonGroup>
#include <QHBoxLayout>
#include <QToolButton>

namespace widmo {

SegmentedControl::SegmentedControl(const QStringList& titles, QWidget* parent)
    : QWidget(parent), layout_(new QHBoxLayout(this)), group_(new QButtonGroup(this)) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    layout_->setContentsMargins(0, 0, 0, 0);
    layout_->setSpacing(0);
    group_->setExclusive(true);
    for (const QString& title : titles) {
        auto* button = new QToolButton(this);
        button->setText(title);
        button->setCheckable(true);
        button->setToolButtonStyle(Qt::ToolButtonTextOnly);
        button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        button->setMinimumHeight(28);
        group_->addButton(button);
        layout_->addWidget(button);
    }
    connect(group_, &QButtonGroup::buttonClicked, this,
            [this](QAbstractButton* button) { emit valueChanged(layout_->indexOf(button)); });
}

int SegmentedControl::numberOfSegments() const { return layout_->count(); }

int SegmentedControl::selectedSegmentIndex() const {
    QAbstractButton* checked = group_->checkedButton();
    return checked != nullptr ? layout_->indexOf(checked) : kNoSegment;
}

void SegmentedControl::setSelectedSegmentIndex(int index) {
    QToolButton* button = buttonForSegment(index);
    if (button != nullptr) {
        button->setChecked(true);
        return;
    }
    // An exclusive group keeps one button checked; let go of it to clear.
    if (QAbstractButton* checked = group_->checkedButton()) {
        group_->setExclusive(false);
        checked->setChecked(false);
        group_->setExclusive(true);
    }
}

QString SegmentedControl::titleForSegmentAtIndex(int index) const {
    QToolButton* button = buttonForSegment(index);
    return button != nullptr ? button->text() : QString();
}

void SegmentedControl::setTitleForSegmentAtIndex(const QString& title, int index) {
    if (QToolButton* button = buttonForSegment(index))
        button->setText(title);
}

void SegmentedControl::removeSegmentAtIndex(int index) {
    QToolButton* button = buttonForSegment(index);
    if (button == nullptr)
        return;
    group_->removeButton(button);
    layout_->removeWidget(button);
    delete button;
}

QToolButton* SegmentedControl::buttonForSegment(int index) const {
    if (index < 0 || index >= layout_->count())
        return nullptr;
    return qobject_cast<QToolButton*>(layout_->itemAt(index)->widget());
}

} // namespace widmo
