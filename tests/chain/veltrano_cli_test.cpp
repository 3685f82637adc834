// The command-line program end to end: a demo exposure and the common bad inputs (usage errors
// are in veltrano_cli_options_test.cpp).
#include "cli_support.h"

#if !defined(_WIN32)
namespace {
using namespace cli_test;

TEST_F(VeltranoCli, BadInputFailsWithOneLineAndLeavesTheOutputAlone) {
    // A 32 x 24 raw picture of 16-bit values, and its PNG form made by the program itself.
    Write("in.raw", std::string(32 * 24 * 2, '\x10'));
    Write("bc.chain", "[BC]\nb=100;\nc=0.5;\nend\n");
    ASSERT_EQ(Veltrano("process --chain bc.chain --in in.raw --width 32 --height 24 --type 3 "
                       "--out in.png")
                  .first,
              0);
    Write("malformed.chain", "[BC]\nb=100;\nc=half;\nend\n");
    Write("noend.chain", "[BC]\nb=100;\nc=0.5;\n");
    Write("short.raw", std::string(100, '\0'));
    fs::create_directories(dir_ / "folder.png");
    fs::create_directories(dir_ / "folder.chain");
    // A valid 2 x 2 PNG of 8-bit grayscale.
    Write("eight.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\x02\0\0\0\x02\x08\0\0\0\0"
                                   "\x57\xdd\x52\xf8\0\0\0\x0eIDATx\x9c\x63\x10\x50\x60\x30\x70"
                                   "\0\0\x01\x76\0\xa1\xec\x30\x8a\xf4\0\0\0\0IEND\xae\x42\x60\x82",
                                   71));
    const char* cases[][3] = {
        // arguments, the file the message names, a part of the message
        {"--chain bc.chain --in missing.png", "missing.png", "cannot be opened"},
        {"--chain bc.chain --in folder.png", "folder.png", "is a folder, not a regular file"},
        {"--chain missing.chain --in in.png", "missing.chain", "cannot be opened"},
        {"--chain folder.chain --in in.png", "folder.chain", "is a folder, not a regular file"},
        {"--chain malformed.chain --in in.png", "malformed.chain", "has a malformed number"},
        {"--chain noend.chain --in in.png", "noend.chain", "holds no complete step block"},
        {"--chain bc.chain --in short.raw --width 32 --height 24 --type 3", "short.raw",
         "is shorter than its size says"},
        {"--chain bc.chain --in eight.png", "eight.png", "is not a 16-bit grayscale PNG (it is 8"},
    };
    for (const auto& c : cases) {
        Write("out.png", "previous output");
        const auto outcome = Veltrano(std::string("process ") + c[0] + " --out out.png");
        EXPECT_EQ(outcome.first, 1) << c[0];
        EXPECT_EQ(Lines(outcome.second), 1u) << outcome.second;
        EXPECT_NE(outcome.second.find(std::string(c[1]) + ": " + c[2]), std::string::npos)
            << outcome.second;
        EXPECT_EQ(ReadAll(dir_ / "out.png"), "previous output") << c[0];
        EXPECT_FALSE(fs::exists(dir_ / "out.png.part")) << c[0];
    }
}

// "width x height depth D colour C" from a PNG file's header (sizes below 65536).
std::string PngHeader(const fs::path& path) {
    const std::string b = ReadAll(path) + std::string(26, '\0');
    auto size = [&](size_t i) { return std::to_string(uint8_t(b[i]) * 256 + uint8_t(b[i + 1])); };
    return size(18) + "x" + size(22) + " depth " + std::to_string(b[24]) + " colour " +
           std::to_string(b[25]);
}

TEST_F(VeltranoCli, DemoTakesAnExposureAndWritesThreeImages) {
    // With patient options, which reach the DICOM image where the build writes one.
    const Run run = VeltranoOutput("demo --out out --patient-name 'M\xC3\xBCller^Eva' --tooth 46");
    ASSERT_EQ(run.code, 0) << run.err;
    // Standard error is a file here, so the progress comes as plain lines, up to the hand-over.
    EXPECT_NE(run.err.find("acquire: 11 handed over"), std::string::npos) << run.err;
    EXPECT_EQ(PngHeader(dir_ / "out/corrected.png"), "1300x1800 depth 16 colour 0");
    EXPECT_EQ(PngHeader(dir_ / "out/processed.png"), "1300x1800 depth 16 colour 0");
    EXPECT_EQ(PngHeader(dir_ / "out/preview.png"), "1312x900 depth 8 colour 0");
    EXPECT_NE(ReadAll(dir_ / "out/corrected.png"), ReadAll(dir_ / "out/processed.png"));

    if (run.out.find("DICOM: not available") != std::string::npos) {
        EXPECT_FALSE(fs::exists(dir_ / "out/processed.dcm"));
        return;
    }
    // DICOM keeps text values as written: the name, the character set that it needs beyond
    // ASCII, and the virtual sensor's pixel pitch as the spacing.
    const std::string dicom = ReadAll(dir_ / "out/processed.dcm");
    EXPECT_NE(dicom.find("M\xC3\xBCller^Eva"), std::string::npos);
    EXPECT_NE(dicom.find("ISO_IR 192"), std::string::npos);
    EXPECT_NE(dicom.find("0.02\\0.02"), std::string::npos);
    if (std::system("command -v dciodvfy >/dev/null 2>&1") == 0) {
        Shell("dciodvfy out/processed.dcm 2>&1 | grep Error > dciodvfy.txt; true");
        EXPECT_EQ(ReadAll(dir_ / "dciodvfy.txt"), "");
    }
}

// The virtual sensor's own calibration goes through the driver library that the program loads
// itself. Started by name from the PATH, the program is still found beside it, also where the
// run path is not searched (under AddressSanitizer).
TEST_F(VeltranoCli, LoadsTheDriverWhenStartedFromThePath) {
    const auto outcome = Shell("PATH='" + program_.parent_path().string() +
                               "':\"$PATH\" veltrano calibrate --workdir w --virtual --frames 4");
    ASSERT_EQ(outcome.first, 0) << outcome.second;
    EXPECT_TRUE(fs::is_regular_file(dir_ / "w/Correct/Default/VirtualSensor.gn"));
    EXPECT_TRUE(fs::is_regular_file(dir_ / "w/Correct/Default/VirtualSensor.dft"));
}

}  // namespace
#endif
