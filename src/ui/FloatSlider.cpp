#include "ui/FloatSlider.h"

#include <QSignalBlocker>

#include <algorithm>
#include <cmath>

namespace widmo {

FloatSlider::FloatSlider(float minimum, float maximum, int steps, QWidget* parent)
    : QSlider(Qt::Horizontal, parent), minimum_(minimum), maximum_(maximum) {
    setRange(0, std::max(steps, 1));
    setSingleStep(1);
    setPageStep(std::max(steps / 10, 1));
    connect(this, &QSlider::valueChanged, this,
            [this](int) { emit floatValueChanged(floatValue()); });
}

float FloatSlider::floatValue() const {
    return minimum_ + (maximum_ - minimum_) * float(value()) / float(maximum());
}

void FloatSlider::setFloatValue(float value) {
    const float t = (std::clamp(value, minimum_, maximum_) - minimum_) / (maximum_ - minimum_);
    const QSignalBlocker blocker(this);
    setValue(int(std::lround(t * float(maximum()))));
}

} // namespace widmo
