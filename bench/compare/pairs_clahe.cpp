// CLAHE with 8 x 8 tiles against OpenCV's CLAHE. Veltrano clips each of 256 bins at 200 counts;
// OpenCV's clip limit is relative to the mean count per bin, so the equivalent limit is
// 200 * 256 / (pixels per tile). OpenCV bins 16-bit data in 65536 bins and clips at the same
// relative limit there.
#include <opencv2/imgproc.hpp>

#include <string>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr int kTiles = 8;
constexpr int kBins = 256;
constexpr int kPeak = 200;

double EquivalentClipLimit() {
    const double tilePixels = static_cast<double>(kWidth / kTiles) * (kHeight / kTiles);
    return kPeak * kBins / tilePixels;
}

template <class T>
Entry ClahePair(int order, const char* name, const std::vector<T>& (*frame)(),
                int (*clahe)(T*, T*, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                             const char*)) {
    Entry e = Pair(order, name, "CLAHE 8x8 tiles", FrameBytes<T>());
    e.setup = [frame, clahe] {
        auto b = MakeBuffers(frame());
        cv::Ptr<cv::CLAHE> peer = cv::createCLAHE(EquivalentClipLimit(), cv::Size(kTiles, kTiles));
        return Sides{[b, clahe] {
                         return clahe(b->src.data(), b->outV.data(), kWidth, kHeight, kTiles,
                                      kTiles, kBins, kPeak, nullptr) == 1;
                     },
                     [b, peer] {
                         peer->apply(b->srcMat, b->outMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}

const AddEntry kClahe16{
    ClahePair<uint16_t>(600, "clahe_16U_Manual 8x8", Frame16, clahe_16U_Manual)};
const AddEntry kClahe8{ClahePair<uint8_t>(601, "clahe_8U_Manual 8x8", Frame8, clahe_8U_Manual)};

}  // namespace
}  // namespace compare
