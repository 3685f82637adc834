// The default scene: a synthetic intraoral radiograph of three lower posterior teeth.
//
// The scene is the fraction of the incident dose that reaches each pixel, exp(-A) for the
// summed attenuation A along the ray: soft tissue over the whole field (thin above the crowns,
// thicker towards the roots and one cheek side), alveolar bone with a trabecular texture below
// the crest, and teeth whose crowns carry an enamel cap over dentine, with a pulp chamber and
// root canals, and roots set in the bone inside a thin ligament space and a dense socket wall.
// A slight fall-off of the beam towards the edges is included. Raw values are therefore highest
// where little absorbs (above the crowns) and lowest in the enamel, as a detector sees it.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace virtual_sensor {

// e^-a for 0 <= a <= 700, within 1e-15 of std::exp relative, in plain arithmetic that the
// compiler vectorises: the scene takes one per pixel, and the library call cost more than the
// rest of the picture. e^-a = 2^-k e^r with k the nearest integer to a / ln 2, |r| <= ln 2 / 2,
// e^r from its Taylor series to the 13th term (the next is below 2e-16 of it), and 2^-k put
// together in the exponent bits.
inline double ExpOfNegative(double a) {
    const double kShifter = 6755399441055744.0;       // 1.5 * 2^52: adding it rounds to an integer
    const double kLn2High = 0.693147180369123816490;  // ln 2 in two parts, the first exact in
    const double kLn2Low = 1.90821492927058770002e-10;  // a product with any k up to 2^11
    const double shifted = -a * 1.44269504088896338700 + kShifter;
    const double k = shifted - kShifter;
    const double r = (-a - k * kLn2High) - k * kLn2Low;
    double p = 1.0 / 479001600.0;  // 1 / 12!
    p = p * r + 1.0 / 39916800.0;
    p = p * r + 1.0 / 3628800.0;
    p = p * r + 1.0 / 362880.0;
    p = p * r + 1.0 / 40320.0;
    p = p * r + 1.0 / 5040.0;
    p = p * r + 1.0 / 720.0;
    p = p * r + 1.0 / 120.0;
    p = p * r + 1.0 / 24.0;
    p = p * r + 1.0 / 6.0;
    p = p * r + 0.5;
    p = p * r + 1.0;
    p = p * r + 1.0;
    // The low bits of shifted hold k as a two's complement integer.
    uint64_t bits;
    std::memcpy(&bits, &shifted, sizeof bits);
    const uint64_t scaleBits = (bits + 1023u) << 52;
    double scale;
    std::memcpy(&scale, &scaleBits, sizeof scale);
    return p * scale;
}

// cos^2 theta for |theta| <= pi, within 1e-15 of std::cos's square: the crowns' occlusal
// surface takes one per pixel, and the library call with its own range reduction and rounding
// mode guard cost as much as the rest of the crown. cos^2 is symmetric about pi / 2, which brings
// the angle within [0, pi / 2], where the Taylor series of cos up to the 20th power is exact to
// double precision (the first term left out is below 1e-17).
inline double CosSquared(double theta) {
    const double kHalfPi = 1.57079632679489661923;
    const double kPi = 3.14159265358979323846;
    const double t = theta < 0.0 ? -theta : theta;
    const double m = t < kHalfPi ? t : kPi - t;
    const double u = m * m;
    double c = 1.0 / 2432902008176640000.0;  // 1 / 20!
    c = c * u - 1.0 / 6402373705728000.0;
    c = c * u + 1.0 / 20922789888000.0;
    c = c * u - 1.0 / 87178291200.0;
    c = c * u + 1.0 / 479001600.0;
    c = c * u - 1.0 / 3628800.0;
    c = c * u + 1.0 / 40320.0;
    c = c * u - 1.0 / 720.0;
    c = c * u + 1.0 / 24.0;
    c = c * u - 0.5;
    c = c * u + 1.0;
    return c * c;
}

// columns x rows transmission values in (0, 1], row-major; the layout varies a little with seed.
std::vector<float> RenderPhantom(int columns, int rows, uint32_t seed);

}  // namespace virtual_sensor
