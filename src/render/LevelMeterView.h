#pragma once

#include "core/AnalyzerFeatures.h"
#include "render/AffineTransform.h"
#include "render/GLView.h"

#include <QImage>
#include <QLabel>

#include <atomic>
#include <cstdint>
#include <memory>

namespace widmo {

/// A narrow vertical meter beside a chart: the level of the latest analysed
/// interval in dBFS as a column of segments (red up to the level, the top one
/// yellow near full scale) with a numeric read-out under a turned legend; or,
/// with the EGG mode on, the closed quotient as a red line over a 0..100 % scale.
///
/// The feeder writes `levelDB` and `closedQuotient`; the meter smooths them
/// itself once per drawn frame (40 % and 20 % of the remaining distance) and
/// rewrites the read-out at most every seventh frame so that it stays readable.
/// It draws nothing but its dark background while `fullScreen` is off.
///
/// Threading: every member runs on the main thread except `setLevelDB` and
/// `setClosedQuotient`, which any single feeder thread may call; each value is
/// one atomic float, read once per frame.
class LevelMeterView : public GLView {
    Q_OBJECT
public:
    /// Sizes of one device class (points unless stated).
    struct Metrics {
        int segments;           ///< number of segments N
        double dbPerSegment;    ///< dB per segment
        double segmentGap;      ///< gap between segments
        double legendSpace;     ///< space kept free above the column for the legend (R)
        double legendFontSize;  ///< bold system font
        double readoutFontSize; ///< bold system font
        QPointF readoutOrigin;  ///< top-left of the read-out label
        int meterWidth;         ///< width in the owner's layout with the meter on
        int widthWhenOff;       ///< width kept when the meter is off
        double legendMargin;    ///< between the top edge and the legend
    };
    static const Metrics& metrics(bool pad);

    /// The device class is read once here, from the screen the parent is on.
    explicit LevelMeterView(QWidget* parent = nullptr,
                            const AnalyzerFeatures& features = AnalyzerFeatures::sharedFeatures());
    ~LevelMeterView() override;

    bool fullScreen() const { return fullScreen_; }
    /// The meter draws only when set; takes effect at the next drawn frame.
    void setFullScreen(bool on);
    bool onTheRight() const { return onTheRight_; }
    /// The meter stands at the right edge of its chart (turns the legend the other way).
    void setOnTheRight(bool on) { onTheRight_ = on; }
    float levelDB() const { return levelDB_.load(std::memory_order_relaxed); }
    /// Latest level in dBFS; below -144 means no signal. Any thread.
    void setLevelDB(float level) { levelDB_.store(level, std::memory_order_relaxed); }
    float closedQuotient() const { return closedQuotient_.load(std::memory_order_relaxed); }
    /// Latest closed quotient as a fraction 0..1, 0 when none is measured. Any thread.
    void setClosedQuotient(float cq) { closedQuotient_.store(cq, std::memory_order_relaxed); }
    /// The empty meter of a stopped analysis: inputs and smoothing back to
    /// -144 dBFS and no closed quotient, the read-out "-144.0", redrawn at the
    /// next frame. Main thread; the feeder must have stopped.
    void showEmpty();
    /// The sound level meter's figures: `barLevelDB` (dB re full scale, the
    /// time-weighted level the column and read-out show, without the meter's
    /// own smoothing), `offset` added to the read-out, `unit` in the legend
    /// ("dBFS", "dB SPL", "dBA", "dBC"), and `figures` (lines such as
    /// "LAeq 63.2") in a panel beside the meter, in the parent widget. Main thread.
    void showSoundLevels(double barLevelDB, double offset, const QString& unit,
                         const QString& figures);
    /// Back to the spectrum's level: smoothing on, dBFS, no figures. Main thread.
    void clearSoundLevels();
    /// The figures panel; null before the first figures.
    const QLabel* figuresLabel() const { return figuresLabel_; }
    /// The legend's unit.
    const QString& unit() const { return unit_; }
    /// Kept for the owner; the meter does not draw it.
    std::shared_ptr<GLTexture> dbTexture() const { return dbTexture_; }
    void setDbTexture(std::shared_ptr<GLTexture> texture) { dbTexture_ = std::move(texture); }
    /// Kept for the owner; the meter does not use it.
    const AffineTransform& contentTransform() const { return contentTransform_; }
    void setContentTransform(const AffineTransform& t) { contentTransform_ = t; }

    /// The smoothed level and closed quotient last shown.
    float lastLevelDB() const { return mLastLevelDB; }
    float lastCQ() const { return mLastCQ; }
    /// The numeric read-out.
    const QLabel* dbLabel() const { return mDBLabel; }
    bool isPad() const { return pad_; }

    /// Segments lit for a shown level `v` in dBFS: -88 dBFS and below light
    /// none (the count may go negative), 0 dBFS lights all.
    static int litSegmentCount(double v, bool pad);
    /// The closed-quotient scale, 0..100 % with a tick every 10 %, painted
    /// upside down because the meter stretches it with texture (0,0) at the top.
    static QImage scaleCQImage();

protected:
    void drawGLRect(const QRectF& rect) override;
    /// False while the next frame would light the same segments (or put the
    /// quotient's line on the same row) as the last, for the gliding value and
    /// for the value it glides to, and would not change the read-out: a steady
    /// level costs no frames.
    bool frameWouldChange() override;
    void setupGLResources() override;
    void releaseGLResources() override;

private:
    void commonInit();
    /// Inputs and smoothing at -144 dBFS and no quotient, the read-out "-144.0".
    void resetToEmpty();
    void prepareTextures();
    void drawLevelColumn(double shownLevel, double w, double h);
    void drawClosedQuotient(double w, double h);
    void drawLegend(double w, double h);
    /// Where the glide goes in the next frame from the last shown values.
    float nextLevelDB() const;
    float nextCQ() const;
    /// Pixel row of the quotient's line for `cq` in a meter `h` points high.
    int cqRow(double cq, double h) const;
    QString readoutText(double shownLevel, float cq) const;

    AnalyzerFeatures features_;
    bool pad_ = false;

    float mLastLevelDB = -144.0f;
    float mLastCQ = 0.0f;
    std::shared_ptr<GLTexture> mLegendTitleTexture;
    std::shared_ptr<GLTexture> mLegendLine1Texture;
    std::shared_ptr<GLTexture> mLegendLine2Texture;
    std::shared_ptr<GLTexture> mScaleTexture;
    QLabel* mDBLabel = nullptr;
    int32_t mRefreshCounter = 0;
    // What the last drawn frame showed; -2 before the first.
    int litShown_ = -2;
    int cqRowShown_ = -2;
    bool fullScreen_ = false;
    bool onTheRight_ = false;
    std::atomic<float> levelDB_{-144.0f};
    std::atomic<float> closedQuotient_{0.0f};
    std::shared_ptr<GLTexture> dbTexture_;
    AffineTransform contentTransform_;
    // The sound level meter's display (see showSoundLevels).
    QLabel* figuresLabel_ = nullptr;
    QString unit_ = QStringLiteral("dBFS");
    double offset_ = 0.0;
    bool glide_ = true;
    bool legendDirty_ = false;
    void placeFiguresLabel();
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
};

} // namespace widmo
