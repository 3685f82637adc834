// Img_Post_Process_Chain on fuzzed chain text over small images of fuzzed size. The standard
// conversion failures (std::invalid_argument, std::out_of_range) are the one described way out
// of the call; anything else escaping, a crash or an overrun is a finding. The chain's text
// output and its described results are checked as far as the input tells them.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "chain/chain_file.h"
#include "fuzz_support.h"
#include "veltrano/chain.h"

namespace {

struct StepKind {
    const char* name;
    int parameters;
};
const StepKind kSteps[] = {
    {"ACE", 6},        {"CLAHE", 4},   {"WLN", 4},     {"USM", 3},   {"BC", 2}, {"Smooth_Med", 1},
    {"Smooth_Box", 1}, {"FastNLM", 3}, {"Inverse", 0}, {"Clahe", 4}, {"", 0}};

std::string Number(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0:
        return std::to_string(in.ConsumeIntegralInRange(-3, 12));
    case 1:
        return std::to_string(in.ConsumeIntegralInRange(-70000, 70000));
    case 2:
        return std::to_string(in.ConsumeIntegral<int>());
    case 3:
        return std::to_string(in.ConsumeFloatingPoint<float>());
    case 4:
        return std::to_string(in.ConsumeProbability<float>() * 4);
    default:
        return in.ConsumeRandomLengthString(12);
    }
}

// A chain of fuzzed blocks: mostly known steps with the right number of lines and numbers of
// every kind, sometimes a line too many or too few, an unknown name or free text.
std::string MakeChain(FuzzedDataProvider& in) {
    std::string text;
    const int blocks = in.ConsumeIntegralInRange(0, 6);
    for (int b = 0; b < blocks; ++b) {
        if (in.ConsumeIntegralInRange(0, 15) == 0) {
            text += in.ConsumeRandomLengthString(40);
            continue;
        }
        const StepKind& step = in.PickValueInArray(kSteps);
        text += std::string("[") + step.name + "]\n";
        const int lines =
            step.parameters +
            (in.ConsumeIntegralInRange(0, 9) == 0 ? in.ConsumeIntegralInRange(-1, 1) : 0);
        for (int i = 0; i < lines; ++i) text += "v=" + Number(in) + ";\n";
        text += in.ConsumeBool() ? "end\n" : "end of block\r\n";
    }
    return text;
}

// What a step costs grows with its numbers as its header states (a search window of
// (2s+1)^2 pixels for every pixel, for one); inputs past a few seconds of work say nothing new.
bool TooCostly(const std::string& text, uint64_t pixels) {
    std::istringstream stream(text);
    const veltrano::chain::ChainFile file = veltrano::chain::ReadChainFile(stream);
    for (const veltrano::chain::Block& block : file.blocks) {
        const std::string name = veltrano::chain::StepName(block);
        try {
            if (name == "FastNLM" && block.size() == 4) {
                const int64_t s = veltrano::chain::IntParam(block, 2);
                if (s > 0 && s <= 4096 &&
                    pixels * static_cast<uint64_t>((2 * s + 1) * (2 * s + 1)) > 40000000)
                    return true;
            }
            if (name == "Smooth_Med" && block.size() == 2) {
                const int64_t r = veltrano::chain::IntParam(block, 1);
                if (r > 0 && r <= 4096 &&
                    pixels * static_cast<uint64_t>((2 * r + 1) * (2 * r + 1)) > 40000000)
                    return true;
            }
        } catch (const std::exception&) {
            return false;  // the chain itself will throw at this block
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::SilenceStdout();
    FuzzedDataProvider in(data, size);
    const int width = in.ConsumeIntegralInRange(0, 40);
    const int height = in.ConsumeIntegralInRange(0, 40);
    std::vector<uint16_t> src(static_cast<size_t>(width) * height);
    for (uint16_t& v : src) v = in.ConsumeIntegral<uint16_t>();
    const bool inPlace = in.ConsumeBool();
    const std::string text = in.ConsumeBool() ? MakeChain(in) : in.ConsumeRemainingBytesAsString();
    if (TooCostly(text, src.size())) return -1;  // not added to the corpus
    const std::string path = fuzz::ScratchPath("fuzz.chain");
    fuzz::WriteFile(path, text);

    // Buffers of exactly the image's size, so that AddressSanitizer sees any step overrun them
    // (an empty image still gets pointers of its own: the chain refuses null ones).
    std::unique_ptr<uint16_t[]> input(new uint16_t[src.size()]);
    std::unique_ptr<uint16_t[]> output(new uint16_t[src.size()]);
    std::copy(src.begin(), src.end(), input.get());
    std::fill(output.get(), output.get() + src.size(), 0xABCD);
    std::string chainText = "left over";
    int result = 0;
    bool converted = true;
    try {
        result = Img_Post_Process_Chain(input.get(), inPlace ? input.get() : output.get(), width,
                                        height, path.c_str(), chainText);
    } catch (const std::invalid_argument&) {
        converted = false;
    } catch (const std::out_of_range&) {
        converted = false;
    }
    std::istringstream stream(text);
    const veltrano::chain::ChainFile file = veltrano::chain::ReadChainFile(stream);
    if (!converted) {
        FUZZ_CHECK(!file.blocks.empty(), "a conversion failed in a file without blocks");
        return 0;
    }
    FUZZ_CHECK(result == (file.blocks.empty() ? -2 : 0), "result %d with %zu blocks", result,
               file.blocks.size());
    // Every line, line feeds and the carriage returns before them dropped, end lines included.
    std::string lines;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines += line;
        start = end + 1;
    }
    FUZZ_CHECK(chainText == lines, "chainText differs from the file's lines");
    const std::vector<uint16_t> dst(output.get(), output.get() + src.size());
    if (!inPlace) {
        FUZZ_CHECK(std::equal(src.begin(), src.end(), input.get()), "the source was changed");
        if (result == -2) {
            FUZZ_CHECK(dst == std::vector<uint16_t>(src.size(), 0xABCD), "dst written on -2");
        }
        // A first block whose name is no step stops the chain before anything but the copy.
        if (result == 0 && !file.blocks.empty()) {
            const std::string first = veltrano::chain::StepName(file.blocks.front());
            bool known = false;
            for (const StepKind& step : kSteps)
                known = known || (first == step.name && first != "Clahe" && !first.empty());
            if (!known)
                FUZZ_CHECK(dst == src, "an unknown first step '%s' changed the image",
                           first.c_str());
        }
    }
    return 0;
}
