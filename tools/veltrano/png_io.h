// PNG reading and writing for the command-line program, behind one small interface so that the
// rest of the program does not depend on libpng (a build without libpng answers every call
// with an error).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vcli {

// False in a build without libpng; every function below then fails with an explanation.
bool PngSupported();
// The explanation that a build without libpng gives.
extern const char kNoPngSupport[];

// Reads a 16-bit grayscale PNG. Any other kind (8-bit, colour, palette, alpha) is refused.
// On failure returns false and sets error to a short description of the problem.
bool ReadPng16(const std::string& path, uint32_t& width, uint32_t& height,
               std::vector<uint16_t>& pixels, std::string& error);

// Writes a grayscale PNG of 16 or 8 bits per pixel. The file is written as given: callers that
// must not leave a partial file write to a temporary name first.
bool WritePng16(const std::string& path, uint32_t width, uint32_t height,
                const std::vector<uint16_t>& pixels, std::string& error);
bool WritePng8(const std::string& path, uint32_t width, uint32_t height,
               const std::vector<uint8_t>& pixels, std::string& error);

}  // namespace vcli
