#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "veltrano.h"

namespace {

std::vector<uint16_t> RandomWords(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(0, 65535);
    std::vector<uint16_t> v(n);
    for (auto& x : v) x = static_cast<uint16_t>(dist(gen));
    return v;
}

TEST(PointOps, ReportNullPointersAndRefusedTypesInCheckingOrder) {
    uint16_t w[4] = {1, 2, 3, 4};
    float f[4] = {1, 2, 3, 4};
    double d[4] = {};
    struct Case { const char* name; int got; int want; };
    const Case cases[] = {
        {"Inverse null src", Inverse(nullptr, nullptr, 2, 2, 3), -1},
        {"Inverse null dst", Inverse(w, nullptr, 2, 2, 4), -2},
        {"Inverse code 4", Inverse(w, w, 2, 2, 4), -3},
        {"Brignt null src", BrigntAndContrast(nullptr, w, 2, 2, 4, 0, 1), -1},
        {"Brignt null dst", BrigntAndContrast(w, nullptr, 2, 2, 3, 0, 1), -2},
        {"Brignt code 3", BrigntAndContrast(w, w, 2, 2, 3, 0, 1), -3},
        {"Gamma null src", GammaCorrect(nullptr, w, 2, 2, 1, 4), -1},
        {"Gamma null dst", GammaCorrect(w, nullptr, 2, 2, 1, 99), -2},
        {"Gamma code 11", GammaCorrect(w, w, 2, 2, 1, 11), -3},
        {"Log null src", Image_Log(nullptr, f, 2, 2, 0), -1},
        {"Log null dst", Image_Log(f, nullptr, 2, 2, 0), -2},
        {"Square null src", Image_Square_NoTrunc(nullptr, d, 2, 2, 4), -1},
        {"Square null dst", Image_Square_NoTrunc(w, nullptr, 2, 2, 4), -2},
        {"Square code 11", Image_Square_NoTrunc(w, d, 2, 2, 11), -3},
        {"Threshold null src", ThresholdBinary(nullptr, w, 4, 2, 2, 1, 0), -1},
        {"Threshold null dst", ThresholdBinary(w, nullptr, 4, 2, 2, 1, 0), -2},
        {"Gain null src", ImgGainCorrect(nullptr, f, 2, 2), -1},
        {"Gain null dst", ImgGainCorrect(f, nullptr, 2, 2), -2},
        {"EquHist null src", EquHist(nullptr, w, 4, 4), -1},
        {"EquHist null dst", EquHist(w, nullptr, 4, 4), -2},
        {"EquHist code 5", EquHist(w, w, 4, 5), -3},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.name;
    EXPECT_EQ(std::vector<uint16_t>(w, w + 4), (std::vector<uint16_t>{1, 2, 3, 4}));
}

TEST(PointOps, InverseRefusesTheSixteenBitCodeButInvertsWordsForAnyOther) {
    const std::vector<uint16_t> src = {0, 1, 40000, 65535};
    std::vector<uint16_t> dst(4, 7);
    EXPECT_EQ(Inverse(const_cast<uint16_t*>(src.data()), dst.data(), 2, 2, 4), -3);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 7));
    for (int code : {3, 5, 6, 0, -1}) {
        ASSERT_EQ(Inverse(const_cast<uint16_t*>(src.data()), dst.data(), 2, 2, code), 1);
        EXPECT_EQ(dst, (std::vector<uint16_t>{65535, 65534, 25535, 0})) << code;
    }
}

TEST(PointOps, BrigntAndContrastScalesAddsClampsAndTruncates) {
    struct Case { uint16_t in; float brightness; float contrast; uint16_t want; };
    const Case cases[] = {
        {40000, 1000, 2, 65535},  // over the top
        {0, 1000, 2, 1000},
        {100, 0.4f, 1.5f, 150},   // 150.4 truncated
        {100, 0.9f, 1.5f, 150},   // 150.9 truncated, not rounded
        {500, -1000, 1, 0},       // below zero
        {500, 0, std::numeric_limits<float>::quiet_NaN(), 0},
    };
    for (const Case& c : cases) {
        uint16_t v = c.in;
        uint16_t out = 1;
        ASSERT_EQ(BrigntAndContrast(&v, &out, 1, 1, 4, c.brightness, c.contrast), 1);
        EXPECT_EQ(out, c.want) << c.in << " b " << c.brightness << " c " << c.contrast;
    }
}

TEST(PointOps, GammaCorrectMapsIntegerTypesOverTheirFullRange) {
    // Gamma 1 is the identity for every 16-bit value.
    std::vector<uint16_t> all(65536);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint16_t>(i);
    std::vector<uint16_t> out(all.size());
    ASSERT_EQ(GammaCorrect(all.data(), out.data(), 256, 256, 1.0f, 4), 1);
    EXPECT_EQ(out, all);

    // (128/255)^2 * 255 + 0.5 = 64.75 -> 64; (64/255)^0.5 * 255 + 0.5 = 128.25 -> 128.
    uint8_t b[3] = {128, 255, 0};
    uint8_t ob[3] = {};
    ASSERT_EQ(GammaCorrect(b, ob, 3, 1, 2.0f, 3), 1);
    EXPECT_EQ(ob[0], 64);
    EXPECT_EQ(ob[1], 255);
    EXPECT_EQ(ob[2], 0);
    b[0] = 64;
    ASSERT_EQ(GammaCorrect(b, ob, 1, 1, 0.5f, 3), 1);
    EXPECT_EQ(ob[0], 128);

    // Signed 16-bit divides by 32767; a negative base has no real power and stores 0.
    int16_t s[2] = {-100, 32767};
    int16_t os[2] = {5, 5};
    ASSERT_EQ(GammaCorrect(s, os, 2, 1, 0.5f, 5), 1);
    EXPECT_EQ(os[0], 0);
    EXPECT_EQ(os[1], 32767);
}

// Large frames go through a table of every value; each pixel must get what a call on that pixel
// alone (computed directly) gives.
template <class T>
void ExpectFrameMatchesSinglePixels(int code, float gamma, int64_t lowest) {
    const int w = 300, h = 260;  // more pixels than 16-bit values
    std::vector<T> frame(w * h);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<T>(lowest + static_cast<int64_t>(i * 40503u % 65536u));
    std::vector<T> out(frame.size());
    ASSERT_EQ(GammaCorrect(frame.data(), out.data(), w, h, gamma, code), 1);
    for (size_t i = 0; i < frame.size(); i += 7) {
        T one = frame[i], single = 0;
        ASSERT_EQ(GammaCorrect(&one, &single, 1, 1, gamma, code), 1);
        ASSERT_EQ(out[i], single) << "code " << code << " value " << +frame[i];
    }
}

TEST(PointOps, GammaCorrectGivesLargeFramesTheSameCurve) {
    for (float gamma : {0.45f, 1.0f, 2.2f, -0.5f}) {
        ExpectFrameMatchesSinglePixels<uint16_t>(4, gamma, 0);
        ExpectFrameMatchesSinglePixels<int16_t>(5, gamma, -32768);
        ExpectFrameMatchesSinglePixels<uint8_t>(3, gamma, 0);
    }
}

TEST(PointOps, GammaCorrectMapsFloatImagesOverTheirOwnSpan) {
    float f[4] = {1.0f, 2.0f, 3.0f, 5.0f};  // min 1, span 4
    float out[4] = {};
    ASSERT_EQ(GammaCorrect(f, out, 4, 1, 2.0f, 6), 1);
    EXPECT_FLOAT_EQ(out[0], 1.0f);
    EXPECT_FLOAT_EQ(out[1], 1.25f);  // 0.25^2 * 4 + 1
    EXPECT_FLOAT_EQ(out[2], 2.0f);   // 0.5^2 * 4 + 1
    EXPECT_FLOAT_EQ(out[3], 5.0f);

    float flat[3] = {7.5f, 7.5f, 7.5f};
    ASSERT_EQ(GammaCorrect(flat, flat, 3, 1, 2.0f, 6), 1);
    for (float v : flat) EXPECT_EQ(v, 7.5f);
}

TEST(PointOps, ImageLogFloorsAtTwentyAndNegatesOnlyForOne) {
    const float src[4] = {0.0f, 20.0f, -3.0f, 100.0f};
    const float ln20 = static_cast<float>(std::log(20.0));
    const float ln100 = static_cast<float>(std::log(100.0));
    struct Case { int negate; float sign; };
    for (const Case c : {Case{0, 1.0f}, Case{1, -1.0f}, Case{2, 1.0f}}) {
        float out[4] = {};
        ASSERT_EQ(Image_Log(const_cast<float*>(src), out, 2, 2, c.negate), 1);
        EXPECT_EQ(out[0], c.sign * ln20);
        EXPECT_EQ(out[1], c.sign * ln20);
        EXPECT_EQ(out[2], c.sign * ln20);
        EXPECT_EQ(out[3], c.sign * ln100);
    }
    EXPECT_NEAR(ln20, 2.9957f, 1e-4f);
}

TEST(PointOps, ImageSquareWidensWithoutClamping) {
    double out[2] = {};
    uint8_t b[2] = {255, 3};
    ASSERT_EQ(Image_Square_NoTrunc(b, out, 2, 1, 3), 1);
    EXPECT_EQ(out[0], 65025.0);
    int16_t s[2] = {-300, 7};
    ASSERT_EQ(Image_Square_NoTrunc(s, out, 2, 1, 5), 1);
    EXPECT_EQ(out[0], 90000.0);
    int32_t i[2] = {100000, -2};
    ASSERT_EQ(Image_Square_NoTrunc(i, out, 2, 1, 8), 1);
    EXPECT_EQ(out[0], 1e10);
    EXPECT_EQ(out[1], 4.0);
    uint16_t w[2] = {65535, 0};
    ASSERT_EQ(Image_Square_NoTrunc(w, out, 2, 1, 4), 1);
    EXPECT_EQ(out[0], 4294836225.0);
    // Floats square in single precision: 4097^2 = 16785409 is not a float.
    float f[2] = {4097.0f, 1.5f};
    ASSERT_EQ(Image_Square_NoTrunc(f, out, 2, 1, 6), 1);
    EXPECT_EQ(out[0], 16785408.0);
    EXPECT_EQ(out[1], 2.25);
}

TEST(PointOps, ThresholdBinaryModesCompareStrictly) {
    const std::vector<uint16_t> src16 = {99, 100, 101, 65535};
    struct Case { uint32_t mode; std::vector<uint16_t> want16; std::vector<uint8_t> want8; };
    const Case cases[] = {
        {0, {0, 0, 65535, 65535}, {0, 0, 255, 255}},
        {1, {65535, 65535, 0, 0}, {255, 255, 0, 0}},
        {2, {0, 0, 101, 65535}, {0, 0, 101, 255}},
        {3, {99, 100, 0, 0}, {99, 100, 0, 0}},
    };
    const std::vector<uint8_t> src8 = {99, 100, 101, 255};
    for (const Case& c : cases) {
        std::vector<uint16_t> out16(4, 1);
        ASSERT_EQ(ThresholdBinary(const_cast<uint16_t*>(src16.data()), out16.data(), 4, 2, 2, 100.0, c.mode), 1);
        EXPECT_EQ(out16, c.want16) << "mode " << c.mode;
        std::vector<uint8_t> in8 = src8;
        std::vector<uint8_t> out8(4, 1);
        ASSERT_EQ(ThresholdBinary(reinterpret_cast<uint16_t*>(in8.data()),
                                  reinterpret_cast<uint16_t*>(out8.data()), 3, 4, 1, 100.0, c.mode), 1);
        EXPECT_EQ(out8, c.want8) << "mode " << c.mode;
    }
    // Other modes and other codes write nothing.
    std::vector<uint16_t> out(4, 1);
    EXPECT_EQ(ThresholdBinary(const_cast<uint16_t*>(src16.data()), out.data(), 4, 2, 2, 100.0, 4), 1);
    EXPECT_EQ(ThresholdBinary(const_cast<uint16_t*>(src16.data()), out.data(), 5, 2, 2, 100.0, 0), 1);
    EXPECT_EQ(out, std::vector<uint16_t>(4, 1));
}

TEST(PointOps, ImgGainCorrectDividesTheMeanByEachPixel) {
    std::vector<float> flat(6, 2.0f);
    ASSERT_EQ(ImgGainCorrect(flat.data(), flat.data(), 3, 2), 1);
    EXPECT_EQ(flat, std::vector<float>(6, 1.0f));

    float src[4] = {1.0f, 4.0f, 0.0f, 3.0f};  // mean 2
    float out[4] = {};
    ASSERT_EQ(ImgGainCorrect(src, out, 4, 1), 1);
    EXPECT_EQ(out[0], 2.0f);
    EXPECT_EQ(out[1], 0.5f);
    EXPECT_EQ(out[2], 2.0f / 0.001f);
    EXPECT_EQ(out[3], 2.0f / 3.0f);
}

TEST(PointOps, EquHistScalesEachValueByItsCumulativeFraction) {
    std::vector<uint16_t> flat(10, 1000);
    ASSERT_EQ(EquHist(flat.data(), flat.data(), 10, 4), 1);
    EXPECT_EQ(flat, std::vector<uint16_t>(10, 1000));

    // cdf(100) = 0.5 -> 100 * 0.5 + 0.5 = 50.5 -> 50; cdf(300) = 1 -> 300.
    std::vector<uint16_t> two = {100, 300, 100, 300};
    std::vector<uint16_t> out(4);
    ASSERT_EQ(EquHist(two.data(), out.data(), 4, 4), 1);
    EXPECT_EQ(out, (std::vector<uint16_t>{50, 300, 50, 300}));

    // Bytes: cdf 0.25, 0.75, 1 -> 3, 15, 30.
    std::vector<uint8_t> b = {10, 20, 20, 30};
    std::vector<uint8_t> ob(4);
    ASSERT_EQ(EquHist(reinterpret_cast<uint16_t*>(b.data()), reinterpret_cast<uint16_t*>(ob.data()), 4, 3), 1);
    EXPECT_EQ(ob, (std::vector<uint8_t>{3, 15, 15, 30}));
}

// Every point operation reads each source pixel once and writes the same index, so it must give
// the same result in place as into a separate buffer.
TEST(PointOps, InPlaceEqualsOutOfPlace) {
    const int w = 37, h = 23;
    const std::vector<uint16_t> src = RandomWords(w * h, 7);
    std::vector<float> fsrc(src.begin(), src.end());
    fsrc[3] = 0.0f;

    using Op16 = std::function<int(uint16_t*, uint16_t*)>;
    const std::vector<std::pair<const char*, Op16>> ops16 = {
        {"Inverse", [&](uint16_t* s, uint16_t* d) { return Inverse(s, d, w, h, 3); }},
        {"Brignt", [&](uint16_t* s, uint16_t* d) { return BrigntAndContrast(s, d, w, h, 4, 300.0f, 1.3f); }},
        {"Gamma16", [&](uint16_t* s, uint16_t* d) { return GammaCorrect(s, d, w, h, 0.7f, 4); }},
        {"Gamma8", [&](uint16_t* s, uint16_t* d) { return GammaCorrect(s, d, w, h, 1.7f, 3); }},
        {"Threshold", [&](uint16_t* s, uint16_t* d) { return ThresholdBinary(s, d, 4, w, h, 30000.0, 2); }},
        {"EquHist16", [&](uint16_t* s, uint16_t* d) { return EquHist(s, d, w * h, 4); }},
        {"EquHist8", [&](uint16_t* s, uint16_t* d) { return EquHist(s, d, w * h, 3); }},
    };
    for (const auto& [name, op] : ops16) {
        // The 8-bit codes cover only the first half of the words; the rest keeps the source.
        std::vector<uint16_t> in = src, out = src, inPlace = src;
        std::fill(out.begin(), out.begin() + out.size() / 2, 0);
        ASSERT_EQ(op(in.data(), out.data()), 1) << name;
        ASSERT_EQ(op(inPlace.data(), inPlace.data()), 1) << name;
        EXPECT_EQ(inPlace, out) << name;
        EXPECT_NE(out, src) << name;
    }
    using OpF = std::function<int(float*, float*)>;
    const std::vector<std::pair<const char*, OpF>> opsF = {
        {"Log", [&](float* s, float* d) { return Image_Log(s, d, w, h, 1); }},
        {"Gain", [&](float* s, float* d) { return ImgGainCorrect(s, d, w, h); }},
        {"GammaF", [&](float* s, float* d) { return GammaCorrect(s, d, w, h, 2.2f, 6); }},
    };
    for (const auto& [name, op] : opsF) {
        std::vector<float> in = fsrc, out(fsrc.size()), inPlace = fsrc;
        ASSERT_EQ(op(in.data(), out.data()), 1) << name;
        ASSERT_EQ(op(inPlace.data(), inPlace.data()), 1) << name;
        EXPECT_EQ(inPlace, out) << name;
        EXPECT_NE(out, fsrc) << name;
    }
}

TEST(PointOps, EmptyOrNegativeSizesWriteNothing) {
    std::vector<uint16_t> src = {1, 2, 3, 4}, dst(4, 9);
    EXPECT_EQ(Inverse(src.data(), dst.data(), -2, -2, 3), 1);
    EXPECT_EQ(BrigntAndContrast(src.data(), dst.data(), 0, 4, 4, 1, 1), 1);
    EXPECT_EQ(Image_Square_NoTrunc(src.data(), reinterpret_cast<double*>(dst.data()), -1, -8, 4), 1);
    EXPECT_EQ(EquHist(src.data(), dst.data(), -4, 4), 1);
    EXPECT_EQ(EquHist(src.data(), dst.data(), 0, 3), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(4, 9));
}

}  // namespace
