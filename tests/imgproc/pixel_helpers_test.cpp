#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "imgproc/pixel_helpers.h"
#include "veltrano/pixel_type.h"

namespace {

using veltrano::BorderMargins;
using veltrano::ExtendBorderMirror;
using veltrano::FindMinMax;

TEST(PixelHelpers, PixelTypeSizeKeepsTheHistoricTable) {
    const int32_t codes[] = {INT32_MIN, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
    const int sizes[] = {8, 8, 3, 4, 1, 2, 2, 4, 4, 4, 6, 8, 8, 1, 4, 8};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(veltrano::PixelTypeSize(codes[i]), sizes[i]) << codes[i];
}

template <class T>
std::vector<double> Range() {
    double low = -1.0, high = -1.0;
    int isFloat = -1;
    veltrano::PixelValueRange<T>(low, high, isFloat);
    return {low, high, static_cast<double>(isFloat)};
}

TEST(PixelHelpers, PixelValueRangeKeepsItsUnusualEntries) {
    EXPECT_EQ(Range<uint16_t>(), (std::vector<double>{0.0, 65535.0, 0}));
    EXPECT_EQ(Range<int16_t>(), (std::vector<double>{-32768.0, 32767.0, 0}));
    EXPECT_EQ(Range<uint32_t>(), (std::vector<double>{0.0, 4294967294.0, 0}));
    EXPECT_EQ(Range<float>(),
              (std::vector<double>{1.1754943508222875e-38, 3.4028234663852886e38, 1}));
    EXPECT_EQ(Range<double>(),
              (std::vector<double>{2.2250738585072014e-308, 1.7976931348623157e308, 1}));
}

TEST(PixelHelpers, FindMinMaxFindsTheTrueExtremesAndTouchesNothingWithoutElements) {
    const std::vector<std::vector<int16_t>> inputs = {
        {5}, {1, 2, 3, 4}, {4, 3, 2, 1}, {5, 9, 1}, {0, -7, 30000, -32768, 12}};
    const std::pair<int16_t, int16_t> expected[] = {
        {5, 5}, {1, 4}, {1, 4}, {1, 9}, {-32768, 30000}};
    for (size_t i = 0; i < inputs.size(); ++i) {
        int16_t mn = 99, mx = 99;
        EXPECT_EQ(FindMinMax(inputs[i].data(), inputs[i].size(), mn, mx), 1);
        EXPECT_EQ(std::make_pair(mn, mx), expected[i]) << i;
    }
    int16_t mn = 11, mx = 22;
    EXPECT_EQ(FindMinMax<int16_t>(nullptr, 5, mn, mx), 0);
    EXPECT_EQ(FindMinMax(&mn, 0, mn, mx), 1);
    EXPECT_EQ(std::make_pair(mn, mx), std::make_pair(int16_t{11}, int16_t{22}));
}

TEST(PixelHelpers, ExtendBorderMirrorReflectsWithoutRepeatingTheEdge) {
    const std::vector<uint8_t> img = {1, 2, 3, 4, 5, 6, 7, 8, 9};  // 3 x 3
    const std::vector<uint8_t> expected = {8, 7, 8, 9, 8, 7, 5, 4, 5, 6, 5, 4, 2, 1, 2, 3, 2, 1,
                                           5, 4, 5, 6, 5, 4, 8, 7, 8, 9, 8, 7, 5, 4, 5, 6, 5, 4};
    std::vector<uint8_t> ext(6 * 6, 0);
    ASSERT_EQ(ExtendBorderMirror(img.data(), 3, 3, BorderMargins{2, 1, 1, 2}, ext.data()), 1);
    EXPECT_EQ(ext, expected);
    BorderMargins m{2, 1, 1, 2};  // the allocating form gives the same
    EXPECT_EQ(ExtendBorderMirror(img.data(), 3, 3, m), expected);
    EXPECT_EQ(ExtendBorderMirror<uint8_t>(nullptr, 3, 3, BorderMargins{}, ext.data()), -1);
    EXPECT_EQ(ExtendBorderMirror<uint8_t>(img.data(), 3, 3, BorderMargins{}, nullptr), -1);
    EXPECT_TRUE(ExtendBorderMirror<uint8_t>(nullptr, 3, 3, m).empty());
}

TEST(PixelHelpers, ExtendBorderMirrorLimitsMarginsAndStaysInsideTheImage) {
    const std::vector<double> img = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
    // Cases: margins asked (top, bottom, left, right), margins used.
    const BorderMargins cases[][2] = {
        {{10, 2, 3, 99}, {2, 2, 3, 3}},  // limited to the axis size: the far edge still inside
        {{-1, 0, -5, 1}, {0, 0, 0, 1}},  // negative margins count as 0
    };
    for (const auto& c : cases) {
        BorderMargins m = c[0];
        const std::vector<double> ext = ExtendBorderMirror(img.data(), 2, 3, m);
        EXPECT_EQ(std::vector<int>({m.top, m.bottom, m.left, m.right}),
                  std::vector<int>({c[1].top, c[1].bottom, c[1].left, c[1].right}));
        const size_t cols = 3 + m.left + m.right;
        ASSERT_EQ(ext.size(), (2 + m.top + m.bottom) * cols);
        for (double v : ext) EXPECT_TRUE(std::find(img.begin(), img.end(), v) != img.end()) << v;
        EXPECT_EQ(ext[(m.top + 1) * cols + m.left + 1], img[4]);  // the image sits inside
    }
    const std::vector<float> single = {7.0f, 8.0f};  // a one-pixel axis mirrors onto itself
    BorderMargins m{1, 1, 0, 0};
    EXPECT_EQ(ExtendBorderMirror(single.data(), 1, 2, m), (std::vector<float>{7, 8, 7, 8, 7, 8}));
}

}  // namespace
