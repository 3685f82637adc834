#include "random.h"

#include <vector>

namespace virtual_sensor {
namespace {

// The standard normal quantile of p in (0, 1): a rational approximation good to about 1e-9,
// refined by one Halley step on the exact distribution function to full double precision.
double NormalQuantile(double p) {
    static const double a[] = {-3.969683028665376e+01, 2.209460984245205e+02,
                               -2.759285104469687e+02, 1.383577518672690e+02,
                               -3.066479806614716e+01, 2.506628277459239e+00};
    static const double b[] = {-5.447609879822406e+01, 1.615858368580409e+02,
                               -1.556989798598866e+02, 6.680131188771972e+01,
                               -1.328068155288572e+01};
    static const double c[] = {-7.784894002430293e-03, -3.223964580411365e-01,
                               -2.400758277161838e+00, -2.549732539343734e+00,
                               4.374664141464968e+00,  2.938163982698783e+00};
    static const double d[] = {7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e+00,
                               3.754408661907416e+00};
    const double low = 0.02425;
    double x;
    if (p < low || p > 1.0 - low) {
        const double q = std::sqrt(-2.0 * std::log(p < low ? p : 1.0 - p));
        x = (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
            ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1.0);
        if (p > low) {
            x = -x;
        }
    } else {
        const double q = p - 0.5;
        const double r = q * q;
        x = (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
            (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1.0);
    }
    const double e = 0.5 * std::erfc(-x / std::sqrt(2.0)) - p;
    const double u = e * std::sqrt(2.0 * 3.141592653589793) * std::exp(0.5 * x * x);
    return x - u / (1.0 + 0.5 * x * u);
}

std::vector<float> BuildNormalQuantiles() {
    constexpr size_t kCount = 65536;
    std::vector<float> table(kCount);
    // Symmetric: the upper half is the lower half negated, so both tails are alike exactly.
    for (size_t k = 0; k < kCount / 2; ++k) {
        const auto value = static_cast<float>(NormalQuantile((k + 0.5) / kCount));
        table[k] = value;
        table[kCount - 1 - k] = -value;
    }
    return table;
}

}  // namespace

const float* NormalQuantiles() {
    static const std::vector<float> table = BuildNormalQuantiles();
    return table.data();
}

}  // namespace virtual_sensor
