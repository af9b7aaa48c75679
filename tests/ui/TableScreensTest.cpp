#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"
#include "ui/ChartTypePopover.h"
#include "ui/GainInfoPopover.h"
#include "ui/HelpWindow.h"
#include "ui/SectionedPage.h"

#include <QApplication>
#include <QLabel>
#include <QLayout>
#include <QPushButton>
#include <QSignalSpy>

#include <gtest/gtest.h>

namespace widmo {
namespace {

// A table whose second section is hidden.
class TwoOfThree : public SectionedPage {
public:
    bool isHiddenSection(int section) const override { return section == 1; }
};

class TableScreensTest : public ::testing::Test {
protected:
    void TearDown() override { DeviceClass::setForcedIdiom(std::nullopt); }
};

TEST_F(TableScreensTest, hiddenSectionsAndRowsMeasureZero_bigLastHeaderIsNotCounted) {
    DeviceClass::setForcedIdiom(DeviceClass::Idiom::Tablet);
    TwoOfThree table;
    for (int s = 0; s < 3; ++s) {
        table.addSection(QString("Section %1").arg(s));
        table.addRow(s, new QLabel("row"));
        table.addRow(s, new QLabel("row"));
    }
    table.setRowHidden(2, 1, true);
    const int row = SectionedPage::kStandardRowHeight;
    EXPECT_EQ(table.heightForHeaderInSection(0), 40);
    EXPECT_EQ(table.heightForHeaderInSection(1), 0);
    EXPECT_EQ(table.heightForRowAtIndexPath(1, 0), 0);
    EXPECT_EQ(table.heightForRowAtIndexPath(2, 1), 0);
    EXPECT_EQ(table.heightForRowAtIndexPath(2, 0), row);
    EXPECT_EQ(table.contentHeight(), 40 + 2 * row + 40 + row);

    table.setBigLastSectionHeader(true);
    EXPECT_EQ(table.heightForHeaderInSection(2), 1000);
    EXPECT_EQ(table.contentHeight(), 40 + 2 * row);

    // The measures are what is laid out: the column is as tall as reported.
    table.setBigLastSectionHeader(false);
    table.resize(SectionedPage::kPopoverWidth, 600);
    table.show();
    QWidget* content = table.cellForRow(0, 0)->parentWidget()->parentWidget()->parentWidget();
    EXPECT_EQ(content->layout()->minimumSize().height(), table.contentHeight());

    DeviceClass::setForcedIdiom(DeviceClass::Idiom::Phone);
    EXPECT_EQ(table.heightForHeaderInSection(0), 28);
}

TEST_F(TableScreensTest, wrappedTextRowGrowsWhenTheTableNarrows) {
    SectionedPage table;
    table.addSection("Text");
    table.addTextRow(0, QString("A sentence that needs several lines. ").repeated(12));
    table.resize(SectionedPage::kPopoverWidth, 400);
    table.show();
    const int wide = table.heightForRowAtIndexPath(0, 0);
    table.resize(200, 400);
    table.show();
    QApplication::processEvents();
    EXPECT_GT(table.heightForRowAtIndexPath(0, 0), wide);
}

TEST_F(TableScreensTest, helpOfTheSpectrumProduct_showsItsEightTopicsExactly) {
    HelpWindow help(AnalyzerFeatures::spectrumProduct());
    ASSERT_EQ(help.numberOfSections(), HelpWindow::kTopicCount);
    ASSERT_EQ(help.helpHeaders().size(), HelpWindow::kTopicCount);

    QStringList shown;
    for (int s = 0; s < help.numberOfSections(); ++s)
        if (!help.isHiddenSection(s))
            shown << help.titleForHeaderInSection(s);
    shown.sort();
    EXPECT_EQ(shown, (QStringList{"Audio input", "Audio input issues", "Export and sharing",
                                  "FFT window size and type ", "Gestures", "Sound levels",
                                  "Spectrum", "Spectrum scales"}));

    // The spectrogram variant differs only by the trailing space, and is hidden.
    int withoutSpace = -1;
    for (int s = 0; s < help.numberOfSections(); ++s)
        if (help.titleForHeaderInSection(s) == "FFT window size and type")
            withoutSpace = s;
    ASSERT_GE(withoutSpace, 0);
    EXPECT_TRUE(help.isHiddenSection(withoutSpace));
    EXPECT_EQ(help.heightForHeaderInSection(withoutSpace), 0);
    EXPECT_EQ(help.heightForRowAtIndexPath(withoutSpace, 0), 0);
}

TEST_F(TableScreensTest, everyProductsHelpSetNamesRealTopics) {
    HelpWindow help(AnalyzerFeatures::studioProduct());
    ASSERT_EQ(help.titleForHeaderInSection(0), "Analysis");
    EXPECT_EQ(help.numberOfRowsInSection(0), 1); // one paragraph
    QSet<QString> titles;
    for (int s = 0; s < help.numberOfSections(); ++s)
        titles.insert(help.titleForHeaderInSection(s));
    for (const auto& features :
         {AnalyzerFeatures::spectrumProduct(), AnalyzerFeatures::studioProduct(),
          AnalyzerFeatures::voiceProduct()})
        for (const QString& t : HelpWindow::helpSetForFeatures(features))
            EXPECT_TRUE(titles.contains(t)) << t.toStdString();
    // The studio product describes the spectrogram, not the voice product's EGG.
    EXPECT_TRUE(help.helpSet().contains("Spectrogram"));
    EXPECT_FALSE(help.helpSet().contains("Closed quotient"));
}

TEST_F(TableScreensTest, chartTypePopover_checkMarkFollowsChoice_absentChartsHidden) {
    ChartTypePopover popover(AnalyzerFeatures::voiceProduct());
    QSignalSpy chosen(&popover, &ChartTypePopover::typeOfChartSelected);
    popover.setTypeOfChart(0);
    EXPECT_TRUE(popover.hasCheckmark(0));
    EXPECT_FALSE(popover.hasCheckmark(1));
    EXPECT_EQ(popover.heightForHeaderInSection(0), 39);
    EXPECT_TRUE(popover.isRowHidden(0, 2)) << "the voice product has no octave RTA";

    qobject_cast<QPushButton*>(popover.cellForRow(0, 1))->click();
    EXPECT_EQ(popover.typeOfChart(), 1);
    EXPECT_FALSE(popover.hasCheckmark(0));
    EXPECT_TRUE(popover.hasCheckmark(1));
    ASSERT_EQ(chosen.count(), 1);
    EXPECT_EQ(chosen.at(0).at(0).toInt(), 1);
}

TEST_F(TableScreensTest, gainInfoPopover_closingWithoutActionIsSignalled) {
    GainInfoPopover popover;
    QSignalSpy closed(&popover, &GainInfoPopover::closedWithNoAction);
    popover.presentFrom(nullptr);
    popover.dismiss();
    EXPECT_EQ(closed.count(), 1);
}

} // namespace
} // namespace widmo
