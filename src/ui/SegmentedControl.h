#pragma once

#include <QString>
#include <QStringList>
#include <QWidget>

class QButtonGroup;
class QHBoxLayout;
class QToolButton;

namespace widmo {

/// A row of mutually exclusive segments (checkable tool buttons in one
/// exclusive group), the settings screens' choice control.
///
/// Segment indices count from 0 on the left. Setting the selection from code
/// does not emit `valueChanged`; only a user's click does.
///
/// Threading: main thread only.
class SegmentedControl : public QWidget {
    Q_OBJECT
public:
    /// No segment selected.
    static constexpr int kNoSegment = -1;

    explicit SegmentedControl(const QStringList& titles, QWidget* parent = nullptr);

    int numberOfSegments() const;
    /// The selected segment, or `kNoSegment`.
    int selectedSegmentIndex() const;
    /// Selects `index`; an index out of range clears the selection.
    void setSelectedSegmentIndex(int index);
    QString titleForSegmentAtIndex(int index) const;
    void setTitleForSegmentAtIndex(const QString& title, int index);
    /// Removes the segment at `index` (and its title); later segments move left.
    void removeSegmentAtIndex(int index);
    /// The button of a segment, for tests and screenshots; null out of range.
    QToolButton* buttonForSegment(int index) const;

signals:
    /// The user selected `index`.
    void valueChanged(int index);

private:
    QHBoxLayout* layout_;
    QButtonGroup* group_;
};

} // namespace widmo
