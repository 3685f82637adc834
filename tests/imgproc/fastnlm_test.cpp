#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <vector>

#include "advanced_reference.h"
#include "imgproc/dispatch.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Non-local means computed the slow way: every patch distance summed pixel by pixel, every
// weight from exp directly, accumulated per pixel in displacement order (dy outer, dx inner).
// Needs p + s below the image's width and height (one mirror reflection).
std::vector<uint8_t> ReferenceNlm(const std::vector<uint8_t>& src, int w, int h, float strength,
                                  int p, int s) {
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
                            const int diff =
                                At(src, w, h, x + u, y + v) - At(src, w, h, x + dx + u, y + dy + v);
                            d += diff * diff;
                        }
                    const float weight = static_cast<float>(
                        std::exp(static_cast<double>(-static_cast<float>(d) * k)));
                    weights += weight;
                    values += weight * static_cast<float>(At(src, w, h, x + dx, y + dy));
                }
            out[static_cast<size_t>(y) * w + x] =
                static_cast<uint8_t>(std::min(std::max(values / weights + 0.5f, 0.0f), 255.0f));
        }
    return out;
}

// Runs FastNLM out of place, the implementation level capped at `level`: 0 the straightforward
// one, 1 the fast one in plain code, 2 with vector code where the processor has it.
std::vector<uint8_t> Filtered(int level, const std::vector<uint8_t>& src, int w, int h,
                              float strength, int p, int s) {
    veltrano::SetImplCapForTesting(level);
    std::vector<uint8_t> out(src.size(), 0);
    EXPECT_EQ(FastNLM(const_cast<uint8_t*>(src.data()), out.data(), w, h, strength, p, s), 1);
    veltrano::SetImplCapForTesting(-1);
    return out;
}

// The same out of place and in place; both must agree.
std::vector<uint8_t> Denoised(int level, const std::vector<uint8_t>& src, int w, int h,
                              float strength, int p, int s) {
    const std::vector<uint8_t> out = Filtered(level, src, w, h, strength, p, s);
    std::vector<uint8_t> inPlace = src;
    veltrano::SetImplCapForTesting(level);
    EXPECT_EQ(FastNLM(inPlace.data(), inPlace.data(), w, h, strength, p, s), 1);
    veltrano::SetImplCapForTesting(-1);
    EXPECT_EQ(inPlace, out) << "level " << level;
    return out;
}

constexpr int kLevels = 3;

TEST(FastNLM, EveryLevelMatchesPixelByPixelNonLocalMeans) {
    struct Case {
        int w, h;
        float strength;
        int p, s;
    };
    const Case cases[] = {
        {9, 7, 12.0f, 1, 2},    // small distances mostly from the table
        {8, 8, 3.0f, 1, 3},     // most distances have weight 0
        {10, 5, -25.0f, 0, 2},  // single-pixel patches; the sign of h does not matter
        {7, 6, 30.0f, 3, 2},    // p + s = 5: the extension reaches the far edge of the image
        {19, 9, 40.0f, 1, 3},   // most distances past the table with weights above 0
        {21, 11, 7.0f, 2, 3},   // the default chain's strength
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.w << "x" << c.h << " h=" << c.strength << " p=" << c.p << " s=" << c.s);
        const std::vector<uint8_t> src = RandomImage<uint8_t>(c.w, c.h, 0, 255, seed++);
        const std::vector<uint8_t> expected = ReferenceNlm(src, c.w, c.h, c.strength, c.p, c.s);
        for (int level = 0; level < kLevels; ++level)
            EXPECT_EQ(Denoised(level, src, c.w, c.h, c.strength, c.p, c.s), expected)
                << "level " << level;
    }
}

// The fast levels against the straightforward one, over odd sizes (vector widths and their
// remainders), radii from 0 to past the image, and strengths from all-zero to all-table weights.
// Out of place only: every call builds a table of up to 65536 exponentials, and the calls in
// place are compared above and on the two largest cases below. A search radius of 0 leaves only
// the pixel itself, of weight 1, and gives the source back whatever the patch: it runs with the
// largest patch radius only, except on a single pixel, which cuts every radius to 0 and runs with
// search radii 0 and 1 only (every strength in turn).
TEST(FastNLM, FastLevelsMatchTheStraightforwardOne) {
    struct Size {
        int w, h;
    };
    const Size sizes[] = {{1, 1}, {1, 7}, {13, 1}, {3, 5}, {17, 11}, {37, 9}, {23, 29}};
    // Single pixels, the narrowest patch, one wider than the nine columns the vector distances
    // add directly, one past the image; patches of 5 run with every level in the case above.
    const int patchRadii[] = {0, 1, 6, 40};
    const int searchRadii[] = {0, 1, 3, 12};
    const float strengths[] = {2.0f, 9.0f, 25.0f, 60.0f, 1e4f};
    unsigned seed = 100;
    // Each size and pair of radii takes one of the strengths in turn, shifted from size to size.
    size_t turn = 0;
    for (const Size& z : sizes) {
        ++turn;
        const std::vector<uint8_t> src = RandomImage<uint8_t>(z.w, z.h, 0, 255, seed++);
        for (int p : patchRadii)
            for (int s : searchRadii) {
                const float strength = strengths[turn++ % std::size(strengths)];
                if (z.w * z.h == 1 ? s > 1 : s == 0 && p != patchRadii[3]) continue;
                SCOPED_TRACE(testing::Message()
                             << z.w << "x" << z.h << " h=" << strength << " p=" << p << " s=" << s);
                const std::vector<uint8_t> expected = Filtered(0, src, z.w, z.h, strength, p, s);
                if (s == 0) {
                    EXPECT_EQ(expected, src);
                }
                for (int level = 1; level < kLevels; ++level)
                    ASSERT_EQ(Filtered(level, src, z.w, z.h, strength, p, s), expected)
                        << "level " << level;
            }
    }
    const auto compare = [](const std::vector<uint8_t>& src, int w, int h, float strength, int p,
                            int s) {
        SCOPED_TRACE(testing::Message() << w << "x" << h << " p=" << p << " s=" << s);
        const std::vector<uint8_t> expected = Denoised(0, src, w, h, strength, p, s);
        for (int level = 1; level < kLevels; ++level)
            EXPECT_EQ(Denoised(level, src, w, h, strength, p, s), expected) << "level " << level;
    };
    // Patches of 279 x 279 (p 150 cut to 139) over columns that alternate between 0..3 and
    // 252..255: every distance across columns is above 2^32, so only the fast path's 64-bit sums
    // give it right (32-bit sums wrap to a far smaller distance and a far larger weight).
    {
        const int w = 140, h = 140;
        std::vector<uint8_t> src = RandomImage<uint8_t>(w, h, 0, 3, 200);
        for (int y = 0; y < h; ++y)
            for (int x = 1; x < w; x += 2) src[static_cast<size_t>(y) * w + x] ^= 255;
        compare(src, w, h, 300.0f, 150, 1);
    }
    // A search window of 459 x 5 (s 229 cut to 2 down) keeps more column sums than fit at once:
    // every displacement on its own, in three groups. Single-pixel patches keep every distance in
    // the weight table.
    compare(RandomImage<uint8_t>(230, 3, 0, 255, 201), 230, 3, 20.0f, 0, 229);
}

// A radius beyond the image's size minus one is cut to it on that axis, so the cost stays that of
// the image's own size: a search radius of 1024 on a small image does not run for minutes, nor
// does a patch radius of 1024 make every distance cover millions of mirrored pixels.
TEST(FastNLM, RadiiBeyondTheImageAreCutToIt) {
    const std::vector<uint8_t> square = RandomImage<uint8_t>(12, 12, 0, 255, 7);
    const std::vector<uint8_t> column = RandomImage<uint8_t>(1, 9, 0, 255, 8);
    for (int level = 0; level < kLevels; ++level) {
        SCOPED_TRACE(testing::Message() << "level " << level);
        EXPECT_EQ(Denoised(level, square, 12, 12, 20.0f, 1024, 2),
                  Denoised(level, square, 12, 12, 20.0f, 11, 2));
        EXPECT_EQ(Denoised(level, square, 12, 12, 20.0f, 1, 1024),
                  Denoised(level, square, 12, 12, 20.0f, 1, 11));
        EXPECT_EQ(Denoised(level, column, 1, 9, 20.0f, 1000, 1000),
                  Denoised(level, column, 1, 9, 20.0f, 8, 8));
        EXPECT_EQ(Denoised(level, {201}, 1, 1, 3.0f, 1024, 1024), std::vector<uint8_t>{201});
    }
}

TEST(FastNLM, RejectsBadArgumentsWithoutWriting) {
    std::vector<uint8_t> src(16, 5), dst(16, 9);
    EXPECT_EQ(FastNLM(nullptr, dst.data(), 4, 4, 3.0f, 1, 3), -1);
    EXPECT_EQ(FastNLM(src.data(), nullptr, 4, 4, 3.0f, 1, 3), -2);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, 0.0f, 1, 3), -3);  // h = 0 has no weights
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, NAN, 1, 3), -3);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, 3.0f, -1, 3), -4);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 4, 4, 3.0f, 1, 1025), -4);
    EXPECT_EQ(FastNLM(src.data(), dst.data(), -3, 4, 3.0f, 1, 3), 1);  // nothing to do
    // More than 2^28 pixels is refused before the buffers (far smaller here) are read.
    EXPECT_EQ(FastNLM(src.data(), dst.data(), 1 << 15, (1 << 13) + 1, 3.0f, 1, 3), -5);
    EXPECT_EQ(dst, std::vector<uint8_t>(16, 9));
}

}  // namespace
