// veltrano calibrate run as a host runs it: a separate process from the build's bin folder, on
// the virtual sensor, which sets its own dose. Skipped where the program is not built.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "calibration_support.h"

#if !defined(_WIN32)
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

TEST(CalibrateCli, CalibratesTheVirtualSensorReportsAndRefusesBadUse) {
    const fs::path program = fs::absolute("veltrano");
    if (!fs::exists(program)) GTEST_SKIP() << "the veltrano program is not part of this build";
    caltest::TempFolder dir;
    caltest::WriteText(dir.path() / "VirtualSensor.ini",
                       "[VirtualSensor]\nSensorSize=1000\nSeed=8\nExposureMs=0\n");
    // Exit code, standard output and standard error of one run.
    auto run = [&](const std::string& args) {
        const std::string command = "'" + program.string() + "' calibrate --workdir '" + dir.str() +
                                    "' " + args + " </dev/null >'" + (dir / "out") + "' 2>'" +
                                    (dir / "err") + "'";
        const int status = std::system(command.c_str());
        const auto out = caltest::ReadBytes(dir / "out"), err = caltest::ReadBytes(dir / "err");
        return std::make_tuple(WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                               std::string(out.begin(), out.end()),
                               std::string(err.begin(), err.end()));
    };

    auto [code, out, err] = run("--levels 1 --exposures 2");
    ASSERT_EQ(code, 0) << err;
    for (const char* part :
         {"calibration of sensor VS1000-00000008 (size 1000: 1000 x 1500 pixels)",
          "previous:     none", "in defective columns     1500 (1 column)",
          "flat-field variation of the check exposure: ", "report image: "}) {
        EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
    }
    EXPECT_NE(err.find("virtual source at 1.00 of its dose"), std::string::npos) << err;
    if (out.find("not written") == std::string::npos) {  // a build with PNG support
        const auto png = caltest::ReadBytes(dir.path() / "calibration-report.png");
        ASSERT_GT(png.size(), 24u);
        EXPECT_EQ((png[18] << 8 | png[19]) * 10000 + (png[22] << 8 | png[23]), 3024 * 10000 + 1500);
    }
    // A second run keeps the first run's files beside the new ones.
    const auto first = caltest::ReadBytes(dir.calibration() / "Calibration.gn");
    std::tie(code, out, err) = run("--levels 1 --exposures 2 --yes");
    ASSERT_EQ(code, 0) << err;
    EXPECT_NE(out.find("Calibration.gn.previous"), std::string::npos) << out;
    EXPECT_EQ(caltest::ReadBytes(dir.calibration() / "Calibration.gn.previous"), first);
    // The virtual sensor's own files, as before.
    ASSERT_EQ(std::get<0>(run("--virtual --frames 4")), 0);
    EXPECT_EQ(caltest::ReadBytes(dir.calibration() / "VirtualSensor.gn").size(),
              1040u + 4 * 2 * 1000 * 1500);

    const auto before = caltest::Snapshot(dir.calibration());
    for (const char* args :
         {"--levels 2", "--exposures 1", "--frames 4", "--virtual --levels 4", "--bogus"}) {
        std::tie(code, out, err) = run(args);
        EXPECT_EQ(code, 2) << args;
        EXPECT_EQ(err.rfind("veltrano calibrate: ", 0), 0u) << args << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << args << err;
    }
    caltest::WriteText(dir.path() / "VirtualSensor.ini", "[VirtualSensor]\nSensorSize=7\n");
    std::tie(code, out, err) = run("");
    EXPECT_EQ(code, 1);
    EXPECT_NE(err.find("could not be loaded or started (code 10)"), std::string::npos) << err;
    EXPECT_TRUE(caltest::Snapshot(dir.calibration()) == before);
}

}  // namespace
#endif
