#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

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
