// The C interface: each vt_ function gives what its C++ function gives on the same input, the
// records carry the C++ defaults and persistence, failures come back as codes with a thread-local
// text, and the detector works from C behind its handle.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

#include "c_host.h"
#include "detector/detector_support.h"
#include "veltrano.h"
#include "veltrano_c.h"

using namespace detector_test;

namespace {

// An image size that is no multiple of anything a fast path works in.
constexpr int W = 37, H = 23, N = W * H;

template <class T>
std::vector<T> Random(double low, double high, unsigned seed, size_t count = N) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> value(low, high);
    std::vector<T> out(count);
    for (T& v : out) v = static_cast<T>(value(engine));
    return out;
}

template <class T>
std::vector<unsigned char> Bytes(const std::vector<T>& v) {
    const auto* p = reinterpret_cast<const unsigned char*>(v.data());
    return std::vector<unsigned char>(p, p + v.size() * sizeof(T));
}

struct Outcome {
    int code;
    std::vector<unsigned char> src, dst;
};

// Runs call(src, dst, viaC) on fresh copies of the input and a zeroed destination.
template <class S, class D, class F>
Outcome Run(const std::vector<S>& input, size_t dstCount, F call, bool viaC) {
    std::vector<S> src = input;
    std::vector<D> dst(dstCount);
    const int code = call(src.data(), dst.data(), viaC);
    return {code, Bytes(src), Bytes(dst)};
}

// The C++ function and its vt_ twin: same code, same bytes in both buffers; `writes` says
// whether the destination must have changed, so that two calls doing nothing do not agree.
template <class S, class D = S, class F>
void Same(const char* name, const std::vector<S>& input, size_t dstCount, F call,
          int expectedCode = 1, bool writes = true) {
    SCOPED_TRACE(name);
    const Outcome cpp = Run<S, D>(input, dstCount, call, false);
    const Outcome c = Run<S, D>(input, dstCount, call, true);
    EXPECT_EQ(cpp.code, expectedCode);
    EXPECT_EQ(c.code, cpp.code);
    EXPECT_TRUE(c.dst == cpp.dst);
    EXPECT_TRUE(c.src == cpp.src);
    EXPECT_EQ(cpp.dst != std::vector<unsigned char>(cpp.dst.size()), writes);
}

// Both calls with one argument list.
#define BOTH(fn, ...) (viaC ? vt_##fn(__VA_ARGS__) : fn(__VA_ARGS__))

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

TEST(CInterface, ProcessingFunctionsGiveTheCppResults) {
    const auto u8 = Random<uint8_t>(0, 256, 1);
    const auto u16 = Random<uint16_t>(0, 65536, 2);
    const auto s16 = Random<int16_t>(-3000, 3000, 3);
    const auto f32 = Random<float>(1, 1000, 4);
    const auto f64 = Random<double>(-5, 5, 5);
    const auto s32 = Random<int32_t>(-100000, 100000, 6);
    // A non-separable 3-row by 5-column kernel, so that swapped sizes change the result.
    std::vector<float> kernel = Random<float>(-1, 1, 7, 15);
    const auto defects = Random<float>(-0.5, 1.4, 8);  // about a third at 1.0 or more
    std::vector<uint8_t> mask = Random<uint8_t>(0, 2, 9);

    Same("normalize_8U", u8, N,
         [](auto s, auto d, bool viaC) { return BOTH(normalize_8U, s, d, W, H, 10, 200); });
    Same("normalize_16U", u16, N,
         [](auto s, auto d, bool viaC) { return BOTH(normalize_16U, s, d, W, H, 100, 60000); });
    Same("normalize_32F", f32, N,
         [](auto s, auto d, bool viaC) { return BOTH(normalize_32F, s, d, W, H, 0.f, 1.f); });
    Same("normalize_64F", f64, N,
         [](auto s, auto d, bool viaC) { return BOTH(normalize_64F, s, d, W, H, -1.0, 1.0); });
    Same(
        "Normalize_TruncMinMax", u8, N,
        [](auto s, auto d, bool viaC) { return BOTH(Normalize_TruncMinMax, s, d, W, H, 0, 3); }, 1,
        false);
    Same("Inverse code 3", u16, N,
         [](auto s, auto d, bool viaC) { return BOTH(Inverse, s, d, W, H, 3); });
    Same(
        "Inverse code 4", u16, N,
        [](auto s, auto d, bool viaC) { return BOTH(Inverse, s, d, W, H, 4); }, -3, false);
    Same("BrigntAndContrast", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(BrigntAndContrast, s, d, W, H, 4, 100.f, 1.5f);
    });
    Same("GammaCorrect 16S", s16, N,
         [](auto s, auto d, bool viaC) { return BOTH(GammaCorrect, s, d, W, H, 0.7f, 5); });
    Same("GammaCorrect 32F", f32, N,
         [](auto s, auto d, bool viaC) { return BOTH(GammaCorrect, s, d, W, H, 1.6f, 6); });
    Same("Image_Log", f32, N,
         [](auto s, auto d, bool viaC) { return BOTH(Image_Log, s, d, W, H, 1); });
    Same<int32_t, double>("Image_Square_NoTrunc", s32, N, [](auto s, auto d, bool viaC) {
        return BOTH(Image_Square_NoTrunc, s, d, W, H, 8);
    });
    Same("ThresholdBinary", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(ThresholdBinary, s, d, 4, W, H, 30000.0, 2);
    });
    Same("ImgGainCorrect", f32, N,
         [](auto s, auto d, bool viaC) { return BOTH(ImgGainCorrect, s, d, W, H); });
    Same("EquHist", u16, N, [](auto s, auto d, bool viaC) { return BOTH(EquHist, s, d, N, 4); });
    Same("clahe_8U_Manual", u8, N, [](auto s, auto d, bool viaC) {
        return BOTH(clahe_8U_Manual, s, d, W, H, 4, 3, 64, 20, "");
    });
    Same("clahe_16U_Manual", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(clahe_16U_Manual, s, d, W, H, 3, 4, 1000, 30, "");
    });
    Same("clahe_32F_Manual", f32, N, [](auto s, auto d, bool viaC) {
        return BOTH(clahe_32F_Manual, s, d, W, H, 2, 5, 256, 10, "");
    });
    Same(
        "clahe_64F_Manual tile check", f64, N,
        [](auto s, auto d, bool viaC) {
            return BOTH(clahe_64F_Manual, s, d, W, H, W + 1, 1, 256, 10, "");
        },
        -1, false);
    Same("AdaptiveContrastEnhancement", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(AdaptiveContrastEnhancement, s, d, W, H, 4, 3, 1.5f, 3.f);
    });
    Same("AdaptiveContrastEnhancementQuick", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(AdaptiveContrastEnhancementQuick, s, d, W, H, 4, 2, 0.8f, 2.f);
    });
    Same("filter2D_16U", u16, N, [&](auto s, auto d, bool viaC) {
        return BOTH(filter2D_16U, s, d, W, H, kernel.data(), 3, 5);
    });
    Same(
        "filter2D_8U", u8, N,
        [&](auto s, auto d, bool viaC) {
            return BOTH(filter2D_8U, s, d, W, H, kernel.data(), 5, 3);
        },
        1, false);
    Same("filter2D_32F", f32, N, [&](auto s, auto d, bool viaC) {
        return BOTH(filter2D_32F, s, d, W, H, kernel.data(), 5, 3);
    });
    Same("gaussFilter_16U", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(gaussFilter_16U, s, d, W, H, 5, 5, 1.5, 0.9);
    });
    Same("gaussFilter_32F", f32, N, [](auto s, auto d, bool viaC) {
        return BOTH(gaussFilter_32F, s, d, W, H, 3, 3, 0.7, 0.7);
    });
    Same("Box_Filter 64F", f64, N,
         [](auto s, auto d, bool viaC) { return BOTH(Box_Filter, s, d, W, H, 11, 2); });
    Same(
        "Box_Filter code 7", u8, N,
        [](auto s, auto d, bool viaC) { return BOTH(Box_Filter, s, d, W, H, 7, 2); }, -3, false);
    Same("Median_Blur 16S", s16, N,
         [](auto s, auto d, bool viaC) { return BOTH(Median_Blur, s, d, W, H, 2, 5); });
    Same("FastNLM", u8, N,
         [](auto s, auto d, bool viaC) { return BOTH(FastNLM, s, d, W, H, 12.f, 1, 2); });
    Same("ImgFix", f32, N, [&](auto s, auto d, bool viaC) {
        return BOTH(ImgFix, s, d, const_cast<float*>(defects.data()), W, H, 1, 6, 20);
    });
    Same("FixBadPixel", f32, N, [&](auto s, auto d, bool viaC) {
        return BOTH(FixBadPixel, s, d, const_cast<float*>(defects.data()), W, H);
    });
    Same("Copy_LeftDown_To_RightUp", f32, N, [](auto s, auto d, bool viaC) {
        return BOTH(Copy_LeftDown_To_RightUp, reinterpret_cast<uint8_t*>(s),
                    reinterpret_cast<uint8_t*>(d), W, H, 6, 3, 2, 12);
    });
    Same("Copy_RightDown_To_LeftUp", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(Copy_RightDown_To_LeftUp, reinterpret_cast<uint8_t*>(s),
                    reinterpret_cast<uint8_t*>(d), W, H, 4, 20, 1, 9);
    });
    Same("MakeMaskByLine", u16, N, [](auto s, auto d, bool viaC) {
        return BOTH(MakeMaskByLine, s, d, W, H, 0.f, 3.f, 30.f, 20.f, uint8_t{1}, uint16_t{777});
    });
    Same("ImageConv with a mask", f32, N, [&](auto s, auto d, bool viaC) {
        return BOTH(ImageConv, s, d, kernel.data(), W, H, 5, 3, mask.data());
    });
    Same("USM_BOX", u16, N,
         [](auto s, auto d, bool viaC) { return BOTH(USM_BOX, s, d, W, H, 2, 0.3f, 1); });
    Same("USM_Gaussian", u16, N, [&](auto s, auto d, bool viaC) {
        return BOTH(USM_Gaussian, s, d, W, H, 2, 0.05f, 100, 1.2f, mask.data());
    });

    // Functions with a third buffer, or none.
    const auto block = Random<uint16_t>(1, 65536, 10, 6 * 4);
    Same("CopyRoiTo", u16, N, [&](auto s, auto d, bool viaC) {
        return BOTH(CopyRoiTo, reinterpret_cast<uint8_t*>(s), reinterpret_cast<uint8_t*>(d),
                    reinterpret_cast<uint8_t*>(const_cast<uint16_t*>(block.data())), 4, W, H, 6, 4,
                    33, 5);
    });
    Same("AddWaterMask", u16, N, [&](auto s, auto d, bool viaC) {
        return BOTH(AddWaterMask, reinterpret_cast<uint8_t*>(s), reinterpret_cast<uint8_t*>(d),
                    reinterpret_cast<uint8_t*>(const_cast<uint16_t*>(block.data())), W, H, 6, 4, 3,
                    7, 4, 0.25f);
    });
    Same<double>("getGaussker_64F", std::vector<double>(), 15,
                 [](auto, auto d, bool viaC) { return BOTH(getGaussker_64F, d, 5, 3, 1.2, 0.8); });
    float line[2][3];
    GetLine2D(1.f, 2.f, 7.f, -3.f, &line[0][0], &line[0][1], &line[0][2]);
    EXPECT_EQ(vt_GetLine2D(1.f, 2.f, 7.f, -3.f, &line[1][0], &line[1][1], &line[1][2]), 0);
    EXPECT_EQ(std::memcmp(line[0], line[1], sizeof line[0]), 0);
    EXPECT_NE(line[0][0], 0.f);
}

TEST(CInterface, RecordFunctionsGiveTheCppResultsAndUpdateTheRecord) {
    const auto u16 = Random<uint16_t>(0, 65536, 11);
    const auto f32 = Random<float>(0, 500, 12);
    auto both = [&](auto cppCall, auto cCall, size_t dstCount, const auto& input) {
        using T = typename std::decay_t<decltype(input)>::value_type;
        std::vector<T> s1 = input, s2 = input, d1(dstCount), d2(dstCount);
        EXPECT_EQ(cppCall(s1.data(), d1.data()), cCall(s2.data(), d2.data()));
        EXPECT_TRUE(d1 == d2);
        EXPECT_NE(d1, std::vector<T>(dstCount));
    };

    // CLAHE clamps histBin and sets binScale and outMax in its record.
    claheParam clahe;
    clahe.widthBlockNum = 4, clahe.heightBlockNum = 3, clahe.histBin = 100000, clahe.peak = 40;
    vt_claheParam cClahe;
    ASSERT_EQ(vt_claheParam_init(&cClahe), 1);
    cClahe.widthBlockNum = 4, cClahe.heightBlockNum = 3, cClahe.histBin = 100000, cClahe.peak = 40;
    both([&](auto s, auto d) { return clahe_16U(s, d, W, H, &clahe, ""); },
         [&](auto s, auto d) { return vt_clahe_16U(s, d, W, H, &cClahe, ""); }, N, u16);
    EXPECT_EQ(cClahe.histBin, 65536);
    EXPECT_EQ(cClahe.histBin, clahe.histBin);
    EXPECT_EQ(cClahe.binScale, clahe.binScale);
    EXPECT_EQ(cClahe.outMax, clahe.outMax);

    struAceGammaParam ace;
    ace.param1 = 3, ace.param4 = 0.6f, ace.param5 = 1;
    vt_struAceGammaParam cAce;
    ASSERT_EQ(vt_struAceGammaParam_init(&cAce), 1);
    cAce.param1 = 3, cAce.param4 = 0.6f, cAce.param5 = 1;
    both([&](auto s, auto d) { return Ace_Gamma(s, d, W, H, 4, &ace, ""); },
         [&](auto s, auto d) { return vt_Ace_Gamma(s, d, W, H, 4, &cAce, ""); }, N, u16);

    struWLNParam wln;
    wln.wl = 10000, wln.wr = 50000, wln.specifymin = 100, wln.specifymax = 4000;
    vt_struWLNParam cWln = {10000, 50000, 100, 4000};
    both([&](auto s, auto d) { return WLN(s, d, W, H, &wln); },
         [&](auto s, auto d) { return vt_WLN(s, d, W, H, &cWln); }, N, u16);

    struUSMParam usm;
    usm.r = 3, usm.lam = 0.1f;
    vt_struUSMParam cUsm = {3, 0, 0.1f};
    both([&](auto s, auto d) { return USM_EX(s, d, W, H, 4, &usm, ""); },
         [&](auto s, auto d) { return vt_USM_EX(s, d, W, H, 4, &cUsm, ""); }, N, u16);

    struBilatralParam bilateral;
    bilateral.k_w = 5, bilateral.k_h = 3, bilateral.sigSpace_x = 30.f;
    vt_struBilatralParam cBilateral;
    ASSERT_EQ(vt_struBilatralParam_init(&cBilateral), 1);
    cBilateral.k_w = 5, cBilateral.k_h = 3, cBilateral.sigSpace_x = 30.f;
    both([&](auto s, auto d) { return bilateralFilter_32F(s, d, W, H, &bilateral); },
         [&](auto s, auto d) { return vt_bilateralFilter_32F(s, d, W, H, &cBilateral); }, N, f32);

    // Rows before columns; the destination is the clipped size.
    clipParam clip;
    clip.up = 2, clip.down = 3, clip.left = 4, clip.right = 5;
    const vt_clipParam cClip = {2, 3, 4, 5};
    both([&](auto s, auto d) { return edgeClip_16U(s, d, H, W, clip); },
         [&](auto s, auto d) { return vt_edgeClip_16U(s, d, H, W, cClip); }, (H - 5) * (W - 9),
         u16);

    // A null record reaches the C++ function as a null pointer.
    std::vector<uint16_t> src = u16, dst(N);
    EXPECT_EQ(vt_WLN(src.data(), dst.data(), W, H, nullptr), -4);
    EXPECT_EQ(vt_clahe_16U(src.data(), dst.data(), W, H, nullptr, ""), -1);
}

TEST(CInterface, RecordsCarryTheCppDefaultsAndPersistence) {
    vt_claheParam clahe;
    vt_struAceGammaParam ace;
    vt_struImageBaseParam base;
    ASSERT_EQ(c_host_default_records(&clahe, &ace, &base), 1);
    const claheParam cppClahe;
    EXPECT_EQ(clahe.widthBlockNum, cppClahe.widthBlockNum);
    EXPECT_EQ(clahe.peak, 200);
    EXPECT_EQ(clahe.binScale, 0.5f);
    EXPECT_EQ(ace.param1, 20);
    EXPECT_EQ(ace.param4, 0.8f);
    EXPECT_EQ(base.gain, 1.0f);
    vt_struWLNParam wln;
    ASSERT_EQ(vt_struWLNParam_init(&wln), 1);
    EXPECT_EQ(wln.specifymax, 65535);

    WorkDir dir;
    const std::string ini = (fs::path(dir.str()) / "params.ini").string();
    // Saved from C, read by the C++ record.
    const vt_clipParam clip = {1, 2, 3, 4};
    ASSERT_EQ(vt_clipParam_save(&clip, ini.c_str()), 1);
    const clipParam fromFile(ini.c_str());
    EXPECT_EQ(fromFile.up * 1000 + fromFile.down * 100 + fromFile.left * 10 + fromFile.right, 1234);
    // The unsharp-masking record lives in the non-local-means section, as in C++.
    vt_struUSMParam usm = {4, 1, 0.25f};
    ASSERT_EQ(vt_struUSMParam_save(&usm, ini.c_str()), 1);
    EXPECT_EQ(ReadInt_INI("struFastNLMParam", "r", ini.c_str(), -1), 4);
    // The list-form record loads the section of its own index only.
    vt_struAceGammaParam saved;
    ASSERT_EQ(vt_struAceGammaParam_init(&saved), 1);
    saved.param1 = 7, saved.param2 = 2.5f, saved.sectionIndex = 3;
    ASSERT_EQ(vt_struAceGammaParam_save(&saved, ini.c_str()), 1);
    EXPECT_NE(ReadFile(ini).find("[Post_Process_Param_3]"), std::string::npos);
    vt_struAceGammaParam loaded, otherIndex;
    vt_struAceGammaParam_init(&loaded);
    vt_struAceGammaParam_init(&otherIndex);
    loaded.sectionIndex = 3, otherIndex.sectionIndex = 2;
    ASSERT_EQ(vt_struAceGammaParam_load(&loaded, ini.c_str()), 1);
    ASSERT_EQ(vt_struAceGammaParam_load(&otherIndex, ini.c_str()), 1);
    EXPECT_EQ(loaded.param1, 7);
    EXPECT_EQ(loaded.param2, 2.5f);
    EXPECT_EQ(otherIndex.param1, 20);
    // claheParam reads nothing: loading resets its four settings.
    clahe.peak = 5;
    ASSERT_EQ(vt_claheParam_load(&clahe, ini.c_str()), 1);
    EXPECT_EQ(clahe.peak, 600);
    // No path: refused, the record left alone (the C++ map-form load would zero it).
    vt_clipParam untouched = clip;
    EXPECT_EQ(vt_clipParam_load(&untouched, nullptr), VT_ERR_NULL_ARGUMENT);
    EXPECT_EQ(std::memcmp(&untouched, &clip, sizeof clip), 0);
    EXPECT_NE(std::string(vt_last_error()).find("null INI path"), std::string::npos);
    EXPECT_EQ(vt_struWLNParam_save(nullptr, ini.c_str()), VT_ERR_NULL_ARGUMENT);

    // The INI functions themselves.
    EXPECT_EQ(vt_WriteFloat_INI("S", "f", 0.5f, ini.c_str()), 1);
    EXPECT_EQ(vt_WriteInt_INI("S", "i", -12, ini.c_str()), 1);
    EXPECT_EQ(vt_WriteString_INI("S", "s", "text", ini.c_str()), 1);
    EXPECT_EQ(vt_WriteNULL_INI("S", "n", ini.c_str()), 1);
    char text[3];
    EXPECT_EQ(vt_ReadString_INI("S", "s", text, sizeof text, ini.c_str(), nullptr), 1);
    EXPECT_STREQ(text, "te");
    EXPECT_EQ(vt_ReadInt_INI("S", "i", ini.c_str(), 0), -12);
    EXPECT_EQ(vt_ReadFloat_INI("S", "f", ini.c_str(), 0.f), 0.5f);
    EXPECT_EQ(vt_ReadDouble_INI("S", "missing", ini.c_str(), 2.25), 2.25);
    EXPECT_EQ(vt_ReadString_INI("", "s", text, sizeof text, ini.c_str(), nullptr), -1);
    EXPECT_NE(ReadFile(ini).find("f=0.500000"), std::string::npos);
}

TEST(CInterface, FailuresBecomeCodesWithAThreadLocalText) {
    EXPECT_EQ(vt_Box_Filter(nullptr, nullptr, W, H, 4, 1), -1);
    EXPECT_STREQ(vt_last_error(), "Box_Filter returned -1");
    std::string seenElsewhere = "unset";
    std::thread([&] { seenElsewhere = vt_last_error(); }).join();
    EXPECT_EQ(seenElsewhere, "");
    EXPECT_STREQ(vt_last_error(), "Box_Filter returned -1");
    std::vector<uint8_t> image(N, 9), out(N);
    EXPECT_EQ(vt_Box_Filter(image.data(), out.data(), W, H, 3, 1), 1);
    EXPECT_STREQ(vt_last_error(), "");
    EXPECT_EQ(std::string(vt_version()), "0.1.0");

    // The chain's conversion exceptions stay inside: a code, the conversion's text, and the
    // destination holding the steps before the bad block (here: the copy of the source).
    WorkDir dir;
    const fs::path chain = fs::path(dir.str()) / "bad.chain";
    const std::vector<uint16_t> src = Random<uint16_t>(0, 60000, 13);
    struct Case {
        const char* block;
        int code;
        const char* text;
    };
    const Case cases[] = {
        {"[BC]\nb=abc;\nc=1.0;\nend\n", VT_ERR_INVALID_NUMBER, "stoi"},
        {"[BC]\nb=1;\nc=x;\nend\n", VT_ERR_INVALID_NUMBER, "stof"},
        {"[Smooth_Box]\nr=99999999999;\nend\n", VT_ERR_NUMBER_OUT_OF_RANGE, "stoi"},
        {"[BC]\nb=1;\nc=1e99;\nend\n", VT_ERR_NUMBER_OUT_OF_RANGE, "stof"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.block);
        WriteFile(chain, std::string("[Inverse]\nend\n") + c.block);
        std::vector<uint16_t> dst(N);
        size_t length = 0;
        EXPECT_EQ(vt_Img_Post_Process_Chain(src.data(), dst.data(), W, H, chain.string().c_str(),
                                            nullptr, 0, &length),
                  c.code);
        EXPECT_NE(std::string(vt_last_error()).find(c.text), std::string::npos) << vt_last_error();
        EXPECT_TRUE(dst == src);
        EXPECT_GT(length, 0u);
    }
    // The chain's text is cut to the buffer; the length is the whole text's.
    WriteFile(chain, "[BC]\nb=1000;\nc=0.5;\nend\n");
    std::vector<uint16_t> dst(N);
    char text[8];
    size_t length = 0;
    ASSERT_EQ(vt_Img_Post_Process_Chain(src.data(), dst.data(), W, H, chain.string().c_str(), text,
                                        sizeof text, &length),
              0);
    EXPECT_STREQ(text, "[BC]b=1");
    EXPECT_EQ(length, std::string("[BC]b=1000;c=0.5;end").size());
    EXPECT_EQ(dst[0], static_cast<uint16_t>(src[0] * 0.5f + 1000.f));
    EXPECT_EQ(vt_Img_Post_Process_Chain(src.data(), dst.data(), W, H, "no/such.chain", nullptr, 0,
                                        nullptr),
              -1);
    EXPECT_STREQ(vt_last_error(), "Img_Post_Process_Chain returned -1: NO Post Process Chain File");
}

TEST(CInterface, AC99HostAcquiresOnTheVirtualSensorAndRunsAChain) {
    WorkDir dir("SensorSize = 1000\nScene = flat\nDose = 20000");
    ASSERT_EQ(WriteCalibration(dir.str(), 1), 0);
    const fs::path chain = fs::path(dir.str()) / "bc.chain";
    WriteFile(chain, "[BC]\nbrightness=1000;\ncontrast=0.5;\nend\n");
    c_host_result result;
    std::string log;
    int code = 1;
    log = Capture([&] {
        code = c_host_acquire_and_process(dir.str().c_str(), chain.string().c_str(), &result);
    });
    ASSERT_EQ(code, 0) << log;
    EXPECT_EQ(result.acquisition_code, 0);
    EXPECT_EQ(result.end_sign, 1);
    EXPECT_EQ(result.width, 1000u);
    EXPECT_EQ(result.height, 1500u);
    EXPECT_NEAR(result.mean_frame, 20000, 2000);
    EXPECT_EQ(result.chain_code, 0);
    EXPECT_EQ(result.chain_text_length, std::string("[BC]brightness=1000;contrast=0.5;end").size());
    EXPECT_NEAR(result.mean_processed, result.mean_frame * 0.5 + 1000, 2);
}

TEST(CInterface, DetectorHandleRefusesNullAndSmallBuffersAndCopiesItsTexts) {
    EXPECT_EQ(vt_CVeltrano_Connect(nullptr), VT_ERR_NULL_ARGUMENT);
    EXPECT_STREQ(vt_last_error(), "Connect: null detector handle");
    EXPECT_EQ(vt_CVeltrano_GetProgressBar(nullptr), VT_ERR_NULL_ARGUMENT);
    vt_CVeltrano_delete(nullptr);

    WorkDir dir("SensorSize = 1500");
    WriteLevelCalibration(dir, 1200, 1650);  // no image is taken
    vt_CVeltrano* detector = vt_CVeltrano_new(dir.str().c_str());
    ASSERT_NE(detector, nullptr);
    uint32_t width = 1, height = 1;
    EXPECT_EQ(vt_CVeltrano_GetImageSize(detector, &width, &height), -1);
    EXPECT_EQ(width + height, 0u);
    // Not initialised: the C++ codes and messages.
    Capture([&] { EXPECT_EQ(vt_CVeltrano_Connect(detector), -1); });
    EXPECT_STREQ(vt_last_error(), "Connect returned -1: the detector is not initialised");
    Capture([&] { EXPECT_EQ(vt_CVeltrano_GetDectectorState(detector), VT_ONLINE_UNKNOWN); });

    Capture([&] {
        ASSERT_EQ(vt_CVeltrano_Initialize(detector), 0);
        ASSERT_EQ(vt_CVeltrano_Connect(detector), 0);
    });
    EXPECT_STREQ(vt_last_error(), "");
    EXPECT_EQ(vt_CVeltrano_GetSensorSize(detector), 1500);
    EXPECT_EQ(vt_CVeltrano_GetDectectorState(detector), VT_ONLINE_ONLINE);
    ASSERT_EQ(vt_CVeltrano_GetImageSize(detector, &width, &height), 0);
    EXPECT_EQ(width * 10000 + height, 1200u * 10000 + 1650u);

    // A buffer one float short is refused before the exposure: no progress, no end sign.
    std::vector<float> small(1200 * 1650 - 1);
    width = height = 0;
    EXPECT_EQ(
        vt_CVeltrano_AcqImageEx(detector, small.data(), small.size(), &width, &height, 0, 6, 100),
        VT_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(width * 10000 + height, 1200u * 10000 + 1650u);
    EXPECT_EQ(vt_CVeltrano_GetProgressBar(detector), 0);
    EXPECT_EQ(vt_CVeltrano_GetEndSign(detector), 0);

    // Texts are cut to the buffer and terminated; the result is the full length.
    char serial[256], cut[4];
    const int length = vt_CVeltrano_GetDectectorSerialNum(detector, serial, sizeof serial);
    ASSERT_GT(length, 3);
    ASSERT_LT(length, 256);
    EXPECT_EQ(static_cast<int>(std::strlen(serial)), length);
    EXPECT_EQ(vt_CVeltrano_GetDectectorSerialNum(detector, cut, sizeof cut), length);
    EXPECT_EQ(std::string(cut), std::string(serial, 3));
    EXPECT_EQ(vt_CVeltrano_GetDectectorUSBInfo(detector, nullptr, 0) > 0, true);
    Capture([&] { vt_CVeltrano_delete(detector); });
}

TEST(CInterface, StopFromAnotherThreadAndTheMessagesThatFollow) {
    // The sensor accepts the exposure but never delivers: only a stop ends the wait.
    WorkDir dir("SensorSize = 1000\nNoImage = 1");
    WriteLevelCalibration(dir, 1000, 1500);
    vt_CVeltrano* detector = vt_CVeltrano_new(dir.str().c_str());
    auto message = [&] {
        char text[128];
        vt_CVeltrano_GetLastMessage(detector, text, sizeof text);
        return std::string(text);
    };
    Capture([&] {
        ASSERT_EQ(vt_CVeltrano_Initialize(detector), 0);
        ASSERT_EQ(vt_CVeltrano_Connect(detector), 0);
        vt_imgmat* image = reinterpret_cast<vt_imgmat*>(1);
        int code = 0;
        std::string acquiringThreadsError;
        std::thread acquisition([&] {
            code = vt_CVeltrano_AcqImage(detector, &image, 0, 6, 100);
            acquiringThreadsError = vt_last_error();
        });
        const auto start = std::chrono::steady_clock::now();
        while (vt_CVeltrano_GetProgressBar(detector) != 6 && MillisecondsSince(start) < 10000) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_EQ(vt_CVeltrano_StopAcq(detector), 0);
        acquisition.join();
        EXPECT_EQ(code, -9);
        EXPECT_EQ(image, nullptr);
        EXPECT_EQ(acquiringThreadsError, "AcqImageEx returned -9: Stop waitting!");
        EXPECT_EQ(message(), "Stop waitting!");
        EXPECT_EQ(vt_CVeltrano_GetEndSign(detector), 2);
        EXPECT_EQ(vt_CVeltrano_GetUserStop(detector), 1);

        // Without the handshake: refused.
        EXPECT_EQ(vt_CVeltrano_AcqImage(detector, &image, 0, 6, 100), -1);
        EXPECT_EQ(message(), "Please reset endSign and progress!");
        // Handshake reset, user stop still set: 0 at once, but no image.
        vt_CVeltrano_SetEndSign(detector, 0);
        vt_CVeltrano_SetProgressBar(detector, 0);
        EXPECT_EQ(vt_CVeltrano_AcqImage(detector, &image, 0, 6, 100), 0);
        EXPECT_EQ(image, nullptr);
        EXPECT_EQ(message().rfind("Stop operation!", 0), 0u);
        EXPECT_EQ(vt_CVeltrano_AcqImage(detector, nullptr, 0, 6, 100), VT_ERR_NULL_ARGUMENT);
        vt_CVeltrano_delete(detector);
    });
}

TEST(CInterface, LibraryOwnedImagesComeFromTheSensorAndFromRawFiles) {
    WorkDir dir("SensorSize = 1000\nScene = flat\nDose = 15000");
    ASSERT_EQ(WriteCalibration(dir.str(), 1), 0);
    vt_CVeltrano* detector = vt_CVeltrano_new(dir.str().c_str());
    vt_imgmat* image = nullptr;
    Capture([&] {
        ASSERT_EQ(vt_CVeltrano_Initialize(detector), 0);
        ASSERT_EQ(vt_CVeltrano_Connect(detector), 0);
        ASSERT_EQ(vt_CVeltrano_AcqImage(detector, &image, 0, 6, 100), 0);
        vt_CVeltrano_delete(detector);
    });
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(image->width * 10000 + image->height * 10 + image->depth, 1000u * 10000 + 15001u);
    EXPECT_NEAR(image->data[image->width * 800 + 500], 15000, 3000);

    const std::string raw = (fs::path(dir.str()) / "frame.raw").string();
    EXPECT_EQ(vt_imgmat_writeRawFile(raw.c_str(), image->data, image->width * image->height), 1);
    vt_imgmat* back = nullptr;
    ASSERT_EQ(vt_imgmat_readRawFile(raw.c_str(), image->width, image->height, 0, 8, &back), 1);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::memcmp(back->data, image->data, image->width * image->height * 4), 0);
    vt_imgmat_free(back);
    vt_imgmat_free(image);
    vt_imgmat_free(nullptr);
    Capture([&] { EXPECT_EQ(vt_imgmat_readRawFile("no/such.raw", 4, 4, 0, 8, &back), 0); });
    EXPECT_EQ(back, nullptr);
    EXPECT_EQ(vt_imgmat_readRawFile(raw.c_str(), 4, 4, 0, 8, nullptr), VT_ERR_NULL_ARGUMENT);
}
