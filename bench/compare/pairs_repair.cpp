// Defect repair against inpaint (Telea) over the same pixels, radius 1 on both sides.
#include <opencv2/photo.hpp>

#include "defects.h"
#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

const AddEntry kImgFix{[] {
    Entry e = Pair(900, "ImgFix 3000 pixels and a column", "inpaint Telea r1", FrameBytes<float>());
    e.setup = [] {
        auto b = MakeBuffers(FrameF());
        auto map = std::make_shared<std::vector<float>>(ScatteredDefects());
        auto mask = std::make_shared<cv::Mat>(kHeight, kWidth, CV_8U);
        for (size_t i = 0; i < kPixels; ++i) mask->data[i] = (*map)[i] >= 1.0f ? 255 : 0;
        return Sides{[b, map] {
                         return ImgFix(b->src.data(), b->outV.data(), map->data(), kWidth, kHeight,
                                       1, 6, 200) == 1;
                     },
                     [b, mask] {
                         cv::inpaint(b->srcMat, *mask, b->outMat, 1.0, cv::INPAINT_TELEA);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
