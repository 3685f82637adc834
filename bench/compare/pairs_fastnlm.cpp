// Non-local means on 8 bits, 3 x 3 patches in a 7 x 7 search window, strength 7 (the default
// chain's), against fastNlMeansDenoising with the same window sizes and h.
#include <opencv2/photo.hpp>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr float kStrength = 7.0f;

const AddEntry kFastNLM{[] {
    Entry e = Pair(700, "FastNLM 8U p1 s3", "fastNlMeansDenoising 3, 7", FrameBytes<uint8_t>());
    e.targetRatio = 0.5;
    // The two outputs differed by at most 1 level on this frame when the pair was set up; 2 leaves
    // a faster path room for its own rounding. A different weight law would differ by far more.
    e.agreeWithin = 2.0;
    e.setup = [] {
        auto b = MakeBuffers(Frame8());
        return Sides{[b] {
                         return FastNLM(b->src.data(), b->outV.data(), kWidth, kHeight, kStrength,
                                        1, 3) == 1;
                     },
                     [b] {
                         cv::fastNlMeansDenoising(b->srcMat, b->outMat, kStrength, 3, 7);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
