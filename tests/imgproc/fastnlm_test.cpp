#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Non-local means computed the slow way: every patch distance summed pixel by pixel, every
// weight from exp directly, accumulated per pixel in displacement order (dy outer, dx inner).
std::vector<uint8_t> ReferenceNlm(const std::vector<uint8_t>& src, int w, int h, float strength, int p, int s) {
    const float k = 1.0f / (strength * strength * static_cast<float>((2 * p + 1) * (2 * p + 1)));
    std::vector<uint8_t> out(src.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float weights = 0.0f, values = 0.0f;
            for (int dy = -s; dy <= s; ++dy)
                for (int dx = -s; dx <= s; ++dx) {
                    int64_t d = 0;
                    for (int v = -p; v <= p; ++v)
                        for (int u = -p; u <= p; ++u) {
                            const int diff = At(src, w, h, x + u, y + v) - At(src, w, h, x + dx + u, y + dy + v);
                            d += diff * diff;
                        }
                    const float weight = static_cast<float>(std::exp(static_cast<double>(-static_cast<float>(d) * k)));
                    weights += weight;
                    values += weight * static_cast<float>(At(src, w, h, x + dx, y + dy));
                }
            out[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(std::min(std::max(values / weights + 0.5f, 0.0f), 255.0f));
        }
    return out;
}

TEST(FastNLM, MatchesPixelByPixelNonLocalMeansInAndOutOfPlace) {
    struct Case { int w, h; float strength; int p, s; };
    const Case cases[] = {
        {9, 7, 12.0f, 1, 2},   // small distances mostly from the table
        {8, 8, 3.0f, 1, 3},    // the chain's settings; most distances beyond the table
        {10, 5, -25.0f, 0, 2},  // single-pixel patches; the sign of h does not matter
        {7, 6, 30.0f, 3, 2},   // p + s = 5: the extension reaches the far edge of the image
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " h=" << c.strength
                                        << " p=" << c.p << " s=" << c.s);
        const std::vector<uint8_t> src = RandomImage<uint8_t>(c.w, c.h, 0, 255, seed++);
        std::vector<uint8_t> dst(src.size(), 0), inPlace = src;
        ASSERT_EQ(FastNLM(const_cast<uint8_t*>(src.data()), dst.data(), c.w, c.h, c.strength, c.p, c.s), 1);
        EXPECT_EQ(dst, ReferenceNlm(src, c.w, c.h, c.strength, c.p, c.s));
        ASSERT_EQ(FastNLM(inPlace.data(), inPlace.data(), c.w, c.h, c.strength, c.p, c.s), 1);
        EXPECT_EQ(inPlace, dst);
    }
}

TEST(FastNLM, RejectsBadArgumentsWithoutWriting) {
    std::vector<uint8_t> src(16, 5), dst(16, 9);
    EXPECT_EQ(FastNLM(nullptr, dst.data(), 4, 4, 3.0f, 1, 3), -1);
    EXPECT_EQ(FastNLM(src.data(), nullptr, 4, 4, 3.0f, 1, 3), -2);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, 0.0f, 1, 3), -3);  // h = 0 has no weights
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, 3.0f, -1, 3), -4);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), -3, 4, 3.0f, 1, 3), 1);  // nothing to do
    EXPECT_EQ(dst, std::vector<uint8_t>(16, 9));
    uint8_t one = 201, result = 0;  // radii wider than a 1 x 1 image
    ASSERT_EQ(FastNLM(&one, &result, 1, 1, 3.0f, 1, 3), 1);
    EXPECT_EQ(result, 201);
}

}  // namespace
