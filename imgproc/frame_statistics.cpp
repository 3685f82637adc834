#include "imgproc/frame_statistics.h"

#include <algorithm>

#include "imgproc/frame_passes.h"

namespace veltrano {

namespace {

// Walks the bins from `from` by `step` (+1 or -1), summing counts, to the first bin where more
// than `enough` pixels have been summed or the walk has reached `last`; `fallback` when the walk
// leaves the bins first.
int WalkToLevel(const int32_t* bins, int from, int step, int last, long long enough, int fallback) {
    long long sum = 0;
    for (int bin = from; bin >= 0 && bin < kSensorBins; bin += step) {
        sum += bins[bin];
        if (sum > enough || (bin - last) * step >= 0) {
            return bin;
        }
    }
    return fallback;
}

}  // namespace

void FlatFieldGain(const float* flat, float* gain, size_t count) {
    const double mean = SumInDouble(flat, count) / static_cast<double>(count);
    GainFromMean(flat, gain, count, mean);
}

double BrightMean(const float* frame, size_t count, uint32_t brightest) {
    std::vector<int32_t> histogram(kSensorBins, 0);
    CountFloatBins(frame, count, FloatBinRule::InRangeOnly, histogram.data());
    double weighted = 0.0;
    double counted = 0.0;
    // No lower bound but bin 0: a frame with fewer bright pixels takes in all it has.
    for (int bin = kSensorBins - 1; bin >= 0; --bin) {
        weighted += static_cast<double>(histogram[bin]) * bin;
        counted += histogram[bin];
        if (counted >= brightest) {
            break;
        }
    }
    return counted > 0.0 ? weighted / counted : 0.0;
}

size_t NearestLevel(const std::vector<int>& levels, double target) {
    size_t chosen = 0;
    double best = 4294967296.0;
    for (size_t i = 0; i < levels.size(); ++i) {
        const double difference = levels[i] - target;
        if (difference * difference < best) {
            best = difference * difference;
            chosen = i;
        }
    }
    return chosen;
}

ColumnRun ColumnsOutsideCutCorners(long long row, long long columns, long long cornerCut) {
    return {std::max(0LL, cornerCut - row + 1), std::min(columns, columns - cornerCut + row)};
}

void CountOutsideCutCorners(const float* frame, size_t rows, size_t columns, int cornerCut,
                            int32_t* bins) {
    const auto width = static_cast<long long>(columns);
    for (long long r = 0; r < static_cast<long long>(rows); ++r) {
        const ColumnRun run = ColumnsOutsideCutCorners(r, width, cornerCut);
        if (run.begin < run.end) {
            CountFloatBins(frame + r * width + run.begin, static_cast<size_t>(run.end - run.begin),
                           FloatBinRule::Clamped, bins);
        }
    }
}

OutlierLevels FindOutlierLevels(const int32_t* bins) {
    OutlierLevels levels{};
    levels.high = WalkToLevel(bins, kSensorBins - 1, -1, 20000, 1000, kSensorBins - 1);
    levels.low = WalkToLevel(bins, 0, +1, 200, 1000, 0);
    return levels;
}

void MarkOutliers(const float* frame, size_t rows, size_t columns, int cornerCut, float low,
                  float high, float* marks, size_t markRows, size_t markColumns) {
    const auto width = static_cast<long long>(columns);
    const auto markWidth = static_cast<long long>(markColumns);
    const long long lastRow = static_cast<long long>(std::min(rows, markRows));
    for (long long r = 0; r < lastRow; ++r) {
        const ColumnRun run = ColumnsOutsideCutCorners(r, width, cornerCut);
        const long long end = std::min(run.end, markWidth);
        const float* values = frame + r * width;
        float* row = marks + r * markWidth;
        for (long long c = run.begin; c < end; ++c) {
            if (values[c] < low || values[c] > high) {
                row[c] = 1.0f;
            }
        }
    }
}

}  // namespace veltrano
