// The default scene, corrected with the sensor's own calibration, reads like an intraoral
// radiograph of posterior teeth: bright (little absorbed) above the crowns, dark crowns with the
// pulp brighter than the dentine beside it, roots darker than the bone around them, and bone
// with a visible trabecular texture.
#include <gtest/gtest.h>

#include <cmath>

#include "driver.h"
#include "reference.h"

namespace vstest {
namespace {

using VirtualSensorPhantom = VirtualSensorTest;

double BoxCv(const std::vector<double>& v, int columns, int x0, int y0, int w, int h) {
    const double mean = BoxMean(v, columns, x0, y0, w, h);
    double squares = 0.0;
    for (int y = y0; y < y0 + h; ++y) {
        for (int x = x0; x < x0 + w; ++x) {
            const double d = v[static_cast<size_t>(y) * columns + x] - mean;
            squares += d * d;
        }
    }
    return std::sqrt(squares / (static_cast<double>(w) * h)) / mean;
}

TEST_F(VirtualSensorPhantom, ReadsLikeAnIntraoralRadiograph) {
    const int columns = 1200, rows = 1650;
    WorkDir dir("[VirtualSensor]\nExposureMs=0\n");
    ASSERT_EQ(TheDriver().writeCalibration(dir.str().c_str(), 1), 0);
    const auto folder = CalibrationFolder(dir.path());
    const auto flats = GainFrames(ReadBytes(folder / "VirtualSensor.gn"), columns, rows);
    const auto defects = DefectMap(ReadBytes(folder / "VirtualSensor.dft"), columns, rows);
    ASSERT_EQ(flats.size(), 1u);
    ASSERT_EQ(defects.size(), static_cast<size_t>(columns) * rows);
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const Event image = sensor.expose();
    ASSERT_EQ(image.pixels.size(), defects.size());
    const std::vector<double> v = Correct(image.pixels, flats, defects, columns, rows);

    // Boxes placed by fractions of the frame; the layout moves only a little with the seed.
    auto at = [&](double u, double w, int size = 20) {
        return BoxMean(v, columns, static_cast<int>(u * columns) - size / 2,
                       static_cast<int>(w * rows) - size / 2, size, size);
    };
    const double open = at(0.5, 0.04);          // above the crowns
    const double crown = at(0.5, 0.22);         // middle of a crown
    const double pulp = at(0.5, 0.31, 10);      // pulp chamber
    const double dentine = (at(0.43, 0.31, 10) + at(0.57, 0.31, 10)) / 2.0;
    double root = 1e9;  // darkest spot across the single-rooted tooth's root, beside its canal
    for (double u = 0.10; u <= 0.24; u += 0.01) {
        root = std::min(root, at(u, 0.6, 10));
    }
    const double bone = at(0.335, 0.75, 60);    // between the teeth
    EXPECT_GT(open, 0.6 * 20000);
    EXPECT_LT(crown, 0.35 * open);
    EXPECT_GT(pulp, 1.1 * dentine);
    EXPECT_LT(root, 0.8 * bone);
    EXPECT_LT(bone, 0.8 * open);
    EXPECT_GT(bone, crown);

    // Trabecular texture: the bone varies far more than the noise of a flat exposure (~1 %).
    EXPECT_GT(BoxCv(v, columns, static_cast<int>(0.335 * columns) - 30, static_cast<int>(0.75 * rows) - 30, 60, 60), 0.04);
}

}  // namespace
}  // namespace vstest
