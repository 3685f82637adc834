// Time per full sensor frame (one iteration is one frame) (1300 x 1800) of CLAHE, contrast
// enhancement and window levelling, the bilateral filter, non-local means and unsharp masking, with
// the default parameter records.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

#include "bench_frames.h"
#include "veltrano.h"

namespace {

using bench::Converted;
using bench::Frame16;
using bench::Frame8;
using bench::kHeight;
using bench::kPixels;
using bench::kWidth;

template <class T, class Run>
void ClaheCase(benchmark::State& state, Run run, double scale) {
    std::vector<T> src = Converted<T>(scale);
    std::vector<T> dst(kPixels);
    for (auto _ : state) {
        claheParam param;
        benchmark::DoNotOptimize(run(src.data(), dst.data(), &param));
    }
}

void BM_clahe_8U(benchmark::State& s) {
    ClaheCase<uint8_t>(
        s,
        [](uint8_t* a, uint8_t* b, claheParam* p) {
            return clahe_8U(a, b, kWidth, kHeight, p, nullptr);
        },
        255.0 / 65535.0);
}
void BM_clahe_16U(benchmark::State& s) {
    ClaheCase<uint16_t>(
        s,
        [](uint16_t* a, uint16_t* b, claheParam* p) {
            return clahe_16U(a, b, kWidth, kHeight, p, nullptr);
        },
        1.0);
}
void BM_clahe_32F(benchmark::State& s) {
    ClaheCase<float>(
        s,
        [](float* a, float* b, claheParam* p) {
            return clahe_32F(a, b, kWidth, kHeight, p, nullptr);
        },
        1.0);
}
void BM_clahe_64F(benchmark::State& s) {
    ClaheCase<double>(
        s,
        [](double* a, double* b, claheParam* p) {
            return clahe_64F(a, b, kWidth, kHeight, p, nullptr);
        },
        1.0);
}

// The _Manual forms with the record's defaults (8, 8, 256, 200).
template <class T, class Run>
void ClaheManualCase(benchmark::State& state, Run run, double scale) {
    std::vector<T> src = Converted<T>(scale);
    std::vector<T> dst(kPixels);
    for (auto _ : state) benchmark::DoNotOptimize(run(src.data(), dst.data()));
}

void BM_clahe_8U_Manual(benchmark::State& s) {
    ClaheManualCase<uint8_t>(
        s,
        [](uint8_t* a, uint8_t* b) {
            return clahe_8U_Manual(a, b, kWidth, kHeight, 8, 8, 256, 200, nullptr);
        },
        255.0 / 65535.0);
}
void BM_clahe_16U_Manual(benchmark::State& s) {
    ClaheManualCase<uint16_t>(
        s,
        [](uint16_t* a, uint16_t* b) {
            return clahe_16U_Manual(a, b, kWidth, kHeight, 8, 8, 256, 200, nullptr);
        },
        1.0);
}
void BM_clahe_32F_Manual(benchmark::State& s) {
    ClaheManualCase<float>(
        s,
        [](float* a, float* b) {
            return clahe_32F_Manual(a, b, kWidth, kHeight, 8, 8, 256, 200, nullptr);
        },
        1.0);
}
void BM_clahe_64F_Manual(benchmark::State& s) {
    ClaheManualCase<double>(
        s,
        [](double* a, double* b) {
            return clahe_64F_Manual(a, b, kWidth, kHeight, 8, 8, 256, 200, nullptr);
        },
        1.0);
}

// The frame with more sensor noise (sigma about 600 in all), as in the comparison with other
// image libraries.
const std::vector<uint16_t>& NoisyFrame16() {
    static const std::vector<uint16_t> frame = [] {
        std::vector<uint16_t> f = Frame16();
        std::mt19937 gen(600);
        std::normal_distribution<double> noise(0.0, 572.0);  // sqrt(600^2 - 180^2)
        for (uint16_t& v : f) v = static_cast<uint16_t>(std::clamp(v + noise(gen), 0.0, 65535.0));
        return f;
    }();
    return frame;
}

// CLAHE out of place with explicit settings: tile columns, tile rows, bins; peak 200. 8-bit
// data is the 16-bit frame shifted right by 8.
template <class T>
void ClaheSettingsCase(benchmark::State& state) {
    const std::vector<uint16_t>& f = NoisyFrame16();
    std::vector<T> src(kPixels), dst(kPixels);
    for (size_t i = 0; i < kPixels; ++i) src[i] = static_cast<T>(sizeof(T) == 1 ? f[i] >> 8 : f[i]);
    const int nx = static_cast<int>(state.range(0)), ny = static_cast<int>(state.range(1));
    const int bins = static_cast<int>(state.range(2));
    for (auto _ : state) {
        int r = 0;
        if constexpr (std::is_same_v<T, uint8_t>)
            r = clahe_8U_Manual(src.data(), dst.data(), kWidth, kHeight, nx, ny, bins, 200,
                                nullptr);
        if constexpr (std::is_same_v<T, uint16_t>)
            r = clahe_16U_Manual(src.data(), dst.data(), kWidth, kHeight, nx, ny, bins, 200,
                                 nullptr);
        if constexpr (std::is_same_v<T, float>)
            r = clahe_32F_Manual(src.data(), dst.data(), kWidth, kHeight, nx, ny, bins, 200,
                                 nullptr);
        if constexpr (std::is_same_v<T, double>)
            r = clahe_64F_Manual(src.data(), dst.data(), kWidth, kHeight, nx, ny, bins, 200,
                                 nullptr);
        benchmark::DoNotOptimize(r);
    }
}
void BM_clahe_8U_Settings(benchmark::State& s) { ClaheSettingsCase<uint8_t>(s); }
void BM_clahe_16U_Settings(benchmark::State& s) { ClaheSettingsCase<uint16_t>(s); }
void BM_clahe_32F_Settings(benchmark::State& s) { ClaheSettingsCase<float>(s); }
void BM_clahe_64F_Settings(benchmark::State& s) { ClaheSettingsCase<double>(s); }

// As the default chain runs it: in place, 4 tile columns by 6 tile rows, 1024 bins, peak 200.
void BM_clahe_16U_Chain(benchmark::State& state) {
    std::vector<uint16_t> frame = NoisyFrame16(), work(kPixels);
    for (auto _ : state) {
        state.PauseTiming();
        work = frame;
        state.ResumeTiming();
        claheParam p;
        p.widthBlockNum = 4, p.heightBlockNum = 6, p.histBin = 1024, p.peak = 200;
        benchmark::DoNotOptimize(clahe_16U(work.data(), work.data(), kWidth, kHeight, &p, ""));
    }
}

// A 5 x 5 bilateral filter on the 16-bit values as floats, with fall-offs that act on this
// frame: spatial cS = 1 / (2 * 0.00375 * 600) = 1 / 4.5 (a spatial sigma of 1.5) and value
// cR = 1 / (2 * range * 600). Argument: the value sigma range (600: weights fall off within
// the noise; 30: most value weights underflow beyond a few noise sigmas).
void BM_bilateralFilter_32F_Frame(benchmark::State& state) {
    const std::vector<uint16_t>& f = NoisyFrame16();
    std::vector<float> src(f.begin(), f.end()), dst(kPixels);
    struBilatralParam p;
    p.sigColor_x = 0.00375f;
    p.sigColor_y = 600.0f;
    p.sigSpace_x = static_cast<float>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(bilateralFilter_32F(src.data(), dst.data(), kWidth, kHeight, &p));
}

// Contrast enhancement with the Ace_Gamma record's defaults: radius 20, alpha 1, maxGain 3.
void BM_AdaptiveContrastEnhancement(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    const struAceGammaParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(AdaptiveContrastEnhancement(
            src.data(), dst.data(), kWidth, kHeight, 4, p.param1, p.param2, p.param3));
}

void BM_AdaptiveContrastEnhancementQuick(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    const struAceGammaParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(AdaptiveContrastEnhancementQuick(
            src.data(), dst.data(), kWidth, kHeight, 4, p.param1, p.param2, p.param3));
}

void BM_Ace_Gamma(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    struAceGammaParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            Ace_Gamma(src.data(), dst.data(), kWidth, kHeight, 4, &p, nullptr));
}

// The default record's window is 0..0, which clips everything to 0; the second case uses a
// window inside the frame's range.
void BM_WLN(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    struWLNParam p;
    if (state.range(0) != 0) {
        p.wl = 10000;
        p.wr = 50000;
    }
    for (auto _ : state) benchmark::DoNotOptimize(WLN(src.data(), dst.data(), kWidth, kHeight, &p));
}

void BM_bilateralFilter_32F(benchmark::State& state) {
    std::vector<float> src = Converted<float>(1.0 / 65535.0), dst(kPixels);
    struBilatralParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(bilateralFilter_32F(src.data(), dst.data(), kWidth, kHeight, &p));
}

void BM_bilateralFilter_16U(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    struBilatralParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(bilateralFilter_16U(src.data(), dst.data(), kWidth, kHeight, &p));
}

// The record's settings (patch radius 1, search radius 3, h 3); the second case widens the
// patch to radius 4, which should cost about the same.
void BM_FastNLM(benchmark::State& state) {
    std::vector<uint8_t> src = Frame8(), dst(kPixels);
    struFastNLMParam p;
    p.rd = static_cast<int>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(FastNLM(src.data(), dst.data(), kWidth, kHeight, p.h, p.rd, p.rD));
}

// A 5 x 5 Gaussian (split into two passes) and a 5 x 5 kernel that is not separable.
void BM_ImageConv(benchmark::State& state) {
    std::vector<float> src = Converted<float>(1.0), dst(kPixels);
    std::vector<float> kernel(25);
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j)
            kernel[i * 5 + j] = state.range(0) == 0
                                    ? std::exp(-((i - 2) * (i - 2) + (j - 2) * (j - 2)) / 2.0f)
                                    : static_cast<float>((i * 7 + j * 3) % 5) - 1.5f;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            ImageConv(src.data(), dst.data(), kernel.data(), kWidth, kHeight, 5, 5, nullptr));
}

// The record's amount at radius 1 (its default), 2 and 10 (past the radius up to which float
// window sums stay exact).
void BM_USM_BOX(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    const struUSMParam p;
    const int r = static_cast<int>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(
            USM_BOX(src.data(), dst.data(), kWidth, kHeight, r, p.lam, p.isNeedNorm != 0));
}

void BM_USM_EX(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    struUSMParam p;
    for (auto _ : state)
        benchmark::DoNotOptimize(USM_EX(src.data(), dst.data(), kWidth, kHeight, 4, &p, nullptr));
}

// Radius 2 (a 5 x 5 Gaussian), sigma 1, the box record's amount, with and without the mask.
void BM_USM_Gaussian(benchmark::State& state) {
    std::vector<uint16_t> src = Frame16(), dst(kPixels);
    std::vector<uint8_t> mask(kPixels);
    const struUSMParam p;
    uint8_t* m = state.range(0) != 0 ? mask.data() : nullptr;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            USM_Gaussian(src.data(), dst.data(), kWidth, kHeight, 2, p.lam, 500, 1.0f, m));
}

}  // namespace

BENCHMARK(BM_clahe_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_64F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_8U_Manual)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_16U_Manual)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_32F_Manual)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_64F_Manual)->Unit(benchmark::kMillisecond);
// Tile columns, tile rows, bins.
BENCHMARK(BM_clahe_8U_Settings)
    ->Args({8, 8, 256})
    ->Args({6, 4, 1024})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_16U_Settings)
    ->Args({8, 8, 256})
    ->Args({6, 4, 1024})
    ->Args({8, 8, 65536})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_32F_Settings)
    ->Args({8, 8, 256})
    ->Args({6, 4, 1024})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_64F_Settings)
    ->Args({8, 8, 256})
    ->Args({6, 4, 1024})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clahe_16U_Chain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AdaptiveContrastEnhancement)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AdaptiveContrastEnhancementQuick)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ace_Gamma)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WLN)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_bilateralFilter_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_bilateralFilter_32F_Frame)->Arg(600)->Arg(30)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_bilateralFilter_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FastNLM)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImageConv)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_USM_BOX)->Arg(1)->Arg(2)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_USM_EX)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_USM_Gaussian)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
