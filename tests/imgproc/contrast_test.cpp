#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <type_traits>
#include <vector>

#include "advanced_reference.h"
#include "veltrano.h"

namespace {

using advanced_ref::RandomImage;
using advanced_ref::Reflect;

// Local mean by running sums: along each mirrored row, then down each mirrored column of the
// row sums, each step adding the entering value and then subtracting the leaving one.
template <class F>
std::vector<F> BoxMeanReference(const std::vector<F>& in, int w, int h, int radius) {
    const int r = std::max(radius, 1), k = 2 * r + 1;
    std::vector<F> rows(in.size()), out(in.size());
    for (int y = 0; y < h; ++y) {
        std::vector<F> ext(w + 2 * r);
        for (int j = 0; j < w + 2 * r; ++j) ext[j] = in[y * w + Reflect(j - r, w)];
        F s = ext[0];
        for (int j = 1; j < k; ++j) s = s + ext[j];
        rows[y * w] = s;
        for (int x = 1; x < w; ++x) {
            s = s + ext[x + k - 1] - ext[x - 1];
            rows[y * w + x] = s;
        }
    }
    for (int x = 0; x < w; ++x) {
        std::vector<F> ext(h + 2 * r);
        for (int j = 0; j < h + 2 * r; ++j) ext[j] = rows[Reflect(j - r, h) * w + x];
        F s = ext[0];
        for (int j = 1; j < k; ++j) s = s + ext[j];
        out[x] = s;
        for (int y = 1; y < h; ++y) {
            s = s + ext[y + k - 1] - ext[y - 1];
            out[y * w + x] = s;
        }
    }
    for (F& v : out) {
        if constexpr (std::is_same_v<F, double>) v = v / (static_cast<double>(k) * k);
        else v = v * (1.0f / static_cast<float>(k * k));
    }
    return out;
}

template <class T, class V>
T Clamped(V v) {
    const V lo = static_cast<V>(std::numeric_limits<T>::min());
    const V hi = static_cast<V>(std::numeric_limits<T>::max());
    return static_cast<T>(std::min(std::max(v, lo), hi));
}

template <class T>
std::vector<T> ExactReference(const std::vector<T>& src, int w, int h, int radius, float alpha,
                              float maxGain) {
    std::vector<double> x(src.begin(), src.end()), sq(src.size());
    double sum = 0.0;
    for (size_t i = 0; i < x.size(); ++i) {
        sq[i] = x[i] * x[i];
        sum += x[i];
    }
    const double globalMean = sum / x.size();
    const std::vector<double> m = BoxMeanReference(x, w, h, radius);
    const std::vector<double> q = BoxMeanReference(sq, w, h, radius);
    std::vector<T> out(src.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const double sd = std::sqrt(q[i] - m[i] * m[i]);
        double r = m[i];
        if (sd > 0.0) r = (x[i] - m[i]) * std::min(alpha * globalMean / sd, double(maxGain)) + m[i];
        out[i] = Clamped<T>(r);
    }
    return out;
}

template <class T>
std::vector<T> QuickReference(const std::vector<T>& src, int w, int h, int radius, float alpha,
                              float maxGain) {
    const int area = (2 * radius + 1) * (2 * radius + 1);
    std::vector<float> x(src.size()), sq(src.size());
    double sum = 0.0;
    for (size_t i = 0; i < x.size(); ++i) {
        x[i] = static_cast<float>(src[i]) * (1.0f / static_cast<float>(area));
        sq[i] = x[i] * x[i];
        sum += x[i];
    }
    const double mean = sum / x.size();
    double dev = 0.0;
    for (float v : x) dev += (v - mean) * (v - mean);
    const float globalStd = static_cast<float>(std::sqrt(dev / x.size()));
    const std::vector<float> m = BoxMeanReference(x, w, h, radius);
    const std::vector<float> q = BoxMeanReference(sq, w, h, radius);
    std::vector<T> out(src.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const float v = q[i] - m[i] * m[i];
        float r = m[i];
        if (v > 0.0f) r = (x[i] - m[i]) * (alpha * std::min(globalStd / std::sqrt(v), maxGain)) + m[i];
        r = r * static_cast<float>(area);
        if constexpr (std::is_floating_point_v<T>) out[i] = r;
        else out[i] = Clamped<T>(r);
    }
    return out;
}

template <class T> constexpr int kCode = std::is_same_v<T, uint16_t> ? 4 : std::is_same_v<T, uint8_t> ? 3
                                       : std::is_same_v<T, int16_t>  ? 5 : 6;

struct Setting {
    int w, h, radius;
    float alpha, maxGain;
};

template <class T>
void ExpectBothFormsMatch(const Setting& s, double low, double high, unsigned seed) {
    SCOPED_TRACE(testing::Message() << "code " << kCode<T> << " " << s.w << "x" << s.h << " r="
                                    << s.radius << " alpha=" << s.alpha << " maxGain=" << s.maxGain);
    std::vector<T> src = RandomImage<T>(s.w, s.h, low, high, seed);
    std::vector<T> dst(src.size());
    uint16_t* in = reinterpret_cast<uint16_t*>(src.data());
    uint16_t* out = reinterpret_cast<uint16_t*>(dst.data());
    if constexpr (!std::is_floating_point_v<T>) {
        ASSERT_EQ(AdaptiveContrastEnhancement(in, out, s.w, s.h, kCode<T>, s.radius, s.alpha, s.maxGain), 1);
        EXPECT_EQ(dst, ExactReference(src, s.w, s.h, s.radius, s.alpha, s.maxGain)) << "exact";
    }
    ASSERT_EQ(AdaptiveContrastEnhancementQuick(in, out, s.w, s.h, kCode<T>, s.radius, s.alpha, s.maxGain), 1);
    const std::vector<T> quick = QuickReference(src, s.w, s.h, s.radius, s.alpha, s.maxGain);
    if constexpr (std::is_floating_point_v<T>) {
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_NEAR(dst[i], quick[i], 1e-4 * (1.0 + std::fabs(quick[i]))) << "quick " << i;
    } else {
        EXPECT_EQ(dst, quick) << "quick";
    }
}

TEST(ContrastEnhancement, ExactAndQuickFormsFollowTheirGainLaws) {
    const Setting settings[] = {
        {13, 11, 2, 1.0f, 3.0f},   // the Ace_Gamma defaults, scaled down
        {9, 12, 1, 0.4f, 2.0f},
        {10, 10, 0, 2.0f, 5.0f},   // radius 0 works as 1 for the means, as 0 for the scaling
        {16, 7, 3, 50.0f, 1.0f},   // the ceiling binds
        {8, 9, -2, 0.7f, 4.0f},    // a negative radius: means over 3 x 3, scaling by 9
    };
    unsigned seed = 300;
    for (const Setting& s : settings) {
        ExpectBothFormsMatch<uint16_t>(s, 0, 65535, seed++);
        ExpectBothFormsMatch<uint8_t>(s, 0, 255, seed++);
        ExpectBothFormsMatch<int16_t>(s, -32768, 32767, seed++);
        ExpectBothFormsMatch<float>(s, -10.0, 5000.0, seed++);
    }
    // Nearly flat bright data: in single precision many local variances come out 0 or below,
    // and those pixels take the local mean.
    ExpectBothFormsMatch<uint16_t>({15, 14, 2, 1.0f, 3.0f}, 60000, 60002, seed++);
}

TEST(ContrastEnhancement, CeilingActsOnTheRatioInTheQuickFormAndOnTheGainInTheExactOne) {
    // With maxGain 1 and a large alpha the exact form's gain is 1 (the image comes back up to
    // rounding), while the quick form applies alpha itself and spreads values far apart.
    std::vector<uint16_t> src = RandomImage<uint16_t>(20, 20, 20000, 40000, 5);
    std::vector<uint16_t> exact(src.size()), quick(src.size());
    ASSERT_EQ(AdaptiveContrastEnhancement(src.data(), exact.data(), 20, 20, 4, 2, 100.0f, 1.0f), 1);
    ASSERT_EQ(AdaptiveContrastEnhancementQuick(src.data(), quick.data(), 20, 20, 4, 2, 100.0f, 1.0f), 1);
    for (size_t i = 0; i < src.size(); ++i) EXPECT_NEAR(exact[i], src[i], 1.0) << i;
    const auto [qMin, qMax] = std::minmax_element(quick.begin(), quick.end());
    EXPECT_EQ(*qMin, 0);
    EXPECT_EQ(*qMax, 65535);
}

TEST(ContrastEnhancement, ConstantImagesKeepTheirValue) {
    std::vector<uint16_t> flat(12 * 10, 3210), out(flat.size());
    ASSERT_EQ(AdaptiveContrastEnhancement(flat.data(), out.data(), 12, 10, 4, 3, 2.0f, 3.0f), 1);
    EXPECT_EQ(out, flat);
}

TEST(ContrastEnhancement, InPlaceUnservedCodesAndBadArguments) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(17, 13, 0, 65535, 9);
    for (bool quick : {false, true}) {
        auto run = quick ? AdaptiveContrastEnhancementQuick : AdaptiveContrastEnhancement;
        std::vector<uint16_t> out(src.size()), inPlace = src;
        ASSERT_EQ(run(src.data(), out.data(), 17, 13, 4, 2, 1.5f, 3.0f), 1);
        ASSERT_EQ(run(inPlace.data(), inPlace.data(), 17, 13, 4, 2, 1.5f, 3.0f), 1);
        EXPECT_EQ(inPlace, out) << quick;

        std::vector<uint16_t> dst(src.size(), 77);
        for (int code : {quick ? 11 : 6, 8, 0}) EXPECT_EQ(run(src.data(), dst.data(), 17, 13, code, 2, 1.0f, 3.0f), 1);
        EXPECT_EQ(run(nullptr, dst.data(), 17, 13, 4, 2, 1.0f, 3.0f), -1);
        EXPECT_EQ(run(src.data(), nullptr, 17, 13, 4, 2, 1.0f, 3.0f), -2);
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, 4, 1025, 1.0f, 3.0f), -4);
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, 4, -1025, 1.0f, 3.0f), -4);
        EXPECT_EQ(run(src.data(), dst.data(), 0, 13, 4, 2, 1.0f, 3.0f), 1);
        EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 77)) << quick;

        // A window wider than the image reads its mirrored pixels and stays in range.
        std::vector<uint16_t> tiny = {100, 900, 400, 50, 3000, 7}, tinyOut(6);
        EXPECT_EQ(run(tiny.data(), tinyOut.data(), 3, 2, 4, 20, 1.0f, 3.0f), 1);
    }
}

struAceGammaParam AceRecord(int radius, float alpha, float maxGain, float gamma, int exact, int equalise) {
    struAceGammaParam p;
    p.param1 = radius;
    p.param2 = alpha;
    p.param3 = maxGain;
    p.param4 = gamma;
    p.param5 = exact;
    p.param6 = equalise;
    return p;
}

TEST(AceGamma, RunsEnhancementGammaAndEqualisationInThatOrder) {
    const int w = 21, h = 15;
    std::vector<uint16_t> src = RandomImage<uint16_t>(w, h, 0, 65535, 17);
    std::vector<uint16_t> dst(src.size()), expected(src.size());

    // Exact enhancement alone (gamma 1.0 is skipped).
    struAceGammaParam p = AceRecord(2, 1.2f, 3.0f, 1.0f, 1, 0);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), 1);
    AdaptiveContrastEnhancement(src.data(), expected.data(), w, h, 4, 2, 1.2f, 3.0f);
    EXPECT_EQ(dst, expected);

    // Quick enhancement, then gamma 0.5 on its result.
    p = AceRecord(3, 0.8f, 2.0f, 0.5f, 0, 0);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, ""), 1);
    AdaptiveContrastEnhancementQuick(src.data(), expected.data(), w, h, 4, 3, 0.8f, 2.0f);
    GammaCorrect(expected.data(), expected.data(), w, h, 0.5f, 4);
    EXPECT_EQ(dst, expected);

    // Equalisation replaces everything with EquHist of the untouched source.
    p = AceRecord(3, 0.8f, 2.0f, 0.5f, 1, 1);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), 1);
    EquHist(src.data(), expected.data(), w * h, 4);
    EXPECT_EQ(dst, expected);

    // ... but only for 8- and 16-bit codes: a float image keeps enhancement and gamma.
    std::vector<float> fsrc = RandomImage<float>(w, h, 0.0, 1000.0, 18), fdst(fsrc.size()), fexp(fsrc.size());
    p = AceRecord(2, 1.0f, 3.0f, 0.7f, 0, 1);
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(fsrc.data()), fdst.data(), w, h, 6, &p, nullptr), 1);
    AdaptiveContrastEnhancementQuick(reinterpret_cast<uint16_t*>(fsrc.data()),
                                     reinterpret_cast<uint16_t*>(fexp.data()), w, h, 6, 2, 1.0f, 3.0f);
    GammaCorrect(fexp.data(), fexp.data(), w, h, 0.7f, 6);
    EXPECT_EQ(fdst, fexp);
}

TEST(AceGamma, ReadsItsSectionOfTheIniFile) {
    const char* ini = "ace_gamma_test_settings.ini";
    const char* section = "Post_Process_Param_3";
    ASSERT_EQ(WriteInt_INI(section, "param1", 4, ini), 1);
    ASSERT_EQ(WriteFloat_INI(section, "param2", 0.5f, ini), 1);
    ASSERT_EQ(WriteFloat_INI(section, "param3", 2.0f, ini), 1);
    ASSERT_EQ(WriteFloat_INI(section, "param4", 1.0f, ini), 1);
    ASSERT_EQ(WriteInt_INI(section, "param5", 1, ini), 1);
    ASSERT_EQ(WriteInt_INI(section, "param6", 0, ini), 1);

    std::vector<uint16_t> src = RandomImage<uint16_t>(14, 12, 0, 65535, 19);
    std::vector<uint16_t> dst(src.size()), expected(src.size());
    struAceGammaParam p(3);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), 14, 12, 4, &p, ini), 1);
    EXPECT_EQ(p.param1, 4);
    EXPECT_EQ(p.param2, 0.5f);
    EXPECT_EQ(p.param5, 1);
    AdaptiveContrastEnhancement(src.data(), expected.data(), 14, 12, 4, 4, 0.5f, 2.0f);
    EXPECT_EQ(dst, expected);
    std::remove(ini);
}

TEST(AceGamma, InPlaceUnservedCodesAndBadArguments) {
    const int w = 12, h = 9;
    std::vector<uint16_t> src = RandomImage<uint16_t>(w, h, 0, 65535, 23);
    struAceGammaParam p = AceRecord(2, 1.0f, 3.0f, 0.8f, 0, 0);
    std::vector<uint16_t> out(src.size()), inPlace = src;
    ASSERT_EQ(Ace_Gamma(src.data(), out.data(), w, h, 4, &p, nullptr), 1);
    ASSERT_EQ(Ace_Gamma(inPlace.data(), inPlace.data(), w, h, 4, &p, nullptr), 1);
    EXPECT_EQ(inPlace, out);

    // 64-bit data is served by neither step: out of place the destination keeps its contents,
    // in place the image stays as it was.
    std::vector<double> d64 = RandomImage<double>(w, h, 0.0, 1.0, 24), keep = d64, other(d64.size(), 5.0);
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(d64.data()), other.data(), w, h, 11, &p, nullptr), 1);
    EXPECT_EQ(other, std::vector<double>(d64.size(), 5.0));
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(d64.data()), d64.data(), w, h, 11, &p, nullptr), 1);
    EXPECT_EQ(d64, keep);

    std::vector<uint16_t> dst(src.size(), 7);
    EXPECT_EQ(Ace_Gamma(nullptr, dst.data(), w, h, 4, &p, nullptr), -1);
    EXPECT_EQ(Ace_Gamma(src.data(), nullptr, w, h, 4, &p, nullptr), -2);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, nullptr, nullptr), -4);
    p.param1 = 5000;
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), -4);
    p.param1 = 2;
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), 0, h, 4, &p, nullptr), 1);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), -4, h, 4, &p, nullptr), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 7));
}

struWLNParam WlnRecord(int wl, int wr, int outLow, int outHigh) {
    struWLNParam p;
    p.wl = wl;
    p.wr = wr;
    p.specifymin = outLow;
    p.specifymax = outHigh;
    return p;
}

TEST(Wln, ClipsToTheWindowAndStretchesItToTheOutputRange) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(16, 16, 0, 60000, 29);
    src[0] = 0;
    src[1] = 60000;
    src[2] = 1000;
    src[3] = 3000;
    std::vector<uint16_t> dst(src.size());
    struWLNParam p = WlnRecord(1000, 3000, 0, 65535);
    ASSERT_EQ(WLN(src.data(), dst.data(), 16, 16, &p), 1);
    for (size_t i = 0; i < src.size(); ++i) {
        const uint16_t clipped = std::min<uint16_t>(std::max<uint16_t>(src[i], 1000), 3000);
        const float scale = 1.0f / 2000.0f;
        const uint16_t expected = static_cast<uint16_t>(static_cast<float>(clipped - 1000) * scale * 65535.0f + 0.5f);
        EXPECT_EQ(dst[i], expected) << i;
    }
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], 65535);
    EXPECT_EQ(dst[2], 0);
    EXPECT_EQ(dst[3], 65535);

    // Bounds the wrong way round, and settings beyond 16 bits taken as their low 16 bits.
    struct Case { int wl, wr, lo, hi; };
    const Case same[] = {{3000, 1000, 0, 65535}, {1000, 65536 + 3000, 65535, 0}, {1000, 3000, 65536 * 2, -1}};
    for (const Case& c : same) {
        std::vector<uint16_t> other(src.size());
        struWLNParam q = WlnRecord(c.wl, c.wr, c.lo, c.hi);
        ASSERT_EQ(WLN(src.data(), other.data(), 16, 16, &q), 1);
        EXPECT_EQ(other, dst) << c.wl << " " << c.wr << " " << c.lo << " " << c.hi;
    }
}

TEST(Wln, ConstantClippedImagesStayClippedAndBadArguments) {
    std::vector<uint16_t> src = {500, 900, 20000, 65535, 700, 2000};
    std::vector<uint16_t> dst(src.size());
    struWLNParam p = WlnRecord(0, 400, 100, 200);  // every pixel clips to 400
    ASSERT_EQ(WLN(src.data(), dst.data(), 3, 2, &p), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(6, 400));

    std::vector<uint16_t> inPlace = src, out(src.size());
    p = WlnRecord(600, 10000, 0, 4095);
    ASSERT_EQ(WLN(src.data(), out.data(), 3, 2, &p), 1);
    ASSERT_EQ(WLN(inPlace.data(), inPlace.data(), 3, 2, &p), 1);
    EXPECT_EQ(inPlace, out);

    std::vector<uint16_t> untouched(6, 1);
    EXPECT_EQ(WLN(nullptr, untouched.data(), 3, 2, &p), -1);
    EXPECT_EQ(WLN(src.data(), nullptr, 3, 2, &p), -2);
    EXPECT_EQ(WLN(src.data(), untouched.data(), 3, 2, nullptr), -4);
    EXPECT_EQ(WLN(src.data(), untouched.data(), 0, 2, &p), 1);
    EXPECT_EQ(untouched, std::vector<uint16_t>(6, 1));
}

}  // namespace
