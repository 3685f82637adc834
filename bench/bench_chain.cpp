// Time per full sensor frame (1300 x 1800) of the default post-processing chain and of its
// non-local-means step alone, on a frame as noisy as a low-dose exposure.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "bench_frames.h"
#include "veltrano.h"

namespace {

using bench::kHeight;
using bench::kPixels;
using bench::kWidth;

// The shared frame carries noise of sigma 180; 572 more (independent) makes sigma 600, the
// noise of a low-dose frame, which is what the denoiser is there for.
const std::vector<uint16_t>& NoisyFrame16() {
    static const std::vector<uint16_t> frame = [] {
        std::vector<uint16_t> f = bench::Frame16();
        std::mt19937 gen(600);
        std::normal_distribution<double> noise(0.0, 572.0);
        for (uint16_t& v : f) v = static_cast<uint16_t>(std::clamp(v + noise(gen), 0.0, 65535.0));
        return f;
    }();
    return frame;
}

// The 8-bit rendering the chain's FastNLM step works on.
std::vector<uint8_t> NoisyFrame8() {
    const std::vector<uint16_t>& f = NoisyFrame16();
    std::vector<uint8_t> out(kPixels);
    for (size_t i = 0; i < kPixels; ++i) out[i] = static_cast<uint8_t>((f[i] + 128) / 257);
    return out;
}

// Patch radius 1, search radius 3; strength 3 (the record's default) and 7 (the default chain's).
void BM_FastNLM_Noisy(benchmark::State& state) {
    std::vector<uint8_t> src = NoisyFrame8(), dst(kPixels);
    const float h = static_cast<float>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(FastNLM(src.data(), dst.data(), kWidth, kHeight, h, 1, 3));
}

void BM_DefaultChain(benchmark::State& state) {
    const std::vector<uint16_t>& src = NoisyFrame16();
    std::vector<uint16_t> dst(kPixels);
    std::string text;
    for (auto _ : state)
        benchmark::DoNotOptimize(Img_Post_Process_Chain(src.data(), dst.data(), kWidth, kHeight,
                                                        VELTRANO_DEFAULT_CHAIN, text));
}

}  // namespace

BENCHMARK(BM_FastNLM_Noisy)->Arg(3)->Arg(7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DefaultChain)->Unit(benchmark::kMillisecond);
