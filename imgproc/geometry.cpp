// Block paste, watermark blend, diagonal symmetry of a square, line masks.
#include "veltrano/geometry.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "imgproc/pixel_dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"

namespace veltrano {
namespace {

// Blends the mark into dst over the clipped rectangle; a mark pixel of zero (in all of its first
// three channels for colour types) is transparent. A fourth channel is never changed.
template <class T>
int BlendMark(T* dst, const T* mark, int64_t width, int64_t height, int64_t markWidth,
              int64_t markHeight, int64_t x, int64_t y, int channels, float alpha) {
    if (channels != 1 && channels != 3 && channels != 4) return 1;
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const double a = static_cast<double>(alpha);
    const double b = 1.0 - a;
    const int64_t x0 = std::max<int64_t>(x, 0);
    const int64_t y0 = std::max<int64_t>(y, 0);
    const int64_t x1 = std::min<int64_t>(width - 1, x0 + markWidth - 1);
    const int64_t y1 = std::min<int64_t>(height - 1, y0 + markHeight - 1);
    const int blended = channels == 1 ? 1 : 3;
    for (int64_t r = 0; r <= y1 - y0; ++r) {
        for (int64_t c = 0; c <= x1 - x0; ++c) {
            const T* m = mark + (r * markWidth + c) * channels;
            T* d = dst + ((y0 + r) * width + x0 + c) * channels;
            bool transparent = true;
            for (int k = 0; k < blended; ++k) transparent = transparent && m[k] == T(0);
            if (transparent) continue;
            for (int k = 0; k < blended; ++k) {
                double v = b * static_cast<double>(d[k]) + a * static_cast<double>(m[k]);
                if (v > high) v = high;
                if (v < low) v = low;
                d[k] = StoreClamped<T>(v);
            }
        }
    }
    return 1;
}

template <class T>
int AddMark(uint8_t* src, uint8_t* dst, uint8_t* mark, int width, int height, int markWidth,
            int markHeight, int x, int y, int channels, float alpha) {
    const uint64_t elements = PixelCount(width, height) * static_cast<uint64_t>(channels);
    if (elements == 0) return 1;
    if (dst != src) std::memmove(dst, src, static_cast<size_t>(elements) * sizeof(T));
    return BlendMark(reinterpret_cast<T*>(dst), reinterpret_cast<const T*>(mark), width, height,
                     markWidth, markHeight, x, y, channels, alpha);
}

// The diagonal copies work on a scratch copy of the square, element by element of bpp bytes.
class SquareScratch {
public:
    SquareScratch(int64_t side, int64_t bpp) : side_(side), bpp_(bpp) {}
    bool allocate() {
        return TryResize(bytes_, SaturatingProduct(static_cast<uint64_t>(side_ * side_), bpp_));
    }
    void copyElement(int64_t i, int64_t j, int64_t fromI, int64_t fromJ) {
        std::memmove(at(i, j), at(fromI, fromJ), static_cast<size_t>(bpp_));
    }
    uint8_t* at(int64_t i, int64_t j) { return bytes_.data() + (i * side_ + j) * bpp_; }
    uint8_t* data() { return bytes_.data(); }

private:
    int64_t side_;
    int64_t bpp_;
    std::vector<uint8_t> bytes_;
};

enum class Diagonal { kMain, kAnti };

int DiagonalCopy(uint8_t* src, uint8_t* dst, int width, int height, int pixelType, int x, int y,
                 int side, Diagonal diagonal) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (width <= 0 || height <= 0) return 1;
    const int64_t bpp = PixelTypeSize(pixelType);
    const int64_t px = std::clamp(x, 0, width - 1);
    const int64_t py = std::clamp(y, 0, height - 1);
    int64_t s = std::min<int64_t>(side, width - px);
    s = std::min<int64_t>(s, height - py);
    s = std::max<int64_t>(s, 0);

    SquareScratch square(s, bpp);
    if (!square.allocate()) return -3;
    for (int64_t r = 0; r < s; ++r)
        std::memcpy(square.at(r, 0), src + ((py + r) * width + px) * bpp,
                    static_cast<size_t>(s * bpp));
    // A square too small to have two triangles leaves the destination entirely unwritten, even
    // when it is a separate buffer; hosts rely on this.
    if (s < 2) return 1;

    const float last = static_cast<float>(s - 1);
    float a = 0.0f;
    float b = 0.0f;
    float c = 0.0f;
    if (diagonal == Diagonal::kMain) {
        GetLine2D(0.0f, 0.0f, last, last, &a, &b, &c);
        for (int64_t i = 0; i < s; ++i) {
            const float at = -(c / a) - static_cast<float>(i) * (b / a);
            const int64_t start = std::clamp<int64_t>(std::lround(at), 0, s - 1);
            for (int64_t j = start; j < s; ++j) square.copyElement(i, j, j, i);
        }
    } else {
        // The anti-diagonal's column is rounded up and only limited from above, unlike the main
        // diagonal's; hosts compare frames made this way, so both stay as they are.
        GetLine2D(last, 0.0f, 0.0f, last, &a, &b, &c);
        for (int64_t i = 0; i < s; ++i) {
            const float at = -(c / a) - static_cast<float>(i) * (b / a);
            const int64_t end = std::min<int64_t>(static_cast<int64_t>(std::ceil(at)), s - 1);
            for (int64_t j = 0; j <= end; ++j) square.copyElement(i, j, s - 1 - j, s - 1 - i);
        }
    }
    if (dst != src) std::memmove(dst, src, static_cast<size_t>(PixelCount(width, height) * bpp));
    CopyRoiTo(dst, dst, square.data(), pixelType, width, height, static_cast<int>(s),
              static_cast<int>(s), static_cast<int>(px), static_cast<int>(py));
    return 1;
}

}  // namespace
}  // namespace veltrano

using namespace veltrano;

int CopyRoiTo(uint8_t* src, uint8_t* dst, uint8_t* block, int pixelType, int width, int height,
              int blockWidth, int blockHeight, int x, int y) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (block == nullptr) return -3;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    const int64_t bpp = PixelTypeSize(pixelType);
    if (dst != src) std::memmove(dst, src, static_cast<size_t>(count * bpp));
    const int64_t x0 = std::max(x, 0);
    const int64_t y0 = std::max(y, 0);
    const int64_t cols = std::min<int64_t>(width - 1, x0 + blockWidth - 1) - x0 + 1;
    const int64_t rowEnd = std::min<int64_t>(height - 1, y0 + blockHeight - 1);
    if (cols <= 0) return 1;
    // Block rows are read with the clipped width as their stride, deliberately.
    for (int64_t r = y0; r <= rowEnd; ++r)
        std::memmove(dst + (r * width + x0) * bpp, block + (r - y0) * cols * bpp,
                     static_cast<size_t>(cols * bpp));
    return 1;
}

int AddWaterMask(uint8_t* src, uint8_t* dst, uint8_t* mark, int width, int height, int markWidth,
                 int markHeight, int x, int y, int pixelType, float alpha) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (mark == nullptr) return -3;
    // Any other code returns 1 and changes nothing, not even the copy to the destination.
    return DispatchPixelType<Pix16U, Pix16UC3, Pix8U, Pix8UC3, Pix8UC4, Pix8UC4Too, Pix32F>(
        pixelType, 1, [&](auto tag) {
            using Tag = decltype(tag);
            return AddMark<typename Tag::type>(src, dst, mark, width, height, markWidth, markHeight,
                                               x, y, Tag::channels, alpha);
        });
}

int Copy_LeftDown_To_RightUp(uint8_t* src, uint8_t* dst, int width, int height, int pixelType,
                             int x, int y, int side) {
    return DiagonalCopy(src, dst, width, height, pixelType, x, y, side, Diagonal::kMain);
}

int Copy_RightDown_To_LeftUp(uint8_t* src, uint8_t* dst, int width, int height, int pixelType,
                             int x, int y, int side) {
    return DiagonalCopy(src, dst, width, height, pixelType, x, y, side, Diagonal::kAnti);
}

void GetLine2D(float x1, float y1, float x2, float y2, float* a, float* b, float* c) {
    const float dx = x2 - x1;
    const float dy = y2 - y1;
    const float len = static_cast<float>(std::sqrt(static_cast<double>(dx * dx + dy * dy)));
    float na = 0.0f;
    float nb = 0.0f;
    float nc = 0.0f;
    if (!(static_cast<double>(len) < 1e-9)) {
        const float ux = dx / len;
        const float uy = dy / len;
        na = uy;
        nb = -ux;
        nc = ux * y1 - uy * x1;
    }
    if (a) *a = na;
    if (b) *b = nb;
    if (c) *c = nc;
}

int MakeMaskByLine(uint16_t* src, uint16_t* dst, int width, int height, float x1, float y1,
                   float x2, float y2, uint8_t side, uint16_t fill) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    float a = 0.0f;
    float b = 0.0f;
    float c = 0.0f;
    GetLine2D(x1, y1, x2, y2, &a, &b, &c);
    if (a == 0.0f && b == 0.0f && c == 0.0f) return 1;
    const int64_t w = width > 0 ? width : 0;
    const int64_t h = height > 0 ? height : 0;
    for (int64_t y = 0; y < h; ++y) {
        for (int64_t x = 0; x < w; ++x) {
            const float s = static_cast<float>(x) * a + static_cast<float>(y) * b + c;
            const bool onPositiveSide = s >= 0.0f;
            const bool filled = side == 1 ? onPositiveSide : !onPositiveSide;
            dst[y * w + x] = filled ? fill : src[y * w + x];
        }
    }
    return 1;
}
