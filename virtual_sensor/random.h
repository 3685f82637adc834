// Small seeded random sources for the sensor model: a counter-based integer hash, a sequential
// generator with Gaussian samples, and smooth two-dimensional value noise.
//
// Everything is computed with our own integer arithmetic so that a given seed yields the same
// fixed pattern, scene and noise on every platform and standard library.
#pragma once

#include <cmath>
#include <cstdint>

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

// Smooth value noise in [0, 1]: random values on the integer lattice, blended with a smoothstep.
// Taken along one row (fixed y): the lattice values of the cell that x is in are kept until x
// leaves it, which saves most of the hashing on the broad cells of a frame-sized pattern and
// gives exactly what a fresh computation would.
class ValueNoiseRow {
public:
    ValueNoiseRow(uint64_t seed, double y) : seed_(seed) {
        const double fy = std::floor(y);
        iy_ = static_cast<int64_t>(fy);
        ty_ = y - fy;
        ty_ = ty_ * ty_ * (3.0 - 2.0 * ty_);
    }

    double operator()(double x) {
        const double fx = std::floor(x);
        const auto ix = static_cast<int64_t>(fx);
        if (!cellKnown_ || ix != ix_) {
            v00_ = UnitFromBits(Hash3(seed_, ix, iy_));
            v10_ = UnitFromBits(Hash3(seed_, ix + 1, iy_));
            v01_ = UnitFromBits(Hash3(seed_, ix, iy_ + 1));
            v11_ = UnitFromBits(Hash3(seed_, ix + 1, iy_ + 1));
            ix_ = ix;
            cellKnown_ = true;
        }
        double tx = x - fx;
        tx = tx * tx * (3.0 - 2.0 * tx);
        const double top = v00_ + (v10_ - v00_) * tx;
        const double bottom = v01_ + (v11_ - v01_) * tx;
        return top + (bottom - top) * ty_;
    }

private:
    uint64_t seed_;
    int64_t iy_;
    double ty_;
    int64_t ix_ = 0;
    bool cellKnown_ = false;
    double v00_ = 0.0, v10_ = 0.0, v01_ = 0.0, v11_ = 0.0;
};

inline double ValueNoise(uint64_t seed, double x, double y) { return ValueNoiseRow(seed, y)(x); }

}  // namespace virtual_sensor
