#include "ui/SettingsPanel.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"
#include "ui/AudioInputPage.h"
#include "ui/DisplaySettingsPage.h"
#include "ui/GeneralSettingsPage.h"
#include "ui/Popover.h"
#include "ui/SettingsDelegate.h"
#include "ui/SoundLevelPage.h"
#include "ui/TriggerSettingsPage.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace widmo {

namespace {

const char* const kPageTitles[SettingsPanel::kPageCount] = {
    "Settings", "General", "Display", "Trigger", "Audio input", "Sound level"};

} // namespace

SettingsPanel::SettingsPanel(AnalyzerDefaults& defaults, const AnalyzerFeatures& features,
                             AudioSession& audio, SettingsDelegate& delegate, QWidget* parent)
    : QWidget(parent), defaults_(defaults), features_(features), delegate_(delegate),
      stack_(new QStackedWidget(this)), backButton_(new QPushButton("\u2039 Settings")),
      titleLabel_(new QLabel), doneButton_(new QPushButton("Done")) {
    setAutoFillBackground(true);
    hide();

    auto* bar = new QWidget(this);
    bar->setFixedHeight(kNavigationBarHeight);
    auto* barLayout = new QHBoxLayout(bar);
    barLayout->setContentsMargins(8, 0, 8, 0);
    backButton_->setFlat(true);
    doneButton_->setFlat(true);
    doneButton_->setDefault(false);
    QFont titleFont = DeviceClass::systemFont(17.0, true);
    titleLabel_->setFont(titleFont);
    titleLabel_->setAlignment(Qt::AlignCenter);
    barLayout->addWidget(backButton_);
    barLayout->addWidget(titleLabel_, 1);
    barLayout->addWidget(doneButton_);
    // Keep the title centred whether or not Back shows.
    QSizePolicy backPolicy = backButton_->sizePolicy();
    backPolicy.setRetainSizeWhenHidden(true);
    backButton_->setSizePolicy(backPolicy);
    backButton_->setMinimumWidth(doneButton_->sizeHint().width());
    doneButton_->setMinimumWidth(backButton_->sizeHint().width());

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(bar);
    layout->addWidget(stack_, 1);

    // The list of pages.
    auto* list = new SectionedPage;
    list->setTitle(kPageTitles[kPageRoot]);
    const int section = list->addSection();
    pages_[kPageRoot] = list;
    pages_[kPageGeneral] = new GeneralSettingsPage(defaults, features, delegate);
    if (features.featureSpectrogramEnabled())
        pages_[kPageDisplay] = new DisplaySettingsPage(defaults, features, delegate);
    if (features.featureRecordTrig())
        pages_[kPageTrigger] = new TriggerSettingsPage(defaults, delegate);
    pages_[kPageAudioInput] = new AudioInputPage(defaults, audio, delegate);
    pages_[kPageSoundLevel] = new SoundLevelPage(defaults, delegate);
    for (int p = kPageGeneral; p < kPageCount; ++p) {
        auto* button = new QPushButton(kPageTitles[p]);
        button->setFlat(true);
        button->setStyleSheet("text-align: left; padding: 8px 0px;");
        button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        auto* cell = new QWidget;
        auto* cellLayout = new QHBoxLayout(cell);
        cellLayout->setContentsMargins(0, 0, 0, 0);
        cellLayout->addWidget(button, 1);
        cellLayout->addWidget(new QLabel("\u203a", cell));
        const int row = list->addRow(section, cell);
        list->setRowHidden(section, row, !isPageOffered(p));
        connect(button, &QPushButton::clicked, this, [this, p] { openPage(p); });
    }
    for (SectionedPage* page : pages_)
        if (page != nullptr)
            stack_->addWidget(page);

    connect(backButton_, &QPushButton::clicked, this, [this] { openPage(kPageRoot); });
    connect(doneButton_, &QPushButton::clicked, this, &SettingsPanel::closeSettings);
    stack_->setCurrentWidget(list);
    titleLabel_->setText(list->title());
    backButton_->setVisible(false);
}

SettingsPanel::~SettingsPanel() {
    if (coveredWindow_ != nullptr)
        coveredWindow_->removeEventFilter(this);
}

bool SettingsPanel::isPageOffered(int page) const {
    return page >= 0 && page < kPageCount && pages_[size_t(page)] != nullptr;
}

SectionedPage* SettingsPanel::page(int page) const {
    return isPageOffered(page) ? pages_[size_t(page)] : nullptr;
}

void SettingsPanel::presentFrom(QWidget* anchor) { present(anchor, nullptr); }

void SettingsPanel::presentAt(QPoint point) { present(nullptr, &point); }

void SettingsPanel::present(QWidget* anchor, const QPoint* point) {
    if (open_)
        return;
    anchor_ = anchor;
    popover_ = DeviceClass::isPad(anchor != nullptr ? anchor : parentWidget());
    const int last = defaults_.lastSettingsPage();
    showPage(isPageOffered(last) ? last : kPageRoot);
    open_ = true;

    if (popover_) {
        Popover::makePopup(this);
        if (point != nullptr) {
            anchorPoint_ = *point;
            Popover::presentAt(this, *point, panelSize());
        } else {
            Popover::presentFrom(this, anchor, panelSize());
        }
        return;
    }
    // Phone: cover the window, following its size, as a pushed screen does.
    QWidget* window = anchor != nullptr ? anchor->window() : parentWidget();
    if (window != nullptr && window != this) {
        setWindowFlags(Qt::Widget);
        setParent(window);
        coveredWindow_ = window;
        window->installEventFilter(this);
        setGeometry(window->rect());
    }
    show();
    raise();
    setFocus();
}

void SettingsPanel::closeSettings() {
    if (open_)
        hide();
}

void SettingsPanel::openPage(int page) {
    if (!isPageOffered(page))
        page = kPageRoot;
    if (page == currentPage_)
        return;
    showPage(page);
    if (open_ && popover_)
        resizePopover();
}

void SettingsPanel::showPage(int page) {
    SectionedPage* leaving = pages_[size_t(currentPage_)];
    if (open_) {
        if (currentPage_ == kPageRoot)
            defaults_.setLastPositionSettingsRoot(leaving->verticalOffset());
        else
            leaving->viewWillDisappear();
    }
    currentPage_ = page;
    SectionedPage* shown = pages_[size_t(page)];
    stack_->setCurrentWidget(shown);
    titleLabel_->setText(shown->title());
    backButton_->setVisible(page != kPageRoot);
    if (page == kPageRoot) {
        defaults_.setLastSettingsPage(kPageRoot);
        shown->reloadData();
        delegate_.setSettingsPopOverContentSize(shown->preferredContentSize());
    } else {
        shown->viewWillAppear();
    }
}

QSize SettingsPanel::panelSize() const {
    const QSize content = pages_[size_t(currentPage_)]->preferredContentSize();
    return QSize(content.width(), content.height() + kNavigationBarHeight);
}

void SettingsPanel::resizePopover() {
    if (anchor_ != nullptr)
        Popover::presentFrom(this, anchor_, panelSize());
    else
        Popover::presentAt(this, anchorPoint_, panelSize());
}

void SettingsPanel::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (!open_)
        return;
    // However the panel closes (Done, Escape, a click outside the popover),
    // the main screen hears of it once.
    open_ = false;
    if (currentPage_ == kPageRoot)
        defaults_.setLastPositionSettingsRoot(pages_[kPageRoot]->verticalOffset());
    else
        pages_[size_t(currentPage_)]->viewWillDisappear();
    if (coveredWindow_ != nullptr) {
        coveredWindow_->removeEventFilter(this);
        coveredWindow_ = nullptr;
    }
    delegate_.settingsWillClose();
    emit closed();
}

void SettingsPanel::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Escape) {
        closeSettings();
        return;
    }
    QWidget::keyPressEvent(event);
}

bool SettingsPanel::eventFilter(QObject* watched, QEvent* event) {
    if (watched == coveredWindow_ && event->type() == QEvent::Resize)
        setGeometry(coveredWindow_->rect());
    return QWidget::eventFilter(watched, event);
}

} // namespace widmo
