// RunCalibration end to end on the smallest virtual sensor: the files it builds from the
// sensor's own exposures, what it refuses, and what it leaves behind when it fails or is
// interrupted.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <thread>

#include "calibration_support.h"
#include "detector/driver_binding.h"
#include "veltrano/calibration_builder.h"
#include "veltrano/detector.h"
#include "virtual_sensor/driver.h"

namespace {

using caltest::Driver;
using caltest::FlatSource;
using caltest::TempFolder;
namespace fs = std::filesystem;

const char kIni[] = "[VirtualSensor]\nSensorSize=1000\nSeed=21\nExposureMs=0\nScene=phantom\n";
const double kFourDoses[4] = {0.25, 0.5, 1.0, 1.5};

class Calibration : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(Driver().complete()) << "the virtual sensor's exports are missing";
        caltest::WriteText(work.path() / "VirtualSensor.ini", kIni);
        // Each exposure would otherwise spend 300 ms in the detector's progress pauses.
        veltrano::detail::SetTimeDivisorForTesting(50);
    }
    void TearDown() override { veltrano::detail::SetTimeDivisorForTesting(1); }
    // The virtual sensor sets its own dose for each level, as the program does.
    veltrano::CalibrationCallbacks VirtualCallbacks(int levels) {
        veltrano::CalibrationCallbacks callbacks;
        callbacks.prepareLevel = [this, levels](int level, int count) {
            EXPECT_EQ(count, levels);
            source.set(levels == 1 ? 1.0 : kFourDoses[level]);
            return true;
        };
        return callbacks;
    }
    veltrano::CalibrationOptions Options(int levels, int exposures) {
        veltrano::CalibrationOptions options;
        options.levels = levels;
        options.exposuresPerLevel = exposures;
        return options;
    }
    TempFolder work;
    FlatSource source{-1.0};
};

bool ExtensionIs(const std::string& path, const std::string& ext) {
    const std::string name = fs::path(path).filename().string();
    const size_t dot = name.rfind('.');
    return dot != std::string::npos && name.substr(dot + 1) == ext;
}

TEST_F(Calibration, BuildsFilesFromTheSensorsOwnExposuresAndKeepsTheOldOnes) {
    // The sensor's previous calibration with an older backup, a stray gain file in a
    // sub-folder, and what an interrupted run left behind.
    ASSERT_EQ(Driver().writeCalibration(work.str().c_str(), 1), 0);
    const auto oldGain = caltest::ReadBytes(work.calibration() / "VirtualSensor.gn");
    const auto oldDefects = caltest::ReadBytes(work.calibration() / "VirtualSensor.dft");
    caltest::WriteText(work.calibration() / "old" / "stray.gn", "an older gain file");
    caltest::WriteText(work.calibration() / "VirtualSensor.gn.veltrano-new", "half");
    caltest::WriteText(work.calibration() / "VirtualSensor.gn.previous", "an older backup");
    caltest::WriteText(work.path() / "calibration-scratch" / "Correct" / "Default" / "x.gn",
                       "junk");

    veltrano::CalibrationCallbacks callbacks = VirtualCallbacks(4);
    int accepted = 0, lastPercent = -1;
    callbacks.progress = [&](const veltrano::CalibrationProgress& p) {
        accepted += p.text.find("accepted") != std::string::npos;
        EXPECT_GE(p.percent, lastPercent);
        lastPercent = p.percent;
    };
    veltrano::CalibrationResult result;
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(veltrano::RunCalibration(work.str().c_str(), Options(4, 2), callbacks, result),
              veltrano::kCalibrationDone)
        << result.message;
    EXPECT_EQ(accepted, 8);
    EXPECT_EQ(lastPercent, 100);

    // One gain and one defect file are left for the loader; whichever gain file it met first
    // was replaced, the other renamed aside, both under names it does not take.
    std::vector<std::string> gains, defects;
    for (const auto& entry : fs::recursive_directory_iterator(work.calibration())) {
        const std::string path = entry.path().string();
        if (ExtensionIs(path, "gn")) gains.push_back(path);
        if (ExtensionIs(path, "dft")) defects.push_back(path);
        EXPECT_FALSE(ExtensionIs(path, "veltrano-new") || ExtensionIs(path, "journal")) << path;
    }
    ASSERT_TRUE(gains.size() == 1 && defects.size() == 1);
    EXPECT_TRUE(fs::equivalent(gains[0], result.gainPath) &&
                fs::equivalent(defects[0], result.defectPath));
    EXPECT_EQ(caltest::ReadBytes(work.calibration() / "VirtualSensor.gn.previous"), oldGain);
    EXPECT_EQ(caltest::ReadBytes(result.defectBackup), oldDefects);
    const auto stray = caltest::ReadBytes(work.calibration() / "old" / "stray.gn.previous");
    EXPECT_EQ(std::string(stray.begin(), stray.end()), "an older gain file");
    EXPECT_EQ(result.gainBackup, result.gainPath + ".previous");
    EXPECT_FALSE(fs::exists(work.path() / "calibration-scratch"));

    // The header says what was made.
    veltrano::CalibrationHeader h;
    ASSERT_EQ(veltrano::ReadCalibrationHeader(result.defectPath.c_str(), h), 1);
    EXPECT_EQ(h.kind, veltrano::CalibrationHeader::kDefectFile);
    ASSERT_EQ(veltrano::ReadCalibrationHeader(result.gainPath.c_str(), h), 1);
    EXPECT_EQ(h.kind, veltrano::CalibrationHeader::kGainFile);
    EXPECT_EQ(h.serialNumber, "VS1000-00000021");
    EXPECT_TRUE(h.sensorSize == 1000 && h.width == 1000 && h.height == 1500 && h.cornerCut == 211);
    EXPECT_TRUE(h.frames == 4 && h.exposures == 2);
    EXPECT_TRUE(h.created >= before && h.created <= std::time(nullptr) + 1);
    for (int l = 1; l < 4; ++l) {
        EXPECT_GT(h.levels[l], h.levels[l - 1]);
        EXPECT_NEAR(h.doses[l] / h.doses[0], kFourDoses[l] / kFourDoses[0],
                    0.05 * kFourDoses[l] / kFourDoses[0]);
    }
    EXPECT_TRUE(h.cvBefore > 0.05f && h.cvAfter < 0.02f) << h.cvBefore << " " << h.cvAfter;

    // The defects marked are the sensor's.
    const size_t pixels = 1000 * 1500;
    std::vector<uint8_t> truth(pixels);
    ASSERT_EQ(Driver().getFixedPattern(work.str().c_str(), nullptr, nullptr, truth.data(), pixels),
              0);
    const std::vector<uint8_t> dft = caltest::ReadBytes(result.defectPath);
    ASSERT_EQ(dft.size(), 1040 + pixels);
    size_t bad = 0, found = 0, good = 0, falselyMarked = 0, mapDiffers = 0;
    for (size_t i = 0; i < pixels; ++i) {
        if (caltest::InCut(i, 1000, 211)) {
            EXPECT_EQ(dft[1040 + i], 0) << i;
            continue;
        }
        (truth[i] ? bad : good) += 1;
        (truth[i] ? found : falselyMarked) += dft[1040 + i] != 0;
        mapDiffers += result.defectMap.data[i] != static_cast<float>(dft[1040 + i]);
    }
    EXPECT_EQ(mapDiffers, 0u) << "pixels where the defect map differs from the file";
    EXPECT_GT(bad, 1000u);
    EXPECT_GE(found, 0.99 * bad) << found << " of " << bad;
    EXPECT_LE(falselyMarked, 0.0005 * good) << falselyMarked << " of " << good;

    // Under the neutral calibration the acquisition handed out the driver's frames as they came:
    // the check exposure is exactly the ninth frame of a fresh sensor under the same doses.
    vstest::WorkDir twin(kIni);
    vstest::Sensor direct(twin);
    std::vector<uint16_t> ninth;
    for (double factor : {0.25, 0.25, 0.5, 0.5, 1.0, 1.0, 1.5, 1.5, 1.5}) {
        source.set(factor);
        ninth = direct.expose().pixels;
    }
    ASSERT_EQ(ninth.size(), pixels);
    ASSERT_EQ(result.rawFlat.width * result.rawFlat.height, pixels);
    size_t differ = 0;
    for (size_t i = 0; i < pixels; ++i) differ += result.rawFlat.data[i] != ninth[i];
    EXPECT_EQ(differ, 0u);

    // The detector's ordinary acquisition loads the new files and flattens a flat exposure.
    CVeltrano detector(work.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
    source.set(1.0);
    imgmat flat;
    ASSERT_EQ(detector.AcqImageEx(flat, 0, 6, 100), 0);
    const double cv = caltest::ActiveCv(flat.data, flat.width * flat.height, 1000, 211);
    EXPECT_LT(cv, 0.02) << cv;
}

}  // namespace

namespace {

// An exposure in the middle of a level that is not a usable flat stops the run with a message;
// so do a cancel and a level no brighter than the one before. The previous calibration stays as
// it was, and nothing of the run is left behind.
TEST_F(Calibration, RefusesABadExposureAndLeavesThePreviousCalibrationAsItWas) {
    ASSERT_EQ(Driver().writeCalibration(work.str().c_str(), 4), 0);
    const auto before = caltest::Snapshot(work.calibration());
    const struct {
        const char* name;
        int levels;
        double factor;  // the source for the second exposure (or the second level)
        int code;
        const char* message;
    } cases[] = {
        {"saturated", 1, 4.0, veltrano::kCalibrationRefused, "is saturated"},
        {"dark", 1, 0.0, veltrano::kCalibrationRefused, "is too dark"},
        {"changed dose", 1, 1.3, veltrano::kCalibrationRefused, "the dose changed"},
        {"object in the beam", 1, -1.0, veltrano::kCalibrationRefused, "not a uniform flat field"},
        {"level too dim", 4, 0.25, veltrano::kCalibrationRefused,
         "not bright enough for a new level"},
        {"cancelled", 1, 1.0, veltrano::kCalibrationCancelled, "cancelled"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::atomic<bool> cancel{false};
        veltrano::CalibrationCallbacks callbacks = VirtualCallbacks(c.levels);
        callbacks.cancel = &cancel;
        // One level: the second of its three exposures gets the bad source (or a cancel). Four
        // levels: the second level starts at the first one's dose.
        const bool cancelling = c.code == veltrano::kCalibrationCancelled;
        callbacks.progress = [&](const veltrano::CalibrationProgress& p) {
            const bool second =
                p.level == 0 && p.exposure == 1 && p.text.find("waiting") != std::string::npos;
            if (c.levels == 1 && second) {
                if (cancelling) {
                    cancel = true;
                } else {
                    source.set(c.factor);
                }
            }
        };
        if (c.levels == 4) {
            callbacks.prepareLevel = [&](int level, int) {
                source.set(level == 0 ? 0.25 : c.factor);
                return true;
            };
        }
        veltrano::CalibrationResult result;
        EXPECT_EQ(
            veltrano::RunCalibration(work.str().c_str(), Options(c.levels, c.levels == 1 ? 3 : 2),
                                     callbacks, result),
            c.code)
            << result.message;
        EXPECT_NE(result.message.find(c.message), std::string::npos) << result.message;
        EXPECT_NE(result.message.find("nothing was changed"), std::string::npos) << result.message;
        EXPECT_TRUE(caltest::Snapshot(work.calibration()) == before);
        EXPECT_FALSE(fs::exists(work.path() / "calibration-scratch"));
        EXPECT_EQ(result.rawFlat.data, nullptr);
    }

    // A cancel from another thread while the sensor waits for its exposure ends the wait at once.
    caltest::WriteText(work.path() / "VirtualSensor.ini",
                       "[VirtualSensor]\nSensorSize=1000\nSeed=21\nExposureMs=20000\n");
    std::atomic<bool> cancel{false}, waiting{false};
    veltrano::CalibrationCallbacks callbacks = VirtualCallbacks(1);
    callbacks.cancel = &cancel;
    callbacks.progress = [&](const veltrano::CalibrationProgress& p) {
        if (p.text.find("waiting") != std::string::npos) waiting = true;
    };
    std::thread host([&] {
        while (!waiting) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        cancel = true;
    });
    const auto start = std::chrono::steady_clock::now();
    veltrano::CalibrationResult stopped;
    EXPECT_EQ(veltrano::RunCalibration(work.str().c_str(), Options(1, 2), callbacks, stopped),
              veltrano::kCalibrationCancelled);
    host.join();
    // The exposure would take 20 s: well under that means the cancel ended the wait. The
    // bound is generous so that a loaded machine or a sanitizer cannot break it.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(caltest::Snapshot(work.calibration()) == before);

    // The host may also decline a level.
    veltrano::CalibrationCallbacks decline;
    decline.prepareLevel = [](int, int) { return false; };
    veltrano::CalibrationResult result;
    EXPECT_EQ(veltrano::RunCalibration(work.str().c_str(), Options(1, 2), decline, result),
              veltrano::kCalibrationCancelled);
    EXPECT_TRUE(caltest::Snapshot(work.calibration()) == before);
}

TEST_F(Calibration, RefusesArgumentsAndSensorsItCannotWorkWith) {
    veltrano::CalibrationResult result;
    const veltrano::CalibrationCallbacks none;
    EXPECT_EQ(veltrano::RunCalibration(nullptr, Options(1, 2), none, result),
              veltrano::kCalibrationBadArguments);
    EXPECT_EQ(veltrano::RunCalibration("", Options(1, 2), none, result),
              veltrano::kCalibrationBadArguments);
    const std::string dir = work.str();
    EXPECT_EQ(veltrano::RunCalibration((dir + "/missing").c_str(), Options(1, 2), none, result),
              veltrano::kCalibrationBadArguments);
    EXPECT_NE(result.message.find("is not a folder"), std::string::npos);
    for (auto [levels, exposures] : {std::pair{2, 8}, {0, 8}, {4, 1}, {1, 65}}) {
        EXPECT_EQ(veltrano::RunCalibration(dir.c_str(), Options(levels, exposures), none, result),
                  veltrano::kCalibrationBadArguments)
            << levels << " " << exposures;
        EXPECT_FALSE(result.message.empty());
    }
    veltrano::CalibrationOptions options = Options(1, 2);
    options.thresholds.localRadius = 0;
    EXPECT_EQ(veltrano::RunCalibration(dir.c_str(), options, none, result),
              veltrano::kCalibrationBadArguments);
    options = Options(1, 2);
    options.checks.maxCorrectedCv = 0.0f;
    EXPECT_EQ(veltrano::RunCalibration(dir.c_str(), options, none, result),
              veltrano::kCalibrationBadArguments);

    // A configuration the driver refuses: the sensor cannot be opened.
    caltest::WriteText(work.path() / "VirtualSensor.ini", "[VirtualSensor]\nSensorSize=1234\n");
    EXPECT_EQ(veltrano::RunCalibration(dir.c_str(), Options(1, 2), none, result),
              veltrano::kCalibrationNoSensor);
    EXPECT_NE(result.message.find("code 10"), std::string::npos) << result.message;
    EXPECT_FALSE(fs::exists(work.path() / "calibration-scratch"));
    EXPECT_FALSE(fs::exists(work.calibration()));
}

// A replacement that was under way when the process died is undone from its journal by the next
// run; a journal cut short was written before anything changed and is dropped.
TEST(CalibrationRecovery, UndoesAnInterruptedReplacementFromItsJournal) {
    TempFolder work;
    const fs::path folder = work.calibration();
    const std::string f = folder.string();
    caltest::WriteText(folder / "A.gn", "new gain");  // already renamed in
    caltest::WriteText(folder / "A.gn.previous", "old gain");
    caltest::WriteText(folder / "A.dft", "old defects");  // not yet
    caltest::WriteText(folder / "A.dft.previous", "old defects");
    caltest::WriteText(folder / "A.dft.veltrano-new", "new defects");
    caltest::WriteText(folder / "sub" / "B.gn.previous", "renamed aside");
    caltest::WriteText(folder / "C.gn", "a file that did not exist before");
    caltest::WriteText(work.path() / "calibration-scratch" / "Correct" / "Default" / "neutral.gn",
                       "x");
    caltest::WriteText(folder / "calibration-commit.journal",
                       "veltrano calibration journal 1\nreplace\t" + f + "/A.gn\t" + f +
                           "/A.gn.previous\n" + "replace\t" + f + "/A.dft\t" + f +
                           "/A.dft.previous\n" + "replace\t" + f + "/C.gn\t\n" + "aside\t" + f +
                           "/sub/B.gn\t" + f + "/sub/B.gn.previous\nend\n");
    std::string message;
    EXPECT_EQ(veltrano::RecoverCalibrationFolder(work.str().c_str(), message), 1);
    EXPECT_NE(message.find("undone"), std::string::npos) << message;
    const auto text = [&](const fs::path& p) {
        const auto bytes = caltest::ReadBytes(p);
        return std::string(bytes.begin(), bytes.end());
    };
    EXPECT_EQ(text(folder / "A.gn"), "old gain");
    EXPECT_EQ(text(folder / "A.dft"), "old defects");
    EXPECT_EQ(text(folder / "sub" / "B.gn"), "renamed aside");
    EXPECT_FALSE(fs::exists(folder / "sub" / "B.gn.previous"));
    EXPECT_FALSE(fs::exists(folder / "C.gn"));
    EXPECT_FALSE(fs::exists(folder / "A.dft.veltrano-new"));
    EXPECT_FALSE(fs::exists(folder / "calibration-commit.journal"));
    EXPECT_FALSE(fs::exists(work.path() / "calibration-scratch"));

    // A journal without its last line: nothing had changed yet.
    caltest::WriteText(folder / "A.gn", "kept");
    caltest::WriteText(
        folder / "calibration-commit.journal",
        "veltrano calibration journal 1\nreplace\t" + f + "/A.gn\t" + f + "/A.gn.previous\n");
    EXPECT_EQ(veltrano::RecoverCalibrationFolder(work.str().c_str(), message), 0);
    EXPECT_EQ(text(folder / "A.gn"), "kept");
    EXPECT_FALSE(fs::exists(folder / "calibration-commit.journal"));
    EXPECT_EQ(veltrano::RecoverCalibrationFolder(work.str().c_str(), message), 0);
    EXPECT_EQ(veltrano::RecoverCalibrationFolder(nullptr, message), -1);

    // A backup that has gone missing cannot be restored: the journal stays for another try.
    caltest::WriteText(
        folder / "calibration-commit.journal",
        "veltrano calibration journal 1\nreplace\t" + f + "/A.gn\t" + f + "/gone.previous\nend\n");
    EXPECT_EQ(veltrano::RecoverCalibrationFolder(work.str().c_str(), message), -1);
    EXPECT_NE(message.find("could not be restored"), std::string::npos) << message;
    EXPECT_TRUE(fs::exists(folder / "calibration-commit.journal"));
    EXPECT_EQ(text(folder / "A.gn"), "kept");
}

}  // namespace
