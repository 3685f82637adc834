#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "veltrano.h"

namespace {

constexpr int kW = 23;
constexpr int kH = 17;

// A deterministic test picture: a ramp with a bright square and some texture, so that every
// step changes it visibly.
std::vector<uint16_t> TestImage() {
    std::vector<uint16_t> image(kW * kH);
    for (int y = 0; y < kH; ++y) {
        for (int x = 0; x < kW; ++x) {
            int v = 4000 + 1500 * x + 700 * y + ((x * 7919 + y * 104729) % 1200);
            if (x > 6 && x < 14 && y > 4 && y < 11) {
                v += 20000;
            }
            image[y * kW + x] = static_cast<uint16_t>(v);
        }
    }
    return image;
}

// Writes a chain file in the working folder and removes it again.
class ChainFileOnDisk {
public:
    ChainFileOnDisk(const std::string& name, const std::string& text) : path_(name + ".chain") {
        std::ofstream(path_, std::ios::binary) << text;
    }
    ~ChainFileOnDisk() { std::remove(path_.c_str()); }
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

struct ChainRun {
    int result;
    std::vector<uint16_t> dst;
    std::string text;
    std::string printed;
};

ChainRun RunChain(const std::string& name, const std::string& chain,
             const std::vector<uint16_t>& src = TestImage()) {
    ChainFileOnDisk file(name, chain);
    ChainRun run{0, std::vector<uint16_t>(src.size(), 7), "left over", ""};
    testing::internal::CaptureStdout();
    run.result = Img_Post_Process_Chain(src.data(), run.dst.data(), kW, kH, file.path(), run.text);
    run.printed = testing::internal::GetCapturedStdout();
    return run;
}

std::vector<uint16_t> BrightnessContrast(std::vector<uint16_t> image, float b, float c) {
    EXPECT_EQ(BrigntAndContrast(image.data(), image.data(), kW, kH, 4, b, c), 1);
    return image;
}

TEST(PostProcessChain, FailuresReportAndLeaveTheDestinationUntouched) {
    const std::vector<uint16_t> src = TestImage();
    std::vector<uint16_t> dst(src.size(), 7);
    std::string text = "left over";
    testing::internal::CaptureStdout();
    EXPECT_EQ(Img_Post_Process_Chain(src.data(), dst.data(), kW, kH, "no_such_file.chain", text),
              -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "NO Post Process Chain File\n");
    EXPECT_EQ(text, "");
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 7));

    // Without a line beginning with "end" there is no complete block.
    const ChainRun open = RunChain("no_end", "[BC]\nb=1;\nc=2;\n");
    EXPECT_EQ(open.result, -2);
    EXPECT_EQ(open.printed, "Do Not Find Param\n");
    EXPECT_EQ(open.text, "[BC]b=1;c=2;");
    EXPECT_EQ(open.dst, std::vector<uint16_t>(src.size(), 7));

    const ChainRun empty = RunChain("empty", "");
    EXPECT_EQ(empty.result, -2);

    // Null buffers and empty images are refused before anything is copied.
    ChainFileOnDisk file("null_buffers", "[Inverse]\nend\n");
    EXPECT_EQ(Img_Post_Process_Chain(nullptr, dst.data(), kW, kH, file.path(), text), -3);
    EXPECT_EQ(Img_Post_Process_Chain(src.data(), nullptr, kW, kH, file.path(), text), -3);
    EXPECT_EQ(Img_Post_Process_Chain(src.data(), dst.data(), -1, kH, file.path(), text), -3);
    EXPECT_EQ(Img_Post_Process_Chain(src.data(), dst.data(), kW, -1, file.path(), text), -3);
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 7));

    // An empty image runs the chain: every step refuses it, and the result is still 0.
    ChainFileOnDisk all("all_steps",
                        "[ACE]\nr=2;\na=1;\ng=3;\ng=1;\ne=1;\nq=0;\nend\n"
                        "[CLAHE]\np=40;\nb=128;\nr=2;\nc=2;\nend\n[WLN]\na=0;\nb=9;\nc=0;\nd=9;\nend\n"
                        "[USM]\nr=1;\nl=1;\nn=1;\nend\n[BC]\nb=1;\nc=2;\nend\n[Smooth_Med]\nr=1;\nend\n"
                        "[Smooth_Box]\nr=1;\nend\n[FastNLM]\np=1;\ns=1;\nh=3;\nend\n[Inverse]\nend\n");
    for (const auto& size : {std::make_pair(0, kH), std::make_pair(kW, 0), std::make_pair(0, 0)}) {
        EXPECT_EQ(Img_Post_Process_Chain(src.data(), dst.data(), size.first, size.second,
                                         all.path(), text), 0);
    }
    EXPECT_EQ(dst, std::vector<uint16_t>(src.size(), 7));
}

TEST(PostProcessChain, StepsRunInFileOrderOnACopyOfTheSource) {
    const ChainRun run =
        RunChain("two_bc", "[BC]\nb=100;\nc=2;\nend\n[BC]\nb=-50;\nc=0.5;\nend\ntail\n");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.printed, "");
    EXPECT_EQ(run.text, "[BC]b=100;c=2;end[BC]b=-50;c=0.5;endtail");
    EXPECT_EQ(run.dst, BrightnessContrast(BrightnessContrast(TestImage(), 100, 2), -50, 0.5f));

    // In place: the source buffer is the destination.
    std::vector<uint16_t> image = TestImage();
    std::string text;
    ChainFileOnDisk file("in_place", "[BC]\nb=100;\nc=2;\nend\n");
    EXPECT_EQ(Img_Post_Process_Chain(image.data(), image.data(), kW, kH, file.path(), text), 0);
    EXPECT_EQ(image, BrightnessContrast(TestImage(), 100, 2));
}

TEST(PostProcessChain, BlocksOfTheWrongLengthAreSkippedAndTheChainGoesOn) {
    const std::vector<uint16_t> bc = BrightnessContrast(TestImage(), 300, 1.5f);
    struct Case {
        const char* name;
        const char* chain;
    };
    const Case cases[] = {
        {"clahe_short", "[CLAHE]\np=200;\nb=256;\nh=2;\nend\n[BC]\nb=300;\nc=1.5;\nend\n"},
        {"bc_long", "[BC]\nb=9;\nc=9;\nx=9;\nend\n[BC]\nb=300;\nc=1.5;\nend\n"},
        {"med_short", "[Smooth_Med]\nend\n[BC]\nb=300;\nc=1.5;\nend\n"},
        {"inverse_long", "[Inverse]\nx=1;\nend\n[BC]\nb=300;\nc=1.5;\nend\n"},
        // "ending=1;" begins with "end": it closes a two-line BC block, which is skipped; the
        // line after it starts a block without a name, which ends the chain.
        {"ending", "[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=1;\nending=1;\nc=2;\nend\n"},
    };
    for (const Case& c : cases) {
        const ChainRun run = RunChain(c.name, c.chain);
        EXPECT_EQ(run.result, 0) << c.name;
        EXPECT_EQ(run.dst, bc) << c.name;
    }
    // "x=1;end" does not close the block: the BC block has four lines and is skipped.
    const ChainRun notClosed =
        RunChain("end_inside", "[BC]\nb=300;\nc=1.5;x=1;end\nk=1;\nend\n");
    EXPECT_EQ(notClosed.dst, TestImage());
}

TEST(PostProcessChain, AnUnknownNameStopsTheChain) {
    const std::vector<uint16_t> bc = BrightnessContrast(TestImage(), 300, 1.5f);
    const char* stoppers[] = {"[Clahe]", "[bc]", "BC", "[ BC]", "[]", ""};
    for (const char* stopper : stoppers) {
        const std::string chain = std::string("[BC]\nb=300;\nc=1.5;\nend\n") + stopper +
                                  "\nend\n[BC]\nb=1000;\nc=2;\nend\n";
        const ChainRun run = RunChain("stop", chain);
        EXPECT_EQ(run.result, 0) << stopper;
        EXPECT_EQ(run.dst, bc) << stopper;
    }
    // An empty block (two closing lines in a row) has no name either.
    const ChainRun empty = RunChain("empty_block", "end\n[BC]\nb=1000;\nc=2;\nend\n");
    EXPECT_EQ(empty.result, 0);
    EXPECT_EQ(empty.dst, TestImage());
}

TEST(PostProcessChain, InverseLeavesTheImageAndTheChainGoesOn) {
    const ChainRun run = RunChain("inverse", "[Inverse]\nend\n[BC]\nb=300;\nc=1.5;\nend\n");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.dst, BrightnessContrast(TestImage(), 300, 1.5f));
}

TEST(PostProcessChain, MalformedNumbersLeaveAsStandardExceptions) {
    const std::vector<uint16_t> src = TestImage();
    struct Case {
        const char* chain;
        bool outOfRange;
    };
    const Case cases[] = {
        {"[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=;\nc=1;\nend\n", false},
        {"[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=1;\nc=fast;\nend\n", false},
        {"[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=1\nc=1;\nend\n", false},  // no ";"
        {"[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=3000000000;\nc=1;\nend\n", true},
        {"[BC]\nb=300;\nc=1.5;\nend\n[BC]\nb=1;\nc=1e99;\nend\n", true},
    };
    for (const Case& c : cases) {
        ChainFileOnDisk file("malformed", c.chain);
        std::vector<uint16_t> dst(src.size(), 7);
        std::string text;
        if (c.outOfRange) {
            EXPECT_THROW(Img_Post_Process_Chain(src.data(), dst.data(), kW, kH, file.path(), text),
                         std::out_of_range)
                << c.chain;
        } else {
            EXPECT_THROW(Img_Post_Process_Chain(src.data(), dst.data(), kW, kH, file.path(), text),
                         std::invalid_argument)
                << c.chain;
        }
        // The step before the bad one has run.
        EXPECT_EQ(dst, BrightnessContrast(src, 300, 1.5f)) << c.chain;
    }
}

TEST(PostProcessChain, EachStepMatchesADirectCall) {
    using Direct = std::function<void(std::vector<uint16_t>&)>;
    struct Case {
        const char* chain;
        Direct direct;
    };
    const Case cases[] = {
        {"[ACE]\nr=2;\na=1.5;\ng=3;\ngamma=0.8;\nexact=1;\nequ=0;\nend\n",
         [](std::vector<uint16_t>& im) {
             struAceGammaParam p;
             p.param1 = 2; p.param2 = 1.5f; p.param3 = 3.0f; p.param4 = 0.8f;
             p.param5 = 1; p.param6 = 0;
             EXPECT_EQ(Ace_Gamma(im.data(), im.data(), kW, kH, 4, &p, ""), 1);
         }},
        // Lines run peak, bins, tile rows, tile columns.
        {"[CLAHE]\npeak=40;\nbins=128;\nrows=2;\ncols=3;\nend\n",
         [](std::vector<uint16_t>& im) {
             claheParam p;
             p.peak = 40; p.histBin = 128; p.heightBlockNum = 2; p.widthBlockNum = 3;
             EXPECT_EQ(clahe_16U(im.data(), im.data(), kW, kH, &p, ""), 1);
         }},
        {"[WLN]\nwl=8000;\nwr=30000;\nmin=1000;\nmax=60000;\nend\n",
         [](std::vector<uint16_t>& im) {
             struWLNParam p;
             p.wl = 8000; p.wr = 30000; p.specifymin = 1000; p.specifymax = 60000;
             EXPECT_EQ(WLN(im.data(), im.data(), kW, kH, &p), 1);
         }},
        {"[USM]\nr=2;\nlam=0.7;\nnorm=0;\nend\n",
         [](std::vector<uint16_t>& im) {
             struUSMParam p;
             p.r = 2; p.lam = 0.7f; p.isNeedNorm = 0;
             EXPECT_EQ(USM_EX(im.data(), im.data(), kW, kH, 4, &p, ""), 1);
         }},
        {"[Smooth_Med]\nk=1;\nend\n",
         [](std::vector<uint16_t>& im) {
             EXPECT_EQ(Median_Blur(im.data(), im.data(), kW, kH, 1, 4), 1);
         }},
        {"[Smooth_Box]\nk=2;\nend\n",
         [](std::vector<uint16_t>& im) {
             EXPECT_EQ(Box_Filter(im.data(), im.data(), kW, kH, 4, 2), 1);
         }},
    };
    for (const Case& c : cases) {
        std::vector<uint16_t> expected = TestImage();
        c.direct(expected);
        const ChainRun run = RunChain("direct", c.chain);
        EXPECT_EQ(run.result, 0) << c.chain;
        EXPECT_EQ(run.dst, expected) << c.chain;
        EXPECT_NE(run.dst, TestImage()) << c.chain;  // the step did change the picture
    }
}

TEST(PostProcessChain, FastNlmWorksOnAnEightBitRendering) {
    const std::vector<uint16_t> src = TestImage();
    std::vector<uint8_t> bytes(src.size());
    for (size_t i = 0; i < src.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(static_cast<float>(src[i]) / 257.0f + 0.5f);
    }
    std::vector<uint16_t> roundTrip(src.size());
    for (size_t i = 0; i < src.size(); ++i) {
        roundTrip[i] = static_cast<uint16_t>(bytes[i] * 257);
    }
    // Lines: patch radius, search radius, strength.
    ASSERT_EQ(FastNLM(bytes.data(), bytes.data(), kW, kH, 12.0f, 1, 2), 1);
    std::vector<uint16_t> expected(src.size());
    for (size_t i = 0; i < src.size(); ++i) {
        expected[i] = static_cast<uint16_t>(bytes[i] * 257);
    }
    EXPECT_NE(expected, roundTrip);  // the denoiser did smooth the picture
    const ChainRun run = RunChain("fastnlm", "[FastNLM]\nrd=1;\nrD=2;\nh=12;\nend\n");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.dst, expected);

    // Even with nothing to denoise (search radius 0) the image keeps only 8 bits: 65535 stays,
    // 1000 becomes 4 * 257.
    std::vector<uint16_t> flat(kW * kH, 1000);
    flat[0] = 65535;
    const ChainRun quantised = RunChain("fastnlm0", "[FastNLM]\nrd=1;\nrD=0;\nh=3;\nend\n", flat);
    EXPECT_EQ(quantised.dst[0], 65535);
    EXPECT_EQ(quantised.dst[1], 4 * 257);
}

}  // namespace
