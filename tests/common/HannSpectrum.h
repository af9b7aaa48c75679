#pragma once

// The spectrum tests take of what the code under test produced: independent of
// the analyser's own FFT code, so that a fault there cannot hide itself.

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <vector>

namespace widmo::test {

/// Magnitudes (bins 0..n/2) of the Hann-windowed spectrum of `n` samples taken
/// every `stride`-th from `x`; a sine of amplitude A reads A at its bin.
inline std::vector<double> hannSpectrum(const float* x, size_t n, size_t stride = 1) {
    std::vector<float> in(n);
    for (size_t i = 0; i < n; ++i)
        in[i] = x[i * stride] *
                float(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * double(i) / double(n)));
    std::vector<std::complex<float>> out(n / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(
        int(n), in.data(), reinterpret_cast<fftwf_complex*>(out.data()), FFTW_ESTIMATE);
    fftwf_execute(plan);
    fftwf_destroy_plan(plan);
    std::vector<double> magnitude(out.size());
    for (size_t k = 0; k < out.size(); ++k)
        magnitude[k] = std::abs(out[k]) * 4.0 / double(n);
    return magnitude;
}

} // namespace widmo::test
