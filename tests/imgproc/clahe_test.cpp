#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::RandomImage;

// Expected values worked out by hand from the tile rules. One tile of 16 pixels: 8 of 10, 4 of
// 11, 4 of 30, 256 bins. The first occupied bin is 10, so mapping starts at bin 11 and the
// denominator is 16 - hist[11]; every result gets 0.5 twice before truncation.
TEST(Clahe, SingleTileMapsThroughItsClippedCumulativeHistogram) {
    std::vector<uint8_t> src(16, 10), dst(16);
    for (int i = 8; i < 12; ++i) src[i] = 11;
    for (int i = 12; i < 16; ++i) src[i] = 30;
    struct Case { int peak; uint8_t at10, at11, at30; };
    // No clip: 11 -> 4/12 * 255 + 1 = 86, 30 -> 8/12 * 255 + 1 = 171.
    // Peak 3: 7 clipped counts spread over bins 11..255 (7/245 each), the denominator is
    // 16 - 3.0286, so 11 -> 0.23348 * 255 + 1 = 60.5 and 30 -> 0.50661 * 255 + 1 = 130.2.
    for (const Case& c : {Case{100, 1, 86, 171}, Case{3, 1, 60, 130}}) {
        ASSERT_EQ(clahe_8U_Manual(src.data(), dst.data(), 4, 4, 1, 1, 256, c.peak, nullptr), 1);
        EXPECT_EQ(std::vector<int>({dst[0], dst[8], dst[12]}), std::vector<int>({c.at10, c.at11, c.at30})) << c.peak;
    }
    // Floats are binned by their raw value with 255 / (max - min) per unit, so 25 and 30 share
    // the top bin, and mapped to r * (max - min) without any offset.
    std::vector<float> f(16, 10.0f), fo(16);
    for (int i = 8; i < 12; ++i) f[i] = 25.0f;
    for (int i = 12; i < 16; ++i) f[i] = 30.0f;
    claheParam p;
    p.widthBlockNum = 1, p.heightBlockNum = 1, p.histBin = 100000, p.peak = 100;
    ASSERT_EQ(clahe_32F(f.data(), fo.data(), 4, 4, &p, nullptr), 1);
    EXPECT_EQ(p.histBin, 65536);
    EXPECT_EQ(p.outMax, 20.0f);
    EXPECT_EQ(p.binScale, 65535.0f / 20.0f);
    p.histBin = 256;
    ASSERT_EQ(clahe_32F(f.data(), fo.data(), 4, 4, &p, nullptr), 1);
    EXPECT_EQ(std::vector<float>({fo[0], fo[8], fo[15]}), (std::vector<float>{0, 10, 10}));
}

// Two tiles across, each of 4 columns (column 8 lies in no tile). Tile 0 maps 20 to 0.5, tile 1
// to 0.75, both map 10 to 0. Up to column halfW = 2 the left tile alone counts, from xLast = 6
// the right one; between them the weight of the right tile is (x - 2) / 4.
TEST(Clahe, BlendsNeighbouringTilesAndMapsPixelsOutsideEveryTile) {
    const std::vector<uint16_t> row = {10, 10, 20, 20, 10, 20, 20, 20, 20};
    const std::vector<uint16_t> want = {1, 1, 128, 144, 1, 176, 192, 192, 192};
    for (int rows : {1, 8}) {  // 8 equal rows: the vertical and bilinear blends give the same
        std::vector<uint8_t> src, dst(9 * rows);
        for (int r = 0; r < rows; ++r) src.insert(src.end(), row.begin(), row.end());
        ASSERT_EQ(clahe_8U_Manual(src.data(), dst.data(), 9, rows, 2, rows == 1 ? 1 : 2, 256, 100, nullptr), 1);
        for (int i = 0; i < 9 * rows; ++i) EXPECT_EQ(dst[i], want[i % 9]) << rows << " rows, pixel " << i;
    }
    // Transposed, one column: the same blend down the rows.
    std::vector<uint8_t> column(row.begin(), row.end()), down(9);
    ASSERT_EQ(clahe_8U_Manual(column.data(), down.data(), 1, 9, 1, 2, 256, 100, nullptr), 1);
    EXPECT_EQ(std::vector<uint16_t>(down.begin(), down.end()), want);
    // 16 bits, bins of 257 values: results scale to 65535, in place as out of place.
    std::vector<uint16_t> s16, d16(9);
    for (uint16_t v : row) s16.push_back(v == 10 ? 2600 : 5200);
    ASSERT_EQ(clahe_16U_Manual(s16.data(), d16.data(), 9, 1, 2, 1, 256, 100, nullptr), 1);
    EXPECT_EQ(d16, (std::vector<uint16_t>{1, 1, 32768, 36864, 1, 45056, 49152, 49152, 49152}));
    ASSERT_EQ(clahe_16U_Manual(s16.data(), s16.data(), 9, 1, 2, 1, 256, 100, nullptr), 1);
    EXPECT_EQ(s16, d16);
}

TEST(Clahe, RejectsBadSettingsWithoutWriting) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(10, 6, 0, 65535, 3), dst(60, 42);
    for (const auto& [nx, ny] : {std::pair{0, 2}, std::pair{11, 2}, std::pair{2, 7}})
        EXPECT_EQ(clahe_16U_Manual(src.data(), dst.data(), 10, 6, nx, ny, 256, 200, nullptr), -1) << nx;
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 42));
    EXPECT_EQ(clahe_16U_Manual(nullptr, dst.data(), 10, 6, 2, 2, 256, 200, nullptr), 0);
    // A null destination is met by the mapping stage, after the record was updated.
    claheParam p;
    p.widthBlockNum = 2, p.heightBlockNum = 2, p.histBin = 1;
    EXPECT_EQ(clahe_16U(src.data(), nullptr, 10, 6, &p, nullptr), -4);
    EXPECT_EQ(p.histBin, 1);
    // Tables that cannot fit in memory are reported before any pixel is read.
    p.widthBlockNum = 1 << 30, p.heightBlockNum = 1 << 30, p.histBin = 65536;
    EXPECT_EQ(clahe_16U(src.data(), dst.data(), 1 << 30, 1 << 30, &p, nullptr), -2);
}

TEST(Clahe, ANonEmptyIniPathReplacesTheSettingsWithTheFixedOnes) {
    // The record type never reads its file, whatever it holds.
    const std::string ini = "clahe_test_settings.ini";
    ASSERT_EQ(WriteInt_INI("claheParam", "widthBlockNum", 2, ini.c_str()), 1);
    std::vector<uint16_t> src = RandomImage<uint16_t>(48, 40, 0, 65535, 8), fromIni(src.size()), fixed(src.size());
    claheParam p;
    p.widthBlockNum = 3, p.peak = 4;
    EXPECT_EQ(clahe_16U(src.data(), fromIni.data(), 48, 40, &p, ini.c_str()), 1);
    EXPECT_EQ(clahe_16U_Manual(src.data(), fixed.data(), 48, 40, 8, 8, 256, 600, nullptr), 1);
    EXPECT_EQ(fromIni, fixed);
    EXPECT_EQ(std::vector<int>({p.widthBlockNum, p.heightBlockNum, p.histBin, p.peak}), (std::vector<int>{8, 8, 256, 600}));
    std::remove(ini.c_str());
}

TEST(Clahe, SettingsOutsideTheUsualRangeStayInsideTheTables) {
    // A peak of 0 empties every histogram: each mapping stays 0, which the two halves store as 1.
    std::vector<uint16_t> src = RandomImage<uint16_t>(20, 20, 0, 65535, 21), dst(src.size());
    ASSERT_EQ(clahe_16U_Manual(src.data(), dst.data(), 20, 20, 2, 2, 256, 0, nullptr), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 1));
    // Negative float values fall into bin 0 like 0 itself.
    std::vector<double> a = {-5, -1, 3, 7}, b = {-5, 0, 3, 7};
    ASSERT_EQ(clahe_64F_Manual(a.data(), a.data(), 2, 2, 1, 1, 64, 3, nullptr) + clahe_64F_Manual(b.data(), b.data(), 2, 2, 1, 1, 64, 3, nullptr), 2);
    EXPECT_EQ(a, b);
    // A tile whose values all sit in the top bin has nothing above it to map.
    std::vector<uint8_t> bright(16, 255), out8(16, 9);
    ASSERT_EQ(clahe_8U_Manual(bright.data(), out8.data(), 4, 4, 1, 1, 256, 2, nullptr), 1);
    EXPECT_EQ(out8, std::vector<uint8_t>(16, 1));
    ASSERT_EQ(clahe_64F_Manual(nullptr, nullptr, 4, 4, 1, 1, 256, 2, nullptr), 0);
}

}  // namespace
