#include <gtest/gtest.h>

#include <cstdint>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "advanced_reference.h"
#include "impl_levels.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Plain 2-D correlation: kernel rows outer, columns inner, single-precision sum per pixel.
std::vector<float> Correlate(const std::vector<float>& src, int w, int h,
                             const std::vector<float>& k, int kw, int kh) {
    std::vector<float> out(src.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float sum = 0.0f;
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j)
                    sum += k[i * kw + j] * At(src, w, h, x + j - kw / 2, y + i - kh / 2);
            out[static_cast<size_t>(y) * w + x] = sum;
        }
    return out;
}

TEST(ImageConv, CorrelatesWithTheMirroredNeighbourhoodAndSplitsSeparableKernels) {
    // `used` is the kernel the result must match: a separable split gives the rows above the
    // reference row (the first whose first weight is non-zero) factor 0 without looking at them.
    struct Case {
        int kw, kh;
        std::vector<float> kernel, used;
        bool separable;
    };
    const std::vector<float> random = RandomImage<float>(4, 2, -1.0, 2.0, 2);
    const Case cases[] = {
        {4, 2, random, random, false},        // even sizes: centre at kw/2, kh/2; not separable
        {3, 1, {0, 0, 1}, {0, 0, 1}, false},  // correlation: each pixel takes its right neighbour
        {3, 3, {1, 2, 1, 2, 4, 2, 0.5f, 1, 0.5f}, {1, 2, 1, 2, 4, 2, 0.5f, 1, 0.5f}, true},
        {3,
         3,
         {0, 1, 0, 1, 1, 1, 2, 2, 2},
         {0, 0, 0, 1, 1, 1, 2, 2, 2},
         true},                                                 // the top row is lost
        {3, 2, {0, 2, 1, 0, 4, 2}, {0, 2, 1, 0, 4, 2}, false},  // no row starts non-zero
    };
    const int w = 11, h = 9;
    const std::vector<float> src = RandomImage<float>(w, h, 0.0, 1000.0, 5);
    std::vector<uint8_t> mask(src.size());
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = i % 3 == 0 ? 0 : 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.kw << "x" << c.kh << " kernel, first weight " << c.kernel[0]);
        std::vector<float> dst(src.size()), masked(src.size()), inPlace = src;
        ASSERT_EQ(ImageConv(src.data(), dst.data(), c.kernel.data(), w, h, c.kw, c.kh, nullptr), 1);
        const std::vector<float> expected = Correlate(src, w, h, c.used, c.kw, c.kh);
        for (size_t i = 0; i < dst.size(); ++i) EXPECT_NEAR(dst[i], expected[i], 0.05) << i;
        // The split ignores the mask; otherwise masked-out pixels keep the source.
        ASSERT_EQ(
            ImageConv(src.data(), masked.data(), c.kernel.data(), w, h, c.kw, c.kh, mask.data()),
            1);
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_EQ(masked[i], mask[i] == 0 && !c.separable ? src[i] : dst[i]) << i;
        ASSERT_EQ(ImageConv(inPlace.data(), inPlace.data(), c.kernel.data(), w, h, c.kw, c.kh,
                            mask.data()),
                  1);
        EXPECT_EQ(inPlace, masked);
    }
}

TEST(ImageConv, WideKernelsAndBadArguments) {
    std::vector<float> flat(6, 5.0f), dst(4, 7.0f);
    const float two = 2.0f;
    EXPECT_EQ(ImageConv(nullptr, dst.data(), &two, 2, 2, 1, 1, nullptr), -1);
    EXPECT_EQ(ImageConv(flat.data(), nullptr, &two, 2, 2, 1, 1, nullptr), -2);
    EXPECT_EQ(ImageConv(flat.data(), dst.data(), nullptr, 2, 2, 1, 1, nullptr), -3);
    EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, 2, 2, 0, 1, nullptr), -4);
    EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, 2, -1, 1, 1, nullptr), -4);
    EXPECT_EQ(dst, std::vector<float>(4, 7.0f));
}

// 100s with 190 in the middle, radius 1, amount 0.5: src * 5.5 - 0.5 * (undivided 3 x 3 sum).
// The middle sums 990 -> 550; an edge pixel sees the middle twice (mirrored), 1080 -> 10; a
// corner four times, 1260 -> -80 -> 0. Normalised, -80..550 stretches to 0..65535 first, so
// the edges become 90 / 630 * 65535 = 9362.1 -> 9362.
TEST(UsmBox, SharpensWithTheUndividedWindowSum) {
    for (bool normalise : {false, true}) {
        std::vector<uint16_t> src(9, 100), dst(9);
        src[4] = 190;
        const uint16_t edge = normalise ? 9362 : 10, middle = normalise ? 65535 : 550;
        ASSERT_EQ(USM_BOX(src.data(), dst.data(), 3, 3, 1, 0.5f, normalise), 1);
        EXPECT_EQ(dst, (std::vector<uint16_t>{0, edge, 0, edge, middle, edge, 0, edge, 0}))
            << normalise;
        ASSERT_EQ(USM_BOX(src.data(), src.data(), 3, 3, 1, 0.5f, normalise), 1);
        EXPECT_EQ(src, dst);
    }
    // A constant image stays as it is, normalised or not (normalising a constant result exits
    // early).
    std::vector<uint16_t> flat(30, 1234), out(30);
    ASSERT_EQ(USM_BOX(flat.data(), out.data(), 6, 5, 2, 3.0f, true), 1);
    EXPECT_EQ(out, flat);
    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_BOX(nullptr, dst.data(), 2, 2, 1, 0.5f, false), -1);
    EXPECT_EQ(USM_BOX(s4.data(), nullptr, 2, 2, 1, 0.5f, false), -2);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 0, 2, 1, 0.5f, false), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
}

TEST(UsmEx, RunsTheBoxMaskWithTheRecordOrTheIniFileSettings) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(12, 10, 0, 50000, 45), viaRecord(120),
                          direct(120);
    struUSMParam p;
    p.r = 2, p.lam = 1.25f, p.isNeedNorm = 1;
    ASSERT_EQ(USM_EX(src.data(), viaRecord.data(), 12, 10, 4, &p, nullptr), 1);
    ASSERT_EQ(USM_BOX(src.data(), direct.data(), 12, 10, 2, 1.25f, true), 1);
    EXPECT_EQ(viaRecord, direct);
    // The settings live in the non-local-means section of the file.
    const char* ini = "usm_test_settings.ini";
    ASSERT_EQ(WriteInt_INI("struFastNLMParam", "r", 3, ini), 1);
    ASSERT_EQ(WriteFloat_INI("struFastNLMParam", "lam", 0.75f, ini), 1);
    ASSERT_EQ(WriteInt_INI("struFastNLMParam", "isNeedNorm", 0, ini), 1);
    ASSERT_EQ(USM_EX(src.data(), viaRecord.data(), 12, 10, 4, &p, ini), 1);
    ASSERT_EQ(USM_BOX(src.data(), direct.data(), 12, 10, 3, 0.75f, false), 1);
    EXPECT_EQ(viaRecord, direct);
    EXPECT_EQ(p.r, 3);
    std::remove(ini);
    EXPECT_EQ(USM_EX(nullptr, direct.data(), 2, 2, 4, &p, nullptr), -1);
    EXPECT_EQ(USM_EX(src.data(), nullptr, 2, 2, 4, &p, nullptr), -2);
    EXPECT_EQ(USM_EX(src.data(), direct.data(), 2, 2, 3, &p, nullptr), -3);
}

// The row 0 100 0 (a single row, so every kernel row reads it) with radius 1 and sigma 1: the
// centre kernel column sums to g = 1 + 2 e^-0.5 = 2.2131, each side column to e^-0.5 g. The
// middle correlates to 100 g = 221.31, each edge (mirroring the middle on both sides) to
// 2 * 100 e^-0.5 g = 268.46, and S = g^2 = 4.8976. With amount 1 the middle becomes
// 100 * 5.8976 - 221.31 = 368.5 -> 368 and the edges clamp to 0. The mask marks
// |src - correlation| >= 200: the edges (268.46) but not the middle (121.31).
TEST(UsmGaussian, SharpensWithTheUnnormalisedGaussianAndFillsTheMask) {
    std::vector<uint16_t> row = {0, 100, 0}, dst(3, 9);
    std::vector<uint8_t> rowMask(3, 77);
    ASSERT_EQ(USM_Gaussian(row.data(), dst.data(), 3, 1, 1, 1.0f, 200, 1.0f, rowMask.data()), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{0, 368, 0}));
    EXPECT_EQ(rowMask, (std::vector<uint8_t>{1, 0, 1}));
    ASSERT_EQ(USM_Gaussian(row.data(), row.data(), 3, 1, 1, 1.0f, 0, 1.0f, nullptr), 1);
    EXPECT_EQ(row, dst);
    // The mask does not restrict the sharpening: a Gaussian kernel is split into two passes.
    std::vector<uint16_t> src = RandomImage<uint16_t>(10, 8, 0, 4095, 52), a(80), b(80);
    std::vector<uint8_t> mask(80);
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 10, 8, 2, 1.5f, 0, 1.2f, nullptr), 1);
    ASSERT_EQ(USM_Gaussian(src.data(), b.data(), 10, 8, 2, 1.5f, 15000, 1.2f, mask.data()), 1);
    EXPECT_EQ(a, b);
}

TEST(UsmGaussian, SigmaFallbacksAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(9, 9, 0, 65535, 71), a(81), b(81);
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 2, 0.7f, 0, 0.0f, nullptr), 1);
    ASSERT_EQ(USM_Gaussian(src.data(), b.data(), 9, 9, 2, 0.7f, 0, 1.0f, nullptr), 1);
    EXPECT_EQ(a, b);  // sigma 0 acts as 1
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 2, 0.7f, 0, -2.5f, nullptr), 1);
    ASSERT_EQ(USM_Gaussian(src.data(), b.data(), 9, 9, 2, 0.7f, 0, 2.5f, nullptr), 1);
    EXPECT_EQ(a, b);  // sigma enters squared
    // A sigma so small that 2 sigma^2 underflows leaves the centre weight alone: src * 1.5 - 0.5 *
    // src.
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 1, 0.5f, 0, 1e-30f, nullptr), 1);
    EXPECT_EQ(a, src);
    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_Gaussian(nullptr, dst.data(), 2, 2, 1, 0.5f, 0, 1.0f, nullptr), -1);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, 2, 0, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 0, 2, 1, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
}

// ---- fast paths against the straightforward implementation ------------------------------------

using impl_levels::AtEachLevel;
using impl_levels::SameBits;

// Separable kernels (a Gaussian, one with a zero row above its first usable row, 1 x n and n x 1),
// general ones with and without zero weights, even sizes, and kernels wider than the smaller
// images; each on images of odd sizes with and without an infinity (which keeps the zero-weight
// taps in the sum), with and without a mask, in place and out of place.
TEST(ImageConvLevels, EveryLevelGivesTheSameBits) {
    struct Case {
        int kw, kh;
        std::vector<float> kernel;
    };
    std::vector<Case> cases = {{5, 5, {}},
                               {3, 3, {0, 0, 0, 1, 2, 1, 2, 4, 2}},
                               {4, 2, RandomImage<float>(4, 2, -1.0, 1.0, 81)},
                               {7, 1, RandomImage<float>(7, 1, -1.0, 1.0, 82)},
                               {1, 6, RandomImage<float>(1, 6, -1.0, 1.0, 83)},
                               {5, 5, RandomImage<float>(5, 5, -1.5, 2.0, 84)},
                               {5, 3, RandomImage<float>(5, 3, -1.0, 1.0, 85)},
                               {9, 9, RandomImage<float>(9, 9, -1.0, 1.0, 86)}};
    for (int i = 0; i < 25; ++i)
        cases[0].kernel.push_back(std::exp(
            -static_cast<float>((i / 5 - 2) * (i / 5 - 2) + (i % 5 - 2) * (i % 5 - 2)) / 3.0f));
    for (size_t i = 0; i < cases[6].kernel.size(); i += 3)
        cases[6].kernel[i] = 0.0f;  // zero weights
    for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
        std::vector<float> src = RandomImage<float>(size.width, size.height, -2000.0, 60000.0, 87);
        std::vector<uint8_t> mask(src.size());
        for (size_t i = 0; i < mask.size(); ++i) mask[i] = i % 3 == 0 ? 0 : 1;
        for (bool withInfinity : {false, true}) {
            if (withInfinity) src[src.size() / 2] = std::numeric_limits<float>::infinity();
            for (const Case& c : cases) {
                SCOPED_TRACE(testing::Message()
                             << size.width << "x" << size.height << " kernel " << c.kw << "x"
                             << c.kh << (withInfinity ? " with an infinity" : ""));
                for (const uint8_t* m : {static_cast<const uint8_t*>(nullptr),
                                         static_cast<const uint8_t*>(mask.data())}) {
                    const auto out = AtEachLevel([&] {
                        std::vector<float> o(src.size()), inPlace = src;
                        EXPECT_EQ(ImageConv(src.data(), o.data(), c.kernel.data(), size.width,
                                            size.height, c.kw, c.kh, m),
                                  1);
                        EXPECT_EQ(ImageConv(inPlace.data(), inPlace.data(), c.kernel.data(),
                                            size.width, size.height, c.kw, c.kh, m),
                                  1);
                        EXPECT_TRUE(SameBits(inPlace, o));
                        return o;
                    });
                    EXPECT_TRUE(SameBits(out[0], out[1])) << (m ? "masked" : "");
                    EXPECT_TRUE(SameBits(out[0], out[2])) << (m ? "masked" : "");
                }
            }
        }
    }
}

// Radii 0 to 7 sum exactly in integers; 8 and 10 keep the float running sums.
TEST(UsmBoxLevels, EveryLevelGivesTheSameBits) {
    for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
        const std::vector<uint16_t> src =
            RandomImage<uint16_t>(size.width, size.height, 0, 65535, 91);
        for (int r : {0, 1, 2, 7, 8, 10}) {
            for (bool normalise : {false, true}) {
                for (float amount : {0.04f, 1.7f}) {
                    const auto out = AtEachLevel([&] {
                        std::vector<uint16_t> o(src.size()), inPlace = src;
                        EXPECT_EQ(USM_BOX(const_cast<uint16_t*>(src.data()), o.data(), size.width,
                                          size.height, r, amount, normalise),
                                  1);
                        EXPECT_EQ(USM_BOX(inPlace.data(), inPlace.data(), size.width, size.height,
                                          r, amount, normalise),
                                  1);
                        EXPECT_EQ(inPlace, o);
                        return o;
                    });
                    EXPECT_EQ(out[0], out[1])
                        << size.width << "x" << size.height << " r " << r << " " << normalise;
                    EXPECT_EQ(out[0], out[2])
                        << size.width << "x" << size.height << " r " << r << " " << normalise;
                }
            }
        }
    }
}

TEST(UsmGaussianLevels, EveryLevelGivesTheSameBitsAndTheSameMask) {
    struct Case {
        int radius;
        float sigma;
        float amount;
        int threshold;
    };
    const Case cases[] = {
        {1, 1.0f, 0.5f, 200},
        {2, 1.0f, 0.04f, 500},
        {2, 0.3f, 1.5f, 0},
        {5, 2.5f, 0.8f, 1000},
        {20, 1.0f, 0.6f, 300}};  // at sigma 1 a radius of 20 underflows: not separable
    for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
        const std::vector<uint16_t> src =
            RandomImage<uint16_t>(size.width, size.height, 0, 65535, 93);
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message()
                         << size.width << "x" << size.height << " radius " << c.radius);
            const auto out = AtEachLevel([&] {
                std::vector<uint16_t> o(src.size()), masked(src.size()), inPlace = src;
                std::vector<uint8_t> mask(src.size(), 9);
                EXPECT_EQ(
                    USM_Gaussian(const_cast<uint16_t*>(src.data()), o.data(), size.width,
                                 size.height, c.radius, c.amount, c.threshold, c.sigma, nullptr),
                    1);
                EXPECT_EQ(USM_Gaussian(const_cast<uint16_t*>(src.data()), masked.data(), size.width,
                                       size.height, c.radius, c.amount, c.threshold, c.sigma,
                                       mask.data()),
                          1);
                EXPECT_EQ(USM_Gaussian(inPlace.data(), inPlace.data(), size.width, size.height,
                                       c.radius, c.amount, c.threshold, c.sigma, nullptr),
                          1);
                EXPECT_EQ(inPlace, o);
                o.insert(o.end(), masked.begin(), masked.end());
                o.insert(o.end(), mask.begin(), mask.end());
                return o;
            });
            EXPECT_EQ(out[0], out[1]);
            EXPECT_EQ(out[0], out[2]);
        }
    }
}

// Sizes beyond 2^28 elements are refused before any buffer is read or allocated.
TEST(UsmLevels, AbsurdSizesAreRefusedUntouched) {
    std::vector<uint16_t> img(4, 5);
    float k = 1.0f, f = 2.0f;
    EXPECT_EQ(ImageConv(&f, &f, &k, 1, 1, 1 << 15, 1 << 14, nullptr), -4);
    EXPECT_EQ(ImageConv(&f, &f, &k, 1 << 15, 1 << 14, 1, 1, nullptr), -4);
    EXPECT_EQ(USM_BOX(img.data(), img.data(), 1 << 15, 1 << 14, 1, 0.5f, false), -4);
    EXPECT_EQ(USM_Gaussian(img.data(), img.data(), 1 << 15, 1 << 14, 1, 0.5f, 0, 1.0f, nullptr),
              -4);
    EXPECT_EQ(f, 2.0f);
    EXPECT_EQ(img, std::vector<uint16_t>(4, 5));
}

}  // namespace
