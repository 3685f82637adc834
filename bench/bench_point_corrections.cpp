// The yardstick of the point operations (one copy of the 16-bit frame), the normalisation
// family, and the corrections the detector applies to every acquired frame: gain correction
// with one and with four gain frames, the gain matrix of one flat frame, the defect repair
// through the detector object and the outlier statistics. The corrections print one log line
// per call; run the program with its output sent elsewhere when that matters.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_frames.h"
#include "veltrano.h"

namespace {

using bench::Frame16;
using bench::Frame8;
using bench::kHeight;
using bench::kPixels;
using bench::kWidth;

void BM_FrameCopy16(benchmark::State& state) {
    const std::vector<uint16_t>& src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kPixels * sizeof(uint16_t));
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
}

void BM_normalize_16U(benchmark::State& state) {
    const std::vector<uint16_t>& src = Frame16();
    std::vector<uint16_t> dst(kPixels);
    for (auto _ : state)
        benchmark::DoNotOptimize(normalize_16U(src.data(), dst.data(), kWidth, kHeight, 0, 4095));
}

void BM_normalize_8U(benchmark::State& state) {
    const std::vector<uint8_t>& src = Frame8();
    std::vector<uint8_t> dst(kPixels);
    for (auto _ : state)
        benchmark::DoNotOptimize(normalize_8U(src.data(), dst.data(), kWidth, kHeight, 10, 240));
}

void BM_normalize_32F(benchmark::State& state) {
    const std::vector<float> src = bench::Converted<float>(1.0 / 65535.0);
    std::vector<float> dst(kPixels);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            normalize_32F(src.data(), dst.data(), kWidth, kHeight, 0.0f, 1.0f));
}

// ---- the detector's corrections -------------------------------------------------------------

namespace fs = std::filesystem;

// A detector whose protected statistics pass the benchmark may call.
class BenchDetector : public CVeltrano {
public:
    using CVeltrano::CalcOutlierMarks;
    using CVeltrano::CVeltrano;
};

// A work folder with a gain file of `frames` flat frames (levels 3000, 9000, 18000, 30000 with
// a little structure) and a defect file with scattered defects, a dead column and a cluster.
class CalibratedFolder {
public:
    explicit CalibratedFolder(int frames) {
        path_ = fs::temp_directory_path() / ("veltrano_bench_" + std::to_string(frames) + "_" +
                                             std::to_string(std::random_device()()));
        const fs::path folder = path_ / "Correct" / "Default";
        fs::create_directories(folder);
        std::mt19937 gen(11);
        std::normal_distribution<double> noise(0.0, 40.0);
        std::string gain(1040, 'H');
        const int levels[] = {3000, 9000, 18000, 30000};
        for (int f = 0; f < frames; ++f) {
            for (size_t i = 0; i < kPixels; ++i) {
                const double v =
                    levels[f] * (0.9 + 0.2 * static_cast<double>(i % kWidth) / kWidth) + noise(gen);
                const uint16_t p = static_cast<uint16_t>(v);
                gain += {static_cast<char>(p & 0xFF), static_cast<char>(p >> 8)};
            }
        }
        std::ofstream(folder / "sensor.gn", std::ios::binary)
            .write(gain.data(), static_cast<long>(gain.size()));
        std::string defects(1040 + kPixels, '\0');
        std::uniform_int_distribution<size_t> pick(0, kPixels - 1);
        for (int i = 0; i < 3000; ++i) defects[1040 + pick(gen)] = 1;
        for (int y = 0; y < kHeight; ++y) defects[1040 + static_cast<size_t>(y) * kWidth + 517] = 1;
        for (int y = 300; y < 330; ++y)
            for (int x = 1000; x < 1040; ++x)
                defects[1040 + static_cast<size_t>(y) * kWidth + x] = 1;
        std::ofstream(folder / "sensor.dft", std::ios::binary)
            .write(defects.data(), static_cast<long>(defects.size()));
    }
    ~CalibratedFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string str() const { return path_.string(); }

private:
    fs::path path_;
};

imgmat FrameImage() {
    imgmat image(kWidth, kHeight, 1);
    const std::vector<uint16_t>& f = Frame16();
    for (size_t i = 0; i < kPixels; ++i) image.data[i] = static_cast<float>(f[i]);
    return image;
}

// Gain correction alone (the gain frames loaded once); the frame is restored outside the timing.
void BM_DoGainCorrection(benchmark::State& state) {
    CalibratedFolder folder(static_cast<int>(state.range(0)));
    BenchDetector detector(folder.str().c_str());
    detector.GetAndCaliFile_Gain();
    const imgmat original = FrameImage();
    imgmat image = original;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(image.data, original.data, kPixels * sizeof(float));
        state.ResumeTiming();
        benchmark::DoNotOptimize(detector.DoGainCorrection(image));
    }
}

void BM_CalcGainMat(benchmark::State& state) {
    BenchDetector detector("unused");
    imgmat flat = FrameImage();
    imgmat gain;
    for (auto _ : state) {
        detector.CalcGainMat(flat, gain);
        benchmark::DoNotOptimize(gain.data);
    }
}

void BM_DoFixBadPixel(benchmark::State& state) {
    CalibratedFolder folder(1);
    BenchDetector detector(folder.str().c_str());
    detector.GetBadPixelInfo();
    imgmat defects;
    defects.readRawFile((folder.str() + "/Correct/Default/sensor.dft").c_str(), kWidth, kHeight,
                        1040, 1);
    const imgmat original = FrameImage();
    imgmat image = original;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(image.data, original.data, kPixels * sizeof(float));
        state.ResumeTiming();
        benchmark::DoNotOptimize(detector.DoFixBadPixel(image, defects));
    }
}

void BM_CalcOutlierMarks(benchmark::State& state) {
    CalibratedFolder folder(1);
    BenchDetector detector(folder.str().c_str());
    detector.GetBadPixelInfo();
    const imgmat image = FrameImage();
    imgmat marks;
    int low = 0;
    int high = 0;
    for (auto _ : state) {
        detector.CalcOutlierMarks(image, 281, low, high, marks);
        benchmark::DoNotOptimize(marks.data);
    }
}

}  // namespace

BENCHMARK(BM_FrameCopy16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_normalize_16U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_normalize_8U)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_normalize_32F)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DoGainCorrection)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalcGainMat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DoFixBadPixel)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalcOutlierMarks)->Unit(benchmark::kMillisecond);
