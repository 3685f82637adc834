// Box and median filters against blur and medianBlur (both mirror without repeating the edge).
#include <opencv2/imgproc.hpp>

#include <string>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

Entry BoxPair(int order, int radius) {
    const int side = 2 * radius + 1;
    Entry e =
        Pair(order, "Box_Filter 16U r" + std::to_string(radius),
             "blur " + std::to_string(side) + "x" + std::to_string(side), FrameBytes<uint16_t>());
    e.agreeWithin = 1.0;  // exact integer means, truncated here, rounded by blur
    e.setup = [radius, side] {
        auto b = MakeBuffers(Frame16());
        return Sides{[b, radius] {
                         return Box_Filter(b->src.data(), b->outV.data(), kWidth, kHeight, 4,
                                           radius) == 1;
                     },
                     [b, side] {
                         cv::blur(b->srcMat, b->outMat, cv::Size(side, side));
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}

const AddEntry kBox2{BoxPair(200, 2)};
const AddEntry kBox10{BoxPair(201, 10)};

template <class T>
Entry MedianPair(int order, const char* type, int code, const std::vector<T>& (*frame)(),
                 int radius) {
    const int side = 2 * radius + 1;
    Entry e = Pair(order, std::string("Median_Blur ") + type + " r" + std::to_string(radius),
                   "medianBlur " + std::to_string(side), FrameBytes<T>());
    e.agreeWithin = 0.0;  // the same order statistic (the edges, handled differently, are left out)
    e.setup = [frame, code, radius, side] {
        auto b = MakeBuffers(frame());
        return Sides{[b, code, radius] {
                         return Median_Blur(b->src.data(), b->outV.data(), kWidth, kHeight, radius,
                                            code) == 1;
                     },
                     [b, side] {
                         cv::medianBlur(b->srcMat, b->outMat, side);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}

const AddEntry kMedian16r1{MedianPair<uint16_t>(300, "16U", 4, Frame16, 1)};
const AddEntry kMedian16r2{MedianPair<uint16_t>(301, "16U", 4, Frame16, 2)};
const AddEntry kMedian8r3{MedianPair<uint8_t>(302, "8U", 3, Frame8, 3)};
const AddEntry kMedian32r1{MedianPair<float>(303, "32F", 6, FrameF, 1)};

}  // namespace
}  // namespace compare
