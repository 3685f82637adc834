// The scene's own exponential and cosine against the standard library's.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "virtual_sensor/phantom.h"

namespace vstest {
namespace {

// Within 1e-15 relative over the whole domain: a scene pixel, rounded to float from it, equals
// the one rounded from std::exp but where the two straddle a float's rounding boundary, and then
// differs by one step of the float (6e-8 relative).
TEST(ExpOfNegative, FollowsTheStandardExponentialOverItsDomain) {
    const auto check = [](double a) {
        const double expected = std::exp(-a);
        EXPECT_LE(std::fabs(virtual_sensor::ExpOfNegative(a) - expected), 1e-15 * expected)
            << "a = " << a;
    };
    // The ends, the points where k changes (a / ln 2 half-way between integers) and around them.
    for (double a : {0.0, 1e-300, 1e-17, 700.0, 699.999}) {
        check(a);
    }
    for (int k = 0; k <= 1010; ++k) {
        const double edge = (k + 0.5) * 0.69314718055994530942;
        for (double a : {std::nextafter(edge, 0.0), edge, std::nextafter(edge, 1000.0)}) {
            check(a);
        }
    }
    // Attenuations as the scene has them (0.05 to about 10), densely, and the rest sparsely.
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> scene(0.0, 12.0), rest(0.0, 700.0);
    for (int n = 0; n < 200000; ++n) {
        check(scene(random));
    }
    for (int n = 0; n < 20000; ++n) {
        check(rest(random));
    }
    EXPECT_EQ(virtual_sensor::ExpOfNegative(0.0), 1.0);
}

// Within 1e-15 absolute over [-pi, pi], on both sides of the fold at pi / 2 and at the ends,
// where the crown's occlusal surface has its cusp tips (1) and its fissure (0).
TEST(CosSquared, FollowsTheStandardCosineSquaredOverItsDomain) {
    const double pi = 3.14159265358979323846;
    const auto check = [](double theta) {
        const double c = std::cos(theta);
        EXPECT_NEAR(virtual_sensor::CosSquared(theta), c * c, 1e-15) << "theta = " << theta;
    };
    for (int n = -100000; n <= 100000; ++n) {
        check(pi * n / 100000.0);
    }
    for (double theta : {pi / 2, std::nextafter(pi / 2, 0.0), std::nextafter(pi / 2, 4.0), pi, -pi,
                         1e-300, -1e-300}) {
        check(theta);
    }
    EXPECT_EQ(virtual_sensor::CosSquared(0.0), 1.0);
}

}  // namespace
}  // namespace vstest
