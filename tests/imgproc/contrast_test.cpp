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

// Running sum along one mirrored line of n values read through `at`: the first window summed
// directly, then each step adds the entering value and subtracts the leaving one.
template <class F, class At>
std::vector<F> RunningSums(int n, int r, At at) {
    std::vector<F> ext;
    for (int j = -r; j < n + r; ++j) ext.push_back(at(Reflect(j, n)));
    std::vector<F> out(n);
    F s = ext[0];
    for (int j = 1; j <= 2 * r; ++j) s = s + ext[j];
    out[0] = s;
    for (int x = 1; x < n; ++x) out[x] = s = s + ext[x + 2 * r] - ext[x - 1];
    return out;
}

// Local mean: running sums along the rows, then down the columns of the row sums.
template <class F>
std::vector<F> BoxMeanReference(const std::vector<F>& in, int w, int h, int radius) {
    const int r = std::max(radius, 1), k = 2 * r + 1;
    std::vector<F> rows(in.size()), out(in.size());
    for (int y = 0; y < h; ++y) {
        const std::vector<F> line = RunningSums<F>(w, r, [&](int x) { return in[y * w + x]; });
        std::copy(line.begin(), line.end(), rows.begin() + y * w);
    }
    for (int x = 0; x < w; ++x) {
        const std::vector<F> line = RunningSums<F>(h, r, [&](int y) { return rows[y * w + x]; });
        for (int y = 0; y < h; ++y) {
            if constexpr (std::is_same_v<F, double>) out[y * w + x] = line[y] / (static_cast<double>(k) * k);
            else out[y * w + x] = line[y] * (1.0f / static_cast<float>(k * k));
        }
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
void ExpectInPlaceAgrees(int (*run)(uint16_t*, uint16_t*, uint32_t, uint32_t, int32_t, int32_t, float, float),
                         std::vector<T> src, const std::vector<T>& outOfPlace, const Setting& s) {
    uint16_t* in = reinterpret_cast<uint16_t*>(src.data());
    ASSERT_EQ(run(in, in, s.w, s.h, kCode<T>, s.radius, s.alpha, s.maxGain), 1);
    EXPECT_EQ(src, outOfPlace);
}

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
        ExpectInPlaceAgrees(AdaptiveContrastEnhancement, src, dst, s);
    }
    ASSERT_EQ(AdaptiveContrastEnhancementQuick(in, out, s.w, s.h, kCode<T>, s.radius, s.alpha, s.maxGain), 1);
    const std::vector<T> quick = QuickReference(src, s.w, s.h, s.radius, s.alpha, s.maxGain);
    if constexpr (std::is_floating_point_v<T>) {
        for (size_t i = 0; i < dst.size(); ++i)
            EXPECT_NEAR(dst[i], quick[i], 1e-4 * (1.0 + std::fabs(quick[i]))) << "quick " << i;
    } else {
        EXPECT_EQ(dst, quick) << "quick";
    }
    ExpectInPlaceAgrees(AdaptiveContrastEnhancementQuick, src, dst, s);
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
    // A constant image keeps its value (the exact form: deviation 0 gives the local mean).
    ExpectBothFormsMatch<uint16_t>({12, 10, 3, 2.0f, 3.0f}, 3210, 3210, seed++);
    // Nearly flat bright data: in single precision many local variances come out 0 or below,
    // and those pixels take the local mean.
    ExpectBothFormsMatch<uint16_t>({15, 14, 2, 1.0f, 3.0f}, 60000, 60002, seed++);
}

TEST(ContrastEnhancement, UnservedCodesAndBadArgumentsWriteNothing) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(17, 13, 0, 65535, 9);
    for (auto run : {AdaptiveContrastEnhancement, AdaptiveContrastEnhancementQuick}) {
        std::vector<uint16_t> dst(src.size(), 77);
        const bool quick = run == AdaptiveContrastEnhancementQuick;
        for (int code : {quick ? 11 : 6, 8, 0}) EXPECT_EQ(run(src.data(), dst.data(), 17, 13, code, 2, 1.0f, 3.0f), 1);
        EXPECT_EQ(run(nullptr, dst.data(), 17, 13, 4, 2, 1.0f, 3.0f), -1);
        EXPECT_EQ(run(src.data(), nullptr, 17, 13, 4, 2, 1.0f, 3.0f), -2);
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, 4, 1025, 1.0f, 3.0f), -4);
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, 4, -1025, 1.0f, 3.0f), -4);
        EXPECT_EQ(run(src.data(), dst.data(), 0, 13, 4, 2, 1.0f, 3.0f), 1);
        EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 77)) << quick;
        // A window wider than the image reads its mirrored pixels (checked by the sanitizers).
        EXPECT_EQ(run(src.data(), dst.data(), 3, 2, 4, 20, 1.0f, 3.0f), 1);
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
    std::vector<uint16_t> dst(src.size()), expected(src.size()), inPlace = src;

    // Exact enhancement alone (gamma 1.0 is skipped).
    struAceGammaParam p = AceRecord(2, 1.2f, 3.0f, 1.0f, 1, 0);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), 1);
    AdaptiveContrastEnhancement(src.data(), expected.data(), w, h, 4, 2, 1.2f, 3.0f);
    EXPECT_EQ(dst, expected);

    // Quick enhancement, then gamma 0.5 on its result; in place the same.
    p = AceRecord(3, 0.8f, 2.0f, 0.5f, 0, 0);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, ""), 1);
    AdaptiveContrastEnhancementQuick(src.data(), expected.data(), w, h, 4, 3, 0.8f, 2.0f);
    GammaCorrect(expected.data(), expected.data(), w, h, 0.5f, 4);
    EXPECT_EQ(dst, expected);
    ASSERT_EQ(Ace_Gamma(inPlace.data(), inPlace.data(), w, h, 4, &p, nullptr), 1);
    EXPECT_EQ(inPlace, expected);

    // Equalisation replaces everything with EquHist of the untouched source ...
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

    // A non-empty INI path loads the record's own section first.
    const char* ini = "ace_gamma_test_settings.ini";
    const char* keys[] = {"param1", "param2", "param3", "param4", "param5", "param6"};
    const char* values[] = {"4", "0.5", "2.0", "1.0", "1", "0"};
    for (int i = 0; i < 6; ++i) ASSERT_EQ(WriteString_INI("Post_Process_Param_3", keys[i], values[i], ini), 1);
    struAceGammaParam fromFile(3);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &fromFile, ini), 1);
    EXPECT_EQ(fromFile.param1, 4);
    AdaptiveContrastEnhancement(src.data(), expected.data(), w, h, 4, 4, 0.5f, 2.0f);
    EXPECT_EQ(dst, expected);
    std::remove(ini);
}

TEST(AceGamma, UnservedCodesAndBadArgumentsLeaveTheImage) {
    const int w = 12, h = 9;
    struAceGammaParam p = AceRecord(2, 1.0f, 3.0f, 0.8f, 0, 0);
    // 64-bit data is served by neither step: out of place the destination keeps its contents,
    // in place the image stays as it was.
    std::vector<double> d64 = RandomImage<double>(w, h, 0.0, 1.0, 24), keep = d64, other(d64.size(), 5.0);
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(d64.data()), other.data(), w, h, 11, &p, nullptr), 1);
    EXPECT_EQ(other, std::vector<double>(d64.size(), 5.0));
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(d64.data()), d64.data(), w, h, 11, &p, nullptr), 1);
    EXPECT_EQ(d64, keep);

    std::vector<uint16_t> src(w * h, 100), dst(src.size(), 7);
    EXPECT_EQ(Ace_Gamma(nullptr, dst.data(), w, h, 4, &p, nullptr), -1);
    EXPECT_EQ(Ace_Gamma(src.data(), nullptr, w, h, 4, &p, nullptr), -2);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, nullptr, nullptr), -4);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), 0, h, 4, &p, nullptr), 1);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), -4, h, 4, &p, nullptr), 1);
    p.param1 = 5000;
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), -4);
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
    std::vector<uint16_t> dst(src.size()), inPlace = src;
    struWLNParam p = WlnRecord(1000, 3000, 0, 65535);
    ASSERT_EQ(WLN(src.data(), dst.data(), 16, 16, &p), 1);
    for (size_t i = 0; i < src.size(); ++i) {
        const uint16_t clipped = std::min<uint16_t>(std::max<uint16_t>(src[i], 1000), 3000);
        EXPECT_EQ(dst[i], static_cast<uint16_t>((clipped - 1000) * (1.0f / 2000.0f) * 65535.0f + 0.5f)) << i;
    }
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], 65535);
    ASSERT_EQ(WLN(inPlace.data(), inPlace.data(), 16, 16, &p), 1);
    EXPECT_EQ(inPlace, dst);

    // Bounds the wrong way round, and settings beyond 16 bits taken as their low 16 bits.
    struct Case { int wl, wr, lo, hi; };
    const Case same[] = {{3000, 1000, 0, 65535}, {1000, 65536 + 3000, 65535, 0}, {1000, 3000, 65536 * 2, -1}};
    for (const Case& c : same) {
        std::vector<uint16_t> other(src.size());
        struWLNParam q = WlnRecord(c.wl, c.wr, c.lo, c.hi);
        ASSERT_EQ(WLN(src.data(), other.data(), 16, 16, &q), 1);
        EXPECT_EQ(other, dst) << c.wl << " " << c.wr << " " << c.lo << " " << c.hi;
    }

    // Every pixel clipped to one value: nothing to stretch.
    std::vector<uint16_t> bright = {500, 900, 20000, 65535}, flat(4);
    p = WlnRecord(0, 400, 100, 200);
    ASSERT_EQ(WLN(bright.data(), flat.data(), 2, 2, &p), 1);
    EXPECT_EQ(flat, std::vector<uint16_t>(4, 400));
}

TEST(Wln, RejectsNullPointersAndRecords) {
    std::vector<uint16_t> src(6, 500), untouched(6, 1);
    struWLNParam p;
    EXPECT_EQ(WLN(nullptr, untouched.data(), 3, 2, &p), -1);
    EXPECT_EQ(WLN(src.data(), nullptr, 3, 2, &p), -2);
    EXPECT_EQ(WLN(src.data(), untouched.data(), 3, 2, nullptr), -4);
    EXPECT_EQ(WLN(src.data(), untouched.data(), 0, 2, &p), 1);
    EXPECT_EQ(untouched, std::vector<uint16_t>(6, 1));
}

}  // namespace
