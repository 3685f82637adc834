#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "advanced_reference.h"
#include "imgproc/dispatch.h"
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
    struct Case {
        int peak;
        uint8_t at10, at11, at30;
    };
    // No clip: 11 -> 4/12 * 255 + 1 = 86, 30 -> 8/12 * 255 + 1 = 171.
    // Peak 3: 7 clipped counts spread over bins 11..255 (7/245 each), the denominator is
    // 16 - 3.0286, so 11 -> 0.23348 * 255 + 1 = 60.5 and 30 -> 0.50661 * 255 + 1 = 130.2.
    for (const Case& c : {Case{100, 1, 86, 171}, Case{3, 1, 60, 130}}) {
        ASSERT_EQ(clahe_8U_Manual(src.data(), dst.data(), 4, 4, 1, 1, 256, c.peak, nullptr), 1);
        EXPECT_EQ(std::vector<int>({dst[0], dst[8], dst[12]}),
                  std::vector<int>({c.at10, c.at11, c.at30}))
            << c.peak;
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
        ASSERT_EQ(clahe_8U_Manual(src.data(), dst.data(), 9, rows, 2, rows == 1 ? 1 : 2, 256, 100,
                                  nullptr),
                  1);
        for (int i = 0; i < 9 * rows; ++i)
            EXPECT_EQ(dst[i], want[i % 9]) << rows << " rows, pixel " << i;
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
        EXPECT_EQ(clahe_16U_Manual(src.data(), dst.data(), 10, 6, nx, ny, 256, 200, nullptr), -1)
            << nx;
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
    std::vector<uint16_t> src = RandomImage<uint16_t>(48, 40, 0, 65535, 8), fromIni(src.size()),
                          fixed(src.size());
    claheParam p;
    p.widthBlockNum = 3, p.peak = 4;
    EXPECT_EQ(clahe_16U(src.data(), fromIni.data(), 48, 40, &p, ini.c_str()), 1);
    EXPECT_EQ(clahe_16U_Manual(src.data(), fixed.data(), 48, 40, 8, 8, 256, 600, nullptr), 1);
    EXPECT_EQ(fromIni, fixed);
    EXPECT_EQ(std::vector<int>({p.widthBlockNum, p.heightBlockNum, p.histBin, p.peak}),
              (std::vector<int>{8, 8, 256, 600}));
    std::remove(ini.c_str());
}

TEST(Clahe, SettingsOutsideTheUsualRangeStayInsideTheTables) {
    // A peak of 0 empties every histogram: each mapping stays 0, which the two halves store as 1.
    std::vector<uint16_t> src = RandomImage<uint16_t>(20, 20, 0, 65535, 21), dst(src.size());
    ASSERT_EQ(clahe_16U_Manual(src.data(), dst.data(), 20, 20, 2, 2, 256, 0, nullptr), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 1));
    // Negative float values fall into bin 0 like 0 itself.
    std::vector<double> a = {-5, -1, 3, 7}, b = {-5, 0, 3, 7};
    ASSERT_EQ(clahe_64F_Manual(a.data(), a.data(), 2, 2, 1, 1, 64, 3, nullptr) +
                  clahe_64F_Manual(b.data(), b.data(), 2, 2, 1, 1, 64, 3, nullptr),
              2);
    EXPECT_EQ(a, b);
    // A tile whose values all sit in the top bin has nothing above it to map.
    std::vector<uint8_t> bright(16, 255), out8(16, 9);
    ASSERT_EQ(clahe_8U_Manual(bright.data(), out8.data(), 4, 4, 1, 1, 256, 2, nullptr), 1);
    EXPECT_EQ(out8, std::vector<uint8_t>(16, 1));
    ASSERT_EQ(clahe_64F_Manual(nullptr, nullptr, 4, 4, 1, 1, 256, 2, nullptr), 0);
}

// Every implementation level must give the reference's output bit for bit. The images mix a
// gradient, noise and flat patches so that tiles differ, bins clip and some stay empty; sizes are
// odd and the tile counts do not divide them, so columns and rows outside every tile are mapped
// too. Float images also hold negative values, infinities and NaN, some as their first pixel.
template <class T>
std::vector<T> ClaheImage(int w, int h, unsigned seed) {
    std::vector<T> img = RandomImage<T>(w, h, 0, std::is_same_v<T, uint8_t> ? 60 : 15000, seed);
    const double top = std::is_same_v<T, uint8_t> ? 255 : 65535;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            T& v = img[static_cast<size_t>(y) * w + x];
            if ((x / 7 + y / 5) % 4 == 0)
                v = static_cast<T>(top * 0.3);  // flat patches
            else
                v = static_cast<T>(std::min(top, v + top * 0.7 * (x + 2.0 * y) / (w + 2.0 * h)));
        }
    if constexpr (std::is_floating_point_v<T>) {
        img[1] = -40;
        img[img.size() / 2] = -std::numeric_limits<T>::infinity();
        img[img.size() / 3] = std::numeric_limits<T>::quiet_NaN();
        if (seed % 3 == 0)
            img[0] = std::numeric_limits<T>::quiet_NaN();  // the minimum and maximum stay NaN
    }
    return img;
}

template <class T>
int ClaheAt(int level, std::vector<T>& src, std::vector<T>& dst, int w, int h, int nx, int ny,
            int bins, int peak) {
    veltrano::SetImplCapForTesting(level);
    int r = 0;
    if constexpr (std::is_same_v<T, uint8_t>)
        r = clahe_8U_Manual(src.data(), dst.data(), w, h, nx, ny, bins, peak, nullptr);
    if constexpr (std::is_same_v<T, uint16_t>)
        r = clahe_16U_Manual(src.data(), dst.data(), w, h, nx, ny, bins, peak, nullptr);
    if constexpr (std::is_same_v<T, float>)
        r = clahe_32F_Manual(src.data(), dst.data(), w, h, nx, ny, bins, peak, nullptr);
    if constexpr (std::is_same_v<T, double>)
        r = clahe_64F_Manual(src.data(), dst.data(), w, h, nx, ny, bins, peak, nullptr);
    veltrano::SetImplCapForTesting(-1);
    return r;
}

template <class T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

struct LevelCase {
    int w, h, nx, ny, bins, peak;
};

template <class T>
void ExpectLevelsAgree(const LevelCase& c, unsigned seed) {
    const std::vector<T> src = ClaheImage<T>(c.w, c.h, seed);
    std::vector<T> in = src, want(src.size());
    ASSERT_EQ(ClaheAt<T>(0, in, want, c.w, c.h, c.nx, c.ny, c.bins, c.peak), 1);
    for (int level : {1, 2}) {
        std::vector<T> out(src.size(), T(7)), inPlace = src;
        EXPECT_EQ(ClaheAt<T>(level, in, out, c.w, c.h, c.nx, c.ny, c.bins, c.peak), 1);
        EXPECT_EQ(ClaheAt<T>(level, inPlace, inPlace, c.w, c.h, c.nx, c.ny, c.bins, c.peak), 1);
        EXPECT_TRUE(SameBits(out, want))
            << "level " << level << ", " << sizeof(T) << "-byte pixels, " << c.w << "x" << c.h
            << " tiles " << c.nx << "x" << c.ny << " bins " << c.bins << " peak " << c.peak;
        EXPECT_TRUE(SameBits(inPlace, want)) << "in place, level " << level << ", " << sizeof(T)
                                             << "-byte pixels, " << c.w << "x" << c.h;
    }
    EXPECT_TRUE(SameBits(in, src));
}

// The 4 x 3 tiles of 65536 bins hold more entries than the vector mapping's table of quads
// (2^21 floats) takes: it gathers them one by one instead.
TEST(ClaheLevels, EveryLevelGivesTheReferenceOutputBitForBit) {
    const LevelCase cases[] = {
        {37, 29, 3, 4, 256, 5},   {101, 67, 7, 5, 1024, 40},       {64, 48, 1, 1, 256, 200},
        {53, 81, 4, 3, 65536, 3}, {9, 200, 2, 13, 100, 1},         {300, 7, 16, 2, 2, 100000},
        {23, 19, 23, 19, 64, 1},  {131, 45, 6, 4, 1024, 0},        {77, 33, 4, 3, 256, -7},
        {70, 41, 8, 8, 1, 200},   {41, 70, 3, 2, 300, 2000000000},
    };
    unsigned seed = 1;
    for (const LevelCase& c : cases) {
        ExpectLevelsAgree<uint8_t>(c, ++seed);
        ExpectLevelsAgree<uint16_t>(c, ++seed);
        ExpectLevelsAgree<float>(c, ++seed);
        ExpectLevelsAgree<double>(c, ++seed);
    }
}

// A float count stops at 2^24 (adding 1 no longer changes it); the fast path's integer counts
// must stop there too. One tile of 4200 x 4100 pixels: 17 million of value 100, the rest 200 and
// a sprinkle of every value, so that the saturated bin lies in the middle of the mapping. The peak
// lies between 2^24 and that bin's true count (nearly 17 million): a count that went on past 2^24
// would be clipped and its excess spread over the other bins, where the float count is not. Both
// fast levels count and limit 8-bit pixels with the same code, so the vector level alone runs
// here (the plain level's mapping is compared above).
TEST(ClaheLevels, CountsBeyondTwoToThe24StopWhereFloatCountsStop) {
    const int w = 4200, h = 4100, kPeak = 16900000;
    std::vector<uint8_t> src(static_cast<size_t>(w) * h, 200), want(src.size()), out(src.size());
    std::fill(src.begin(), src.begin() + 17000000, 100);
    for (size_t i = 0; i < src.size(); i += 997) src[i] = static_cast<uint8_t>(i % 251);
    ASSERT_EQ(ClaheAt<uint8_t>(0, src, want, w, h, 1, 1, 256, kPeak), 1);
    ASSERT_EQ(ClaheAt<uint8_t>(2, src, out, w, h, 1, 1, 256, kPeak), 1);
    EXPECT_TRUE(SameBits(out, want));
}

// Sizes beyond the library's limit of 2^28 elements (pixels, or tiles times bins) are refused
// with -2 before any allocation or any pixel is read; histBin is still clamped into the record.
TEST(Clahe, RefusesTablesAndImagesBeyondTheSizeLimit) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(100, 100, 0, 65535, 4), dst(src.size(), 5);
    claheParam p;
    p.widthBlockNum = 100, p.heightBlockNum = 100, p.histBin = 70000;  // 10^4 tiles of 65536 bins
    EXPECT_EQ(clahe_16U(src.data(), dst.data(), 100, 100, &p, nullptr), -2);
    EXPECT_EQ(p.histBin, 65536);
    p.widthBlockNum = 1, p.heightBlockNum = 1, p.histBin = 256;  // 2^29 pixels, of which 10^4 exist
    std::vector<float> f(10000, 1.0f);
    EXPECT_EQ(clahe_32F_Manual(f.data(), f.data(), 1 << 15, 1 << 14, 1, 1, 256, 200, nullptr), -2);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 5));
    EXPECT_EQ(f, std::vector<float>(10000, 1.0f));
}

}  // namespace
