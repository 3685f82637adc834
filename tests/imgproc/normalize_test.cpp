#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "veltrano.h"

namespace {

TEST(Normalize, RejectsNullPointers) {
    std::vector<uint16_t> buf(4, 1);
    EXPECT_EQ(normalize_16U(nullptr, buf.data(), 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_16U(buf.data(), nullptr, 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_8U(nullptr, nullptr, 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_32F(nullptr, nullptr, 2, 2, 0, 10), -1);
    EXPECT_EQ(normalize_64F(nullptr, nullptr, 2, 2, 0, 10), -1);
}

TEST(Normalize, EarlyExitsLeaveTheDestinationUnwritten) {
    const std::vector<uint16_t> flat(6, 777);
    std::vector<uint16_t> dst(6, 5);
    EXPECT_EQ(normalize_16U(flat.data(), dst.data(), 3, 2, 0, 4095), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(6, 5));

    const std::vector<uint8_t> full = {0, 10, 255, 30};
    std::vector<uint8_t> d8(4, 9);
    EXPECT_EQ(normalize_8U(full.data(), d8.data(), 2, 2, 0, 255), 1);
    EXPECT_EQ(d8, std::vector<uint8_t>(4, 9));
}

TEST(Normalize, SixteenBitRoundsHalfUpIntoTheRange) {
    const std::vector<uint16_t> src = {100, 101, 150, 200, 199, 133};
    std::vector<uint16_t> dst(src.size());
    ASSERT_EQ(normalize_16U(src.data(), dst.data(), 3, 2, 10, 1010), 1);
    for (size_t i = 0; i < src.size(); ++i) {
        const float scale = 1.0f / 100.0f;
        const float v = static_cast<float>(src[i] - 100) * scale * 1000.0f + 10.0f + 0.5f;
        EXPECT_EQ(dst[i], static_cast<uint16_t>(v)) << i;
    }
    EXPECT_EQ(dst[0], 10);
    EXPECT_EQ(dst[3], 1010);
}

TEST(Normalize, SwappedBoundsActAsOrdered) {
    const std::vector<uint8_t> src = {3, 7, 5, 4};
    std::vector<uint8_t> a(4), b(4);
    ASSERT_EQ(normalize_8U(src.data(), a.data(), 4, 1, 200, 100), 1);
    ASSERT_EQ(normalize_8U(src.data(), b.data(), 4, 1, 100, 200), 1);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a[0], 100);
    EXPECT_EQ(a[1], 200);
}

TEST(Normalize, TruncMinMaxOnlyChecksPointers) {
    std::vector<uint8_t> src = {1, 2, 3, 4}, dst = {9, 9, 9, 9};
    EXPECT_EQ(Normalize_TruncMinMax(nullptr, dst.data(), 2, 2, 0, 4), -1);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), nullptr, 2, 2, 0, 4), -2);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), dst.data(), 2, 2, 0, 4), 1);
    EXPECT_EQ(Normalize_TruncMinMax(src.data(), src.data(), 2, 2, 0, 4), 1);
    EXPECT_EQ(dst, std::vector<uint8_t>(4, 9));
    EXPECT_EQ(src, (std::vector<uint8_t>{1, 2, 3, 4}));
}

}  // namespace
