// Small seeded random sources for the sensor model: a counter-based integer hash, a sequential
// generator with Gaussian samples, and smooth two-dimensional value noise.
//
// Everything is computed with our own integer arithmetic so that a given seed yields the same
// fixed pattern, scene and noise on every platform and standard library.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace virtual_sensor {

// SplitMix64 finaliser: a well-mixed 64-bit value from any 64-bit input.
inline uint64_t Mix64(uint64_t z) {
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Hash of a seed and two lattice coordinates.
inline uint64_t Hash3(uint64_t seed, int64_t a, int64_t b) {
    return Mix64(seed ^ Mix64(static_cast<uint64_t>(a) * 0x632BE59BD9B4E019ull ^
                              Mix64(static_cast<uint64_t>(b))));
}

// Uniform in [0, 1) from the upper 53 bits of a hash.
inline double UnitFromBits(uint64_t bits) {
    return static_cast<double>(bits >> 11) * (1.0 / 9007199254740992.0);
}

// The 65536 midpoint quantiles of the standard normal distribution, in increasing order, built
// on first use.
const float* NormalQuantiles();

class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}

    uint64_t next() {
        state_ += 0x9E3779B97F4A7C15ull;
        return Mix64(state_);
    }
    // Uniform in [0, 1).
    double uniform() { return UnitFromBits(next()); }
    // Uniform in [lo, hi).
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    // Uniform integer in [lo, hi]; hi >= lo.
    int integer(int lo, int hi) {
        const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
        return static_cast<int>(lo + static_cast<int64_t>(next() % span));
    }
    // Standard normal sample: one of 65536 equally likely values, the midpoints of the normal
    // distribution's quantiles (so it reaches about 4.3 standard deviations). A 64-bit draw gives
    // four samples. The sensor draws one or two per pixel of every frame, and a full frame takes a
    // few milliseconds this way against a quarter of a second with logarithms and sines.
    double gaussian() {
        if (bitsLeft_ == 0) {
            bits_ = next();
            bitsLeft_ = 4;
        }
        const auto index = static_cast<uint16_t>(bits_);
        bits_ >>= 16;
        --bitsLeft_;
        return normal_[index];
    }
    // The next count samples of gaussian(), in the order it would give them. Frame-sized loops
    // draw a run of pixels' samples at once and then work on the run without the drawing in the
    // way, which lets the compiler vectorise the arithmetic.
    void gaussians(float* out, size_t count) {
        size_t k = 0;
        for (; k < count && bitsLeft_ > 0; ++k) {
            out[k] = static_cast<float>(gaussian());
        }
        for (; k + 4 <= count; k += 4) {
            const uint64_t bits = next();
            out[k] = normal_[static_cast<uint16_t>(bits)];
            out[k + 1] = normal_[static_cast<uint16_t>(bits >> 16)];
            out[k + 2] = normal_[static_cast<uint16_t>(bits >> 32)];
            out[k + 3] = normal_[static_cast<uint16_t>(bits >> 48)];
        }
        for (; k < count; ++k) {
            out[k] = static_cast<float>(gaussian());
        }
    }

private:
    uint64_t state_;
    const float* normal_ = NormalQuantiles();
    uint64_t bits_ = 0;
    int bitsLeft_ = 0;
};

// Where a coordinate falls on the noise lattice: its cell and its smoothed position in the cell.
struct LatticePoint {
    int64_t cell;
    double weight;

    explicit LatticePoint(double x) {
        const double fx = std::floor(x);
        cell = static_cast<int64_t>(fx);
        const double t = x - fx;
        weight = t * t * (3.0 - 2.0 * t);
    }
};

// The lattice points of columns 0, 1, ... of a frame at one scale (column / scale): the same for
// every row, so a frame-sized pattern works them out once instead of once per pixel. Columns
// fall into the cells in order, so they are kept as runs of columns per cell.
class LatticeColumns {
public:
    struct Run {
        int64_t cell;
        int first;  // the first column in the cell; the run ends where the next one begins
    };

    LatticeColumns(int columns, double scale) : columns_(columns > 0 ? columns : 0) {
        weights_.reserve(static_cast<size_t>(columns_));
        for (int x = 0; x < columns_; ++x) {
            const LatticePoint point(x / scale);
            weights_.push_back(point.weight);
            if (runs_.empty() || runs_.back().cell != point.cell) {
                runs_.push_back({point.cell, x});
            }
        }
    }
    int columns() const { return columns_; }
    const std::vector<Run>& runs() const { return runs_; }
    // End of run r: the first column of the next run, or the frame's width.
    int runEnd(size_t r) const { return r + 1 < runs_.size() ? runs_[r + 1].first : columns_; }
    const double* weights() const { return weights_.data(); }

private:
    int columns_;
    std::vector<Run> runs_;
    std::vector<double> weights_;
};

// Smooth value noise in [0, 1] over a frame's columns: random values on the integer lattice,
// blended with a smoothstep, produced a row at a time. The blend along the columns depends only
// on the lattice row (the cells' corner values and the column weights), so it is worked out once
// for all the frame rows that fall into one lattice row, and each row then takes one blend
// across. On the broad cells of a frame-sized pattern that is most rows. Every sample is exactly
// what a fresh computation at that point would give.
class ValueNoiseRows {
public:
    ValueNoiseRows(uint64_t seed, const LatticeColumns& columns)
        : seed_(seed),
          columns_(columns),
          top_(static_cast<size_t>(columns.columns())),
          span_(static_cast<size_t>(columns.columns())) {}

    // The noise along one row: noise[x] for column x.
    struct Row {
        const double* top;
        const double* span;
        double weight;
        double operator[](int x) const { return top[x] + span[x] * weight; }
    };

    // The noise at row coordinate y, valid until the next call. Loops that combine it with
    // other per-column values read it from here in the same pass.
    Row at(double y) {
        const LatticePoint row(y);
        if (!rowKnown_ || row.cell != iy_) {
            blendColumns(row.cell);
        }
        return Row{top_.data(), span_.data(), row.weight};
    }

    // The noise at row coordinate y for every column, into out[0, columns).
    void row(double y, double* out) {
        const Row noise = at(y);
        for (int x = 0; x < columns_.columns(); ++x) {
            out[x] = noise[x];
        }
    }

private:
    // The noise along the lattice row iy and along the next one, per column; span_ holds the
    // difference.
    void blendColumns(int64_t iy) {
        const auto& runs = columns_.runs();
        const double* weights = columns_.weights();
        for (size_t r = 0; r < runs.size(); ++r) {
            const double v00 = UnitFromBits(Hash3(seed_, runs[r].cell, iy));
            const double v10 = UnitFromBits(Hash3(seed_, runs[r].cell + 1, iy));
            const double v01 = UnitFromBits(Hash3(seed_, runs[r].cell, iy + 1));
            const double v11 = UnitFromBits(Hash3(seed_, runs[r].cell + 1, iy + 1));
            const int end = columns_.runEnd(r);
            for (int x = runs[r].first; x < end; ++x) {
                const double top = v00 + (v10 - v00) * weights[x];
                const double bottom = v01 + (v11 - v01) * weights[x];
                top_[static_cast<size_t>(x)] = top;
                span_[static_cast<size_t>(x)] = bottom - top;
            }
        }
        iy_ = iy;
        rowKnown_ = true;
    }

    uint64_t seed_;
    const LatticeColumns& columns_;
    std::vector<double> top_;
    std::vector<double> span_;
    int64_t iy_ = 0;
    bool rowKnown_ = false;
};

}  // namespace virtual_sensor
