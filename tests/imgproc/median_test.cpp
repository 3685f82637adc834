// Median_Blur: the fast implementations against the long-standing one, the networks they are
// built from, the windows past the image and the float windows whose median depends on order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/median_networks.h"
#include "veltrano.h"

namespace {

using veltrano::SetImplCapForTesting;

constexpr int kReference = 0;
constexpr int kScalar = 1;
constexpr int kAvx2 = 2;

// Caps the implementation for one scope.
class ImplCap {
public:
    explicit ImplCap(int level) { SetImplCapForTesting(level); }
    ~ImplCap() { SetImplCapForTesting(-1); }
};

template <class T>
constexpr int TypeCode() {
    if constexpr (std::is_same_v<T, uint8_t>) return 3;
    if constexpr (std::is_same_v<T, uint16_t>) return 4;
    if constexpr (std::is_same_v<T, int16_t>) return 5;
    return 6;
}

// Median_Blur at one level, out of place or in place; the result code goes to rc.
template <class T>
std::vector<T> Filtered(int level, const std::vector<T>& src, int w, int h, int r, bool inPlace,
                        int& rc) {
    ImplCap cap(level);
    std::vector<T> in = src;
    std::vector<T> out(src.size(), T(7));
    rc = Median_Blur(in.data(), inPlace ? in.data() : out.data(), w, h, r, TypeCode<T>());
    return inPlace ? in : out;
}

template <class T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Random pixels over the type's range, or drawn from only a few values so that windows are full
// of ties.
template <class T>
std::vector<T> RandomPixels(size_t n, bool fewValues, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<T> v(n);
    if constexpr (std::is_same_v<T, float>) {
        std::uniform_real_distribution<float> dist(-3000.0f, 60000.0f);
        std::uniform_int_distribution<int> pick(-2, 2);
        for (auto& x : v) x = fewValues ? static_cast<float>(pick(gen)) * 0.5f : dist(gen);
    } else {
        std::uniform_int_distribution<int> dist(std::numeric_limits<T>::min(),
                                                std::numeric_limits<T>::max());
        std::uniform_int_distribution<int> pick(0, 3);
        for (auto& x : v)
            x = fewValues ? static_cast<T>(std::numeric_limits<T>::max() / 3 * pick(gen))
                          : static_cast<T>(dist(gen));
    }
    return v;
}

// ---------------------------------------------------------------------------------------------
// The networks, on every input of zeros and ones (which proves them for every input).

// Each wire is a bit set over all inputs; an exchange is AND into the low wire and OR into the
// high wire, for the outputs the network keeps.
void Simulate(const veltrano::median_net::Network& net, std::vector<std::vector<uint64_t>>& wires) {
    using namespace veltrano::median_net;
    for (int s = 0; s < net.size; ++s) {
        const Exchange& e = net.step[s];
        std::vector<uint64_t> a = wires[e.lo];
        const std::vector<uint64_t>& b = wires[e.hi];
        for (size_t i = 0; i < a.size(); ++i) {
            const uint64_t lo = a[i] & b[i];
            const uint64_t hi = a[i] | b[i];
            if (e.keep & kKeepMin) wires[e.lo][i] = lo;
            if (e.keep & kKeepMax) wires[e.hi][i] = hi;
        }
    }
}

// rows sorted lists of k zeros and ones (row r holding ones[r] ones at its top), every
// combination; each output q must be the element of rank outRank0 + q.
void CheckNetwork(const veltrano::median_net::Network& net, int rows, int k, bool rowsSorted,
                  int outRank0) {
    const int values = rowsSorted ? k + 1 : 2;  // per row: count of ones, or one free bit per wire
    const int perRow = rowsSorted ? 1 : k;
    uint64_t inputs = 1;
    for (int i = 0; i < rows * perRow; ++i) inputs *= static_cast<uint64_t>(values);
    const size_t words = static_cast<size_t>((inputs + 63) / 64);
    std::vector<std::vector<uint64_t>> wires(static_cast<size_t>(rows * k),
                                             std::vector<uint64_t>(words));
    std::vector<std::vector<uint64_t>> expected(static_cast<size_t>(net.outCount),
                                                std::vector<uint64_t>(words));
    for (uint64_t in = 0; in < inputs; ++in) {
        uint64_t code = in;
        int zeros = 0;
        for (int r = 0; r < rows; ++r) {
            for (int part = 0; part < perRow; ++part) {
                const int digit = static_cast<int>(code % values);
                code /= values;
                for (int i = 0; i < (rowsSorted ? k : 1); ++i) {
                    const int wire = r * k + (rowsSorted ? i : part);
                    const bool one = rowsSorted ? i >= k - digit : digit == 1;
                    if (one) wires[static_cast<size_t>(wire)][in / 64] |= uint64_t(1) << (in % 64);
                    zeros += one ? 0 : 1;
                }
            }
        }
        for (int q = 0; q < net.outCount; ++q)
            if (outRank0 + q >= zeros)
                expected[static_cast<size_t>(q)][in / 64] |= uint64_t(1) << (in % 64);
    }
    Simulate(net, wires);
    for (int q = 0; q < net.outCount; ++q)
        EXPECT_EQ(wires[net.out[q]], expected[static_cast<size_t>(q)]) << "output " << q;
}

TEST(MedianNetworks, SortAndSelectTheirRanksOnEveryInputOfZerosAndOnes) {
    using namespace veltrano::median_net;
    CheckNetwork(Networks<3>::sort, 1, 3, false, 0);
    CheckNetwork(Networks<5>::sort, 1, 5, false, 0);
    CheckNetwork(Networks<7>::sort, 1, 7, false, 0);
    // Four rows of five and six rows of seven in; ranks t - k .. t out, t = k * k / 2.
    CheckNetwork(Networks<5>::core, 4, 5, true, 12 - 5);
    CheckNetwork(Networks<7>::core, 6, 7, true, 24 - 7);
}

// ---------------------------------------------------------------------------------------------
// The fast levels against the reference level, bit for bit.

struct Size {
    int w, h;
};

// Narrow and wide images (wider and narrower than a vector block of 8 to 32 pixels, and tall
// enough for whole groups of rows away from the edges), odd sizes, radii up to and past the image.
// The sliding histogram (radius 4 and above) has no groups of rows or vector blocks; on the
// largest image it runs at 4 and 5, its windows inside the image as they would be at 7 or 9.
const Size kSizes[] = {{1, 1}, {1, 9}, {13, 1}, {5, 4}, {19, 14}, {37, 11}, {70, 5}, {45, 29}};
const Size kLargest = {45, 29};
const int kRadii[] = {1, 2, 3, 4, 5, 7, 9};

template <class T>
void CompareLevels(const std::vector<T>& src, int w, int h, int r, const std::string& what) {
    int rcRef = 0;
    const std::vector<T> want = Filtered(kReference, src, w, h, r, false, rcRef);
    ASSERT_EQ(rcRef, 1) << what;
    for (int level : {kScalar, kAvx2}) {
        for (bool inPlace : {false, true}) {
            int rc = 0;
            const std::vector<T> got = Filtered(level, src, w, h, r, inPlace, rc);
            EXPECT_EQ(rc, 1);
            EXPECT_TRUE(SameBits(got, want))
                << what << " level " << level << (inPlace ? " in place" : "");
        }
    }
}

template <class T>
void CompareLevelsForType(unsigned seed) {
    for (const Size& s : kSizes) {
        for (int r : kRadii) {
            if (r > 7 && std::is_same_v<T, uint8_t>) continue;  // beyond the 8-bit limit
            if (r > 5 && s.w == kLargest.w && s.h == kLargest.h) continue;
            for (bool few : {false, true}) {
                auto src = RandomPixels<T>(static_cast<size_t>(s.w) * s.h, few, seed++);
                const std::string what = std::to_string(s.w) + "x" + std::to_string(s.h) + " r" +
                                         std::to_string(r) + (few ? " ties" : "");
                CompareLevels(src, s.w, s.h, r, what);
                if constexpr (std::is_same_v<T, float>) {
                    if (r > 1) continue;
                    // Without a negative value, where radius 1 orders the floats by their bits
                    // (larger radii have no such path).
                    for (auto& v : src) v = std::fabs(v);
                    CompareLevels(src, s.w, s.h, r, what + " non-negative");
                }
            }
        }
    }
}

TEST(MedianBlurLevels, FastLevelsMatchTheReferenceForEveryTypeSizeAndRadius) {
    CompareLevelsForType<uint8_t>(100);
    CompareLevelsForType<uint16_t>(200);
    CompareLevelsForType<int16_t>(300);
    CompareLevelsForType<float>(400);
}

// Floats of a handful of special values: every window holds NaN, infinities or zeros of both
// signs, and most medians are zeros. Up to radius 3 the fast levels must pick exactly the
// quickselect's element; beyond, every level applies the total order.
TEST(MedianBlurLevels, FloatWindowsWithNanInfinitiesAndSignedZerosAgreeAcrossLevels) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const float specials[] = {0.0f, -0.0f, 0.0f, -0.0f, nan, inf, -inf, 1.0f, -2.0f};
    std::mt19937 gen(5);
    std::uniform_int_distribution<int> pick(0, 8);
    std::uniform_int_distribution<int> sparse(0, 40);
    for (const Size& s : {Size{9, 7}, Size{41, 6}, Size{23, 21}}) {
        for (int r : {1, 2, 3, 4, 6}) {
            std::vector<float> mixed(static_cast<size_t>(s.w) * s.h);
            std::vector<float> zerosWithNan(mixed.size());
            for (size_t i = 0; i < mixed.size(); ++i) {
                mixed[i] = specials[pick(gen)];
                const int p = sparse(gen);
                zerosWithNan[i] = p == 0 ? nan : (p < 20 ? -0.0f : 0.0f);
            }
            CompareLevels(mixed, s.w, s.h, r, "specials r" + std::to_string(r));
            CompareLevels(zerosWithNan, s.w, s.h, r, "zeros r" + std::to_string(r));
            for (auto& v : mixed) v = std::fabs(v);  // +0, NaN, +inf and numbers only
            CompareLevels(mixed, s.w, s.h, r, "non-negative specials r" + std::to_string(r));
        }
    }
}

// The reason the fast levels hand such windows back: on a window of equal values the quickselect
// keeps the middle element where it is, so a -0 at the centre of +0s stays -0, and a NaN at the
// centre of a flat window gives NaN, while a vector minimum would be free to return either zero.
TEST(MedianBlurLevels, UpToRadiusThreeTheCentreOfAFlatWindowIsKept) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int level : {kReference, kScalar, kAvx2}) {
        for (int r : {1, 2, 3}) {
            std::vector<float> zeros(81, 0.0f), flat(81, 3.0f);
            zeros[40] = -0.0f;  // the centre of a 9 x 9 image
            flat[40] = nan;
            int rc = 0;
            const auto z = Filtered(level, zeros, 9, 9, r, false, rc);
            const auto f = Filtered(level, flat, 9, 9, r, true, rc);
            EXPECT_TRUE(std::signbit(z[40])) << level << " r" << r;
            EXPECT_FALSE(std::signbit(z[0])) << level << " r" << r;
            EXPECT_TRUE(std::isnan(f[40])) << level << " r" << r;
            EXPECT_EQ(f[39], 3.0f) << level << " r" << r;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Radii far past the image, up to each type's limit, against a count of every window position.

// Window positions read the mirrored image (mirror limited to the image's size, then the last
// mirrored pixel repeated).
int64_t SourceIndex(int64_t i, int64_t n, int64_t r) {
    const int64_t lim = std::min(r, n);
    i = std::clamp(i, -lim, n - 1 + lim);
    if (n == 1) return 0;
    if (i < 0) i = -i;
    if (i >= n) i = 2 * n - 2 - i;
    return std::clamp<int64_t>(i, 0, n - 1);
}

// The element of rank n/2 of every window, counted instead of copied: each source pixel with the
// number of window positions that read it, then the counts walked in value order.
template <class T>
std::vector<T> CountedMedians(const std::vector<T>& src, int w, int h, int r) {
    std::vector<T> out(src.size());
    const int64_t side = 2 * int64_t(r) + 1;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::vector<int64_t> rowCount(h), colCount(w);
            for (int64_t i = y - r; i <= y + r; ++i) ++rowCount[SourceIndex(i, h, r)];
            for (int64_t j = x - r; j <= x + r; ++j) ++colCount[SourceIndex(j, w, r)];
            std::map<T, int64_t> counts;
            for (int sy = 0; sy < h; ++sy)
                for (int sx = 0; sx < w; ++sx)
                    counts[src[sy * w + sx]] += rowCount[sy] * colCount[sx];
            int64_t seen = 0;
            for (const auto& [value, count] : counts) {
                seen += count;
                if (seen > side * side / 2) {
                    out[y * w + x] = value;
                    break;
                }
            }
        }
    return out;
}

template <class T>
void CheckLargeRadius(int w, int h, int r, unsigned seed) {
    const auto src = RandomPixels<T>(static_cast<size_t>(w) * h, false, seed);
    const auto want = CountedMedians(src, w, h, r);
    for (int level : {kScalar, kAvx2}) {
        for (bool inPlace : {false, true}) {
            int rc = 0;
            EXPECT_TRUE(SameBits(Filtered(level, src, w, h, r, inPlace, rc), want))
                << w << "x" << h << " r" << r;
            EXPECT_EQ(rc, 1);
        }
    }
}

TEST(MedianBlur, RadiiFarPastTheImageCountEveryWindowPosition) {
    CheckLargeRadius<uint8_t>(6, 5, 7, 1);
    CheckLargeRadius<uint8_t>(40, 3, 6, 2);
    CheckLargeRadius<int16_t>(4, 3, 90, 3);
    CheckLargeRadius<uint16_t>(5, 2, 127, 4);
    CheckLargeRadius<uint16_t>(23, 17, 11, 5);
    CheckLargeRadius<float>(3, 2, 2047, 6);
    CheckLargeRadius<float>(11, 8, 300, 7);
}

// ---------------------------------------------------------------------------------------------
// Beyond radius 3, windows holding NaN or both zeros take the element of rank n/2 in the order
// -0 < +0 < ... < +inf < NaN; the quickselect took seconds on them.

TEST(MedianBlur, BeyondRadiusThreeNanAndSignedZeroWindowsTakeTheTotalOrder) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // One NaN in a flat 100 x 100 image at radius 30 cost the quickselect 5 s; it gave NaN at the
    // NaN's own pixel. In the total order the NaN is the largest element: every pixel is 1.
    std::vector<float> flat(100 * 100, 1.0f);
    flat[57 * 100 + 43] = nan;
    int rc = 0;
    EXPECT_TRUE(SameBits(Filtered(kAvx2, flat, 100, 100, 30, true, rc),
                         std::vector<float>(flat.size(), 1.0f)));
    EXPECT_EQ(rc, 1);
    // A window of more than half NaN has a NaN median; fewer, and the largest number wins.
    std::vector<float> half(9 * 9, nan);
    for (int i = 0; i < 40; ++i) half[static_cast<size_t>(i)] = static_cast<float>(i);
    for (int level : {kReference, kScalar, kAvx2}) {
        const auto out = Filtered(level, half, 81, 1, 40, false, rc);  // one window spans the row
        EXPECT_TRUE(std::isnan(out[40])) << level;
        const auto wide = Filtered(level, half, 9, 9, 4, false, rc);
        EXPECT_TRUE(std::isnan(wide[40])) << level;  // the centre window: 41 NaN of 81
        // The corner window reads row 0 and column 0 once, rows and columns 1-4 twice: 4 NaN (the
        // pixel (4, 4)) among 81, and the 41st value in order is 21.
        EXPECT_EQ(wide[0], 21.0f) << level;
    }
    // Zeros: -0 sorts first, so the median is -0 exactly when -0s fill more than half the window.
    std::vector<float> zeros(15 * 15, 0.0f);
    for (int i = 0; i < 113; ++i) zeros[static_cast<size_t>(i)] = -0.0f;  // rows 0-6 and 8 of row 7
    for (int level : {kReference, kScalar, kAvx2}) {
        const auto out = Filtered(level, zeros, 15, 15, 7, false, rc);
        EXPECT_TRUE(std::signbit(out[7 * 15 + 7])) << level;  // 113 of 225 are -0
        EXPECT_FALSE(std::signbit(out[14 * 15 + 14])) << level;
    }
}

// Sizes past the limit are refused before anything is read: the buffers here are far smaller
// than the sizes claim.
TEST(MedianBlur, RefusesImagesAndPaddedCopiesPastTheSizeLimit) {
    std::vector<float> tiny(4, 1.0f);
    struct Case {
        int w, h, r, type, want;
    };
    for (const Case& c : {Case{1 << 15, (1 << 13) + 1, 1, 4, -3},  // 2^28 + 2^15 pixels
                          Case{1 << 20, 1, 2047, 6, -3},           // padded (2^20 + 4094) x 4095
                          Case{70000, 1, 2047, 6, -3}, Case{(1 << 14) + 1, 1 << 14, 0, 3, -3}}) {
        EXPECT_EQ(Median_Blur(tiny.data(), tiny.data(), c.w, c.h, c.r, c.type), c.want)
            << c.w << "x" << c.h;
    }
    // The largest padded copy that fits is accepted: a 2 x 2 float image at radius 2047 (at a fast
    // level: the quickselect on 2^24 equal values would take hours).
    ImplCap cap(kAvx2);
    EXPECT_EQ(Median_Blur(tiny.data(), tiny.data(), 2, 2, 2047, 6), 1);
    EXPECT_EQ(tiny, std::vector<float>(4, 1.0f));
}

}  // namespace
