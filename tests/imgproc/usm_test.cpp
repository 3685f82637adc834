#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Plain 2-D correlation: kernel rows outer, columns inner, single-precision sum per pixel.
std::vector<float> Correlate(const std::vector<float>& src, int w, int h,
                             const std::vector<float>& kernel, int kw, int kh) {
    std::vector<float> out(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float sum = 0.0f;
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j)
                    sum += kernel[i * kw + j] * At(src, w, h, x + j - kw / 2, y + i - kh / 2);
            out[static_cast<size_t>(y) * w + x] = sum;
        }
    }
    return out;
}

uint16_t Store16(float v) {
    if (v > 65535.0f) v = 65535.0f;
    if (!(v >= 0.0f)) v = 0.0f;
    return static_cast<uint16_t>(v);
}

std::vector<float> Outer(const std::vector<float>& column, const std::vector<float>& row) {
    std::vector<float> k;
    for (float c : column)
        for (float r : row) k.push_back(c * r);
    return k;
}

TEST(ImageConv, CorrelatesWithTheMirroredNeighbourhoodAndSplitsSeparableKernels) {
    struct Case { int kw, kh; std::vector<float> kernel; bool separable; };
    const Case cases[] = {
        {3, 3, RandomImage<float>(3, 3, -1.0, 2.0, 1), false},
        {4, 2, RandomImage<float>(4, 2, -1.0, 2.0, 2), false},  // even: centre at kw/2, kh/2
        {1, 5, RandomImage<float>(1, 5, -1.0, 2.0, 3), false},  // a column never takes the split
        {5, 1, RandomImage<float>(5, 1, -1.0, 2.0, 4), false},
        {3, 1, {0, 0, 1}, false},                                // correlation: the right neighbour
        {3, 3, Outer({1, 1, 1}, {1, 1, 1}), true},
        {3, 3, Outer({1, 2, 1}, {2, 0, 1}), true},               // a zero column
        {4, 4, Outer({0, 0, 3, -1}, {3, 0, -1, 2}), true},      // zero leading rows
        {5, 3, Outer({2, 0, 0.5f}, {1, 4, 6, 4, 1}), true},      // a zero middle row
        {3, 4, Outer({1, 1, 1, 1}, {0, 2, 1}), false},           // no row starts non-zero
        {3, 3, {0, 1, 0, 1, 1, 1, 1, 1, 1}, false},              // the first row is no multiple
    };
    const int w = 11, h = 9;
    const std::vector<float> src = RandomImage<float>(w, h, 0.0, 1000.0, 5);
    std::vector<uint8_t> mask(src.size());
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = i % 3 == 0 ? 0 : static_cast<uint8_t>(i);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kw << "x" << c.kh << " kernel, first weight " << c.kernel[0]);
        std::vector<float> dst(src.size()), masked(src.size()), inPlace = src;
        ASSERT_EQ(ImageConv(src.data(), dst.data(), c.kernel.data(), w, h, c.kw, c.kh, nullptr), 1);
        const std::vector<float> expected = Correlate(src, w, h, c.kernel, c.kw, c.kh);
        // Two passes round differently from one; the error scales with the largest sum the
        // weights can form, not with the (possibly cancelled) result.
        double magnitude = 0.0;
        for (float k : c.kernel) magnitude += std::fabs(k) * 1000.0;
        for (size_t i = 0; i < dst.size(); ++i) EXPECT_NEAR(dst[i], expected[i], 2e-6 * magnitude) << i;

        // The split ignores the mask; otherwise masked-out pixels keep the source.
        ASSERT_EQ(ImageConv(src.data(), masked.data(), c.kernel.data(), w, h, c.kw, c.kh, mask.data()), 1);
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_EQ(masked[i], mask[i] == 0 && !c.separable ? src[i] : dst[i]) << i;
        ASSERT_EQ(ImageConv(inPlace.data(), inPlace.data(), c.kernel.data(), w, h, c.kw, c.kh, mask.data()), 1);
        EXPECT_EQ(inPlace, masked);
    }
}

TEST(ImageConv, WideKernelsAndBadArguments) {
    // A kernel far wider than the image stays inside it: a constant image sums the weights.
    const std::vector<float> flat(6, 5.0f), ones(7 * 5, 1.0f);
    std::vector<float> wide(6);
    ASSERT_EQ(ImageConv(flat.data(), wide.data(), ones.data(), 3, 2, 7, 5, nullptr), 1);
    EXPECT_EQ(wide, std::vector<float>(6, 175.0f));

    const float two = 2.0f;
    std::vector<float> dst(4, 7.0f);
    EXPECT_EQ(ImageConv(nullptr, dst.data(), &two, 2, 2, 1, 1, nullptr), -1);
    EXPECT_EQ(ImageConv(flat.data(), nullptr, &two, 2, 2, 1, 1, nullptr), -2);
    EXPECT_EQ(ImageConv(flat.data(), dst.data(), nullptr, 2, 2, 1, 1, nullptr), -3);
    for (int bad : {0, -1}) {
        EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, 2, 2, bad, 1, nullptr), -4);
        EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, 2, 2, 1, bad, nullptr), -4);
        EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, bad, 2, 1, 1, nullptr), -4);
        EXPECT_EQ(ImageConv(flat.data(), dst.data(), &two, 2, bad, 1, 1, nullptr), -4);
    }
    EXPECT_EQ(dst, std::vector<float>(4, 7.0f));
}

TEST(UsmBox, SharpensWithTheUndividedWindowSum) {
    struct Case { int w, h, r; float amount; bool normalise; int low, high; };
    const Case cases[] = {
        {9, 7, 1, 0.5f, false, 0, 4095},   {8, 8, 3, 2.0f, false, 0, 4095},
        {6, 10, 2, 0.3f, false, 0, 4095},  {9, 7, 0, 1.5f, false, 0, 4095},
        {9, 7, 1, 0.5f, true, 0, 4095},    {7, 11, 2, 4.0f, true, 0, 4095},
        {10, 6, 2, 0.0f, false, 0, 65535},  // amount 0: the source
        {6, 5, 2, 0.5f, false, 1234, 1234},  // constant: unchanged
        {6, 5, 1, 3.0f, true, 1234, 1234},   // constant result: normalising writes nothing
    };
    unsigned seed = 31;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "r=" << c.r << " amount=" << c.amount << " normalise=" << c.normalise);
        std::vector<uint16_t> src = RandomImage<uint16_t>(c.w, c.h, c.low, c.high, seed++);
        std::vector<uint16_t> dst(src.size()), inPlace = src;
        ASSERT_EQ(USM_BOX(src.data(), dst.data(), c.w, c.h, c.r, c.amount, c.normalise), 1);

        const int side = 2 * c.r + 1;
        const float gain = static_cast<float>(side * side) * c.amount + 1.0f;
        std::vector<float> result(src.size()), stretched(src.begin(), src.end());
        for (int y = 0; y < c.h; ++y) {
            for (int x = 0; x < c.w; ++x) {
                float sum = 0.0f;  // integers below 2^24: exact in any order
                for (int v = -c.r; v <= c.r; ++v)
                    for (int u = -c.r; u <= c.r; ++u) sum += At(src, c.w, c.h, x + u, y + v);
                result[y * c.w + x] = static_cast<float>(src[y * c.w + x]) * gain - sum * c.amount;
            }
        }
        if (c.normalise) {
            normalize_32F(result.data(), stretched.data(), c.w, c.h, 0.0f, 65535.0f);
            result = stretched;
        }
        for (size_t i = 0; i < src.size(); ++i) EXPECT_EQ(dst[i], Store16(result[i])) << i;
        ASSERT_EQ(USM_BOX(inPlace.data(), inPlace.data(), c.w, c.h, c.r, c.amount, c.normalise), 1);
        EXPECT_EQ(inPlace, dst);
    }
}

TEST(UsmBox, RadiusLimitsAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(10, 6, 0, 65535, 41), a(60), b(60);
    ASSERT_EQ(USM_BOX(src.data(), a.data(), 10, 6, -3, 0.7f, false), 1);  // acts as radius 0
    ASSERT_EQ(USM_BOX(src.data(), b.data(), 10, 6, 0, 0.7f, false), 1);
    EXPECT_EQ(a, b);

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_BOX(nullptr, dst.data(), 2, 2, 1, 0.5f, false), -1);
    EXPECT_EQ(USM_BOX(s4.data(), nullptr, 2, 2, 1, 0.5f, false), -2);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 2, 2, 1025, 0.5f, false), -4);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 0, 2, 1, 0.5f, false), 1);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 2, -1, 1, 0.5f, false), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
    ASSERT_EQ(USM_BOX(s4.data(), dst.data(), 2, 2, 6, 0.5f, false), 1);  // wider than the image
    EXPECT_EQ(dst, s4);
}

TEST(UsmEx, RunsTheBoxMaskWithTheRecordOrTheIniFileSettings) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(12, 10, 0, 50000, 45);
    std::vector<uint16_t> viaRecord(src.size()), direct(src.size());
    struUSMParam p;
    p.r = 2;
    p.lam = 1.25f;
    p.isNeedNorm = 1;
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

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_EX(nullptr, dst.data(), 2, 2, 4, &p, nullptr), -1);
    EXPECT_EQ(USM_EX(s4.data(), nullptr, 2, 2, 4, &p, nullptr), -2);
    for (int code : {3, 5, 6, 11}) EXPECT_EQ(USM_EX(s4.data(), dst.data(), 2, 2, code, &p, nullptr), -3);
    EXPECT_EQ(USM_EX(s4.data(), dst.data(), 2, 2, 4, nullptr, nullptr), -4);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
}

std::vector<float> GaussianKernel(int r, float sigma) {
    const int side = 2 * r + 1;
    const float c = -1.0f / (2.0f * sigma * sigma);
    std::vector<float> k(static_cast<size_t>(side) * side);
    for (int i = 0; i < side; ++i)
        for (int j = 0; j < side; ++j)
            k[i * side + j] = std::exp(static_cast<float>((j - r) * (j - r) + (i - r) * (i - r)) * c);
    return k;
}

TEST(UsmGaussian, SharpensWithTheUnnormalisedGaussianAndFillsTheMask) {
    struct Case { int w, h, r; float amount, sigma; int threshold; };
    // Thresholds near the typical deviation (S - 1) * mean, so that both mask values occur.
    const Case cases[] = {{9, 7, 1, 0.5f, 1.0f, 8000}, {10, 8, 2, 1.5f, 1.2f, 15000}, {12, 9, 3, 0.25f, 2.0f, 42000}};
    unsigned seed = 51;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "r=" << c.r << " sigma=" << c.sigma);
        std::vector<uint16_t> src = RandomImage<uint16_t>(c.w, c.h, 0, 4095, seed++);
        std::vector<uint16_t> dst(src.size()), withMask(src.size()), inPlace = src;
        std::vector<uint8_t> mask(src.size(), 77);
        ASSERT_EQ(USM_Gaussian(src.data(), dst.data(), c.w, c.h, c.r, c.amount, 0, c.sigma, nullptr), 1);

        std::vector<float> kernel = GaussianKernel(c.r, c.sigma), scaled = kernel;
        float weightSum = 0.0f;
        for (float& k : scaled) {
            weightSum += k;
            k *= c.amount;
        }
        const int side = 2 * c.r + 1;
        const std::vector<float> image(src.begin(), src.end());
        const std::vector<float> conv = Correlate(image, c.w, c.h, scaled, side, side);
        for (size_t i = 0; i < src.size(); ++i) {
            // The library's two passes may differ from one in the last bits, which matters only
            // next to an integer.
            const float v = std::fmin(std::fmax(image[i] * (weightSum * c.amount + 1.0f) - conv[i], 0.0f), 65535.0f);
            const float frac = v - std::floor(v);
            EXPECT_NEAR(dst[i], std::floor(v), frac < 1e-3f || frac > 1.0f - 1e-3f ? 1.0 : 0.0) << i;
        }

        // The mask marks |src - unnormalised correlation| >= threshold and, the kernel being
        // separable, leaves the sharpening as it was.
        ASSERT_EQ(USM_Gaussian(src.data(), withMask.data(), c.w, c.h, c.r, c.amount, c.threshold, c.sigma,
                               mask.data()), 1);
        EXPECT_EQ(withMask, dst);
        const std::vector<float> corr = Correlate(image, c.w, c.h, kernel, side, side);
        int marked = 0;
        for (size_t i = 0; i < src.size(); ++i) {
            const float deviation = std::fabs(image[i] - corr[i]);
            marked += mask[i];
            if (std::fabs(deviation - c.threshold) > 0.01f) {
                EXPECT_EQ(mask[i], deviation >= c.threshold) << i;
            }
        }
        EXPECT_GT(marked, 0);
        EXPECT_LT(marked, static_cast<int>(src.size()));

        ASSERT_EQ(USM_Gaussian(inPlace.data(), inPlace.data(), c.w, c.h, c.r, c.amount, 0, c.sigma, nullptr), 1);
        EXPECT_EQ(inPlace, dst);
    }
}

TEST(UsmGaussian, SigmaFallbacksAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(9, 9, 0, 65535, 71), a(81), b(81);
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 2, 0.7f, 0, 0.0f, nullptr), 1);
    ASSERT_EQ(USM_Gaussian(src.data(), b.data(), 9, 9, 2, 0.7f, 0, 1.0f, nullptr), 1);
    EXPECT_EQ(a, b);  // sigma 0 acts as 1
    // A sigma so small that 2 sigma^2 underflows leaves the centre weight alone:
    // src * 1.5 - 0.5 * src.
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 1, 0.5f, 0, 1e-30f, nullptr), 1);
    EXPECT_EQ(a, src);

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_Gaussian(nullptr, dst.data(), 2, 2, 1, 0.5f, 0, 1.0f, nullptr), -1);
    EXPECT_EQ(USM_Gaussian(s4.data(), nullptr, 2, 2, 1, 0.5f, 0, 1.0f, nullptr), -2);
    for (int radius : {0, -1, 1025}) EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, 2, radius, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 0, 2, 1, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, -2, 1, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
}

}  // namespace
