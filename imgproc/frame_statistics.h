// Statistics of detector frames that the detector's corrections are built on: the flat-field
// gain matrix, the mean of a frame's brightest pixels and the choice of the calibration frame
// nearest to it, and the outlier levels of a frame outside the two cut upper corners.
//
// Frames are row-major floats holding 16-bit sensor values. The passes run on frame_passes.h,
// so they take its fast paths and give exactly what its plain loops give.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace veltrano {

inline constexpr int kSensorBins = 65536;

// gain[i] = mean / max(flat[i], 0.001f), the mean of all count (>= 1) flat pixels accumulated in
// double precision.
void FlatFieldGain(const float* flat, float* gain, size_t count);

// The mean value of the brightest `brightest` pixels: the pixels, truncated, counted in 65536
// bins when they lie in 0..65535; walking the bins from 65535 down, bin x count and count are
// summed until the count reaches `brightest`. A frame with fewer such pixels walks down to bin 0;
// one with none at all has the mean 0.
double BrightMean(const float* frame, size_t count, uint32_t brightest);

// The index of the level nearest to target (smallest squared difference, the first of a tie;
// a difference of 2^16 or more is never nearer than the first level). 0 for no levels.
size_t NearestLevel(const std::vector<int>& levels, double target);

// The columns c of row r outside the two cut upper corners of side cornerCut, those with
// r + c > cornerCut and c - r < columns - cornerCut: [begin, end), empty when begin >= end.
struct ColumnRun {
    long long begin;
    long long end;
};
ColumnRun ColumnsOutsideCutCorners(long long row, long long columns, long long cornerCut);

// Counts the pixels outside the cut corners in 65536 bins (zeroed by the caller), each truncated
// and clamped to 0..65535.
void CountOutsideCutCorners(const float* frame, size_t rows, size_t columns, int cornerCut,
                            int32_t* bins);

// The outlier levels of such a histogram. High: walking down from 65535, the first bin at which
// more than 1000 pixels have been summed, or bin 20000. Low: walking up from 0, the first bin at
// which more than 1000 pixels have been summed, or bin 200.
struct OutlierLevels {
    int low;
    int high;
};
OutlierLevels FindOutlierLevels(const int32_t* bins);

// Sets marks to 1.0 at every pixel outside the cut corners whose value is below low or above
// high; other marks are left as they are. The marks are markRows x markColumns; frame pixels
// outside them are not marked.
void MarkOutliers(const float* frame, size_t rows, size_t columns, int cornerCut, float low,
                  float high, float* marks, size_t markRows, size_t markColumns);

}  // namespace veltrano
