// The 8-bit preview of the demo: two 16-bit images side by side at half size, each windowed to
// its own range of values, drawn the way radiographs are read.
#pragma once

#include <cstdint>
#include <vector>

#include "image_files.h"

namespace vcli {

// The display window of an image: the values below which 0.5 % and above which 0.5 % of the
// pixels lie, so that a few hot or dead pixels do not squeeze the picture.
struct DisplayWindow {
    uint16_t low = 0;
    uint16_t high = 65535;
};
DisplayWindow FindDisplayWindow(const Image16& image);

// Maps the window onto 0..255. With `invertForDisplay` high values (much radiation: soft
// tissue and air) are drawn dark and low values (enamel, fillings) bright.
uint8_t DisplayValue(uint16_t value, const DisplayWindow& window, bool invertForDisplay);
// DisplayValue of every 16-bit value, indexed by the value: a frame has far more pixels than
// there are values, and the division per pixel cost more than the rest of drawing it.
std::vector<uint8_t> DisplayTable(const DisplayWindow& window, bool invertForDisplay);

struct Preview {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels;
};

// Left and right must have the same size; each is reduced by averaging 2 x 2 blocks.
Preview RenderSideBySide(const Image16& left, const Image16& right, bool invertForDisplay);

}  // namespace vcli
