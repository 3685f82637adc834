#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "imgproc/pixel_dispatch.h"
#include "veltrano.h"

namespace {

using namespace veltrano;

TEST(PixelDispatch, CallsTheServedTypeOnceAndFallsBackOtherwise) {
    int calls = 0;
    int32_t seenCode = 0;
    size_t seenSize = 0;
    auto probe = [&](auto tag) {
        ++calls;
        seenCode = decltype(tag)::code;
        seenSize = sizeof(typename decltype(tag)::type);
        return 10 + decltype(tag)::channels;
    };
    EXPECT_EQ((DispatchPixelType<Pix8U, Pix16S, Pix64F>(kPix16S, -3, probe)), 11);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenCode, kPix16S);
    EXPECT_EQ(seenSize, 2u);
    EXPECT_EQ((DispatchPixelType<Pix8U, Pix16S, Pix64F>(kPix64F, -3, probe)), 11);
    EXPECT_EQ(seenSize, 8u);
    // Codes that share an element type stay apart, each with its own channel count.
    EXPECT_EQ((DispatchPixelType<Pix8U, Pix8UC3, Pix8UC4Too>(kPix8UC4Too, -3, probe)), 14);
    EXPECT_EQ(seenCode, kPix8UC4Too);
    calls = 0;
    for (int32_t code : {int32_t{kPix16U}, int32_t{kPix32F}, 0, -1, INT32_MIN, INT32_MAX})
        EXPECT_EQ((DispatchPixelType<Pix8U, Pix16S, Pix64F>(code, -3, probe)), -3) << code;
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE((ServesPixelType<Pix16U, Pix8U>(kPix8U)));
    EXPECT_FALSE((ServesPixelType<Pix16U, Pix8U>(kPix16S)));
}

// Every multi-type entry point over the codes -1 to 13: a served code processes the image (the
// destination changes) and a code outside the function's own list gives that function's own
// result and leaves the destination as it was.
struct EntryPoint {
    const char* name;
    std::set<int32_t> served;
    int unservedResult;
    std::function<int(int32_t code, void* src, void* dst)> call;
};

void PrintTo(const EntryPoint& entry, std::ostream* os) { *os << entry.name; }

constexpr int kW = 6;
constexpr int kH = 5;
// Room for the widest element of any code (8 bytes) times three channels.
constexpr size_t kBytes = kW * kH * 8 * 3;

// The quick enhancement, the one that serves float images too; then gamma and equalisation.
struAceGammaParam AceRecord() {
    struAceGammaParam p;
    p.param1 = 1, p.param2 = 1.0f, p.param3 = 3.0f, p.param4 = 0.5f, p.param5 = 0, p.param6 = 1;
    return p;
}

const EntryPoint kEntryPoints[] = {
    {"Box_Filter",
     {3, 4, 5, 6, 11},
     -3,
     [](int32_t c, void* s, void* d) { return Box_Filter(s, d, kW, kH, c, 1); }},
    {"Median_Blur",
     {3, 4, 5, 6},
     -3,
     [](int32_t c, void* s, void* d) { return Median_Blur(s, d, kW, kH, 1, c); }},
    {"GammaCorrect",
     {3, 4, 5, 6},
     -3,
     [](int32_t c, void* s, void* d) { return GammaCorrect(s, d, kW, kH, 0.5f, c); }},
    {"Image_Square_NoTrunc",
     {3, 4, 5, 6, 8},
     -3,
     [](int32_t c, void* s, void* d) {
         return Image_Square_NoTrunc(s, static_cast<double*>(d), kW, kH, c);
     }},
    {"ThresholdBinary",
     {3, 4},
     1,
     [](int32_t c, void* s, void* d) {
         return ThresholdBinary(static_cast<uint16_t*>(s), static_cast<uint16_t*>(d), c, kW, kH,
                                0.0, 0);
     }},
    {"EquHist",
     {3, 4},
     -3,
     [](int32_t c, void* s, void* d) {
         return EquHist(static_cast<uint16_t*>(s), static_cast<uint16_t*>(d), kW * kH, c);
     }},
    {"AdaptiveContrastEnhancement",
     {3, 4, 5},
     1,
     [](int32_t c, void* s, void* d) {
         return AdaptiveContrastEnhancement(static_cast<uint16_t*>(s), static_cast<uint16_t*>(d),
                                            kW, kH, c, 1, 1.0f, 3.0f);
     }},
    {"AdaptiveContrastEnhancementQuick",
     {3, 4, 5, 6},
     1,
     [](int32_t c, void* s, void* d) {
         return AdaptiveContrastEnhancementQuick(
             static_cast<uint16_t*>(s), static_cast<uint16_t*>(d), kW, kH, c, 1, 1.0f, 3.0f);
     }},
    {"Ace_Gamma",
     {3, 4, 5, 6},
     1,
     [](int32_t c, void* s, void* d) {
         struAceGammaParam p = AceRecord();
         return Ace_Gamma(static_cast<uint16_t*>(s), d, kW, kH, c, &p, nullptr);
     }},
    {"AddWaterMask",
     {1, 2, 3, 4, 6, 7, 9},
     1,
     [](int32_t c, void* s, void* d) {
         std::vector<uint8_t> mark(kBytes, 0x02);
         return AddWaterMask(static_cast<uint8_t*>(s), static_cast<uint8_t*>(d), mark.data(), kW,
                             kH, 3, 2, 1, 1, c, 0.5f);
     }},
};

class ServedCodes : public testing::TestWithParam<EntryPoint> {};

TEST_P(ServedCodes, EachCodeProcessedOrAnsweredAsDescribed) {
    const EntryPoint& entry = GetParam();
    for (int32_t code = -1; code <= 13; ++code) {
        // Bytes of 1 are small finite values in every element type.
        std::vector<uint8_t> src(kBytes, 0x01);
        std::vector<uint8_t> dst(kBytes, 0xAB);
        const int result = entry.call(code, src.data(), dst.data());
        const bool untouched = dst == std::vector<uint8_t>(kBytes, 0xAB);
        if (entry.served.count(code) != 0) {
            EXPECT_EQ(result, 1) << "code " << code;
            EXPECT_FALSE(untouched) << "code " << code << " was not processed";
        } else {
            EXPECT_EQ(result, entry.unservedResult) << "code " << code;
            EXPECT_TRUE(untouched) << "code " << code << " wrote the destination";
        }
        EXPECT_EQ(src, std::vector<uint8_t>(kBytes, 0x01))
            << "code " << code << " wrote the source";
    }
}

INSTANTIATE_TEST_SUITE_P(MultiTypeEntryPoints, ServedCodes, testing::ValuesIn(kEntryPoints),
                         [](const testing::TestParamInfo<EntryPoint>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
