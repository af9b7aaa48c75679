#pragma once

#include "ui/SettingsDelegate.h"

#include <QSize>

namespace widmo::test {

/// Counts what the settings screens ask of the main screen.
class RecordingSettingsDelegate : public SettingsDelegate {
public:
    void settingsWillClose() override { ++willClose; }
    void settingsNeedStopAnalyzer() override { ++stopAnalyzer; }
    void refreshAllViews() override { ++refreshAll; }
    void generateOctaveRTAIndexes() override { ++octaveIndexes; }
    void refreshSecondChartMeasuringView() override { ++measuringView; }
    void setSettingsPopOverContentSize(QSize size) override { contentSize = size; }

    int willClose = 0;
    int stopAnalyzer = 0;
    int refreshAll = 0;
    int octaveIndexes = 0;
    int measuringView = 0;
    QSize contentSize;
};

} // namespace widmo::test
