// The calibration files written by VirtualSensor_WriteCalibration, and what they do to frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>

#include "driver.h"
#include "reference.h"

namespace vstest {
namespace {

using VirtualSensorCalibration = VirtualSensorTest;

Driver& D() { return TheDriver(); }

TEST_F(VirtualSensorCalibration, WritesGainAndDefectFilesOfTheSensorsSize) {
    struct Case {
        const char* ini;
        int frames;
        int columns;
        int rows;
    };
    const Case cases[] = {{"", 1, 1200, 1650},
                          {"", 4, 1200, 1650},
                          {"[VirtualSensor]\nSensorSize=1000\n", 1, 1000, 1500},
                          {"[VirtualSensor]\nSensorSize=2000\nWidth=300\nHeight=200\n", 4, 300, 200}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.ini) + " frames " + std::to_string(c.frames));
        WorkDir dir(c.ini);
        ASSERT_EQ(D().writeCalibration(dir.str().c_str(), c.frames), 0);
        const auto folder = CalibrationFolder(dir.path());
        const std::vector<uint8_t> gain = ReadBytes(folder / "VirtualSensor.gn");
        const std::vector<uint8_t> defects = ReadBytes(folder / "VirtualSensor.dft");
        const size_t pixels = static_cast<size_t>(c.columns) * c.rows;
        EXPECT_EQ(gain.size(), 1040 + 2 * pixels * c.frames);
        EXPECT_EQ(defects.size(), 1040 + pixels);
        for (const auto* file : {&gain, &defects}) {
            ASSERT_GE(file->size(), 1040u);
            EXPECT_EQ(std::memcmp(file->data(), "VirtualSensorCal", 16), 0);
            EXPECT_EQ(U32(*file, 24), static_cast<uint32_t>(c.columns));
            EXPECT_EQ(U32(*file, 28), static_cast<uint32_t>(c.rows));
        }
        EXPECT_EQ(U32(gain, 32), static_cast<uint32_t>(c.frames));

        // Each frame's first pixel is its gain level (the bright mean of an exposure of that
        // dose, hot pixels included), rising with the dose and recorded in the header.
        const auto frames = GainFrames(gain, c.columns, c.rows);
        ASSERT_EQ(frames.size(), static_cast<size_t>(c.frames));
        for (size_t f = 0; f < frames.size(); ++f) {
            const uint32_t dose = U32(gain, 48 + 4 * f);
            EXPECT_EQ(frames[f][0], U32(gain, 64 + 4 * f));
            EXPECT_GT(frames[f][0], dose);
            if (f > 0) {
                EXPECT_GT(frames[f][0], frames[f - 1][0]);
                EXPECT_GT(dose, U32(gain, 48 + 4 * (f - 1)));
            }
            const Stats s = ActiveStats(frames[f], c.columns, c.rows, 0);
            EXPECT_GT(s.mean, 0.5 * dose);
        }
        if (c.frames == 1) {
            EXPECT_EQ(U32(gain, 48), 20000u);
        }
    }
}

TEST_F(VirtualSensorCalibration, RefusesWhatItCannotWrite) {
    WorkDir dir;
    EXPECT_NE(D().writeCalibration(nullptr, 1), 0);
    EXPECT_NE(D().writeCalibration("", 1), 0);
    for (int frames : {0, 2, 3, 5, -1}) {
        EXPECT_NE(D().writeCalibration(dir.str().c_str(), frames), 0) << frames;
    }
    EXPECT_FALSE(std::filesystem::exists(CalibrationFolder(dir.path())));

    dir.writeIni("[VirtualSensor]\nSensorSize=999\n");
    EXPECT_NE(D().writeCalibration(dir.str().c_str(), 1), 0);
    EXPECT_FALSE(std::filesystem::exists(CalibrationFolder(dir.path()) / "VirtualSensor.gn"));

    // A file where the folder should be.
    WorkDir blocked;
    std::ofstream(blocked.path() / "Correct") << "not a folder";
    EXPECT_NE(D().writeCalibration(blocked.str().c_str(), 1), 0);
}

// A flat exposure carries the fixed pattern: several percent of variation, with every defect
// clearly wrong. Gain correction with the written flat and repair of the written defects leave
// less than 2 %.
TEST_F(VirtualSensorCalibration, FlattensAFlatExposureAndMarksEveryDefect) {
    WorkDir dir("[VirtualSensor]\nScene=flat\nExposureMs=0\nSeed=7\n");
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 1), 0);
    const int columns = 1200, rows = 1650, cut = 251;
    const auto folder = CalibrationFolder(dir.path());
    const auto flats = GainFrames(ReadBytes(folder / "VirtualSensor.gn"), columns, rows);
    const auto defects = DefectMap(ReadBytes(folder / "VirtualSensor.dft"), columns, rows);
    ASSERT_EQ(flats.size(), 1u);
    ASSERT_EQ(defects.size(), static_cast<size_t>(columns) * rows);

    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const Event image = sensor.expose();
    ASSERT_EQ(image.pixels.size(), defects.size());

    const Stats before = ActiveStats(image.pixels, columns, rows, cut, &defects);
    EXPECT_GT(before.cv, 0.05);
    EXPECT_LT(before.cv, 0.12);
    const std::vector<double> corrected = Correct(image.pixels, flats, defects, columns, rows);
    const Stats after = ActiveStats(corrected, columns, rows, cut);
    EXPECT_LT(after.cv, 0.02);
    EXPECT_NEAR(after.mean, before.mean, 0.05 * before.mean);

    // Every defect: raw value far from what the repair puts there; repaired value close to the
    // mean. No defect is marked in the cut corners.
    size_t marked = 0, cornerMarks = 0, clearlyWrong = 0, repaired = 0;
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const size_t i = static_cast<size_t>(y) * columns + x;
            if (!defects[i]) {
                continue;
            }
            ++marked;
            cornerMarks += InCutCorner(x, y, columns, cut);
            clearlyWrong += std::fabs(image.pixels[i] - before.mean) > 0.5 * before.mean;
            repaired += std::fabs(corrected[i] - after.mean) < 0.05 * after.mean;
        }
    }
    EXPECT_GT(marked, static_cast<size_t>(rows) - 2 * cut);  // at least the defective column
    EXPECT_LT(marked, defects.size() / 100);
    EXPECT_EQ(cornerMarks, 0u);
    EXPECT_EQ(clearlyWrong, marked);
    EXPECT_EQ(repaired, marked);
}

// With four flats the correction takes the one whose level is nearest the image's bright mean:
// an exposure at the calibration's half dose is corrected with the half-dose flat.
TEST_F(VirtualSensorCalibration, FourFlatsLetTheBrightMeanPickTheMatchingDose) {
    WorkDir dir("[VirtualSensor]\nSensorSize=1000\nScene=flat\nExposureMs=0\n");
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 4), 0);
    const int columns = 1000, rows = 1500, cut = 211;
    const auto folder = CalibrationFolder(dir.path());
    const auto flats = GainFrames(ReadBytes(folder / "VirtualSensor.gn"), columns, rows);
    const auto defects = DefectMap(ReadBytes(folder / "VirtualSensor.dft"), columns, rows);
    ASSERT_EQ(flats.size(), 4u);

    struct Case {
        int dose;
        int expectedFlat;
    };
    for (const Case c : {Case{20000, 2}, Case{10000, 1}, Case{5000, 0}, Case{30000, 3}}) {
        SCOPED_TRACE(c.dose);
        dir.writeIni("[VirtualSensor]\nSensorSize=1000\nScene=flat\nExposureMs=0\nDose=" +
                     std::to_string(c.dose) + "\n");
        Sensor sensor(dir);
        ASSERT_EQ(sensor.createResult(), 0);
        const Event image = sensor.expose();
        ASSERT_EQ(image.pixels.size(), defects.size());
        int chosen = -1;
        const std::vector<double> corrected = Correct(image.pixels, flats, defects, columns, rows, &chosen);
        EXPECT_EQ(chosen, c.expectedFlat);
        EXPECT_LT(ActiveStats(corrected, columns, rows, cut).cv, 0.02);
    }
}

}  // namespace
}  // namespace vstest
