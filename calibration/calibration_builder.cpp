// CalibrationBuilder: averaging the flat exposures of each level, the defect search and the
// gain frames. The neighbourhood references come from the processing library's median filter,
// and the cut corners are filled for them with its diagonal copies.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>
#include <new>
#include <vector>

#include "calibration/calibration_internal.h"
#include "veltrano/filters.h"
#include "veltrano/geometry.h"
#include "veltrano/pixel_type.h"

namespace veltrano {

using calibration::InCutCorner;

namespace {

// Below this many degrees of freedom, levels x (exposures - 1), a good pixel's temporal spread
// scatters too widely to tell a noisy or a stuck pixel from it.
constexpr int kMinSpreadDegrees = 6;
constexpr long long kMaxPixels = 1LL << 28;
constexpr int kMaxRadius = 2047;

bool Positive(float value) { return std::isfinite(value) && value > 0.0f; }

}  // namespace

namespace calibration {

bool ThresholdsUsable(const DefectThresholds& t) {
    return Positive(t.deadFraction) && t.deadFraction < 1.0f && Positive(t.hotFraction) &&
           t.hotFraction > 1.0f && Positive(t.responseTolerance) && Positive(t.noisyFactor) &&
           Positive(t.frozenFraction) && Positive(t.lineFraction) && Positive(t.lineDeviation) &&
           Positive(t.clusterEdgeDeviation) && t.clusterMinPixels >= 1 && t.localBlock >= 1 &&
           t.localRadius >= 1 && t.localRadius <= kMaxRadius;
}

}  // namespace calibration

namespace {

uint16_t ToSample(double value) {
    if (!(value > 0.0)) return 0;
    if (value >= 65535.0) return 65535;
    return static_cast<uint16_t>(value + 0.5);
}

// Ratio of a pixel's mean to its reference, or 1 where the reference is not positive (a level
// too dark to judge).
double Ratio(float value, float reference) {
    return reference > 0.0f ? static_cast<double>(value) / reference : 1.0;
}

}  // namespace

struct CalibrationBuilder::State {
    int width = 0;
    int height = 0;
    int cut = 0;
    int levels = 0;
    bool valid = false;
    size_t pixels = 0;

    // The closed levels' mean and temporal spread; the level being taken lives in the sums.
    std::vector<std::vector<float>> mean;
    std::vector<std::vector<float>> spread;
    std::vector<int> exposures;
    std::vector<double> brightSum;
    int current = -1;
    // Sums of (exposure - first exposure of the level): shifted, so that the spread does not
    // drown in the square of the signal.
    std::vector<float> first;
    std::vector<double> sum;
    std::vector<double> squares;

    bool analysed = false;
    DefectThresholds thresholds;
    std::vector<std::vector<uint16_t>> frames;
    std::vector<uint32_t> frameLevels;
    std::vector<float> doses;
    std::vector<uint8_t> defects;
    DefectCounts counts;
    uint32_t lineColumns = 0;
    uint32_t lineRows = 0;
    uint32_t clusterCount = 0;
    // The block grid of the neighbourhood references, set by analyse: the side of a block, the
    // blocks in a row, and the block column of each pixel column.
    int block = 1;
    int blockColumns = 0;
    std::vector<uint32_t> columnBlock;

    bool cutAt(size_t i) const {
        return InCutCorner(static_cast<long long>(i / static_cast<size_t>(width)),
                           static_cast<long long>(i % static_cast<size_t>(width)), width, cut);
    }

    // Calls f(i, b) for every pixel i outside the cut corners, in memory order, with b its block
    // in the reference maps; row by row without a division per pixel.
    template <class F>
    void forActivePixels(F&& f) const {
        for (long long y = 0; y < height; ++y) {
            long long first = 0, end = 0;
            calibration::ActiveSpan(y, width, cut, first, end);
            const size_t row = static_cast<size_t>(y) * static_cast<size_t>(width);
            const size_t rowBlock = blockOf(0, static_cast<size_t>(y));
            for (long long x = first; x < end; ++x) {
                f(row + static_cast<size_t>(x), rowBlock + columnBlock[static_cast<size_t>(x)]);
            }
        }
    }

    // Mean and spread of the level being taken, from its sums.
    void currentStatistics(std::vector<float>& m, std::vector<float>& s) const {
        const double n = exposures[static_cast<size_t>(current)];
        // Every value is written below, so neither map is cleared first.
        m.resize(pixels);
        s.resize(pixels);
        for (size_t i = 0; i < pixels; ++i) {
            m[i] = static_cast<float>(first[i] + sum[i] / n);
            float spread = 0.0f;
            if (n > 1.0) {
                const double variance = (squares[i] - sum[i] * sum[i] / n) / (n - 1.0);
                spread = static_cast<float>(std::sqrt(std::max(0.0, variance)));
            }
            s[i] = spread;
        }
    }

    // The reference of each pixel's neighbourhood: the median of block means around its block.
    // It is the same for every pixel of a block, so it is kept per block (out holds bw x bh
    // values, see blockOf); a whole frame of it would cost four bytes a pixel per map.
    bool reference(const std::vector<float>& map, int block, int radius, std::vector<float>& strip,
                   std::vector<float>& out) const {
        // Mirror the active pixels across the corners' edges, so that a neighbourhood reaching
        // into a corner does not read the zeros of pixels that do not exist. The corners lie in
        // the top cut + 2 rows, so only those are copied and filled; the rest is read in place.
        const int stripRows = std::min(height, cut + 2);
        strip.assign(map.begin(), map.begin() + static_cast<ptrdiff_t>(stripRows) * width);
        uint8_t* bytes = reinterpret_cast<uint8_t*>(strip.data());
        if (Copy_RightDown_To_LeftUp(bytes, bytes, width, stripRows, kPix32F, 0, 0, cut + 2) != 1 ||
            Copy_LeftDown_To_RightUp(bytes, bytes, width, stripRows, kPix32F, width - cut - 1, 0,
                                     cut + 1) != 1) {
            return false;
        }
        const int bw = (width + block - 1) / block;
        const int bh = (height + block - 1) / block;
        std::vector<double> blockSum(static_cast<size_t>(bw) * bh, 0.0);
        std::vector<double> blockCount(blockSum.size(), 0.0);
        for (int y = 0; y < height; ++y) {
            const float* row =
                (y < stripRows ? strip.data() : map.data()) + static_cast<size_t>(y) * width;
            double* sums = blockSum.data() + static_cast<size_t>(y / block) * bw;
            double* counts = blockCount.data() + static_cast<size_t>(y / block) * bw;
            for (int x0 = 0, b = 0; x0 < width; x0 += block, ++b) {
                const int x1 = std::min(width, x0 + block);
                for (int x = x0; x < x1; ++x) sums[b] += row[x];
                counts[b] += x1 - x0;
            }
        }
        std::vector<float> means(blockSum.size());
        for (size_t b = 0; b < means.size(); ++b) {
            means[b] = static_cast<float>(blockSum[b] / blockCount[b]);
        }
        out.resize(means.size());
        return Median_Blur(means.data(), out.data(), bw, bh, radius, kPix32F) == 1;
    }

    // The block of pixel (x, y) in the maps that reference() makes.
    size_t blockOf(size_t x, size_t y) const {
        return (y / static_cast<size_t>(block)) * static_cast<size_t>(blockColumns) +
               x / static_cast<size_t>(block);
    }

    int analyse(const DefectThresholds& t);
    void classifyPixels(const std::vector<const std::vector<float>*>& m,
                        const std::vector<const std::vector<float>*>& s,
                        const std::vector<std::vector<float>>& rm,
                        const std::vector<std::vector<float>>& rs, bool spreadTests,
                        const DefectThresholds& t);
    void markLines(const std::vector<const std::vector<float>*>& m,
                   const std::vector<std::vector<float>>& rm, const DefectThresholds& t);
    void markClusters(const std::vector<const std::vector<float>*>& m,
                      const std::vector<std::vector<float>>& rm, const DefectThresholds& t);
    double largestDeviation(const std::vector<const std::vector<float>*>& m,
                            const std::vector<std::vector<float>>& rm, size_t i) const;
};

CalibrationBuilder::CalibrationBuilder(int width, int height, int cornerCut, int levels)
    : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.width = width;
    s.height = height;
    s.cut = cornerCut;
    s.levels = levels;
    s.valid = width >= 1 && height >= 1 && width <= 65535 && height <= 65535 &&
              static_cast<long long>(width) * height <= kMaxPixels && cornerCut >= 0 &&
              cornerCut < width && (levels == 1 || levels == 4);
    if (s.valid) {
        s.pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
        s.mean.resize(static_cast<size_t>(levels));
        s.spread.resize(static_cast<size_t>(levels));
        s.exposures.assign(static_cast<size_t>(levels), 0);
        s.brightSum.assign(static_cast<size_t>(levels), 0.0);
    }
}

CalibrationBuilder::~CalibrationBuilder() = default;

bool CalibrationBuilder::IsValid() const { return state_->valid; }
int CalibrationBuilder::Width() const { return state_->width; }
int CalibrationBuilder::Height() const { return state_->height; }
int CalibrationBuilder::CornerCut() const { return state_->cut; }
int CalibrationBuilder::Levels() const { return state_->levels; }
bool CalibrationBuilder::IsCut(int column, int row) const {
    return InCutCorner(row, column, state_->width, state_->cut);
}

int CalibrationBuilder::AddExposure(int level, const float* pixels) {
    State& s = *state_;
    if (!s.valid) return -3;
    if (pixels == nullptr) return -1;
    if (level < 0 || level >= s.levels || (level != s.current && level != s.current + 1)) {
        return -2;
    }
    try {
        if (level != s.current) {
            if (s.current >= 0) {
                const size_t closed = static_cast<size_t>(s.current);
                s.currentStatistics(s.mean[closed], s.spread[closed]);
            }
            s.current = level;
            s.first.assign(pixels, pixels + s.pixels);
            s.sum.assign(s.pixels, 0.0);
            s.squares.assign(s.pixels, 0.0);
        }
    } catch (const std::bad_alloc&) {
        s.current = -1;  // nothing half-made is kept
        s.first.clear();
        s.sum.clear();
        s.squares.clear();
        return -4;
    }
    for (size_t i = 0; i < s.pixels; ++i) {
        const double d = static_cast<double>(pixels[i]) - s.first[i];
        s.sum[i] += d;
        s.squares[i] += d * d;
    }
    const size_t l = static_cast<size_t>(level);
    ++s.exposures[l];
    s.brightSum[l] += BrightMean(pixels, s.pixels);
    s.analysed = false;
    return 1;
}

int CalibrationBuilder::Exposures(int level) const {
    const State& s = *state_;
    return s.valid && level >= 0 && level < s.levels ? s.exposures[static_cast<size_t>(level)] : 0;
}

int CalibrationBuilder::Analyse(const DefectThresholds& thresholds) {
    if (!state_->valid) return -1;
    try {
        return state_->analyse(thresholds);
    } catch (const std::bad_alloc&) {
        state_->analysed = false;
        return -4;
    }
}

int CalibrationBuilder::State::analyse(const DefectThresholds& t) {
    analysed = false;
    if (std::count(exposures.begin(), exposures.end(), 0) != 0) return -1;
    if (!calibration::ThresholdsUsable(t)) return -2;
    const size_t L = static_cast<size_t>(levels);

    // The frames' levels: the mean of the exposures' bright means. The acquisition compares an
    // image's bright mean with them, so they must rise with the dose.
    frameLevels.assign(L, 0);
    for (size_t l = 0; l < L; ++l) {
        frameLevels[l] = ToSample(brightSum[l] / exposures[l]);
        if (l > 0 && frameLevels[l] <= frameLevels[l - 1]) return -3;
    }

    std::vector<float> lastMean, lastSpread;
    currentStatistics(lastMean, lastSpread);
    std::vector<const std::vector<float>*> m(L), s(L);
    for (size_t l = 0; l < L; ++l) {
        const bool last = l == static_cast<size_t>(current);
        m[l] = last ? &lastMean : &mean[l];
        s[l] = last ? &lastSpread : &spread[l];
    }

    int degrees = 0;
    for (int n : exposures) degrees += n - 1;
    const bool spreadTests = degrees >= kMinSpreadDegrees;
    block = t.localBlock;
    blockColumns = (width + block - 1) / block;
    columnBlock.resize(static_cast<size_t>(width));
    for (size_t x = 0; x < columnBlock.size(); ++x) {
        columnBlock[x] = static_cast<uint32_t>(x / static_cast<size_t>(block));
    }
    std::vector<std::vector<float>> rm(L), rs(spreadTests ? L : 0);
    {
        std::vector<float> strip;
        for (size_t l = 0; l < L; ++l) {
            if (!reference(*m[l], t.localBlock, t.localRadius, strip, rm[l])) return -4;
            if (spreadTests && !reference(*s[l], t.localBlock, t.localRadius, strip, rs[l])) {
                return -4;
            }
        }
    }

    defects.assign(pixels, kDefectNone);
    classifyPixels(m, s, rm, rs, spreadTests, t);
    markLines(m, rm, t);
    markClusters(m, rm, t);

    counts = DefectCounts();
    uint32_t* byKind[] = {
        nullptr,       &counts.dead,         &counts.hot,       &counts.unresponsive,
        &counts.noisy, &counts.columnPixels, &counts.rowPixels, &counts.clusterPixels};
    for (uint8_t kind : defects) {
        if (kind != kDefectNone) {
            ++*byKind[kind];
            ++counts.total;
        }
    }
    // Lines and clusters were counted while they were marked; keep those numbers.
    counts.columns = lineColumns;
    counts.rows = lineRows;
    counts.clusters = clusterCount;

    // Every pixel of a frame is written below.
    frames.resize(L);
    for (std::vector<uint16_t>& frame : frames) frame.resize(pixels);
    doses.assign(L, 0.0f);
    for (size_t l = 0; l < L; ++l) {
        std::vector<uint16_t>& frame = frames[l];
        const std::vector<float>& levelMean = *m[l];
        // The cut corners keep the mean's zeros; the active pixels are then written over.
        for (size_t i = 0; i < pixels; ++i) frame[i] = ToSample(levelMean[i]);
        double sumActive = 0.0, active = 0.0;
        forActivePixels([&](size_t i, size_t b) {
            // A defective pixel gets what a good one would read there: the gain it gives is
            // never used (the pixel is repaired), but it leaves the frame's mean alone.
            if (defects[i] != kDefectNone) frame[i] = ToSample(rm[l][b]);
            sumActive += levelMean[i];
            active += 1.0;
        });
        frame[0] = static_cast<uint16_t>(frameLevels[l]);
        doses[l] = active > 0.0 ? static_cast<float>(sumActive / active) : 0.0f;
    }
    thresholds = t;
    analysed = true;
    return 1;
}

void CalibrationBuilder::State::classifyPixels(const std::vector<const std::vector<float>*>& m,
                                               const std::vector<const std::vector<float>*>& s,
                                               const std::vector<std::vector<float>>& rm,
                                               const std::vector<std::vector<float>>& rs,
                                               bool spreadTests, const DefectThresholds& t) {
    const size_t L = m.size();
    forActivePixels([&](size_t i, size_t b) {
        bool dead = false, hot = false;
        for (size_t l = 0; l < L; ++l) {
            const double ratio = Ratio((*m[l])[i], rm[l][b]);
            dead = dead || ratio < t.deadFraction;
            hot = hot || ratio > t.hotFraction;
        }
        if (dead || hot) {
            defects[i] = dead ? kDefectDead : kDefectHot;
            return;
        }
        if (L >= 2) {
            const double rise = static_cast<double>((*m[L - 1])[i]) - (*m[0])[i];
            const double referenceRise = static_cast<double>(rm[L - 1][b]) - rm[0][b];
            if (referenceRise > 0.0 &&
                std::fabs(rise / referenceRise - 1.0) > t.responseTolerance) {
                defects[i] = kDefectUnresponsive;
                return;
            }
        }
        if (spreadTests) {
            // The spreads of the levels relative to their references, pooled: each level adds
            // its own degrees of freedom.
            double squares = 0.0, n = 0.0;
            for (size_t l = 0; l < L; ++l) {
                if (rs[l][b] > 0.0f) {
                    const double z = (*s[l])[i] / rs[l][b];
                    squares += z * z;
                    n += 1.0;
                }
            }
            if (n > 0.0) {
                const double z = std::sqrt(squares / n);
                if (z > t.noisyFactor) {
                    defects[i] = kDefectNoisy;
                } else if (z < t.frozenFraction) {
                    defects[i] = kDefectUnresponsive;
                }
            }
        }
    });
}

void CalibrationBuilder::State::markLines(const std::vector<const std::vector<float>*>& m,
                                          const std::vector<std::vector<float>>& rm,
                                          const DefectThresholds& t) {
    // Both directions are judged on the pixel marks alone, so that a defective column does not
    // make every row it crosses look defective. A line is defective when too many of its pixels
    // are marked, or when at some level the median of its pixels' ratios to their references
    // lies beyond lineDeviation from 1. The median is judged by counting the ratios beyond the
    // deviation on each side (calibration::MedianBeyond says why that is the same), and the
    // counts of every row and column are gathered in one pass over the frame in memory
    // order: walking down each column instead cost a cache miss per pixel.
    const size_t W = static_cast<size_t>(width), H = static_cast<size_t>(height);
    std::vector<uint32_t> columnActive(W, 0), columnMarked(W, 0), rowActive(H, 0), rowMarked(H, 0);
    for (size_t y = 0; y < H; ++y) {
        long long first = 0, end = 0;
        calibration::ActiveSpan(static_cast<long long>(y), width, cut, first, end);
        for (long long x = first; x < end; ++x) {
            const bool marked = defects[y * W + static_cast<size_t>(x)] != kDefectNone;
            ++columnActive[static_cast<size_t>(x)];
            columnMarked[static_cast<size_t>(x)] += marked;
            ++rowActive[y];
            rowMarked[y] += marked;
        }
    }
    std::vector<uint8_t> badColumns(W, 0), badRows(H, 0);
    auto tooManyMarked = [&](uint32_t active, uint32_t marked) {
        return active > 0 && static_cast<double>(marked) > t.lineFraction * active;
    };
    for (size_t x = 0; x < W; ++x) badColumns[x] = tooManyMarked(columnActive[x], columnMarked[x]);
    for (size_t y = 0; y < H; ++y) badRows[y] = tooManyMarked(rowActive[y], rowMarked[y]);

    std::vector<uint32_t> columnAbove(W), columnBelow(W), rowAbove(H), rowBelow(H);
    for (size_t l = 0; l < m.size(); ++l) {
        std::fill(columnAbove.begin(), columnAbove.end(), 0u);
        std::fill(columnBelow.begin(), columnBelow.end(), 0u);
        std::fill(rowAbove.begin(), rowAbove.end(), 0u);
        std::fill(rowBelow.begin(), rowBelow.end(), 0u);
        const float* mean = m[l]->data();
        for (size_t y = 0; y < H; ++y) {
            long long first = 0, end = 0;
            calibration::ActiveSpan(static_cast<long long>(y), width, cut, first, end);
            const float* reference = rm[l].data() + blockOf(0, y);
            uint32_t above = 0, below = 0;
            for (long long x = first; x < end; ++x) {
                const size_t i = y * W + static_cast<size_t>(x);
                const double v = Ratio(mean[i], reference[columnBlock[static_cast<size_t>(x)]]);
                const bool up = calibration::BeyondAbove(v, t.lineDeviation);
                const bool down = calibration::BeyondBelow(v, t.lineDeviation);
                columnAbove[static_cast<size_t>(x)] += up;
                columnBelow[static_cast<size_t>(x)] += down;
                above += up;
                below += down;
            }
            rowAbove[y] = above;
            rowBelow[y] = below;
        }
        for (size_t x = 0; x < W; ++x)
            badColumns[x] |=
                calibration::MedianBeyond(columnActive[x], columnAbove[x], columnBelow[x]);
        for (size_t y = 0; y < H; ++y)
            badRows[y] |= calibration::MedianBeyond(rowActive[y], rowAbove[y], rowBelow[y]);
    }
    lineColumns = static_cast<uint32_t>(std::count(badColumns.begin(), badColumns.end(), 1));
    lineRows = static_cast<uint32_t>(std::count(badRows.begin(), badRows.end(), 1));
    for (size_t y = 0; y < H; ++y) {
        long long first = 0, end = 0;
        calibration::ActiveSpan(static_cast<long long>(y), width, cut, first, end);
        for (long long x = first; x < end; ++x) {
            uint8_t& kind = defects[y * W + static_cast<size_t>(x)];
            if (badColumns[static_cast<size_t>(x)]) {
                kind = kDefectColumn;
            } else if (badRows[y]) {
                kind = kDefectRow;
            }
        }
    }
}

double CalibrationBuilder::State::largestDeviation(const std::vector<const std::vector<float>*>& m,
                                                   const std::vector<std::vector<float>>& rm,
                                                   size_t i) const {
    const size_t w = static_cast<size_t>(width);
    const size_t b = blockOf(i % w, i / w);
    double largest = 0.0;
    for (size_t l = 0; l < m.size(); ++l) {
        largest = std::max(largest, std::fabs(Ratio((*m[l])[i], rm[l][b]) - 1.0));
    }
    return largest;
}

void CalibrationBuilder::State::markClusters(const std::vector<const std::vector<float>*>& m,
                                             const std::vector<std::vector<float>>& rm,
                                             const DefectThresholds& t) {
    clusterCount = 0;
    auto isPixelDefect = [&](size_t i) {
        return defects[i] >= kDefectDead && defects[i] <= kDefectNoisy;
    };
    std::vector<uint8_t> seen(pixels, 0);
    std::vector<size_t> group;
    std::deque<size_t> queue;
    // Calls f for each neighbour (8-connected) of pixel i inside the image.
    auto forNeighbours = [&](size_t i, auto&& f) {
        const int x = static_cast<int>(i % static_cast<size_t>(width));
        const int y = static_cast<int>(i / static_cast<size_t>(width));
        for (int dy = -1; dy <= 1; ++dy) {
            for (int dx = -1; dx <= 1; ++dx) {
                const int nx = x + dx, ny = y + dy;
                if ((dx != 0 || dy != 0) && nx >= 0 && ny >= 0 && nx < width && ny < height) {
                    f(static_cast<size_t>(ny) * width + nx);
                }
            }
        }
    };
    for (size_t start = 0; start < pixels; ++start) {
        if (seen[start] || !isPixelDefect(start)) continue;
        group.clear();
        queue.assign(1, start);
        seen[start] = 1;
        while (!queue.empty()) {
            const size_t i = queue.front();
            queue.pop_front();
            group.push_back(i);
            forNeighbours(i, [&](size_t n) {
                if (!seen[n] && isPixelDefect(n)) {
                    seen[n] = 1;
                    queue.push_back(n);
                }
            });
        }
        if (group.size() < static_cast<size_t>(t.clusterMinPixels)) continue;
        ++clusterCount;
        // The cluster, then its rim: neighbours that deviate clearly, though not enough to be
        // condemned alone, join it, and their neighbours are looked at in turn.
        queue.assign(group.begin(), group.end());
        for (size_t i : group) defects[i] = kDefectCluster;
        while (!queue.empty()) {
            const size_t i = queue.front();
            queue.pop_front();
            forNeighbours(i, [&](size_t n) {
                if (defects[n] == kDefectNone && !cutAt(n) &&
                    largestDeviation(m, rm, n) > t.clusterEdgeDeviation) {
                    defects[n] = kDefectCluster;
                    seen[n] = 1;
                    queue.push_back(n);
                }
            });
        }
    }
}

bool CalibrationBuilder::IsAnalysed() const { return state_->analysed; }

const uint16_t* CalibrationBuilder::GainFrame(int level) const {
    const State& s = *state_;
    return s.analysed && level >= 0 && level < s.levels
               ? s.frames[static_cast<size_t>(level)].data()
               : nullptr;
}

uint32_t CalibrationBuilder::FrameLevel(int level) const {
    const State& s = *state_;
    return s.analysed && level >= 0 && level < s.levels ? s.frameLevels[static_cast<size_t>(level)]
                                                        : 0;
}

float CalibrationBuilder::LevelDose(int level) const {
    const State& s = *state_;
    return s.analysed && level >= 0 && level < s.levels ? s.doses[static_cast<size_t>(level)]
                                                        : 0.0f;
}

const uint8_t* CalibrationBuilder::DefectMap() const {
    return state_->analysed ? state_->defects.data() : nullptr;
}

DefectCounts CalibrationBuilder::Counts() const {
    return state_->analysed ? state_->counts : DefectCounts();
}

const DefectThresholds& CalibrationBuilder::Thresholds() const { return state_->thresholds; }

void CalibrationBuilder::DescribeIn(CalibrationHeader& header) const {
    const State& s = *state_;
    header.width = static_cast<uint32_t>(s.width);
    header.height = static_cast<uint32_t>(s.height);
    header.cornerCut = s.cut;
    header.frames = static_cast<uint32_t>(s.levels);
    for (size_t l = 0; l < 4; ++l) {
        const bool used = s.analysed && l < static_cast<size_t>(s.levels);
        header.levels[l] = used ? s.frameLevels[l] : 0;
        header.doses[l] = used ? s.doses[l] : 0.0f;
    }
    header.exposures =
        s.exposures.empty()
            ? 0
            : static_cast<uint32_t>(*std::min_element(s.exposures.begin(), s.exposures.end()));
    header.thresholds = s.thresholds;
    header.defects = Counts();
}

int CalibrationBuilder::WriteFiles(const char* gainPath, const char* defectPath,
                                   const CalibrationHeader& header) const {
    if (gainPath == nullptr || defectPath == nullptr || *gainPath == '\0' || *defectPath == '\0') {
        return -1;
    }
    const State& s = *state_;
    if (!s.analysed) return -2;
    std::vector<const uint16_t*> frames;
    for (const std::vector<uint16_t>& frame : s.frames) frames.push_back(frame.data());
    return calibration::WriteCalibrationFiles(gainPath, defectPath, header, frames,
                                              s.defects.data(), s.pixels);
}

namespace calibration {

int WriteCalibrationFiles(const char* gainPath, const char* defectPath,
                          const CalibrationHeader& header,
                          const std::vector<const uint16_t*>& frames, const uint8_t* defects,
                          size_t pixels) {
    // The file is little-endian whatever the machine. On a little-endian host the frames are
    // written as they are kept; elsewhere their bytes are swapped into a copy first.
    std::vector<uint8_t> swapped;
    std::vector<BytePiece> body;
    const uint16_t probe = 1;
    uint8_t lowFirst = 0;
    std::memcpy(&lowFirst, &probe, 1);
    if (lowFirst == 1) {
        for (const uint16_t* frame : frames) body.push_back({frame, pixels * sizeof(uint16_t)});
    } else {
        swapped.resize(frames.size() * pixels * 2);
        uint8_t* out = swapped.data();
        for (const uint16_t* frame : frames) {
            for (size_t i = 0; i < pixels; ++i) {
                *out++ = static_cast<uint8_t>(frame[i] & 0xFF);
                *out++ = static_cast<uint8_t>(frame[i] >> 8);
            }
        }
        body.push_back({swapped.data(), swapped.size()});
    }
    CalibrationHeader gain = header;
    gain.kind = CalibrationHeader::kGainFile;
    CalibrationHeader defectHeader = header;
    defectHeader.kind = CalibrationHeader::kDefectFile;
    if (!WriteWholeFile(gainPath, EncodeHeader(gain), body)) return 0;
    if (!WriteWholeFile(defectPath, EncodeHeader(defectHeader),
                        std::vector<BytePiece>{{defects, pixels}})) {
        std::error_code ignored;
        std::filesystem::remove(gainPath, ignored);
        return 0;
    }
    return 1;
}

}  // namespace calibration
}  // namespace veltrano
