#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "imgproc/pixel_helpers.h"

namespace {

// The mirror rule itself is checked through every filter's border pixels; these are the
// historic tables and the rules that no filter shows.
TEST(PixelHelpers, HistoricTablesAndTheMinMaxSearch) {
    const std::pair<int32_t, int> sizes[] = {{-1, 8}, {0, 8}, {1, 3}, {2, 4}, {3, 1}, {4, 2}, {5, 2}, {6, 4}, {7, 4},
                                             {8, 4}, {9, 6}, {10, 8}, {11, 8}, {12, 1}, {13, 4}, {14, 8}};
    for (const auto& [code, size] : sizes) EXPECT_EQ(veltrano::PixelTypeSize(code), size) << code;
    double low = -1, high = -1;
    int isFloat = -1;
    veltrano::PixelValueRange<uint32_t>(low, high, isFloat);
    EXPECT_EQ(high, 4294967294.0);  // one below the maximum, on purpose
    veltrano::PixelValueRange<double>(low, high, isFloat);  // the smallest positive normal, not the lowest
    EXPECT_EQ(low, 2.2250738585072014e-308);
    const std::vector<float> v = {5, 9, -3e4f, 3e4f, 12};
    float mn = 99, mx = 99;
    EXPECT_EQ(veltrano::FindMinMax(v.data(), v.size(), mn, mx), 1);
    EXPECT_EQ(std::vector<float>({mn, mx}), (std::vector<float>{-3e4f, 3e4f}));
    EXPECT_EQ(veltrano::FindMinMax<float>(nullptr, 5, mn, mx), 0);
    EXPECT_EQ(veltrano::FindMinMax(v.data(), 0, mn, mx), 1);  // no element: untouched
    EXPECT_EQ(std::vector<float>({mn, mx}), (std::vector<float>{-3e4f, 3e4f}));
}

TEST(PixelHelpers, ExtendBorderMirrorLimitsMarginsToTheImage) {
    // Margins are limited to the axis size and negative ones count as 0; a margin equal to the
    // size still reads inside the image (row 1 2 3 extended by 3 on each side).
    const std::vector<double> small = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
    veltrano::BorderMargins m{10, -1, 3, 99};
    const std::vector<double> out = veltrano::ExtendBorderMirror(small.data(), 2, 3, m);
    EXPECT_EQ(std::vector<int>({m.top, m.bottom, m.left, m.right}), (std::vector<int>{2, 0, 3, 3}));
    ASSERT_EQ(out.size(), 4u * 9u);
    EXPECT_EQ(std::vector<double>(out.begin() + 18, out.begin() + 27), (std::vector<double>{2, 3, 2, 1, 2, 3, 2, 1, 1}));
    EXPECT_EQ(std::vector<double>(out.begin(), out.begin() + 9), (std::vector<double>{2, 3, 2, 1, 2, 3, 2, 1, 1}));
}

}  // namespace
