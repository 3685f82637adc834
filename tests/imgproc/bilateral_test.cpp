#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

struBilatralParam Record(int kw, int kh, float colorX, float colorY, float spaceX, float spaceY) {
    struBilatralParam p;
    p.k_w = kw, p.k_h = kh, p.sigColor_x = colorX, p.sigColor_y = colorY, p.sigSpace_x = spaceX, p.sigSpace_y = spaceY;
    return p;
}

// On the row 0 1 0 with a 3 x 1 kernel, each neighbour of the middle pixel lies one step away
// and differs by 1, so it weighs w = exp(-(cS + cR)) with cS = 1 / (2 sigColor_x sigColor_y) and
// cR = 1 / (2 sigSpace_x sigColor_y): the middle becomes 1 / (1 + 2w), each edge (which mirrors
// the middle on both sides) 2w / (1 + 2w). sigSpace_y plays no part.
TEST(Bilateral, WeighsDistanceAndValueWithTheirPairedSigmas) {
    struct Case { float colorX, colorY, spaceX, spaceY; };
    for (const Case& c : {Case{1, 1, 1, 1}, Case{2, 1, 1, 9}, Case{1, 2, 1, 1}, Case{1, 1, 4, 0.1f}, Case{0.5f, 0.5f, 0.5f, 0.5f}}) {
        std::vector<float> src = {0, 1, 0}, dst(3, -1);
        struBilatralParam p = Record(3, 1, c.colorX, c.colorY, c.spaceX, c.spaceY);
        ASSERT_EQ(bilateralFilter_32F(src.data(), dst.data(), 3, 1, &p), 1);
        const double w = std::exp(-(0.5 / (c.colorX * c.colorY) + 0.5 / (c.spaceX * c.colorY)));
        EXPECT_NEAR(dst[1], 1 / (1 + 2 * w), 1e-6) << c.colorX << " " << c.colorY << " " << c.spaceX;
        EXPECT_NEAR(dst[2], 2 * w / (1 + 2 * w), 1e-6) << c.colorX << " " << c.colorY << " " << c.spaceX;
        ASSERT_EQ(bilateralFilter_32F(src.data(), src.data(), 3, 1, &p), 1);  // in place the same
        EXPECT_EQ(src, dst);
    }
    // An even width of 4 centres the window at kw / 2: the middle pixel sees x - 2 (the mirrored
    // 1, two steps away, same value) to x + 1.
    std::vector<float> src = {0, 1, 0}, dst(3);
    struBilatralParam p = Record(4, 1, 1, 1, 1, 1);
    ASSERT_EQ(bilateralFilter_32F(src.data(), dst.data(), 3, 1, &p), 1);
    EXPECT_NEAR(dst[1], (1 + std::exp(-2.0)) / (1 + std::exp(-2.0) + 2 * std::exp(-1.0)), 1e-6);
}

TEST(Bilateral, KeepsConstantImagesAndSinglePixelKernelsAndTheCentreAtZeroSigma) {
    std::vector<float> flat(30, 12.5f), out(30);
    struBilatralParam p = Record(5, 5, 0.5f, 0.5f, 0.5f, 0.5f);
    ASSERT_EQ(bilateralFilter_32F(flat.data(), out.data(), 6, 5, &p), 1);
    for (float v : out) EXPECT_FLOAT_EQ(v, 12.5f);  // up to the rounding of the normalised weights
    std::vector<float> src = advanced_ref::RandomImage<float>(6, 5, -100.0, 100.0, 9);
    for (const struBilatralParam& q : {Record(1, 1, 0.5f, 0.5f, 0.5f, 0.5f), Record(3, 3, 0.0f, 0.5f, 0.5f, 0.5f)}) {
        ASSERT_EQ(bilateralFilter_32F(src.data(), out.data(), 6, 5, const_cast<struBilatralParam*>(&q)), 1);
        EXPECT_EQ(out, src) << q.k_w;  // a zero sigma leaves the centre the only weight
    }
}

TEST(Bilateral, ReturnsOneAndWritesNothingForUnusableArguments) {
    std::vector<float> src(12, 3.0f), dst(12, -7.0f);
    struBilatralParam p;
    EXPECT_EQ(bilateralFilter_32F(nullptr, dst.data(), 4, 3, &p), 1);
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, nullptr), 1);
    p.k_w = 0;
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, &p), 1);
    EXPECT_EQ(dst, std::vector<float>(12, -7.0f));
    // The 16-bit entry point checks its pointers and touches nothing.
    std::vector<uint16_t> s16 = {1, 500, 3, 60000}, d16 = {9, 9, 9, 9};
    EXPECT_EQ(bilateralFilter_16U(s16.data(), d16.data(), 2, 2, &p), 1);
    EXPECT_EQ(bilateralFilter_16U(nullptr, d16.data(), 2, 2, &p), -1);
    EXPECT_EQ(d16, (std::vector<uint16_t>{9, 9, 9, 9}));
}

}  // namespace
