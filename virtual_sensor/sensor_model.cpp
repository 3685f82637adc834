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

uint16_t ToRaw(double value) {
    if (!(value > 0.0)) {
        return 0;
    }
    if (value >= 65535.0) {
        return 65535;
    }
    return static_cast<uint16_t>(value + 0.5);
}

// Mean and RMS deviation of values added one by one.
class Spread {
public:
    void add(double value) {
        sum_ += value;
        squares_ += value * value;
        count_ += 1.0;
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
    std::vector<int32_t> stuck_;
};

PatternBuilder::PatternBuilder(const Settings& settings)
    : settings_(settings),
      columns_(settings.columns()),
      rows_(settings.rows()),
      cut_(settings.cutCorners()) {
    const size_t count = static_cast<size_t>(columns_) * static_cast<size_t>(rows_);
    gain_.assign(count, 1.0f);
    darkOffset_.assign(count, 0.0f);
    defects_.assign(count, 0);
    stuck_.assign(count, -1);
    buildGainMap();
    buildDarkOffsets();
    placeDefects();
}

FixedPattern PatternBuilder::take() {
    return FixedPattern{std::move(gain_), std::move(darkOffset_), std::move(defects_),
                        std::move(stuck_)};
}

void PatternBuilder::buildGainMap() {
    // Three parts, as seen on real sensors: a smooth shading over the area, a faint per-column
    // pattern from the read-out, and independent pixel-to-pixel differences. Each is scaled to
    // zero mean and unit RMS over the sensor's pixels (the cut corners have none) before they are
    // mixed, and the mixture is scaled so again.
    const uint64_t shadingSeed = StreamSeed(settings_.seed, kGainShading);
    const double coarse = std::max(4.0, columns_ / 4.0);
    const double fine = std::max(2.0, columns_ / 14.0);
    Random columnRandom(StreamSeed(settings_.seed, kGainColumns));
    std::vector<double> columnGain(static_cast<size_t>(columns_));
    for (double& g : columnGain) {
        g = columnRandom.gaussian();
    }
    std::vector<double> activeInColumn(static_cast<size_t>(columns_), 0.0);
    std::vector<double> shading(gain_.size());
    std::vector<float> pixelPart(gain_.size());
    Spread shadingSpread;
    Spread pixelSpread;
    Random pixelRandom(StreamSeed(settings_.seed, kGainPixels));
    const LatticeColumns coarseColumns(columns_, coarse);
    const LatticeColumns fineColumns(columns_, fine);
    for (int y = 0; y < rows_; ++y) {
        ValueNoiseRow coarseNoise(shadingSeed, y / coarse);
        ValueNoiseRow fineNoise(shadingSeed + 1, y / fine);
        for (int x = 0; x < columns_; ++x) {
            const size_t i = static_cast<size_t>(y) * columns_ + x;
            shading[i] = coarseNoise(coarseColumns[x]) + 0.5 * fineNoise(fineColumns[x]);
            pixelPart[i] = static_cast<float>(pixelRandom.gaussian());
            if (!cut_.contains(x, y)) {
                shadingSpread.add(shading[i]);
                pixelSpread.add(pixelPart[i]);
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
    Spread mixedSpread;
    for (int y = 0; y < rows_; ++y) {
        for (int x = 0; x < columns_; ++x) {
            const size_t i = static_cast<size_t>(y) * columns_ + x;
            double& mixed = shading[i];
            mixed = shadingScale * (mixed - shadingMean) + columnGain[static_cast<size_t>(x)] +
                    pixelScale * (pixelPart[i] - pixelMean);
            if (!cut_.contains(x, y)) {
                mixedSpread.add(mixed);
            }
        }
    }
    const double mixedMean = mixedSpread.mean();
    const double mixedScale = kGainSpread / mixedSpread.rms();
    for (size_t i = 0; i < gain_.size(); ++i) {
        gain_[i] =
            static_cast<float>(std::clamp(1.0 + mixedScale * (shading[i] - mixedMean), 0.6, 1.4));
    }
}

void PatternBuilder::buildDarkOffsets() {
    Random random(StreamSeed(settings_.seed, kDark));
    for (float& offset : darkOffset_) {
        offset = static_cast<float>(std::max(0.0, kDarkMean + kDarkSpread * random.gaussian()));
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
    stuck_[i] = value;
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

// Building a pattern costs a fifth of a second on a full frame, and a process makes the same one
// again and again: the calibration files are written from it, every instance of the sensor
// exposes with it, and test programs open many instances of one seed. So the last few patterns
// and scenes stay in memory for the next model that asks for the same ones. They never change
// once built, so models on several threads share them without further locking.
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

double SensorModel::expected(size_t index, double signal) const {
    return pattern_->gain[index] * signal + pattern_->darkOffset[index];
}

void SensorModel::expose(uint64_t frameIndex, std::vector<uint16_t>& frame, double flatDose) {
    const FixedPattern& pattern = *pattern_;
    const size_t count = pattern.gain.size();
    const bool flat = flatDose >= 0.0 || settings_.scene == Scene::Flat;
    if (!flat && !scene_) {
        scene_ = SceneFor(columns_, rows_, settings_.seed);
    }
    frame.assign(count, 0);
    Random noise(Mix64(StreamSeed(settings_.seed, kNoise) ^ Mix64(frameIndex)));
    const double dose = flatDose >= 0.0 ? flatDose : settings_.dose;
    for (int y = 0; y < rows_; ++y) {
        for (int x = 0; x < columns_; ++x) {
            const size_t i = static_cast<size_t>(y) * columns_ + x;
            if (cut_.contains(x, y)) {
                continue;  // no pixel there: reads 0
            }
            if (pattern.stuck[i] >= 0) {
                frame[i] = static_cast<uint16_t>(pattern.stuck[i]);
                continue;
            }
            const double signal = pattern.gain[i] * dose * (flat ? 1.0 : (*scene_)[i]);
            const double sigma = std::sqrt(kNoiseGain * signal + kReadNoise * kReadNoise);
            frame[i] = ToRaw(signal + pattern.darkOffset[i] + sigma * noise.gaussian());
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
    std::vector<uint64_t> histogram(65536, 0);
    for (int y = 0; y < rows_; ++y) {
        for (int x = 0; x < columns_; ++x) {
            const size_t i = static_cast<size_t>(y) * columns_ + x;
            if (cut_.contains(x, y)) {
                ++histogram[0];  // no pixel there: reads 0
                continue;
            }
            const uint16_t good = ToRaw(expected(i, dose));
            flat[i] = good;
            ++histogram[pattern_->stuck[i] >= 0 ? static_cast<size_t>(pattern_->stuck[i]) : good];
        }
    }
    const double level = BrightMeanOf(histogram);
    return level > 0.0 ? static_cast<int>(level + 0.5) : static_cast<int>(dose + 0.5);
}

double BrightMeanOf(const std::vector<uint64_t>& histogram) {
    double sum = 0.0;
    uint64_t counted = 0;
    for (int bin = 65535; bin >= 0 && counted < kBrightCount; --bin) {
        sum += static_cast<double>(histogram[static_cast<size_t>(bin)]) * bin;
        counted += histogram[static_cast<size_t>(bin)];
    }
    return counted > 0 ? sum / static_cast<double>(counted) : 0.0;
}

}  // namespace virtual_sensor
