#include "studio/processor.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "veltrano/chain.h"

namespace studio {

Processor::Processor(std::string scratchDir) : scratch_(std::move(scratchDir)) {}

bool Processor::Run(const StudioImage& source, uint64_t sourceVersion,
                    const std::vector<StepValues>& steps, const std::atomic<uint64_t>& latest,
                    uint64_t request, std::vector<StepTime>& times, bool& cancelled,
                    std::string& error) {
    cancelled = false;
    times.clear();
    if (sourceVersion != sourceVersion_) {
        done_.clear();
        sourceVersion_ = sourceVersion;
    }
    // The outputs of the leading steps whose blocks did not change stay valid.
    size_t keep = 0;
    while (keep < steps.size() && keep < done_.size() &&
           done_[keep].block == BlockText(steps[keep])) {
        ++keep;
    }
    done_.resize(keep);
    for (size_t i = 0; i < keep; ++i) {
        times.push_back({steps[i].name, done_[i].milliseconds, true});
    }
    const std::string blockFile = scratch_ + "/step.chain";
    for (size_t i = keep; i < steps.size(); ++i) {
        if (latest.load() != request) {
            cancelled = true;
            return false;
        }
        Done step;
        step.block = BlockText(steps[i]);
        {
            std::ofstream out(blockFile, std::ios::binary | std::ios::trunc);
            out << step.block;
            if (!out.flush()) {
                error = "the scratch chain file " + blockFile + " cannot be written";
                return false;
            }
        }
        const std::vector<uint16_t>& input = i == 0 ? source.pixels : done_[i - 1].pixels;
        step.pixels.assign(input.size(), 0);
        std::string text;
        const auto start = std::chrono::steady_clock::now();
        int result = 0;
        try {
            result = Img_Post_Process_Chain(
                input.data(), step.pixels.data(), static_cast<int>(source.width),
                static_cast<int>(source.height), blockFile.c_str(), text);
        } catch (const std::exception& e) {
            // Checked values are written in full, so this is not expected; report it as the
            // program would.
            error = "step " + std::to_string(i + 1) + ": malformed number (" + e.what() + ")";
            return false;
        }
        step.milliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        if (result != 0) {
            error = "step " + std::to_string(i + 1) + ": the chain refused it (code " +
                    std::to_string(result) + ")";
            return false;
        }
        times.push_back({steps[i].name, step.milliseconds, false});
        done_.push_back(std::move(step));
    }
    return true;
}

const std::vector<uint16_t>* Processor::Output(size_t index) const {
    return index < done_.size() ? &done_[index].pixels : nullptr;
}

}  // namespace studio
