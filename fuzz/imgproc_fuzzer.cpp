// Every processing function with fuzzed sizes, pixel-type codes and parameters on small images,
// out of place and in place. Buffers are allocated to exactly the size the caller owes the
// function (width x height elements of PixelTypeSize(code) bytes, or of the entry point's own
// element type where the header says the buffers are read as that type whatever the code), so
// AddressSanitizer sees any access past them. Every call must give one of its described results
// and leave an out-of-place source unchanged; where a function is safe in place and writes its
// whole destination, in place and out of place must give the same bytes.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "imgproc/pixel_helpers.h"
#include "veltrano/bilateral.h"
#include "veltrano/clahe.h"
#include "veltrano/contrast.h"
#include "veltrano/defect_repair.h"
#include "veltrano/fastnlm.h"
#include "veltrano/filters.h"
#include "veltrano/geometry.h"
#include "veltrano/normalize.h"
#include "veltrano/params.h"
#include "veltrano/point_ops.h"
#include "veltrano/usm.h"

namespace {

// A caller's buffer of exactly `size` bytes.
struct Buffer {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
    explicit Buffer(size_t n) : bytes(new uint8_t[n == 0 ? 0 : n]), size(n) {}
    Buffer(const Buffer& other) : Buffer(other.size) { std::memcpy(data(), other.data(), size); }
    uint8_t* data() const { return bytes.get(); }
    bool operator==(const Buffer& o) const {
        return size == o.size && std::memcmp(data(), o.data(), size) == 0;
    }
    template <typename T>
    T* as() const {
        return reinterpret_cast<T*>(bytes.get());
    }
};

// Bytes from the input, repeated to fill the buffer (zeros when the input is used up).
Buffer Filled(FuzzedDataProvider& in, size_t size) {
    Buffer b(size);
    const std::vector<uint8_t> pattern = in.ConsumeBytes<uint8_t>(std::min<size_t>(size, 256));
    for (size_t i = 0; i < size; ++i)
        b.data()[i] = pattern.empty() ? 0 : pattern[i % pattern.size()];
    return b;
}

size_t Count(int width, int height) {
    return width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) : 0;
}

bool Allowed(int result, const std::vector<int>& results) {
    for (int r : results)
        if (r == result) return true;
    return false;
}

constexpr uint64_t kWorkLimit = 4000000;  // window elements summed over the image, at most

const int kCodes[] = {-1, 0, 1, 2, 3, 3, 4, 4, 4, 5, 5, 6, 6, 7, 8, 9, 11, 12, 13, 99};

// One function under test: its element sizes, its described results, whether in place and out
// of place must agree, and the call itself.
struct Call {
    const char* name = "";
    size_t srcElement = 1;
    size_t dstElement = 1;
    std::vector<int> results;
    bool inPlace = true;      // may be called with src == dst
    bool samePlaces = false;  // in place must give the out-of-place bytes
    std::function<int(uint8_t*, uint8_t*)> run;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int which = in.ConsumeIntegralInRange(0, 47);
    const int width = in.ConsumeIntegralInRange(-2, 40);
    const int height = in.ConsumeIntegralInRange(-2, 40);
    const int code = in.PickValueInArray(kCodes);
    const int nulls = in.ConsumeIntegralInRange(0, 15);  // 1: null source, 2: null destination
    const size_t count = Count(width, height);
    const int small = in.ConsumeIntegralInRange(-2, 12);
    const int wide = in.ConsumeIntegralInRange(-3000, 3000);
    const int any = in.ConsumeIntegral<int>();
    const float f1 = in.ConsumeFloatingPoint<float>();
    const float f2 =
        in.ConsumeBool() ? in.ConsumeProbability<float>() * 4 : in.ConsumeFloatingPoint<float>();
    const double d1 = in.ConsumeFloatingPoint<double>();
    const size_t typeSize = static_cast<size_t>(veltrano::PixelTypeSize(code));

    // Extra buffers some functions take, sized as their headers say (a list: they never move).
    std::list<Buffer> extra;
    auto buffer = [&](size_t bytes) -> uint8_t* {
        extra.push_back(Filled(in, bytes));
        return extra.back().data();
    };
    Call c;
    auto set = [&](const char* name, size_t srcElement, size_t dstElement, std::vector<int> results,
                   bool samePlaces, std::function<int(uint8_t*, uint8_t*)> run) {
        c.name = name;
        c.srcElement = srcElement;
        c.dstElement = dstElement;
        c.results = std::move(results);
        c.samePlaces = samePlaces;
        c.run = std::move(run);
    };
    switch (which) {
    case 0:  // 16-bit words whatever the code
        set("Inverse", 2, 2, {1, -1, -2, -3}, true, [&](uint8_t* s, uint8_t* d) {
            return Inverse(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d), width,
                           height, code);
        });
        break;
    case 1:
        set("BrigntAndContrast", 2, 2, {1, -1, -2, -3}, true, [&](uint8_t* s, uint8_t* d) {
            return BrigntAndContrast(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                     width, height, code, f1, f2);
        });
        break;
    case 2:
        set("GammaCorrect", typeSize, typeSize, {1, -1, -2, -3}, true, [&](uint8_t* s, uint8_t* d) {
            return GammaCorrect(s, d, static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                                f2, code);
        });
        if (width < 0 || height < 0) return -1;  // unsigned sizes: a negative one is gigantic
        break;
    case 3:
        if (width < 0 || height < 0) return -1;
        set("Image_Log", 4, 4, {1, -1, -2}, true, [&](uint8_t* s, uint8_t* d) {
            return Image_Log(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), width,
                             height, small & 1);
        });
        break;
    case 4:
        set("Image_Square_NoTrunc", typeSize, 8, {1, -1, -2, -3}, false,
            [&](uint8_t* s, uint8_t* d) {
                return Image_Square_NoTrunc(s, reinterpret_cast<double*>(d), width, height, code);
            });
        c.inPlace = false;
        break;
    case 5:
        if (width < 0 || height < 0) return -1;
        set("ThresholdBinary", typeSize, typeSize, {1, -1, -2}, true, [&](uint8_t* s, uint8_t* d) {
            return ThresholdBinary(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                   code, width, height, d1, static_cast<uint32_t>(small));
        });
        c.samePlaces =
            (code == 3 || code == 4) && small >= 0 && small <= 3;  // others write nothing
        break;
    case 6:
        if (width < 0 || height < 0) return -1;
        set("ImgGainCorrect", 4, 4, {1, -1, -2}, false, [&](uint8_t* s, uint8_t* d) {
            return ImgGainCorrect(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), width,
                                  height);
        });
        break;
    case 7:
        set("EquHist", typeSize, typeSize, {1, -1, -2, -3}, true, [&](uint8_t* s, uint8_t* d) {
            return EquHist(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                           static_cast<int>(count), code);
        });
        break;
    case 8:
    case 9:
    case 10:
    case 11: {
        if (width < 0 || height < 0) return -1;
        const size_t e = which == 8 ? 1 : which == 9 ? 2 : which == 10 ? 4 : 8;
        // Two early exits leave the destination unwritten: no comparison.
        set("normalize", e, e, {1, -1}, false, [&, e](uint8_t* s, uint8_t* d) {
            const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
            switch (e) {
            case 1:
                return normalize_8U(s, d, w, h, static_cast<uint8_t>(any),
                                    static_cast<uint8_t>(any >> 8));
            case 2:
                return normalize_16U(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                     w, h, static_cast<uint16_t>(any), static_cast<uint16_t>(wide));
            case 4:
                return normalize_32F(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), w, h,
                                     f1, f2);
            default:
                return normalize_64F(reinterpret_cast<double*>(s), reinterpret_cast<double*>(d), w,
                                     h, d1, f2);
            }
        });
        break;
    }
    case 12:
        set("Normalize_TruncMinMax", typeSize, typeSize, {1, -1, -2}, false,  // writes nothing
            [&](uint8_t* s, uint8_t* d) {
                return Normalize_TruncMinMax(s, d, static_cast<uint32_t>(width),
                                             static_cast<uint32_t>(height), any, code);
            });
        break;
    case 13:
    case 14:
    case 15: {
        const int kw = in.ConsumeIntegralInRange(-1, 64), kh = in.ConsumeIntegralInRange(-1, 64);
        float* kernel = nulls == 3 ? nullptr : reinterpret_cast<float*>(buffer(Count(kw, kh) * 4));
        const size_t e = which == 13 ? 2 : which == 14 ? 1 : 4;
        // filter2D_8U leaves its destination alone, on purpose.
        set("filter2D", e, e, {1, -1, -3, -4, -5}, which != 14,
            [&, kernel, kw, kh, e](uint8_t* s, uint8_t* d) {
                if (e == 2)
                    return filter2D_16U(reinterpret_cast<uint16_t*>(s),
                                        reinterpret_cast<uint16_t*>(d), width, height, kernel, kh,
                                        kw);
                if (e == 1) return filter2D_8U(s, d, width, height, kernel, kw, kh);
                return filter2D_32F(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), width,
                                    height, kernel, kw, kh);
            });
        break;
    }
    case 16:
    case 17: {
        const int kw = in.ConsumeIntegralInRange(-1, 64), kh = in.ConsumeIntegralInRange(-1, 64);
        const size_t e = which == 16 ? 4 : 8;
        uint8_t* kernel = nulls == 3 ? nullptr : buffer(Count(kw, kh) * e);
        const int result = e == 4
                               ? getGaussker_32F(reinterpret_cast<float*>(kernel), kw, kh, d1, f1)
                               : getGaussker_64F(reinterpret_cast<double*>(kernel), kw, kh, d1, f1);
        FUZZ_CHECK(Allowed(result, {1, -1, -2}), "getGaussker %d", result);
        return 0;
    }
    case 18:
    case 19:
    case 20: {
        const int k1 = in.ConsumeIntegralInRange(-1, 40);
        const int k2 = in.ConsumeBool() ? k1 : in.ConsumeIntegralInRange(-1, 1 << 20);
        const size_t e = which == 18 ? 1 : which == 19 ? 2 : 4;
        set("gaussFilter", e, e, {1, -1, -2, -3, -4, -5}, which != 18,
            [&, k1, k2, e](uint8_t* s, uint8_t* d) {
                if (e == 1) return gaussFilter_8U(s, d, width, height, k1, k2, d1, f1);
                if (e == 2)
                    return gaussFilter_16U(reinterpret_cast<uint16_t*>(s),
                                           reinterpret_cast<uint16_t*>(d), width, height, k1, k2,
                                           d1, f1);
                return gaussFilter_32F(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d),
                                       width, height, k1, k2, d1, f1);
            });
        break;
    }
    case 21: {
        const int r = in.ConsumeBool() ? small : wide;
        set("Box_Filter", typeSize, typeSize, {1, -1, -2, -3, -4}, true,
            [&, r](uint8_t* s, uint8_t* d) { return Box_Filter(s, d, width, height, code, r); });
        break;
    }
    case 22: {
        const int r = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 2100);
        if (r > 0 && count * static_cast<uint64_t>(2 * r + 1) * (2 * r + 1) > kWorkLimit) return -1;
        set("Median_Blur", typeSize, typeSize, {1, -1, -2, -3, -4}, true,
            [&, r](uint8_t* s, uint8_t* d) { return Median_Blur(s, d, width, height, r, code); });
        break;
    }
    case 23:
    case 24:
    case 25:
    case 26:
    case 27:
    case 28:
    case 29:
    case 30: {
        const bool manual = which >= 27;
        const size_t e = std::vector<size_t>{1, 2, 4, 8}[(which - 23) % 4];
        const int tilesX = in.ConsumeIntegralInRange(-1, 42),
                  tilesY = in.ConsumeIntegralInRange(-1, 42);
        const int bins = in.ConsumeBool() ? in.ConsumeIntegralInRange(-2, 300) : any;
        const int peak = wide;
        // Tables of tiles x bins floats are bounded by the library's limit of 2^28 entries, which
        // still allows a gigabyte and seconds of work on a tiny image; such inputs say nothing new
        // and would only slow the run, so they are kept to 2^20 entries here.
        const int64_t effectiveBins =
            std::max<int64_t>(1, std::min<int64_t>(bins, e == 1 ? 256 : 65536));
        if (int64_t{std::max(tilesX, 1)} * std::max(tilesY, 1) * effectiveBins > (int64_t{1} << 20))
            return -1;
        set("clahe", e, e, {1, 0, -1, -2, -3, -4}, true, [=](uint8_t* s, uint8_t* d) {
            claheParam p;
            p.widthBlockNum = tilesX;
            p.heightBlockNum = tilesY;
            p.histBin = bins;
            p.peak = peak;
            if (manual) {
                if (e == 1)
                    return clahe_8U_Manual(s, d, width, height, tilesX, tilesY, bins, peak, "");
                if (e == 2)
                    return clahe_16U_Manual(reinterpret_cast<uint16_t*>(s),
                                            reinterpret_cast<uint16_t*>(d), width, height, tilesX,
                                            tilesY, bins, peak, "");
                if (e == 4)
                    return clahe_32F_Manual(reinterpret_cast<float*>(s),
                                            reinterpret_cast<float*>(d), width, height, tilesX,
                                            tilesY, bins, peak, "");
                return clahe_64F_Manual(reinterpret_cast<double*>(s), reinterpret_cast<double*>(d),
                                        width, height, tilesX, tilesY, bins, peak, "");
            }
            if (e == 1) return clahe_8U(s, d, width, height, &p, "");
            if (e == 2)
                return clahe_16U(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                 width, height, &p, "");
            if (e == 4)
                return clahe_32F(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), width,
                                 height, &p, "");
            return clahe_64F(reinterpret_cast<double*>(s), reinterpret_cast<double*>(d), width,
                             height, &p, "");
        });
        break;
    }
    case 31:
    case 32: {
        if (width < 0 || height < 0) return -1;
        const int r = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-1100, 1100);
        set(which == 31 ? "AdaptiveContrastEnhancement" : "AdaptiveContrastEnhancementQuick",
            typeSize, typeSize, {1, -1, -2, -4}, code == 3 || code == 4 || code == 5,
            [&, r](uint8_t* s, uint8_t* d) {
                auto* s16 = reinterpret_cast<uint16_t*>(s);
                auto* d16 = reinterpret_cast<uint16_t*>(d);
                return which == 31
                           ? AdaptiveContrastEnhancement(s16, d16, width, height, code, r, f1, f2)
                           : AdaptiveContrastEnhancementQuick(s16, d16, width, height, code, r, f1,
                                                              f2);
            });
        break;
    }
    case 33: {
        if (height < 0) return -1;
        const bool served = code == 3 || code == 4 || code == 5;
        struAceGammaParam param;
        param.param1 = in.ConsumeBool() ? small : wide;
        param.param2 = f1;
        param.param3 = f2;
        param.param4 = in.ConsumeBool() ? 1.0f : in.ConsumeProbability<float>() * 3;
        param.param5 = small & 1;
        param.param6 = (small >> 1) & 1;
        set("Ace_Gamma", typeSize, typeSize, {1, -1, -2, -4}, served,
            [=](uint8_t* s, uint8_t* d) mutable {
                return Ace_Gamma(reinterpret_cast<uint16_t*>(s), d, width,
                                 static_cast<uint32_t>(height), code, nulls == 3 ? nullptr : &param,
                                 "");
            });
        // In place with a code it does not serve it must leave the caller's buffer alone.
        c.inPlace = true;
        break;
    }
    case 34: {
        if (width < 0 || height < 0) return -1;
        struWLNParam param;
        param.wl = any;
        param.wr = wide;
        param.specifymin = small * 5000;
        param.specifymax = in.ConsumeIntegral<int>();
        set("WLN", 2, 2, {1, -1, -2, -4}, true, [=](uint8_t* s, uint8_t* d) mutable {
            return WLN(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d), width,
                       height, nulls == 3 ? nullptr : &param);
        });
        break;
    }
    case 35: {
        const int kw = in.ConsumeIntegralInRange(-1, 48), kh = in.ConsumeIntegralInRange(-1, 48);
        const float* kernel =
            nulls == 3 ? nullptr : reinterpret_cast<float*>(buffer(Count(kw, kh) * 4));
        const uint8_t* mask = in.ConsumeBool() ? buffer(count) : nullptr;
        set("ImageConv", 4, 4, {1, -1, -2, -3, -4}, true, [=](uint8_t* s, uint8_t* d) {
            return ImageConv(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), kernel,
                             width, height, kw, kh, mask);
        });
        break;
    }
    case 36: {
        const int r = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-10, 1100);
        set("USM_BOX", 2, 2, {1, -1, -2, -4}, true, [=](uint8_t* s, uint8_t* d) {
            return USM_BOX(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d), width,
                           height, r, f2, (any & 1) != 0);
        });
        break;
    }
    case 37: {
        if (width < 0 || height < 0) return -1;
        struUSMParam param;
        param.r = in.ConsumeBool() ? small : wide;
        param.lam = f2;
        param.isNeedNorm = any & 1;
        set("USM_EX", typeSize, typeSize, {1, -1, -2, -3, -4}, code == 4,
            [=](uint8_t* s, uint8_t* d) mutable {
                return USM_EX(reinterpret_cast<uint16_t*>(s), d, width, height, code,
                              nulls == 3 ? nullptr : &param, "");
            });
        break;
    }
    case 38: {
        const int r = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 1100);
        uint8_t* mask = in.ConsumeBool() ? buffer(count) : nullptr;
        set("USM_Gaussian", 2, 2, {1, -1, -2, -4}, mask == nullptr, [=](uint8_t* s, uint8_t* d) {
            return USM_Gaussian(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                width, height, r, f2, wide, f1, mask);
        });
        break;
    }
    case 39:
    case 40: {
        struBilatralParam param;
        param.k_w = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 2100);
        param.k_h = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 2100);
        param.sigColor_x = f1;
        param.sigColor_y = f2;
        param.sigSpace_x = in.ConsumeFloatingPoint<float>();
        if (count * static_cast<uint64_t>(std::max(param.k_w, 1)) * std::max(param.k_h, 1) >
            kWorkLimit)
            return -1;
        const bool f32 = which == 39;
        // It returns 1 also when it writes nothing (a size outside 1..2049, a null record).
        const bool writes = f32 && param.k_w >= 1 && param.k_w <= 2049 && param.k_h >= 1 &&
                            param.k_h <= 2049 && nulls != 3;
        set("bilateralFilter", f32 ? 4 : 2, f32 ? 4 : 2,
            f32 ? std::vector<int>{1} : std::vector<int>{1, -1}, writes,
            [=](uint8_t* s, uint8_t* d) mutable {
                if (f32)
                    return bilateralFilter_32F(reinterpret_cast<float*>(s),
                                               reinterpret_cast<float*>(d), width, height,
                                               nulls == 3 ? nullptr : &param);
                return bilateralFilter_16U(reinterpret_cast<uint16_t*>(s),
                                           reinterpret_cast<uint16_t*>(d), width, height, &param);
            });
        break;
    }
    case 41: {
        const int p = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 1100);
        const int s = in.ConsumeBool() ? small : in.ConsumeIntegralInRange(-2, 1100);
        // The cost grows with the search window, as the header says, and not with the patch.
        if (s > 0 && count * static_cast<uint64_t>(2 * s + 1) * (2 * s + 1) > kWorkLimit) return -1;
        set("FastNLM", 1, 1, {1, -1, -2, -3, -4}, true,
            [=](uint8_t* src, uint8_t* dst) { return FastNLM(src, dst, width, height, f1, p, s); });
        break;
    }
    case 42: {
        const int r = in.ConsumeIntegralInRange(-1, 6);
        const int passes = in.ConsumeIntegralInRange(-1, 300);
        float* map = nulls == 3 ? nullptr : reinterpret_cast<float*>(buffer(count * 4));
        set("ImgFix", typeSize, typeSize, {1, -1, -2, -3, -4, -5}, true,
            [=](uint8_t* s, uint8_t* d) {
                return ImgFix(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), map, width,
                              height, r, code, passes);
            });
        break;
    }
    case 43: {
        float* map = nulls == 3 ? nullptr : reinterpret_cast<float*>(buffer(count * 4));
        set("FixBadPixel", 4, 4, {1, -1, -2, -3}, true, [=](uint8_t* s, uint8_t* d) {
            return FixBadPixel(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), map, width,
                               height);
        });
        break;
    }
    case 44: {
        // rows x cols in, (rows - up - down) x (cols - left - right) out, negative margins as 0.
        clipParam param;
        param.up = in.ConsumeIntegralInRange(-3, 45);
        param.down = in.ConsumeIntegralInRange(-3, 45);
        param.left = in.ConsumeIntegralInRange(-3, 45);
        param.right = in.ConsumeIntegralInRange(-3, 45);
        const int rows = height - std::max(param.up, 0) - std::max(param.down, 0);
        const int cols = width - std::max(param.left, 0) - std::max(param.right, 0);
        const size_t e = std::vector<size_t>{1, 2, 4}[static_cast<size_t>(any & 0x7fff) % 3];
        c.inPlace = false;
        set("edgeClip", e, e, {1, -1}, false, [=](uint8_t* s, uint8_t* d) {
            if (e == 1) return edgeClip_8U(s, d, height, width, param);
            if (e == 2)
                return edgeClip_16U(reinterpret_cast<uint16_t*>(s), reinterpret_cast<uint16_t*>(d),
                                    height, width, param);
            return edgeClip_32F(reinterpret_cast<float*>(s), reinterpret_cast<float*>(d), height,
                                width, param);
        });
        c.inPlace = false;
        c.dstElement = e;
        // The destination holds only the clipped image.
        const size_t clipped = Count(cols, rows);
        Buffer src = Filled(in, count * e);
        Buffer dst(clipped * e);
        const Buffer before = src;
        const int result =
            c.run(nulls == 1 ? nullptr : src.data(), nulls == 2 ? nullptr : dst.data());
        FUZZ_CHECK(Allowed(result, {1, -1}) && src == before, "edgeClip: %d", result);
        return 0;
    }
    case 45: {
        const int bw = in.ConsumeIntegralInRange(-2, 44), bh = in.ConsumeIntegralInRange(-2, 44);
        const int x = in.ConsumeIntegralInRange(-50, 50), y = in.ConsumeIntegralInRange(-50, 50);
        uint8_t* block = nulls == 3 ? nullptr : buffer(Count(bw, bh) * typeSize);
        set("CopyRoiTo", typeSize, typeSize, {1, -1, -2, -3}, true, [=](uint8_t* s, uint8_t* d) {
            return CopyRoiTo(s, d, block, code, width, height, bw, bh, x, y);
        });
        break;
    }
    case 46: {
        const int mw = in.ConsumeIntegralInRange(-2, 44), mh = in.ConsumeIntegralInRange(-2, 44);
        const int x = in.ConsumeIntegralInRange(-50, 50), y = in.ConsumeIntegralInRange(-50, 50);
        // Codes 9 and 4 are 16-bit of 3 and 1 channels, 1, 2, 3 and 7 8-bit of 3, 4, 1 and 4, 6
        // float.
        size_t bytes = typeSize;
        switch (code) {
        case 9:
            bytes = 6;
            break;
        case 1:
            bytes = 3;
            break;
        case 2:
        case 7:
            bytes = 4;
            break;
        default:
            break;
        }
        uint8_t* mark = nulls == 3 ? nullptr : buffer(Count(mw, mh) * bytes);
        // The blend reads the destination: in place and out of place start from other pixels.
        set("AddWaterMask", bytes, bytes, {1, -1, -2, -3}, false, [=](uint8_t* s, uint8_t* d) {
            return AddWaterMask(s, d, mark, width, height, mw, mh, x, y, code, f2);
        });
        break;
    }
    default: {
        const int x = in.ConsumeIntegralInRange(-50, 50), y = in.ConsumeIntegralInRange(-50, 50);
        const int side = in.ConsumeIntegralInRange(-2, 50);
        if (small & 1) {
            // Two points that give no line (equal ones, or ones too close to tell a direction
            // from) write nothing.
            float a = 0, b = 0, cc = 0;
            GetLine2D(f1, f2, static_cast<float>(x), static_cast<float>(y), &a, &b, &cc);
            const bool writes = !(a == 0.0f && b == 0.0f && cc == 0.0f);
            set("MakeMaskByLine", 2, 2, {1, -1, -2}, writes, [=](uint8_t* s, uint8_t* d) {
                return MakeMaskByLine(reinterpret_cast<uint16_t*>(s),
                                      reinterpret_cast<uint16_t*>(d), width, height, f1, f2,
                                      static_cast<float>(x), static_cast<float>(y),
                                      static_cast<uint8_t>(side), static_cast<uint16_t>(any));
            });
        } else {
            // A square whose side, clamped to the image, is below 2 writes nothing, on purpose:
            // no comparison then.
            const int px = std::max(0, std::min(x, width - 1)),
                      py = std::max(0, std::min(y, height - 1));
            const int clamped = std::min({side, width - px, height - py});
            set("Copy_diagonal", typeSize, typeSize, {1, -1, -2, -3}, clamped >= 2,
                [=](uint8_t* s, uint8_t* d) {
                    return (any & 2)
                               ? Copy_LeftDown_To_RightUp(s, d, width, height, code, x, y, side)
                               : Copy_RightDown_To_LeftUp(s, d, width, height, code, x, y, side);
                });
        }
        break;
    }
    }

    // Out of place: the source stays as it was.
    Buffer src = Filled(in, count * c.srcElement);
    const Buffer original = src;
    Buffer dst(count * c.dstElement);
    std::memset(dst.data(), 0x5A, dst.size);
    const int result = c.run(nulls == 1 ? nullptr : src.data(), nulls == 2 ? nullptr : dst.data());
    FUZZ_CHECK(Allowed(result, c.results), "%s returned %d (code %d, %d x %d)", c.name, result,
               code, width, height);
    FUZZ_CHECK(src == original, "%s changed its source out of place", c.name);

    // In place: where the function serves it, the out-of-place bytes.
    if (c.inPlace && c.srcElement == c.dstElement && nulls != 1 && nulls != 2) {
        Buffer same = original;
        const int again = c.run(same.data(), same.data());
        FUZZ_CHECK(again == result, "%s returned %d in place and %d out of place", c.name, again,
                   result);
        if (c.samePlaces && result == 1 && !(same == dst)) {
            size_t at = 0;
            while (same.data()[at] == dst.data()[at]) ++at;
            FUZZ_CHECK(false, "%s gave other bytes in place (code %d, %d x %d): byte %zu of %zu",
                       c.name, code, width, height, at, dst.size);
        }
    }
    return 0;
}
