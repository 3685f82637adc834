// Small helpers for the reference computations of the enhancement and filter tests: random test
// images and the mirror border written out the plain way, independent of the library's helpers.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace advanced_ref {

// Mirror about the edge pixel without repeating it (a b c d e -> c b | a b c d e | d c), for
// positions at most n - 1 outside the axis.
inline int Reflect(int i, int n) { return n == 1 ? 0 : i < 0 ? -i : i >= n ? 2 * n - 2 - i : i; }

template <class T>
std::vector<T> RandomImage(int width, int height, double low, double high, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<T> out(static_cast<size_t>(width) * height);
    std::uniform_real_distribution<double> dist(low,
                                                high + (std::is_floating_point_v<T> ? 0.0 : 0.999));
    for (T& v : out) v = static_cast<T>(dist(gen));  // integers: every value from low to high
    return out;
}

// Pixel (x, y) of a row-major image, with the mirror border on both axes.
template <class T>
T At(const std::vector<T>& img, int width, int height, int x, int y) {
    return img[static_cast<size_t>(Reflect(y, height)) * width + Reflect(x, width)];
}

}  // namespace advanced_ref
