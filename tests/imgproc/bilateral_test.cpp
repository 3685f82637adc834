#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <cstdint>
#include <vector>

#include "advanced_reference.h"
#include "imgproc/dispatch.h"
#include "veltrano.h"

namespace {

struBilatralParam Record(int kw, int kh, float colorX, float colorY, float spaceX, float spaceY) {
    struBilatralParam p;
    p.k_w = kw, p.k_h = kh, p.sigColor_x = colorX, p.sigColor_y = colorY, p.sigSpace_x = spaceX,
    p.sigSpace_y = spaceY;
    return p;
}

// On the row 0 1 0 with a 3 x 1 kernel, each neighbour of the middle pixel lies one step away
// and differs by 1, so it weighs w = exp(-(cS + cR)) with cS = 1 / (2 sigColor_x sigColor_y) and
// cR = 1 / (2 sigSpace_x sigColor_y): the middle becomes 1 / (1 + 2w), each edge (which mirrors
// the middle on both sides) 2w / (1 + 2w). sigSpace_y plays no part.
TEST(Bilateral, WeighsDistanceAndValueWithTheirPairedSigmas) {
    struct Case {
        float colorX, colorY, spaceX, spaceY;
    };
    for (const Case& c : {Case{1, 1, 1, 1}, Case{2, 1, 1, 9}, Case{1, 2, 1, 1}, Case{1, 1, 4, 0.1f},
                          Case{0.5f, 0.5f, 0.5f, 0.5f}}) {
        std::vector<float> src = {0, 1, 0}, dst(3, -1);
        struBilatralParam p = Record(3, 1, c.colorX, c.colorY, c.spaceX, c.spaceY);
        ASSERT_EQ(bilateralFilter_32F(src.data(), dst.data(), 3, 1, &p), 1);
        const double w = std::exp(-(0.5 / (c.colorX * c.colorY) + 0.5 / (c.spaceX * c.colorY)));
        EXPECT_NEAR(dst[1], 1 / (1 + 2 * w), 1e-6)
            << c.colorX << " " << c.colorY << " " << c.spaceX;
        EXPECT_NEAR(dst[2], 2 * w / (1 + 2 * w), 1e-6)
            << c.colorX << " " << c.colorY << " " << c.spaceX;
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
    for (const struBilatralParam& q :
         {Record(1, 1, 0.5f, 0.5f, 0.5f, 0.5f), Record(3, 3, 0.0f, 0.5f, 0.5f, 0.5f)}) {
        ASSERT_EQ(
            bilateralFilter_32F(src.data(), out.data(), 6, 5, const_cast<struBilatralParam*>(&q)),
            1);
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
    // An image of more than 2^28 pixels is not filtered (only 12 exist: reading any would be
    // caught by the sanitizers).
    p.k_w = 3, p.k_h = 3;
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 1 << 15, 1 << 14, &p), 1);
    EXPECT_EQ(dst, std::vector<float>(12, -7.0f));
    p.k_w = 11, p.k_h = 9;  // a kernel wider than the image: every output is the constant
    EXPECT_EQ(bilateralFilter_32F(src.data(), dst.data(), 4, 3, &p), 1);
    for (float v : dst) EXPECT_FLOAT_EQ(v, 3.0f);
    // The 16-bit entry point checks its pointers and touches nothing.
    std::vector<uint16_t> s16 = {1, 500, 3, 60000}, d16 = {9, 9, 9, 9};
    EXPECT_EQ(bilateralFilter_16U(s16.data(), d16.data(), 2, 2, &p), 1);
    EXPECT_EQ(bilateralFilter_16U(nullptr, d16.data(), 2, 2, &p), -1);
    EXPECT_EQ(d16, (std::vector<uint16_t>{9, 9, 9, 9}));
}

}  // namespace

namespace {

// Levels compared on random images of odd sizes with kernels of every shape, settings whose value
// weights matter, underflow, are infinite or grow, in place and out of place.
struct LevelCase {
    int w, h, kw, kh;
    float colorX, colorY, spaceX;
    enum Image { kNoise, kNonFinite, kSpikes } image;
};

const LevelCase kLevelCases[] = {
    {37, 23, 5, 5, 0.0075f, 300, 300,
     LevelCase::kNoise},  // spatial sigma 1.5, value sigma about the noise
    {13, 41, 3, 7, 0.0075f, 300, 300, LevelCase::kNoise},
    {40, 17, 4, 6, 0.0075f, 300, 300, LevelCase::kNoise},
    {29, 9, 1, 5, 0.0075f, 300, 300, LevelCase::kNoise},
    {11, 30, 5, 1, 0.0075f, 300, 300, LevelCase::kNoise},
    {33, 21, 7, 7, 0.01f, 300, 0.5f, LevelCase::kNoise},  // value weights mostly underflow
    {25, 19, 5, 5, 0.01f, 300, 0.0f, LevelCase::kNoise},  // cR infinite: only equal values count
    {25, 19, 5, 5, 0.0f, 300, 300, LevelCase::kNoise},    // cS infinite: only the centre counts
    {25, 19, 5, 3, 0.01f, 300, -900,
     LevelCase::kNoise},  // cR negative: weights grow with the difference
    {31, 27, 5, 5, 0.5f, 0.5f, 0.5f, LevelCase::kNoise},  // the record's defaults
    {5, 4, 9, 9, 0.02f, 300, 300, LevelCase::kNoise},     // kernel larger than the image
    {3, 2, 11, 8, 0.02f, 300, 300, LevelCase::kNoise},    // ... reaching past its mirror
    {36, 25, 5, 5, 0.0075f, 300, 300, LevelCase::kNonFinite},
    // Zeros with spikes of 1000, 1300, 1340 and 1500 and a spatial term of 3 per squared step:
    // beside a spike a zero pixel takes a weight of e^-59, a subnormal one, the smallest
    // subnormal (exponent 103.5, just short of the cut-off at 104) or one that underflows. Its
    // other weights sum to less than 1, so the first three leave a trace in the output.
    {23, 17, 5, 5, 1.0f / 600, 100, 89.3f, LevelCase::kSpikes},
};

std::vector<float> LevelImage(const LevelCase& c, unsigned seed) {
    if (c.image == LevelCase::kSpikes) {
        // Six pixels apart, so that no window holds two spikes; the height by the quarter of the
        // image.
        const float heights[4] = {1000.0f, 1300.0f, 1340.0f, 1500.0f};
        std::vector<float> img(static_cast<size_t>(c.w) * c.h, 0.0f);
        for (int y = static_cast<int>(seed % 3); y < c.h; y += 6)
            for (int x = 0; x < c.w; x += 6)
                img[static_cast<size_t>(y) * c.w + x] = heights[4 * x / c.w];
        return img;
    }
    std::vector<float> img = advanced_ref::RandomImage<float>(c.w, c.h, -250.0, 250.0, seed);
    for (int y = 0; y < c.h; ++y)
        for (int x = 0; x < c.w; ++x)
            img[static_cast<size_t>(y) * c.w + x] += 40.0f * x + (y > c.h / 2 ? 2000.0f : 0.0f);
    if (c.w * c.h > 40)
        img[7] = 1500.0f, img[8] = 1500.0f, img[9] = 1500.0f;  // some equal neighbours
    if (c.image == LevelCase::kNonFinite) img[c.w * 3 + 4] = INFINITY, img[c.w * 10 + 20] = NAN;
    return img;
}

std::vector<float> RunAt(int level, const LevelCase& c, std::vector<float> src, bool inPlace) {
    struBilatralParam p = Record(c.kw, c.kh, c.colorX, c.colorY, c.spaceX, 0.5f);
    std::vector<float> out(src.size(), -1.0f);
    veltrano::SetImplCapForTesting(level);
    EXPECT_EQ(bilateralFilter_32F(src.data(), inPlace ? src.data() : out.data(), c.w, c.h, &p), 1);
    veltrano::SetImplCapForTesting(-1);
    return inPlace ? src : out;
}

bool SameValue(float a, float b) {
    return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(BilateralLevels, ScalarLevelGivesTheReferenceOutputBitForBit) {
    unsigned seed = 40;
    for (const LevelCase& c : kLevelCases) {
        const std::vector<float> src = LevelImage(c, ++seed);
        const std::vector<float> want = RunAt(0, c, src, false);
        for (bool inPlace : {false, true}) {
            const std::vector<float> got = RunAt(1, c, src, inPlace);
            int differ = 0;
            for (size_t i = 0; i < got.size(); ++i) differ += !SameValue(got[i], want[i]);
            EXPECT_EQ(differ, 0) << c.w << "x" << c.h << " kernel " << c.kw << "x" << c.kh
                                 << " in place " << inPlace;
        }
    }
}

// One reflection about the edge pixel, then the edge pixel repeated (kernels wider than twice
// the image).
int Mirror(int i, int n) {
    if (i < 0) i = -i;
    if (i >= n) i = 2 * n - 2 - i;
    return std::clamp(i, 0, n - 1);
}

// Largest magnitude in the window of every pixel (the mirror border written out plainly).
std::vector<float> WindowMagnitude(const LevelCase& c, const std::vector<float>& img) {
    std::vector<float> m(img.size(), 0.0f);
    for (int y = 0; y < c.h; ++y)
        for (int x = 0; x < c.w; ++x)
            for (int i = -(c.kh / 2); i < c.kh - c.kh / 2; ++i)
                for (int j = -(c.kw / 2); j < c.kw - c.kw / 2; ++j) {
                    const int yy = Mirror(y + i, c.h), xx = Mirror(x + j, c.w);
                    m[static_cast<size_t>(y) * c.w + x] =
                        std::max(m[static_cast<size_t>(y) * c.w + x],
                                 std::fabs(img[static_cast<size_t>(yy) * c.w + xx]));
                }
    return m;
}

// The vector level's exponential is at most 1 unit in the last place from the C library's (on
// every float of its range; 0.8 % of them differ). Through the normalisation and the weighted sum
// that leaves each output within 2^-20 of the largest magnitude in its window of the plain
// path's output (measured: up to 5.2 * 2^-24 here), and most pixels identical (measured: 8 %
// differ). Non-finite results must agree exactly.
TEST(BilateralLevels, VectorLevelStaysWithinItsBound) {
    unsigned seed = 40;
    long differ = 0, total = 0;
    for (const LevelCase& c : kLevelCases) {
        const std::vector<float> src = LevelImage(c, ++seed);
        const std::vector<float> want = RunAt(0, c, src, false);
        const std::vector<float> mag = WindowMagnitude(c, src);
        for (bool inPlace : {false, true}) {
            const std::vector<float> got = RunAt(2, c, src, inPlace);
            for (size_t i = 0; i < got.size(); ++i) {
                ++total;
                if (SameValue(got[i], want[i])) continue;
                ++differ;
                ASSERT_TRUE(std::isfinite(got[i]) && std::isfinite(want[i]))
                    << got[i] << " vs " << want[i];
                EXPECT_LE(std::fabs(double(got[i]) - want[i]), mag[i] * 0x1p-20)
                    << c.w << "x" << c.h << " kernel " << c.kw << "x" << c.kh << " pixel " << i;
            }
        }
    }
    EXPECT_LT(differ, total * 15 / 100);
}

}  // namespace
