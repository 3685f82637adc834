// PNG reading and writing for the command-line program, behind one small interface so that the
// rest of the program does not depend on libpng (a build without libpng answers every call
// with an error).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vcli {

// False in a build without libpng; every function below then fails with an explanation.
bool PngSupported();
// The explanation that a build without libpng gives.
extern const char kNoPngSupport[];

// The most pixels a PNG may declare: the library's own limit for one image (2^28), which no
// intraoral sensor comes near. A header that declares more is refused before anything is
// allocated for it.
constexpr uint64_t kMaxPngPixels = uint64_t(1) << 28;

// Reads a 16-bit grayscale PNG, interlaced (Adam7) or not. Any other kind (8-bit or fewer bits,
// colour, palette, alpha) is refused, and so is a header that declares more than maxPixels
// pixels. On failure returns false and sets error to a short description of the problem, one
// line that fits after the file's name.
bool ReadPng16(const std::string& path, uint32_t& width, uint32_t& height,
               std::vector<uint16_t>& pixels, std::string& error);
// The same from a stream open for binary reading, positioned at the start of the PNG data. The
// stream is not closed.
bool ReadPng16(std::FILE* file, uint32_t& width, uint32_t& height, std::vector<uint16_t>& pixels,
               std::string& error, uint64_t maxPixels = kMaxPngPixels);

// Writes a grayscale PNG of 16 or 8 bits per pixel to a stream open for binary writing (not
// closed here). False with a description when libpng or the stream reports an error; the
// caller checks the stream's close as well.
bool WritePng16(std::FILE* file, uint32_t width, uint32_t height,
                const std::vector<uint16_t>& pixels, std::string& error);
bool WritePng8(std::FILE* file, uint32_t width, uint32_t height, const std::vector<uint8_t>& pixels,
               std::string& error);

}  // namespace vcli
