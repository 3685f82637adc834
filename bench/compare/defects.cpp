#include "defects.h"

#include <random>

#include "entries.h"

namespace compare {

std::vector<float> ScatteredDefects() {
    std::vector<float> m(kPixels, 0.0f);
    std::mt19937 gen(7);
    std::uniform_int_distribution<size_t> pick(0, kPixels - 1);
    for (int marked = 0; marked < 3000;) {
        float& p = m[pick(gen)];
        marked += p == 0.0f ? 1 : 0;
        p = 1.0f;
    }
    for (int y = 0; y < kHeight; ++y) m[static_cast<size_t>(y) * kWidth + 517] = 1.0f;
    return m;
}

std::vector<float> RealisticDefects() {
    std::vector<float> m = ScatteredDefects();
    for (int x = 100; x < 900; ++x) m[static_cast<size_t>(1203) * kWidth + x] = 1.0f;
    for (int y = 300; y < 330; ++y) {
        for (int x = 1000; x < 1040; ++x) m[static_cast<size_t>(y) * kWidth + x] = 1.0f;
    }
    return m;
}

}  // namespace compare
