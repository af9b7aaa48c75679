#include "core/CaptureGaps.h"

#include <QStringList>

#include <algorithm>

namespace widmo {

void CaptureGaps::add(const Gap& gap) {
    if (gap.frames <= 0)
        return;
    // Every access of an entry is sequentially consistent (no fences, which
    // the thread sanitizer cannot follow): a reader that sees any field of
    // this write reads the odd count after it, and tries again.
    const int64_t index = added_.load();
    Entry& entry = entries_[static_cast<size_t>(index % kCapacity)];
    const uint32_t sequence = entry.sequence.load();
    entry.sequence.store(sequence + 1);
    entry.startFrame.store(gap.startFrame);
    entry.frames.store(gap.frames);
    entry.lostAtMs.store(gap.lostAtMs);
    entry.cause.store(static_cast<int32_t>(gap.cause));
    entry.sequence.store(sequence + 2);
    added_.store(index + 1);
}

void CaptureGaps::clear() { added_.store(0, std::memory_order_release); }

void CaptureGaps::restore(const std::vector<Gap>& gaps) {
    clear();
    const size_t first = gaps.size() > size_t{kCapacity} ? gaps.size() - size_t{kCapacity} : 0;
    for (size_t i = first; i < gaps.size(); ++i)
        add(gaps[i]);
}

bool CaptureGaps::readEntry(const Entry& entry, Gap& out) {
    const uint32_t before = entry.sequence.load();
    if (before % 2 != 0)
        return false;
    out.startFrame = entry.startFrame.load();
    out.frames = entry.frames.load();
    out.lostAtMs = entry.lostAtMs.load();
    out.cause = static_cast<Cause>(entry.cause.load());
    return entry.sequence.load() == before;
}

std::vector<CaptureGaps::Gap> CaptureGaps::gaps() const {
    std::vector<Gap> list;
    const int64_t added = added_.load(std::memory_order_acquire);
    for (int64_t i = std::max<int64_t>(0, added - kCapacity); i < added; ++i) {
        Gap gap;
        while (!readEntry(entries_[static_cast<size_t>(i % kCapacity)], gap)) {
        }
        list.push_back(gap);
    }
    return list;
}

std::optional<CaptureGaps::Gap> CaptureGaps::gapAt(int64_t frame) const {
    const int64_t added = added_.load(std::memory_order_acquire);
    // Newest first: the intake and the analysis ask about recent frames.
    for (int64_t i = added - 1; i >= std::max<int64_t>(0, added - kCapacity); --i) {
        Gap gap;
        while (!readEntry(entries_[static_cast<size_t>(i % kCapacity)], gap)) {
        }
        if (frame >= gap.endFrame())
            return std::nullopt; // later than every older gap too
        if (frame >= gap.startFrame)
            return gap;
    }
    return std::nullopt;
}

std::optional<CaptureGaps::Gap> CaptureGaps::newest() const {
    const int64_t added = added_.load(std::memory_order_acquire);
    if (added == 0)
        return std::nullopt;
    Gap gap;
    while (!readEntry(entries_[static_cast<size_t>((added - 1) % kCapacity)], gap)) {
    }
    return gap;
}

QString CaptureGaps::encode(const std::vector<Gap>& gaps) {
    QStringList parts;
    for (const Gap& g : gaps)
        parts << QStringLiteral("%1:%2:%3:%4")
                     .arg(g.startFrame)
                     .arg(g.frames)
                     .arg(g.lostAtMs)
                     .arg(static_cast<int>(g.cause));
    return parts.join(QLatin1Char(';'));
}

std::vector<CaptureGaps::Gap> CaptureGaps::decode(const QString& text) {
    std::vector<Gap> gaps;
    for (const QString& part : text.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const QStringList fields = part.split(QLatin1Char(':'));
        if (fields.size() != 4)
            continue;
        bool ok[4] = {false, false, false, false};
        Gap g;
        g.startFrame = fields[0].toLongLong(&ok[0]);
        g.frames = fields[1].toLongLong(&ok[1]);
        g.lostAtMs = fields[2].toLongLong(&ok[2]);
        const int cause = fields[3].toInt(&ok[3]);
        if (!ok[0] || !ok[1] || !ok[2] || !ok[3] || g.startFrame < 0 || g.frames <= 0 ||
            (cause != 0 && cause != 1))
            continue;
        g.cause = static_cast<Cause>(cause);
        if (!gaps.empty() && g.startFrame < gaps.back().endFrame())
            continue;
        gaps.push_back(g);
    }
    return gaps;
}

} // namespace widmo
