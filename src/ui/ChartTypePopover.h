#pragma once

#include "ui/SectionedPage.h"

#include <cstdint>

namespace widmo {

class AnalyzerFeatures;

/// The chart type popover of the main screen on a large screen: one row per second
/// chart (0 spectrum, 1 oscilloscope, 2 octave RTA; rows of charts the product
/// lacks are hidden), a check mark on the chosen one. Choosing a row moves the
/// check mark at once and emits `typeOfChartSelected`; what that changes, and
/// whether the popover then closes, is the main screen's decision.
///
/// Threading: main thread only.
class ChartTypePopover : public SectionedPage {
    Q_OBJECT
public:
    static constexpr int kHeaderHeight = 39;
    static constexpr int kWidth = 280;

    explicit ChartTypePopover(const AnalyzerFeatures& features, QWidget* parent = nullptr);

    int32_t typeOfChart() const { return typeOfChart_; }
    /// Moves the check mark to `type` (no signal).
    void setTypeOfChart(int32_t type);
    /// The user's choice of a row: as `setTypeOfChart`, then the signal.
    void didSelectRow(int row);
    /// Whether the row shows the check mark.
    bool hasCheckmark(int row) const;

    int heightForHeaderInSection(int section) const override;
    QSize preferredContentSize() const override;
    /// Shows the popover under (or over) `anchor`.
    void presentFrom(QWidget* anchor);

signals:
    void typeOfChartSelected(int32_t typeOfChart);

private:
    void reloadCheckmarks();

    int32_t typeOfChart_ = 0;
};

} // namespace widmo
