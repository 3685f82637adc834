// The calibration files written by VirtualSensor_WriteCalibration, and what the system's
// correction makes of a flat exposure with them.
#if defined(__linux__)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "driver.h"

namespace vstest {
namespace {

using VirtualSensorCalibration = VirtualSensorTest;

TEST_F(VirtualSensorCalibration, FlatExposureIsFlatAfterTheSystemsCorrection) {
    const int columns = 1200, rows = 1650, cut = 251;
    const size_t pixels = static_cast<size_t>(columns) * rows;
    WorkDir dir("[VirtualSensor]\nScene=flat\nExposureMs=0\nSeed=11\n");
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 1), 0);
    const std::vector<uint8_t> gain = dir.file("VirtualSensor.gn"),
                               defects = dir.file("VirtualSensor.dft");
    ASSERT_EQ(gain.size(), 1040 + 2 * pixels);
    ASSERT_EQ(defects.size(), 1040 + pixels);
    const std::vector<uint8_t> map(defects.begin() + 1040, defects.end());
    Sensor sensor(dir);
    const Event image = sensor.expose(), next = sensor.expose();
    ASSERT_TRUE(image.pixels.size() == pixels && next.pixels.size() == pixels);
    const double before = ActiveCv(image.pixels, columns, cut, map);
    EXPECT_TRUE(before > 0.05 && before < 0.12) << before;
    const std::vector<float> corrected =
        CorrectAsTheSystemDoes(image.pixels, gain, defects, columns);
    EXPECT_LT(ActiveCv(corrected, columns, cut), 0.02);

    // The next frame: the same fixed pattern under fresh noise of about 1 % of 20000. Every
    // defect is clearly wrong in the frame and repaired after the correction.
    double squares = 0.0, count = 0.0, level = 0.0;
    size_t marked = 0, cornerLit = 0, cornerMarks = 0, clearlyWrong = 0, repaired = 0;
    for (size_t i = 0; i < pixels; ++i) {
        if (InCutCorner(i, columns, cut)) {
            cornerLit += image.pixels[i] != 0;
            cornerMarks += map[i] != 0;
        } else if (!map[i]) {
            squares += (image.pixels[i] - next.pixels[i]) * (image.pixels[i] - next.pixels[i]);
            count += 1.0;
            level += corrected[i] / 1e6;
        }
    }
    level *= 1e6 / count;
    const double noise = std::sqrt(squares / count / 2.0) / 20000;  // each frame carries its own
    EXPECT_TRUE(noise > 0.005 && noise < 0.02) << noise;
    for (size_t i = 0; i < pixels; ++i) {
        marked += map[i] != 0;
        clearlyWrong += map[i] && std::fabs(image.pixels[i] - level) > 0.5 * level;
        repaired += map[i] && std::fabs(corrected[i] - level) < 0.05 * level;
    }
    EXPECT_EQ(cornerLit + cornerMarks, 0u);
    EXPECT_TRUE(marked > static_cast<size_t>(rows) && marked < pixels / 100)
        << marked;  // a column and more
    EXPECT_TRUE(clearlyWrong == marked && repaired == marked)
        << clearlyWrong << " " << repaired << " of " << marked;
}

// Four flats of rising dose, each with its level (the bright mean of an exposure of its dose,
// which the system compares with a frame's) in its first pixel; nothing for bad arguments.
TEST_F(VirtualSensorCalibration, WritesFourFlatsOnRequestAndRefusesWhatItCannotWrite) {
    const size_t pixels = 300 * 200;
    WorkDir dir("[VirtualSensor]\nWidth=300\nHeight=200\n"), blocked;
    for (int frames : {0, 2, 3, 5, -1}) {
        EXPECT_NE(D().writeCalibration(dir.str().c_str(), frames), 0) << frames;
    }
    EXPECT_TRUE(dir.file("VirtualSensor.gn").empty());
    EXPECT_TRUE(D().writeCalibration(nullptr, 1) != 0 && D().writeCalibration("", 1) != 0);
    std::ofstream(blocked.str() + "/Correct") << "a file where the folder should be";
    EXPECT_NE(D().writeCalibration(blocked.str().c_str(), 1), 0);
    ASSERT_EQ(D().writeCalibration(dir.str().c_str(), 4), 0);
    const std::vector<uint8_t> gain = dir.file("VirtualSensor.gn");
    ASSERT_EQ(gain.size(), 1040 + 4 * 2 * pixels);
    EXPECT_EQ(dir.file("VirtualSensor.dft").size(), 1040 + pixels);
    for (size_t f = 0, previous = 0; f < 4; ++f) {
        const uint8_t* frame = gain.data() + 1040 + 2 * pixels * f;
        const size_t level = frame[0] | frame[1] << 8,
                     centre = frame[pixels] | frame[pixels + 1] << 8;
        EXPECT_TRUE(level > 1.05 * centre && level < 1.3 * centre) << level << " " << centre;
        EXPECT_GT(centre, 1.4 * previous) << f;
        previous = centre;
    }
}

#if defined(__linux__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// In a child process with little memory left: a huge frame fails the call and the exposure
// instead of ending the process.
TEST_F(VirtualSensorCalibration, AFrameBeyondTheMemoryLeftFailsWithoutEndingTheHost) {
    WorkDir dir("[VirtualSensor]\nWidth=8192\nHeight=8192\nScene=flat\nExposureMs=0\n");
    const pid_t child = fork();
    if (child == 0) {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlim_t bytes = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (256u << 20);
        const rlimit limit{bytes, bytes};
        setrlimit(RLIMIT_AS, &limit);
        Sensor sensor(dir);
        const bool failed = sensor.invoke(1002) == 1 &&
                            WaitFor(sensor.handle, fpdsys::kEvtCommandFailed, 1, 20s) &&
                            Events(sensor.handle).back().param2 == 11;
        _exit(failed && D().writeCalibration(dir.str().c_str(), 1) == 5 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
#endif

}  // namespace
}  // namespace vstest
