// Small helpers for the reference computations of the enhancement and filter tests: random test
// images and the mirror border written out the plain way, independent of the library's helpers.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace advanced_ref {

// Mirror about the edge pixel without repeating it (a b c d e -> c b | a b c d e | d c), for
// positions at most n - 1 outside the axis.
inline int Reflect(int i, int n) {
    if (n == 1) return 0;
    if (i < 0) return -i;
    if (i >= n) return 2 * n - 2 - i;
    return i;
}

template <class T>
std::vector<T> RandomImage(int width, int height, double low, double high, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<T> out(static_cast<size_t>(width) * height);
    if constexpr (std::is_floating_point_v<T>) {
        std::uniform_real_distribution<double> dist(low, high);
        for (T& v : out) v = static_cast<T>(dist(gen));
    } else {
        std::uniform_int_distribution<long long> dist(static_cast<long long>(low),
                                                      static_cast<long long>(high));
        for (T& v : out) v = static_cast<T>(dist(gen));
    }
    return out;
}

// Pixel (x, y) of a row-major image, with the mirror border on both axes.
template <class T>
T At(const std::vector<T>& img, int width, int height, int x, int y) {
    return img[static_cast<size_t>(Reflect(y, height)) * width + Reflect(x, width)];
}

}  // namespace advanced_ref
