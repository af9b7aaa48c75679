#pragma once

#include <QColor>
#include <QFont>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <vector>

class QLabel;
class QScrollArea;
class QVBoxLayout;

namespace widmo {

/// The base of every settings, help and information screen: a scrollable
/// column of sections, each a header (one or more titles drawn as plain
/// labels), its rows and a footer.
///
/// A subclass builds its static layout once with `addSection` and `addRow`,
/// and answers `isHiddenSection` by product switch: a hidden section, and a
/// hidden row, take no space at all, so one layout serves every product. Every
/// header, row and footer has the height the measuring functions report, so
/// `contentHeight` is the height of the content a popover must show.
///
/// Sizes are in device-independent pixels (points).
///
/// Threading: main thread only.
class SectionedPage : public QWidget {
    Q_OBJECT
public:
    /// Height of a row whose content asks for less.
    static constexpr int kStandardRowHeight = 44;
    /// Left and right inset of row content and of a single header title.
    static constexpr int kRowInset = 15;
    /// Least width of the title of a row with a control.
    static constexpr int kRowTitleWidth = 130;

    explicit SectionedPage(QWidget* parent = nullptr);
    ~SectionedPage() override;

    // --- Static layout --------------------------------------------------------------------

    /// Appends a section with the header title `title`; returns its index.
    int addSection(const QString& title = QString());
    /// Appends `cell` as the next row of `section` (the table takes ownership);
    /// returns the row's index.
    int addRow(int section, QWidget* cell);
    /// A row with `title` at the left and `control` at the right; a control
    /// whose size policy lets it expand fills the rest of the row.
    int addRow(int section, const QString& title, QWidget* control);
    /// A row of `text` wrapped over as many lines as it needs.
    int addTextRow(int section, const QString& text);
    /// Content shown above the first section, not counted by `contentHeight`.
    void setTableHeaderView(QWidget* view);

    int numberOfSections() const { return int(sections_.size()); }
    int numberOfRowsInSection(int section) const;
    /// The cell given to `addRow`; null out of range.
    QWidget* cellForRow(int section, int row) const;
    QString titleForHeaderInSection(int section) const;
    void setRowHidden(int section, int row, bool hidden);
    bool isRowHidden(int section, int row) const;

    // --- What a subclass answers --------------------------------------------------------------

    /// Whether `section` is left out (default: never).
    virtual bool isHiddenSection(int section) const;
    /// The titles of the section's header, one per column; the default is the
    /// section's own title alone (none when it is empty).
    virtual QStringList titlesForSection(int section) const;
    /// The header's font (default: the system font of size 14).
    virtual QFont fontForHeaderInSection(int section) const;

    // --- Measures -----------------------------------------------------------------------------

    /// 1000 for the last section with `bigLastSectionHeader`; 0 for a hidden
    /// section; else 40 on a tablet and 28 on a phone.
    virtual int heightForHeaderInSection(int section) const;
    /// Always 0: sections are separated by their headers alone.
    int heightForFooterInSection(int section) const;
    /// 0 for a row of a hidden section or a hidden row; else the height the
    /// row's content needs at the table's width, at least `kStandardRowHeight`.
    int heightForRowAtIndexPath(int section, int row) const;
    /// Headers, footers and rows of every section except a big last one.
    int contentHeight() const;

    /// When set, the last section is a spacer with a 1000-point header, left
    /// out of `contentHeight` (lets a short table scroll its end out of view).
    bool bigLastSectionHeader() const { return bigLastSectionHeader_; }
    void setBigLastSectionHeader(bool big);

    /// One line of header text in `header`: its height h is the font's; x is
    /// `position`, or (position - 0.5) x the table's width when centred; y is
    /// the header's height - h - 5; the width is the table's; left-aligned or
    /// centred by `center`.
    QLabel* headerLabelWithText(const QString& text, int section, int column, double position,
                                bool center, const QFont& font, const QColor& color,
                                QWidget* header) const;

    /// Applies hidden sections and rows and all measures again; call after a
    /// change of what `isHiddenSection` answers or of row content.
    void reloadData();

    /// The width rows are laid out at (the visible width of the column).
    int tableWidth() const;
    /// The column's scroll position, in points from the top.
    int verticalOffset() const;
    void setVerticalOffset(int offset);
    /// Whether the column may scroll when its content is taller than the view.
    void setScrollEnabled(bool enabled);

    /// The screen's title in the settings' navigation bar.
    QString title() const { return title_; }
    void setTitle(const QString& title) { title_ = title; }

    /// The size this screen asks of a popover: `kPopoverWidth` wide, the
    /// table's height high.
    virtual QSize preferredContentSize() const;
    static constexpr int kPopoverWidth = 520;

    /// The screen is about to be shown or hidden by its container.
    virtual void viewWillAppear() {}
    virtual void viewWillDisappear() {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    QScrollArea* scrollArea() const { return scroll_; }

private:
    struct Row {
        QWidget* container = nullptr;
        QWidget* cell = nullptr;
        bool hidden = false;
    };
    struct Section {
        QString title;
        QWidget* box = nullptr;
        QWidget* header = nullptr;
        QWidget* footer = nullptr;
        QVBoxLayout* rowsLayout = nullptr;
        std::vector<Row> rows;
    };

    int contentRowHeight(const Row& row) const;
    void layoutHeader(int section);
    void applyHeights();

    QScrollArea* scroll_;
    QWidget* content_;
    QVBoxLayout* column_;
    QWidget* tableHeaderView_ = nullptr;
    std::vector<Section> sections_;
    bool bigLastSectionHeader_ = false;
    int laidOutWidth_ = -1;
    QString title_;
};

} // namespace widmo
