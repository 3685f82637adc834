// Time per full frame of the point operations, linear and median filters, defect repair and
// geometry on the largest sensor's frame (1300 x 1800, 16-bit), with the float and 8-bit
// variants where a function takes those.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "bench_frames.h"
#include "veltrano.h"

namespace {

using bench::Frame16;
using bench::Frame8;
using bench::kHeight;
using bench::kPixels;
using bench::kWidth;

const std::vector<float>& FrameF() {
    static const std::vector<float> frame(Frame16().begin(), Frame16().end());
    return frame;
}

// A realistic defect map: scattered single pixels, a dead column, a dead row segment and a
// small cluster.
const std::vector<float>& DefectMap() {
    static const std::vector<float> map = [] {
        std::vector<float> m(kPixels, 0.0f);
        std::mt19937 gen(7);
        std::uniform_int_distribution<size_t> pick(0, kPixels - 1);
        for (int i = 0; i < 3000; ++i) m[pick(gen)] = 1.0f;
        for (int y = 0; y < kHeight; ++y) m[static_cast<size_t>(y) * kWidth + 517] = 1.0f;
        for (int x = 100; x < 900; ++x) m[static_cast<size_t>(1203) * kWidth + x] = 1.0f;
        for (int y = 300; y < 330; ++y)
            for (int x = 1000; x < 1040; ++x) m[static_cast<size_t>(y) * kWidth + x] = 1.0f;
        return m;
    }();
    return map;
}

template <class T>
void Finish(benchmark::State& state, const std::vector<T>& out) {
    benchmark::DoNotOptimize(out.data());
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// ---- point operations --------------------------------------------------------------------

void BM_Inverse(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) Inverse(src.data(), dst.data(), kWidth, kHeight, 3);
    Finish(state, dst);
}

void BM_BrigntAndContrast(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state)
        BrigntAndContrast(src.data(), dst.data(), kWidth, kHeight, 4, 500.0f, 1.2f);
    Finish(state, dst);
}

void BM_GammaCorrect_16U(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) GammaCorrect(src.data(), dst.data(), kWidth, kHeight, 0.8f, 4);
    Finish(state, dst);
}

void BM_GammaCorrect_8U(benchmark::State& state) {
    auto src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state) GammaCorrect(src.data(), dst.data(), kWidth, kHeight, 0.8f, 3);
    Finish(state, dst);
}

void BM_GammaCorrect_32F(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) GammaCorrect(src.data(), dst.data(), kWidth, kHeight, 0.8f, 6);
    Finish(state, dst);
}

void BM_Image_Log(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) Image_Log(src.data(), dst.data(), kWidth, kHeight, 1);
    Finish(state, dst);
}

void BM_Image_Square_NoTrunc(benchmark::State& state) {
    auto src = Frame16();
    std::vector<double> dst(kPixels);
    for (auto _ : state) Image_Square_NoTrunc(src.data(), dst.data(), kWidth, kHeight, 4);
    Finish(state, dst);
}

void BM_ThresholdBinary(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) ThresholdBinary(src.data(), dst.data(), 4, kWidth, kHeight, 20000.0, 2);
    Finish(state, dst);
}

void BM_ImgGainCorrect(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) ImgGainCorrect(src.data(), dst.data(), kWidth, kHeight);
    Finish(state, dst);
}

void BM_EquHist_16U(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) EquHist(src.data(), dst.data(), kWidth * kHeight, 4);
    Finish(state, dst);
}

void BM_EquHist_8U(benchmark::State& state) {
    auto src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state)
        EquHist(reinterpret_cast<uint16_t*>(src.data()), reinterpret_cast<uint16_t*>(dst.data()),
                kWidth * kHeight, 3);
    Finish(state, dst);
}

// ---- filters -----------------------------------------------------------------------------

std::vector<float> Kernel(int size) {
    std::vector<float> k(static_cast<size_t>(size) * size);
    getGaussker_32F(k.data(), size, size, 1.2, 1.2);
    return k;
}

void BM_filter2D_16U(benchmark::State& state) {
    const int ks = static_cast<int>(state.range(0));
    auto src = Frame16();
    auto k = Kernel(ks);
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) filter2D_16U(src.data(), dst.data(), kWidth, kHeight, k.data(), ks, ks);
    Finish(state, dst);
}

void BM_filter2D_8U(benchmark::State& state) {
    const int ks = static_cast<int>(state.range(0));
    auto src = Frame8();
    auto k = Kernel(ks);
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state) filter2D_8U(src.data(), dst.data(), kWidth, kHeight, k.data(), ks, ks);
    Finish(state, dst);
}

void BM_filter2D_32F(benchmark::State& state) {
    const int ks = static_cast<int>(state.range(0));
    auto src = FrameF();
    auto k = Kernel(ks);
    std::vector<float> dst(kPixels);
    for (auto _ : state) filter2D_32F(src.data(), dst.data(), kWidth, kHeight, k.data(), ks, ks);
    Finish(state, dst);
}

void BM_getGaussker_32F(benchmark::State& state) {
    std::vector<float> k(25);
    for (auto _ : state) getGaussker_32F(k.data(), 5, 5, 1.2, 1.2);
    Finish(state, k);
}

void BM_getGaussker_64F(benchmark::State& state) {
    std::vector<double> k(25);
    for (auto _ : state) getGaussker_64F(k.data(), 5, 5, 1.2, 1.2);
    Finish(state, k);
}

void BM_gaussFilter_16U(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) gaussFilter_16U(src.data(), dst.data(), kWidth, kHeight, 5, 5, 1.2, 1.2);
    Finish(state, dst);
}

void BM_gaussFilter_8U(benchmark::State& state) {
    auto src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state) gaussFilter_8U(src.data(), dst.data(), kWidth, kHeight, 5, 5, 1.2, 1.2);
    Finish(state, dst);
}

void BM_gaussFilter_32F(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) gaussFilter_32F(src.data(), dst.data(), kWidth, kHeight, 5, 5, 1.2, 1.2);
    Finish(state, dst);
}

void BM_Box_Filter_16U(benchmark::State& state) {
    const int r = static_cast<int>(state.range(0));
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) Box_Filter(src.data(), dst.data(), kWidth, kHeight, 4, r);
    Finish(state, dst);
}

void BM_Box_Filter_32F(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) Box_Filter(src.data(), dst.data(), kWidth, kHeight, 6, 2);
    Finish(state, dst);
}

void BM_Median_Blur_16U(benchmark::State& state) {
    const int r = static_cast<int>(state.range(0));
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) Median_Blur(src.data(), dst.data(), kWidth, kHeight, r, 4);
    Finish(state, dst);
}

void BM_Median_Blur_8U(benchmark::State& state) {
    const int r = static_cast<int>(state.range(0));
    auto src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state) Median_Blur(src.data(), dst.data(), kWidth, kHeight, r, 3);
    Finish(state, dst);
}

void BM_Median_Blur_32F(benchmark::State& state) {
    const int r = static_cast<int>(state.range(0));
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state) Median_Blur(src.data(), dst.data(), kWidth, kHeight, r, 6);
    Finish(state, dst);
}

// Signed 16-bit: the frame shifted down by half the range, so that it holds negative values.
void BM_Median_Blur_16S(benchmark::State& state) {
    const int r = static_cast<int>(state.range(0));
    static const std::vector<int16_t> src = [] {
        std::vector<int16_t> f(kPixels);
        for (size_t i = 0; i < kPixels; ++i) f[i] = static_cast<int16_t>(Frame16()[i] - 32768);
        return f;
    }();
    std::vector<int16_t> dst(kPixels);
    for (auto _ : state)
        Median_Blur(const_cast<int16_t*>(src.data()), dst.data(), kWidth, kHeight, r, 5);
    Finish(state, dst);
}

// ---- defect repair -------------------------------------------------------------------------

void BM_ImgFix(benchmark::State& state) {
    auto src = FrameF();
    auto map = DefectMap();
    std::vector<float> dst(kPixels);
    for (auto _ : state) ImgFix(src.data(), dst.data(), map.data(), kWidth, kHeight, 1, 6, 200);
    Finish(state, dst);
}

void BM_FixBadPixel(benchmark::State& state) {
    auto src = FrameF();
    auto map = DefectMap();
    std::vector<float> dst(kPixels);
    for (auto _ : state) FixBadPixel(src.data(), dst.data(), map.data(), kWidth, kHeight);
    Finish(state, dst);
}

clipParam SensorMargins() {
    clipParam p;
    p.up = 20;
    p.down = 20;
    p.left = 30;
    p.right = 30;
    return p;
}

void BM_edgeClip_16U(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    const clipParam p = SensorMargins();
    for (auto _ : state) edgeClip_16U(src.data(), dst.data(), kHeight, kWidth, p);
    Finish(state, dst);
}

void BM_edgeClip_8U(benchmark::State& state) {
    auto src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    const clipParam p = SensorMargins();
    for (auto _ : state) edgeClip_8U(src.data(), dst.data(), kHeight, kWidth, p);
    Finish(state, dst);
}

void BM_edgeClip_32F(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    const clipParam p = SensorMargins();
    for (auto _ : state) edgeClip_32F(src.data(), dst.data(), kHeight, kWidth, p);
    Finish(state, dst);
}

// ---- geometry ------------------------------------------------------------------------------

void BM_CopyRoiTo(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels), block(400 * 300, 1234);
    for (auto _ : state)
        CopyRoiTo(reinterpret_cast<uint8_t*>(src.data()), reinterpret_cast<uint8_t*>(dst.data()),
                  reinterpret_cast<uint8_t*>(block.data()), 4, kWidth, kHeight, 400, 300, 1100,
                  100);
    Finish(state, dst);
}

void BM_AddWaterMask(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels), mark(400 * 120);
    for (size_t i = 0; i < mark.size(); ++i) mark[i] = (i / 7) % 3 == 0 ? 60000 : 0;
    for (auto _ : state)
        AddWaterMask(reinterpret_cast<uint8_t*>(src.data()), reinterpret_cast<uint8_t*>(dst.data()),
                     reinterpret_cast<uint8_t*>(mark.data()), kWidth, kHeight, 400, 120, 850, 1650,
                     4, 0.3f);
    Finish(state, dst);
}

// The detector's use: squares of the frame's width-limited side at the top corners, float
// frames addressed as 4-byte elements.
void BM_Copy_RightDown_To_LeftUp(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state)
        Copy_RightDown_To_LeftUp(reinterpret_cast<uint8_t*>(src.data()),
                                 reinterpret_cast<uint8_t*>(dst.data()), kWidth, kHeight, 8, 0, 0,
                                 300);
    Finish(state, dst);
}

void BM_Copy_LeftDown_To_RightUp(benchmark::State& state) {
    auto src = FrameF();
    std::vector<float> dst(kPixels);
    for (auto _ : state)
        Copy_LeftDown_To_RightUp(reinterpret_cast<uint8_t*>(src.data()),
                                 reinterpret_cast<uint8_t*>(dst.data()), kWidth, kHeight, 8,
                                 kWidth - 300, 0, 300);
    Finish(state, dst);
}

void BM_GetLine2D(benchmark::State& state) {
    float a = 0, b = 0, c = 0;
    float x = 1.0f;
    for (auto _ : state) {
        GetLine2D(x, 2.0f, 1250.0f, 1700.0f, &a, &b, &c);
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(c);
    }
}

void BM_MakeMaskByLine(benchmark::State& state) {
    auto src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state)
        MakeMaskByLine(src.data(), dst.data(), kWidth, kHeight, 0, 1500, 1300, 1700, 1, 0);
    Finish(state, dst);
}

}  // namespace

BENCHMARK(BM_Inverse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BrigntAndContrast)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GammaCorrect_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GammaCorrect_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GammaCorrect_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Image_Log)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Image_Square_NoTrunc)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ThresholdBinary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImgGainCorrect)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EquHist_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EquHist_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_filter2D_16U)->Arg(3)->Arg(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_filter2D_8U)->Arg(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_filter2D_32F)->Arg(1)->Arg(3)->Arg(5)->Arg(7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_getGaussker_32F)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_getGaussker_64F)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_gaussFilter_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_gaussFilter_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_gaussFilter_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Box_Filter_16U)->Arg(1)->Arg(2)->Arg(5)->Arg(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Box_Filter_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Median_Blur_16U)
    ->Arg(1)
    ->Arg(2)
    ->Arg(3)
    ->Arg(4)
    ->Arg(10)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Median_Blur_8U)->Arg(1)->Arg(3)->Arg(7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Median_Blur_32F)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Median_Blur_16S)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImgFix)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FixBadPixel)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_edgeClip_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_edgeClip_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_edgeClip_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyRoiTo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AddWaterMask)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_RightDown_To_LeftUp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy_LeftDown_To_RightUp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetLine2D)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_MakeMaskByLine)->Unit(benchmark::kMillisecond);
