// Where a sensor's calibration files lie below its work directory and how they are laid out.
// The detector object reads them at every acquisition; the virtual sensor (and the calibration
// builder) write them.
//
//   gain file   (extension "gn"):  header, then one or four frames of width x height unsigned
//                                  16-bit pixels, row after row, little-endian
//   defect file (extension "dft"): header, then one frame of width x height bytes, non-zero at
//                                  every defective pixel
//
// The header's content is the writer's own; readers skip it.
#pragma once

#include <cstdint>

namespace fpdsys {

// Appended to the work directory; the files are looked up in it and every folder below it.
inline constexpr char kCalibrationFolder[] = "/Correct/Default";
inline constexpr char kGainExtension[] = "gn";
inline constexpr char kDefectExtension[] = "dft";

inline constexpr uint64_t kCalibrationHeaderBytes = 1040;

// A gain file of at most two frames' size (header included) holds one frame; a longer one four.
inline constexpr uint64_t GainFrameCount(uint64_t fileBytes, uint64_t frameBytes) {
    return fileBytes <= 2 * frameBytes ? 1 : 4;
}

}  // namespace fpdsys
