// Whole-frame passes shared by the point operations, the enhancement functions and the
// detector's corrections: the minimum/maximum search, sums in double precision, value
// histograms and table mappings.
//
// Each pass gives exactly what the plain loop in index order gives; only the way there differs
// (vector code where the processor has it, chosen by ActiveImpl()). Where a faster order could
// change a rounded result, the pass first proves that it cannot (see SumInDouble) and otherwise
// runs the plain loop.
#pragma once

#include <cstddef>
#include <cstdint>

namespace veltrano {

// Minimum and maximum of count >= 1 elements, with FindMinMax's result: each is the first
// element in index order that compares equal to the extreme (so +0 and -0 keep the sign of the
// first zero met), not-a-number elements are passed over, and a not-a-number first element is
// both results.
void FrameMinMax(const uint8_t* src, size_t count, uint8_t& minValue, uint8_t& maxValue);
void FrameMinMax(const uint16_t* src, size_t count, uint16_t& minValue, uint16_t& maxValue);
void FrameMinMax(const int16_t* src, size_t count, int16_t& minValue, int16_t& maxValue);
void FrameMinMax(const float* src, size_t count, float& minValue, float& maxValue);
void FrameMinMax(const double* src, size_t count, double& minValue, double& maxValue);

// The sum of count floats accumulated in double precision in index order (sum += v). When every
// value is an integer of magnitude at most 2^24 and there are at most 2^28 of them, every partial
// sum is an integer below 2^53 and therefore exact, so any order of addition gives the same
// double; the pass then adds in several lanes at once. Otherwise it adds in index order.
double SumInDouble(const float* src, size_t count);

// Adds the count of every value to bins (256 or 65536 entries, which the caller zeroes).
void CountValues(const uint8_t* src, size_t count, uint32_t* bins);
void CountValues(const uint16_t* src, size_t count, uint32_t* bins);

// How a float pixel falls into one of 65536 bins.
enum class FloatBinRule {
    InRangeOnly,  // truncated toward zero; counted only when -1 < v < 65536
    Clamped,      // truncated toward zero and clamped to 0..65535; not-a-number counts as 0
};

// Adds the float pixels to 65536 bins (zeroed by the caller) under the rule.
void CountFloatBins(const float* src, size_t count, FloatBinRule rule, int32_t* bins);

// The flat-field gain of a calibration frame: gain[i] = mean / max(flat[i], 0.001f), the floor
// applied in single precision and the division in double, rounded to single precision.
void GainFromMean(const float* flat, float* gain, size_t count, double mean);

// Converts a defect map to byte marks: 0 when |v| < 1e-6, else v clamped to 0..255 and
// truncated (not-a-number gives 0). Returns the number of non-zero marks.
size_t DefectMarks(const float* map, uint8_t* marks, size_t count);

// dst[i] = the table's entry for src[i], for every pixel. The table has an entry for every
// value of the type (256 or 65536), in the order of the values: table[v] for unsigned pixels,
// table[v + 32768] for signed 16-bit ones. Only the entries of values that occur are read.
// dst may be src.
void MapThroughTable(const uint8_t* src, uint8_t* dst, size_t count, const uint8_t* table);
void MapThroughTable(const uint16_t* src, uint16_t* dst, size_t count, const uint16_t* table);
void MapThroughTable(const int16_t* src, int16_t* dst, size_t count, const int16_t* table);

// MapThroughTable over count pixels, and at the same time FrameMinMax over the nextCount >= 1
// pixels at next (the following part of the frame, which must not overlap dst): reading the next
// part from memory then overlaps the lookups of this one. The results are those of the two
// passes run one after the other.
void MapThroughTableScanning(const uint8_t* src, uint8_t* dst, size_t count, const uint8_t* table,
                             const uint8_t* next, size_t nextCount, uint8_t& nextMin,
                             uint8_t& nextMax);
void MapThroughTableScanning(const uint16_t* src, uint16_t* dst, size_t count,
                             const uint16_t* table, const uint16_t* next, size_t nextCount,
                             uint16_t& nextMin, uint16_t& nextMax);
void MapThroughTableScanning(const int16_t* src, int16_t* dst, size_t count, const int16_t* table,
                             const int16_t* next, size_t nextCount, int16_t& nextMin,
                             int16_t& nextMax);

}  // namespace veltrano
