// Unsharp masks of radius 2 against a 5 x 5 blur (box or Gaussian) and addWeighted. Veltrano's
// amount multiplies the difference from the unnormalised window sum, so the peer's weight is
// the amount times the sum of the window's weights.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr float kAmount = 0.04f;  // the default chain's
constexpr float kSigma = 1.0f;

const AddEntry kUsmBox{[] {
    Entry e = Pair(800, "USM_BOX 16U r2", "blur 5x5 + addWeighted", FrameBytes<uint16_t>());
    e.agreeWithin = 2.0;  // truncated here, rounded twice by the peer
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        auto blurred = std::make_shared<cv::Mat>(kHeight, kWidth, CV_16U);
        const double weight = kAmount * 25.0;
        return Sides{
            [b] {
                return USM_BOX(b->src.data(), b->outV.data(), kWidth, kHeight, 2, kAmount, false) ==
                       1;
            },
            [b, blurred, weight] {
                cv::blur(b->srcMat, *blurred, cv::Size(5, 5));
                cv::addWeighted(b->srcMat, 1.0 + weight, *blurred, -weight, 0.0, b->outMat);
                return true;
            },
            {},
            Difference(b, kBorder)};
    };
    return e;
}()};

const AddEntry kUsmGaussian{[] {
    Entry e =
        Pair(801, "USM_Gaussian 16U r2", "GaussianBlur 5x5 + addWeighted", FrameBytes<uint16_t>());
    e.agreeWithin = 2.0;
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        auto blurred = std::make_shared<cv::Mat>(kHeight, kWidth, CV_16U);
        double sum = 0.0;
        for (int i = -2; i <= 2; ++i) {
            for (int j = -2; j <= 2; ++j)
                sum += std::exp(-(i * i + j * j) / (2.0 * kSigma * kSigma));
        }
        const double weight = kAmount * sum;
        return Sides{[b] {
                         return USM_Gaussian(b->src.data(), b->outV.data(), kWidth, kHeight, 2,
                                             kAmount, 0, kSigma, nullptr) == 1;
                     },
                     [b, blurred, weight] {
                         cv::GaussianBlur(b->srcMat, *blurred, cv::Size(5, 5), kSigma, kSigma);
                         cv::addWeighted(b->srcMat, 1.0 + weight, *blurred, -weight, 0.0,
                                         b->outMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
