// The frame every benchmark runs on: the largest sensor's size (1300 x 1800) with what an
// intraoral image holds, so that data-dependent code paths see realistic input.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace bench {

constexpr int kWidth = 1300;
constexpr int kHeight = 1800;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;

// An intraoral-like frame: a smooth exposure gradient, bright rounded structures with sharp
// edges (crowns and roots), a dark band, and sensor noise of the given standard deviation.
inline std::vector<uint16_t> MakeFrame16(double noiseSigma) {
    std::vector<uint16_t> f(kPixels);
    std::mt19937 gen(2024);
    std::normal_distribution<double> noise(0.0, noiseSigma);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            double v = 9000.0 + 14000.0 * x / kWidth + 6000.0 * std::sin(y * 0.004);
            for (int t = 0; t < 3; ++t) {
                const double cx = 250.0 + 400.0 * t, cy = 700.0 + 150.0 * t;
                const double dx = (x - cx) / 170.0, dy = (y - cy) / 520.0;
                if (dx * dx + dy * dy < 1.0) v += 22000.0 - 3000.0 * t;
            }
            if (y > 1500 && y < 1560) v *= 0.35;
            v += noise(gen);
            f[static_cast<size_t>(y) * kWidth + x] =
                static_cast<uint16_t>(std::clamp(v, 0.0, 65535.0));
        }
    }
    return f;
}

// The frame of the per-function benchmarks: the noise of a good exposure.
inline const std::vector<uint16_t>& Frame16() {
    static const std::vector<uint16_t> frame = MakeFrame16(180.0);
    return frame;
}

inline const std::vector<uint8_t>& Frame8() {
    static const std::vector<uint8_t> frame = [] {
        std::vector<uint8_t> f(kPixels);
        const auto& s = Frame16();
        for (size_t i = 0; i < kPixels; ++i) f[i] = static_cast<uint8_t>(s[i] >> 8);
        return f;
    }();
    return frame;
}

template <class T>
std::vector<T> Converted(double scale) {
    const std::vector<uint16_t>& f = Frame16();
    std::vector<T> out(kPixels);
    for (size_t i = 0; i < kPixels; ++i) out[i] = static_cast<T>(f[i] * scale);
    return out;
}

}  // namespace bench
