// Correlation with a caller's kernel and the Gaussian filter against filter2D and GaussianBlur.
#include <opencv2/imgproc.hpp>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr double kSigma = 1.2;

// Float results below 65536, where a unit in the last place is 1 / 128: sums taken in another
// order, or with kernels normalised in another way, stay within a few of them.
constexpr double kFloatAgreement = 1.0 / 16.0;

// A 5 x 5 kernel whose rows are not multiples of one another, so that ImageConv takes its
// general path rather than the separable one.
std::vector<float> GeneralKernel() {
    std::vector<float> k(25);
    for (int i = 0; i < 5; ++i) {
        for (int j = 0; j < 5; ++j) k[i * 5 + j] = static_cast<float>((i * 7 + j * 3) % 5) - 1.5f;
    }
    return k;
}

std::vector<float> GaussianKernel() {
    std::vector<float> k(25);
    getGaussker_32F(k.data(), 5, 5, kSigma, kSigma);
    return k;
}

// The 2-thread run of this pair is the one that shows the correlation core's scaling.
const AddEntry kFilter2D{[] {
    Entry e = Pair(400, "filter2D_32F 5x5", "filter2D", FrameBytes<float>());
    e.agreeWithin = kFloatAgreement;
    e.setup = [] {
        auto b = MakeBuffers(FrameF());
        auto kernel = std::make_shared<std::vector<float>>(GaussianKernel());
        auto kernelMat = std::make_shared<cv::Mat>(5, 5, CV_32F, kernel->data());
        return Sides{[b, kernel] {
                         return filter2D_32F(b->src.data(), b->outV.data(), kWidth, kHeight,
                                             kernel->data(), 5, 5) == 1;
                     },
                     [b, kernel, kernelMat] {
                         cv::filter2D(b->srcMat, b->outMat, CV_32F, *kernelMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

const AddEntry kImageConv{[] {
    Entry e = Pair(401, "ImageConv 5x5", "filter2D", FrameBytes<float>());
    e.agreeWithin = kFloatAgreement;
    e.setup = [] {
        auto b = MakeBuffers(FrameF());
        auto kernel = std::make_shared<std::vector<float>>(GeneralKernel());
        auto kernelMat = std::make_shared<cv::Mat>(5, 5, CV_32F, kernel->data());
        return Sides{[b, kernel] {
                         return ImageConv(b->src.data(), b->outV.data(), kernel->data(), kWidth,
                                          kHeight, 5, 5, nullptr) == 1;
                     },
                     [b, kernel, kernelMat] {
                         cv::filter2D(b->srcMat, b->outMat, CV_32F, *kernelMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

template <class T>
Entry GaussPair(int order, const char* name, const std::vector<T>& (*frame)(),
                int (*filter)(T*, T*, int, int, int, int, double, double), double agree) {
    Entry e = Pair(order, name, "GaussianBlur", FrameBytes<T>());
    e.agreeWithin = agree;
    e.setup = [frame, filter] {
        auto b = MakeBuffers(frame());
        return Sides{[b, filter] {
                         return filter(b->src.data(), b->outV.data(), kWidth, kHeight, 5, 5, kSigma,
                                       kSigma) == 1;
                     },
                     [b] {
                         cv::GaussianBlur(b->srcMat, b->outMat, cv::Size(5, 5), kSigma, kSigma);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}

const AddEntry kGauss32{
    GaussPair<float>(402, "gaussFilter_32F 5x5", FrameF, gaussFilter_32F, kFloatAgreement)};
// Truncated here, rounded by GaussianBlur, and one more near a rounding boundary.
const AddEntry kGauss16{
    GaussPair<uint16_t>(403, "gaussFilter_16U 5x5", Frame16, gaussFilter_16U, 2.0)};

}  // namespace
}  // namespace compare
