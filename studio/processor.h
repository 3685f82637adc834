// Runs the studio's chain on its picture one step at a time, keeping every step's output and
// time, and reusing the outputs of the leading steps that did not change since the last run.
//
// Each step goes through Img_Post_Process_Chain with a chain file of that one block, on the
// output of the step before: the library copies its source and runs the block in place, so the
// last output is exactly what the whole chain file gives in one call.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "studio/chain_model.h"
#include "studio/studio.h"

namespace studio {

struct StepTime {
    std::string name;
    double milliseconds = 0.0;
    bool reused = false;  // the output of an earlier run was still valid
};

class Processor {
public:
    // `scratchDir` takes the one-block chain files; it must exist and be writable.
    explicit Processor(std::string scratchDir);

    // Ends with true when every step ran. Ends early with false and `cancelled` set when
    // `latest` moves past `request` (a newer request came), or with an error.
    bool Run(const StudioImage& source, uint64_t sourceVersion,
             const std::vector<StepValues>& steps, const std::atomic<uint64_t>& latest,
             uint64_t request, std::vector<StepTime>& times, bool& cancelled, std::string& error);

    // The output of step `index` (0-based) of the last complete run; null when there is none.
    const std::vector<uint16_t>* Output(size_t index) const;
    size_t Steps() const { return done_.size(); }

private:
    struct Done {
        std::string block;  // the block's text: the key of its output
        std::vector<uint16_t> pixels;
        double milliseconds = 0.0;
    };
    std::string scratch_;
    uint64_t sourceVersion_ = 0;
    std::vector<Done> done_;
};

}  // namespace studio
