#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "impl_levels.h"
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
std::vector<double> ReferenceCorrelation(const std::vector<float>& src, int w, int h,
                                         const std::vector<float>& k, int kw, int kh) {
    std::vector<double> out(src.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j) {
                    const int64_t sy = Reflect(y + i - kh / 2, h, kh / 2, kh - kh / 2 - 1);
                    const int64_t sx = Reflect(x + j - kw / 2, w, kw / 2, kw - kw / 2 - 1);
                    if (sy >= 0 && sx >= 0)
                        out[y * w + x] += double(k[i * kw + j]) * src[sy * w + sx];
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
    std::vector<float> fin = RandomImage<float>(w * h, 0, 1000, 3), out32(w * h),
                       k = {0, 1, 0, 2, 0, 1, 0, 0, 0, 3, 0, 0, 1, 0, 0};
    for (float& v : fin) v = std::floor(v);
    std::vector<uint16_t> s16(fin.begin(), fin.end()), out16(w * h);
    ASSERT_EQ(filter2D_16U(s16.data(), out16.data(), w, h, k.data(), 3, 5), 1);
    ASSERT_EQ(filter2D_32F(fin.data(), out32.data(), w, h, k.data(), 5, 3), 1);
    const std::vector<double> ref = ReferenceCorrelation(fin, w, h, k, 5, 3);
    for (size_t i = 0; i < ref.size(); ++i)
        EXPECT_TRUE(out32[i] == ref[i] && out16[i] == ref[i]) << i;
}

TEST(Filter2D, SixteenBitClampsAndTruncatesEightBitKeepsItsDestinationAndBadArgumentsAreRefused) {
    struct Case {
        uint16_t in;
        float weight;
        uint16_t want;
    };
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
        EXPECT_EQ(std::memcmp(results[0].data(), results[r].data(), src.size() * sizeof(float)), 0)
            << r;
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
                EXPECT_EQ(ob[y * w + x],
                          y == 0 ? std::floor(sb / area + 0.5) : std::trunc(sb / area))
                    << r << " at " << x << "," << y;
            }
    }
}

TEST(BoxFilter, RadiusBelowOneActsAsOneFloatsClampToTheSmallestNormalAndInPlaceAgrees) {
    const int w = 6, h = 5;
    std::vector<float> src = RandomImage<float>(w * h, 1, 100, 9), r1(w * h), rn(w * h),
                       neg(w * h, -1.0f);
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
    for (size_t i = 0; i < base.size(); ++i)
        s[i] = static_cast<int16_t>(static_cast<int>(base[i]) % 3 * 1000 - 1000);
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
    std::vector<float> f = {5, 1, 9, 2, 8, 3, 7, 4, 6},
                       of(9);  // floats: 3 x 3, one full window in the middle
    ASSERT_EQ(Median_Blur(f.data(), of.data(), 3, 3, 1, 6), 1);
    EXPECT_EQ(of[4], 5.0f);
}

TEST(MedianBlur, RefusesRadiiItCannotIndexAndUnservedTypes) {
    struct Case {
        int radius, type, want;
    };
    for (const Case& c : {Case{7, 3, 1}, Case{8, 3, -4}, Case{91, 5, -4}, Case{127, 4, 1},
                          Case{128, 4, -4}, Case{-1, 4, -4}, Case{1, 11, -3}}) {
        std::vector<float> buf(16, 2.0f), o(16);  // 16 elements of any served type
        EXPECT_EQ(Median_Blur(buf.data(), o.data(), 4, 4, c.radius, c.type), c.want)
            << c.radius << " " << c.type;
    }
    std::vector<uint16_t> img(16, 3);
    EXPECT_EQ(Median_Blur(nullptr, img.data(), 4, 4, 1, 4), -1);
    EXPECT_EQ(Median_Blur(img.data(), nullptr, 4, 4, 1, 4), -2);
    EXPECT_EQ(Median_Blur(img.data(), img.data(), 100000, 100000, 1, 4), -3);
}

// ---- fast paths against the straightforward implementation ------------------------------------

using impl_levels::AtEachLevel;
using impl_levels::SameBits;

// A float image with a few values that stress the arithmetic: infinities (which turn sums into
// NaN, always the same default NaN), a negative zero, and values far apart in magnitude.
std::vector<float> AwkwardImage(int w, int h, unsigned seed) {
    std::vector<float> v = RandomImage<float>(static_cast<size_t>(w) * h, -3000, 60000, seed);
    if (v.size() > 3) v[v.size() / 3] = -0.0f;
    if (v.size() > 50)
        v[v.size() / 2] = std::numeric_limits<float>::infinity(), v[7] = 1e-30f, v[11] = 3e8f;
    return v;
}

struct KernelCase {
    int kw, kh;
    unsigned seed;
};

// Kernels of the fixed 3 x 3 and 5 x 5 paths, of other and even sizes, single rows and columns,
// sparse ones with zeros, and kernels larger than the smaller images (positions past the mirrored
// extension); every image size leaves a remainder after the eight- and 48-pixel blocks. The
// largest image is smaller than the shared 301 x 263 (eight kernels, two thread counts and three
// levels made this the slowest case) but has the same remainders: 157 = 3 * 48 + 8 + 5.
TEST(Filter2DLevels, EveryLevelGivesTheSameBitsInAndOutOfPlaceOnAnyThreadCount) {
    const KernelCase kernels[] = {{1, 1, 1}, {3, 3, 2}, {5, 5, 3}, {7, 5, 4},
                                  {2, 4, 5}, {9, 1, 6}, {1, 6, 7}, {11, 9, 8}};
    const std::vector<impl_levels::Size> sizes = impl_levels::OddSizesWithoutTables();
    const int saved = omp_get_max_threads();
    for (const impl_levels::Size& size : sizes) {
        const std::vector<float> src = AwkwardImage(size.width, size.height, 31);
        std::vector<uint16_t> src16(src.size());
        for (size_t i = 0; i < src.size(); ++i)
            src16[i] =
                static_cast<uint16_t>(std::fabs(std::fmod(static_cast<double>(src[i]), 65536.0)));
        for (const KernelCase& kc : kernels) {
            SCOPED_TRACE(testing::Message() << size.width << "x" << size.height << " kernel "
                                            << kc.kw << "x" << kc.kh);
            std::vector<float> k =
                RandomImage<float>(static_cast<size_t>(kc.kw) * kc.kh, -0.4, 1.0, kc.seed);
            for (size_t i = 0; i < k.size(); i += 4) k[i] = 0.0f;
            for (int threads : {1, 2}) {
                omp_set_num_threads(threads);
                const auto out32 = AtEachLevel([&] {
                    std::vector<float> out(src.size(), 7.0f);
                    EXPECT_EQ(filter2D_32F(const_cast<float*>(src.data()), out.data(), size.width,
                                           size.height, k.data(), kc.kw, kc.kh),
                              1);
                    return out;
                });
                const auto inPlace32 = AtEachLevel([&] {
                    std::vector<float> buf = src;
                    EXPECT_EQ(filter2D_32F(buf.data(), buf.data(), size.width, size.height,
                                           k.data(), kc.kw, kc.kh),
                              1);
                    return buf;
                });
                const auto out16 = AtEachLevel([&] {
                    std::vector<uint16_t> out(src16.size(), 7), inPlace = src16;
                    EXPECT_EQ(filter2D_16U(const_cast<uint16_t*>(src16.data()), out.data(),
                                           size.width, size.height, k.data(), kc.kh, kc.kw),
                              1);
                    EXPECT_EQ(filter2D_16U(inPlace.data(), inPlace.data(), size.width, size.height,
                                           k.data(), kc.kh, kc.kw),
                              1);
                    EXPECT_EQ(inPlace, out);
                    return out;
                });
                for (size_t level = 1; level < out32.size(); ++level) {
                    EXPECT_TRUE(SameBits(out32[0], out32[level]))
                        << "level " << level << ", " << threads << " threads";
                    EXPECT_TRUE(SameBits(out32[0], inPlace32[level]))
                        << "level " << level << " in place";
                    EXPECT_EQ(out16[0], out16[level]) << "level " << level;
                }
            }
        }
    }
    omp_set_num_threads(saved);
}

// The separable Gaussian's bound: |fast - exact| <= kGaussBound * sum |weight * pixel| of the
// exact correlation. Its factors are products of exponentials rounded once; the exact kernel's
// entries are rounded on their own, and the two orders of summation round differently: over
// 5 x 5 kernels these differ by about 3e-7 of that sum, 1e-6 leaves room for larger kernels.
constexpr double kGaussBound = 1e-6;

// An image size, a square kernel size and the two sigmas (0 and below: derived from the size).
struct GaussCase {
    int w, h, k;
    double sx, sy;
    friend void PrintTo(const GaussCase& c, std::ostream* os) {
        *os << c.w << "x" << c.h << " kernel " << c.k << " sigmas " << c.sx << ", " << c.sy;
    }
};

class GaussFilterCase : public testing::TestWithParam<GaussCase> {};

TEST_P(GaussFilterCase,
       TheSeparableFormStaysWithinItsBoundAndSixteenBitsDifferOnlyNearARoundingBoundary) {
    const GaussCase& c = GetParam();
    const size_t n = static_cast<size_t>(c.w) * c.h;
    std::vector<float> src = RandomImage<float>(n, 0, 65535, 41 + c.k), absSrc(n);
    for (size_t i = 0; i < n; i += 5) src[i] = -src[i];
    for (size_t i = 0; i < n; ++i) absSrc[i] = std::fabs(src[i]);
    const std::vector<uint16_t> src16(src.begin(), src.end());
    std::vector<float> kernel(static_cast<size_t>(c.k) * c.k), scale(n), exact16(n);
    ASSERT_EQ(getGaussker_32F(kernel.data(), c.k, c.k, c.sx, c.sy), 1);
    std::vector<float> floats16(src16.begin(), src16.end());
    {
        impl_levels::LevelCap cap(impl_levels::kReference);
        ASSERT_EQ(filter2D_32F(absSrc.data(), scale.data(), c.w, c.h, kernel.data(), c.k, c.k), 1);
        ASSERT_EQ(filter2D_32F(floats16.data(), exact16.data(), c.w, c.h, kernel.data(), c.k, c.k),
                  1);
    }
    const auto f32 = AtEachLevel([&] {
        std::vector<float> out(n), inPlace = src;
        EXPECT_EQ(gaussFilter_32F(src.data(), out.data(), c.w, c.h, c.k, c.k, c.sx, c.sy), 1);
        EXPECT_EQ(gaussFilter_32F(inPlace.data(), inPlace.data(), c.w, c.h, c.k, c.k, c.sx, c.sy),
                  1);
        EXPECT_TRUE(SameBits(inPlace, out));
        return out;
    });
    const auto u16 = AtEachLevel([&] {
        std::vector<uint16_t> out(n);
        EXPECT_EQ(gaussFilter_16U(const_cast<uint16_t*>(src16.data()), out.data(), c.w, c.h, c.k,
                                  c.k, c.sx, c.sy),
                  1);
        return out;
    });
    EXPECT_TRUE(SameBits(f32[1], f32[2]));  // the two fast levels run the same sums
    EXPECT_EQ(u16[1], u16[2]);
    for (size_t i = 0; i < n; ++i) {
        const double bound = kGaussBound * scale[i];
        EXPECT_LE(std::fabs(static_cast<double>(f32[1][i]) - f32[0][i]), bound) << i;
        if (u16[1][i] == u16[0][i]) continue;
        // A different 16-bit value only where the exact float lies that close to the next
        // integer (or to a clamp), and only by one.
        const double v = exact16[i];
        EXPECT_EQ(std::abs(static_cast<int>(u16[1][i]) - static_cast<int>(u16[0][i])), 1) << i;
        EXPECT_LE(std::fabs(v - std::round(v)), kGaussBound * std::max(1.0, v)) << i << ": " << v;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GaussFilterCase,
    testing::Values(GaussCase{301, 263, 5, 1.2, 1.2}, GaussCase{33, 31, 3, 0.8, 2.0},
                    GaussCase{45, 7, 7, 3.0, 3.0}, GaussCase{17, 13, 9, 0.0, -1.0},
                    GaussCase{17, 13, 4, 1.5, 1.5}, GaussCase{7, 3, 5, 1.0, 1.0},
                    GaussCase{1, 37, 1, 1.0, 1.0}),
    [](const testing::TestParamInfo<GaussCase>& info) {
        const GaussCase& c = info.param;
        return std::to_string(c.w) + "x" + std::to_string(c.h) + "Kernel" + std::to_string(c.k);
    });

TEST(GaussFilterLevels, UnequalSizesTakeTheExactKernelAtEveryLevel) {
    const int w = 23, h = 19;
    const std::vector<float> src = RandomImage<float>(static_cast<size_t>(w) * h, 0, 1000, 43);
    const auto out = AtEachLevel([&] {
        std::vector<float> o(src.size());
        EXPECT_EQ(gaussFilter_32F(const_cast<float*>(src.data()), o.data(), w, h, 3, 5, 1.0, 1.0),
                  1);
        return o;
    });
    EXPECT_TRUE(SameBits(out[0], out[1]) && SameBits(out[0], out[2]));
}

// Every argument is looked at before the kernel is built: a kernel of 1 x (2^31 - 1) for an
// empty image once cost 27 s and 8.4 GB and returned 1. Sizes beyond 2^28 elements are refused.
TEST(GaussFilterLevels, AbsurdKernelsAreRefusedBeforeAnythingIsAllocated) {
    std::vector<uint16_t> img(25, 9);
    std::vector<float> f(25, 9.0f);
    std::vector<uint8_t> b(25, 9);
    const int huge = std::numeric_limits<int>::max();
    struct Case {
        int w, h, k1, k2, want;
    };
    for (const Case& c : {Case{0, 0, 1, huge, -5}, Case{5, 5, 1, huge, -5}, Case{0, 0, huge, 1, -5},
                          Case{5, 5, 16385, 16385, -5}, Case{5, 5, 1, (1 << 28) + 1, -5},
                          Case{0, 0, 3, 3, 1}, Case{5, 5, 0, huge, -2}, Case{5, 5, 3, 0, -4}}) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " ksize " << c.k1 << ", " << c.k2);
        EXPECT_EQ(gaussFilter_16U(img.data(), img.data(), c.w, c.h, c.k1, c.k2, 1.0, 1.0), c.want);
        EXPECT_EQ(gaussFilter_32F(f.data(), f.data(), c.w, c.h, c.k1, c.k2, 1.0, 1.0), c.want);
        EXPECT_EQ(gaussFilter_8U(b.data(), b.data(), c.w, c.h, c.k1, c.k2, 1.0, 1.0), c.want);
    }
    EXPECT_EQ(img, std::vector<uint16_t>(25, 9));
    float k = 1.0f;  // a kernel of more than 2^28 elements is refused without being read
    EXPECT_EQ(filter2D_32F(f.data(), f.data(), 5, 5, &k, 1 << 15, 1 << 14), -5);
    EXPECT_EQ(filter2D_8U(b.data(), b.data(), 5, 5, &k, 1 << 15, 1 << 14), -5);
    EXPECT_EQ(filter2D_16U(img.data(), img.data(), 1 << 15, 1 << 14, &k, 1, 1), -5);
    EXPECT_EQ(f, std::vector<float>(25, 9.0f));
}

template <class T>
std::vector<T> BoxImage(int w, int h, unsigned seed) {
    const double lo = std::is_signed_v<T> ? std::numeric_limits<T>::lowest() : 0;
    const double hi = std::numeric_limits<T>::max();
    std::vector<T> v = RandomImage<T>(static_cast<size_t>(w) * h, lo, hi, seed);
    // Runs of the extremes, whose window sums reach the largest magnitudes.
    for (size_t i = 0; i < v.size() / 4; ++i) v[i] = std::numeric_limits<T>::max();
    if constexpr (std::is_signed_v<T>)
        for (size_t i = v.size() / 2; i < 3 * v.size() / 4; ++i)
            v[i] = std::numeric_limits<T>::lowest();
    return v;
}

// Radii up to and past the image and to the ends of the integer path (90 for 16-bit pixels, 1447
// for 8-bit), flat images of the extremes, in place and out of place. Windows reach at most
// three times the image's size (the mirror, then zeros); the largest image, 157 x 67, still holds
// a whole window of radius 91, whose 16-bit sums pass 2^31.
TEST(BoxFilterLevels, IntegerSumsGiveTheSameBitsAsTheRunningSumsOfDoubles) {
    auto check = [](auto tag, int type, std::vector<int> radii) {
        using T = decltype(tag);
        for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
            const std::vector<T> src = BoxImage<T>(size.width, size.height, 51);
            for (int r : radii) {
                for (const std::vector<T>& img :
                     {src, std::vector<T>(src.size(), std::numeric_limits<T>::max()),
                      std::vector<T>(src.size(), std::numeric_limits<T>::lowest())}) {
                    const auto out = AtEachLevel([&] {
                        std::vector<T> o(img.size()), inPlace = img;
                        EXPECT_EQ(Box_Filter(const_cast<T*>(img.data()), o.data(), size.width,
                                             size.height, type, r),
                                  1);
                        EXPECT_EQ(Box_Filter(inPlace.data(), inPlace.data(), size.width,
                                             size.height, type, r),
                                  1);
                        EXPECT_EQ(inPlace, o);
                        return o;
                    });
                    EXPECT_EQ(out[0], out[1])
                        << size.width << "x" << size.height << " type " << type << " r " << r;
                    EXPECT_EQ(out[0], out[2])
                        << size.width << "x" << size.height << " type " << type << " r " << r;
                }
            }
        }
    };
    check(uint16_t{}, 4, {0, 1, 2, 3, 10, 40, 90, 91});
    check(int16_t{}, 5, {1, 2, 7, 10, 90, 91});
    check(uint8_t{}, 3, {1, 2, 5, 100, 1447, 1448});
}

TEST(BoxFilterLevels, FloatImagesKeepTheirRunningSums) {
    const int w = 33, h = 31;
    const std::vector<float> f = AwkwardImage(w, h, 61);
    const std::vector<double> d(f.begin(), f.end());
    for (int r : {1, 3, 40}) {
        const auto outF = AtEachLevel([&] {
            std::vector<float> o(f.size());
            EXPECT_EQ(Box_Filter(const_cast<float*>(f.data()), o.data(), w, h, 6, r), 1);
            return o;
        });
        const auto outD = AtEachLevel([&] {
            std::vector<double> o(d.size());
            EXPECT_EQ(Box_Filter(const_cast<double*>(d.data()), o.data(), w, h, 11, r), 1);
            return o;
        });
        EXPECT_TRUE(SameBits(outF[0], outF[1]) && SameBits(outF[0], outF[2])) << r;
        EXPECT_TRUE(SameBits(outD[0], outD[1]) && SameBits(outD[0], outD[2])) << r;
    }
}

}  // namespace
