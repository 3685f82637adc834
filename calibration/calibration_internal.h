// Pieces shared by the calibration sources: the cut-corner rule, the statistics of a flat
// exposure, the header's byte layout and writing a file completely or not at all.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "veltrano/calibration_builder.h"

namespace veltrano::calibration {

// The sensor has no pixels in its two upper corners: row + column <= cut, or column - row >=
// width - cut.
inline bool InCutCorner(long long row, long long column, long long width, long long cut) {
    return row + column <= cut || column - row >= width - cut;
}

// What the checks of a calibration run look at, over the pixels outside the cut corners.
struct FlatStatistics {
    uint64_t pixels = 0;
    double mean = 0.0;
    // Percentiles of the values truncated to integers and clamped to 0..65535.
    int median = 0;
    int p16 = 0;
    int p84 = 0;
    double saturatedFraction = 0.0;  // at or above the saturation level
};
FlatStatistics MeasureFlat(const float* pixels, int width, int height, int cut,
                           float saturationLevel);

// Standard deviation over mean, outside the cut corners; 0 for a mean of 0.
double CoefficientOfVariation(const float* pixels, int width, int height, int cut);

std::vector<uint8_t> EncodeHeader(const CalibrationHeader& header);
// False when the bytes are not a header of ours.
bool DecodeHeader(const std::vector<uint8_t>& bytes, CalibrationHeader& header);

// Writes header and body to path; on any failure removes what was written and returns false.
bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& header,
                    const std::vector<uint8_t>& body);

}  // namespace veltrano::calibration
