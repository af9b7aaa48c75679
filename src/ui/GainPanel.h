#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QFrame;
class QLabel;
class QPushButton;
class QSlider;
class QToolButton;
class QWidget;

namespace widmo {

class AnalyzerDefaults;
class ChartView;
class GainInfoPopover;
class ViewArrangement;

/// The gain button of the toolbar and what it opens: a popup slider for the
/// level setting of the view on screen (the spectrum's or the oscilloscope's
/// gain, the spectrogram's minimum level or gain), with the spectrogram's
/// "Info..." popover that offers to recalculate the document. On the octave
/// RTA with its minimum or maximum holds on, the same button resets the holds.
///
/// Threading: main thread only.
class GainPanel final : public QObject {
    Q_OBJECT
public:
    /// What the slider sets.
    enum class Meaning { None, Oscilloscope, Spectrum, SpectrogramMinimum, SpectrogramGain };

    /// `withInfo` adds the "Info..." button (products with the spectrogram).
    /// `canRecalculate` says whether the document may be recalculated now.
    /// The popup and popover are children of `window`.
    GainPanel(AnalyzerDefaults& defaults, ChartView& chartView, const ViewArrangement& arrangement,
              bool withInfo, std::function<bool()> canRecalculate, QWidget* window);

    /// The toolbar button; the owner places it.
    QToolButton* button() const { return button_; }

    /// The button's action: resets the RTA's holds, or opens the slider above the button.
    void buttonPressed();
    /// The "Info..." action: the information popover with its recalculate button.
    void showInfo();
    /// Closes the slider popup and the information popover.
    void closeAll();
    /// The slider's setting, range, title and value for the view on screen.
    void refresh();
    /// The button's image, tool tip and enabled state (`blocked` disables it).
    void refreshButton(bool blocked);
    /// Stores `valueDB` in the setting the slider stands for and redraws.
    void sliderValueChanged(float valueDB);

    Meaning meaning() const;
    bool resetEnabled() const { return resetEnabled_; }
    /// The information popover is open.
    bool infoOpen() const;

    QFrame* view() const { return view_; }
    QSlider* slider() const { return slider_; }
    QLabel* valueLabel() const { return valueLabel_; }
    QLabel* descriptionLabel() const { return descriptionLabel_; }
    /// Null without the spectrogram.
    QPushButton* infoButton() const { return infoButton_; }
    /// Null until first opened.
    GainInfoPopover* infoPopover() const { return infoPopover_; }

signals:
    /// The information popover's recalculate button was pressed.
    void recalculateRequested();

private:
    float sliderValue() const;
    QString infoText() const;

    AnalyzerDefaults& defaults_;
    ChartView& chartView_;
    const ViewArrangement& arrangement_;
    std::function<bool()> canRecalculate_;
    QWidget* window_;
    QToolButton* button_ = nullptr;
    QFrame* view_ = nullptr;
    QSlider* slider_ = nullptr;
    QLabel* valueLabel_ = nullptr;
    QLabel* descriptionLabel_ = nullptr;
    QPushButton* infoButton_ = nullptr;
    GainInfoPopover* infoPopover_ = nullptr;
    bool sliderEnabled_ = false;
    bool resetEnabled_ = false;
};

} // namespace widmo
