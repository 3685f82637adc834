#include "preview.h"

#include <algorithm>

namespace vcli {
namespace {

constexpr uint32_t kGap = 12;  // dark stripe between the two halves, in preview pixels

void DrawHalf(const Image16& image, bool invert, Preview& out, uint32_t left) {
    const std::vector<uint8_t> display = DisplayTable(FindDisplayWindow(image), invert);
    const uint32_t w = image.width / 2;
    const uint32_t h = image.height / 2;
    for (uint32_t y = 0; y < h; ++y) {
        const uint16_t* row0 = image.pixels.data() + static_cast<size_t>(2 * y) * image.width;
        const uint16_t* row1 = row0 + image.width;
        uint8_t* dst = out.pixels.data() + static_cast<size_t>(y) * out.width + left;
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t sum =
                uint32_t{row0[2 * x]} + row0[2 * x + 1] + row1[2 * x] + row1[2 * x + 1];
            dst[x] = display[(sum + 2) / 4];
        }
    }
}

}  // namespace

DisplayWindow FindDisplayWindow(const Image16& image) {
    DisplayWindow window;
    const size_t count = image.pixels.size();
    if (count == 0) {
        return window;
    }
    std::vector<uint32_t> histogram(65536, 0);
    for (uint16_t v : image.pixels) {
        ++histogram[v];
    }
    const size_t tail = count / 200;
    size_t seen = 0;
    uint32_t low = 0;
    while (low < 65535 && seen + histogram[low] <= tail) {
        seen += histogram[low++];
    }
    seen = 0;
    uint32_t high = 65535;
    while (high > low && seen + histogram[high] <= tail) {
        seen += histogram[high--];
    }
    if (high <= low) {  // (nearly) constant image: any window one step wide
        low = std::min<uint32_t>(low, 65534);
        high = low + 1;
    }
    window.low = static_cast<uint16_t>(low);
    window.high = static_cast<uint16_t>(high);
    return window;
}

uint8_t DisplayValue(uint16_t value, const DisplayWindow& window, bool invertForDisplay) {
    const double span = static_cast<double>(window.high) - window.low;
    double t = (static_cast<double>(value) - window.low) / span;
    t = std::min(1.0, std::max(0.0, t));
    if (invertForDisplay) {
        t = 1.0 - t;
    }
    return static_cast<uint8_t>(t * 255.0 + 0.5);
}

std::vector<uint8_t> DisplayTable(const DisplayWindow& window, bool invertForDisplay) {
    std::vector<uint8_t> table(65536);
    for (uint32_t v = 0; v < table.size(); ++v) {
        table[v] = DisplayValue(static_cast<uint16_t>(v), window, invertForDisplay);
    }
    return table;
}

Preview RenderSideBySide(const Image16& left, const Image16& right, bool invertForDisplay) {
    Preview out;
    const uint32_t halfW = left.width / 2;
    out.width = 2 * halfW + kGap;
    out.height = left.height / 2;
    out.pixels.assign(static_cast<size_t>(out.width) * out.height, 0);
    DrawHalf(left, invertForDisplay, out, 0);
    DrawHalf(right, invertForDisplay, out, halfW + kGap);
    return out;
}

}  // namespace vcli
