// veltrano calibrate run as a host runs it: a separate process from the build's bin folder, on
// the virtual sensor, which sets its own dose. Skipped where the program is not built.
#include <gtest/gtest.h>

#include <cstdlib>

#include "calibration_support.h"

#if !defined(_WIN32)
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

class CalibrateCli : public testing::Test {
protected:
    void SetUp() override {
        program_ = fs::absolute("veltrano");
        if (!fs::exists(program_)) {
            GTEST_SKIP() << "the veltrano program is not part of this build";
        }
        caltest::WriteText(dir.path() / "VirtualSensor.ini",
                           "[VirtualSensor]\nSensorSize=1000\nSeed=8\nExposureMs=0\n");
    }
    struct Outcome {
        int code;
        std::string out, err;
    };
    Outcome Run(const std::string& args) const {
        const std::string out = dir / "stdout.txt", err = dir / "stderr.txt";
        const std::string command = "'" + program_.string() + "' calibrate " + args + " </dev/null >'" +
                                    out + "' 2>'" + err + "'";
        const int status = std::system(command.c_str());
        auto text = [](const std::string& path) {
            const auto bytes = caltest::ReadBytes(path);
            return std::string(bytes.begin(), bytes.end());
        };
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(out), text(err)};
    }
    fs::path program_;
    caltest::TempFolder dir;
};

TEST_F(CalibrateCli, CalibratesTheVirtualSensorAndReportsWhatItFound) {
    const std::string work = "--workdir '" + dir.str() + "'";
    Outcome first = Run(work + " --levels 1 --exposures 2");
    ASSERT_EQ(first.code, 0) << first.err;
    for (const char* part : {"calibration of sensor VS1000-00000008 (size 1000: 1000 x 1500 pixels)",
                             "previous:     none", "defective pixels: ", "in defective columns     1500 (1 column",
                             "flat-field variation of the check exposure: ", "report image: "}) {
        EXPECT_NE(first.out.find(part), std::string::npos) << part << "\n" << first.out;
    }
    EXPECT_NE(first.err.find("virtual source at 1.00 of its dose"), std::string::npos) << first.err;
    EXPECT_NE(first.err.find("[100%] done"), std::string::npos) << first.err;
    EXPECT_TRUE(fs::exists(dir.calibration() / "Calibration.gn"));
    EXPECT_TRUE(fs::exists(dir.calibration() / "Calibration.dft"));
    if (first.out.find("not written") == std::string::npos) {
        const auto png = caltest::ReadBytes(dir.path() / "calibration-report.png");
        ASSERT_GT(png.size(), 24u);
        EXPECT_EQ(std::string(png.begin() + 1, png.begin() + 4), "PNG");
        const int width = png[18] << 8 | png[19], height = png[22] << 8 | png[23];
        EXPECT_EQ(width, 3 * 1000 + 2 * 12);  // raw, corrected, defects
        EXPECT_EQ(height, 1500);
    }

    // A second run keeps the first run's files beside the new ones.
    const auto firstGain = caltest::ReadBytes(dir.calibration() / "Calibration.gn");
    Outcome second = Run(work + " --levels 1 --exposures 2 --yes");
    ASSERT_EQ(second.code, 0) << second.err;
    EXPECT_NE(second.out.find("Calibration.gn.previous"), std::string::npos) << second.out;
    EXPECT_EQ(caltest::ReadBytes(dir.calibration() / "Calibration.gn.previous"), firstGain);

    // The virtual sensor's own files, as before.
    Outcome own = Run(work + " --virtual --frames 4");
    ASSERT_EQ(own.code, 0) << own.err;
    EXPECT_EQ(caltest::ReadBytes(dir.calibration() / "VirtualSensor.gn").size(), 1040u + 4 * 2 * 1000 * 1500);
}

TEST_F(CalibrateCli, RefusesBadUseWithoutTouchingTheCalibration) {
    const std::string work = "--workdir '" + dir.str() + "'";
    for (const char* args : {"--levels 2", "--exposures 1", "--exposures 65", "--frames 4",
                             "--virtual --levels 4", "--virtual --frames 3", "--bogus"}) {
        const Outcome o = Run(work + " " + args);
        EXPECT_EQ(o.code, 2) << args;
        EXPECT_NE(o.err.find("usage: veltrano calibrate"), std::string::npos) << args << o.err;
    }
    Outcome missing = Run("--workdir '" + dir.str() + "/missing'");
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("missing: is not a folder"), std::string::npos) << missing.err;
    caltest::WriteText(dir.path() / "VirtualSensor.ini", "[VirtualSensor]\nSensorSize=7\n");
    Outcome refused = Run(work);
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.err.find("could not be loaded or started (code 10)"), std::string::npos) << refused.err;
    EXPECT_FALSE(fs::exists(dir.calibration()));
}

}  // namespace
#endif
