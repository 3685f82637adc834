#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "impl_levels.h"
#include "veltrano.h"

namespace {

TEST(PointOps, ReportNullPointersAndRefusedTypesInCheckingOrderAndIgnoreEmptySizes) {
    uint16_t w[4] = {1, 2, 3, 4};
    float f[4] = {1, 2, 3, 4};
    const std::vector<std::pair<int, int>> got_want = {
        {Inverse(nullptr, nullptr, 2, 2, 3), -1},
        {Inverse(w, nullptr, 2, 2, 4), -2},
        {Inverse(w, w, 2, 2, 4), -3},
        {BrigntAndContrast(nullptr, w, 2, 2, 4, 0, 1), -1},
        {BrigntAndContrast(w, w, 2, 2, 3, 0, 1), -3},
        {GammaCorrect(w, nullptr, 2, 2, 1, 99), -2},
        {GammaCorrect(w, w, 2, 2, 1, 11), -3},
        {Image_Log(nullptr, f, 2, 2, 0), -1},
        {Image_Log(f, nullptr, 2, 2, 0), -2},
        {Image_Square_NoTrunc(w, nullptr, 2, 2, 4), -2},
        {Image_Square_NoTrunc(w, reinterpret_cast<double*>(f), 2, 2, 11), -3},
        {ThresholdBinary(nullptr, w, 4, 2, 2, 1, 0), -1},
        {ThresholdBinary(w, nullptr, 4, 2, 2, 1, 0), -2},
        {ImgGainCorrect(f, nullptr, 2, 2), -2},
        {EquHist(nullptr, w, 4, 4), -1},
        {EquHist(w, w, 4, 5), -3},
        {Inverse(w, w, -2, -2, 3), 1},
        {EquHist(w, w, -4, 4), 1},
    };
    for (size_t i = 0; i < got_want.size(); ++i)
        EXPECT_EQ(got_want[i].first, got_want[i].second) << i;
    EXPECT_EQ(std::vector<uint16_t>(w, w + 4), (std::vector<uint16_t>{1, 2, 3, 4}));
}

TEST(PointOps, InverseRefusesTheSixteenBitCodeButInvertsWordsForAnyOther) {
    std::vector<uint16_t> src = {0, 1, 40000, 65535}, dst(4, 7);
    EXPECT_EQ(Inverse(src.data(), dst.data(), 2, 2, 4), -3);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 7));
    for (int code : {3, 5, 6, -1}) {
        ASSERT_EQ(Inverse(src.data(), dst.data(), 2, 2, code), 1);
        EXPECT_EQ(dst, (std::vector<uint16_t>{65535, 65534, 25535, 0})) << code;
    }
}

TEST(PointOps, BrigntAndContrastScalesAddsClampsAndTruncates) {
    struct Case {
        uint16_t in;
        float brightness, contrast;
        uint16_t want;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const Case& c :
         {Case{40000, 1000, 2, 65535}, Case{0, 1000, 2, 1000}, Case{100, 0.9f, 1.5f, 150},
          Case{500, -1000, 1, 0}, Case{500, 0, nan, 0}}) {
        uint16_t v = c.in, out = 1;
        ASSERT_EQ(BrigntAndContrast(&v, &out, 1, 1, 4, c.brightness, c.contrast), 1);
        EXPECT_EQ(out, c.want) << c.in << " b " << c.brightness << " c " << c.contrast;
    }
}

TEST(PointOps, GammaCorrectMapsIntegerTypesOverTheirFullRangeAndFloatsOverTheirSpan) {
    // More pixels than 16-bit values: gamma 1 is the identity over the whole range.
    std::vector<uint16_t> all(300 * 260), out(all.size());
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint16_t>(i * 40503u);
    ASSERT_EQ(GammaCorrect(all.data(), out.data(), 300, 260, 1.0f, 4), 1);
    EXPECT_EQ(out, all);
    // (128/255)^2 * 255 + 0.5 = 64.75 -> 64; (64/255)^0.5 * 255 + 0.5 = 128.25 -> 128.
    uint8_t b[2] = {128, 64}, ob[2] = {};
    ASSERT_EQ(GammaCorrect(b, ob, 1, 1, 2.0f, 3) + GammaCorrect(b + 1, ob + 1, 1, 1, 0.5f, 3), 2);
    EXPECT_EQ(ob[0] * 1000 + ob[1], 64128);
    // 30000^2 / 65535 + 0.5 = 13733.6 -> 13733, also within a frame mapped through a table.
    all.assign(all.size(), 30000);
    ASSERT_EQ(GammaCorrect(all.data(), out.data(), 300, 260, 2.0f, 4), 1);
    EXPECT_EQ(out, std::vector<uint16_t>(all.size(), 13733));
    // The power is single precision but scaling back is in double: 5467 at gamma 0.8 gives
    // 8984.9996 (single-precision scaling would round it up to 8985).
    uint16_t g16 = 5467, go16 = 0;
    ASSERT_EQ(GammaCorrect(&g16, &go16, 1, 1, 0.8f, 4), 1);
    EXPECT_EQ(go16, 8984);
    int16_t s[2] = {-100, 32767}, os[2] = {5, 5};  // a negative base has no real power: 0
    ASSERT_EQ(GammaCorrect(s, os, 2, 1, 0.5f, 5), 1);
    EXPECT_EQ(std::vector<int16_t>(os, os + 2), (std::vector<int16_t>{0, 32767}));
    float f[4] = {1.0f, 2.0f, 3.0f, 5.0f}, fo[4] = {};  // min 1, span 4, no offset
    ASSERT_EQ(GammaCorrect(f, fo, 4, 1, 2.0f, 6), 1);
    EXPECT_EQ(std::vector<float>(fo, fo + 4), (std::vector<float>{1.0f, 1.25f, 2.0f, 5.0f}));
    float flat[3] = {7.5f, 7.5f, 7.5f};  // no span: copied rather than turned into NaN
    ASSERT_EQ(GammaCorrect(flat, flat, 3, 1, 2.0f, 6), 1);
    EXPECT_EQ(std::vector<float>(flat, flat + 3), std::vector<float>(3, 7.5f));
}

TEST(PointOps, ImageLogFloorsAtTwentyAndNegatesOnlyForOne) {
    float src[4] = {0.0f, 20.0f, -3.0f, 100.0f};
    const float ln20 = static_cast<float>(std::log(20.0)),
                ln100 = static_cast<float>(std::log(100.0));
    for (const auto& [negate, sign] :
         {std::pair{0, 1.0f}, std::pair{1, -1.0f}, std::pair{2, 1.0f}}) {
        float out[4] = {};
        ASSERT_EQ(Image_Log(src, out, 2, 2, negate), 1);
        EXPECT_EQ(std::vector<float>(out, out + 4),
                  (std::vector<float>{sign * ln20, sign * ln20, sign * ln20, sign * ln100}));
    }
}

TEST(PointOps, ImageSquareWidensWithoutClampingAndFloatsSquareInSinglePrecision) {
    double out[2] = {};
    int32_t i[2] = {100000, -2};
    float f[2] = {4097.0f, 1.5f};  // 4097^2 = 16785409 is not a float
    ASSERT_EQ(Image_Square_NoTrunc(i, out, 2, 1, 8), 1);
    ASSERT_EQ(Image_Square_NoTrunc(f, out + 1, 1, 1, 6), 1);
    EXPECT_EQ(std::vector<double>(out, out + 2), (std::vector<double>{1e10, 16785408.0}));
}

TEST(PointOps, ThresholdBinaryModesCompareStrictly) {
    struct Case {
        uint32_t mode;
        std::vector<uint16_t> want16;
        std::vector<uint8_t> want8;
    };
    const Case cases[] = {
        {0, {0, 0, 65535, 65535}, {0, 0, 255, 255}},
        {1, {65535, 65535, 0, 0}, {255, 255, 0, 0}},
        {2, {0, 0, 101, 65535}, {0, 0, 101, 255}},
        {3, {99, 100, 0, 0}, {99, 100, 0, 0}},
    };
    std::vector<uint16_t> src16 = {99, 100, 101, 65535}, out16(4);
    std::vector<uint8_t> src8 = {99, 100, 101, 255}, out8(4);
    for (const Case& c : cases) {
        ASSERT_EQ(ThresholdBinary(src16.data(), out16.data(), 4, 2, 2, 100.0, c.mode), 1);
        ASSERT_EQ(ThresholdBinary(reinterpret_cast<uint16_t*>(src8.data()),
                                  reinterpret_cast<uint16_t*>(out8.data()), 3, 4, 1, 100.0, c.mode),
                  1);
        EXPECT_EQ(out16, c.want16) << "mode " << c.mode;
        EXPECT_EQ(out8, c.want8) << "mode " << c.mode;
    }
    std::vector<uint16_t> out(4, 1);  // other modes and codes write nothing
    EXPECT_EQ(ThresholdBinary(src16.data(), out.data(), 4, 2, 2, 100.0, 4) +
                  ThresholdBinary(src16.data(), out.data(), 5, 2, 2, 100.0, 0),
              2);
    EXPECT_EQ(out, std::vector<uint16_t>(4, 1));
}

TEST(PointOps, ImgGainCorrectAndEquHistUseOneStatisticOfTheWholeImage) {
    float src[4] = {1.0f, 4.0f, 0.0f, 3.0f}, out[4] = {};  // mean 2, floor 0.001
    ASSERT_EQ(ImgGainCorrect(src, out, 4, 1), 1);
    EXPECT_EQ(std::vector<float>(out, out + 4),
              (std::vector<float>{2.0f, 0.5f, 2.0f / 0.001f, 2.0f / 3.0f}));
    // cdf(1000) = 1 -> 1000; cdf(100) = 0.5 -> 100 * 0.5 + 0.5 = 50.5 -> 50; cdf(300) = 1 -> 300.
    std::vector<uint16_t> flat(10, 1000), two = {100, 300, 100, 300}, o16(4);
    ASSERT_EQ(EquHist(flat.data(), flat.data(), 10, 4), 1);
    EXPECT_EQ(flat, std::vector<uint16_t>(10, 1000));
    ASSERT_EQ(EquHist(two.data(), o16.data(), 4, 4), 1);
    EXPECT_EQ(o16, (std::vector<uint16_t>{50, 300, 50, 300}));
    std::vector<uint8_t> b = {10, 20, 20, 30}, ob(4);  // cdf 0.25, 0.75, 1 -> 3, 15, 30
    ASSERT_EQ(EquHist(reinterpret_cast<uint16_t*>(b.data()), reinterpret_cast<uint16_t*>(ob.data()),
                      4, 3),
              1);
    EXPECT_EQ(ob, (std::vector<uint8_t>{3, 15, 15, 30}));
}

// The gain correction's mean at the limits of the fast whole-number sum, read from a probe pixel
// of 1 (its gain is the mean itself): frames of +-2^24 (lane sums that must be widened in time;
// 6400 values make several rounds of 1024, twice as many as a lane could take unwidened) and of
// 2^25 (past the path's range: a lane could not hold 64 of them), and frames where a value that
// is no whole number of at most 2^24 must send the sum back to index order, where 1e20 swallows
// the ones added after it. The odd values stand at index 3 and n - 5, in the first and the second
// vector of a step of 16, and fractions stand alone, since truncated ones would cancel.
TEST(PointOps, GainCorrectionSumsEqualTheIndexOrderSumAtTheLimitsOfTheWholeNumberPath) {
    const int w = 160, h = 40;
    const size_t n = static_cast<size_t>(w) * h;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<std::vector<float>> frames;
    for (float big : {16777216.0f, -16777216.0f, 33554432.0f}) {
        frames.emplace_back(n, big);
        frames.back()[n / 2] = 1.0f;
    }
    const size_t swallowing = frames.size();
    const std::pair<float, float> odd[] = {{1e20f, -1e20f},
                                           {2147483648.0f, -2147483648.0f},
                                           {4294967296.0f, -4294967296.0f},
                                           {-0.5f, 1.0f},
                                           {1.0f, 0.25f},
                                           {nan, 1.0f}};
    for (const auto& [first, second] : odd) {
        std::vector<float> f(n, 1.0f);
        f[3] = first;
        f[n - 5] = second;
        frames.push_back(f);
    }
    for (const std::vector<float>& frame : frames) {
        const auto gains = impl_levels::AtEachLevel([&] {
            std::vector<float> out(n);
            EXPECT_EQ(ImgGainCorrect(const_cast<float*>(frame.data()), out.data(), w, h), 1);
            return out;
        });
        for (size_t level = 1; level < gains.size(); ++level)
            EXPECT_TRUE(impl_levels::SameBits(gains[level], gains[0]))
                << "frame with " << frame[3] << " and " << frame[n - 5] << ", level " << level;
    }
    // The exact means of the first frames, and the swallowed ones of the 1e20 frame.
    const auto probe = [&](const std::vector<float>& f) {
        std::vector<float> out(n);
        ImgGainCorrect(const_cast<float*>(f.data()), out.data(), w, h);
        return out[n / 2];
    };
    EXPECT_EQ(probe(frames[0]), static_cast<float>((16777216.0 * (n - 1) + 1) / n));
    EXPECT_EQ(probe(frames[1]), static_cast<float>((-16777216.0 * (n - 1) + 1) / n));
    EXPECT_EQ(probe(frames[swallowing]), static_cast<float>(4.0 / n));
}

// Every point operation reads each source pixel once and writes the same index, so it must give
// the same result in place as into a separate buffer.
TEST(PointOps, InPlaceEqualsOutOfPlace) {
    const int w = 37, h = 23;
    std::vector<uint16_t> src(w * h);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
    const std::vector<std::function<int(uint16_t*, uint16_t*)>> ops = {
        [&](uint16_t* s, uint16_t* d) { return BrigntAndContrast(s, d, w, h, 4, 300.0f, 1.3f); },
        [&](uint16_t* s, uint16_t* d) { return GammaCorrect(s, d, w, h, 1.7f, 3); },
        [&](uint16_t* s, uint16_t* d) { return EquHist(s, d, w * h, 4); },
        [&](uint16_t* s, uint16_t* d) {
            return Image_Log(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), w, h / 2, 1);
        }};
    for (size_t k = 0; k < ops.size(); ++k) {
        std::vector<uint16_t> out = src, inPlace = src;
        ASSERT_EQ(ops[k](src.data(), out.data()), 1);
        ASSERT_EQ(ops[k](inPlace.data(), inPlace.data()), 1);
        EXPECT_EQ(inPlace, out) << k;
        EXPECT_NE(out, src) << k;
    }
}

}  // namespace

// ---- fast paths against the plain loops ------------------------------------------------------

namespace {

using impl_levels::AtEachLevel;
using impl_levels::SameBits;

template <class T>
std::vector<T> Random(size_t n, unsigned seed, int lo, int hi) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(lo, hi);
    std::vector<T> v(n);
    for (T& x : v) x = static_cast<T>(dist(gen));
    return v;
}

// Runs op(src, dst) at every level, out of place and in place, and expects the bits of the
// reference everywhere.
template <class T, class Op>
void ExpectIdenticalAtEveryLevel(const std::vector<T>& src, Op op, const std::string& what) {
    const auto out = AtEachLevel([&] {
        std::vector<T> dst(src.size(), T(3));
        std::vector<T> in = src;
        EXPECT_EQ(op(in.data(), dst.data()), 1) << what;
        return dst;
    });
    const auto inPlace = AtEachLevel([&] {
        std::vector<T> img = src;
        EXPECT_EQ(op(img.data(), img.data()), 1) << what;
        return img;
    });
    for (size_t level = 1; level < out.size(); ++level) {
        EXPECT_TRUE(SameBits(out[level], out[0])) << what << ", level " << level;
        EXPECT_TRUE(SameBits(inPlace[level], inPlace[0])) << what << ", in place, level " << level;
    }
}

TEST(PointOps, IntegerFastPathsMatchThePlainLoopsBitForBit) {
    const float nan = std::numeric_limits<float>::quiet_NaN(),
                inf = std::numeric_limits<float>::infinity();
    const double dnan = std::numeric_limits<double>::quiet_NaN();
    unsigned seed = 5;
    for (const impl_levels::Size& s : impl_levels::OddSizes()) {
        const int w = s.width, h = s.height;
        const size_t n = static_cast<size_t>(w) * h;
        const std::string size = std::to_string(w) + "x" + std::to_string(h);
        const std::vector<uint16_t> u16 = Random<uint16_t>(n, seed++, 0, 65535);
        const std::vector<uint8_t> u8 = Random<uint8_t>(n, seed++, 0, 255);
        const std::vector<uint16_t> narrow =
            Random<uint16_t>(n, seed++, 1000, 1400);  // many repeats
        struct Linear {
            float brightness, contrast;
        };
        for (const Linear& c :
             {Linear{500.0f, 1.2f}, Linear{-300.5f, 0.7f}, Linear{0.0f, -1.0f}, Linear{1e9f, 1.0f},
              Linear{0.25f, 3.9999f}, Linear{nan, 1.0f}, Linear{0.0f, inf}}) {
            ExpectIdenticalAtEveryLevel(
                u16,
                [&](uint16_t* a, uint16_t* b) {
                    return BrigntAndContrast(a, b, w, h, 4, c.brightness, c.contrast);
                },
                "brightness " + size);
        }
        // Thresholds compare in vector registers and keep no table: the frame larger than the
        // tables (and 48 settings on it cost more than the rest of this case) adds nothing there.
        const bool largerThanTables = n > 65536;
        for (double t :
             {-5.0, -0.5, 0.0, 0.5, 100.0, 254.5, 255.0, 40000.7, 65534.5, 65535.0, 1e9, dnan}) {
            if (largerThanTables) break;
            for (uint32_t mode : {0u, 1u, 2u, 3u}) {
                const std::string what =
                    "threshold " + std::to_string(t) + " mode " + std::to_string(mode) + " " + size;
                ExpectIdenticalAtEveryLevel(
                    u16,
                    [&](uint16_t* a, uint16_t* b) {
                        return ThresholdBinary(a, b, 4, w, h, t, mode);
                    },
                    what);
                ExpectIdenticalAtEveryLevel(
                    u8,
                    [&](uint8_t* a, uint8_t* b) {
                        return ThresholdBinary(reinterpret_cast<uint16_t*>(a),
                                               reinterpret_cast<uint16_t*>(b), 3, w, h, t, mode);
                    },
                    what);
            }
        }
        for (const auto* img : {&u16, &narrow})
            ExpectIdenticalAtEveryLevel(
                *img, [&](uint16_t* a, uint16_t* b) { return EquHist(a, b, w * h, 4); },
                "equalise " + size);
        ExpectIdenticalAtEveryLevel(
            u8,
            [&](uint8_t* a, uint8_t* b) {
                return EquHist(reinterpret_cast<uint16_t*>(a), reinterpret_cast<uint16_t*>(b),
                               w * h, 3);
            },
            "equalise 8 " + size);
        // Whole numbers (an exact sum in any order) and fractions (the sum keeps its order).
        std::vector<float> whole(u16.begin(), u16.end()), fractions(n);
        for (size_t i = 0; i < n; ++i) fractions[i] = static_cast<float>(u16[i]) / 7.3f + 1e-3f;
        if (n > 3) whole[1] = 0.0f, whole[2] = -12.0f, fractions[2] = -0.0f;
        for (const auto* img : {&whole, &fractions})
            ExpectIdenticalAtEveryLevel(
                *img, [&](float* a, float* b) { return ImgGainCorrect(a, b, w, h); },
                "gain " + size);
        ExpectIdenticalAtEveryLevel(
            u8, [&](uint8_t* a, uint8_t* b) { return GammaCorrect(a, b, w, h, 0.45f, 3); },
            "gamma 8 " + size);
    }
}

// The 16-bit gamma table of the vector level uses exp(gamma log b) in double instead of the C
// library's pow: the rounded single-precision power may then differ by one unit only when pow's
// exact value lies within about 2^-50 of a rounding boundary, and an output pixel by 1 only when
// p * high + 0.5 lies within 65535 * 2^-24 of an integer. Every value of the type is checked.
TEST(PointOps, GammaTablesMatchTheLibraryPowerWithinTheStatedBound) {
    std::vector<uint16_t> every(70000);
    for (size_t i = 0; i < every.size(); ++i) every[i] = static_cast<uint16_t>(i * 7919u);
    std::vector<int16_t> everySigned(every.begin(), every.end());
    const int w = 350, h = 200;
    int differing = 0;
    for (float gamma : {0.8f, 0.45f, 1.0f, 1.7f, 2.2f, 7.5f, 0.03f, -0.6f, 2.0f, 0.0f}) {
        const auto u = AtEachLevel([&] {
            std::vector<uint16_t> out(every.size());
            EXPECT_EQ(GammaCorrect(every.data(), out.data(), w, h, gamma, 4), 1);
            return out;
        });
        const auto s = AtEachLevel([&] {
            std::vector<int16_t> out(every.size());
            EXPECT_EQ(GammaCorrect(everySigned.data(), out.data(), w, h, gamma, 5), 1);
            return out;
        });
        EXPECT_TRUE(SameBits(u[1], u[0])) << gamma;
        EXPECT_TRUE(SameBits(s[1], s[0])) << gamma;
        for (size_t i = 0; i < every.size(); ++i) {
            for (int type = 0; type < 2; ++type) {
                const int ref = type == 0 ? u[0][i] : s[0][i];
                const int fast = type == 0 ? u[2][i] : s[2][i];
                if (ref == fast) continue;
                const double high = type == 0 ? 65535.0 : 32767.0;
                const double value = type == 0 ? every[i] : everySigned[i];
                const float b = static_cast<float>(value) / static_cast<float>(high);
                const double v = static_cast<float>(
                                     std::pow(static_cast<double>(b), static_cast<double>(gamma))) *
                                     high +
                                 0.5;
                EXPECT_EQ(std::abs(ref - fast), 1) << "gamma " << gamma << " value " << value;
                EXPECT_LT(std::fabs(v - std::round(v)), high * 6e-8)
                    << "gamma " << gamma << " value " << value;
                ++differing;
            }
        }
    }
    EXPECT_LT(differing, 20);
}

// The fast levels grow the table chunk by chunk as new values turn up. A frame whose values
// spread outwards from the middle of the range, both upwards and downwards, makes every chunk
// extend the table: the scalar level must still equal the plain loop, and the vector level must
// give each value the same result as in a frame where every value turns up in the first chunk.
TEST(PointOps, GammaTablesGrowingOverTheFrameGiveEveryValueOneResult) {
    const int w = 509, h = 257;
    const size_t n = static_cast<size_t>(w) * h;
    std::vector<uint16_t> spreading(n);
    for (size_t i = 0; i < n; ++i) {
        const int step = static_cast<int>(i / 2 % 32768);
        spreading[i] = static_cast<uint16_t>(i % 2 ? 32768 + step : 32767 - step);
    }
    std::vector<uint16_t> mixed = spreading;
    std::shuffle(mixed.begin(), mixed.end(), std::mt19937(3));
    std::vector<int16_t> spreadingSigned(n);
    for (size_t i = 0; i < n; ++i) spreadingSigned[i] = static_cast<int16_t>(spreading[i] ^ 0x8000);
    for (float gamma : {0.8f, 2.0f, 0.3f}) {
        auto run = [&](auto& img, int code) {
            return AtEachLevel([&] {
                auto out = img;
                EXPECT_EQ(GammaCorrect(img.data(), out.data(), w, h, gamma, code), 1);
                return out;
            });
        };
        const auto grown = run(spreading, 4), all = run(mixed, 4);
        const auto grownSigned = run(spreadingSigned, 5);
        EXPECT_TRUE(SameBits(grown[1], grown[0])) << gamma;
        EXPECT_TRUE(SameBits(grownSigned[1], grownSigned[0])) << gamma;
        std::vector<int> byValue(65536, -1);
        for (size_t i = 0; i < n; ++i) byValue[mixed[i]] = all[2][i];
        size_t differing = 0;
        for (size_t i = 0; i < n; ++i) differing += grown[2][i] != byValue[spreading[i]];
        EXPECT_EQ(differing, 0u) << gamma;
    }
}

// The logarithm: the scalar level is the C library's (through a table of whole numbers) and
// identical; the vector level's double logarithm rounds to the same float except within 2^-50
// (relative) of a rounding boundary, and then by one unit. Whole numbers, fractions, negative,
// huge, infinite and not-a-number pixels, in a frame large enough for the table.
TEST(PointOps, ImageLogMatchesTheLibraryLogarithmWithinTheStatedBound) {
    std::mt19937 gen(77);
    const int w = 641, h = 411;
    std::vector<float> src(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < src.size(); ++i) {
        const uint32_t r = gen();
        switch (r % 5) {
        case 0:
            src[i] = static_cast<float>(r % 65536);
            break;
        case 1:
            src[i] = static_cast<float>(r % 1000000) / 13.0f;
            break;
        case 2:
            src[i] = static_cast<float>(r) * 1e28f;
            break;
        default:
            src[i] = static_cast<float>(r % 70000) - 2000.0f;
            break;
        }
    }
    src[5] = std::numeric_limits<float>::infinity(),
    src[6] = std::numeric_limits<float>::quiet_NaN();
    src[7] = -std::numeric_limits<float>::infinity(), src[8] = std::numeric_limits<float>::max();
    for (int negate : {0, 1}) {
        const auto out = AtEachLevel([&] {
            std::vector<float> dst(src.size());
            EXPECT_EQ(Image_Log(src.data(), dst.data(), w, h, negate), 1);
            return dst;
        });
        const auto inPlace = AtEachLevel([&] {
            std::vector<float> img = src;
            EXPECT_EQ(Image_Log(img.data(), img.data(), w, h, negate), 1);
            return img;
        });
        EXPECT_TRUE(SameBits(out[1], out[0]));
        EXPECT_TRUE(SameBits(inPlace[1], out[0]));
        EXPECT_TRUE(SameBits(inPlace[2], out[2]));
        int differing = 0;
        for (size_t i = 0; i < src.size(); ++i) {
            if (std::memcmp(&out[0][i], &out[2][i], sizeof(float)) == 0) continue;
            ++differing;
            const double x = std::max(static_cast<double>(src[i]), 20.0);
            const double exact = std::log(x);
            const double boundary = (std::fabs(static_cast<double>(out[0][i])) +
                                     std::fabs(static_cast<double>(out[2][i]))) /
                                    2;
            EXPECT_LT(std::fabs(std::fabs(exact) - boundary), std::fabs(exact) * 1e-15)
                << "pixel " << src[i];
        }
        EXPECT_LT(differing, 5);
        const float edge[2] = {out[2][6], out[2][5]};  // NaN stays NaN, infinity stays infinite
        EXPECT_TRUE(std::isnan(edge[0]));
        EXPECT_TRUE(std::isinf(edge[1]));
    }
}

}  // namespace
