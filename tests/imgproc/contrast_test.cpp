#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <vector>

#include "advanced_reference.h"
#include "imgproc/pixel_helpers.h"
#include "impl_levels.h"
#include "veltrano.h"

namespace {

using advanced_ref::At;
using advanced_ref::RandomImage;

// Local mean by direct window sums over the mirrored image, r = max(radius, 1). With integer
// data of these sizes every sum is exact, so the order of the additions does not matter.
template <class F>
std::vector<F> LocalMean(const std::vector<F>& in, int w, int h, int radius) {
    const int r = std::max(radius, 1), k = 2 * r + 1;
    std::vector<F> out(in.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            F s = 0;
            for (int v = -r; v <= r; ++v)
                for (int u = -r; u <= r; ++u) s += At(in, w, h, x + u, y + v);
            out[y * w + x] =
                std::is_same_v<F, double> ? s / (double(k) * k) : s * (1.0f / float(k * k));
        }
    return out;
}

// Exact form: gain min(alpha * mean / sd, maxGain) in double. Quick form (radius 0 here, so no
// scaling): gain alpha * min(globalStd / sd, maxGain) in single precision.
template <class F>
std::vector<uint16_t> Reference(const std::vector<uint16_t>& src, int w, int h, int radius,
                                float alpha, float maxGain) {
    std::vector<F> x(src.begin(), src.end()), sq(src.size());
    double sum = 0.0, dev = 0.0;
    for (size_t i = 0; i < x.size(); ++i) sum += x[i], sq[i] = x[i] * x[i];
    const double mean = sum / x.size();
    for (F v : x) dev += (v - mean) * (v - mean);
    const F globalStd = static_cast<F>(std::sqrt(dev / x.size()));
    const std::vector<F> m = LocalMean(x, w, h, radius), q = LocalMean(sq, w, h, radius);
    std::vector<uint16_t> out(src.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const F var = q[i] - m[i] * m[i];
        F r = m[i];
        if (std::is_same_v<F, double> && std::sqrt(var) > 0)
            r = (x[i] - m[i]) * std::min(alpha * mean / std::sqrt(var), double(maxGain)) + m[i];
        if (std::is_same_v<F, float> && var > 0)
            r = (x[i] - m[i]) * (alpha * std::min(globalStd / std::sqrt(var), F(maxGain))) + m[i];
        out[i] = static_cast<uint16_t>(std::clamp<F>(r, 0, 65535));
    }
    return out;
}

TEST(ContrastEnhancement, ExactAndQuickFormsFollowTheirGainLaws) {
    struct Setting {
        int radius;
        float alpha, maxGain;
    };
    const Setting settings[] = {
        {2, 1.2f, 3.0f}, {1, 0.4f, 2.0f}, {0, 2.0f, 5.0f}, {3, 50.0f, 1.0f}, {-2, 0.7f, 4.0f}};
    const int w = 13, h = 11;
    unsigned seed = 300;
    for (const Setting& s : settings) {
        SCOPED_TRACE(testing::Message()
                     << "r=" << s.radius << " alpha=" << s.alpha << " maxGain=" << s.maxGain);
        std::vector<uint16_t> u = RandomImage<uint16_t>(w, h, 0, 65535, seed++), du(u.size()),
                              inPlace = u;
        ASSERT_EQ(
            AdaptiveContrastEnhancement(u.data(), du.data(), w, h, 4, s.radius, s.alpha, s.maxGain),
            1);
        EXPECT_EQ(du, (Reference<double>(u, w, h, s.radius, s.alpha, s.maxGain)));
        ASSERT_EQ(AdaptiveContrastEnhancement(inPlace.data(), inPlace.data(), w, h, 4, s.radius,
                                              s.alpha, s.maxGain),
                  1);
        EXPECT_EQ(inPlace, du);
        // Small values keep every single-precision sum of the quick form exact at radius 0.
        std::vector<uint16_t> small = RandomImage<uint16_t>(w, h, 0, 1000, seed++),
                              dq(small.size());
        ASSERT_EQ(AdaptiveContrastEnhancementQuick(small.data(), dq.data(), w, h, 4, 0, s.alpha,
                                                   s.maxGain),
                  1);
        EXPECT_EQ(dq, (Reference<float>(small, w, h, 0, s.alpha, s.maxGain)));
    }
    // Larger radii scale by 1 / (2r + 1)^2 on the way in and by (2r + 1)^2 on the way out: a
    // constant float image (not clamped to any range) stays as it is up to that rounding.
    std::vector<float> f(w * h, -250.5f), fo(w * h);
    ASSERT_EQ(AdaptiveContrastEnhancementQuick(reinterpret_cast<uint16_t*>(f.data()),
                                               reinterpret_cast<uint16_t*>(fo.data()), w, h, 6, 2,
                                               2.0f, 3.0f),
              1);
    for (float v : fo) EXPECT_NEAR(v, -250.5f, 1e-3);
}

TEST(ContrastEnhancement, UnservedCodesAndBadArgumentsWriteNothing) {
    std::vector<uint16_t> src = RandomImage<uint16_t>(17, 13, 0, 65535, 9);
    for (auto run : {AdaptiveContrastEnhancement, AdaptiveContrastEnhancementQuick}) {
        std::vector<uint16_t> dst(src.size(), 77);
        const bool quick = run == AdaptiveContrastEnhancementQuick;
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, quick ? 11 : 6, 2, 1.0f, 3.0f), 1);
        EXPECT_EQ(run(nullptr, dst.data(), 17, 13, 4, 2, 1.0f, 3.0f), -1);
        EXPECT_EQ(run(src.data(), nullptr, 17, 13, 4, 2, 1.0f, 3.0f), -2);
        EXPECT_EQ(run(src.data(), dst.data(), 17, 13, 4, 1025, 1.0f, 3.0f), -4);
        EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 77)) << quick;
        EXPECT_EQ(run(src.data(), dst.data(), 3, 2, 4, 20, 1.0f, 3.0f),
                  1);  // a window wider than the image
    }
}

struAceGammaParam AceRecord(int radius, float alpha, float maxGain, float gamma, int exact,
                            int equalise) {
    struAceGammaParam p;
    p.param1 = radius, p.param2 = alpha, p.param3 = maxGain, p.param4 = gamma, p.param5 = exact,
    p.param6 = equalise;
    return p;
}

TEST(AceGamma, RunsEnhancementGammaAndEqualisationInThatOrder) {
    const int w = 21, h = 15;
    std::vector<uint16_t> src = RandomImage<uint16_t>(w, h, 0, 65535, 17);
    std::vector<uint16_t> dst(src.size()), expected(src.size()), inPlace = src;
    struAceGammaParam p =
        AceRecord(2, 1.2f, 3.0f, 1.0f, 1, 0);  // exact enhancement; gamma 1.0 skipped
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), 1);
    AdaptiveContrastEnhancement(src.data(), expected.data(), w, h, 4, 2, 1.2f, 3.0f);
    EXPECT_EQ(dst, expected);
    p = AceRecord(3, 0.8f, 2.0f, 0.5f, 0,
                  0);  // quick enhancement, then gamma 0.5; in place the same
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, ""), 1);
    AdaptiveContrastEnhancementQuick(src.data(), expected.data(), w, h, 4, 3, 0.8f, 2.0f);
    GammaCorrect(expected.data(), expected.data(), w, h, 0.5f, 4);
    EXPECT_EQ(dst, expected);
    ASSERT_EQ(Ace_Gamma(inPlace.data(), inPlace.data(), w, h, 4, &p, nullptr), 1);
    EXPECT_EQ(inPlace, expected);
    // Equalisation replaces everything with EquHist of the untouched source, in place too ...
    p = AceRecord(3, 0.8f, 2.0f, 0.5f, 1, 1);
    inPlace = src;
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &p, nullptr), 1);
    ASSERT_EQ(Ace_Gamma(inPlace.data(), inPlace.data(), w, h, 4, &p, nullptr), 1);
    EquHist(src.data(), expected.data(), w * h, 4);
    EXPECT_EQ(dst, expected);
    EXPECT_EQ(inPlace, expected);
    // ... but only for 8- and 16-bit codes: a signed image keeps enhancement and gamma.
    std::vector<int16_t> s16(src.begin(), src.end()), d16(src.size()), e16(src.size());
    ASSERT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(s16.data()), d16.data(), w, h, 5, &p, nullptr),
              1);
    AdaptiveContrastEnhancement(reinterpret_cast<uint16_t*>(s16.data()),
                                reinterpret_cast<uint16_t*>(e16.data()), w, h, 5, 3, 0.8f, 2.0f);
    GammaCorrect(e16.data(), e16.data(), w, h, 0.5f, 5);
    EXPECT_EQ(d16, e16);
    // A non-empty INI path loads the record's own section first.
    const char* ini = "ace_gamma_test_settings.ini";
    const char* keys[] = {"param1", "param2", "param3", "param4", "param5", "param6"};
    const char* values[] = {"4", "0.5", "2.0", "1.0", "1", "0"};
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(WriteString_INI("Post_Process_Param_3", keys[i], values[i], ini), 1);
    struAceGammaParam fromFile(3);
    ASSERT_EQ(Ace_Gamma(src.data(), dst.data(), w, h, 4, &fromFile, ini), 1);
    EXPECT_EQ(fromFile.param1, 4);
    AdaptiveContrastEnhancement(src.data(), expected.data(), w, h, 4, 4, 0.5f, 2.0f);
    EXPECT_EQ(dst, expected);
    std::remove(ini);
}

TEST(AceGamma, UnservedCodesAndBadArgumentsLeaveTheImage) {
    // 64-bit data is served by neither step: in place the image stays as it was.
    struAceGammaParam p = AceRecord(2, 1.0f, 3.0f, 0.8f, 0, 0);
    std::vector<double> d64 = RandomImage<double>(12, 9, 0.0, 1.0, 24), keep = d64;
    ASSERT_EQ(
        Ace_Gamma(reinterpret_cast<uint16_t*>(d64.data()), d64.data(), 12, 9, 11, &p, nullptr), 1);
    EXPECT_EQ(d64, keep);
    // In place with codes that no step serves, buffers sized by PixelTypeSize: nothing is read or
    // written past them (a work buffer of 8 bytes a pixel used to be copied over the image).
    for (int code : {1, 2, 7, 8, 9, 12, 13, -1}) {
        std::vector<uint8_t> raw(12 * 9 * static_cast<size_t>(veltrano::PixelTypeSize(code)));
        for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i * 37);
        const std::vector<uint8_t> before = raw;
        EXPECT_EQ(Ace_Gamma(reinterpret_cast<uint16_t*>(raw.data()), raw.data(), 12, 9, code, &p,
                            nullptr),
                  1)
            << code;
        EXPECT_EQ(raw, before) << code;
    }
    std::vector<uint16_t> src(108, 100), dst(src.size(), 7);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), 1 << 15, (1u << 13) + 1, 4, &p, nullptr),
              -4);  // past 2^28 pixels
    EXPECT_EQ(Ace_Gamma(nullptr, dst.data(), 12, 9, 4, &p, nullptr), -1);
    EXPECT_EQ(Ace_Gamma(src.data(), nullptr, 12, 9, 4, &p, nullptr), -2);
    EXPECT_EQ(Ace_Gamma(src.data(), dst.data(), 12, 9, 4, nullptr, nullptr), -4);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 7));
}

TEST(Wln, ClipsToTheWindowAndStretchesItToTheOutputRange) {
    // Window 1000..3000 to 0..65535; bounds the wrong way round and settings beyond 16 bits
    // (their low 16 bits count) give the same.
    std::vector<uint16_t> src = {0, 999, 1000, 1001, 2000, 2999, 3000, 60000},
                          want = {0, 0, 0, 33, 32768, 65502, 65535, 65535};
    struct Case {
        int wl, wr, lo, hi;
    };
    for (const Case& c : {Case{1000, 3000, 0, 65535}, Case{3000, 1000, 0, 65535},
                          Case{1000, 65536 + 3000, 65535, 0}, Case{1000, 3000, 65536 * 2, -1}}) {
        struWLNParam p;
        p.wl = c.wl, p.wr = c.wr, p.specifymin = c.lo, p.specifymax = c.hi;
        std::vector<uint16_t> dst(src.size()), inPlace = src;
        ASSERT_EQ(WLN(src.data(), dst.data(), 4, 2, &p), 1);
        EXPECT_EQ(dst, want) << c.wl << " " << c.wr << " " << c.lo << " " << c.hi;
        ASSERT_EQ(WLN(inPlace.data(), inPlace.data(), 4, 2, &p), 1);
        EXPECT_EQ(inPlace, want);
    }
    std::vector<uint16_t> bright = {500, 900, 20000, 65535},
                          flat(4);  // clipped to one value: no stretch
    struWLNParam p;
    p.wl = 0, p.wr = 400, p.specifymin = 100, p.specifymax = 200;
    ASSERT_EQ(WLN(bright.data(), flat.data(), 2, 2, &p), 1);
    EXPECT_EQ(flat, std::vector<uint16_t>(4, 400));
    EXPECT_EQ(WLN(nullptr, flat.data(), 2, 2, &p), -1);
    EXPECT_EQ(WLN(bright.data(), nullptr, 2, 2, &p), -2);
    EXPECT_EQ(WLN(bright.data(), flat.data(), 2, 2, nullptr), -4);
}

// The integer running sums of the exact form against the double sums of the plain form, bit for
// bit: every pixel type it serves, odd sizes, radii from 0 to past the image size and up to the
// limit (where bright 16-bit sums leave the exact range and the plain form runs), in place too.
TEST(ContrastEnhancement, ExactFormFastPathsMatchThePlainDoubleSums) {
    using impl_levels::AtEachLevel;
    struct Setting {
        int radius;
        float alpha, maxGain;
    };
    const Setting settings[] = {{0, 1.0f, 3.0f},   {2, 0.3f, 2.5f},   {20, 1.0f, 3.0f},
                                {7, 40.0f, 1e30f}, {64, 0.05f, 0.5f}, {1024, 1.0f, 3.0f}};
    unsigned seed = 90;
    for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
        const int w = size.width, h = size.height;
        for (const Setting& s : settings) {
            if (s.radius > 20 && w * h > 5000) continue;  // the plain form is slow at large radii
            for (int code : {3, 4, 5}) {
                SCOPED_TRACE(testing::Message()
                             << w << "x" << h << " r=" << s.radius << " code " << code);
                std::vector<uint16_t> src(static_cast<size_t>(w) * h);
                std::vector<uint8_t> bytes = RandomImage<uint8_t>(w, h, 0, 255, seed++);
                std::vector<int16_t> signedPixels =
                    RandomImage<int16_t>(w, h, -32768, 32767, seed++);
                std::vector<uint16_t> words = RandomImage<uint16_t>(w, h, 0, 65535, seed++);
                if (code == 3) std::memcpy(src.data(), bytes.data(), bytes.size());
                if (code == 4) src = words;
                if (code == 5) std::memcpy(src.data(), signedPixels.data(), src.size() * 2);
                const auto out = AtEachLevel([&] {
                    std::vector<uint16_t> dst(src.size(), 9);
                    EXPECT_EQ(AdaptiveContrastEnhancement(src.data(), dst.data(), w, h, code,
                                                          s.radius, s.alpha, s.maxGain),
                              1);
                    return dst;
                });
                const auto inPlace = AtEachLevel([&] {
                    std::vector<uint16_t> img = src;
                    EXPECT_EQ(AdaptiveContrastEnhancement(img.data(), img.data(), w, h, code,
                                                          s.radius, s.alpha, s.maxGain),
                              1);
                    return img;
                });
                for (size_t level = 1; level < out.size(); ++level) {
                    EXPECT_EQ(out[level], out[0]) << "level " << level;
                    EXPECT_EQ(inPlace[level], inPlace[0]) << "in place, level " << level;
                }
            }
        }
    }
    // A flat image with one bright pixel: zero deviation almost everywhere, a large gain at it.
    std::vector<uint16_t> flat(33 * 31, 1200), dst(flat.size());
    flat[500] = 60000;
    const auto peaks = AtEachLevel([&] {
        EXPECT_EQ(AdaptiveContrastEnhancement(flat.data(), dst.data(), 33, 31, 4, 3, 2.0f, 3.0f),
                  1);
        return dst;
    });
    EXPECT_EQ(peaks[1], peaks[0]);
    EXPECT_EQ(peaks[2], peaks[0]);
    // Bright 16-bit pixels at radii whose window sums of squares pass 2^51 (from r 362) while
    // the partial sums stay below 2^53: the fast paths must still match, and a constant image
    // stays as it is.
    for (int radius : {300, 400, 505}) {
        std::vector<uint16_t> bright = RandomImage<uint16_t>(17, 13, 64000, 65535, seed++);
        const auto got = AtEachLevel([&] {
            std::vector<uint16_t> out(bright.size());
            EXPECT_EQ(AdaptiveContrastEnhancement(bright.data(), out.data(), 17, 13, 4, radius,
                                                  1.0f, 3.0f),
                      1);
            return out;
        });
        EXPECT_EQ(got[1], got[0]) << radius;
        EXPECT_EQ(got[2], got[0]) << radius;
        std::vector<uint16_t> top(17 * 13, 65535);
        const auto constant = AtEachLevel([&] {
            std::vector<uint16_t> out(top.size());
            EXPECT_EQ(
                AdaptiveContrastEnhancement(top.data(), out.data(), 17, 13, 4, radius, 1.0f, 3.0f),
                1);
            return out;
        });
        for (const auto& out : constant) EXPECT_EQ(out, top) << radius;
    }
}

// The row-at-a-time quick form against the plain one, bit for bit: its float running sums must
// add the same values in the same order. Every pixel type, odd sizes, radii from negative to past
// the image size, in place too.
TEST(ContrastEnhancement, QuickFormWithoutFrameScratchMatchesThePlainOne) {
    using impl_levels::AtEachLevel;
    using impl_levels::SameBits;
    struct Setting {
        int radius;
        float alpha, maxGain;
    };
    const Setting settings[] = {{0, 1.0f, 3.0f},  {-3, 0.8f, 2.0f}, {1, 0.4f, 2.0f},
                                {2, 1.2f, 3.0f},  {20, 1.0f, 3.0f}, {45, 2.0f, 1e30f},
                                {300, 0.5f, 4.0f}};
    unsigned seed = 700;
    for (const impl_levels::Size& size : impl_levels::OddSizesWithoutTables()) {
        const int w = size.width, h = size.height;
        for (const Setting& s : settings) {
            if (s.radius > 20 && w * h > 5000) continue;  // the plain form is slow at large radii
            for (int code : {3, 4, 5, 6}) {
                SCOPED_TRACE(testing::Message()
                             << w << "x" << h << " r=" << s.radius << " code " << code);
                const size_t n = static_cast<size_t>(w) * h;
                std::vector<uint8_t> src(n * static_cast<size_t>(veltrano::PixelTypeSize(code)));
                if (code == 3) {
                    const auto v = RandomImage<uint8_t>(w, h, 0, 255, seed++);
                    std::memcpy(src.data(), v.data(), src.size());
                } else if (code == 4) {
                    const auto v = RandomImage<uint16_t>(w, h, 0, 65535, seed++);
                    std::memcpy(src.data(), v.data(), src.size());
                } else if (code == 5) {
                    const auto v = RandomImage<int16_t>(w, h, -32768, 32767, seed++);
                    std::memcpy(src.data(), v.data(), src.size());
                } else {
                    const auto v = RandomImage<float>(w, h, -5000.0f, 70000.0f, seed++);
                    std::memcpy(src.data(), v.data(), src.size());
                }
                auto* in = reinterpret_cast<uint16_t*>(src.data());
                const auto out = AtEachLevel([&] {
                    std::vector<uint8_t> dst(src.size(), 9);
                    EXPECT_EQ(AdaptiveContrastEnhancementQuick(
                                  in, reinterpret_cast<uint16_t*>(dst.data()), w, h, code, s.radius,
                                  s.alpha, s.maxGain),
                              1);
                    return dst;
                });
                const auto inPlace = AtEachLevel([&] {
                    std::vector<uint8_t> img = src;
                    auto* p = reinterpret_cast<uint16_t*>(img.data());
                    EXPECT_EQ(AdaptiveContrastEnhancementQuick(p, p, w, h, code, s.radius, s.alpha,
                                                               s.maxGain),
                              1);
                    return img;
                });
                EXPECT_EQ(inPlace[0], out[0]);
                for (size_t level = 1; level < out.size(); ++level) {
                    EXPECT_TRUE(SameBits(out[level], out[0])) << "level " << level;
                    EXPECT_TRUE(SameBits(inPlace[level], out[0])) << "in place, level " << level;
                }
            }
        }
    }
    // The combined step with its default record runs the quick form: the same at each level,
    // in place too (where it works from a copy of the image).
    std::vector<uint16_t> frame = RandomImage<uint16_t>(301, 263, 0, 65535, seed++);
    const auto combined = AtEachLevel([&] {
        struAceGammaParam p;
        std::vector<uint16_t> dst(frame.size()), img = frame;
        EXPECT_EQ(Ace_Gamma(frame.data(), dst.data(), 301, 263, 4, &p, nullptr), 1);
        EXPECT_EQ(Ace_Gamma(img.data(), img.data(), 301, 263, 4, &p, nullptr), 1);
        EXPECT_EQ(img, dst);
        return dst;
    });
    EXPECT_EQ(combined[1], combined[0]);
    EXPECT_EQ(combined[2], combined[0]);
    EXPECT_NE(combined[0], frame);
}

}  // namespace
