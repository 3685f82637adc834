// Repair of defective pixels from a defect map (ImgFix, FixBadPixel).
#include "veltrano/defect_repair.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/frame_passes.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"

namespace veltrano {
namespace {

struct PixelPos {
    int32_t x;
    int32_t y;
};

// The map is read as an 8-bit mark: values within 1e-6 of zero are good, the rest are clamped
// to 0..255 and truncated, so in effect a pixel is defective when its map value is at least 1.
uint8_t DefectMark(float v) {
    if (std::fabs(v) < 1e-6f) return 0;
    if (v > 255.0f) v = 255.0f;
    if (v < 0.0f) v = 0.0f;
    return StoreClamped<uint8_t>(v);
}

// Onion-peeling repair: in each pass every pending pixel with at least one good direct
// neighbour takes the mean of the good pixels of its window. Marks are cleared only after the
// whole pass, so pixels repaired in a pass do not feed each other in that pass.
class DefectFiller {
public:
    DefectFiller(float* image, int width, int height, int radius)
        : image_(image), width_(width), height_(height), radius_(radius) {}

    // Builds the marks and the pending list; false when the bookkeeping cannot be allocated.
    bool prepare(const float* defectMap) {
        const uint64_t count = PixelCount(width_, height_);
        if (!TryResize(marks_, count)) return false;
        uint64_t defective = 0;
        if (ActiveImpl() == Impl::Reference) {
            for (uint64_t i = 0; i < count; ++i) {
                marks_[i] = DefectMark(defectMap[i]);
                if (marks_[i] != 0) ++defective;
            }
        } else {
            defective = DefectMarks(defectMap, marks_.data(), static_cast<size_t>(count));
        }
        if (!ScratchFits<PixelPos>(defective)) return false;
        try {
            pending_.reserve(static_cast<size_t>(defective));
            deferred_.reserve(static_cast<size_t>(defective));
            repaired_.reserve(static_cast<size_t>(defective));
        } catch (const std::bad_alloc&) {
            return false;
        }
        // Row-major discovery order; runs of eight good pixels are passed over as one word.
        for (int32_t y = 0; y < height_; ++y) {
            const uint8_t* row =
                marks_.data() + static_cast<size_t>(y) * static_cast<size_t>(width_);
            int32_t x = 0;
            while (x < width_) {
                uint64_t word = 0;
                if (x + 8 <= width_) std::memcpy(&word, row + x, 8);
                if (x + 8 <= width_ && word == 0) {
                    x += 8;
                    continue;
                }
                if (row[x] != 0) pending_.push_back({x, y});
                ++x;
            }
        }
        return true;
    }

    // A pass in which nothing is repaired changes neither a mark nor a value, so every later
    // pass would repeat it exactly; stopping there gives the same result as running them all.
    void run(int maxPasses) {
        for (int pass = 0; pass < maxPasses && !pending_.empty(); ++pass) {
            deferred_.clear();
            repaired_.clear();
            for (const PixelPos& p : pending_) {
                if (repairOne(p)) {
                    repaired_.push_back(p);
                } else {
                    deferred_.push_back(p);
                }
            }
            for (const PixelPos& p : repaired_) mark(p.x, p.y) = 0;
            pending_.swap(deferred_);
            if (repaired_.empty()) break;
        }
    }

private:
    uint8_t& mark(int64_t x, int64_t y) { return marks_[static_cast<size_t>(y * width_ + x)]; }

    bool repairOne(PixelPos p) {
        // Direct neighbours clamped to the image: an edge pixel sees itself as one of them.
        const int64_t x = p.x;
        const int64_t y = p.y;
        if (mark(x, std::max<int64_t>(y - 1, 0)) != 0 &&
            mark(x, std::min<int64_t>(y + 1, height_ - 1)) != 0 &&
            mark(std::max<int64_t>(x - 1, 0), y) != 0 &&
            mark(std::min<int64_t>(x + 1, width_ - 1), y) != 0)
            return false;
        const int64_t x0 = std::max<int64_t>(x - radius_, 0);
        const int64_t x1 = std::min<int64_t>(x + radius_, width_ - 1);
        const int64_t y0 = std::max<int64_t>(y - radius_, 0);
        const int64_t y1 = std::min<int64_t>(y + radius_, height_ - 1);
        int64_t count = 0;
        float sum = 0.0f;
        for (int64_t yy = y0; yy <= y1; ++yy) {
            for (int64_t xx = x0; xx <= x1; ++xx) {
                if (mark(xx, yy) == 0) {
                    ++count;
                    sum += image_[yy * width_ + xx];
                }
            }
        }
        // Good neighbours that sum to zero or less repair nothing: the pixel stays pending and
        // is retried once more of its surroundings have been filled.
        if (count <= 0 || !(static_cast<double>(sum) > 0.0)) return false;
        image_[y * width_ + x] = sum / static_cast<float>(count);
        return true;
    }

    float* image_;
    int64_t width_;
    int64_t height_;
    int64_t radius_;
    std::vector<uint8_t> marks_;
    std::vector<PixelPos> pending_;
    std::vector<PixelPos> deferred_;
    std::vector<PixelPos> repaired_;
};

template <class T>
int EdgeClip(const T* src, T* dst, int rows, int cols, clipParam& param) {
    // The record's file, when it names one, is the authority on the margins.
    if (param.filePath != nullptr && param.filePath[0] != '\0') {
        const clipParam fromFile(param.filePath);
        param = fromFile;
    }
    if (src == nullptr || dst == nullptr) return -1;
    const int64_t top = std::max(param.up, 0);
    const int64_t bottom = std::max(param.down, 0);
    const int64_t left = std::max(param.left, 0);
    const int64_t right = std::max(param.right, 0);
    const int64_t outRows = static_cast<int64_t>(rows) - top - bottom;
    const int64_t outCols = static_cast<int64_t>(cols) - left - right;
    if (outRows <= 0 || outCols <= 0) return 1;
    for (int64_t r = 0; r < outRows; ++r)
        std::memmove(dst + r * outCols, src + (r + top) * cols + left,
                     static_cast<size_t>(outCols) * sizeof(T));
    return 1;
}

}  // namespace
}  // namespace veltrano

using namespace veltrano;

int ImgFix(float* src, float* dst, float* defectMap, int width, int height, int radius,
           int pixelType, int maxPasses) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (defectMap == nullptr) return -3;
    if (pixelType != kPix32F) return -4;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    DefectFiller filler(dst, width, height, radius);
    if (!filler.prepare(defectMap)) return -5;
    if (dst != src) std::memmove(dst, src, static_cast<size_t>(count) * sizeof(float));
    filler.run(std::max(maxPasses, 1));
    return 1;
}

int FixBadPixel(float* src, float* dst, float* defectMap, int width, int height) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    if (defectMap == nullptr) {
        // Without a map there is nothing to repair: the copy is the whole result.
        if (dst != src) std::memmove(dst, src, static_cast<size_t>(count) * sizeof(float));
        return 1;
    }
    std::vector<float> temp;
    float* out = dst;
    if (dst == src) {
        if (!TryResize(temp, count)) return -3;
        out = temp.data();
    }
    const int64_t w = width;
    const int64_t h = height;
    for (int64_t y = 0; y < h; ++y) {
        for (int64_t x = 0; x < w; ++x) {
            const int64_t i = y * w + x;
            if (defectMap[i] < 0.01f) {
                out[i] = src[i];
                continue;
            }
            float sum = 0.0f;
            int count9 = 0;
            for (int64_t yy = std::max<int64_t>(y - 1, 0); yy <= std::min<int64_t>(y + 1, h - 1);
                 ++yy) {
                for (int64_t xx = std::max<int64_t>(x - 1, 0);
                     xx <= std::min<int64_t>(x + 1, w - 1); ++xx) {
                    if (defectMap[yy * w + xx] < 0.01f) {
                        sum += src[yy * w + xx];
                        ++count9;
                    }
                }
            }
            out[i] = count9 > 0 ? sum / static_cast<float>(count9) : 0.0f;
        }
    }
    if (!temp.empty()) std::memcpy(dst, temp.data(), static_cast<size_t>(count) * sizeof(float));
    return 1;
}

int edgeClip_8U(uint8_t* src, uint8_t* dst, int rows, int cols, clipParam param) {
    return EdgeClip(src, dst, rows, cols, param);
}

int edgeClip_16U(uint16_t* src, uint16_t* dst, int rows, int cols, clipParam param) {
    return EdgeClip(src, dst, rows, cols, param);
}

int edgeClip_32F(float* src, float* dst, int rows, int cols, clipParam param) {
    return EdgeClip(src, dst, rows, cols, param);
}
