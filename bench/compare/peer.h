// OpenCV views of the shared frame's buffers, for the peer side of each pair.
#pragma once

#include <opencv2/core.hpp>

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "entries.h"

namespace compare {

template <class T>
int CvType();
template <>
inline int CvType<uint8_t>() {
    return CV_8U;
}
template <>
inline int CvType<uint16_t>() {
    return CV_16U;
}
template <>
inline int CvType<float>() {
    return CV_32F;
}

// A frame-sized matrix over the vector's pixels (no copy; the vector must outlive it).
template <class T>
cv::Mat View(std::vector<T>& pixels) {
    return cv::Mat(kHeight, kWidth, CvType<T>(), pixels.data());
}

// The buffers most pairs need: a private copy of the source (some functions take non-const
// pointers) and separate outputs for each side, so that neither side reads the other's result.
template <class T>
struct Buffers {
    std::vector<T> src;
    std::vector<T> outV;
    std::vector<T> outP;
    cv::Mat srcMat, outMat;

    explicit Buffers(const std::vector<T>& frame)
        : src(frame),
          outV(frame.size()),
          outP(frame.size()),
          srcMat(View(src)),
          outMat(View(outP)) {}
};

// Pixels this close to an edge are left out of the comparison of outputs: the widest window
// compared (21 x 21) reaches 10 pixels in, and some peers treat the edge differently.
constexpr int kBorder = 16;

// The largest |Veltrano - OpenCV| over the pixels at least `border` pixels from every edge; NaN
// when either output holds a NaN there.
template <class T>
std::function<double()> Difference(std::shared_ptr<Buffers<T>> b, int border) {
    return [b, border] {
        double worst = 0.0;
        for (int y = border; y < kHeight - border; ++y) {
            for (int x = border; x < kWidth - border; ++x) {
                const size_t i = static_cast<size_t>(y) * kWidth + x;
                const double d =
                    std::fabs(static_cast<double>(b->outV[i]) - static_cast<double>(b->outP[i]));
                if (std::isnan(d)) {
                    return d;
                }
                worst = d > worst ? d : worst;
            }
        }
        return worst;
    };
}

template <class T>
std::shared_ptr<Buffers<T>> MakeBuffers(const std::vector<T>& frame) {
    return std::make_shared<Buffers<T>>(frame);
}

}  // namespace compare
