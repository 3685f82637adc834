#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "impl_levels.h"
#include "veltrano.h"

namespace {

TEST(Normalize, NullPointersAndEarlyExitsLeaveTheDestinationUnwritten) {
    std::vector<uint16_t> flat(6, 777), dst(6, 5);
    EXPECT_EQ(normalize_16U(nullptr, dst.data(), 3, 2, 0, 10), -1);
    EXPECT_EQ(normalize_16U(flat.data(), nullptr, 3, 2, 0, 10), -1);
    EXPECT_EQ(normalize_64F(nullptr, nullptr, 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_16U(flat.data(), dst.data(), 3, 2, 0, 4095), 1);  // a constant image
    EXPECT_EQ(dst, std::vector<uint16_t>(6, 5));
    const std::vector<uint8_t> full = {0, 10, 255, 30};  // already spans the range
    std::vector<uint8_t> d8(4, 9);
    EXPECT_EQ(normalize_8U(full.data(), d8.data(), 2, 2, 0, 255), 1);
    EXPECT_EQ(d8, std::vector<uint8_t>(4, 9));
}

TEST(Normalize, IntegersRoundHalfUpAndClampTheDoubleMemberKeepsASinglePrecisionScale) {
    // min 0, max 4, span 10: v = 2.5 k + 0.5, truncated, and 10.5 clamped to 10.
    const std::vector<uint16_t> src = {0, 1, 2, 3, 4};
    std::vector<uint16_t> dst(5);
    ASSERT_EQ(normalize_16U(src.data(), dst.data(), 5, 1, 0, 10), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{0, 3, 5, 8, 10}));
    // Swapped bounds act as ordered: 100 + 25 k + 0.5.
    const std::vector<uint8_t> s8 = {0, 1, 2, 3, 4};
    std::vector<uint8_t> d8(5);
    ASSERT_EQ(normalize_8U(s8.data(), d8.data(), 5, 1, 200, 100), 1);
    EXPECT_EQ(d8, (std::vector<uint8_t>{100, 125, 150, 175, 200}));
    // The double member uses the single-precision scale 1.0f / 3: not exactly a third.
    const std::vector<double> s64 = {0, 1, 3};
    std::vector<double> d64(3);
    ASSERT_EQ(normalize_64F(s64.data(), d64.data(), 3, 1, 0.0, 1.0), 1);
    EXPECT_EQ(d64, (std::vector<double>{0.0, static_cast<double>(1.0f / 3.0f), 1.0}));
}

TEST(Normalize, TruncMinMaxOnlyChecksPointers) {
    std::vector<uint8_t> src = {1, 2, 3, 4}, dst = {9, 9, 9, 9};
    EXPECT_EQ(Normalize_TruncMinMax(nullptr, dst.data(), 2, 2, 0, 4), -1);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), nullptr, 2, 2, 0, 4), -2);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), dst.data(), 2, 2, 0, 4), 1);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), src.data(), 2, 2, 0, 4), 1);
    EXPECT_EQ(dst, std::vector<uint8_t>(4, 9));
}

}  // namespace

// The fast paths (tables and vector code) against the plain loop, bit for bit, for every member,
// odd sizes, in place and out of place, with signed zeros and not-a-number pixels in the float
// members and a low bound of -0.0 that makes the sign of the minimum visible.
namespace {

using impl_levels::AtEachLevel;
using impl_levels::SameBits;

template <class T, class Fn>
void ExpectLevelsAgree(Fn normalize, const std::vector<T>& src, int w, int h, T low, T high) {
    const auto outOfPlace = AtEachLevel([&] {
        std::vector<T> dst(src.size(), T(7));
        EXPECT_EQ(normalize(src.data(), dst.data(), w, h, low, high), 1);
        return dst;
    });
    const auto inPlace = AtEachLevel([&] {
        std::vector<T> img = src;
        EXPECT_EQ(normalize(img.data(), img.data(), w, h, low, high), 1);
        return img;
    });
    for (size_t level = 1; level < outOfPlace.size(); ++level) {
        EXPECT_TRUE(SameBits(outOfPlace[level], outOfPlace[0]))
            << "level " << level << " size " << w << "x" << h;
        EXPECT_TRUE(SameBits(inPlace[level], inPlace[0])) << "in place, level " << level;
    }
}

TEST(Normalize, FastPathsMatchThePlainLoopBitForBit) {
    std::mt19937 gen(41);
    for (const impl_levels::Size& s : impl_levels::OddSizes()) {
        const size_t n = static_cast<size_t>(s.width) * s.height;
        std::vector<uint8_t> u8(n);
        std::vector<uint16_t> u16(n);
        std::vector<float> f32(n);
        std::vector<double> f64(n);
        for (size_t i = 0; i < n; ++i) {
            u8[i] = static_cast<uint8_t>(gen() % 200 + 20);
            u16[i] = static_cast<uint16_t>(gen() % 50000 + 3000);
            f32[i] = static_cast<float>(static_cast<int>(gen() % 2001) - 1000) / 7.0f;
            f64[i] = static_cast<double>(gen() % 100000) / 3.0 - 5000.0;
        }
        if (n > 4) {
            f32[1] = -0.0f, f32[2] = std::nanf(""), f32[3] = 0.0f;
            f64[1] = std::nan(""), f64[2] = -1e300;
        }
        ExpectLevelsAgree<uint8_t>(normalize_8U, u8, s.width, s.height, 0, 255);
        ExpectLevelsAgree<uint8_t>(normalize_8U, u8, s.width, s.height, 250, 3);
        ExpectLevelsAgree<uint16_t>(normalize_16U, u16, s.width, s.height, 0, 4095);
        ExpectLevelsAgree<uint16_t>(normalize_16U, u16, s.width, s.height, 100, 65535);
        ExpectLevelsAgree<float>(normalize_32F, f32, s.width, s.height, 0.0f, 1.0f);
        ExpectLevelsAgree<double>(normalize_64F, f64, s.width, s.height, -2.0, 3.5);
        // The minimum is zero: its sign (that of the first zero) reaches pixels through -0.0.
        std::vector<float> zeros(n, 1.5f);
        zeros[0] = 2.0f;
        if (n > 2) zeros[n / 2] = -0.0f, zeros[n - 1] = 0.0f;
        ExpectLevelsAgree<float>(normalize_32F, zeros, s.width, s.height, -0.0f, 1.0f);
    }
}

}  // namespace
