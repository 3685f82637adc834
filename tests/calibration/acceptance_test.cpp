// The calibration measured against the virtual sensor's truth on every sensor size, two seeds
// each, 4 levels of 8 exposures: minutes of exposures, so the case is disabled in the ordinary
// run; CTest runs it under the label "acceptance" (ctest -L acceptance), printing its figures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "calibration_support.h"
#include "veltrano/calibration_builder.h"
#include "veltrano/detector.h"

namespace {

using caltest::Driver;
using caltest::FlatSource;
using caltest::TempFolder;

// The first exposure of a fresh detector object on calibrationDir whose driver uses sensorDir.
// A fresh driver instance starts its noise sequence anew, so two such exposures of the same
// configuration differ only by their corrections.
bool Acquire(const std::string& calibrationDir, const std::string& sensorDir, int count,
             imgmat* images) {
    CVeltrano detector(calibrationDir.c_str());
    if (detector.InitializeByPath(sensorDir.c_str()) != 0 || detector.Connect() != 0 ||
        detector.GetAndCaliFile_Gain() != 0 || detector.GetBadPixelInfo() != 0) {
        return false;
    }
    for (int i = 0; i < count; ++i) {
        detector.SetEndSign(0);
        detector.SetProgressBar(0);
        if (detector.AcqImageEx(images[i], 0, 6, 100) != 0) return false;
    }
    detector.Disconnect();
    return true;
}

TEST(CalibrationAcceptance, DISABLED_EverySizeAndTwoSeeds) {
    ASSERT_TRUE(Driver().complete());
    const double doses[4] = {0.25, 0.5, 1.0, 1.5};
    for (const caltest::SensorSize& size : caltest::kSizes) {
        for (int seed : {1, 2}) {
            SCOPED_TRACE("size " + std::to_string(size.code) + " seed " + std::to_string(seed));
            TempFolder work, own;
            const std::string ini = "[VirtualSensor]\nSensorSize=" + std::to_string(size.code) +
                                    "\nSeed=" + std::to_string(seed) +
                                    "\nExposureMs=0\nScene=phantom\n";
            caltest::WriteText(work.path() / "VirtualSensor.ini", ini);
            caltest::WriteText(own.path() / "VirtualSensor.ini", ini);
            ASSERT_EQ(Driver().writeCalibration(own.str().c_str(), 4), 0);

            FlatSource source(-1.0);
            veltrano::CalibrationCallbacks callbacks;
            callbacks.prepareLevel = [&](int level, int) {
                source.set(doses[level]);
                return true;
            };
            veltrano::CalibrationOptions options;  // 4 levels of 8 exposures
            veltrano::CalibrationResult result;
            ASSERT_EQ(veltrano::RunCalibration(work.str().c_str(), options, callbacks, result),
                      veltrano::kCalibrationDone)
                << result.message;

            // Defects against the truth.
            const size_t pixels = static_cast<size_t>(size.width) * size.height;
            std::vector<uint8_t> truth(pixels);
            ASSERT_EQ(Driver().getFixedPattern(work.str().c_str(), nullptr, nullptr, truth.data(),
                                               static_cast<long long>(pixels)),
                      0);
            const std::vector<uint8_t> dft = caltest::ReadBytes(result.defectPath);
            ASSERT_EQ(dft.size(), 1040 + pixels);
            double bad = 0, found = 0, good = 0, falselyMarked = 0;
            for (size_t i = 0; i < pixels; ++i) {
                if (caltest::InCut(i, size.width, size.cut)) continue;
                (truth[i] ? bad : good) += 1;
                (truth[i] ? found : falselyMarked) += dft[1040 + i] != 0;
            }

            // A flat exposure corrected by the ordinary acquisition with the new files.
            source.set(1.0);
            imgmat flat;
            ASSERT_TRUE(Acquire(work.str(), work.str(), 1, &flat));
            const double cv = caltest::ActiveCv(flat.data, pixels, size.width, size.cut);

            // The phantom corrected with the new files and with the sensor's own: the same raw
            // frame (the first of a fresh instance), compared with the noise between two frames.
            source.set(-1.0);
            imgmat built, mine[2];
            ASSERT_TRUE(Acquire(work.str(), work.str(), 1, &built));
            ASSERT_TRUE(Acquire(own.str(), work.str(), 2, mine));
            double difference = 0, noise = 0, offset = 0, n = 0;
            for (size_t i = 0; i < pixels; ++i) {
                if (caltest::InCut(i, size.width, size.cut)) continue;
                const double d = static_cast<double>(built.data[i]) - mine[0].data[i];
                const double e = static_cast<double>(mine[1].data[i]) - mine[0].data[i];
                difference += d * d;
                noise += e * e / 2.0;
                offset += d / mine[0].data[i];
                n += 1;
            }
            const double ratio = std::sqrt(difference / noise);

            std::fprintf(
                stderr,
                "acceptance: size %d seed %d: defects marked %.0f of %.0f (%.3f %%), good "
                "marked %.0f of %.0f (%.4f %%); flat CV %.3f %% (raw check %.2f %%); phantom "
                "RMS difference %.3f of its noise, mean offset %+.3f %%; levels %u %u %u %u\n",
                size.code, seed, found, bad, 100.0 * found / bad, falselyMarked, good,
                100.0 * falselyMarked / good, 100.0 * cv, 100.0 * result.header.cvBefore, ratio,
                100.0 * offset / n, result.header.levels[0], result.header.levels[1],
                result.header.levels[2], result.header.levels[3]);
            EXPECT_GE(found, 0.99 * bad);
            EXPECT_LE(falselyMarked, 0.0005 * good);
            EXPECT_LT(cv, 0.015);
            EXPECT_LT(ratio, 1.0);
        }
    }
}

}  // namespace
