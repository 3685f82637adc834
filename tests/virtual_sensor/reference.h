// Straightforward reference computations over the calibration files and frames: reading the
// files back, the gain correction and defect repair the way the detector applies them, and
// simple statistics outside the cut corners.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace vstest {

std::vector<uint8_t> ReadBytes(const std::filesystem::path& path);
uint32_t U32(const std::vector<uint8_t>& bytes, size_t offset);

// The calibration folder below a working directory.
std::filesystem::path CalibrationFolder(const std::filesystem::path& workDir);

// The flat frames of a gain file: one when the file holds at most two frames' worth of bytes,
// otherwise four, each columns x rows little-endian 16-bit pixels after the 1040-byte header.
std::vector<std::vector<uint16_t>> GainFrames(const std::vector<uint8_t>& file, int columns, int rows);
// The defect map of a defect file (empty if the file is too short).
std::vector<uint8_t> DefectMap(const std::vector<uint8_t>& file, int columns, int rows);

// Mean of the brightest pixels, whole histogram bins from the top until 5000 are counted.
double BrightMean(const std::vector<uint16_t>& raw);

// Gain correction (gain = mean / flat, the flat chosen by the nearest first-pixel level when
// there are four) followed by filling every defective pixel with the mean of the nearest good
// pixels around it. chosen receives the index of the flat used.
std::vector<double> Correct(const std::vector<uint16_t>& raw,
                            const std::vector<std::vector<uint16_t>>& flats,
                            const std::vector<uint8_t>& defects, int columns, int rows,
                            int* chosen = nullptr);

struct Stats {
    double mean = 0.0;
    double cv = 0.0;  // standard deviation / mean
    size_t count = 0;
};
// Over the pixels outside the cut corners, optionally leaving out those a mask flags.
template <typename T>
Stats ActiveStats(const std::vector<T>& values, int columns, int rows, int cornerCut,
                  const std::vector<uint8_t>* skip = nullptr);

// Mean over a box of pixels [x0, x0 + w) x [y0, y0 + h).
template <typename T>
double BoxMean(const std::vector<T>& values, int columns, int x0, int y0, int w, int h);

}  // namespace vstest
