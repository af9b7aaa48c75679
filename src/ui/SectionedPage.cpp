#include "ui/SectionedPage.h"

#include "render/DeviceClass.h"

#include <QEvent>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QResizeEvent>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace widmo {

namespace {

constexpr int kHeaderHeightTablet = 40;
constexpr int kHeaderHeightPhone = 28;
constexpr int kBigHeaderHeight = 1000;
constexpr int kHeaderTextBottomGap = 5;
constexpr int kRowVerticalPadding = 6;
const QColor kHeaderTextColor(109, 109, 114);

// A row: the base colour with a separator line along its bottom edge.
class RowWidget : public QWidget {
public:
    explicit RowWidget(QWidget* parent) : QWidget(parent) {}

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.fillRect(rect(), palette().base());
        p.setPen(palette().color(QPalette::Midlight));
        p.drawLine(SectionedPage::kRowInset, height() - 1, width(), height() - 1);
    }
};

// A header or footer: transparent on the column's background; the header's
// labels are placed by the table whenever the width changes.
class PlainWidget : public QWidget {
public:
    explicit PlainWidget(QWidget* parent) : QWidget(parent) {
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    }
};

} // namespace

SectionedPage::SectionedPage(QWidget* parent)
    : QWidget(parent), scroll_(new QScrollArea(this)), content_(new QWidget),
      column_(new QVBoxLayout(content_)) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSpacing(0);
    outer->addWidget(scroll_);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setWidgetResizable(true);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll_->setBackgroundRole(QPalette::Window);
    scroll_->setWidget(content_);
    scroll_->viewport()->installEventFilter(this);
    column_->setContentsMargins(0, 0, 0, 0);
    column_->setSpacing(0);
    column_->addStretch(1);
}

SectionedPage::~SectionedPage() = default;

int SectionedPage::addSection(const QString& title) {
    Section s;
    s.title = title;
    s.box = new QWidget(content_);
    auto* boxLayout = new QVBoxLayout(s.box);
    boxLayout->setContentsMargins(0, 0, 0, 0);
    boxLayout->setSpacing(0);
    s.header = new PlainWidget(s.box);
    s.footer = new PlainWidget(s.box);
    s.footer->setAutoFillBackground(true);
    s.footer->setFixedHeight(0);
    s.rowsLayout = new QVBoxLayout;
    s.rowsLayout->setSpacing(0);
    boxLayout->addWidget(s.header);
    boxLayout->addLayout(s.rowsLayout);
    boxLayout->addWidget(s.footer);
    // Before the stretch that keeps the column at the top.
    column_->insertWidget(column_->count() - 1, s.box);
    sections_.push_back(s);
    const int index = int(sections_.size()) - 1;
    s.header->setFixedHeight(heightForHeaderInSection(index));
    return index;
}

int SectionedPage::addRow(int section, QWidget* cell) {
    Section& s = sections_.at(size_t(section));
    Row row;
    row.cell = cell;
    row.container = new RowWidget(s.box);
    auto* layout = new QHBoxLayout(row.container);
    layout->setContentsMargins(kRowInset, kRowVerticalPadding, kRowInset, kRowVerticalPadding);
    layout->addWidget(cell);
    s.rowsLayout->addWidget(row.container);
    s.rows.push_back(row);
    row.container->setFixedHeight(contentRowHeight(row));
    return int(s.rows.size()) - 1;
}

int SectionedPage::addRow(int section, const QString& title, QWidget* control) {
    auto* cell = new QWidget;
    auto* layout = new QHBoxLayout(cell);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* label = new QLabel(title, cell);
    label->setMinimumWidth(kRowTitleWidth);
    layout->addWidget(label);
    // A control that can grow (segments, sliders) takes the rest of the row;
    // others (switches) sit at its right end.
    if (control->sizePolicy().horizontalPolicy() & QSizePolicy::ExpandFlag) {
        layout->addWidget(control, 1);
    } else {
        layout->addStretch(1);
        layout->addWidget(control);
    }
    return addRow(section, cell);
}

int SectionedPage::addTextRow(int section, const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return addRow(section, label);
}

void SectionedPage::setTableHeaderView(QWidget* view) {
    delete tableHeaderView_;
    tableHeaderView_ = view;
    if (view != nullptr)
        column_->insertWidget(0, view);
}

int SectionedPage::numberOfRowsInSection(int section) const {
    if (section < 0 || section >= numberOfSections())
        return 0;
    return int(sections_[size_t(section)].rows.size());
}

QWidget* SectionedPage::cellForRow(int section, int row) const {
    if (row < 0 || row >= numberOfRowsInSection(section))
        return nullptr;
    return sections_[size_t(section)].rows[size_t(row)].cell;
}

QString SectionedPage::titleForHeaderInSection(int section) const {
    if (section < 0 || section >= numberOfSections())
        return QString();
    return sections_[size_t(section)].title;
}

void SectionedPage::setRowHidden(int section, int row, bool hidden) {
    if (row < 0 || row >= numberOfRowsInSection(section))
        return;
    Row& r = sections_[size_t(section)].rows[size_t(row)];
    r.hidden = hidden;
    r.container->setVisible(!hidden && !isHiddenSection(section));
    r.container->setFixedHeight(heightForRowAtIndexPath(section, row));
}

bool SectionedPage::isRowHidden(int section, int row) const {
    if (row < 0 || row >= numberOfRowsInSection(section))
        return false;
    return sections_[size_t(section)].rows[size_t(row)].hidden;
}

bool SectionedPage::isHiddenSection(int) const { return false; }

QStringList SectionedPage::titlesForSection(int section) const {
    const QString title = titleForHeaderInSection(section);
    return title.isEmpty() ? QStringList() : QStringList{title};
}

QFont SectionedPage::fontForHeaderInSection(int) const {
    return DeviceClass::systemFont(14.0, false);
}

int SectionedPage::heightForHeaderInSection(int section) const {
    if (bigLastSectionHeader_ && section == numberOfSections() - 1)
        return kBigHeaderHeight;
    if (isHiddenSection(section))
        return 0;
    return DeviceClass::isPad(this) ? kHeaderHeightTablet : kHeaderHeightPhone;
}

int SectionedPage::heightForFooterInSection(int) const { return 0; }

int SectionedPage::heightForRowAtIndexPath(int section, int row) const {
    if (row < 0 || row >= numberOfRowsInSection(section) || isHiddenSection(section))
        return 0;
    const Row& r = sections_[size_t(section)].rows[size_t(row)];
    return r.hidden ? 0 : contentRowHeight(r);
}

int SectionedPage::contentHeight() const {
    int sum = 0;
    for (int s = 0; s < numberOfSections(); ++s) {
        if (bigLastSectionHeader_ && s == numberOfSections() - 1)
            break;
        sum += heightForHeaderInSection(s) + heightForFooterInSection(s);
        for (int r = 0; r < numberOfRowsInSection(s); ++r)
            sum += heightForRowAtIndexPath(s, r);
    }
    return sum;
}

void SectionedPage::setBigLastSectionHeader(bool big) {
    bigLastSectionHeader_ = big;
    reloadData();
}

QLabel* SectionedPage::headerLabelWithText(const QString& text, int, int, double position,
                                           bool center, const QFont& font, const QColor& color,
                                           QWidget* header) const {
    const int width = tableWidth();
    const int h = QFontMetrics(font).height();
    const double x = center ? (position - 0.5) * width : position;
    auto* label = new QLabel(text, header);
    label->setGeometry(int(std::lround(x)), header->height() - h - kHeaderTextBottomGap, width, h);
    label->setFont(font);
    label->setWordWrap(false);
    label->setAlignment((center ? Qt::AlignHCenter : Qt::AlignLeft) | Qt::AlignVCenter);
    label->setAttribute(Qt::WA_TranslucentBackground);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, color);
    label->setPalette(palette);
    label->show();
    return label;
}

void SectionedPage::reloadData() { applyHeights(); }

int SectionedPage::tableWidth() const { return laidOutWidth_ > 0 ? laidOutWidth_ : kPopoverWidth; }

int SectionedPage::verticalOffset() const { return scroll_->verticalScrollBar()->value(); }

void SectionedPage::setVerticalOffset(int offset) {
    scroll_->verticalScrollBar()->setValue(offset);
}

void SectionedPage::setScrollEnabled(bool enabled) {
    scroll_->setVerticalScrollBarPolicy(enabled ? Qt::ScrollBarAsNeeded : Qt::ScrollBarAlwaysOff);
}

QSize SectionedPage::preferredContentSize() const { return QSize(kPopoverWidth, contentHeight()); }

bool SectionedPage::eventFilter(QObject* watched, QEvent* event) {
    // Rows of wrapped text change height with the column's width.
    if (watched == scroll_->viewport() && event->type() == QEvent::Resize) {
        const int width = static_cast<QResizeEvent*>(event)->size().width();
        if (width != laidOutWidth_ && width > 0) {
            laidOutWidth_ = width;
            applyHeights();
        }
    }
    return QWidget::eventFilter(watched, event);
}

void SectionedPage::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    applyHeights();
}

int SectionedPage::contentRowHeight(const Row& row) const {
    QLayout* layout = row.container->layout();
    const int h = layout->hasHeightForWidth() ? layout->heightForWidth(tableWidth())
                                              : row.container->sizeHint().height();
    return std::max(h, kStandardRowHeight);
}

void SectionedPage::layoutHeader(int section) {
    QWidget* header = sections_[size_t(section)].header;
    const auto old = header->findChildren<QLabel*>(QString(), Qt::FindDirectChildrenOnly);
    for (QLabel* label : old)
        delete label;
    if (isHiddenSection(section))
        return;
    const QStringList titles = titlesForSection(section);
    const QFont font = fontForHeaderInSection(section);
    if (titles.size() == 1) {
        headerLabelWithText(titles.front(), section, 0, kRowInset, false, font, kHeaderTextColor,
                            header);
        return;
    }
    // Several titles: one centred column each, across the table's width.
    for (int i = 0; i < titles.size(); ++i)
        headerLabelWithText(titles[i], section, i, (i + 0.5) / double(titles.size()), true, font,
                            kHeaderTextColor, header);
}

void SectionedPage::applyHeights() {
    for (int s = 0; s < numberOfSections(); ++s) {
        Section& sec = sections_[size_t(s)];
        const bool hidden = isHiddenSection(s);
        const bool big = bigLastSectionHeader_ && s == numberOfSections() - 1;
        sec.box->setVisible(!hidden || big);
        sec.header->setFixedHeight(heightForHeaderInSection(s));
        sec.footer->setFixedHeight(heightForFooterInSection(s));
        for (int r = 0; r < int(sec.rows.size()); ++r) {
            Row& row = sec.rows[size_t(r)];
            row.container->setVisible(!row.hidden && !hidden);
            row.container->setFixedHeight(heightForRowAtIndexPath(s, r));
        }
        layoutHeader(s);
    }
}

} // namespace widmo
