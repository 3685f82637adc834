#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "veltrano.h"

namespace {

TEST(Normalize, NullPointersAndEarlyExitsLeaveTheDestinationUnwritten) {
    std::vector<uint16_t> buf(4, 1);
    EXPECT_EQ(normalize_16U(nullptr, buf.data(), 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_16U(buf.data(), nullptr, 2, 2, 0, 10), -1);
    const std::vector<uint16_t> flat(6, 777);
    std::vector<uint16_t> dst(6, 5);
    EXPECT_EQ(normalize_16U(flat.data(), dst.data(), 3, 2, 0, 4095), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(6, 5));

    const std::vector<uint8_t> full = {0, 10, 255, 30};
    std::vector<uint8_t> d8(4, 9);
    EXPECT_EQ(normalize_8U(full.data(), d8.data(), 2, 2, 0, 255), 1);
    EXPECT_EQ(d8, std::vector<uint8_t>(4, 9));
}

TEST(Normalize, IntegersRoundHalfUpIntoTheRangeAndSwappedBoundsActAsOrdered) {
    // (v - 100) / 100 * 1000 + 10 + 0.5, truncated and never above 1010.
    const std::vector<uint16_t> src = {100, 101, 150, 200, 199, 133};
    std::vector<uint16_t> dst(src.size());
    ASSERT_EQ(normalize_16U(src.data(), dst.data(), 3, 2, 10, 1010), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{10, 20, 510, 1010, 1000, 340}));
    const std::vector<uint8_t> s8 = {3, 7, 5, 4};
    std::vector<uint8_t> d8(4);
    ASSERT_EQ(normalize_8U(s8.data(), d8.data(), 4, 1, 200, 100), 1);
    EXPECT_EQ(d8, (std::vector<uint8_t>{100, 200, 150, 125}));
    const std::vector<double> f = {1, 2, 3, 1.5};  // floating types take no offset
    std::vector<double> df(4);
    ASSERT_EQ(normalize_64F(f.data(), df.data(), 4, 1, 0, 10), 1);
    EXPECT_EQ(df, (std::vector<double>{0, 5, 10, 2.5}));
}

TEST(Normalize, TruncMinMaxOnlyChecksPointers) {
    std::vector<uint8_t> src = {1, 2, 3, 4}, dst = {9, 9, 9, 9};
    EXPECT_EQ(Normalize_TruncMinMax(nullptr, dst.data(), 2, 2, 0, 4), -1);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), nullptr, 2, 2, 0, 4), -2);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), dst.data(), 2, 2, 0, 4), 1);
    EXPECT_EQ(dst, std::vector<uint8_t>(4, 9));
}

}  // namespace
