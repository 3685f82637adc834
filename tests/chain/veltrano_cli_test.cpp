// The command-line program's handling of bad input, run as a host runs it: as a separate
// process, from the build's bin folder. Skipped where the program is not built.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

namespace {
namespace fs = std::filesystem;

struct Outcome {
    int exitCode;
    std::string err;
};

std::string ReadAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class VeltranoCli : public testing::Test {
protected:
    void SetUp() override {
#if defined(_WIN32)
        GTEST_SKIP() << "the program is run through a POSIX shell here";
#else
        program_ = fs::absolute("veltrano");
        if (!fs::exists(program_)) {
            GTEST_SKIP() << "the veltrano program is not part of this build";
        }
        // One folder per test: CTest runs the tests of this file side by side.
        dir_ = fs::absolute(std::string("cli_test_") +
                            testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
#endif
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    fs::path File(const std::string& name) const { return dir_ / name; }

    Outcome Veltrano(const std::string& args) const {
#if defined(_WIN32)
        (void)args;
        return {-1, ""};
#else
        const fs::path err = dir_ / "stderr.txt";
        const std::string command = "cd '" + dir_.string() + "' && '" + program_.string() + "' " +
                                    args + " >/dev/null 2>'" + err.string() + "'";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(err)};
#endif
    }

    // A 16-bit raw picture and its PNG form, made by the program itself.
    void MakeInputs() {
        std::string raw;
        for (int i = 0; i < 32 * 24; ++i) {
            const uint16_t v = static_cast<uint16_t>(1000 + 37 * i);
            raw.push_back(static_cast<char>(v & 0xff));
            raw.push_back(static_cast<char>(v >> 8));
        }
        WriteAll(File("in.raw"), raw);
        WriteAll(File("same.chain"), "[Inverse]\nend\n");
        ASSERT_EQ(Veltrano("process --chain same.chain --in in.raw --width 32 --height 24 --type 3 "
                      "--out in.png")
                      .exitCode,
                  0);
    }

    fs::path program_;
    fs::path dir_;
};

TEST_F(VeltranoCli, ProcessesRawAndPngInputAlike) {
    MakeInputs();
    WriteAll(File("bc.chain"), "[BC]\nb=100;\nc=0.5;\nend\n");
    ASSERT_EQ(Veltrano("process --chain bc.chain --in in.png --out a.raw").exitCode, 0);
    ASSERT_EQ(Veltrano("process --chain bc.chain --in in.raw --width 32 --height 24 --type 3 "
                  "--out b.raw")
                  .exitCode,
              0);
    const std::string a = ReadAll(File("a.raw"));
    ASSERT_EQ(a.size(), 32u * 24u * 4u);  // 32-bit floats
    EXPECT_EQ(a, ReadAll(File("b.raw")));
    float first = 0;
    std::memcpy(&first, a.data(), 4);
    EXPECT_EQ(first, 1000 * 0.5f + 100);
}

TEST_F(VeltranoCli, BadInputFailsWithOneLineAndLeavesTheOutputAlone) {
    MakeInputs();
    WriteAll(File("bc.chain"), "[BC]\nb=100;\nc=0.5;\nend\n");
    WriteAll(File("malformed.chain"), "[BC]\nb=100;\nc=half;\nend\n");
    WriteAll(File("overflow.chain"), "[BC]\nb=99999999999;\nc=1;\nend\n");
    WriteAll(File("noend.chain"), "[BC]\nb=100;\nc=0.5;\n");
    WriteAll(File("short.raw"), std::string(100, '\0'));
    WriteAll(File("text.png"), "not a picture");
    const std::string old = "previous output";
    struct Case {
        const char* args;
        const char* named;    // the file the message must name
        const char* problem;  // a part of the message
    };
    const Case cases[] = {
        {"--chain bc.chain --in missing.png", "missing.png", "cannot be opened"},
        {"--chain missing.chain --in in.png", "missing.chain", "cannot be opened"},
        {"--chain malformed.chain --in in.png", "malformed.chain", "malformed number"},
        {"--chain overflow.chain --in in.png", "overflow.chain", "out of range"},
        {"--chain noend.chain --in in.png", "noend.chain", "no complete step block"},
        {"--chain bc.chain --in short.raw --width 32 --height 24 --type 3", "short.raw",
         "shorter than its size says"},
        {"--chain bc.chain --in in.raw --width 32 --height 24 --type 8", "in.raw",
         "shorter than its size says"},
        {"--chain bc.chain --in text.png", "text.png", "not a PNG"},
        // One header byte more than the file holds.
        {"--chain bc.chain --in in.raw --width 32 --height 24 --type 3 --header 1", "in.raw",
         "shorter than its size says"},
    };
    for (const Case& c : cases) {
        WriteAll(File("out.png"), old);
        const Outcome outcome = Veltrano(std::string("process ") + c.args + " --out out.png");
        EXPECT_EQ(outcome.exitCode, 1) << c.args;
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
        EXPECT_NE(outcome.err.find(c.named), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.err.find(c.problem), std::string::npos) << outcome.err;
        EXPECT_EQ(ReadAll(File("out.png")), old) << c.args;
        EXPECT_FALSE(fs::exists(File("out.png.part"))) << c.args;
    }
}

TEST_F(VeltranoCli, RefusesImagesOfTheWrongDepth) {
    MakeInputs();
    WriteAll(File("bc.chain"), "[BC]\nb=100;\nc=0.5;\nend\n");
    // An 8-bit PNG: the 16-bit file with the bit depth of its header set to 8 and the header's
    // checksum recomputed. The program must refuse it from the header alone.
    std::string png = ReadAll(File("in.png"));
    ASSERT_GT(png.size(), 33u);
    png[24] = 8;  // bit depth
    // Recompute the IHDR checksum over type and data (bytes 12..28).
    uint32_t crc = 0xffffffffu;
    for (size_t i = 12; i < 29; ++i) {
        crc ^= static_cast<uint8_t>(png[i]);
        for (int k = 0; k < 8; ++k) {
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
    }
    crc ^= 0xffffffffu;
    for (int k = 0; k < 4; ++k) {
        png[29 + k] = static_cast<char>((crc >> (24 - 8 * k)) & 0xff);
    }
    WriteAll(File("eight.png"), png);
    WriteAll(File("out.png"), "previous output");
    const Outcome outcome = Veltrano("process --chain bc.chain --in eight.png --out out.png");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_NE(outcome.err.find("eight.png: is not a 16-bit grayscale PNG (it is 8-bit"),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(ReadAll(File("out.png")), "previous output");
}

TEST_F(VeltranoCli, AcquireRefusesABadChainBeforeTheExposure) {
    WriteAll(File("malformed.chain"), "[BC]\nb=100;\nc=half;\nend\n");
    fs::create_directories(File("sensor"));
    WriteAll(File("out.png"), "previous output");
    const Outcome outcome =
        Veltrano("acquire --workdir sensor --chain malformed.chain --out out.png");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_NE(outcome.err.find("malformed.chain: has a malformed number"), std::string::npos)
        << outcome.err;
    // The detector was never opened: nothing was logged in the work folder.
    EXPECT_FALSE(fs::exists(File("sensor/veltrano.log")));
    EXPECT_EQ(ReadAll(File("out.png")), "previous output");
}

// Width, height, bit depth and colour type from a PNG file's header.
struct PngHeader {
    uint32_t width = 0;
    uint32_t height = 0;
    int depth = 0;
    int colour = -1;
};

PngHeader ReadPngHeader(const fs::path& path) {
    const std::string bytes = ReadAll(path);
    PngHeader header;
    if (bytes.size() < 26 || bytes.compare(1, 3, "PNG") != 0) {
        return header;
    }
    auto be32 = [&](size_t at) {
        uint32_t v = 0;
        for (size_t k = 0; k < 4; ++k) {
            v = (v << 8) | static_cast<uint8_t>(bytes[at + k]);
        }
        return v;
    };
    header.width = be32(16);
    header.height = be32(20);
    header.depth = static_cast<uint8_t>(bytes[24]);
    header.colour = static_cast<uint8_t>(bytes[25]);
    return header;
}

TEST_F(VeltranoCli, DemoTakesAnExposureAndWritesThreeImages) {
    const Outcome outcome = Veltrano("demo --out out");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    // Standard error is a file here, so the progress comes as plain lines, up to the hand-over.
    EXPECT_NE(outcome.err.find("acquire:  6 armed"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("acquire: 11 handed over"), std::string::npos) << outcome.err;

    const PngHeader corrected = ReadPngHeader(File("out/corrected.png"));
    const PngHeader processed = ReadPngHeader(File("out/processed.png"));
    const PngHeader preview = ReadPngHeader(File("out/preview.png"));
    EXPECT_EQ(corrected.width, 1300u);
    EXPECT_EQ(corrected.height, 1800u);
    EXPECT_EQ(corrected.depth, 16);
    EXPECT_EQ(corrected.colour, 0);  // grayscale
    EXPECT_EQ(processed.width, 1300u);
    EXPECT_EQ(processed.depth, 16);
    EXPECT_EQ(preview.height, 900u);  // half size, the two halves side by side
    EXPECT_GT(preview.width, 1300u);
    EXPECT_EQ(preview.depth, 8);
    EXPECT_NE(ReadAll(File("out/corrected.png")), ReadAll(File("out/processed.png")));
    // The calibration and the library's log stay in the output folder.
    EXPECT_TRUE(fs::exists(File("out/sensor/Correct/Default")));
    EXPECT_NE(ReadAll(File("out/veltrano.log")).find("Get an image!"), std::string::npos);
}

TEST_F(VeltranoCli, UsageErrorsExitWithTwoAndHelpWithZero) {
    const char* usage[] = {
        "",
        "frobnicate",
        "process --in a.png --out b.png",
        "process --chain c --in a.png --out b.png --bogus",
        "process --chain c --in a.raw --out b.png --width 3",
        "process --chain c --in a.raw --out b.png --width 3 --height 3 --type 12",
        "acquire --workdir w",
        "acquire --workdir w --out o.png --trigger-mode 5",
        "calibrate --workdir w --frames 2",
        "info",
        "demo extra",
    };
    for (const char* args : usage) {
        EXPECT_EQ(Veltrano(args).exitCode, 2) << args;
    }
    for (const char* command : {"--help", "demo --help", "acquire --help", "process --help",
                                "calibrate --help", "info -h"}) {
        EXPECT_EQ(Veltrano(command).exitCode, 0) << command;
    }
}

}  // namespace
