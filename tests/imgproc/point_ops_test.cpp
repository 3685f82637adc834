#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

#include "veltrano.h"

namespace {

TEST(PointOps, ReportNullPointersAndRefusedTypesInCheckingOrderAndIgnoreEmptySizes) {
    uint16_t w[4] = {1, 2, 3, 4};
    float f[4] = {1, 2, 3, 4};
    const std::vector<std::pair<int, int>> got_want = {
        {Inverse(nullptr, nullptr, 2, 2, 3), -1}, {Inverse(w, nullptr, 2, 2, 4), -2}, {Inverse(w, w, 2, 2, 4), -3},
        {BrigntAndContrast(nullptr, w, 2, 2, 4, 0, 1), -1}, {BrigntAndContrast(w, w, 2, 2, 3, 0, 1), -3},
        {GammaCorrect(w, nullptr, 2, 2, 1, 99), -2}, {GammaCorrect(w, w, 2, 2, 1, 11), -3},
        {Image_Log(nullptr, f, 2, 2, 0), -1}, {Image_Log(f, nullptr, 2, 2, 0), -2},
        {Image_Square_NoTrunc(w, nullptr, 2, 2, 4), -2}, {Image_Square_NoTrunc(w, reinterpret_cast<double*>(f), 2, 2, 11), -3},
        {ThresholdBinary(nullptr, w, 4, 2, 2, 1, 0), -1}, {ThresholdBinary(w, nullptr, 4, 2, 2, 1, 0), -2},
        {ImgGainCorrect(f, nullptr, 2, 2), -2}, {EquHist(nullptr, w, 4, 4), -1}, {EquHist(w, w, 4, 5), -3},
        {Inverse(w, w, -2, -2, 3), 1}, {EquHist(w, w, -4, 4), 1},
    };
    for (size_t i = 0; i < got_want.size(); ++i) EXPECT_EQ(got_want[i].first, got_want[i].second) << i;
    EXPECT_EQ(std::vector<uint16_t>(w, w + 4), (std::vector<uint16_t>{1, 2, 3, 4}));
}

TEST(PointOps, InverseRefusesTheSixteenBitCodeButInvertsWordsForAnyOther) {
    std::vector<uint16_t> src = {0, 1, 40000, 65535}, dst(4, 7);
    EXPECT_EQ(Inverse(src.data(), dst.data(), 2, 2, 4), -3);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 7));
    for (int code : {3, 5, 6, -1}) {
        ASSERT_EQ(Inverse(src.data(), dst.data(), 2, 2, code), 1);
        EXPECT_EQ(dst, (std::vector<uint16_t>{65535, 65534, 25535, 0})) << code;
    }
}

TEST(PointOps, BrigntAndContrastScalesAddsClampsAndTruncates) {
    struct Case { uint16_t in; float brightness, contrast; uint16_t want; };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const Case& c : {Case{40000, 1000, 2, 65535}, Case{0, 1000, 2, 1000}, Case{100, 0.9f, 1.5f, 150},
                          Case{500, -1000, 1, 0}, Case{500, 0, nan, 0}}) {
        uint16_t v = c.in, out = 1;
        ASSERT_EQ(BrigntAndContrast(&v, &out, 1, 1, 4, c.brightness, c.contrast), 1);
        EXPECT_EQ(out, c.want) << c.in << " b " << c.brightness << " c " << c.contrast;
    }
}

TEST(PointOps, GammaCorrectMapsIntegerTypesOverTheirFullRangeAndFloatsOverTheirSpan) {
    // More pixels than 16-bit values: gamma 1 is the identity over the whole range.
    std::vector<uint16_t> all(300 * 260), out(all.size());
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint16_t>(i * 40503u);
    ASSERT_EQ(GammaCorrect(all.data(), out.data(), 300, 260, 1.0f, 4), 1);
    EXPECT_EQ(out, all);
    // (128/255)^2 * 255 + 0.5 = 64.75 -> 64; (64/255)^0.5 * 255 + 0.5 = 128.25 -> 128.
    uint8_t b[2] = {128, 64}, ob[2] = {};
    ASSERT_EQ(GammaCorrect(b, ob, 1, 1, 2.0f, 3) + GammaCorrect(b + 1, ob + 1, 1, 1, 0.5f, 3), 2);
    EXPECT_EQ(ob[0] * 1000 + ob[1], 64128);
    // 30000^2 / 65535 + 0.5 = 13733.6 -> 13733, also within a frame mapped through a table.
    all.assign(all.size(), 30000);
    ASSERT_EQ(GammaCorrect(all.data(), out.data(), 300, 260, 2.0f, 4), 1);
    EXPECT_EQ(out, std::vector<uint16_t>(all.size(), 13733));
    // The power is single precision but scaling back is in double: 5467 at gamma 0.8 gives
    // 8984.9996 (single-precision scaling would round it up to 8985).
    uint16_t g16 = 5467, go16 = 0;
    ASSERT_EQ(GammaCorrect(&g16, &go16, 1, 1, 0.8f, 4), 1);
    EXPECT_EQ(go16, 8984);
    int16_t s[2] = {-100, 32767}, os[2] = {5, 5};  // a negative base has no real power: 0
    ASSERT_EQ(GammaCorrect(s, os, 2, 1, 0.5f, 5), 1);
    EXPECT_EQ(std::vector<int16_t>(os, os + 2), (std::vector<int16_t>{0, 32767}));
    float f[4] = {1.0f, 2.0f, 3.0f, 5.0f}, fo[4] = {};  // min 1, span 4, no offset
    ASSERT_EQ(GammaCorrect(f, fo, 4, 1, 2.0f, 6), 1);
    EXPECT_EQ(std::vector<float>(fo, fo + 4), (std::vector<float>{1.0f, 1.25f, 2.0f, 5.0f}));
    float flat[3] = {7.5f, 7.5f, 7.5f};  // no span: copied rather than turned into NaN
    ASSERT_EQ(GammaCorrect(flat, flat, 3, 1, 2.0f, 6), 1);
    EXPECT_EQ(std::vector<float>(flat, flat + 3), std::vector<float>(3, 7.5f));
}

TEST(PointOps, ImageLogFloorsAtTwentyAndNegatesOnlyForOne) {
    float src[4] = {0.0f, 20.0f, -3.0f, 100.0f};
    const float ln20 = static_cast<float>(std::log(20.0)), ln100 = static_cast<float>(std::log(100.0));
    for (const auto& [negate, sign] : {std::pair{0, 1.0f}, std::pair{1, -1.0f}, std::pair{2, 1.0f}}) {
        float out[4] = {};
        ASSERT_EQ(Image_Log(src, out, 2, 2, negate), 1);
        EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{sign * ln20, sign * ln20, sign * ln20, sign * ln100}));
    }
}

TEST(PointOps, ImageSquareWidensWithoutClampingAndFloatsSquareInSinglePrecision) {
    double out[2] = {};
    int32_t i[2] = {100000, -2};
    float f[2] = {4097.0f, 1.5f};  // 4097^2 = 16785409 is not a float
    ASSERT_EQ(Image_Square_NoTrunc(i, out, 2, 1, 8), 1);
    ASSERT_EQ(Image_Square_NoTrunc(f, out + 1, 1, 1, 6), 1);
    EXPECT_EQ(std::vector<double>(out, out + 2), (std::vector<double>{1e10, 16785408.0}));
}

TEST(PointOps, ThresholdBinaryModesCompareStrictly) {
    struct Case { uint32_t mode; std::vector<uint16_t> want16; std::vector<uint8_t> want8; };
    const Case cases[] = {
        {0, {0, 0, 65535, 65535}, {0, 0, 255, 255}}, {1, {65535, 65535, 0, 0}, {255, 255, 0, 0}},
        {2, {0, 0, 101, 65535}, {0, 0, 101, 255}}, {3, {99, 100, 0, 0}, {99, 100, 0, 0}},
    };
    std::vector<uint16_t> src16 = {99, 100, 101, 65535}, out16(4);
    std::vector<uint8_t> src8 = {99, 100, 101, 255}, out8(4);
    for (const Case& c : cases) {
        ASSERT_EQ(ThresholdBinary(src16.data(), out16.data(), 4, 2, 2, 100.0, c.mode), 1);
        ASSERT_EQ(ThresholdBinary(reinterpret_cast<uint16_t*>(src8.data()), reinterpret_cast<uint16_t*>(out8.data()), 3,
                                  4, 1, 100.0, c.mode), 1);
        EXPECT_EQ(out16, c.want16) << "mode " << c.mode;
        EXPECT_EQ(out8, c.want8) << "mode " << c.mode;
    }
    std::vector<uint16_t> out(4, 1);  // other modes and codes write nothing
    EXPECT_EQ(ThresholdBinary(src16.data(), out.data(), 4, 2, 2, 100.0, 4) + ThresholdBinary(src16.data(), out.data(), 5, 2, 2, 100.0, 0), 2);
    EXPECT_EQ(out, std::vector<uint16_t>(4, 1));
}

TEST(PointOps, ImgGainCorrectAndEquHistUseOneStatisticOfTheWholeImage) {
    float src[4] = {1.0f, 4.0f, 0.0f, 3.0f}, out[4] = {};  // mean 2, floor 0.001
    ASSERT_EQ(ImgGainCorrect(src, out, 4, 1), 1);
    EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{2.0f, 0.5f, 2.0f / 0.001f, 2.0f / 3.0f}));
    // cdf(1000) = 1 -> 1000; cdf(100) = 0.5 -> 100 * 0.5 + 0.5 = 50.5 -> 50; cdf(300) = 1 -> 300.
    std::vector<uint16_t> flat(10, 1000), two = {100, 300, 100, 300}, o16(4);
    ASSERT_EQ(EquHist(flat.data(), flat.data(), 10, 4), 1);
    EXPECT_EQ(flat, std::vector<uint16_t>(10, 1000));
    ASSERT_EQ(EquHist(two.data(), o16.data(), 4, 4), 1);
    EXPECT_EQ(o16, (std::vector<uint16_t>{50, 300, 50, 300}));
    std::vector<uint8_t> b = {10, 20, 20, 30}, ob(4);  // cdf 0.25, 0.75, 1 -> 3, 15, 30
    ASSERT_EQ(EquHist(reinterpret_cast<uint16_t*>(b.data()), reinterpret_cast<uint16_t*>(ob.data()), 4, 3), 1);
    EXPECT_EQ(ob, (std::vector<uint8_t>{3, 15, 15, 30}));
}

// Every point operation reads each source pixel once and writes the same index, so it must give
// the same result in place as into a separate buffer.
TEST(PointOps, InPlaceEqualsOutOfPlace) {
    const int w = 37, h = 23;
    std::vector<uint16_t> src(w * h);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
    const std::vector<std::function<int(uint16_t*, uint16_t*)>> ops = {
        [&](uint16_t* s, uint16_t* d) { return BrigntAndContrast(s, d, w, h, 4, 300.0f, 1.3f); },
        [&](uint16_t* s, uint16_t* d) { return GammaCorrect(s, d, w, h, 1.7f, 3); },
        [&](uint16_t* s, uint16_t* d) { return EquHist(s, d, w * h, 4); },
        [&](uint16_t* s, uint16_t* d) { return Image_Log(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), w, h / 2, 1); }};
    for (size_t k = 0; k < ops.size(); ++k) {
        std::vector<uint16_t> out = src, inPlace = src;
        ASSERT_EQ(ops[k](src.data(), out.data()), 1);
        ASSERT_EQ(ops[k](inPlace.data(), inPlace.data()), 1);
        EXPECT_EQ(inPlace, out) << k;
        EXPECT_NE(out, src) << k;
    }
}

}  // namespace
