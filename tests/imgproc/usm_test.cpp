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

std::vector<float> ToFloat(const std::vector<uint16_t>& v) {
    return std::vector<float>(v.begin(), v.end());
}

TEST(ImageConv, NonSeparableKernelsCorrelateWithTheMirroredNeighbourhood) {
    struct Case { int w, h, kw, kh; };
    // Random kernels are not separable; a single row or column never takes the split path.
    const Case cases[] = {{9, 7, 3, 3}, {8, 6, 4, 2}, {7, 9, 1, 5}, {10, 4, 5, 1},
                          {6, 6, 2, 3}, {5, 8, 1, 1}, {12, 5, 4, 5}};
    unsigned seed = 11;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kw << "x" << c.kh << " kernel");
        const std::vector<float> src = RandomImage<float>(c.w, c.h, -50.0, 300.0, seed++);
        const std::vector<float> kernel = RandomImage<float>(c.kw, c.kh, -1.0, 2.0, seed++);
        std::vector<float> dst(src.size(), 0.0f);
        ASSERT_EQ(ImageConv(src.data(), dst.data(), kernel.data(), c.w, c.h, c.kw, c.kh, nullptr), 1);
        const std::vector<float> expected = Correlate(src, c.w, c.h, kernel, c.kw, c.kh);
        for (size_t i = 0; i < dst.size(); ++i) EXPECT_FLOAT_EQ(dst[i], expected[i]) << i;
    }

    // Correlation, not convolution: {0, 0, 1} takes the right neighbour, and the last column
    // the pixel left of it.
    const std::vector<float> row = {1, 2, 3, 4};
    const float right[] = {0, 0, 1};
    std::vector<float> out(4);
    ASSERT_EQ(ImageConv(row.data(), out.data(), right, 4, 1, 3, 1, nullptr), 1);
    EXPECT_EQ(out, (std::vector<float>{2, 3, 4, 3}));
}

TEST(ImageConv, SeparableKernelsGiveTheFullCorrelation) {
    // Outer products, including zero columns, zero leading rows and a zero middle row.
    const std::vector<std::vector<float>> columns = {
        {1, 1, 1}, {1, 2, 1}, {0, 0, 3, -1}, {2, 0, 0.5f}, {0.25f, 1}};
    const std::vector<std::vector<float>> rows = {
        {1, 1, 1}, {1, 2, 1}, {2, 0, 1}, {3, 0, -1, 2}, {1, 4, 6, 4, 1}};
    const int w = 11, h = 9;
    const std::vector<float> src = RandomImage<float>(w, h, 0.0, 1000.0, 5);
    for (size_t n = 0; n < columns.size(); ++n) {
        const int kh = static_cast<int>(columns[n].size());
        const int kw = static_cast<int>(rows[n].size());
        std::vector<float> kernel;
        for (float c : columns[n])
            for (float r : rows[n]) kernel.push_back(c * r);
        std::vector<float> dst(src.size()), masked(src.size());
        ASSERT_EQ(ImageConv(src.data(), dst.data(), kernel.data(), w, h, kw, kh, nullptr), 1);
        const std::vector<float> expected = Correlate(src, w, h, kernel, kw, kh);
        // Two passes round differently from one; the error scales with the largest sum the
        // weights can form, not with the (possibly cancelled) result.
        double magnitude = 0.0;
        for (float k : kernel) magnitude += std::fabs(k) * 1000.0;
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_NEAR(dst[i], expected[i], 2e-6 * magnitude) << n << ":" << i;

        // The split ignores the mask.
        const std::vector<uint8_t> none(src.size(), 0);
        ASSERT_EQ(ImageConv(src.data(), masked.data(), kernel.data(), w, h, kw, kh, none.data()), 1);
        EXPECT_EQ(masked, dst) << n;
    }
}

TEST(ImageConv, ARowAboveTheReferenceRowIsNotDropped) {
    // The first row starts with 0 but is not all zero: it is no multiple of the row below.
    const std::vector<float> kernel = {0, 1, 0, 1, 1, 1, 1, 1, 1};
    const std::vector<float> src = RandomImage<float>(7, 7, 0.0, 100.0, 9);
    std::vector<float> dst(src.size());
    ASSERT_EQ(ImageConv(src.data(), dst.data(), kernel.data(), 7, 7, 3, 3, nullptr), 1);
    const std::vector<float> expected = Correlate(src, 7, 7, kernel, 3, 3);
    for (size_t i = 0; i < dst.size(); ++i) EXPECT_FLOAT_EQ(dst[i], expected[i]) << i;
}

TEST(ImageConv, MaskedOutPixelsKeepTheSource) {
    const int w = 8, h = 6;
    const std::vector<float> src = RandomImage<float>(w, h, 0.0, 500.0, 21);
    const std::vector<float> kernel = RandomImage<float>(3, 3, -1.0, 1.0, 22);
    std::vector<uint8_t> mask(src.size());
    for (size_t i = 0; i < mask.size(); ++i) mask[i] = (i % 3 == 0) ? 0 : static_cast<uint8_t>(i);
    const std::vector<float> full = Correlate(src, w, h, kernel, 3, 3);

    std::vector<float> out(src.size()), inPlace = src;
    ASSERT_EQ(ImageConv(src.data(), out.data(), kernel.data(), w, h, 3, 3, mask.data()), 1);
    ASSERT_EQ(ImageConv(inPlace.data(), inPlace.data(), kernel.data(), w, h, 3, 3, mask.data()), 1);
    for (size_t i = 0; i < src.size(); ++i) {
        if (mask[i] == 0) {
            EXPECT_EQ(out[i], src[i]) << i;
        } else {
            EXPECT_FLOAT_EQ(out[i], full[i]) << i;
        }
    }
    EXPECT_EQ(inPlace, out);
}

TEST(ImageConv, SmallCasesAndBadArguments) {
    const std::vector<float> src = {1.5f, -2, 3, 40};
    std::vector<float> dst(4, 7.0f);
    const float two = 2.0f;
    ASSERT_EQ(ImageConv(src.data(), dst.data(), &two, 2, 2, 1, 1, nullptr), 1);
    EXPECT_EQ(dst, (std::vector<float>{3, -4, 6, 80}));

    // A kernel far wider than the image stays inside it: a constant image sums the weights.
    const std::vector<float> flat(6, 5.0f);
    const std::vector<float> ones(7 * 5, 1.0f);
    std::vector<float> wide(6);
    ASSERT_EQ(ImageConv(flat.data(), wide.data(), ones.data(), 3, 2, 7, 5, nullptr), 1);
    EXPECT_EQ(wide, std::vector<float>(6, 175.0f));

    dst.assign(4, 7.0f);
    EXPECT_EQ(ImageConv(nullptr, dst.data(), &two, 2, 2, 1, 1, nullptr), -1);
    EXPECT_EQ(ImageConv(src.data(), nullptr, &two, 2, 2, 1, 1, nullptr), -2);
    EXPECT_EQ(ImageConv(src.data(), dst.data(), nullptr, 2, 2, 1, 1, nullptr), -3);
    EXPECT_EQ(ImageConv(src.data(), dst.data(), &two, 2, 2, 0, 1, nullptr), -4);
    EXPECT_EQ(ImageConv(src.data(), dst.data(), &two, 2, 2, 1, -1, nullptr), -4);
    EXPECT_EQ(ImageConv(src.data(), dst.data(), &two, 0, 2, 1, 1, nullptr), -4);
    EXPECT_EQ(ImageConv(src.data(), dst.data(), &two, 2, -2, 1, 1, nullptr), -4);
    EXPECT_EQ(dst, std::vector<float>(4, 7.0f));
}

// src * ((2r+1)^2 amount + 1) - amount * (window sum), with the window summed directly.
std::vector<float> BoxSharpened(const std::vector<uint16_t>& src, int w, int h, int r, float amount) {
    const int side = 2 * r + 1;
    const float gain = static_cast<float>(side * side) * amount + 1.0f;
    std::vector<float> out(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float sum = 0.0f;  // integers below 2^24: exact in any order
            for (int v = -r; v <= r; ++v)
                for (int u = -r; u <= r; ++u) sum += At(src, w, h, x + u, y + v);
            const size_t i = static_cast<size_t>(y) * w + x;
            out[i] = static_cast<float>(src[i]) * gain - sum * amount;
        }
    }
    return out;
}

TEST(UsmBox, SharpensWithTheUndividedWindowSum) {
    struct Case { int w, h, r; float amount; bool normalise; };
    const Case cases[] = {{9, 7, 1, 0.5f, false}, {8, 8, 3, 2.0f, false}, {6, 10, 2, 0.3f, false},
                          {9, 7, 0, 1.5f, false}, {9, 7, 1, 0.5f, true}, {7, 11, 2, 4.0f, true}};
    unsigned seed = 31;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "r=" << c.r << " amount=" << c.amount
                                        << " normalise=" << c.normalise);
        std::vector<uint16_t> src = RandomImage<uint16_t>(c.w, c.h, 0, 4095, seed++);
        std::vector<uint16_t> dst(src.size());
        ASSERT_EQ(USM_BOX(src.data(), dst.data(), c.w, c.h, c.r, c.amount, c.normalise), 1);
        std::vector<float> result = BoxSharpened(src, c.w, c.h, c.r, c.amount);
        if (c.normalise) {
            std::vector<float> stretched = ToFloat(src);
            normalize_32F(result.data(), stretched.data(), c.w, c.h, 0.0f, 65535.0f);
            result = stretched;
        }
        std::vector<uint16_t> expected(src.size());
        for (size_t i = 0; i < src.size(); ++i) expected[i] = Store16(result[i]);
        EXPECT_EQ(dst, expected);
    }
}

TEST(UsmBox, KeepsImagesThatHaveNothingToSharpen) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(10, 6, 0, 65535, 41);
    std::vector<uint16_t> dst(src.size());
    ASSERT_EQ(USM_BOX(src.data(), dst.data(), 10, 6, 2, 0.0f, false), 1);
    EXPECT_EQ(dst, src);

    std::vector<uint16_t> flat(30, 1234);
    ASSERT_EQ(USM_BOX(flat.data(), dst.data(), 6, 5, 2, 0.5f, false), 1);
    EXPECT_EQ(std::vector<uint16_t>(dst.begin(), dst.begin() + 30), flat);

    // Normalising a constant result writes nothing, so the source goes out unsharpened.
    std::vector<uint16_t> out(30, 0);
    ASSERT_EQ(USM_BOX(flat.data(), out.data(), 6, 5, 1, 3.0f, true), 1);
    EXPECT_EQ(out, flat);

    // A negative radius acts as 0.
    std::vector<uint16_t> a(src.size()), b(src.size());
    ASSERT_EQ(USM_BOX(src.data(), a.data(), 10, 6, -3, 0.7f, false), 1);
    ASSERT_EQ(USM_BOX(src.data(), b.data(), 10, 6, 0, 0.7f, false), 1);
    EXPECT_EQ(a, b);
}

TEST(UsmBox, InPlaceAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(13, 9, 0, 60000, 43);
    std::vector<uint16_t> out(src.size()), inPlace = src;
    ASSERT_EQ(USM_BOX(src.data(), out.data(), 13, 9, 2, 0.8f, true), 1);
    ASSERT_EQ(USM_BOX(inPlace.data(), inPlace.data(), 13, 9, 2, 0.8f, true), 1);
    EXPECT_EQ(inPlace, out);

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_BOX(nullptr, dst.data(), 2, 2, 1, 0.5f, false), -1);
    EXPECT_EQ(USM_BOX(s4.data(), nullptr, 2, 2, 1, 0.5f, false), -2);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 2, 2, 1025, 0.5f, false), -4);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 0, 2, 1, 0.5f, false), 1);
    EXPECT_EQ(USM_BOX(s4.data(), dst.data(), 2, -1, 1, 0.5f, false), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));

    // A radius wider than a small image is served from the mirrored pixels.
    ASSERT_EQ(USM_BOX(s4.data(), dst.data(), 2, 2, 6, 0.5f, false), 1);
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
    EXPECT_EQ(p.lam, 0.75f);
    EXPECT_EQ(p.isNeedNorm, 0);
    std::remove(ini);

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_EX(nullptr, dst.data(), 2, 2, 4, &p, nullptr), -1);
    EXPECT_EQ(USM_EX(s4.data(), nullptr, 2, 2, 4, &p, nullptr), -2);
    for (int code : {3, 5, 6, 11, 0})
        EXPECT_EQ(USM_EX(s4.data(), dst.data(), 2, 2, code, &p, nullptr), -3) << code;
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

// The result may differ from the single-pass reference in the last bits (the library splits
// the kernel into two passes), which matters only when the value lies next to an integer.
void ExpectTruncatedNear(uint16_t actual, float reference, size_t index) {
    const float clamped = reference > 65535.0f ? 65535.0f : (reference < 0.0f ? 0.0f : reference);
    const float frac = clamped - std::floor(clamped);
    if (frac < 1e-3f || frac > 1.0f - 1e-3f) {
        EXPECT_NEAR(actual, clamped, 1.0) << index;
    } else {
        EXPECT_EQ(actual, Store16(reference)) << index;
    }
}

TEST(UsmGaussian, SharpensWithTheUnnormalisedGaussian) {
    struct Case { int w, h, r; float amount, sigma; };
    const Case cases[] = {{9, 7, 1, 0.5f, 1.0f}, {10, 8, 2, 1.5f, 1.2f}, {12, 9, 3, 0.25f, 2.0f}};
    unsigned seed = 51;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "r=" << c.r << " sigma=" << c.sigma);
        const std::vector<uint16_t> src = RandomImage<uint16_t>(c.w, c.h, 0, 30000, seed++);
        std::vector<uint16_t> dst(src.size());
        ASSERT_EQ(USM_Gaussian(const_cast<uint16_t*>(src.data()), dst.data(), c.w, c.h, c.r,
                               c.amount, 0, c.sigma, nullptr), 1);
        std::vector<float> kernel = GaussianKernel(c.r, c.sigma);
        float weightSum = 0.0f;
        for (float& k : kernel) {
            weightSum += k;
            k *= c.amount;
        }
        const int side = 2 * c.r + 1;
        const std::vector<float> image = ToFloat(src);
        const std::vector<float> conv = Correlate(image, c.w, c.h, kernel, side, side);
        for (size_t i = 0; i < src.size(); ++i)
            ExpectTruncatedNear(dst[i], image[i] * (weightSum * c.amount + 1.0f) - conv[i], i);
    }
}

TEST(UsmGaussian, MarksPixelsFarFromTheirNeighbourhoodInTheMask) {
    const int w = 10, h = 8, r = 1;
    const float sigma = 1.0f;
    const int threshold = 4000;
    const std::vector<uint16_t> src = RandomImage<uint16_t>(w, h, 0, 4095, 61);
    std::vector<uint8_t> mask(src.size(), 77);
    std::vector<uint16_t> withMask(src.size()), without(src.size());
    ASSERT_EQ(USM_Gaussian(const_cast<uint16_t*>(src.data()), withMask.data(), w, h, r, 0.5f,
                           threshold, sigma, mask.data()), 1);
    ASSERT_EQ(USM_Gaussian(const_cast<uint16_t*>(src.data()), without.data(), w, h, r, 0.5f,
                           threshold, sigma, nullptr), 1);
    EXPECT_EQ(withMask, without);  // the separable kernel ignores the mask

    const std::vector<float> image = ToFloat(src);
    const std::vector<float> corr = Correlate(image, w, h, GaussianKernel(r, sigma), 3, 3);
    int ones = 0;
    for (size_t i = 0; i < src.size(); ++i) {
        const float deviation = std::fabs(image[i] - corr[i]);
        ones += mask[i];
        if (std::fabs(deviation - threshold) > 0.01f)
            EXPECT_EQ(mask[i], deviation >= threshold ? 1 : 0) << i;
        else
            EXPECT_LE(mask[i], 1) << i;
    }
    EXPECT_GT(ones, 0);
    EXPECT_LT(ones, static_cast<int>(src.size()));
}

TEST(UsmGaussian, SigmaInPlaceAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(9, 9, 0, 65535, 71);
    std::vector<uint16_t> a(src.size()), b(src.size()), inPlace = src;
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 2, 0.7f, 0, 0.0f, nullptr), 1);
    ASSERT_EQ(USM_Gaussian(src.data(), b.data(), 9, 9, 2, 0.7f, 0, 1.0f, nullptr), 1);
    EXPECT_EQ(a, b);  // sigma 0 acts as 1
    ASSERT_EQ(USM_Gaussian(inPlace.data(), inPlace.data(), 9, 9, 2, 0.7f, 0, 1.0f, nullptr), 1);
    EXPECT_EQ(inPlace, b);

    // A sigma so small that 2 sigma^2 underflows leaves only the centre weight:
    // src * 1.5 - 0.5 * src.
    ASSERT_EQ(USM_Gaussian(src.data(), a.data(), 9, 9, 1, 0.5f, 0, 1e-30f, nullptr), 1);
    EXPECT_EQ(a, src);

    std::vector<uint16_t> dst(4, 3), s4(4, 100);
    EXPECT_EQ(USM_Gaussian(nullptr, dst.data(), 2, 2, 1, 0.5f, 0, 1.0f, nullptr), -1);
    EXPECT_EQ(USM_Gaussian(s4.data(), nullptr, 2, 2, 1, 0.5f, 0, 1.0f, nullptr), -2);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, 2, 0, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, 2, 1025, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 0, 2, 1, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(USM_Gaussian(s4.data(), dst.data(), 2, -2, 1, 0.5f, 0, 1.0f, nullptr), -4);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 3));
}

}  // namespace
