// Point operations and normalisation against their OpenCV counterparts.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <stdexcept>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

// normalize_* leave the destination alone when the frame already spans the requested range
// exactly; the frame must not, or the Veltrano side would time an early exit.
template <class T>
void RequireStretch(const std::vector<T>& frame, T low, T high) {
    const auto [mn, mx] = std::minmax_element(frame.begin(), frame.end());
    if (*mn == *mx || (*mn == low && *mx == high)) {
        throw std::runtime_error("the frame already spans the normalisation range");
    }
}

// Agreement bounds: an integer result computed in floating point may round one way on one side
// and the other way on the other (1), and a faster path may move it by one more near a
// rounding boundary (2). Float results: a few units in the last place of the values compared.
template <class T>
Entry NormalizePair(int order, const char* name, const std::vector<T>& (*frame)(),
                    int (*normalize)(const T*, T*, uint32_t, uint32_t, T, T), T low, T high,
                    double agree) {
    Entry e = Pair(order, name, "normalize NORM_MINMAX", FrameBytes<T>());
    e.agreeWithin = agree;
    e.setup = [frame, normalize, low, high] {
        auto b = MakeBuffers(frame());
        RequireStretch<T>(b->src, low, high);
        return Sides{[b, normalize, low, high] {
                         return normalize(b->src.data(), b->outV.data(), kWidth, kHeight, low,
                                          high) == 1;
                     },
                     [b, low, high] {
                         cv::normalize(b->srcMat, b->outMat, low, high, cv::NORM_MINMAX);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}

const AddEntry kNormalize16{[] {
    Entry e = NormalizePair<uint16_t>(100, "normalize_16U", Frame16, normalize_16U, 0, 65535, 2.0);
    e.limitCopies = 5.0;
    return e;
}()};
const AddEntry kNormalize8{
    NormalizePair<uint8_t>(101, "normalize_8U", Frame8, normalize_8U, 0, 255, 2.0)};
const AddEntry kNormalize32{
    NormalizePair<float>(102, "normalize_32F", FrameF, normalize_32F, 0.0f, 1.0f, 1e-6)};

const AddEntry kBrightContrast{[] {
    Entry e = Pair(110, "BrigntAndContrast 16U", "convertTo with scale and shift",
                   FrameBytes<uint16_t>());
    e.limitCopies = 3.0;
    e.agreeWithin = 2.0;  // Veltrano truncates, convertTo rounds
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        return Sides{[b] {
                         return BrigntAndContrast(b->src.data(), b->outV.data(), kWidth, kHeight, 4,
                                                  500.0f, 1.2f) == 1;
                     },
                     [b] {
                         b->srcMat.convertTo(b->outMat, CV_16U, 1.2, 500.0);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

const AddEntry kThreshold{[] {
    Entry e = Pair(111, "ThresholdBinary 16U", "threshold THRESH_BINARY", FrameBytes<uint16_t>());
    e.limitCopies = 3.0;
    e.agreeWithin = 0.0;
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        return Sides{[b] {
                         return ThresholdBinary(b->src.data(), b->outV.data(), 4, kWidth, kHeight,
                                                20000.0, 0) == 1;
                     },
                     [b] {
                         cv::threshold(b->srcMat, b->outMat, 20000.0, 65535.0, cv::THRESH_BINARY);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

const AddEntry kEquHist{[] {
    Entry e = Pair(112, "EquHist 8U", "equalizeHist", FrameBytes<uint8_t>());
    e.setup = [] {
        auto b = MakeBuffers(Frame8());
        return Sides{[b] {
                         // Code 3 reads and writes both buffers as bytes.
                         return EquHist(reinterpret_cast<uint16_t*>(b->src.data()),
                                        reinterpret_cast<uint16_t*>(b->outV.data()),
                                        static_cast<int32_t>(kPixels), 3) == 1;
                     },
                     [b] {
                         cv::equalizeHist(b->srcMat, b->outMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

const AddEntry kLog{[] {
    Entry e = Pair(113, "Image_Log 32F", "log", FrameBytes<float>());
    // Logarithms up to 11.1, where a unit in the last place is 9.5e-7; no pixel of the frame away
    // from the edges lies below 20, where Veltrano's logarithm stops.
    e.agreeWithin = 4e-6;
    e.setup = [] {
        auto b = MakeBuffers(FrameF());
        return Sides{
            [b] { return Image_Log(b->src.data(), b->outV.data(), kWidth, kHeight, 0) == 1; },
            [b] {
                cv::log(b->srcMat, b->outMat);
                return true;
            },
            {},
            Difference(b, kBorder)};
    };
    return e;
}()};

// OpenCV's pow takes only float data: the peer scales to 0..1, raises and scales back, the
// arithmetic of the 16-bit gamma curve.
const AddEntry kGamma{[] {
    Entry e =
        Pair(114, "GammaCorrect 16U", "convertTo 32F, pow, convertTo 16U", FrameBytes<uint16_t>());
    e.limitCopies = 8.0;
    e.agreeWithin = 2.0;
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        auto scratch = std::make_shared<cv::Mat>(kHeight, kWidth, CV_32F);
        return Sides{[b] {
                         return GammaCorrect(b->src.data(), b->outV.data(), kWidth, kHeight, 0.8f,
                                             4) == 1;
                     },
                     [b, scratch] {
                         b->srcMat.convertTo(*scratch, CV_32F, 1.0 / 65535.0);
                         cv::pow(*scratch, 0.8, *scratch);
                         scratch->convertTo(b->outMat, CV_16U, 65535.0);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
