// The source in front of the virtual sensor (flat fields of a chosen dose between exposures) and
// the fixed pattern it hands out as the truth for calibration tests.
#include <cmath>
#include <limits>

#include "driver.h"

namespace vstest {
namespace {

using SetFlatDoseFn = int (*)(double);
using GetFixedPatternFn = int (*)(const char*, float*, float*, unsigned char*, long long);

class VirtualSensorSource : public VirtualSensorTest {
protected:
    void SetUp() override {
        VirtualSensorTest::SetUp();
        setFlatDose = D().get<SetFlatDoseFn>("VirtualSensor_SetFlatDose");
        getPattern = D().get<GetFixedPatternFn>("VirtualSensor_GetFixedPattern");
        ASSERT_TRUE(setFlatDose != nullptr && getPattern != nullptr);
    }
    // The source is process-wide: leave it as the other tests expect it.
    void TearDown() override {
        if (setFlatDose != nullptr) {
            setFlatDose(-1.0);
        }
    }
    SetFlatDoseFn setFlatDose = nullptr;
    GetFixedPatternFn getPattern = nullptr;
};

// Mean and RMS of (frame - gain x dose - dark) over the good pixels outside the cut corners.
void Residual(const std::vector<uint16_t>& frame, const std::vector<float>& gain,
              const std::vector<float>& dark, const std::vector<uint8_t>& defects, int columns,
              int cut, double dose, double& mean, double& rms) {
    double sum = 0.0, squares = 0.0, n = 0.0;
    for (size_t i = 0; i < frame.size(); ++i) {
        if (!InCutCorner(i, columns, cut) && !defects[i]) {
            const double r = frame[i] - gain[i] * dose - dark[i];
            sum += r;
            squares += r * r;
            n += 1.0;
        }
    }
    mean = sum / n;
    rms = std::sqrt(squares / n);
}

TEST_F(VirtualSensorSource, FlatDoseOverridesTheSceneUntilReset) {
    const int columns = 1000, cut = 211;
    const size_t pixels = 1000 * 1500;
    WorkDir dir("[VirtualSensor]\nSensorSize=1000\nScene=phantom\nDose=16000\nSeed=5\nExposureMs=0\n");
    std::vector<float> gain(pixels), dark(pixels);
    std::vector<uint8_t> defects(pixels);
    ASSERT_EQ(getPattern(dir.str().c_str(), gain.data(), dark.data(), defects.data(),
                         static_cast<long long>(pixels)), 0);

    Sensor plain(dir), lit(dir);
    // Each row: the factor set before the exposure, and the dose the frame must show (-1: the
    // configured phantom, compared with the frame of the same index of a sensor left alone).
    const struct {
        double factor, dose;
    } exposures[] = {{0.5, 8000}, {0.0, 0}, {1.25, 20000}, {-1.0, -1}, {-7.0, -1}};
    for (const auto& e : exposures) {
        ASSERT_EQ(setFlatDose(e.factor), 0);
        const Event image = lit.expose();
        ASSERT_EQ(setFlatDose(-1.0), 0);
        const Event reference = plain.expose();
        ASSERT_EQ(image.pixels.size(), pixels);
        if (e.dose < 0) {
            EXPECT_TRUE(image.pixels == reference.pixels) << e.factor;
            continue;
        }
        double mean = 0.0, rms = 0.0;
        Residual(image.pixels, gain, dark, defects, columns, cut, e.dose, mean, rms);
        const double sigma = std::sqrt(2.0 * e.dose * 1.0 + 36.0);  // the model's noise
        EXPECT_LT(std::fabs(mean), 0.05 * sigma) << e.factor;
        EXPECT_TRUE(rms > 0.8 * sigma && rms < 1.25 * sigma) << e.factor << ": " << rms;
        EXPECT_FALSE(image.pixels == reference.pixels);
    }

    // Refused factors change nothing.
    ASSERT_EQ(setFlatDose(0.25), 0);
    EXPECT_EQ(setFlatDose(std::numeric_limits<double>::quiet_NaN()), 1);
    EXPECT_EQ(setFlatDose(100.5), 1);
    double mean = 0.0, rms = 0.0;
    Residual(lit.expose().pixels, gain, dark, defects, columns, cut, 4000, mean, rms);
    EXPECT_LT(std::fabs(mean), 5.0);
}

TEST_F(VirtualSensorSource, FixedPatternIsTheTruthBehindTheCalibrationFiles) {
    WorkDir dir("[VirtualSensor]\nWidth=320\nHeight=240\nSeed=9\n");
    const long long pixels = 320 * 240;
    std::vector<float> gain(pixels), dark(pixels);
    std::vector<uint8_t> defects(pixels, 7);
    ASSERT_EQ(getPattern(dir.str().c_str(), gain.data(), dark.data(), defects.data(), pixels), 0);
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 1), 0);
    const std::vector<uint8_t> file = dir.file("VirtualSensor.dft");
    ASSERT_EQ(file.size(), 1040u + pixels);
    EXPECT_TRUE(std::equal(defects.begin(), defects.end(), file.begin() + 1040));
    EXPECT_GT(std::count(defects.begin(), defects.end(), 1), 240);  // the column, at least
    // The gain frame holds gain x dose + dark (rounded) at the good pixels outside the corners.
    const std::vector<uint8_t> flat = dir.file("VirtualSensor.gn");
    ASSERT_EQ(flat.size(), 1040u + 2 * pixels);
    size_t checked = 0, off = 0;
    for (long long i = 1; i < pixels; ++i) {
        if (defects[i] || InCutCorner(static_cast<size_t>(i), 320, 80)) continue;
        const int value = flat[1040 + 2 * i] | flat[1041 + 2 * i] << 8;
        off += std::fabs(value - (gain[i] * 20000.0 + dark[i])) > 0.51;
        ++checked;
    }
    EXPECT_GT(checked, 40000u);
    EXPECT_EQ(off, 0u);

    // Only the outputs asked for are written; a wrong count or configuration fills nothing.
    EXPECT_EQ(getPattern(dir.str().c_str(), nullptr, nullptr, defects.data(), pixels), 0);
    std::vector<float> untouched(pixels + 1, -3.0f);
    EXPECT_EQ(getPattern(dir.str().c_str(), untouched.data(), nullptr, nullptr, pixels + 1), 1);
    EXPECT_EQ(getPattern(nullptr, untouched.data(), nullptr, nullptr, pixels), 1);
    EXPECT_EQ(getPattern("", untouched.data(), nullptr, nullptr, pixels), 1);
    WorkDir bad("[VirtualSensor]\nSensorSize=1234\n");
    EXPECT_EQ(getPattern(bad.str().c_str(), untouched.data(), nullptr, nullptr, pixels), 2);
    EXPECT_EQ(std::count(untouched.begin(), untouched.end(), -3.0f), pixels + 1);
}

}  // namespace
}  // namespace vstest
