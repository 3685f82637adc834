#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "veltrano.h"

namespace {

template <class T>
std::vector<T> RandomImage(size_t n, double lo, double hi, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> dist(lo, hi);
    std::vector<T> v(n);
    for (auto& x : v) x = static_cast<T>(dist(gen));
    return v;
}

// Mirror about the edge pixel without repeating it, at most `before` / `after` (each limited to
// n) deep; -1 past that.
int64_t Reflect(int64_t i, int64_t n, int64_t before, int64_t after) {
    if (i < -std::min(before, n) || i > n - 1 + std::min(after, n)) return -1;
    if (i < 0) i = -i;
    if (i >= n) i = 2 * n - 2 - i;
    return std::clamp<int64_t>(i, 0, n - 1);
}

// Direct double-precision correlation; positions past the mirrored extension read 0.
std::vector<double> ReferenceCorrelation(const std::vector<float>& src, int w, int h, const std::vector<float>& k,
                                         int kw, int kh) {
    std::vector<double> out(src.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j) {
                    const int64_t sy = Reflect(y + i - kh / 2, h, kh / 2, kh - kh / 2 - 1);
                    const int64_t sx = Reflect(x + j - kw / 2, w, kw / 2, kw - kw / 2 - 1);
                    if (sy >= 0 && sx >= 0) out[y * w + x] += double(k[i * kw + j]) * src[sy * w + sx];
                }
    return out;
}

TEST(Filter2D, CorrelatesWithoutFlippingAndTakesTheKernelSizesInEachMembersOrder) {
    std::vector<float> src = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, out(12);  // 4 x 3
    float shift[3] = {0, 0, 1};
    ASSERT_EQ(filter2D_32F(src.data(), out.data(), 4, 3, shift, 3, 1), 1);  // the right neighbour
    EXPECT_EQ(out, (std::vector<float>{2, 3, 4, 3, 6, 7, 8, 7, 10, 11, 12, 11}));
    ASSERT_EQ(filter2D_32F(src.data(), out.data(), 4, 3, shift, 1, 3), 1);  // the row below
    EXPECT_EQ(out, (std::vector<float>{5, 6, 7, 8, 9, 10, 11, 12, 5, 6, 7, 8}));
    // A 3-row by 5-column kernel: filter2D_16U takes (3, 5), the others (5, 3). Sums are exact.
    const int w = 9, h = 7;
    std::vector<float> fin = RandomImage<float>(w * h, 0, 1000, 3), out32(w * h), k = {0, 1, 0, 2, 0, 1, 0, 0, 0, 3, 0, 0, 1, 0, 0};
    for (float& v : fin) v = std::floor(v);
    std::vector<uint16_t> s16(fin.begin(), fin.end()), out16(w * h);
    ASSERT_EQ(filter2D_16U(s16.data(), out16.data(), w, h, k.data(), 3, 5), 1);
    ASSERT_EQ(filter2D_32F(fin.data(), out32.data(), w, h, k.data(), 5, 3), 1);
    const std::vector<double> ref = ReferenceCorrelation(fin, w, h, k, 5, 3);
    for (size_t i = 0; i < ref.size(); ++i) EXPECT_TRUE(out32[i] == ref[i] && out16[i] == ref[i]) << i;
}

TEST(Filter2D, SixteenBitClampsAndTruncatesEightBitKeepsItsDestinationAndBadArgumentsAreRefused) {
    struct Case { uint16_t in; float weight; uint16_t want; };
    for (const Case& c : {Case{37, -0.1f, 0}, Case{7000, 10.0f, 65535}, Case{129, 0.1f, 12},
                          Case{5, std::numeric_limits<float>::quiet_NaN(), 0}}) {
        uint16_t in = c.in, out = 1;
        float k = c.weight;
        ASSERT_EQ(filter2D_16U(&in, &out, 1, 1, &k, 1, 1), 1);
        EXPECT_EQ(out, c.want) << c.in << " * " << c.weight;
    }
    std::vector<uint8_t> src(20, 200), dst(20, 7);
    float k[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(filter2D_8U(src.data(), dst.data(), 5, 4, k, 3, 3), 1);
    EXPECT_EQ(gaussFilter_8U(src.data(), dst.data(), 5, 4, 3, 3, 1.0, 1.0), 1);
    EXPECT_EQ(dst, std::vector<uint8_t>(20, 7));
    uint16_t w16[4] = {1, 2, 3, 4};
    EXPECT_EQ(filter2D_16U(nullptr, w16, 2, 2, k, 1, 1), -1);
    EXPECT_EQ(filter2D_16U(w16, w16, 2, 2, nullptr, 1, 1), -3);
    EXPECT_EQ(filter2D_16U(w16, w16, 2, 2, k, 1, -3), -4);
    EXPECT_EQ(filter2D_16U(w16, w16, 100000, 100000, k, 1, 1), -5);  // scratch that cannot exist
    EXPECT_EQ(w16[0], 1);
}

// Every pixel is summed in the same fixed order whichever thread computes it, so the result
// must be bit for bit the same with one thread and with several, in place or not.
TEST(Filter2D, ResultDoesNotDependOnTheThreadCount) {
    const int w = 301, h = 97;
    std::vector<float> src = RandomImage<float>(static_cast<size_t>(w) * h, -500, 4000, 11);
    std::vector<float> k = RandomImage<float>(5 * 7, -0.3, 0.7, 12);
    const int saved = omp_get_max_threads();
    std::vector<std::vector<float>> results;
    for (int threads : {1, 3}) {
        omp_set_num_threads(threads);
        results.emplace_back(src.size());
        ASSERT_EQ(filter2D_32F(src.data(), results.back().data(), w, h, k.data(), 7, 5), 1);
    }
    omp_set_num_threads(saved);
    results.push_back(src);
    ASSERT_EQ(filter2D_32F(results.back().data(), results.back().data(), w, h, k.data(), 7, 5), 1);
    for (size_t r = 1; r < results.size(); ++r)
        EXPECT_EQ(std::memcmp(results[0].data(), results[r].data(), src.size() * sizeof(float)), 0) << r;
    const std::vector<double> ref = ReferenceCorrelation(src, w, h, k, 7, 5);
    for (size_t i = 0; i < ref.size(); i += 97) EXPECT_NEAR(results[0][i], ref[i], 0.05) << i;
}

TEST(GaussKernel, NormalisesUsesTheProductOfTheSigmasAndChecksSizes) {
    float k[9] = {};
    ASSERT_EQ(getGaussker_32F(k, 3, 3, 0.0, -2.0), 1);  // both sigmas become 1
    const double sum = 1 + 4 * std::exp(-0.5) + 4 * std::exp(-1.0);
    EXPECT_NEAR(k[4], 1.0 / sum, 1e-7);
    EXPECT_NEAR(k[0], std::exp(-1.0) / sum, 1e-7);
    double a[15] = {};  // sigmas 2 and 0.5 act as 1 and 1: the corner of a 5 x 3 kernel
    ASSERT_EQ(getGaussker_64F(a, 5, 3, 2.0, 0.5), 1);
    EXPECT_NEAR(a[0] / a[7], std::exp(-2.5), 1e-12);
    EXPECT_EQ(getGaussker_32F(k, 0, 5, 1.0, 1.0), 1);  // one size below 1 alone is accepted
    EXPECT_EQ(getGaussker_32F(k, 0, 0, 1.0, 1.0), -2);
    EXPECT_EQ(getGaussker_64F(nullptr, 3, 3, 1.0, 1.0), -1);
    // gaussFilter reads a ksize1 x ksize2 kernel of which ksize1 x ksize1 was generated: with
    // 1 and 3, [1, 0, 0], so each pixel takes the one above it (row 0 mirrors row 1).
    std::vector<float> f = {1, 2, 3, 4, 5, 6}, out(6);  // 2 x 3
    ASSERT_EQ(gaussFilter_32F(f.data(), out.data(), 2, 3, 1, 3, 1.0, 1.0), 1);
    EXPECT_EQ(out, (std::vector<float>{3, 4, 1, 2, 3, 4}));
    EXPECT_EQ(gaussFilter_32F(f.data(), out.data(), 2, 3, 0, 3, 1.0, 1.0), -2);
}

TEST(BoxFilter, RoundsOnlyTheFirstRow) {
    // A 15 among 10s gives a 3 x 3 mean of 95 / 9 = 10.56: 11 in row 0, 10 in row 5.
    const int w = 5, h = 8;
    std::vector<uint16_t> src(w * h, 10), dst(w * h);
    src[2] = 15;  // its window mirrors row 1 above row 0
    src[5 * w + 2] = 15;
    ASSERT_EQ(Box_Filter(src.data(), dst.data(), w, h, 4, 1), 1);
    EXPECT_EQ(dst[2], 11);
    EXPECT_EQ(dst[5 * w + 2], 10);
    // The half goes in after truncation toward zero for signed pixels too: -10 + 0.5 -> -9.
    std::vector<int16_t> neg(w * h, -10);
    ASSERT_EQ(Box_Filter(neg.data(), neg.data(), w, h, 5, 1), 1);
    EXPECT_EQ(neg, std::vector<int16_t>(w * h, -9));
}

TEST(BoxFilter, MatchesTheDirectMeanAtEveryRadius) {
    const int w = 23, h = 17;
    std::vector<uint8_t> b = RandomImage<uint8_t>(w * h, 0, 250, 5), ob(b.size());
    for (int r : {2, 30}) {  // 30 reaches past the mirrored border on both axes
        ASSERT_EQ(Box_Filter(b.data(), ob.data(), w, h, 3, r), 1);
        const double area = double(2 * r + 1) * (2 * r + 1);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                double sb = 0;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx) {
                        const int64_t sy = Reflect(y + dy, h, r, r), sx = Reflect(x + dx, w, r, r);
                        if (sy >= 0 && sx >= 0) sb += b[sy * w + sx];
                    }
                EXPECT_EQ(ob[y * w + x], y == 0 ? std::floor(sb / area + 0.5) : std::trunc(sb / area)) << r << " at " << x << "," << y;
            }
    }
}

TEST(BoxFilter, RadiusBelowOneActsAsOneFloatsClampToTheSmallestNormalAndInPlaceAgrees) {
    const int w = 6, h = 5;
    std::vector<float> src = RandomImage<float>(w * h, 1, 100, 9), r1(w * h), rn(w * h), neg(w * h, -1.0f);
    ASSERT_EQ(Box_Filter(src.data(), r1.data(), w, h, 6, 1), 1);
    ASSERT_EQ(Box_Filter(src.data(), rn.data(), w, h, 6, -4), 1);
    EXPECT_EQ(rn, r1);
    ASSERT_EQ(Box_Filter(neg.data(), neg.data(), w, h, 6, 2), 1);
    EXPECT_EQ(neg, std::vector<float>(w * h, 1.1754943508222875e-38f));
    ASSERT_EQ(Box_Filter(src.data(), src.data(), w, h, 6, 1), 1);
    EXPECT_EQ(src, r1);
    EXPECT_EQ(Box_Filter(nullptr, rn.data(), w, h, 4, 1), -1);
    EXPECT_EQ(Box_Filter(rn.data(), nullptr, w, h, 4, 1), -2);
    EXPECT_EQ(Box_Filter(rn.data(), rn.data(), w, h, 7, 1), -3);
    EXPECT_EQ(Box_Filter(rn.data(), rn.data(), 100000, 100000, 4, 1), -4);
}

// Radii 1, 2 and 3 run through the 3 x 3, 5 x 5 and 7 x 7 exchange networks; the signed image
// holds only three values, so its windows are full of ties.
TEST(MedianBlur, MatchesASortedWindowForEveryTypeAndCopiesAtRadiusZero) {
    const int w = 19, h = 14;
    const std::vector<double> base = RandomImage<double>(w * h, 0, 60000, 21);
    const std::vector<uint16_t> u(base.begin(), base.end());
    std::vector<int16_t> s(base.size());
    for (size_t i = 0; i < base.size(); ++i) s[i] = static_cast<int16_t>(static_cast<int>(base[i]) % 3 * 1000 - 1000);
    for (int r : {0, 1, 2, 3}) {
        std::vector<uint16_t> ou(u.size()), inPlace = u;
        std::vector<int16_t> os(s.size());
        ASSERT_EQ(Median_Blur(const_cast<uint16_t*>(u.data()), ou.data(), w, h, r, 4), 1);
        ASSERT_EQ(Median_Blur(s.data(), os.data(), w, h, r, 5), 1);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                std::vector<int> wu, ws;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx) {
                        const int64_t i = Reflect(y + dy, h, r, r) * w + Reflect(x + dx, w, r, r);
                        wu.push_back(u[i]), ws.push_back(s[i]);
                    }
                std::nth_element(wu.begin(), wu.begin() + wu.size() / 2, wu.end());
                std::nth_element(ws.begin(), ws.begin() + ws.size() / 2, ws.end());
                EXPECT_EQ(ou[y * w + x], wu[wu.size() / 2]) << r << " at " << x << "," << y;
                EXPECT_EQ(os[y * w + x], ws[ws.size() / 2]) << r << " at " << x << "," << y;
            }
        ASSERT_EQ(Median_Blur(inPlace.data(), inPlace.data(), w, h, r, 4), 1);
        EXPECT_EQ(inPlace, ou) << r;
    }
    std::vector<float> f = {5, 1, 9, 2, 8, 3, 7, 4, 6}, of(9);  // floats: 3 x 3, one full window in the middle
    ASSERT_EQ(Median_Blur(f.data(), of.data(), 3, 3, 1, 6), 1);
    EXPECT_EQ(of[4], 5.0f);
}

TEST(MedianBlur, RefusesRadiiItCannotIndexAndUnservedTypes) {
    struct Case { int radius, type, want; };
    for (const Case& c : {Case{7, 3, 1}, Case{8, 3, -4}, Case{91, 5, -4}, Case{127, 4, 1}, Case{128, 4, -4},
                          Case{-1, 4, -4}, Case{1, 11, -3}}) {
        std::vector<float> buf(16, 2.0f), o(16);  // 16 elements of any served type
        EXPECT_EQ(Median_Blur(buf.data(), o.data(), 4, 4, c.radius, c.type), c.want) << c.radius << " " << c.type;
    }
    std::vector<uint16_t> img(16, 3);
    EXPECT_EQ(Median_Blur(nullptr, img.data(), 4, 4, 1, 4), -1);
    EXPECT_EQ(Median_Blur(img.data(), nullptr, 4, 4, 1, 4), -2);
    EXPECT_EQ(Median_Blur(img.data(), img.data(), 100000, 100000, 1, 4), -3);
}

}  // namespace
