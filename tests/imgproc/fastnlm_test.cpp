#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Non-local means computed the slow way: every patch distance summed pixel by pixel, every
// weight from exp directly, accumulated per pixel in displacement order (dy outer, dx inner).
std::vector<uint8_t> ReferenceNlm(const std::vector<uint8_t>& src, int w, int h, float strength,
                                  int p, int s) {
    const int side = 2 * p + 1;
    const float k = 1.0f / (strength * strength * static_cast<float>(side * side));
    std::vector<uint8_t> out(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float weights = 0.0f;
            float values = 0.0f;
            for (int dy = -s; dy <= s; ++dy) {
                for (int dx = -s; dx <= s; ++dx) {
                    uint64_t d = 0;
                    for (int v = -p; v <= p; ++v) {
                        for (int u = -p; u <= p; ++u) {
                            const int a = At(src, w, h, x + u, y + v);
                            const int b = At(src, w, h, x + dx + u, y + dy + v);
                            d += static_cast<uint64_t>((a - b) * (a - b));
                        }
                    }
                    const float weight =
                        static_cast<float>(std::exp(static_cast<double>(-static_cast<float>(d) * k)));
                    weights += weight;
                    values += weight * static_cast<float>(At(src, w, h, x + dx, y + dy));
                }
            }
            float v = values / weights + 0.5f;
            if (v >= 255.0f) v = 255.0f;
            if (v <= 0.0f) v = 0.0f;
            out[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(v);
        }
    }
    return out;
}

TEST(FastNLM, MatchesPixelByPixelNonLocalMeans) {
    struct Case { int w, h; float strength; int p, s; };
    const Case cases[] = {
        {9, 7, 12.0f, 1, 2},   // small distances mostly from the table
        {8, 8, 3.0f, 1, 3},    // the chain's settings; most distances beyond the table
        {6, 11, 40.0f, 2, 1},  // patch wider than the search window
        {10, 5, 25.0f, 0, 2},  // single-pixel patches
        {5, 5, -20.0f, 1, 2},  // the sign of h does not matter
        {7, 6, 30.0f, 3, 2},   // p + s = 5: the extension reaches the far edge of the image
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " h=" << c.strength
                                        << " p=" << c.p << " s=" << c.s);
        const std::vector<uint8_t> src = RandomImage<uint8_t>(c.w, c.h, 0, 255, seed++);
        std::vector<uint8_t> dst(src.size(), 0);
        std::vector<uint8_t> copy = src;
        ASSERT_EQ(FastNLM(copy.data(), dst.data(), c.w, c.h, c.strength, c.p, c.s), 1);
        EXPECT_EQ(dst, ReferenceNlm(src, c.w, c.h, c.strength, c.p, c.s));
        EXPECT_EQ(copy, src);  // the source is not written out of place
    }
}

TEST(FastNLM, InPlaceGivesTheSameResultAsOutOfPlace) {
    const std::vector<uint8_t> src = RandomImage<uint8_t>(23, 17, 40, 200, 7);
    std::vector<uint8_t> out(src.size());
    std::vector<uint8_t> inPlace = src;
    ASSERT_EQ(FastNLM(const_cast<uint8_t*>(src.data()), out.data(), 23, 17, 15.0f, 1, 3), 1);
    ASSERT_EQ(FastNLM(inPlace.data(), inPlace.data(), 23, 17, 15.0f, 1, 3), 1);
    EXPECT_EQ(inPlace, out);
    EXPECT_NE(out, src);  // the noise was actually smoothed
}

TEST(FastNLM, LeavesImagesWithNothingToAverageUnchanged) {
    // A constant image: every distance 0, every weight 1.
    std::vector<uint8_t> flat(12 * 9, 97);
    std::vector<uint8_t> out(flat.size(), 0);
    ASSERT_EQ(FastNLM(flat.data(), out.data(), 12, 9, 3.0f, 1, 3), 1);
    EXPECT_EQ(out, flat);

    // A search radius of 0 keeps only the pixel itself.
    std::vector<uint8_t> noisy = RandomImage<uint8_t>(8, 6, 0, 255, 3);
    std::vector<uint8_t> kept(noisy.size(), 0);
    ASSERT_EQ(FastNLM(noisy.data(), kept.data(), 8, 6, 10.0f, 2, 0), 1);
    EXPECT_EQ(kept, noisy);

    // A single pixel with the chain's radii, far wider than the image.
    uint8_t one = 201, result = 0;
    ASSERT_EQ(FastNLM(&one, &result, 1, 1, 3.0f, 1, 3), 1);
    EXPECT_EQ(result, 201);
}

TEST(FastNLM, RadiiWiderThanTheImageStayWithinItsValues) {
    // The extension repeats mirrored pixels; the result must still be a weighted mean of them.
    std::vector<uint8_t> src = {10, 200, 30, 40, 250, 60};
    std::vector<uint8_t> dst(src.size(), 0);
    ASSERT_EQ(FastNLM(src.data(), dst.data(), 3, 2, 500.0f, 4, 5), 1);
    for (uint8_t v : dst) {
        EXPECT_GE(v, 10);
        EXPECT_LE(v, 250);
    }
}

TEST(FastNLM, RejectsBadArgumentsWithoutWriting) {
    std::vector<uint8_t> src(16, 5), dst(16, 9);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case { uint8_t* s; uint8_t* d; float h; int p, r; int expected; };
    const Case cases[] = {
        {nullptr, dst.data(), 3.0f, 1, 3, -1},
        {src.data(), nullptr, 3.0f, 1, 3, -2},
        {src.data(), dst.data(), 0.0f, 1, 3, -3},
        {src.data(), dst.data(), nan, 1, 3, -3},
        {src.data(), dst.data(), 1e-30f, 1, 3, -3},  // h * h underflows to 0
        {src.data(), dst.data(), 3.0f, -1, 3, -4},
        {src.data(), dst.data(), 3.0f, 1, -2, -4},
        {src.data(), dst.data(), 3.0f, 1, 1025, -4},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FastNLM(c.s, c.d, 4, 4, c.h, c.p, c.r), c.expected)
            << "h=" << c.h << " p=" << c.p << " s=" << c.r;
    }
    for (int size : {0, -3}) {
        EXPECT_EQ(FastNLM(src.data(), dst.data(), size, 4, 3.0f, 1, 3), 1);
        EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, size, 3.0f, 1, 3), 1);
    }
    EXPECT_EQ(dst, std::vector<uint8_t>(16, 9));
}

}  // namespace
