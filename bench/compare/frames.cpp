#include <vector>

#include "bench_frames.h"
#include "entries.h"

namespace compare {

static_assert(kWidth == bench::kWidth && kHeight == bench::kHeight,
              "one frame size for all benchmarks");

std::vector<Entry>& Registry() {
    static std::vector<Entry> entries;
    return entries;
}

const std::vector<uint16_t>& Frame16() {
    static const std::vector<uint16_t> frame = bench::MakeFrame16(kNoiseSigma);
    return frame;
}

const std::vector<uint8_t>& Frame8() {
    static const std::vector<uint8_t> frame = [] {
        const std::vector<uint16_t>& wide = Frame16();
        std::vector<uint8_t> f(kPixels);
        for (size_t i = 0; i < kPixels; ++i) f[i] = static_cast<uint8_t>(wide[i] >> 8);
        return f;
    }();
    return frame;
}

const std::vector<float>& FrameF() {
    static const std::vector<float> frame(Frame16().begin(), Frame16().end());
    return frame;
}

}  // namespace compare
