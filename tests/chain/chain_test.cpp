#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "veltrano.h"

namespace {

constexpr int kW = 23;
constexpr int kH = 17;

// A ramp with a bright square and some texture, so that every step changes it visibly.
std::vector<uint16_t> TestImage() {
    std::vector<uint16_t> image(kW * kH);
    for (int i = 0; i < kW * kH; ++i) {
        const int x = i % kW, y = i / kW, square = x > 6 && x < 14 && y > 4 && y < 11 ? 20000 : 0;
        image[i] = static_cast<uint16_t>(4000 + 1500 * x + 700 * y + square +
                                         (x * 7919 + y * 104729) % 1200);
    }
    return image;
}

// One file per test: CTest runs the tests of this program side by side.
std::string ChainPath() {
    return std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + ".chain";
}

// Removes the test's chain file, whichever way the test wrote it.
class PostProcessChain : public testing::Test {
    void TearDown() override { std::remove(ChainPath().c_str()); }
};

struct ChainRun {
    int result = 0;
    std::vector<uint16_t> dst;
    std::string text = "left over", printed, thrown;  // thrown: the conversion failure, if any
};

// Runs `chain` on `src` into a destination filled with 7s.
ChainRun RunChain(const std::string& chain, const std::vector<uint16_t>& src = TestImage(),
                  int width = kW, int height = kH) {
    const std::string path = ChainPath();
    std::ofstream(path, std::ios::binary) << chain;
    ChainRun run;
    run.dst.assign(src.size(), 7);
    testing::internal::CaptureStdout();
    try {
        run.result = Img_Post_Process_Chain(src.data(), run.dst.data(), width, height, path.c_str(),
                                            run.text);
    } catch (const std::invalid_argument&) {
        run.thrown = "invalid_argument";
    } catch (const std::out_of_range&) {
        run.thrown = "out_of_range";
    }
    run.printed = testing::internal::GetCapturedStdout();
    return run;
}

std::vector<uint16_t> Bc(std::vector<uint16_t> image, float brightness, float contrast) {
    EXPECT_EQ(BrigntAndContrast(image.data(), image.data(), kW, kH, 4, brightness, contrast), 1);
    return image;
}

const std::string kBc = "[BC]\nb=300;\nc=1.5;\nend\n";
const std::string kOnes = "v=1;\nv=1;\nv=1;\nv=1;\nv=1;\nv=1;\nv=1;\n";  // parameter lines

TEST_F(PostProcessChain, FailuresPrintTheirLineAndLeaveTheDestination) {
    const std::vector<uint16_t> untouched(kW * kH, 7);
    std::vector<uint16_t> in = TestImage(), dst = untouched;
    std::string text = "left over";
    testing::internal::CaptureStdout();
    EXPECT_EQ(Img_Post_Process_Chain(in.data(), dst.data(), kW, kH, "no_such.chain", text), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "NO Post Process Chain File\n");
    EXPECT_EQ(text, "");

    const ChainRun noEnd = RunChain("[BC]\nb=1;\nc=2;\n");  // no line begins with "end"
    EXPECT_EQ(noEnd.result, -2);
    EXPECT_EQ(noEnd.printed, "Do Not Find Param\n");
    EXPECT_EQ(noEnd.text, "[BC]b=1;c=2;");
    EXPECT_EQ(noEnd.dst, untouched);

    // Null buffers and negative sizes are refused before the copy.
    std::ofstream(ChainPath()) << kBc;
    EXPECT_EQ(Img_Post_Process_Chain(nullptr, dst.data(), kW, kH, ChainPath().c_str(), text), -3);
    EXPECT_EQ(Img_Post_Process_Chain(in.data(), nullptr, kW, kH, ChainPath().c_str(), text), -3);
    EXPECT_EQ(Img_Post_Process_Chain(in.data(), dst.data(), kW, -1, ChainPath().c_str(), text), -3);
    // So is a size beyond the library's limit of 2^28 pixels, before anything is read or copied.
    EXPECT_EQ(Img_Post_Process_Chain(in.data(), dst.data(), 1 << 14, (1 << 14) + 1,
                                     ChainPath().c_str(), text),
              -3);
    EXPECT_EQ(dst, untouched);
}

TEST_F(PostProcessChain, StepsRunInFileOrderOnACopyOfTheSource) {
    const ChainRun run = RunChain(kBc + "[BC]\nb=-50;\nc=0.5;\nend\ntail\n");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.printed, "");
    EXPECT_EQ(run.text, "[BC]b=300;c=1.5;end[BC]b=-50;c=0.5;endtail");
    EXPECT_EQ(run.dst, Bc(Bc(TestImage(), 300, 1.5f), -50, 0.5f));

    std::vector<uint16_t> image = TestImage();  // in place: the source is the destination
    std::string text;
    std::ofstream(ChainPath()) << kBc;
    EXPECT_EQ(Img_Post_Process_Chain(image.data(), image.data(), kW, kH, ChainPath().c_str(), text),
              0);
    EXPECT_EQ(image, Bc(TestImage(), 300, 1.5f));
}

TEST_F(PostProcessChain, KnownStepsSkipBlocksOfTheWrongSizeAndRefuseAnEmptyImage) {
    const std::vector<uint16_t> bc = Bc(TestImage(), 300, 1.5f), untouched(kW * kH, 7);
    const std::pair<const char*, int> steps[] = {
        {"ACE", 7},        {"CLAHE", 5},      {"WLN", 5},     {"USM", 4},    {"BC", 3},
        {"Smooth_Med", 2}, {"Smooth_Box", 2}, {"FastNLM", 4}, {"Inverse", 1}};
    for (const auto& step : steps) {
        for (int lines = std::max(1, step.second - 1); lines <= step.second + 1; ++lines) {
            const std::string chain =
                std::string("[") + step.first + "]\n" + kOnes.substr(0, 5 * (lines - 1));
            // A block of the wrong size is skipped and the chain goes on. One of the right size
            // runs on an empty image: nothing is copied, every step refuses it, the result is 0.
            const bool right = lines == step.second;
            const ChainRun run = RunChain(chain + "end\n" + kBc, TestImage(), right ? 0 : kW);
            EXPECT_EQ(run.result, 0) << chain;
            EXPECT_EQ(run.dst, right ? untouched : bc) << chain;
        }
    }
}

TEST_F(PostProcessChain, UnknownNamesStopTheChainAndMalformedNumbersLeave) {
    const std::vector<uint16_t> src = TestImage(), bc = Bc(src, 300, 1.5f);
    const std::tuple<std::string, std::vector<uint16_t>, std::string> cases[] = {
        {"[Inverse]\nend\n" + kBc, bc, ""},  // Inverse refuses code 4; the chain goes on
        {kBc + "[Clahe]\nend\n" + kBc, bc, ""},
        {"[bc]\nend\n" + kBc, src, ""},
        {"end\n" + kBc, src, ""},  // an empty block has no name either
        // A malformed number leaves the call as the standard exception; earlier steps ran.
        {kBc + "[BC]\nb=;\nc=1;\nend\n", bc, "invalid_argument"},
        {kBc + "[BC]\nb=1;\nc=fast;\nend\n", bc, "invalid_argument"},
        {kBc + "[BC]\nb=1\nc=1;\nend\n", bc, "invalid_argument"},  // no ";": an empty field
        {kBc + "[BC]\nb=3000000000;\nc=1;\nend\n", bc, "out_of_range"},
        {kBc + "[BC]\nb=1;\nc=1e99;\nend\n", bc, "out_of_range"},
    };
    for (const auto& [chain, dst, thrown] : cases) {
        const ChainRun run = RunChain(chain);
        EXPECT_EQ(run.thrown, thrown) << chain;
        EXPECT_EQ(run.result, 0) << chain;
        EXPECT_EQ(run.dst, dst) << chain;
    }
}

TEST_F(PostProcessChain, EachStepMatchesADirectCall) {
    using Image = std::vector<uint16_t>;
    const std::pair<const char*, std::function<int(Image&)>> cases[] = {
        {"[ACE]\nr=2;\na=1.5;\ng=3;\ngamma=0.8;\nexact=1;\nequ=0;\nend\n",
         [](Image& im) {
             struAceGammaParam p;
             p.param1 = 2, p.param2 = 1.5f, p.param3 = 3, p.param4 = 0.8f, p.param5 = 1;
             return Ace_Gamma(im.data(), im.data(), kW, kH, 4, &p, "");
         }},
        // Peak, bins, tile rows, tile columns: the reverse of the record's own order.
        {"[CLAHE]\npeak=40;\nbins=128;\nrows=2;\ncols=3;\nend\n",
         [](Image& im) {
             claheParam p;
             p.peak = 40, p.histBin = 128, p.heightBlockNum = 2, p.widthBlockNum = 3;
             return clahe_16U(im.data(), im.data(), kW, kH, &p, "");
         }},
        {"[WLN]\nwl=8000;\nwr=30000;\nmin=1000;\nmax=60000;\nend\n",
         [](Image& im) {
             struWLNParam p;
             p.wl = 8000, p.wr = 30000, p.specifymin = 1000, p.specifymax = 60000;
             return WLN(im.data(), im.data(), kW, kH, &p);
         }},
        {"[USM]\nr=2;\nlam=0.7;\nnorm=1;\nend\n",
         [](Image& im) {
             struUSMParam p;
             p.r = 2, p.lam = 0.7f, p.isNeedNorm = 1;
             return USM_EX(im.data(), im.data(), kW, kH, 4, &p, "");
         }},
        // The brightness is read as an integer: 300.7 counts as 300.
        {"[BC]\nb=300.7;\nc=1.5;\nend\n",
         [](Image& im) { return BrigntAndContrast(im.data(), im.data(), kW, kH, 4, 300, 1.5f); }},
        {"[Smooth_Med]\nk=1;\nend\n",
         [](Image& im) { return Median_Blur(im.data(), im.data(), kW, kH, 1, 4); }},
        {"[Smooth_Box]\nk=2;\nend\n",
         [](Image& im) { return Box_Filter(im.data(), im.data(), kW, kH, 4, 2); }},
        // Patch radius, search radius, strength; on an 8-bit rendering scaled back by 257.
        {"[FastNLM]\nrd=1;\nrD=2;\nh=12;\nend\n",
         [](Image& im) {
             std::vector<uint8_t> b(im.size());
             std::transform(im.begin(), im.end(), b.begin(), [](int v) { return v / 257.f + .5f; });
             const int result = FastNLM(b.data(), b.data(), kW, kH, 12.0f, 1, 2);
             std::transform(b.begin(), b.end(), im.begin(), [](int v) { return v * 257; });
             return result;
         }},
    };
    for (const auto& c : cases) {
        Image expected = TestImage();
        EXPECT_EQ(c.second(expected), 1) << c.first;
        const ChainRun run = RunChain(c.first);
        EXPECT_EQ(run.result, 0) << c.first;
        EXPECT_EQ(run.dst, expected) << c.first;
        EXPECT_NE(run.dst, TestImage()) << c.first;  // the step did change the picture
    }
}

TEST_F(PostProcessChain, FastNlmKeepsOnlyEightBits) {
    // Nothing to denoise (search radius 0), yet v / 257 + 0.5 is truncated to 8 bits: 128 gives
    // 0, 129 gives 1 (times 257), 1000 gives 4 and 65535 stays.
    std::vector<uint16_t> src(kW * kH, 1000);
    src[0] = 128, src[1] = 129, src[2] = 65535;
    const ChainRun run = RunChain("[FastNLM]\nrd=1;\nrD=0;\nh=3;\nend\n", src);
    EXPECT_EQ(std::vector<uint16_t>(run.dst.begin(), run.dst.begin() + 4),
              (std::vector<uint16_t>{0, 257, 65535, 4 * 257}));

    // Every 16-bit value, in a 256 x 256 image, against the float rule written out.
    std::vector<uint16_t> all(65536), expected(65536);
    for (int v = 0; v < 65536; ++v) {
        all[v] = static_cast<uint16_t>(v);
        expected[v] = static_cast<uint16_t>(static_cast<uint8_t>(v / 257.0f + 0.5f) * 257);
    }
    EXPECT_EQ(RunChain("[FastNLM]\nrd=1;\nrD=0;\nh=3;\nend\n", all, 256, 256).dst, expected);
}

}  // namespace
