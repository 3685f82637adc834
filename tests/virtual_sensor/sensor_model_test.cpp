// Raw frames: the sensor's fixed pattern, its noise, its cut corners and its dose.
#include <gtest/gtest.h>

#include <cmath>

#include "driver.h"
#include "reference.h"

namespace vstest {
namespace {

using VirtualSensorFrames = VirtualSensorTest;

// Per-pixel mean and RMS of a - b over the pixels outside the corners and defects.
void Difference(const std::vector<uint16_t>& a, const std::vector<uint16_t>& b, int columns,
                int rows, int cut, double& mean, double& rms) {
    double sum = 0.0, squares = 0.0;
    size_t n = 0;
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const size_t i = static_cast<size_t>(y) * columns + x;
            if (InCutCorner(x, y, columns, cut)) {
                continue;
            }
            const double d = static_cast<double>(a[i]) - b[i];
            sum += d;
            squares += d * d;
            ++n;
        }
    }
    mean = sum / static_cast<double>(n);
    rms = std::sqrt(squares / static_cast<double>(n));
}

TEST_F(VirtualSensorFrames, CutCornersReadZeroAndEverythingElseSeesTheDose) {
    struct Case {
        const char* ini;
        int columns, rows, cut, dose;
    };
    const Case cases[] = {
        {"[VirtualSensor]\nScene=flat\nExposureMs=0\nSensorSize=1000\n", 1000, 1500, 211, 20000},
        {"[VirtualSensor]\nScene=flat\nExposureMs=0\nSensorSize=2000\nDose=5000\n", 1300, 1800, 281, 5000},
        // A narrow frame keeps at most a quarter of its width as corner cut.
        {"[VirtualSensor]\nScene=flat\nExposureMs=0\nWidth=400\nHeight=300\nDose=40000\n", 400, 300, 100, 40000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ini);
        WorkDir dir(c.ini);
        Sensor sensor(dir);
        ASSERT_EQ(sensor.createResult(), 0);
        const Event image = sensor.expose();
        ASSERT_EQ(image.columns, c.columns);
        ASSERT_EQ(image.rows, c.rows);
        ASSERT_EQ(image.pixels.size(), static_cast<size_t>(c.columns) * c.rows);
        size_t cornerLit = 0, activeDark = 0;
        for (int y = 0; y < c.rows; ++y) {
            for (int x = 0; x < c.columns; ++x) {
                const uint16_t v = image.pixels[static_cast<size_t>(y) * c.columns + x];
                if (InCutCorner(x, y, c.columns, c.cut)) {
                    cornerLit += v != 0;
                } else {
                    activeDark += v < c.dose / 2;  // dead pixels only
                }
            }
        }
        EXPECT_EQ(cornerLit, 0u);
        EXPECT_LT(activeDark, image.pixels.size() / 200);
        EXPECT_GT(activeDark, 0u);
        // The middle of the frame averages the dose plus the small dark offset.
        const double centre = BoxMean(image.pixels, c.columns, c.columns / 2 - 50, c.rows / 2 - 50, 100, 100);
        EXPECT_NEAR(centre, c.dose, 0.06 * c.dose);
    }
}

TEST_F(VirtualSensorFrames, TheFixedPatternStaysAndTheNoiseChanges) {
    const int columns = 1200, rows = 1650, cut = 251;
    WorkDir dir("[VirtualSensor]\nScene=flat\nExposureMs=0\n");
    Sensor sensor(dir);
    Sensor twin(dir);
    WorkDir otherDir("[VirtualSensor]\nScene=flat\nExposureMs=0\nSeed=2\n");
    Sensor other(otherDir);
    ASSERT_EQ(sensor.createResult(), 0);
    ASSERT_EQ(twin.createResult(), 0);
    ASSERT_EQ(other.createResult(), 0);
    const Event first = sensor.expose();
    const Event second = sensor.expose();
    const Event twinFirst = twin.expose();
    const Event otherFirst = other.expose();
    for (const Event* e : {&first, &second, &twinFirst, &otherFirst}) {
        ASSERT_EQ(e->pixels.size(), static_cast<size_t>(columns) * rows);
    }

    // Successive frames: the same pattern, new noise of about 1 % at this dose (the difference
    // of two frames carries the noise of both).
    double mean = 0.0, rms = 0.0;
    Difference(first.pixels, second.pixels, columns, rows, cut, mean, rms);
    EXPECT_NEAR(mean, 0.0, 5.0);
    EXPECT_GT(rms, 0.005 * 20000 * std::sqrt(2.0));
    EXPECT_LT(rms, 0.02 * 20000 * std::sqrt(2.0));

    // The same seed repeats the same sequence; another seed is another sensor, whose pattern
    // differs by about the pattern's own spread.
    EXPECT_EQ(first.pixels, twinFirst.pixels);
    Difference(first.pixels, otherFirst.pixels, columns, rows, cut, mean, rms);
    EXPECT_GT(rms, 0.08 * 20000);
}

}  // namespace
}  // namespace vstest
