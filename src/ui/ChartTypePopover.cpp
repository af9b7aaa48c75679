#include "ui/ChartTypePopover.h"

#include "core/AnalyzerFeatures.h"
#include "ui/Popover.h"

#include <QPushButton>

namespace widmo {

namespace {
const char* const kChartNames[] = {"Spectrum", "Oscilloscope", "Octave RTA"};
constexpr int kChartCount = 3;
const QString kCheckmark = QStringLiteral("  \u2713");
} // namespace

ChartTypePopover::ChartTypePopover(const AnalyzerFeatures& features, QWidget* parent)
    : SectionedPage(parent) {
    Popover::makePopup(this);
    setTitle("Type of the Second Chart");
    const int section = addSection("Type of the Second Chart");
    const bool offered[kChartCount] = {features.featureSpectrumEnabled(),
                                       features.featureOscilloscopeEnabled(),
                                       features.featureOctaveRTAEnabled()};
    for (int r = 0; r < kChartCount; ++r) {
        auto* button = new QPushButton;
        button->setFlat(true);
        button->setStyleSheet("text-align: left; padding: 8px 0px;");
        addRow(section, button);
        setRowHidden(section, r, !offered[r]);
        connect(button, &QPushButton::clicked, this, [this, r] { didSelectRow(r); });
    }
    setScrollEnabled(false);
    reloadCheckmarks();
}

void ChartTypePopover::setTypeOfChart(int32_t type) {
    typeOfChart_ = type;
    reloadCheckmarks();
}

void ChartTypePopover::didSelectRow(int row) {
    if (row < 0 || row >= kChartCount)
        return;
    setTypeOfChart(row);
    emit typeOfChartSelected(row);
}

bool ChartTypePopover::hasCheckmark(int row) const {
    auto* button = qobject_cast<QPushButton*>(cellForRow(0, row));
    return button != nullptr && button->text().endsWith(kCheckmark);
}

int ChartTypePopover::heightForHeaderInSection(int section) const {
    return isHiddenSection(section) ? 0 : kHeaderHeight;
}

QSize ChartTypePopover::preferredContentSize() const { return QSize(kWidth, contentHeight()); }

void ChartTypePopover::presentFrom(QWidget* anchor) {
    reloadData();
    Popover::presentFrom(this, anchor, preferredContentSize());
}

void ChartTypePopover::reloadCheckmarks() {
    for (int r = 0; r < kChartCount; ++r) {
        auto* button = qobject_cast<QPushButton*>(cellForRow(0, r));
        button->setText(QString(kChartNames[r]) + (r == typeOfChart_ ? kCheckmark : QString()));
    }
}

} // namespace widmo
