#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "imgproc/pixel_helpers.h"

namespace {

using veltrano::BorderMargins;
using veltrano::ExtendBorderMirror;
using veltrano::FindMinMax;

TEST(PixelHelpers, PixelTypeSizeAndValueRangesKeepTheHistoricTables) {
    const std::pair<int32_t, int> sizes[] = {{-1, 8}, {0, 8}, {1, 3}, {2, 4}, {3, 1}, {4, 2}, {5, 2}, {6, 4}, {7, 4},
                                             {8, 4}, {9, 6}, {10, 8}, {11, 8}, {12, 1}, {13, 4}, {14, 8}};
    for (const auto& [code, size] : sizes) EXPECT_EQ(veltrano::PixelTypeSize(code), size) << code;
    double low = -1, high = -1;
    int isFloat = -1;
    veltrano::PixelValueRange<uint32_t>(low, high, isFloat);
    EXPECT_EQ(high, 4294967294.0);  // one below the maximum, on purpose
    veltrano::PixelValueRange<float>(low, high, isFloat);  // the smallest positive normal, not the lowest
    EXPECT_EQ(std::vector<double>({low, high, double(isFloat)}), (std::vector<double>{1.1754943508222875e-38, 3.4028234663852886e38, 1}));
}

TEST(PixelHelpers, FindMinMaxFindsTheTrueExtremesAndTouchesNothingWithoutElements) {
    const std::vector<std::vector<float>> inputs = {{5}, {1, 2, 3, 4}, {4, 3, 2, 1}, {5, 9, 1}, {0, -7, 3e4f, -3e4f, 12}};
    const std::pair<float, float> expected[] = {{5, 5}, {1, 4}, {1, 4}, {1, 9}, {-3e4f, 3e4f}};
    for (size_t i = 0; i < inputs.size(); ++i) {
        float mn = 99, mx = 99;
        EXPECT_EQ(FindMinMax(inputs[i].data(), inputs[i].size(), mn, mx), 1);
        EXPECT_EQ(mn, expected[i].first) << i;
        EXPECT_EQ(mx, expected[i].second) << i;
    }
    int16_t mn = 11, mx = 22;
    EXPECT_EQ(FindMinMax<int16_t>(nullptr, 5, mn, mx), 0);
    EXPECT_EQ(FindMinMax(&mn, 0, mn, mx), 1);
    EXPECT_EQ(mn, 11);
    EXPECT_EQ(mx, 22);
}

TEST(PixelHelpers, ExtendBorderMirrorReflectsWithoutRepeatingTheEdgeAndLimitsMargins) {
    // Extended row top - k is source row k; a row a b c reads b | a b c | b a.
    const std::vector<uint8_t> img = {1, 2, 3, 4, 5, 6, 7, 8, 9};  // 3 x 3
    std::vector<uint8_t> ext(6 * 6, 0);
    ASSERT_EQ(ExtendBorderMirror(img.data(), 3, 3, BorderMargins{2, 1, 1, 2}, ext.data()), 1);
    const std::vector<uint8_t> expected = {8, 7, 8, 9, 8, 7, 5, 4, 5, 6, 5, 4, 2, 1, 2, 3, 2, 1,
                                           5, 4, 5, 6, 5, 4, 8, 7, 8, 9, 8, 7, 5, 4, 5, 6, 5, 4};
    EXPECT_EQ(ext, expected);
    // Margins are limited to the axis size and negative ones count as 0; a margin equal to the
    // size still reads inside the image.
    const std::vector<double> small = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
    BorderMargins m{10, -1, 3, 99};
    const std::vector<double> out = ExtendBorderMirror(small.data(), 2, 3, m);
    EXPECT_EQ(std::vector<int>({m.top, m.bottom, m.left, m.right}), (std::vector<int>{2, 0, 3, 3}));
    ASSERT_EQ(out.size(), 4u * 9u);
    EXPECT_EQ(std::vector<double>(out.begin() + 18, out.begin() + 27), (std::vector<double>{2, 3, 2, 1, 2, 3, 2, 1, 1}));
    EXPECT_EQ(ExtendBorderMirror<uint8_t>(nullptr, 3, 3, BorderMargins{}, ext.data()), -1);
}

}  // namespace
