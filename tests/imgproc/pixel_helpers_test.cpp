#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "imgproc/pixel_helpers.h"

namespace {

using veltrano::BorderMargins;
using veltrano::ExtendBorderMirror;
using veltrano::FindMinMax;
using veltrano::PixelTypeSize;
using veltrano::PixelValueRange;

TEST(PixelHelpers, PixelTypeSizeKeepsTheHistoricTable) {
    const struct {
        int32_t code;
        int size;
    } table[] = {{-1, 8}, {0, 8}, {1, 3},  {2, 4},  {3, 1},  {4, 2},  {5, 2},  {6, 4},   {7, 4},
                 {8, 4},  {9, 6}, {10, 8}, {11, 8}, {12, 1}, {13, 4}, {14, 8}, {255, 8}, {INT32_MIN, 8}};
    for (const auto& row : table) EXPECT_EQ(PixelTypeSize(row.code), row.size) << row.code;
}

template <class T>
void ExpectRange(double low, double high, int isFloat) {
    double l = -1.0, h = -1.0;
    int f = -1;
    PixelValueRange<T>(l, h, f);
    EXPECT_EQ(l, low);
    EXPECT_EQ(h, high);
    EXPECT_EQ(f, isFloat);
}

TEST(PixelHelpers, PixelValueRangePerElementType) {
    ExpectRange<uint8_t>(0.0, 255.0, 0);
    ExpectRange<uint16_t>(0.0, 65535.0, 0);
    ExpectRange<int8_t>(-128.0, 127.0, 0);
    ExpectRange<int16_t>(-32768.0, 32767.0, 0);
    ExpectRange<int32_t>(-2147483648.0, 2147483647.0, 0);
    ExpectRange<uint32_t>(0.0, 4294967294.0, 0);  // one below the maximum, on purpose
    ExpectRange<float>(1.1754943508222875e-38, 3.4028234663852886e38, 1);
    ExpectRange<double>(2.2250738585072014e-308, 1.7976931348623157e308, 1);
}

TEST(PixelHelpers, FindMinMaxFindsTheTrueExtremes) {
    const std::vector<std::vector<int16_t>> inputs = {
        {5}, {1, 2, 3, 4}, {4, 3, 2, 1}, {5, 9, 1}, {0, -7, 30000, -32768, 12}, {3, 3, 3}};
    const std::pair<int16_t, int16_t> expected[] = {{5, 5}, {1, 4}, {1, 4}, {1, 9}, {-32768, 30000}, {3, 3}};
    for (size_t i = 0; i < inputs.size(); ++i) {
        int16_t mn = 99, mx = 99;
        EXPECT_EQ(FindMinMax(inputs[i].data(), inputs[i].size(), mn, mx), 1);
        EXPECT_EQ(mn, expected[i].first) << i;
        EXPECT_EQ(mx, expected[i].second) << i;
    }

    const std::vector<uint16_t> u16 = {1000, 65535, 0, 7};
    uint16_t umn = 1, umx = 1;
    FindMinMax(u16.data(), u16.size(), umn, umx);
    EXPECT_EQ(umn, 0);
    EXPECT_EQ(umx, 65535);

    const std::vector<uint8_t> u8 = {200, 3, 255};
    uint8_t bmn = 1, bmx = 1;
    FindMinMax(u8.data(), u8.size(), bmn, bmx);
    EXPECT_EQ(bmn, 3);
    EXPECT_EQ(bmx, 255);

    const std::vector<float> f = {-0.5f, 2.25f, -3.0f, 1.0f};
    float fmn = 0, fmx = 0;
    FindMinMax(f.data(), f.size(), fmn, fmx);
    EXPECT_EQ(fmn, -3.0f);
    EXPECT_EQ(fmx, 2.25f);

    const std::vector<double> d = {1e-300, -1e300, 1e300};
    double dmn = 0, dmx = 0;
    FindMinMax(d.data(), d.size(), dmn, dmx);
    EXPECT_EQ(dmn, -1e300);
    EXPECT_EQ(dmx, 1e300);
}

TEST(PixelHelpers, FindMinMaxWithoutElementsTouchesNothing) {
    int16_t mn = 11, mx = 22;
    EXPECT_EQ(FindMinMax<int16_t>(nullptr, 5, mn, mx), 0);
    EXPECT_EQ(mn, 11);
    EXPECT_EQ(mx, 22);
    const int16_t one = 4;
    EXPECT_EQ(FindMinMax(&one, 0, mn, mx), 1);
    EXPECT_EQ(mn, 11);
    EXPECT_EQ(mx, 22);
}

TEST(PixelHelpers, ExtendBorderMirrorReflectsWithoutRepeatingTheEdge) {
    // One row a b c d e with two pixels each side reads c b | a b c d e | d c.
    const std::vector<int32_t> row = {1, 2, 3, 4, 5};
    std::vector<int32_t> out(9, -1);
    ASSERT_EQ(ExtendBorderMirror(row.data(), 1, 5, BorderMargins{0, 0, 2, 2}, out.data()), 1);
    EXPECT_EQ(out, (std::vector<int32_t>{3, 2, 1, 2, 3, 4, 5, 4, 3}));

    // Rows mirror the same way: extended row top - k is source row k.
    const std::vector<uint8_t> img = {1, 2, 3,
                                      4, 5, 6,
                                      7, 8, 9};
    std::vector<uint8_t> ext(6 * 6, 0);
    ASSERT_EQ(ExtendBorderMirror(img.data(), 3, 3, BorderMargins{2, 1, 1, 2}, ext.data()), 1);
    const std::vector<uint8_t> expected = {8, 7, 8, 9, 8, 7,
                                           5, 4, 5, 6, 5, 4,
                                           2, 1, 2, 3, 2, 1,
                                           5, 4, 5, 6, 5, 4,
                                           8, 7, 8, 9, 8, 7,
                                           5, 4, 5, 6, 5, 4};
    EXPECT_EQ(ext, expected);

    // The allocating form gives the same and reports the margins it used.
    BorderMargins m{2, 1, 1, 2};
    const std::vector<uint8_t> allocated = ExtendBorderMirror(img.data(), 3, 3, m);
    EXPECT_EQ(allocated, expected);
    EXPECT_EQ(m.top, 2);
    EXPECT_EQ(m.right, 2);
}

TEST(PixelHelpers, ExtendBorderMirrorLimitsMarginsAndStaysInsideTheImage) {
    const std::vector<double> img = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
    struct Case {
        BorderMargins asked;
        BorderMargins used;
    };
    const Case cases[] = {
        {{10, 2, 3, 99}, {2, 2, 3, 3}},  // limited to the axis size
        {{-1, 0, -5, 1}, {0, 0, 0, 1}},  // negative margins count as 0
        {{2, 2, 3, 3}, {2, 2, 3, 3}},    // equal to the size: the far edge still reads inside
    };
    for (const Case& c : cases) {
        BorderMargins m = c.asked;
        const std::vector<double> ext = ExtendBorderMirror(img.data(), 2, 3, m);
        EXPECT_EQ(m.top, c.used.top);
        EXPECT_EQ(m.bottom, c.used.bottom);
        EXPECT_EQ(m.left, c.used.left);
        EXPECT_EQ(m.right, c.used.right);
        const size_t rows = 2 + c.used.top + c.used.bottom;
        const size_t cols = 3 + c.used.left + c.used.right;
        ASSERT_EQ(ext.size(), rows * cols);
        for (size_t i = 0; i < ext.size(); ++i) {
            EXPECT_TRUE(std::find(img.begin(), img.end(), ext[i]) != img.end()) << i;
        }
        // The image itself sits unchanged inside the extension.
        for (size_t y = 0; y < 2; ++y) {
            for (size_t x = 0; x < 3; ++x) {
                EXPECT_EQ(ext[(y + c.used.top) * cols + x + c.used.left], img[y * 3 + x]);
            }
        }
    }

    // A one-pixel axis mirrors onto itself.
    const std::vector<float> single = {7.0f, 8.0f};  // 1 row x 2 columns
    BorderMargins m{1, 1, 0, 0};
    EXPECT_EQ(ExtendBorderMirror(single.data(), 1, 2, m),
              (std::vector<float>{7.0f, 8.0f, 7.0f, 8.0f, 7.0f, 8.0f}));
}

TEST(PixelHelpers, ExtendBorderMirrorRejectsMissingBuffers) {
    const std::vector<uint16_t> img(4, 1);
    std::vector<uint16_t> out(16, 0);
    EXPECT_EQ(ExtendBorderMirror<uint16_t>(nullptr, 2, 2, BorderMargins{1, 1, 1, 1}, out.data()), -1);
    EXPECT_EQ(ExtendBorderMirror<uint16_t>(img.data(), 2, 2, BorderMargins{1, 1, 1, 1}, nullptr), -1);
    EXPECT_EQ(ExtendBorderMirror(img.data(), 0, 2, BorderMargins{1, 1, 1, 1}, out.data()), 1);
    EXPECT_EQ(out, std::vector<uint16_t>(16, 0));
    BorderMargins m{1, 1, 1, 1};
    EXPECT_TRUE(ExtendBorderMirror<uint16_t>(nullptr, 2, 2, m).empty());
}

}  // namespace
