// OpenCV views of the shared frame's buffers, for the peer side of each pair.
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <memory>
#include <vector>

#include "specs.h"

namespace compare {

template <class T>
int CvType();
template <>
inline int CvType<uint8_t>() { return CV_8U; }
template <>
inline int CvType<uint16_t>() { return CV_16U; }
template <>
inline int CvType<float>() { return CV_32F; }

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
        : src(frame), outV(frame.size()), outP(frame.size()), srcMat(View(src)), outMat(View(outP)) {}
};

template <class T>
std::shared_ptr<Buffers<T>> MakeBuffers(const std::vector<T>& frame) {
    return std::make_shared<Buffers<T>>(frame);
}

}  // namespace compare
