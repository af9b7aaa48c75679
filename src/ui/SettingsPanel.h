#pragma once

#include <QPoint>
#include <QWidget>

#include <array>

class QLabel;
class QPushButton;
class QStackedWidget;

namespace widmo {

class AnalyzerDefaults;
class AnalyzerFeatures;
class SettingsDelegate;
class AudioSession;
class SectionedPage;

/// The settings panel: a list of pages (General; Display with a spectrogram;
/// Trigger with the recording trigger; Audio input) and a navigation bar with
/// a back button and "Done".
///
/// On a tablet the panel is a popover (a popup window beside the settings
/// button, sized to the page it shows; a click outside or Escape closes it).
/// On a phone it covers the window of the button that opened it, as a
/// navigation stack. It reopens on the page shown last (`lastSettingsPage`).
///
/// Use from the main screen:
///   1. `defaults.copyCurrentToPreferred()` (the pages edit the preferred copies),
///   2. `presentFrom(settingsButton)`,
///   3. `SettingsDelegate::settingsWillClose` is then called exactly once when
///      the panel closes, however it closes; there the main screen applies the
///      preferred values.
/// The panel is reused for every opening; the main screen owns it (Qt parent).
///
/// Threading: main thread only.
class SettingsPanel : public QWidget {
    Q_OBJECT
public:
    enum Page {
        kPageRoot = 0,
        kPageGeneral,
        kPageDisplay,
        kPageTrigger,
        kPageAudioInput,
        kPageSoundLevel
    };
    static constexpr int kPageCount = 6;
    static constexpr int kNavigationBarHeight = 44;

    /// Every reference must outlive the panel. `parent` is the main screen.
    SettingsPanel(AnalyzerDefaults& defaults, const AnalyzerFeatures& features, AudioSession& audio,
                  SettingsDelegate& delegate, QWidget* parent = nullptr);
    ~SettingsPanel() override;

    /// Opens the panel from `anchor` (the settings button): a popover under (or
    /// over) it on a tablet, covering its window on a phone. Shows the page
    /// `lastSettingsPage` when the product offers it, else the list. Does
    /// nothing while open.
    void presentFrom(QWidget* anchor);
    /// The same, a popover hanging from the global point `point` (tablet) or
    /// covering the parent's window (phone).
    void presentAt(QPoint point);
    /// Closes the panel (as "Done" does); nothing when closed.
    void closeSettings();
    bool isOpen() const { return open_; }

    /// Shows `page` (above the list, so that Back returns to it); a page the
    /// product does not offer shows the list.
    void openPage(int page);
    /// The page shown now.
    int currentPage() const { return currentPage_; }
    /// Whether the product offers `page`.
    bool isPageOffered(int page) const;
    /// The page's screen; null for a page not offered. `kPageRoot` is the list.
    SectionedPage* page(int page) const;

signals:
    /// The panel closed (after `settingsWillClose`).
    void closed();

protected:
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void present(QWidget* anchor, const QPoint* point);
    void showPage(int page);
    QSize panelSize() const;
    void resizePopover();

    AnalyzerDefaults& defaults_;
    const AnalyzerFeatures& features_;
    SettingsDelegate& delegate_;

    QStackedWidget* stack_;
    std::array<SectionedPage*, kPageCount> pages_{};
    QPushButton* backButton_;
    QLabel* titleLabel_;
    QPushButton* doneButton_;
    QWidget* coveredWindow_ = nullptr;
    QPoint anchorPoint_;
    QWidget* anchor_ = nullptr;
    bool open_ = false;
    bool popover_ = false;
    int currentPage_ = kPageRoot;
};

} // namespace widmo
