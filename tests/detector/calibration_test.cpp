// Calibration files and the corrections built on them: finding the files, one- and four-frame
// gain files, the gain matrix, the choice among four gains, and the helpers on detector images.

#include <limits>

#include "detector_support.h"
#include "imgproc/impl_levels.h"

using namespace detector_test;

namespace {

// Without a known sensor the calibration images are 1300 x 1800.
constexpr unsigned long long kWidth = 1300, kHeight = 1800;
constexpr unsigned long long kPixels = kWidth * kHeight, kFrameBytes = kPixels * 2;

// A gain file: 1040 header bytes and each frame's 16-bit little-endian pixels.
void WriteGainFile(const fs::path& path, const std::vector<std::vector<uint16_t>>& frames) {
    fs::create_directories(path.parent_path());
    size_t size = 1040;
    for (const std::vector<uint16_t>& frame : frames) size += 2 * frame.size();
    std::string bytes(size, 'H');
    char* out = bytes.data() + 1040;
    for (const std::vector<uint16_t>& frame : frames) {
        for (uint16_t v : frame) {
            *out++ = static_cast<char>(v & 0xFF);
            *out++ = static_cast<char>(v >> 8);
        }
    }
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<long>(bytes.size()));
}

std::vector<uint16_t> Frame(uint16_t value) { return std::vector<uint16_t>(kPixels, value); }

imgmat Image(float value, unsigned long long width = kWidth, unsigned long long height = kHeight) {
    imgmat image(width, height, 1);
    image = value;
    return image;
}

}  // namespace

TEST(Calibration, TheGainFileIsFoundByExtensionAndItsSizeGivesOneOrFourFrames) {
    struct Case {
        const char* file;
        unsigned long long bytes;
        bool loads;
        float corrected;
    };
    // Frame 0 is flat (gain 1). A four-frame reading finds the other frames zero, with level 0
    // nearest to the image's 100 and a gain of 0.
    const Case cases[] = {
        {"sensor.gn", 1040 + kFrameBytes, true, 100.0f},
        {"deeper/sensor.gn", 2 * kFrameBytes, true, 100.0f},  // sub-folders are searched too
        {"sensor.gn", 2 * kFrameBytes + 1, true, 0.0f},
        {"sensor.gn", 0, false, 100.0f},
        {"sensor.gnx", 2 * kFrameBytes, false, 100.0f},  // the extension must match exactly
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + std::to_string(c.bytes));
        WorkDir dir;
        WriteGainFile(dir.calibrationFolder() / c.file, {Frame(1000)});
        fs::resize_file(dir.calibrationFolder() / c.file, c.bytes);  // zeros after the frame
        CVeltrano detector(dir.str().c_str());
        imgmat image = Image(100.0f);
        const std::string text = Capture([&] {
            EXPECT_EQ(detector.GetAndCaliFile_Gain(), c.loads ? 0 : -2);
            EXPECT_EQ(detector.DoGainCorrection(image), c.loads ? 1 : 0);
        });
        EXPECT_EQ(text, c.loads ? "Success to load GainFile!\nSuccess to do GainCorrection\n"
                                : "No Gain CaliFile!\nFail to do GainCorrection!\n");
        EXPECT_FLOAT_EQ(image.data[kPixels / 2], c.corrected);
    }
}

TEST(Calibration, FourFramesPickTheGainNearestToTheBrightMean) {
    // Frame i is flat at its level except pixel 1, which is darker by a factor of i + 2; its
    // gain at pixel 1 therefore tells which frame was chosen.
    const uint16_t levels[] = {2000, 6000, 12000, 24000};
    std::vector<std::vector<uint16_t>> frames;
    for (int i = 0; i < 4; ++i) {
        frames.push_back(Frame(levels[i]));
        frames.back()[1] = static_cast<uint16_t>(levels[i] / (i + 2));
    }
    WorkDir dir;
    WriteGainFile(dir.calibrationFolder() / "four.gn", frames);
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.GetAndCaliFile_Gain(), 0);

    struct Case {
        float brightest;
        int count, frame;
    };  // count pixels brighter than 100
    // 18000 lies midway between 12000 and 24000, 4000 between 2000 and 6000 (a tie: the first
    // level wins). The walk adds whole bins: one bright pixel short of 5000 takes in the whole
    // bin 100 as well, and the mean falls to about 138.
    const Case cases[] = {{17999.0f, 5000, 2},
                          {18001.0f, 5000, 3},
                          {30000.0f, 5000, 3},
                          {18001.0f, 4999, 0},
                          {4000.0f, 5000, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.brightest);
        imgmat image = Image(100.0f);
        std::fill(image.data + kPixels - c.count, image.data + kPixels, c.brightest);
        EXPECT_EQ(detector.DoGainCorrection(image), 1);
        EXPECT_NEAR(image.data[1] / 100.0f, static_cast<float>(c.frame + 2), 0.01f);
    }
    // With no pixel in 0..65535 the walk ends at bin 0 and takes the lowest level.
    imgmat dark = Image(-5.0f);
    EXPECT_EQ(detector.DoGainCorrection(dark), 1);
    EXPECT_NEAR(dark.data[1] / -5.0f, 2.0f, 0.01f);
}

TEST(Calibration, HelpersOnDetectorImagesRepairTakeLogarithmsAndFillCorners) {
    CVeltrano detector("unused");
    imgmat image = Image(10.0f, 3, 3);
    image.data[4] = 5000.0f;
    imgmat defects = Image(0.0f, 3, 3);
    defects.data[4] = 1.0f;
    imgmat small = Image(1.0f, 2, 2);
    imgmat none;
    // Two 3 x 3 blocks side by side, each 1..9 row by row.
    imgmat blocks(6, 3, 1);
    for (int i = 0; i < 18; ++i) {
        blocks.data[i] = static_cast<float>(i / 6 * 3 + i % 3 + 1);
    }
    imgmat logs, filled;
    const std::string text = Capture([&] {
        EXPECT_EQ(detector.DoFixBadPixel(image, small), -3);  // a map too small is none
        EXPECT_EQ(detector.DoFixBadPixel(image, none), -3);
        EXPECT_EQ(detector.DoFixBadPixel(image, defects), 1);
        EXPECT_EQ(detector.DoLog(image, logs), 1);
        EXPECT_EQ(detector.DoLog(none, logs), -1);
        EXPECT_EQ(detector.FillCutCorners(blocks, filled, 3), 1);
        EXPECT_EQ(detector.FillCutCorners(none, filled, 3), -1);
    });
    EXPECT_EQ(
        text,
        "Fail to do PixelCorrection!\nFail to do PixelCorrection!\n"
        "Success to do PixelCorrection!\nDo log is sucessful\nDo log,but no image!\n"
        "Do Copy_RightDown_To_LeftUp is Sucessful\nDo Copy_LeftDown_To_RightUp is Sucessful\n");
    EXPECT_FLOAT_EQ(image.data[4], 10.0f);
    EXPECT_NEAR(logs.data[4], -std::log(20.0f), 1e-5);  // 10 is floored at 20, then negated
    const float expected[] = {9, 6, 3, 1, 4, 7, 8, 5, 6, 4, 5, 8, 7, 8, 9, 7, 8, 9};
    EXPECT_TRUE(std::equal(expected, expected + 18, filled.data));
}

// The corrections' fast passes (exact sums in any order, vector gain division and histogram
// bins) against the plain loops: the same gain matrix, levels and marks at every level, on
// frames with whole and fractional values, negative, huge and not-a-number pixels.
TEST(Calibration, FastCorrectionPassesMatchThePlainLoops) {
    using impl_levels::AtEachLevel;
    std::mt19937 gen(3);
    imgmat whole(kWidth, kHeight, 1), fractional(kWidth, kHeight, 1);
    for (unsigned long long i = 0; i < kPixels; ++i) {
        whole.data[i] = static_cast<float>(gen() % 60000);
        fractional.data[i] = static_cast<float>(gen() % 600000) / 9.0f - 500.0f;
    }
    fractional.data[10] = std::numeric_limits<float>::quiet_NaN();
    fractional.data[11] = 1e9f, fractional.data[12] = -1e9f, fractional.data[13] = 65535.5f;
    CVeltrano plain("unused");
    for (imgmat* flat : {&whole, &fractional}) {
        const auto gains = AtEachLevel([&] {
            imgmat gain;
            plain.CalcGainMat(*flat, gain);
            return std::vector<float>(gain.data, gain.data + kPixels);
        });
        EXPECT_TRUE(impl_levels::SameBits(gains[1], gains[0]));
        EXPECT_TRUE(impl_levels::SameBits(gains[2], gains[0]));
    }
    WorkDir dir;
    fs::create_directories(dir.calibrationFolder());
    std::ofstream(dir.calibrationFolder() / "map.dft") << std::string(1040 + kPixels, '\0');
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.GetBadPixelInfo(), 0);
    for (imgmat* image : {&whole, &fractional}) {
        const auto results = AtEachLevel([&] {
            int low = -1, high = -1;
            imgmat marks;
            detector.CalcOutlierMarks(*image, 281, low, high, marks);
            std::vector<float> out(marks.data, marks.data + kPixels);
            out.push_back(static_cast<float>(low));
            out.push_back(static_cast<float>(high));
            return out;
        });
        EXPECT_EQ(results[1], results[0]);
        EXPECT_EQ(results[2], results[0]);
    }
}
