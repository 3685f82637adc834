// Small seeded random sources for the sensor model: a counter-based integer hash, a sequential
// generator with Gaussian samples, and smooth two-dimensional value noise.
//
// Everything is computed with our own integer arithmetic so that a given seed yields the same
// fixed pattern, scene and noise on every platform and standard library.
#pragma once

#include <cmath>
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
// every row, so a frame-sized pattern works them out once instead of once per pixel.
class LatticeColumns {
public:
    LatticeColumns(int columns, double scale) {
        points_.reserve(static_cast<size_t>(columns > 0 ? columns : 0));
        for (int x = 0; x < columns; ++x) {
            points_.emplace_back(x / scale);
        }
    }
    const LatticePoint& operator[](int x) const { return points_[static_cast<size_t>(x)]; }

private:
    std::vector<LatticePoint> points_;
};

// Smooth value noise in [0, 1]: random values on the integer lattice, blended with a smoothstep.
// Taken along one row (fixed y): the lattice values of the cell that x is in are kept until x
// leaves it, which saves most of the hashing on the broad cells of a frame-sized pattern and
// gives exactly what a fresh computation would.
class ValueNoiseRow {
public:
    ValueNoiseRow(uint64_t seed, double y) : seed_(seed), row_(y) {}

    double operator()(double x) { return (*this)(LatticePoint(x)); }

    double operator()(const LatticePoint& x) {
        if (!cellKnown_ || x.cell != ix_) {
            const int64_t iy = row_.cell;
            v00_ = UnitFromBits(Hash3(seed_, x.cell, iy));
            v10_ = UnitFromBits(Hash3(seed_, x.cell + 1, iy));
            v01_ = UnitFromBits(Hash3(seed_, x.cell, iy + 1));
            v11_ = UnitFromBits(Hash3(seed_, x.cell + 1, iy + 1));
            ix_ = x.cell;
            cellKnown_ = true;
        }
        const double top = v00_ + (v10_ - v00_) * x.weight;
        const double bottom = v01_ + (v11_ - v01_) * x.weight;
        return top + (bottom - top) * row_.weight;
    }

private:
    uint64_t seed_;
    LatticePoint row_;
    int64_t ix_ = 0;
    bool cellKnown_ = false;
    double v00_ = 0.0, v10_ = 0.0, v01_ = 0.0, v11_ = 0.0;
};

}  // namespace virtual_sensor
