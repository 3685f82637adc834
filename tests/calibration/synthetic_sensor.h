// A small synthetic sensor for the builder's tests: smooth shading and pixel-to-pixel gain, dark
// offsets, noise that grows with the signal, and planted pixels that read what the test wants.
// Exposures are deterministic for a given seed.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <vector>

namespace caltest {

struct SyntheticSensor {
    // What a planted pixel reads, from its gain, the dose, its dark offset and a unit normal draw.
    using Reading = std::function<double(double gain, double dose, double dark, double unit)>;

    int width, height, cut;
    std::vector<float> gain, dark;
    // Few pixels are planted: by index, so that a frame-sized sensor does not carry a function
    // object for every pixel.
    std::map<size_t, Reading> planted;
    std::mt19937 noise;
    // Unit normal draws, taken in turn from a pool: a full frame needs millions of them, and
    // drawing each afresh made the frame-sized tests slow for nothing.
    std::vector<double> normals;
    size_t nextNormal = 0;

    explicit SyntheticSensor(uint32_t seed = 1, int w = 120, int h = 90, int c = 12)
        : width(w),
          height(h),
          cut(c),
          gain(size_t(w) * h),
          dark(gain.size()),
          noise(seed),
          normals(size_t(1) << 16) {
        std::normal_distribution<double> unit(0.0, 1.0);
        for (double& n : normals) {
            n = unit(noise);
        }
        // The shading is a product of a column and a row term, each worked out once.
        std::vector<double> across(static_cast<size_t>(w)), down(static_cast<size_t>(h));
        for (int x = 0; x < w; ++x) across[size_t(x)] = std::sin(double(x) / 23.0);
        for (int y = 0; y < h; ++y) down[size_t(y)] = std::cos(double(y) / 31.0);
        for (size_t i = 0; i < gain.size(); ++i) {
            const double shading = 0.08 * across[i % size_t(w)] * down[i / size_t(w)];
            gain[i] = float((1.0 + shading) * (1.0 + 0.03 * unitNormal()));
            dark[i] = float(50.0 + 5.0 * unitNormal());
        }
    }

    // The pool is walked with an odd stride that changes on every pass, so that consecutive
    // frames do not repeat each other's noise.
    double unitNormal() {
        const size_t mask = normals.size() - 1;
        const double n = normals[nextNormal & mask];
        nextNormal += 2 * (nextNormal >> 16) + 1;
        return n;
    }

    size_t index(int x, int y) const { return size_t(y) * width + x; }
    bool isCut(int x, int y) const { return y + x <= cut || x - y >= width - cut; }
    void plant(int x, int y, Reading reading) { planted[index(x, y)] = std::move(reading); }

    // An ordinary pixel: gain x dose + dark offset, and noise of variance 2 x signal + 36.
    static double Good(double g, double dose, double dark, double unit) {
        return g * dose + dark + std::sqrt(2.0 * g * dose + 36.0) * unit;
    }

    // v clamped to [0, 65535] and rounded half away from zero, as std::round does: in that range
    // adding one half and cutting off the fraction gives the same, except just below one half,
    // where the sum rounds up to 1. The library call took a third of a frame's time.
    static float RoundedSample(double v) {
        const double clamped = std::clamp(v, 0.0, 65535.0);
        return clamped < 0.5 ? 0.0f : static_cast<float>(static_cast<int32_t>(clamped + 0.5));
    }

    std::vector<float> expose(double dose) {
        std::vector<float> frame(gain.size(), 0.0f);
        auto next = planted.begin();  // the first planted pixel not yet passed
        for (int y = 0; y < height; ++y) {
            // The pixels of the row: x + y > cut and x - y < width - cut (see isCut).
            const int first = std::max(0, cut + 1 - y);
            const int end = std::min(width, width - cut + y);
            const size_t rowStart = index(0, y);
            while (next != planted.end() && next->first < rowStart + first) ++next;
            for (int x = first; x < end; ++x) {
                const size_t i = rowStart + x;
                const double unit = unitNormal();
                if (next != planted.end() && next->first == i) {
                    frame[i] = RoundedSample(next->second(gain[i], dose, dark[i], unit));
                    ++next;
                } else {
                    frame[i] = RoundedSample(Good(gain[i], dose, dark[i], unit));
                }
            }
        }
        return frame;
    }
};

inline SyntheticSensor::Reading Stuck(double value) {
    return [value](double, double, double, double) { return value; };
}
// A good pixel with its gain scaled.
inline SyntheticSensor::Reading Scaled(double factor) {
    return [factor](double g, double dose, double dark, double unit) {
        return SyntheticSensor::Good(factor * g, dose, dark, unit);
    };
}

}  // namespace caltest
