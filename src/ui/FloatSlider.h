#pragma once

#include <QSlider>

namespace widmo {

/// A horizontal slider over a float range, in `steps` equal steps.
///
/// Setting the value from code does not emit `floatValueChanged`; only the
/// user's dragging, clicking or keys do.
///
/// Threading: main thread only.
class FloatSlider : public QSlider {
    Q_OBJECT
public:
    /// `minimum` < `maximum`; `steps` >= 1.
    FloatSlider(float minimum, float maximum, int steps, QWidget* parent = nullptr);

    float minimumValue() const { return minimum_; }
    float maximumValue() const { return maximum_; }
    /// The position's value; a multiple of the step from `minimumValue`.
    float floatValue() const;
    /// Moves to the step nearest `value`, clamped to the range.
    void setFloatValue(float value);

signals:
    void floatValueChanged(float value);

private:
    float minimum_;
    float maximum_;
};

} // namespace widmo
