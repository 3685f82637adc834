// A small synthetic sensor for the builder's tests: smooth shading and pixel-to-pixel gain,
// dark offsets, noise that grows with the signal, and defects of every kind planted where the
// test wants them. Exposures are deterministic for a given seed.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

namespace caltest {

struct SyntheticSensor {
    int width = 120;
    int height = 90;
    int cut = 12;
    std::vector<float> gain;
    std::vector<float> dark;
    // A planted pixel: what it reads for a dose, ignoring the sensor's own model (noise included).
    std::vector<std::function<float(double dose, std::mt19937& noise)>> planted;
    std::mt19937 noise;

    explicit SyntheticSensor(uint32_t seed = 1, int w = 120, int h = 90, int c = 12)
        : width(w), height(h), cut(c), noise(seed) {
        const size_t n = static_cast<size_t>(w) * h;
        gain.resize(n);
        dark.resize(n);
        planted.resize(n);
        std::normal_distribution<double> pixel(0.0, 0.03);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const size_t i = static_cast<size_t>(y) * w + x;
                const double shading = 1.0 + 0.08 * std::sin(x / 23.0) * std::cos(y / 31.0);
                gain[i] = static_cast<float>(shading * (1.0 + pixel(noise)));
                dark[i] = static_cast<float>(50.0 + 5.0 * pixel(noise) / 0.03);
            }
        }
    }

    size_t index(int x, int y) const { return static_cast<size_t>(y) * width + x; }
    bool isCut(int x, int y) const { return y + x <= cut || x - y >= width - cut; }

    // What a good pixel reads on average.
    double expected(size_t i, double dose) const { return gain[i] * dose + dark[i]; }

    std::vector<float> expose(double dose) {
        std::vector<float> frame(gain.size(), 0.0f);
        std::normal_distribution<double> unit(0.0, 1.0);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const size_t i = index(x, y);
                if (isCut(x, y)) continue;  // no pixel there
                double v = planted[i] ? planted[i](dose, noise)
                                      : expected(i, dose) +
                                            std::sqrt(2.0 * gain[i] * dose + 36.0) * unit(noise);
                frame[i] = static_cast<float>(std::round(std::clamp(v, 0.0, 65535.0)));
            }
        }
        return frame;
    }

    // Plants a pixel stuck at a value, one that reads a fraction of what it should, and so on.
    void stuck(int x, int y, float value) {
        planted[index(x, y)] = [value](double, std::mt19937&) { return value; };
    }
    void scaled(int x, int y, double factor) {
        const size_t i = index(x, y);
        planted[i] = [this, i, factor](double dose, std::mt19937& n) {
            std::normal_distribution<double> unit(0.0, 1.0);
            return static_cast<float>(factor * gain[i] * dose + dark[i] +
                                      std::sqrt(2.0 * factor * gain[i] * dose + 36.0) * unit(n));
        };
    }
    // Reads slope x dose + intercept (times its gain): follows the dose, but too weakly.
    void weakResponse(int x, int y, double slope, double intercept) {
        const size_t i = index(x, y);
        planted[i] = [this, i, slope, intercept](double dose, std::mt19937&) {
            return static_cast<float>(gain[i] * (slope * dose + intercept) + dark[i]);
        };
    }
    void noisy(int x, int y, double factor) {
        const size_t i = index(x, y);
        planted[i] = [this, i, factor](double dose, std::mt19937& n) {
            std::normal_distribution<double> unit(0.0, 1.0);
            return static_cast<float>(expected(i, dose) +
                                      factor * std::sqrt(2.0 * gain[i] * dose + 36.0) * unit(n));
        };
    }
    // Follows the dose exactly, without any noise: a pixel that does not see the radiation
    // but copies its neighbours' mean would, for instance.
    void frozen(int x, int y) {
        const size_t i = index(x, y);
        planted[i] = [this, i](double dose, std::mt19937&) {
            return static_cast<float>(std::round(expected(i, dose)));
        };
    }
};

}  // namespace caltest
