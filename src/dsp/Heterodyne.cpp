#include "dsp/Heterodyne.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace widmo {

void Heterodyne::prepare(int32_t sampleRate) {
    sampleRate_ = std::max(sampleRate, 1);
    designedBand_ = 0.0;
    reset();
}

void Heterodyne::reset() {
    for (Biquad& s : sections_)
        s.z1 = s.z2 = 0.0;
    re_ = 1.0;
    im_ = 0.0;
}

double Heterodyne::highestTuning(int32_t sampleRate, double bandHz) {
    return std::max(0.0, 0.5 * double(sampleRate) - bandHz);
}

void Heterodyne::setTuning(double hz) {
    tuningHz_.store(std::max(0.0, hz), std::memory_order_release);
}

void Heterodyne::setBandwidth(double hz) {
    bandHz_.store(std::max(500.0, hz), std::memory_order_release);
}

void Heterodyne::design(double bandHz) {
    // Butterworth of order 8 as four biquads: pole pair k has Q = 1 / (2
    // cos(pi (2k + 1) / 16)); each biquad is the bilinear low-pass prewarped
    // at the band's edge.
    const double band = std::clamp(bandHz, 500.0, 0.25 * sampleRate_);
    const double w0 = 2.0 * std::numbers::pi * band / sampleRate_;
    const double cosW = std::cos(w0);
    for (int k = 0; k < kSections; ++k) {
        const double q = 1.0 / (2.0 * std::cos(std::numbers::pi * (2 * k + 1) / (4.0 * kSections)));
        const double alpha = std::sin(w0) / (2.0 * q);
        const double a0 = 1.0 + alpha;
        Biquad& s = sections_[size_t(k)];
        s.b0 = (1.0 - cosW) / 2.0 / a0;
        s.b1 = (1.0 - cosW) / a0;
        s.b2 = s.b0;
        s.a1 = -2.0 * cosW / a0;
        s.a2 = (1.0 - alpha) / a0;
    }
    designedBand_ = bandHz;
}

void Heterodyne::process(const float* in, float* out, int32_t count) {
    const double band = bandHz_.load(std::memory_order_acquire);
    if (band != designedBand_) // a changed setting: the biquads follow
        design(band);
    const double tuning =
        std::min(tuningHz_.load(std::memory_order_acquire), highestTuning(sampleRate_, 0.0));
    const double turn = 2.0 * std::numbers::pi * tuning / sampleRate_;
    const double stepRe = std::cos(turn);
    const double stepIm = std::sin(turn);
    double re = re_;
    double im = im_;
    for (int32_t i = 0; i < count; ++i) {
        double v = 2.0 * double(in[i]) * re;
        const double nextRe = re * stepRe - im * stepIm;
        im = re * stepIm + im * stepRe;
        re = nextRe;
        for (Biquad& s : sections_) {
            // Transposed direct form II.
            const double y = s.b0 * v + s.z1;
            s.z1 = s.b1 * v - s.a1 * y + s.z2;
            s.z2 = s.b2 * v - s.a2 * y;
            v = y;
        }
        out[i] = float(v);
    }
    // Back onto the unit circle: rounding would otherwise let the level drift.
    const double norm = 1.0 / std::sqrt(re * re + im * im);
    re_ = re * norm;
    im_ = im * norm;
}

} // namespace widmo
