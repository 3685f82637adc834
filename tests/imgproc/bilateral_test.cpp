#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

struct Sigmas {
    float colorX, colorY, spaceX, spaceY;
};

struBilatralParam Record(int kw, int kh, Sigmas s) {
    struBilatralParam p;
    p.k_w = kw;
    p.k_h = kh;
    p.sigColor_x = s.colorX;
    p.sigColor_y = s.colorY;
    p.sigSpace_x = s.spaceX;
    p.sigSpace_y = s.spaceY;
    return p;
}

// Straight from the rules: spatial fall-off 1 / (2 sigColor_x sigColor_y), value fall-off
// 1 / (2 sigSpace_x sigColor_y), weights normalised, then the weighted sum.
std::vector<float> ReferenceBilateral(const std::vector<float>& src, int w, int h, int kw, int kh,
                                      Sigmas s) {
    const float cS = 1.0f / (2.0f * s.colorX * s.colorY);
    const float cR = 1.0f / (2.0f * s.spaceX * s.colorY);
    const int top = kh / 2, left = kw / 2;
    std::vector<float> out(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const float c = src[y * w + x];
            std::vector<float> values, weights;
            float sum = 0.0f;
            for (int i = 0; i < kh; ++i) {
                for (int j = 0; j < kw; ++j) {
                    const float v = At(src, w, h, x + j - left, y + i - top);
                    const float d = v - c;
                    const double spatial = ((i - top) * (i - top) + (j - left) * (j - left)) * static_cast<double>(cS);
                    const float e = static_cast<float>(spatial + d * d * cR);
                    values.push_back(v);
                    weights.push_back(std::exp(-e));
                    sum += weights.back();
                }
            }
            float acc = 0.0f;
            for (size_t n = 0; n < values.size(); ++n) acc += values[n] * (weights[n] * (1.0f / sum));
            out[y * w + x] = acc;
        }
    }
    return out;
}

TEST(Bilateral, WeighsDistanceAndValueWithTheirPairedSigmas) {
    struct Case { int w, h, kw, kh; Sigmas s; double high; };
    const Case cases[] = {
        {9, 8, 5, 5, {0.5f, 0.5f, 0.5f, 0.5f}, 1.0},  // the record's defaults
        {10, 7, 3, 5, {1.5f, 0.8f, 0.3f, 7.0f}, 2.0},  // every sigma different
        {8, 9, 4, 2, {2.0f, 1.0f, 40.0f, 1.0f}, 100.0},  // even sizes: centre at kw/2, kh/2
        {7, 7, 1, 3, {1.0f, 3.0f, 0.1f, 0.1f}, 1.0},
        {12, 6, 7, 3, {3.0f, 2.0f, 500.0f, 0.5f}, 1000.0},
        {6, 5, 1, 1, {0.5f, 0.5f, 0.5f, 0.5f}, 100.0},  // the centre alone
    };
    unsigned seed = 200;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kw << "x" << c.kh << " sigmas " << c.s.colorX << " "
                                        << c.s.colorY << " " << c.s.spaceX << " " << c.s.spaceY);
        std::vector<float> src = RandomImage<float>(c.w, c.h, 0.0, c.high, seed++);
        std::vector<float> dst(src.size(), -1.0f), inPlace = src;
        struBilatralParam p = Record(c.kw, c.kh, c.s);
        ASSERT_EQ(bilateralFilter_32F(src.data(), dst.data(), c.w, c.h, &p), 1);
        const std::vector<float> expected = ReferenceBilateral(src, c.w, c.h, c.kw, c.kh, c.s);
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_NEAR(dst[i], expected[i], 1e-5 * (c.high + std::fabs(expected[i]))) << i;
        ASSERT_EQ(bilateralFilter_32F(inPlace.data(), inPlace.data(), c.w, c.h, &p), 1);
        EXPECT_EQ(inPlace, dst);
    }
}

TEST(Bilateral, SigSpaceYHasNoEffectButSigColorYShapesBothFallOffs) {
    const std::vector<float> src = RandomImage<float>(11, 9, 0.0, 3.0, 7);
    std::vector<float> base(src.size()), otherSpaceY(src.size()), otherColorY(src.size());
    std::vector<float> in = src;
    struBilatralParam p = Record(5, 5, {0.8f, 0.9f, 1.1f, 0.5f});
    ASSERT_EQ(bilateralFilter_32F(in.data(), base.data(), 11, 9, &p), 1);
    p.sigSpace_y = 25.0f;
    ASSERT_EQ(bilateralFilter_32F(in.data(), otherSpaceY.data(), 11, 9, &p), 1);
    EXPECT_EQ(otherSpaceY, base);
    p.sigColor_y = 2.0f;
    ASSERT_EQ(bilateralFilter_32F(in.data(), otherColorY.data(), 11, 9, &p), 1);
    EXPECT_NE(otherColorY, base);
}

TEST(Bilateral, ZeroSigmasAndKernelsWiderThanTheImage) {
    // A sigma of 0 makes both fall-offs infinite: only the centre keeps weight.
    std::vector<float> src = RandomImage<float>(6, 5, -100.0, 100.0, 9), out(src.size());
    struBilatralParam p = Record(3, 3, {0.0f, 0.5f, 0.5f, 0.5f});
    ASSERT_EQ(bilateralFilter_32F(src.data(), out.data(), 6, 5, &p), 1);
    EXPECT_EQ(out, src);

    // A kernel wider than a small image reads mirrored pixels only: the result stays a mean of
    // the image's values.
    std::vector<float> tiny = {1.0f, 2.0f, 3.0f, 4.0f}, tinyOut(4);
    p = Record(9, 7, {2.0f, 2.0f, 5.0f, 0.5f});
    ASSERT_EQ(bilateralFilter_32F(tiny.data(), tinyOut.data(), 2, 2, &p), 1);
    for (float v : tinyOut) {
        EXPECT_GE(v, 1.0f);
        EXPECT_LE(v, 4.0f);
    }
}

TEST(Bilateral, ReturnsOneAndWritesNothingForUnusableArguments) {
    std::vector<float> src(12, 3.0f), dst(12, -7.0f);
    struBilatralParam p;
    EXPECT_EQ(bilateralFilter_32F(nullptr, dst.data(), 4, 3, &p), 1);
    EXPECT_EQ(bilateralFilter_32F(src.data(), nullptr, 4, 3, &p), 1);
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, nullptr), 1);
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 0, 3, &p), 1);
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, -3, &p), 1);
    for (int bad : {0, -5, 5000}) {
        p.k_w = bad;
        EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, &p), 1);
        p.k_w = 5;
        p.k_h = bad;
        EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, &p), 1);
        p.k_h = 5;
    }
    EXPECT_EQ(dst, std::vector<float>(12, -7.0f));

    // The 16-bit entry point checks its pointers and touches nothing.
    std::vector<uint16_t> s16 = {1, 500, 3, 60000}, d16 = {9, 9, 9, 9};
    EXPECT_EQ(bilateralFilter_16U(s16.data(), d16.data(), 2, 2, &p), 1);
    EXPECT_EQ(bilateralFilter_16U(nullptr, d16.data(), 2, 2, &p), -1);
    EXPECT_EQ(bilateralFilter_16U(s16.data(), nullptr, 2, 2, &p), -1);
    EXPECT_EQ(d16, (std::vector<uint16_t>{9, 9, 9, 9}));
    EXPECT_EQ(s16, (std::vector<uint16_t>{1, 500, 3, 60000}));
}

}  // namespace
