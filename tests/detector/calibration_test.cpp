// Calibration files and the corrections built on them: finding the files, one- and four-frame
// gain files, the gain matrix, the choice among four gains, and the helpers on detector images.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "detector_support.h"

using namespace detector_test;

namespace {

// Without a known sensor the calibration images are 1300 x 1800.
constexpr unsigned long long kWidth = 1300;
constexpr unsigned long long kHeight = 1800;
constexpr unsigned long long kPixels = kWidth * kHeight;
constexpr unsigned long long kFrameBytes = kPixels * 2;

// A gain file: 1040 header bytes, then each frame's pixels as 16-bit little-endian values,
// then padding bytes up to totalBytes (if larger).
void WriteGainFile(const fs::path& path, const std::vector<std::vector<uint16_t>>& frames,
                   unsigned long long totalBytes = 0) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    std::string bytes(1040, 'H');
    for (const std::vector<uint16_t>& frame : frames) {
        for (uint16_t v : frame) {
            bytes.push_back(static_cast<char>(v & 0xFF));
            bytes.push_back(static_cast<char>(v >> 8));
        }
    }
    if (bytes.size() < totalBytes) {
        bytes.append(totalBytes - bytes.size(), '\0');
    }
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint16_t> Frame(uint16_t value) { return std::vector<uint16_t>(kPixels, value); }

}  // namespace

TEST(Calibration, CalcGainMatDividesTheMeanByEachPixel) {
    CVeltrano detector("unused");
    imgmat flat(4, 1, 1);
    const float values[] = {0.0f, 2.0f, 4.0f, 2.0f};
    std::copy(values, values + 4, flat.data);
    imgmat gain;
    detector.CalcGainMat(flat, gain);
    ASSERT_NE(gain.data, nullptr);
    EXPECT_EQ(gain.width, 4u);
    // mean 2; a dark pixel counts as 0.001.
    EXPECT_FLOAT_EQ(gain.data[0], 2000.0f);
    EXPECT_FLOAT_EQ(gain.data[1], 1.0f);
    EXPECT_FLOAT_EQ(gain.data[2], 0.5f);

    // A gain matrix of another size is remade rather than overrun.
    imgmat small(2, 1, 1);
    detector.CalcGainMat(flat, small);
    EXPECT_EQ(small.width, 4u);
    EXPECT_FLOAT_EQ(small.data[3], 1.0f);

    imgmat empty;
    imgmat untouched;
    detector.CalcGainMat(empty, untouched);
    EXPECT_EQ(untouched.data, nullptr);
}

TEST(Calibration, FileSizeDecidesBetweenOneAndFourFrames) {
    struct Case {
        unsigned long long totalBytes;
        bool loads;
        const char* why;
    };
    const Case cases[] = {
        {1040 + kFrameBytes, true, "exactly one frame"},
        {2 * kFrameBytes, true, "up to two frames' size is still one frame"},
        // One byte more makes four frames, which this file does not hold in full; the reader
        // fills the missing part with zeros and the load still succeeds.
        {2 * kFrameBytes + 1, true, "four frames"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        WorkDir dir;
        WriteGainFile(dir.calibrationFolder() / "sensor.gn", {Frame(1000)}, c.totalBytes);
        CVeltrano detector(dir.str().c_str());
        StdoutCapture out;
        EXPECT_EQ(detector.GetAndCaliFile_Gain(), 0);
        EXPECT_EQ(out.take(), "Success to load GainFile!\n");

        // A flat frame gives a gain of 1, and of four frames the missing (zero) ones lie
        // further from the image's level: the image comes back as it was.
        imgmat image(kWidth, kHeight, 1);
        image = 1234.0f;
        StdoutCapture correction;
        EXPECT_EQ(detector.DoGainCorrection(image), 1);
        EXPECT_EQ(correction.take(), "Success to do GainCorrection\n");
        EXPECT_FLOAT_EQ(image.data[kPixels / 2], 1234.0f);
    }
}

TEST(Calibration, MissingOrEmptyGainFileIsNoCalibration) {
    for (const char* layout : {"none", "empty", "other extension", "gn in a sub-folder"}) {
        SCOPED_TRACE(layout);
        WorkDir dir;
        const std::string which = layout;
        if (which == "empty") {
            fs::create_directories(dir.calibrationFolder());
            std::ofstream(dir.calibrationFolder() / "sensor.gn");
        } else if (which == "other extension") {
            WriteGainFile(dir.calibrationFolder() / "sensor.gnx", {Frame(1000)});
            WriteGainFile(dir.calibrationFolder() / "sensor.gn.bak", {Frame(1000)});
        } else if (which == "gn in a sub-folder") {
            WriteGainFile(dir.calibrationFolder() / "deeper" / "sensor.gn", {Frame(1000)});
        }
        CVeltrano detector(dir.str().c_str());
        StdoutCapture out;
        const int result = detector.GetAndCaliFile_Gain();
        const std::string text = out.take();
        if (which == "gn in a sub-folder") {
            EXPECT_EQ(result, 0);  // sub-folders are searched too
        } else {
            EXPECT_EQ(result, -2);
            EXPECT_EQ(text, "No Gain CaliFile!\n");
            imgmat image(kWidth, kHeight, 1);
            StdoutCapture correction;
            EXPECT_EQ(detector.DoGainCorrection(image), 0);
            EXPECT_EQ(correction.take(), "Fail to do GainCorrection!\n");
        }
    }
}

TEST(Calibration, FourFramesPickTheGainNearestToTheBrightMean) {
    // Frame i is flat at its level except pixel 1, which is darker by a factor of i + 2; its
    // gain at pixel 1 therefore tells which frame was chosen.
    const uint16_t levels[] = {2000, 6000, 12000, 24000};
    std::vector<std::vector<uint16_t>> frames;
    for (int i = 0; i < 4; ++i) {
        std::vector<uint16_t> frame = Frame(levels[i]);
        frame[1] = static_cast<uint16_t>(levels[i] / (i + 2));
        frames.push_back(frame);
    }
    WorkDir dir;
    WriteGainFile(dir.calibrationFolder() / "four.gn", frames);
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.GetAndCaliFile_Gain(), 0);

    struct Case {
        float brightest;  // value of the 5000 brightest pixels
        int frame;
    };
    const Case cases[] = {{1000.0f, 0}, {5000.0f, 1}, {9001.0f, 2}, {30000.0f, 3}, {8999.0f, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.brightest);
        imgmat image(kWidth, kHeight, 1);
        image = 100.0f;
        for (int i = 0; i < 5000; ++i) {
            image.data[kPixels - 1 - static_cast<unsigned long long>(i)] = c.brightest;
        }
        EXPECT_EQ(detector.DoGainCorrection(image), 1);
        EXPECT_NEAR(image.data[1] / 100.0f, static_cast<float>(c.frame + 2), 0.01f);
    }

    // An image with no pixel in 0..65535 ends the walk at bin 0 and takes the lowest level.
    imgmat dark(kWidth, kHeight, 1);
    dark = -5.0f;
    EXPECT_EQ(detector.DoGainCorrection(dark), 1);
    EXPECT_NEAR(dark.data[1] / -5.0f, 2.0f, 0.01f);
}

TEST(Calibration, DefectMapIsLoadedOnceAndKept) {
    WorkDir dir;
    fs::create_directories(dir.calibrationFolder());
    const fs::path path = dir.calibrationFolder() / "sensor.dft";
    {
        std::ofstream(path, std::ios::binary) << std::string(1040 + kPixels, '\0');
    }
    CVeltrano detector(dir.str().c_str());
    StdoutCapture out;
    EXPECT_EQ(detector.GetBadPixelInfo(), 0);
    fs::remove(path);
    EXPECT_EQ(detector.GetBadPixelInfo(), 0);
    EXPECT_EQ(out.take(), "Success to load defectFile\nSuccess to load defectFile\n");

    CVeltrano other(dir.str().c_str());
    StdoutCapture missing;
    EXPECT_EQ(other.GetBadPixelInfo(), -2);
    EXPECT_EQ(missing.take(), "No defectFile!\n");
}

TEST(Calibration, FixBadPixelRepairsMarkedPixelsAndRefusesASmallMap) {
    CVeltrano detector("unused");
    imgmat image(3, 3, 1);
    image = 10.0f;
    image.data[4] = 5000.0f;
    imgmat defects(3, 3, 1);
    defects = 0.0f;
    defects.data[4] = 1.0f;
    StdoutCapture out;
    EXPECT_EQ(detector.DoFixBadPixel(image, defects), 1);
    EXPECT_FLOAT_EQ(image.data[4], 10.0f);

    imgmat small(2, 2, 1);
    small = 1.0f;
    image.data[4] = 5000.0f;
    EXPECT_NE(detector.DoFixBadPixel(image, small), 1);
    EXPECT_FLOAT_EQ(image.data[4], 5000.0f);
    imgmat none;
    EXPECT_NE(detector.DoFixBadPixel(image, none), 1);
    EXPECT_EQ(out.take(),
              "Success to do PixelCorrection!\nFail to do PixelCorrection!\n"
              "Fail to do PixelCorrection!\n");
}

TEST(Calibration, LogHelperStoresNegatedLogarithms) {
    CVeltrano detector("unused");
    imgmat src(3, 1, 1);
    src.data[0] = 1.0f;
    src.data[1] = 20.0f;
    src.data[2] = 1000.0f;
    imgmat dst;
    StdoutCapture out;
    EXPECT_EQ(detector.DoLog(src, dst), 1);
    ASSERT_NE(dst.data, nullptr);
    EXPECT_NEAR(dst.data[0], -std::log(20.0f), 1e-5);  // dark pixels are floored at 20
    EXPECT_NEAR(dst.data[1], -std::log(20.0f), 1e-5);
    EXPECT_NEAR(dst.data[2], -std::log(1000.0f), 1e-5);
    EXPECT_FLOAT_EQ(src.data[2], 1000.0f);

    imgmat empty;
    EXPECT_EQ(detector.DoLog(empty, dst), -1);
    EXPECT_EQ(out.take(), "Do log is sucessful\nDo log,but no image!\n");
}

TEST(Calibration, CornerFillMirrorsBothUpperCorners) {
    // Two 3 x 3 blocks side by side, each 1..9 row by row.
    CVeltrano detector("unused");
    imgmat src(6, 3, 1);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 6; ++c) {
            src.data[r * 6 + c] = static_cast<float>(r * 3 + c % 3 + 1);
        }
    }
    imgmat dst;
    StdoutCapture out;
    EXPECT_EQ(detector.FillCutCorners(src, dst, 3), 1);
    const float expected[] = {9, 6, 3, 1, 4, 7,  //
                              8, 5, 6, 4, 5, 8,  //
                              7, 8, 9, 7, 8, 9};
    ASSERT_NE(dst.data, nullptr);
    for (int i = 0; i < 18; ++i) {
        EXPECT_EQ(dst.data[i], expected[i]) << i;
    }
    imgmat empty;
    EXPECT_EQ(detector.FillCutCorners(empty, dst, 3), -1);
    EXPECT_EQ(out.take(),
              "Do Copy_RightDown_To_LeftUp is Sucessful\nDo Copy_LeftDown_To_RightUp is Sucessful\n");
}
