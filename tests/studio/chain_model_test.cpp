#include "studio/chain_model.h"
#include "studio/processor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <fstream>
#include <string>
#include <vector>

#include "veltrano.h"

namespace {

using studio::AnalyseChain;
using studio::BlockOutcome;
using studio::StepValues;

constexpr unsigned kW = 40;
constexpr unsigned kH = 30;

std::vector<uint16_t> Picture() {
    std::vector<uint16_t> image(kW * kH);
    for (unsigned i = 0; i < kW * kH; ++i) {
        const unsigned x = i % kW, y = i / kW;
        image[i] = static_cast<uint16_t>(3000 + 900 * x + 400 * y + (x * 7919 + y * 104729) % 1500);
    }
    return image;
}

// The picture after the library ran `text` as a chain file; `thrown` tells a conversion failure.
std::vector<uint16_t> RunLibrary(const std::string& text, bool* thrown = nullptr) {
    const std::string path =
        std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + ".chain";
    std::ofstream(path, std::ios::binary) << text;
    const std::vector<uint16_t> src = Picture();
    std::vector<uint16_t> dst(src.size(), 0);
    std::string read;
    if (thrown != nullptr) *thrown = false;
    try {
        EXPECT_EQ(Img_Post_Process_Chain(src.data(), dst.data(), kW, kH, path.c_str(), read), 0);
    } catch (const std::exception&) {
        if (thrown != nullptr) *thrown = true;
    }
    std::filesystem::remove(path);
    return dst;
}

std::vector<BlockOutcome> Outcomes(const studio::ChainReport& report) {
    std::vector<BlockOutcome> outcomes;
    for (const auto& block : report.blocks) outcomes.push_back(block.outcome);
    return outcomes;
}

// The form's text of the steps that run does to the picture what the file itself does: the
// report must neither drop a step that runs nor keep one that the library skips.
TEST(ChainReport, StepsThatRunGiveTheSamePictureAsTheFileItself) {
    const std::string file =
        "[Smooth_Med]\nradius=1;\nend\n"
        "[CLAHE]\npeak=200;\nbins=256;\nrows=2;\nend\n"  // one line short: skipped
        "[BC]\nbrightness= 12 ;\ncontrast=0.25e1;\nend\n"
        "[WLN]\nlow=7.9;\nhigh=60000;\nout low=0;\nout high=65535;\nend\n"
        "[Clahe]\npeak=200;\nbins=256;\nrows=2;\ncols=2;\nend\n"  // wrong case: the chain stops
        "[USM]\nr=2;\nlam=0.5;\nnorm=1;\nend\n"
        "a note the library never reads\n";
    const studio::ChainReport report = AnalyseChain(file, kW, kH);
    EXPECT_EQ(Outcomes(report),
              (std::vector<BlockOutcome>{BlockOutcome::Runs, BlockOutcome::Skipped,
                                         BlockOutcome::Runs, BlockOutcome::Runs,
                                         BlockOutcome::Stops, BlockOutcome::NotReached}));
    ASSERT_EQ(report.steps.size(), 3u);
    EXPECT_EQ(report.steps[2].values[0], 7.0);  // "7.9" reads as 7
    EXPECT_NE(report.blocks[3].detail.find("as 7"), std::string::npos) << report.blocks[3].detail;
    EXPECT_EQ(report.note, "a note the library never reads\n");
    EXPECT_FALSE(report.fails);

    const std::string formText = studio::ChainText(report.steps, report.note);
    EXPECT_EQ(RunLibrary(formText), RunLibrary(file));
    EXPECT_NE(RunLibrary(formText), Picture());
}

TEST(ChainReport, MalformedNumbersFailTheCallAndLaterBlocksAreNotReached) {
    for (const char* bad : {"peak=;", "peak=abc;", "peak=99999999999;", "peak=200"}) {
        SCOPED_TRACE(bad);
        const std::string file = std::string("[Smooth_Box]\nr=1;\nend\n[CLAHE]\n") + bad +
                                 "\nbins=256;\nrows=2;\ncols=2;\nend\n[BC]\nb=1;\nc=1;\nend\n";
        const studio::ChainReport report = AnalyseChain(file, kW, kH);
        EXPECT_TRUE(report.fails);
        EXPECT_EQ(Outcomes(report),
                  (std::vector<BlockOutcome>{BlockOutcome::Runs, BlockOutcome::Fails,
                                             BlockOutcome::NotReached}));
        bool thrown = false;
        RunLibrary(file, &thrown);
        EXPECT_TRUE(thrown) << "the report says the call fails; the library must agree";
    }
}

TEST(ChainReport, FilesWithoutACompleteBlockAndBlocksClosedByEndingLines) {
    EXPECT_FALSE(AnalyseChain("[BC]\nb=1;\nc=1;\n", kW, kH).hasBlocks);
    EXPECT_FALSE(AnalyseChain("", kW, kH).hasBlocks);
    // "ending=1;" closes the block early, leaving [BC] one line short; "x=1;end" does not.
    const auto early = AnalyseChain("[BC]\nb=1;\nending=1;\nc=1;\nend\n", kW, kH);
    ASSERT_EQ(early.blocks.size(), 2u);
    EXPECT_EQ(early.blocks[0].outcome, BlockOutcome::Skipped);
    EXPECT_EQ(early.blocks[1].outcome, BlockOutcome::Stops);  // "c=1;" names no step
    const auto kept = AnalyseChain("[BC]\nb=1;\nc=2;end\nend\n", kW, kH);
    ASSERT_EQ(kept.blocks.size(), 1u);
    EXPECT_EQ(kept.blocks[0].outcome, BlockOutcome::Runs);
}

TEST(ChainReport, ValuesOutsideTheFormsLimitsAreBroughtInAndNamed) {
    // 50 tile rows on a 30-row picture, and a median radius the library refuses.
    const auto report = AnalyseChain(
        "[CLAHE]\np=200;\nb=256;\nrows=50;\ncols=2;\nend\n[Smooth_Med]\nr=500;\nend\n", kW, kH);
    ASSERT_EQ(report.steps.size(), 2u);
    EXPECT_EQ(report.steps[0].values[2], double(kH));
    EXPECT_EQ(report.steps[1].values[0], 127.0);
    ASSERT_EQ(report.notes.size(), 2u);
    EXPECT_NE(report.notes[0].find("tile rows"), std::string::npos) << report.notes[0];
    std::string error;
    EXPECT_TRUE(studio::ValidateSteps(report.steps, kW, kH, error)) << error;
}

TEST(ChainForm, ValidationNamesTheStepAndParameter) {
    struct Case {
        std::vector<StepValues> steps;
        const char* mentions;
    };
    const Case cases[] = {
        {{{"Clahe", {}}}, "'Clahe' is not a step name"},
        {{{"BC", {1}}}, "needs 2 values"},
        {{{"BC", {1.5, 1}}}, "brightness: needs a whole number"},
        {{{"Smooth_Box", {1}}, {"Smooth_Med", {128}}}, "step 2 [Smooth_Med], radius"},
        {{{"CLAHE", {200, 256, 31, 2}}}, "tile rows"},
        {{{"FastNLM", {1, 3, std::numeric_limits<double>::infinity()}}}, "not a finite number"},
        {std::vector<StepValues>(studio::kMaxSteps + 1, StepValues{"Inverse", {}}), "at most"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(studio::ValidateSteps(c.steps, kW, kH, error)) << c.mentions;
        EXPECT_NE(error.find(c.mentions), std::string::npos) << error;
    }
    std::string error;
    EXPECT_TRUE(
        studio::ValidateSteps({{"CLAHE", {200, 256, 30, 40}}, {"Inverse", {}}}, kW, kH, error))
        << error;
}

TEST(ChainForm, FloatsAreWrittenShortAndReadBackAsTheSameFloat) {
    EXPECT_EQ(studio::FloatText(0.04), "0.04");
    EXPECT_EQ(studio::FloatText(7), "7");
    for (const double v : {0.04, 1.0 / 3.0, 123456.789, 1e-7, -2.5, 3.4e38, double(0.1f + 0.2f)}) {
        const std::string text = studio::FloatText(v);
        EXPECT_EQ(std::stof(text), static_cast<float>(v)) << text;
    }
}

TEST(ChainForm, NotesThatWouldBecomeBlocksAreRefused) {
    std::string error;
    EXPECT_TRUE(studio::NoteAllowed("tuned for the phantom\n x end\n", error));
    EXPECT_FALSE(studio::NoteAllowed("fine\nend of notes\n", error));
    EXPECT_FALSE(studio::NoteAllowed(std::string("a\0b", 3), error));
    // A note is written after the blocks and changes nothing the library reads.
    const std::vector<StepValues> steps{{"BC", {10, 1.5}}};
    EXPECT_EQ(RunLibrary(studio::ChainText(steps, "note [CLAHE]\npeak=1;")),
              RunLibrary(studio::ChainText(steps)));
}

}  // namespace

namespace {

// A run that a newer request overtakes stops before its next step and leaves no outputs that
// could pass for a complete run; the next run starts again from the first changed step.
TEST(StudioProcessor, ANewerRequestStopsARunBetweenSteps) {
    const std::filesystem::path scratch =
        std::filesystem::temp_directory_path() / "studio-processor-test";
    std::filesystem::create_directories(scratch);
    studio::Processor processor(scratch.string());
    studio::StudioImage image;
    image.width = kW;
    image.height = kH;
    image.pixels = Picture();
    const std::vector<StepValues> steps{{"Smooth_Med", {1}}, {"BC", {100, 1.5}}};
    std::atomic<uint64_t> latest{2};
    std::vector<studio::StepTime> times;
    bool cancelled = false;
    std::string error;
    EXPECT_FALSE(processor.Run(image, 1, steps, latest, 1, times, cancelled, error));
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(processor.Steps(), 0u);

    ASSERT_TRUE(processor.Run(image, 1, steps, latest, 2, times, cancelled, error)) << error;
    ASSERT_EQ(processor.Steps(), 2u);
    EXPECT_EQ(*processor.Output(1), RunLibrary(studio::ChainText(steps)));
    EXPECT_EQ(processor.Output(2), nullptr);
    // A new picture (version 2) makes every step run again.
    ASSERT_TRUE(processor.Run(image, 2, steps, latest, 2, times, cancelled, error)) << error;
    EXPECT_FALSE(times[0].reused);
    ASSERT_TRUE(processor.Run(image, 2, steps, latest, 2, times, cancelled, error)) << error;
    EXPECT_TRUE(times[0].reused && times[1].reused);
    std::filesystem::remove_all(scratch);
}

}  // namespace
