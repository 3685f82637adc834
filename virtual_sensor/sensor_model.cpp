#include "sensor_model.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <tuple>
#include <utility>

#include "phantom.h"
#include "random.h"

namespace virtual_sensor {
namespace {

// Relative RMS of the per-pixel gain non-uniformity.
constexpr double kGainSpread = 0.08;
// Dark offset: mean and spread in raw units.
constexpr double kDarkMean = 60.0;
constexpr double kDarkSpread = 8.0;
// Signal-dependent noise: variance = kNoiseGain * signal + kReadNoise^2 (raw units), about 1 %
// at the default dose.
constexpr double kNoiseGain = 2.0;
constexpr double kReadNoise = 6.0;
// Pixels counted from the top of the histogram for the bright mean.
constexpr uint64_t kBrightCount = 5000;

// Separate random streams for the parts of the fixed pattern, so that changing one part's
// generator does not reshuffle the others.
enum Stream : uint64_t { kGainShading = 1, kGainColumns, kGainPixels, kDark, kDefects, kNoise };

uint64_t StreamSeed(uint32_t seed, Stream stream) {
    return Mix64((static_cast<uint64_t>(seed) << 8) ^ stream);
}

// Rounded and clipped to 16 bits, 0 for NaN. Clipping the rounded value gives the same as rounding
// the clipped one; done in this order, as selects, the frame loops vectorise (the compiler will
// not add before it knows that the sum is wanted).
uint16_t ToRaw(double value) {
    const double rounded = value + 0.5;
    const double low = 0.5 < rounded ? rounded : 0.0;
    const double clipped = low < 65535.5 ? low : 65535.0;
    return static_cast<uint16_t>(static_cast<int32_t>(clipped));
}

// Mean and RMS deviation of values added one by one, in order (each sum is rounded at every
// step, so the order is part of the result).
class Spread {
public:
    // Adds valueAt(k) for k in [first, end) to this spread and bValueAt(k) to b in one loop: each
    // running sum waits on its own last step only, so the two advance side by side in the time
    // of one, and making the values fills that time.
    template <class ValueAt, class BValueAt>
    void addMade(ValueAt valueAt, Spread& b, BValueAt bValueAt, int first, int end) {
        double sum = sum_, squares = squares_, bSum = b.sum_, bSquares = b.squares_;
        for (int k = first; k < end; ++k) {
            const double v = valueAt(k);
            const double bv = bValueAt(k);
            sum += v;
            squares += v * v;
            bSum += bv;
            bSquares += bv * bv;
        }
        sum_ = sum;
        squares_ = squares;
        count_ += end - first;
        b.sum_ = bSum;
        b.squares_ = bSquares;
        b.count_ += end - first;
    }
    template <class ValueAt>
    void addMade(ValueAt valueAt, int first, int end) {
        double sum = sum_, squares = squares_;
        for (int k = first; k < end; ++k) {
            const double v = valueAt(k);
            sum += v;
            squares += v * v;
        }
        sum_ = sum;
        squares_ = squares;
        count_ += end - first;
    }
    void add(double value, double times) {
        sum_ += value * times;
        squares_ += value * value * times;
        count_ += times;
    }
    double mean() const { return count_ > 0.0 ? sum_ / count_ : 0.0; }
    // 1 when there is no spread, so that dividing by it leaves values as they are.
    double rms() const {
        if (count_ == 0.0) {
            return 1.0;
        }
        const double m = mean();
        const double variance = squares_ / count_ - m * m;
        return variance > 0.0 ? std::sqrt(variance) : 1.0;
    }

private:
    double sum_ = 0.0;
    double squares_ = 0.0;
    double count_ = 0.0;
};

// Builds the fixed pattern of a seed and geometry.
class PatternBuilder {
public:
    explicit PatternBuilder(const Settings& settings);
    FixedPattern take();

private:
    void buildGainMap();
    void buildDarkOffsets();
    void placeDefects();
    void markDefect(int x, int y, int value);
    bool canHoldDefect(int x, int y) const;

    const Settings& settings_;
    int columns_;
    int rows_;
    CutCorners cut_;
    std::vector<float> gain_;
    std::vector<float> darkOffset_;
    std::vector<uint8_t> defects_;
    // In the order marked; a pixel marked again takes the later value.
    std::vector<StuckPixel> stuck_;
};

PatternBuilder::PatternBuilder(const Settings& settings)
    : settings_(settings),
      columns_(settings.columns()),
      rows_(settings.rows()),
      cut_(settings.cutCorners()) {
    const size_t count = static_cast<size_t>(columns_) * static_cast<size_t>(rows_);
    // The gain map and the dark offsets grow a row at a time: filling them with zeros first
    // would write them once more for nothing.
    gain_.reserve(count);
    darkOffset_.reserve(count);
    defects_.assign(count, 0);
    buildGainMap();
    buildDarkOffsets();
    placeDefects();
}

FixedPattern PatternBuilder::take() {
    // In index order, each pixel once with the value marked last.
    std::stable_sort(stuck_.begin(), stuck_.end(),
                     [](const StuckPixel& a, const StuckPixel& b) { return a.index < b.index; });
    std::vector<StuckPixel> stuck;
    for (const StuckPixel& pixel : stuck_) {
        if (!stuck.empty() && stuck.back().index == pixel.index) {
            stuck.back() = pixel;
        } else {
            stuck.push_back(pixel);
        }
    }
    return FixedPattern{std::move(gain_), std::move(darkOffset_), std::move(defects_),
                        std::move(stuck)};
}

void PatternBuilder::buildGainMap() {
    // Three parts, as seen on real sensors: a smooth shading over the area, a faint per-column
    // pattern from the read-out, and independent pixel-to-pixel differences. Each is scaled to
    // zero mean and unit RMS over the sensor's pixels (the cut corners have none) before they are
    // mixed, and the mixture is scaled so again.
    //
    // That takes three passes over the frame. The shading is cheap to make again, so instead of a
    // frame of it in memory each pass makes each value where it is used, beside the running sums
    // (which wait on their own last step anyway); the pixel part waits in the gain map until the
    // last pass replaces it with the gain.
    const uint64_t shadingSeed = StreamSeed(settings_.seed, kGainShading);
    const double coarse = std::max(4.0, columns_ / 4.0);
    const double fine = std::max(2.0, columns_ / 14.0);
    Random columnRandom(StreamSeed(settings_.seed, kGainColumns));
    std::vector<double> columnGain(static_cast<size_t>(columns_));
    for (double& g : columnGain) {
        g = columnRandom.gaussian();
    }
    const LatticeColumns coarseColumns(columns_, coarse);
    const LatticeColumns fineColumns(columns_, fine);
    ValueNoiseRows coarseNoise(shadingSeed, coarseColumns);
    ValueNoiseRows fineNoise(shadingSeed + 1, fineColumns);
    // The shading of row y: shading(x) is its value in column x.
    struct ShadingRow {
        ValueNoiseRows::Row coarse, fine;
        double operator()(int x) const { return coarse[x] + 0.5 * fine[x]; }
    };
    const auto shadingOfRow = [&](int y) {
        return ShadingRow{coarseNoise.at(y / coarse), fineNoise.at(y / fine)};
    };

    std::vector<float> row(static_cast<size_t>(columns_));
    std::vector<double> activeInColumn(static_cast<size_t>(columns_), 0.0);
    Spread shadingSpread;
    Spread pixelSpread;
    Random pixelRandom(StreamSeed(settings_.seed, kGainPixels));
    for (int y = 0; y < rows_; ++y) {
        const ShadingRow shadingHere = shadingOfRow(y);
        const float* pixelPart = row.data();
        pixelRandom.gaussians(row.data(), row.size());
        gain_.insert(gain_.end(), row.begin(), row.end());
        int first = 0, end = 0;
        cut_.uncut(y, first, end);
        if (first < end) {
            // Only the sensor's pixels count; the shading of a cut corner is never needed.
            shadingSpread.addMade(
                shadingHere, pixelSpread, [pixelPart](int x) { return pixelPart[x]; }, first, end);
            for (int x = first; x < end; ++x) {
                activeInColumn[static_cast<size_t>(x)] += 1.0;
            }
        }
    }
    Spread columnSpread;
    for (size_t x = 0; x < columnGain.size(); ++x) {
        columnSpread.add(columnGain[x], activeInColumn[x]);
    }
    for (double& g : columnGain) {
        g = 0.20 * (g - columnSpread.mean()) / columnSpread.rms();
    }

    const double shadingMean = shadingSpread.mean();
    const double shadingScale = 0.70 / shadingSpread.rms();
    const double pixelMean = pixelSpread.mean();
    const double pixelScale = 0.68 / pixelSpread.rms();
    // The mixture at column x of a row, from the row's shading and pixel part.
    const auto mixedAt = [&](const ShadingRow& shadingHere, const float* pixelPart, int x) {
        return shadingScale * (shadingHere(x) - shadingMean) + columnGain[static_cast<size_t>(x)] +
               pixelScale * (pixelPart[x] - pixelMean);
    };
    Spread mixedSpread;
    for (int y = 0; y < rows_; ++y) {
        int first = 0, end = 0;
        cut_.uncut(y, first, end);
        const ShadingRow shadingHere = shadingOfRow(y);
        const float* pixelPart = &gain_[static_cast<size_t>(y) * columns_];
        mixedSpread.addMade([&](int x) { return mixedAt(shadingHere, pixelPart, x); }, first, end);
    }
    const double mixedMean = mixedSpread.mean();
    const double mixedScale = kGainSpread / mixedSpread.rms();
    for (int y = 0; y < rows_; ++y) {
        const ShadingRow shadingHere = shadingOfRow(y);
        float* gain = &gain_[static_cast<size_t>(y) * columns_];
        for (int x = 0; x < columns_; ++x) {
            // Clamped to [0.6, 1.4] after the rounding to float, which gives the same as before
            // it (the rounding keeps the order) and, done this way, vectorises.
            const auto g =
                static_cast<float>(1.0 + mixedScale * (mixedAt(shadingHere, gain, x) - mixedMean));
            const float low = g < 0.6f ? 0.6f : g;
            gain[x] = 1.4f < low ? 1.4f : low;
        }
    }
}

void PatternBuilder::buildDarkOffsets() {
    Random random(StreamSeed(settings_.seed, kDark));
    // A row at a time, scaled while the samples are still in the cache.
    std::vector<float> offsets(static_cast<size_t>(columns_));
    for (int y = 0; y < rows_; ++y) {
        random.gaussians(offsets.data(), offsets.size());
        for (float& offset : offsets) {
            // Kept at 0 or above after the rounding to float: the same as before it, and it
            // vectorises.
            const auto value = static_cast<float>(kDarkMean + kDarkSpread * offset);
            offset = 0.0f < value ? value : 0.0f;
        }
        darkOffset_.insert(darkOffset_.end(), offsets.begin(), offsets.end());
    }
}

// The repair fills a defect from the good pixels around it, and the defect file counts the cut
// corners as good although they read 0 (after gain correction too): a defect beside a corner
// would be filled too dark. So no defect lies within one pixel of a cut corner.
bool PatternBuilder::canHoldDefect(int x, int y) const {
    if (x < 0 || y < 0 || x >= columns_ || y >= rows_) {
        return false;
    }
    for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
            if (cut_.contains(x + dx, y + dy)) {
                return false;
            }
        }
    }
    return true;
}

void PatternBuilder::markDefect(int x, int y, int value) {
    if (!canHoldDefect(x, y)) {
        return;
    }
    const size_t i = static_cast<size_t>(y) * columns_ + x;
    defects_[i] = 1;
    stuck_.push_back({i, value});
}

void PatternBuilder::placeDefects() {
    Random random(StreamSeed(settings_.seed, kDefects));
    const int margin = 2;
    if (columns_ <= 2 * margin || rows_ <= 2 * margin) {
        return;
    }
    const int64_t area = static_cast<int64_t>(columns_) * rows_;

    // The defective column: stuck dark from top to bottom, away from the edges.
    const int column = random.integer(columns_ * 3 / 10, columns_ * 7 / 10);
    for (int y = 0; y < rows_; ++y) {
        markDefect(column, y, random.integer(20, 60));
    }

    // A few clusters: small irregular blobs of dead pixels.
    const int clusters = area >= 200000 ? 4 : 1;
    for (int c = 0; c < clusters; ++c) {
        const int edge = std::min({12, columns_ / 4, rows_ / 4});
        int cx = 0, cy = 0;
        for (int attempt = 0; attempt < 100; ++attempt) {
            cx = random.integer(edge, columns_ - 1 - edge);
            cy = random.integer(edge, rows_ - 1 - edge);
            if (canHoldDefect(cx, cy)) {
                break;
            }
        }
        const double rx = random.uniform(1.5, 5.0);
        const double ry = random.uniform(1.5, 5.0);
        for (int dy = -5; dy <= 5; ++dy) {
            for (int dx = -5; dx <= 5; ++dx) {
                const double q = (dx * dx) / (rx * rx) + (dy * dy) / (ry * ry);
                if (q <= 1.0) {
                    markDefect(cx + dx, cy + dy, random.integer(0, 40));
                }
            }
        }
    }

    // Isolated pixels, half of them hot and half dead, each with good neighbours all round.
    const int64_t isolated = std::max<int64_t>(4, area / 5000);
    for (int64_t n = 0; n < isolated; ++n) {
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int x = random.integer(margin, columns_ - 1 - margin);
            const int y = random.integer(margin, rows_ - 1 - margin);
            bool free = true;
            for (int dy = -1; dy <= 1 && free; ++dy) {
                for (int dx = -1; dx <= 1 && free; ++dx) {
                    free = canHoldDefect(x + dx, y + dy) &&
                           defects_[static_cast<size_t>(y + dy) * columns_ + (x + dx)] == 0;
                }
            }
            if (free) {
                const bool hot = (n % 2) == 0;
                markDefect(x, y, hot ? random.integer(56000, 65535) : random.integer(0, 40));
                break;
            }
        }
    }
}

// On a full frame a pattern takes as long as three exposures and a scene as eight, and a process
// makes the same ones again and again: the calibration files are written from the pattern, every
// instance of the sensor exposes with it, and test programs open many instances of one seed. So
// the last few patterns and scenes stay in memory for the next model that asks for the same
// ones. They never change once built, so models on several threads share them without further
// locking.
template <class Key, class Value>
class RecentlyBuilt {
public:
    template <class Build>
    std::shared_ptr<const Value> get(const Key& key, Build build) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->first == key) {
                std::rotate(entries_.begin(), it, it + 1);
                return entries_.front().second;
            }
        }
        auto value = std::make_shared<const Value>(build());
        if (entries_.size() == kKept) {
            entries_.pop_back();
        }
        entries_.insert(entries_.begin(), {key, value});
        return value;
    }

private:
    static constexpr size_t kKept = 2;
    std::mutex mutex_;
    std::vector<std::pair<Key, std::shared_ptr<const Value>>> entries_;
};

// Seed, columns, rows and corner cut: all that the pattern depends on.
using PatternKey = std::tuple<uint32_t, int, int, int>;
// Columns, rows and seed: all that the rendered scene depends on.
using SceneKey = std::tuple<int, int, uint32_t>;

std::shared_ptr<const FixedPattern> FixedPatternFor(const Settings& settings) {
    static RecentlyBuilt<PatternKey, FixedPattern> patterns;
    const PatternKey key{settings.seed, settings.columns(), settings.rows(), settings.cornerCut()};
    return patterns.get(key, [&] { return PatternBuilder(settings).take(); });
}

std::shared_ptr<const std::vector<float>> SceneFor(int columns, int rows, uint32_t seed) {
    static RecentlyBuilt<SceneKey, std::vector<float>> scenes;
    return scenes.get(SceneKey{columns, rows, seed},
                      [&] { return RenderPhantom(columns, rows, seed); });
}

}  // namespace

SensorModel::SensorModel(const Settings& settings)
    : settings_(settings),
      columns_(settings.columns()),
      rows_(settings.rows()),
      cut_(settings.cutCorners()),
      pattern_(FixedPatternFor(settings)) {}

void SensorModel::expose(uint64_t frameIndex, std::vector<uint16_t>& frame, double flatDose) {
    const FixedPattern& pattern = *pattern_;
    const size_t count = pattern.gain.size();
    const bool flat = flatDose >= 0.0 || settings_.scene == Scene::Flat;
    if (!flat && !scene_) {
        scene_ = SceneFor(columns_, rows_, settings_.seed);
    }
    // Every pixel is written below: no need to clear a frame that is used again.
    frame.resize(count);
    Random noise(Mix64(StreamSeed(settings_.seed, kNoise) ^ Mix64(frameIndex)));
    const double dose = flatDose >= 0.0 ? flatDose : settings_.dose;
    // A defective pixel reads its stuck value and draws no noise, so the good pixels between two
    // defects take consecutive samples: each such run draws its samples first and then works
    // without a branch.
    std::vector<float> samples(static_cast<size_t>(columns_));
    const float* gain = pattern.gain.data();
    const float* dark = pattern.darkOffset.data();
    const float* scene = flat ? nullptr : scene_->data();
    uint16_t* out = frame.data();
    const auto exposeRun = [&](size_t from, size_t to) {
        noise.gaussians(samples.data(), to - from);
        const float* g = samples.data();
        const auto pixel = [&](size_t i, double signal) {
            const double sigma = std::sqrt(kNoiseGain * signal + kReadNoise * kReadNoise);
            out[i] = ToRaw(signal + dark[i] + sigma * g[i - from]);
        };
        // A flat field is a scene of 1 everywhere: multiplying by it would change nothing.
        if (flat) {
            for (size_t i = from; i < to; ++i) {
                pixel(i, gain[i] * dose);
            }
        } else {
            for (size_t i = from; i < to; ++i) {
                pixel(i, gain[i] * dose * scene[i]);
            }
        }
    };
    auto stuck = pattern.stuck.begin();
    for (int y = 0; y < rows_; ++y) {
        int first = 0, end = 0;
        cut_.uncut(y, first, end);
        const size_t rowStart = static_cast<size_t>(y) * columns_;
        size_t from = rowStart + first;
        const size_t to = rowStart + end;
        // The cut corners have no pixel: they read 0.
        std::fill(out + rowStart, out + from, uint16_t{0});
        std::fill(out + to, out + rowStart + columns_, uint16_t{0});
        // Defects never lie in the cut corners, so the next one is either in this row's span or
        // in a later row.
        for (; stuck != pattern.stuck.end() && stuck->index < to; ++stuck) {
            exposeRun(from, stuck->index);
            out[stuck->index] = static_cast<uint16_t>(stuck->value);
            from = stuck->index + 1;
        }
        if (from < to) {
            exposeRun(from, to);
        }
    }
}

std::vector<uint16_t> SensorModel::calibrationFlat(double dose) const {
    std::vector<uint16_t> flat(pattern_->gain.size(), 0);
    const int level = flatLevel(dose, flat);
    // The first pixel lies in a cut corner and would read 0; it carries the frame's level.
    if (!flat.empty()) {
        flat[0] = static_cast<uint16_t>(std::clamp(level, 0, 65535));
    }
    return flat;
}

// The level that the system compares with an image's bright mean when it picks one of several
// gain frames: the bright mean of a noise-free flat exposure of this dose, from its histogram.
// On the way, the good pixels' values go to flat.
int SensorModel::flatLevel(double dose, std::vector<uint16_t>& flat) const {
    const FixedPattern& pattern = *pattern_;
    // 32-bit bins: a frame has at most 8192 x 8192 pixels, and the table at half the size stays
    // in the cache beside the frame.
    std::vector<uint32_t> histogram(65536, 0);
    for (int y = 0; y < rows_; ++y) {
        int first = 0, end = 0;
        cut_.uncut(y, first, end);
        const size_t rowStart = static_cast<size_t>(y) * columns_;
        // The cut corners have no pixel: they read 0.
        histogram[0] += static_cast<uint32_t>(columns_ - (end - first));
        for (size_t i = rowStart + first; i < rowStart + end; ++i) {
            flat[i] = ToRaw(pattern.gain[i] * dose + pattern.darkOffset[i]);
        }
        for (size_t i = rowStart + first; i < rowStart + end; ++i) {
            ++histogram[flat[i]];
        }
    }
    // A defective pixel reads its stuck value, not the good one that the flat holds.
    for (const StuckPixel& pixel : pattern.stuck) {
        --histogram[flat[pixel.index]];
        ++histogram[static_cast<size_t>(pixel.value)];
    }
    const double level = BrightMeanOf(histogram);
    return level > 0.0 ? static_cast<int>(level + 0.5) : static_cast<int>(dose + 0.5);
}

double BrightMeanOf(const std::vector<uint32_t>& histogram) {
    double sum = 0.0;
    uint64_t counted = 0;
    for (int bin = 65535; bin >= 0 && counted < kBrightCount; --bin) {
        sum += static_cast<double>(histogram[static_cast<size_t>(bin)]) * bin;
        counted += histogram[static_cast<size_t>(bin)];
    }
    return counted > 0 ? sum / static_cast<double>(counted) : 0.0;
}

}  // namespace virtual_sensor
