// The source in front of the virtual sensor (flat fields of a chosen dose between exposures) and
// the fixed pattern it hands out as the truth for calibration tests.
#include <cmath>
#include <limits>

#include "driver.h"

namespace vstest {
namespace {

using VirtualSensorSource = VirtualSensorTest;

TEST_F(VirtualSensorSource, FlatDoseOverridesTheSceneUntilResetAndThePatternIsTheTruth) {
    auto setFlatDose = D().get<int (*)(double)>("VirtualSensor_SetFlatDose");
    auto getPattern = D().get<int (*)(const char*, float*, float*, unsigned char*, long long)>(
        "VirtualSensor_GetFixedPattern");
    ASSERT_TRUE(setFlatDose != nullptr && getPattern != nullptr);
    WorkDir dir(
        "[VirtualSensor]\nWidth=320\nHeight=240\nScene=phantom\nDose=16000\nSeed=5\nExposureMs="
        "0\n");
    const long long pixels = 320 * 240;
    std::vector<float> gain(pixels), dark(pixels);
    std::vector<uint8_t> defects(pixels, 7);
    ASSERT_EQ(getPattern(dir.str().c_str(), gain.data(), dark.data(), defects.data(), pixels), 0);
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 1), 0);
    const std::vector<uint8_t> file = dir.file("VirtualSensor.dft");
    ASSERT_EQ(file.size(), 1040u + pixels);
    EXPECT_TRUE(std::equal(defects.begin(), defects.end(), file.begin() + 1040));
    EXPECT_GT(std::count(defects.begin(), defects.end(), 1), 240);  // the column, at least

    // Each row: the factor set before an exposure and the dose it must show; -1: the configured
    // phantom, the very frame of the same index of a sensor left alone.
    Sensor plain(dir), lit(dir);
    for (const auto& [factor, dose] :
         {std::pair{0.5, 8000.0}, {0.0, 0.0}, {1.25, 20000.0}, {-7.0, -1.0}}) {
        ASSERT_EQ(setFlatDose(factor), 0);
        const std::vector<uint16_t> image = lit.expose().pixels;
        setFlatDose(-1.0);
        const std::vector<uint16_t> reference = plain.expose().pixels;
        ASSERT_EQ(image.size(), size_t(pixels));
        EXPECT_EQ(image == reference, dose < 0) << factor;
        if (dose < 0) continue;
        // The residual from gain x dose + dark is the model's noise, without bias.
        double sum = 0.0, squares = 0.0, n = 0.0;
        for (long long i = 0; i < pixels; ++i) {
            if (defects[i] || InCutCorner(size_t(i), 320, 80)) continue;
            const double r = image[i] - gain[i] * dose - dark[i];
            sum += r, squares += r * r, n += 1.0;
        }
        const double sigma = std::sqrt(2.0 * dose + 36.0);
        EXPECT_LT(std::fabs(sum / n), 0.05 * sigma) << factor;
        EXPECT_NEAR(std::sqrt(squares / n), sigma, 0.2 * sigma) << factor;
    }

    // Refused factors and requests change and fill nothing.
    EXPECT_EQ(setFlatDose(std::numeric_limits<double>::quiet_NaN()), 1);
    EXPECT_EQ(setFlatDose(100.5), 1);
    EXPECT_EQ(lit.expose().pixels, plain.expose().pixels);
    std::vector<float> untouched(pixels + 1, -3.0f);
    EXPECT_EQ(getPattern(dir.str().c_str(), untouched.data(), nullptr, nullptr, pixels + 1), 1);
    EXPECT_EQ(getPattern(nullptr, untouched.data(), nullptr, nullptr, pixels), 1);
    WorkDir bad("[VirtualSensor]\nSensorSize=1234\n");
    EXPECT_EQ(getPattern(bad.str().c_str(), untouched.data(), nullptr, nullptr, pixels), 2);
    EXPECT_EQ(std::count(untouched.begin(), untouched.end(), -3.0f), pixels + 1);
}

}  // namespace
}  // namespace vstest
