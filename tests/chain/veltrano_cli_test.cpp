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
        dir_ = fs::absolute("cli_test_files");
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
