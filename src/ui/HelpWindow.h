#pragma once

#include "ui/SectionedPage.h"

#include <QSet>
#include <QString>
#include <QVariantList>

namespace widmo {

class AnalyzerFeatures;

/// The built-in help: one section per topic, each with one or more rows of
/// text, some rows with a bold sub-header of their own.
///
/// One catalogue describes every capability of the product family; the
/// product's help set (titles compared as exact strings) decides which topics
/// are shown, through the hidden sections of the table. Shown as a window of
/// its own beside the running analysis; Esc and Ctrl+W close it.
///
/// Threading: main thread only.
class HelpWindow : public SectionedPage {
    Q_OBJECT
public:
    /// The project's home page, opened by `openWebPage`.
    static constexpr const char* kHomePageUrl = "https://widmo.org/";
    static constexpr int kTopicCount = 33;

    /// Builds the catalogue and chooses the help set of `features`.
    explicit HelpWindow(const AnalyzerFeatures& features, QWidget* parent = nullptr);

    /// Per topic: a QString (its title) or a QStringList (its title followed
    /// by the sub-header of each row).
    const QVariantList& helpHeaders() const { return helpHeaders_; }
    /// Per topic: a QString (the single row's text) or a QStringList (one text per row).
    const QVariantList& helpContents() const { return helpContents_; }
    /// The titles of the topics shown.
    const QSet<QString>& helpSet() const { return helpSet_; }
    /// The help set of a product: the spectrum analyser, the studio product
    /// (with a spectrogram) or the voice product (EGG).
    static QSet<QString> helpSetForFeatures(const AnalyzerFeatures& features);

    /// Count of the topic's content list, or 1 for a single string.
    static int numberOfRowsForContent(const QVariant& content);
    /// The header string, or the first element of the header list.
    static QString titleForHeader(const QVariant& header);

    /// Shown when the topic's title is in the help set.
    bool isHiddenSection(int section) const override;

    /// Opens `kHomePageUrl` in the desktop's browser; false when none could be started.
    static bool openWebPage();

private:
    void buildCatalogue();

    QVariantList helpHeaders_;
    QVariantList helpContents_;
    QSet<QString> helpSet_;
};

} // namespace widmo
