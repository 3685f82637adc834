#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "veltrano.h"

namespace {

template <class T>
uint8_t* Bytes(std::vector<T>& v) {
    return reinterpret_cast<uint8_t*>(v.data());
}

TEST(CopyRoiTo, ClipsOnTheRightAndReadsTheBlockAtTheClippedStride) {
    // 8 x 3 image of 16-bit zeros, 4 x 4 block numbered 1..16, pasted at x = 6: two columns
    // per row fit, and block row r is read from element 2 * r (the clipped width).
    std::vector<uint16_t> src(24, 0), dst(24, 7), block(16), want(24, 0);
    std::iota(block.begin(), block.end(), 1);
    ASSERT_EQ(CopyRoiTo(Bytes(src), Bytes(dst), Bytes(block), 4, 8, 3, 4, 4, 6, 1), 1);
    want[14] = 1, want[15] = 2, want[22] = 3, want[23] = 4;
    EXPECT_EQ(dst, want);
    // Negative positions move the block to 0 without skipping its first rows or columns.
    std::vector<uint8_t> img(5 * 4, 0), b8 = {1, 2, 3, 4};
    ASSERT_EQ(CopyRoiTo(img.data(), img.data(), b8.data(), 3, 5, 4, 2, 2, -3, -1), 1);
    EXPECT_EQ(img,
              (std::vector<uint8_t>{1, 2, 0, 0, 0, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    EXPECT_EQ(CopyRoiTo(img.data(), nullptr, b8.data(), 3, 5, 4, 2, 2, 0, 0), -2);
    EXPECT_EQ(CopyRoiTo(img.data(), img.data(), nullptr, 3, 5, 4, 2, 2, 0, 0), -3);
    std::vector<uint8_t> out(20, 9);  // entirely off the image: only the copy happens
    ASSERT_EQ(CopyRoiTo(img.data(), out.data(), b8.data(), 3, 5, 4, 2, 2, 5, 0), 1);
    EXPECT_EQ(out, img);
}

TEST(AddWaterMask, BlendsNonZeroMarkPixelsOnlyAndUnservedCodesWriteNothing) {
    // A 2 x 2 mark at (1, 1), alpha 0.25 on 100s: 0.75 * 100 + 0.25 * 200 = 125, 75 + 15000 and
    // 75 + 2; the zero mark pixel is transparent.
    std::vector<uint16_t> src(4 * 3, 100), dst(12, 0), mark = {200, 0, 60000, 8};
    ASSERT_EQ(AddWaterMask(Bytes(src), Bytes(dst), Bytes(mark), 4, 3, 2, 2, 1, 1, 4, 0.25f), 1);
    EXPECT_EQ(dst,
              (std::vector<uint16_t>{100, 100, 100, 100, 100, 125, 100, 100, 100, 15075, 77, 100}));
    // Colour code 2 (8-bit, 4 channels): black in the first three channels is transparent, the
    // fourth channel never changes. Results clamp to the type's range.
    std::vector<uint8_t> img = {10, 20, 30, 40, 10, 20, 250, 40},
                         m4 = {0, 0, 0, 99, 0, 100, 255, 99};
    ASSERT_EQ(AddWaterMask(img.data(), img.data(), m4.data(), 2, 1, 2, 1, 0, 0, 2, 1.5f), 1);
    EXPECT_EQ(img, (std::vector<uint8_t>{10, 20, 30, 40, 0, 140, 255, 40}));
    std::vector<uint8_t> s8(16, 1), d8(16, 5), m(16, 9);
    EXPECT_EQ(AddWaterMask(s8.data(), d8.data(), m.data(), 2, 2, 2, 2, 0, 0, 8, 1.0f), 1);
    EXPECT_EQ(d8, std::vector<uint8_t>(16, 5));  // not even the copy of the source
    EXPECT_EQ(AddWaterMask(nullptr, d8.data(), m.data(), 2, 2, 2, 2, 0, 0, 4, 1.0f), -1);
    EXPECT_EQ(AddWaterMask(s8.data(), d8.data(), nullptr, 2, 2, 2, 2, 0, 0, 4, 1.0f), -3);
}

TEST(MakeMaskByLine, FillsOneSideOfTheUnitNormalLine) {
    float a = 9, b = 9, c = 9;
    GetLine2D(2, 0, 2, 5, &a, &b, &c);  // x = 2
    EXPECT_EQ(std::vector<float>({a, b, c}), (std::vector<float>{1, 0, -2}));
    std::vector<uint16_t> src = {1, 2, 3, 4, 5, 6, 7, 8}, dst(8, 0), untouched(8, 42);
    ASSERT_EQ(MakeMaskByLine(src.data(), dst.data(), 4, 2, 2, 0, 2, 5, 1, 999), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{1, 2, 999, 999, 5, 6, 999, 999}));
    ASSERT_EQ(MakeMaskByLine(src.data(), dst.data(), 4, 2, 2, 0, 2, 5, 0, 999), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{999, 999, 3, 4, 999, 999, 7, 8}));
    EXPECT_EQ(MakeMaskByLine(src.data(), untouched.data(), 4, 2, 1, 1, 1, 1, 1, 999),
              1);  // equal points
    EXPECT_EQ(untouched, std::vector<uint16_t>(8, 42));
    EXPECT_EQ(MakeMaskByLine(nullptr, dst.data(), 4, 2, 0, 0, 1, 1, 1, 0), -1);
}

// On 3 x 3 [1 2 3; 4 5 6; 7 8 9] the main form gives [1 4 7; 4 5 8; 7 8 9] and the anti form
// [9 6 3; 8 5 6; 7 8 9]: the upper-right (upper-left) triangle mirrors the one below its
// diagonal. The square is clamped to the image: side 100 at (2, 1) of 41 x 43 gives side 39.
TEST(DiagonalCopy, SquaresOfEverySideBecomeSymmetricInPlaceOrNot) {
    const int w = 41, h = 43, x0 = 2, y0 = 1;
    std::vector<int32_t> src(w * h);
    std::iota(src.begin(), src.end(), 0);
    for (int side :
         {2, 3, 8, 15, 29, 39}) {  // 8, 15 and 29 put the anti-diagonal just above an integer
        std::vector<int32_t> wantMain = src, wantAnti = src, m(w * h), a(w * h), inPlace = src;
        auto at = [&](int i, int j) { return (y0 + i) * w + x0 + j; };
        for (int i = 0; i < side; ++i)
            for (int j = 0; j < side; ++j) {
                if (j >= i) wantMain[at(i, j)] = src[at(j, i)];
                if (j <= side - 1 - i) wantAnti[at(i, j)] = src[at(side - 1 - j, side - 1 - i)];
            }
        const int asked = side == 39 ? 100 : side;
        ASSERT_EQ(Copy_LeftDown_To_RightUp(Bytes(src), Bytes(m), w, h, 8, x0, y0, asked), 1);
        ASSERT_EQ(Copy_RightDown_To_LeftUp(Bytes(src), Bytes(a), w, h, 8, x0, y0, asked), 1);
        EXPECT_EQ(m, wantMain) << side;
        EXPECT_EQ(a, wantAnti) << side;
        ASSERT_EQ(Copy_RightDown_To_LeftUp(Bytes(inPlace), Bytes(inPlace), w, h, 8, x0, y0, asked),
                  1);
        EXPECT_EQ(inPlace, wantAnti) << side;
    }
}

TEST(DiagonalCopy, TinySquaresLeaveTheDestinationUnwritten) {
    std::vector<uint16_t> src(12, 3), dst(12, 8);
    for (int side : {1, -5})
        EXPECT_EQ(Copy_LeftDown_To_RightUp(Bytes(src), Bytes(dst), 4, 3, 4, 1, 1, side), 1);
    EXPECT_EQ(Copy_RightDown_To_LeftUp(Bytes(src), Bytes(dst), 4, 3, 4, 3, 0, 5),
              1);  // clamped to side 1
    EXPECT_EQ(dst, std::vector<uint16_t>(12, 8));
    EXPECT_EQ(Copy_LeftDown_To_RightUp(nullptr, Bytes(dst), 4, 3, 4, 0, 0, 2), -1);
    EXPECT_EQ(Copy_RightDown_To_LeftUp(Bytes(src), nullptr, 4, 3, 4, 0, 0, 2), -2);
}

}  // namespace
