#include "ui/GainPanel.h"

#include "charts/ChartView.h"
#include "core/AnalyzerDefaults.h"
#include "ui/GainInfoPopover.h"
#include "ui/ToolbarImages.h"
#include "ui/ViewArrangement.h"

#include <QFrame>
#include <QLabel>
#include <QPalette>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace widmo {
namespace {

// The slider works in whole decibels, as its label shows them.
struct GainRange {
    int minimum;
    int maximum;
};
constexpr GainRange kGainRangeDB{0, 70};
constexpr GainRange kMinimumLevelRange{-144, -10};

QString decibels(float value) { return QString::asprintf("%.0fdB", double(value)); }

} // namespace

GainPanel::GainPanel(AnalyzerDefaults& defaults, ChartView& chartView,
                     const ViewArrangement& arrangement, bool withInfo,
                     std::function<bool()> canRecalculate, QWidget* window)
    : QObject(window), defaults_(defaults), chartView_(chartView), arrangement_(arrangement),
      canRecalculate_(std::move(canRecalculate)), window_(window) {
    button_ = new QToolButton(window);
    button_->setToolTip(QStringLiteral("Gain"));
    // Space belongs to start/pause, never to the button that has the focus.
    button_->setFocusPolicy(Qt::NoFocus);
    button_->setToolButtonStyle(Qt::ToolButtonIconOnly);
    connect(button_, &QToolButton::clicked, this, [this] { buttonPressed(); });

    // A popup, so a click anywhere outside closes it.
    view_ = new QFrame(window, Qt::Popup);
    view_->setFrameShape(QFrame::StyledPanel);
    auto* layout = new QVBoxLayout(view_);
    descriptionLabel_ = new QLabel(view_);
    slider_ = new QSlider(Qt::Horizontal, view_);
    slider_->setMinimumWidth(280);
    valueLabel_ = new QLabel(view_);
    valueLabel_->setAlignment(Qt::AlignCenter);
    layout->addWidget(descriptionLabel_);
    layout->addWidget(slider_);
    layout->addWidget(valueLabel_);
    if (withInfo) {
        // The spectrogram's level settings act on new columns; the information
        // popover says so and offers to recalculate the document at once.
        infoButton_ = new QPushButton(QStringLiteral("Info..."), view_);
        infoButton_->setFocusPolicy(Qt::NoFocus);
        layout->addWidget(infoButton_, 0, Qt::AlignHCenter);
        connect(infoButton_, &QPushButton::clicked, this, [this] { showInfo(); });
    }
    connect(slider_, &QSlider::valueChanged, this,
            [this](int value) { sliderValueChanged(float(value)); });
}

GainPanel::Meaning GainPanel::meaning() const {
    if (arrangement_.spectrogramOnScreen())
        return defaults_.valuesInDB() ? Meaning::SpectrogramMinimum : Meaning::SpectrogramGain;
    switch (chartView_.typeOfChart()) {
    case 0:
        return Meaning::Spectrum;
    case 1:
        return Meaning::Oscilloscope;
    default:
        return Meaning::None;
    }
}

float GainPanel::sliderValue() const {
    switch (meaning()) {
    case Meaning::Spectrum:
        return defaults_.spectrumGainDB();
    case Meaning::Oscilloscope:
        return defaults_.oscilloscopeGainDB();
    case Meaning::SpectrogramMinimum:
        return defaults_.spectrogramValuesInDBMinimumLevelDB();
    case Meaning::SpectrogramGain:
        return defaults_.spectrogramLinearValuesGainDB();
    case Meaning::None:
        break;
    }
    return 0.0f;
}

QString GainPanel::infoText() const {
    switch (meaning()) {
    case Meaning::Oscilloscope:
        return QStringLiteral("Oscilloscope input level gain");
    case Meaning::Spectrum:
        return QStringLiteral("Spectrum level gain");
    case Meaning::SpectrogramMinimum:
        return QStringLiteral("Spectrogram minimum level");
    case Meaning::SpectrogramGain:
        return QStringLiteral("Spectrogram level gain");
    case Meaning::None:
        break;
    }
    return {};
}

void GainPanel::refresh() {
    const Meaning m = meaning();
    const QSignalBlocker quiet(slider_);
    const GainRange range = m == Meaning::SpectrogramMinimum ? kMinimumLevelRange : kGainRangeDB;
    slider_->setRange(range.minimum, range.maximum);
    slider_->setValue(int(std::lround(sliderValue())));
    switch (m) {
    case Meaning::Oscilloscope:
        descriptionLabel_->setText(QStringLiteral("Oscilloscope input level gain (dB)"));
        break;
    case Meaning::SpectrogramMinimum:
        descriptionLabel_->setText(QStringLiteral("Spectrogram minimum level (dB)"));
        break;
    case Meaning::SpectrogramGain:
        descriptionLabel_->setText(QStringLiteral("Spectrogram level gain (dB)"));
        break;
    default:
        descriptionLabel_->setText(QStringLiteral("Spectrum level gain (dB)"));
        break;
    }
    valueLabel_->setText(decibels(sliderValue()));
}

void GainPanel::sliderValueChanged(float valueDB) {
    switch (meaning()) {
    case Meaning::Spectrum:
        defaults_.setSpectrumGainDB(valueDB);
        break;
    case Meaning::Oscilloscope:
        defaults_.setOscilloscopeGainDB(valueDB);
        break;
    case Meaning::SpectrogramMinimum:
        // New columns take the level; the stored ones keep theirs until a recalculation.
        defaults_.setSpectrogramValuesInDBMinimumLevelDB(valueDB);
        valueLabel_->setText(decibels(valueDB));
        return;
    case Meaning::SpectrogramGain:
        defaults_.setSpectrogramLinearValuesGainDB(valueDB);
        valueLabel_->setText(decibels(valueDB));
        return;
    case Meaning::None:
        return;
    }
    valueLabel_->setText(decibels(valueDB));
    // The labels follow the gain through the chart's debounce.
    chartView_.refreshTextures();
    chartView_.setNeedsDisplayWithSubviews();
}

void GainPanel::refreshButton(bool blocked) {
    const QColor tint = window_->palette().color(QPalette::ButtonText);
    sliderEnabled_ = meaning() != Meaning::None;
    resetEnabled_ = false;
    QString image = QStringLiteral("Gain");
    if (!sliderEnabled_ && chartView_.typeOfChart() == 2) {
        const bool minOn = defaults_.octaveRTAMinValuesEnabled();
        const bool maxOn = defaults_.octaveRTAMaxValuesEnabled();
        if (minOn || maxOn) {
            resetEnabled_ = true;
            image = minOn && maxOn ? QStringLiteral("reset_maxmin")
                    : minOn        ? QStringLiteral("reset_min")
                                   : QStringLiteral("reset_max");
        }
    }
    button_->setIcon(ToolbarImages::imageNamed(image, tint));
    button_->setToolTip(resetEnabled_ ? QStringLiteral("Reset the minimum and maximum")
                                      : QStringLiteral("Gain"));
    button_->setEnabled(!blocked && (sliderEnabled_ || resetEnabled_));
}

void GainPanel::buttonPressed() {
    if (resetEnabled_) {
        chartView_.clearOctaveRTAMinMaxLevels();
        chartView_.setNeedsDisplayWithSubviews();
        return;
    }
    if (!sliderEnabled_)
        return;
    refresh();
    view_->adjustSize();
    // Above the button, kept inside the screen.
    const QPoint anchor = button_->mapToGlobal(QPoint(button_->width(), 0));
    view_->move(anchor - QPoint(view_->width(), view_->height() + 4));
    view_->show();
}

void GainPanel::showInfo() {
    if (infoButton_ == nullptr)
        return;
    if (!infoPopover_) {
        infoPopover_ = new GainInfoPopover(window_);
        connect(infoPopover_, &GainInfoPopover::recalculateRequested, this,
                [this] { emit recalculateRequested(); });
    }
    const Meaning m = meaning();
    const bool spectrogram = m == Meaning::SpectrogramMinimum || m == Meaning::SpectrogramGain;
    infoPopover_->setText(infoText());
    infoPopover_->setValue(decibels(sliderValue()));
    infoPopover_->setRecalculateButtonHidden(!spectrogram);
    infoPopover_->setRecalculateButtonEnable(spectrogram && canRecalculate_());
    view_->hide();
    infoPopover_->presentFrom(button_);
}

void GainPanel::closeAll() {
    view_->hide();
    if (infoPopover_)
        infoPopover_->close();
}

bool GainPanel::infoOpen() const { return infoPopover_ != nullptr && infoPopover_->isVisible(); }

} // namespace widmo
