// The bilateral filter against OpenCV's, with fall-offs chosen so that both compute the same
// weights: a spatial sigma of 1.5 pixels and a value sigma of 1000 levels on the float frame
// (16-bit values). With noise of 600 the value weights of neighbours differ clearly from 1 and
// from 0, and across the structures' edges they underflow: every branch of the weighting runs.
#include <opencv2/imgproc.hpp>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr double kSpatialSigma = 1.5;
constexpr double kValueSigma = 1000.0;

const AddEntry kBilateral{[] {
    Entry e = Pair(500, "bilateralFilter_32F 5x5", "bilateralFilter d=5", FrameBytes<float>());
    e.targetRatio = 1.5;
    e.setup = [] {
        auto b = MakeBuffers(FrameF());
        // The record pairs its names deliberately: the spatial fall-off is
        // 1 / (2 sigColor_x sigColor_y), the value fall-off 1 / (2 sigSpace_x sigColor_y).
        auto param = std::make_shared<struBilatralParam>();
        param->k_w = 5;
        param->k_h = 5;
        param->sigColor_x = static_cast<float>(kSpatialSigma);
        param->sigColor_y = static_cast<float>(kSpatialSigma);
        param->sigSpace_x = static_cast<float>(kValueSigma * kValueSigma / kSpatialSigma);
        param->sigSpace_y = param->sigSpace_x;
        return Sides{[b, param] {
                         return bilateralFilter_32F(b->src.data(), b->outV.data(), kWidth, kHeight,
                                                    param.get()) == 1;
                     },
                     [b] {
                         cv::bilateralFilter(b->srcMat, b->outMat, 5, kValueSigma, kSpatialSigma);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
