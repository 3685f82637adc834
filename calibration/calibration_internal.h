// Pieces shared by the calibration sources: the cut-corner rule, the statistics of a flat
// exposure, the header's byte layout and writing a file completely or not at all.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "veltrano/calibration_builder.h"

namespace veltrano::calibration {

// The sensor has no pixels in its two upper corners: row + column <= cut, or column - row >=
// width - cut.
inline bool InCutCorner(long long row, long long column, long long width, long long cut) {
    return row + column <= cut || column - row >= width - cut;
}

// The columns of a row outside the cut corners: [first, end), empty when first >= end.
inline void ActiveSpan(long long row, long long width, long long cut, long long& first,
                       long long& end) {
    first = row > cut ? 0 : cut - row + 1;
    end = width - cut + row < width ? width - cut + row : width;
}

// Whether the median of count values lies beyond a deviation from 1, given how many of them lie
// beyond it above 1 and how many below: sorted, the values below 1 beyond the deviation come
// first and those above it last, so the median (index count / 2) is beyond a side exactly when
// more than the values before the median's index lie there. A line of the sensor is judged this
// way once per level, for every row and column, with no sorting.
inline bool MedianBeyond(size_t count, size_t above, size_t below) {
    const size_t middle = count / 2;
    return count > 0 && (below > middle || above >= count - middle);
}

// Whether value lies beyond deviation from 1, above it (first) or below it (second).
inline bool BeyondAbove(double value, double deviation) {
    return std::fabs(value - 1.0) > deviation && value > 1.0;
}
inline bool BeyondBelow(double value, double deviation) {
    return std::fabs(value - 1.0) > deviation && value < 1.0;
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
// The same with a body in pieces, written one after the other (a piece: its bytes and count).
struct BytePiece {
    const void* data;
    size_t size;
};
bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& header,
                    const std::vector<BytePiece>& body);

// The gain file of frames (each of pixels values, stored little-endian) and the defect file of
// defects (pixels bytes), each with header, its kind set per file. Returns 1 done; 0 a file could
// not be written completely (neither is left behind).
int WriteCalibrationFiles(const char* gainPath, const char* defectPath,
                          const CalibrationHeader& header,
                          const std::vector<const uint16_t*>& frames, const uint8_t* defects,
                          size_t pixels);

// False for thresholds the defect search cannot work with (see CalibrationBuilder::Analyse).
bool ThresholdsUsable(const DefectThresholds& thresholds);

// The sensor's calibration folder below a work directory, and the private one of a run.
std::string CalibrationFolderOf(const std::string& workDir);
std::string ScratchFolderOf(const std::string& workDir);

// Every file below folder whose extension (the text after the last dot of its name) is ext, in
// the order in which the detector's loader meets them: it takes the first.
std::vector<std::string> FindByExtension(const std::string& folder, const std::string& ext);

// The files put in place by ReplaceCalibration and the backups of the ones they replaced.
struct Replaced {
    std::string gain;
    std::string defect;
    std::string gainBackup;
    std::string defectBackup;
};

// Puts a new gain and defect file into the calibration folder of workDir (see RunCalibration):
// write(gainPath, defectPath) must write both files completely to the temporary paths it is
// given. Returns true when the new files are in place; otherwise the previous calibration is as
// it was and message says what failed.
bool ReplaceCalibration(const std::string& workDir,
                        const std::function<bool(const std::string&, const std::string&)>& write,
                        Replaced& replaced, std::string& message);

}  // namespace veltrano::calibration
