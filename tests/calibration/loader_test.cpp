// Files of one and of four levels, read back by the detector's own loader and applied by its
// own corrections: frame count, levels and values arrive as written.
#include <gtest/gtest.h>

#include <cmath>

#include "calibration_support.h"
#include "synthetic_sensor.h"
#include "veltrano/calibration_builder.h"
#include "veltrano/detector.h"

namespace {

using caltest::TempFolder;

// Spread over mean of image x frame over the pixels sampled: 0 when the image was multiplied by
// mean / frame, whatever the mean.
double ProductSpread(const imgmat& image, const uint16_t* frame, int width, int cut) {
    double sum = 0.0, squares = 0.0, n = 0.0;
    for (size_t i = 0; i < image.width * image.height; i += 97) {
        if (caltest::InCut(i, width, cut) || frame[i] == 0) continue;
        const double p = static_cast<double>(image.data[i]) * frame[i];
        sum += p;
        squares += p * p;
        n += 1.0;
    }
    const double mean = sum / n;
    return std::sqrt(std::max(0.0, squares / n - mean * mean)) / mean;
}

// The frame (0-based) whose gain the detector multiplied into a flat image of value v; image is
// a 1000 x 1500 scratch frame, reused so that each call does not fault in a fresh one.
int ChosenFrame(CVeltrano& detector, const veltrano::CalibrationBuilder& builder, imgmat& image,
                float v) {
    image = v;
    detector.DoGainCorrection(image);
    int chosen = -1;
    for (int l = 0; l < builder.Levels(); ++l) {
        if (ProductSpread(image, builder.GainFrame(l), 1000, 211) < 1e-5) {
            EXPECT_EQ(chosen, -1) << "two frames fit";
            chosen = l;
        }
    }
    return chosen;
}

TEST(CalibrationFiles, OneAndFourLevelFilesRoundTripThroughTheDetectorsLoader) {
    // One sensor's exposures serve both: the one-level file is made of the one at 20000. One
    // exposure a level is enough here: the spread is not judged with so few, and the files'
    // layout does not depend on how many went into them.
    caltest::SyntheticSensor sensor(7, 1000, 1500, 211);
    sensor.plant(500, 700, caltest::Stuck(0));
    veltrano::CalibrationBuilder one(1000, 1500, 211, 1), four(1000, 1500, 211, 4);
    const double doses[4] = {5000, 10000, 20000, 30000};
    for (int l = 0; l < 4; ++l) {
        const std::vector<float> frame = sensor.expose(doses[l]);
        ASSERT_EQ(four.AddExposure(l, frame.data()), 1);
        if (doses[l] == 20000) {
            ASSERT_EQ(one.AddExposure(0, frame.data()), 1);
        }
    }
    imgmat image(1000, 1500, 1);
    for (veltrano::CalibrationBuilder* made : {&one, &four}) {
        veltrano::CalibrationBuilder& builder = *made;
        const int levels = builder.Levels();
        SCOPED_TRACE(levels);
        ASSERT_EQ(builder.Analyse(veltrano::DefectThresholds()), 1);
        ASSERT_EQ(builder.DefectMap()[sensor.index(500, 700)], veltrano::kDefectDead);
        TempFolder work, sensorDir;
        caltest::WriteText(sensorDir.path() / "VirtualSensor.ini",
                           "[VirtualSensor]\nSensorSize=1000\n");
        std::filesystem::create_directories(work.calibration());
        veltrano::CalibrationHeader header;
        builder.DescribeIn(header);
        const std::string gainPath = (work.calibration() / "sensor.gn").string();
        const std::string defectPath = (work.calibration() / "sensor.dft").string();
        ASSERT_EQ(builder.WriteFiles(gainPath.c_str(), defectPath.c_str(), header), 1);
        const size_t frameBytes = 1000 * 1500 * 2;
        EXPECT_EQ(caltest::ReadBytes(gainPath).size(), 1040 + levels * frameBytes);

        CVeltrano detector(work.str().c_str());
        ASSERT_EQ(detector.InitializeByPath(sensorDir.str().c_str()), 0);
        ASSERT_EQ(detector.Connect(), 0);
        ASSERT_EQ(detector.GetSensorSize(), 1000);
        ASSERT_EQ(detector.GetAndCaliFile_Gain(), 0);
        ASSERT_EQ(detector.GetBadPixelInfo(), 0);

        // Each frame's level is chosen for an image at that level, and the values multiplied
        // in are the frame's.
        for (int l = 0; l < levels; ++l) {
            EXPECT_EQ(
                ChosenFrame(detector, builder, image, static_cast<float>(builder.FrameLevel(l))),
                l);
        }
        // The choice turns exactly halfway between two levels, as read from the first pixels.
        for (int l = 0; l + 1 < levels; ++l) {
            const int a = static_cast<int>(builder.FrameLevel(l));
            const int b = static_cast<int>(builder.FrameLevel(l + 1));
            const int below = (a + b - 1) / 2, above = (a + b) / 2 + 1;  // nearer to a, to b
            EXPECT_EQ(ChosenFrame(detector, builder, image, static_cast<float>(below)), l) << below;
            EXPECT_EQ(ChosenFrame(detector, builder, image, static_cast<float>(above)), l + 1)
                << above;
        }

        // The defect file as the detector reads it repairs the dead pixel.
        imgmat map;
        ASSERT_EQ(map.readRawFile(defectPath.c_str(), 1000, 1500, 1040, 1), 1);
        EXPECT_EQ(map.data[sensor.index(500, 700)], static_cast<float>(veltrano::kDefectDead));
        image = 1000.0f;
        image.data[sensor.index(500, 700)] = 0.0f;
        EXPECT_EQ(detector.DoFixBadPixel(image, map), 1);
        EXPECT_FLOAT_EQ(image.data[sensor.index(500, 700)], 1000.0f);
        detector.Deinit();
    }
}

}  // namespace
