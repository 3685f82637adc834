// The PNG interface of a build without libpng: every call fails with the same explanation.
#include "png_io.h"

namespace vcli {

const char kNoPngSupport[] = "PNG support is not built into this program (libpng was not found)";

bool PngSupported() { return false; }

bool ReadPng16(const std::string&, uint32_t&, uint32_t&, std::vector<uint16_t>&,
               std::string& error) {
    error = kNoPngSupport;
    return false;
}

bool ReadPng16(std::FILE*, uint32_t&, uint32_t&, std::vector<uint16_t>&, std::string& error,
               uint64_t) {
    error = kNoPngSupport;
    return false;
}

bool WritePng16(std::FILE*, uint32_t, uint32_t, const std::vector<uint16_t>&, std::string& error) {
    error = kNoPngSupport;
    return false;
}

bool WritePng8(std::FILE*, uint32_t, uint32_t, const std::vector<uint8_t>&, std::string& error) {
    error = kNoPngSupport;
    return false;
}

}  // namespace vcli
