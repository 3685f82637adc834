#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::RandomImage;

struct Settings {
    int nx, ny, histBin, peak;
};

// CLAHE written out from the rules: tile histograms, clip, spread from one past the first
// occupied bin, cumulative mapping with its particular denominator, then the region table
// pixel by pixel.
template <class T>
struct Expected {
    std::vector<T> image;
    int bins;
    float outMax;
};

template <class T>
Expected<T> ReferenceClahe(const std::vector<T>& src, int w, int h, Settings s, int cap) {
    int B = s.histBin > cap ? cap : s.histBin;
    if (B < 2) B = 1;
    float outMax;
    if (std::is_same_v<T, uint8_t>) {
        outMax = 255.0f;
    } else if (std::is_same_v<T, uint16_t>) {
        outMax = 65535.0f;
    } else {
        double mn = src[0], mx = src[0];
        for (T v : src) {
            mn = std::min<double>(mn, v);
            mx = std::max<double>(mx, v);
        }
        outMax = static_cast<float>(std::max<T>(static_cast<T>(mx - mn), T(1)));
    }
    const float binScale = static_cast<float>(B - 1) / outMax;
    auto bin = [&](T v) {
        const float t = static_cast<float>(v) * binScale;
        return t > B - 1 ? B - 1 : static_cast<int>(t);
    };
    const int tw = w / s.nx, th = h / s.ny;
    std::vector<std::vector<float>> maps(s.nx * s.ny, std::vector<float>(B, 0.0f));
    for (int ty = 0; ty < s.ny; ++ty) {
        for (int tx = 0; tx < s.nx; ++tx) {
            std::vector<float> hist(B, 0.0f);
            for (int y = ty * th; y < ty * th + th; ++y)
                for (int x = tx * tw; x < tx * tw + tw; ++x) hist[bin(src[y * w + x])] += 1.0f;
            int excess = 0;
            for (float& c : hist) {
                if (c > s.peak) {
                    excess += static_cast<int>(c - s.peak);
                    c = static_cast<float>(s.peak);
                }
            }
            int first = 0;
            while (hist[first] < 1e-16f) ++first;  // the test data never leaves a tile empty
            const int k = first + 1;
            if (k == B) continue;  // mapping stays 0
            const float inc = static_cast<float>(excess) / static_cast<float>(std::max(B - k, 1));
            for (int b = k; b < B; ++b) hist[b] += inc;
            std::vector<float>& map = maps[ty * s.nx + tx];
            const float norm = 1.0f / (static_cast<float>(tw * th) - hist[k]);
            for (int b = k; b < B; ++b) map[b] = hist[b] * norm + map[b - 1];
        }
    }
    const int halfW = tw / 2, halfH = th / 2;
    const int xLast = (s.nx - 1) * tw + halfW, yLast = (s.ny - 1) * th + halfH;
    std::vector<T> out(src.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int b = bin(src[y * w + x]);
            auto M = [&](int i) { return maps[i][b]; };
            auto vertical = [&](int c) {
                const int ty = (y - halfH) / th;
                const float wy = static_cast<float>(y - (ty * th + halfH)) / th;
                return (1 - wy) * M(ty * s.nx + c) + wy * M((ty + 1) * s.nx + c);
            };
            auto horizontal = [&](int row) {
                const int tx = (x - halfW) / tw;
                const float wx = static_cast<float>(x - (tx * tw + halfW)) / tw;
                return (1 - wx) * M(row * s.nx + tx) + wx * M(row * s.nx + tx + 1);
            };
            float r;
            if (x <= halfW && y <= halfH) r = M(0);
            else if (x <= halfW && y >= yLast) r = M((s.ny - 1) * s.nx);
            else if (x >= xLast && y <= halfH) r = M(s.nx - 1);
            else if (x >= xLast && y >= yLast) r = M(s.nx * s.ny - 1);
            else if (x <= halfW) r = vertical(0);
            else if (x >= xLast) r = vertical(s.nx - 1);
            else if (y <= halfH) r = horizontal(0);
            else if (y < yLast) {
                const int tx = (x - halfW) / tw, ty = (y - halfH) / th;
                const float wx = static_cast<float>(x - (tx * tw + halfW)) / tw;
                const float wy = static_cast<float>(y - (ty * th + halfH)) / th;
                const int i = ty * s.nx + tx;
                r = wx * wy * M(i + s.nx + 1) + (1 - wx) * (1 - wy) * M(i) +
                    (1 - wy) * wx * M(i + 1) + (1 - wx) * wy * M(i + s.nx);
            } else r = horizontal(s.ny - 1);
            float v = r * outMax;
            if constexpr (std::is_integral_v<T>) {
                v = std::min(std::max(v + 0.5f, 0.0f), std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f);
                v += 0.5f;
            }
            out[y * w + x] = static_cast<T>(v);
        }
    }
    return {out, B, outMax};
}

template <class T>
int CallClahe(std::vector<T>& src, std::vector<T>& dst, int w, int h, claheParam* p) {
    if constexpr (std::is_same_v<T, uint8_t>) return clahe_8U(src.data(), dst.data(), w, h, p, nullptr);
    if constexpr (std::is_same_v<T, uint16_t>) return clahe_16U(src.data(), dst.data(), w, h, p, "");
    if constexpr (std::is_same_v<T, float>) return clahe_32F(src.data(), dst.data(), w, h, p, nullptr);
    if constexpr (std::is_same_v<T, double>) return clahe_64F(src.data(), dst.data(), w, h, p, "");
}

struct Case {
    int w, h;
    Settings s;
};

template <class T>
void ExpectMatchesReference(const Case& c, double high, unsigned seed, int cap) {
    SCOPED_TRACE(testing::Message() << sizeof(T) << "-byte " << c.w << "x" << c.h << " tiles "
                                    << c.s.nx << "x" << c.s.ny << " bins " << c.s.histBin
                                    << " peak " << c.s.peak);
    std::vector<T> src = RandomImage<T>(c.w, c.h, 0, high, seed);
    std::vector<T> dst(src.size(), T(0));
    claheParam p;
    p.widthBlockNum = c.s.nx;
    p.heightBlockNum = c.s.ny;
    p.histBin = c.s.histBin;
    p.peak = c.s.peak;
    ASSERT_EQ(CallClahe(src, dst, c.w, c.h, &p), 1);
    const Expected<T> expected = ReferenceClahe(src, c.w, c.h, c.s, cap);
    if constexpr (std::is_integral_v<T>) {
        EXPECT_EQ(dst, expected.image);
    } else {
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_NEAR(dst[i], expected.image[i], 1e-4 * std::fabs(expected.image[i]) + 1e-6) << i;
    }
    // The record leaves with the clamped bin count and the scale that was used.
    EXPECT_EQ(p.histBin, expected.bins);
    EXPECT_EQ(p.outMax, expected.outMax);
    EXPECT_EQ(p.binScale, static_cast<float>(expected.bins - 1) / expected.outMax);

    std::vector<T> inPlace = src;
    ASSERT_EQ(CallClahe(inPlace, inPlace, c.w, c.h, &p), 1);
    EXPECT_EQ(inPlace, dst);
}

TEST(Clahe, MatchesTheTileByTileReference) {
    const Case sixteen[] = {
        {37, 29, {3, 2, 64, 5}},
        {100, 7, {3, 1, 256, 3}},   // tiles of 33 columns: column 99 is mapped but not counted
        {16, 16, {1, 1, 256, 10}},  // a single tile maps every pixel alone
        {23, 31, {4, 5, 1000, 2}},
        {40, 12, {5, 2, 16, 1000}},  // nothing clipped
        {9, 9, {9, 9, 32, 1}},       // one-pixel tiles
        {12, 10, {2, 2, 100000, 3}},  // bins clamped to 65536
        {12, 10, {2, 2, 65537, 3}},
        {12, 10, {2, 2, 1, 3}},       // a single bin: every mapping stays 0
        {12, 10, {2, 2, -7, 3}},      // below 2: one bin
    };
    unsigned seed = 100;
    for (const Case& c : sixteen) ExpectMatchesReference<uint16_t>(c, 65535, seed++, 65536);
    ExpectMatchesReference<uint16_t>({30, 30, {3, 3, 4096, 2}}, 4000, seed++, 65536);

    const Case eight[] = {{30, 20, {2, 3, 256, 4}}, {17, 13, {3, 3, 100000, 2}}, {25, 25, {4, 4, 40, 3}},
                          {12, 10, {2, 2, 257, 3}}, {12, 10, {2, 2, 0, 3}}};
    for (const Case& c : eight) ExpectMatchesReference<uint8_t>(c, 255, seed++, 256);

    // Float data is binned by its raw value and scaled by max - min.
    ExpectMatchesReference<float>({20, 15, {2, 2, 128, 3}}, 1000.0, seed++, 65536);
    ExpectMatchesReference<float>({18, 22, {3, 2, 256, 2}}, 0.5, seed++, 65536);  // span below 1
    ExpectMatchesReference<double>({21, 19, {2, 3, 500, 2}}, 30000.0, seed++, 65536);
}

TEST(Clahe, RejectsBadSettingsWithoutWriting) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(10, 6, 0, 65535, 3);
    std::vector<uint16_t> dst(src.size(), 42);
    struct Case { int w, h, nx, ny; };
    const Case cases[] = {{10, 6, 0, 2}, {10, 6, 11, 2}, {10, 6, 2, 0}, {10, 6, 2, 7},
                          {10, 6, -1, 2}, {0, 6, 1, 1}, {10, -6, 1, 1}};
    for (const Case& c : cases) {
        EXPECT_EQ(clahe_16U_Manual(src.data(), dst.data(), c.w, c.h, c.nx, c.ny, 256, 200, nullptr), -1)
            << c.w << "x" << c.h << " tiles " << c.nx << "x" << c.ny;
    }
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 42));

    EXPECT_EQ(clahe_16U_Manual(nullptr, dst.data(), 10, 6, 2, 2, 256, 200, nullptr), 0);
    EXPECT_EQ(clahe_16U(src.data(), dst.data(), 10, 6, nullptr, nullptr), -1);

    // A null destination is met by the mapping stage, after the record was updated.
    claheParam p;
    p.widthBlockNum = 2;
    p.heightBlockNum = 2;
    p.histBin = 70000;
    EXPECT_EQ(clahe_16U(src.data(), nullptr, 10, 6, &p, nullptr), -4);
    EXPECT_EQ(p.histBin, 65536);

    // Tables whose size does not fit in memory at all: reported before any pixel is read, so
    // the image may be far smaller than the sizes claim.
    claheParam huge;
    huge.widthBlockNum = 1 << 30;
    huge.heightBlockNum = 1 << 30;
    huge.histBin = 65536;
    EXPECT_EQ(clahe_16U(src.data(), dst.data(), 1 << 30, 1 << 30, &huge, nullptr), -2);
    EXPECT_EQ(huge.histBin, 65536);
}

TEST(Clahe, ANonEmptyIniPathReplacesTheSettingsWithTheFixedOnes) {
    // The record type never reads its file, whatever it holds.
    const std::string ini = "clahe_test_settings.ini";
    ASSERT_EQ(WriteInt_INI("claheParam", "widthBlockNum", 2, ini.c_str()), 1);
    ASSERT_EQ(WriteInt_INI("claheParam", "peak", 3, ini.c_str()), 1);

    std::vector<uint16_t> src = RandomImage<uint16_t>(48, 40, 0, 65535, 8);
    std::vector<uint16_t> fromIni(src.size()), fixed(src.size()), plain(src.size());
    EXPECT_EQ(clahe_16U_Manual(src.data(), fromIni.data(), 48, 40, 2, 3, 64, 5, ini.c_str()), 1);
    EXPECT_EQ(clahe_16U_Manual(src.data(), fixed.data(), 48, 40, 8, 8, 256, 600, nullptr), 1);
    EXPECT_EQ(clahe_16U_Manual(src.data(), plain.data(), 48, 40, 2, 3, 64, 5, nullptr), 1);
    EXPECT_EQ(fromIni, fixed);
    EXPECT_NE(fromIni, plain);

    claheParam p;
    p.widthBlockNum = 3;
    p.peak = 4;
    EXPECT_EQ(clahe_16U(src.data(), plain.data(), 48, 40, &p, "no_such_file.ini"), 1);
    EXPECT_EQ(p.widthBlockNum, 8);
    EXPECT_EQ(p.heightBlockNum, 8);
    EXPECT_EQ(p.histBin, 256);
    EXPECT_EQ(p.peak, 600);
    EXPECT_EQ(plain, fixed);
    std::remove(ini.c_str());
}

TEST(Clahe, SettingsOutsideTheUsualRangeStayInsideTheTables) {
    // A peak of 0 empties every histogram: each mapping stays 0, which the two added halves
    // store as 1.
    std::vector<uint16_t> src = RandomImage<uint16_t>(20, 20, 0, 65535, 21), dst(src.size());
    ASSERT_EQ(clahe_16U_Manual(src.data(), dst.data(), 20, 20, 2, 2, 256, 0, nullptr), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 1));

    // Negative float values fall into bin 0 like 0 itself.
    std::vector<float> a = RandomImage<float>(16, 16, 0.0, 100.0, 22);
    a[0] = -50.0f;
    std::vector<float> b = a;
    a[37] = -3.0f;
    b[37] = 0.0f;
    std::vector<float> outA(a.size()), outB(b.size());
    ASSERT_EQ(clahe_32F_Manual(a.data(), outA.data(), 16, 16, 2, 2, 64, 3, nullptr), 1);
    ASSERT_EQ(clahe_32F_Manual(b.data(), outB.data(), 16, 16, 2, 2, 64, 3, nullptr), 1);
    EXPECT_EQ(outA, outB);

    // A tile whose only values sit in the top bin has nothing above it to map.
    std::vector<uint8_t> bright(16, 255), out8(16, 9);
    ASSERT_EQ(clahe_8U_Manual(bright.data(), out8.data(), 4, 4, 1, 1, 256, 2, nullptr), 1);
    EXPECT_EQ(out8, std::vector<uint8_t>(16, 1));

    // A negative peak clips everything below zero; the excess stays countable.
    ASSERT_EQ(clahe_16U_Manual(src.data(), dst.data(), 20, 20, 2, 2, 65536, -2000000000, nullptr), 1);
}

}  // namespace
