// Image files of the command-line program: 16-bit grayscale PNG, headerless raw files read
// through the library's image matrix, and the conversion of acquired float images to 16 bits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class imgmat;

namespace vcli {

struct Image16 {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> pixels;  // row-major, width x height
};

// How to read a headerless raw file: its size, element code of the image matrix (0..9) and
// the number of header bytes before the samples.
struct RawLayout {
    uint64_t width = 0;
    uint64_t height = 0;
    int type = 3;
    uint64_t headerBytes = 0;
};

// Bytes per sample of a raw element code, 0 for a code the image matrix does not convert.
unsigned RawElementSize(int type);

// True for a path whose extension is ".png" (any case).
bool IsPngPath(const std::string& path);

// Each reader returns false with a short description of the problem (the caller names the
// file). Raw samples outside 0..65535 are clamped and rounded to the nearest integer.
bool ReadPngImage(const std::string& path, Image16& image, std::string& error);
bool ReadRawImage(const std::string& path, const RawLayout& layout, Image16& image,
                  std::string& error);

// A matrix from the detector (32-bit floats holding 16-bit values) as 16-bit pixels.
Image16 ToImage16(const imgmat& matrix);

// Writes the image: a 16-bit PNG for a ".png" path, otherwise a raw file of 32-bit floats
// (element code 8, no header) through the image matrix. The data goes to a temporary file next
// to the target, which replaces the target only once complete: a failed write never leaves a
// damaged or half-written file under the target name.
bool WriteImage(const std::string& path, const Image16& image, std::string& error);
bool WritePreview(const std::string& path, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error);

}  // namespace vcli
