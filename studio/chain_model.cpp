#include "studio/chain_model.h"

#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "chain/chain_file.h"

namespace studio {
namespace {

constexpr double kInt32Max = 2147483647.0;

// The ranges are those the library's functions accept, narrowed where a value would only make
// the step refuse the image or take minutes on a full frame without changing what it shows.
const std::vector<StepKind> kTable = {
    {"ACE",
     "adaptive contrast enhancement, then gamma (Ace_Gamma)",
     {{"radius", ParamType::Int, 0, 1024, 20, "half side of the local window, pixels"},
      {"alpha", ParamType::Float, 0, 100, 1, "gain factor"},
      {"maximum gain", ParamType::Float, 0, 1000, 3, "upper bound of the local gain"},
      {"gamma", ParamType::Float, 0.01, 20, 1, "1 = no gamma"},
      {"exact", ParamType::Int, 0, 1, 0, "1 exact enhancement, 0 quick"},
      {"equalise", ParamType::Int, 0, 1, 0,
       "1 = replace the result by a histogram equalisation of the step's input"}}},
    {"CLAHE",
     "contrast-limited adaptive histogram equalisation (clahe_16U)",
     {{"clip limit", ParamType::Int, 1, kInt32Max, 200, "counts per bin"},
      {"histogram bins", ParamType::Int, 2, 65536, 1024, "bins per tile histogram"},
      {"tile rows", ParamType::Int, 1, 0, 6, "tiles down the picture", Bound::ImageHeight},
      {"tile columns", ParamType::Int, 1, 0, 4, "tiles across the picture", Bound::ImageWidth}}},
    {"WLN",
     "clip to a window, then stretch to the output range (WLN)",
     {{"window low", ParamType::Int, 0, 65535, 0, ""},
      {"window high", ParamType::Int, 0, 65535, 65535, ""},
      {"output low", ParamType::Int, 0, 65535, 0, ""},
      {"output high", ParamType::Int, 0, 65535, 65535, ""}}},
    {"USM",
     "unsharp mask with a (2r+1)^2 box (USM_EX)",
     {{"radius", ParamType::Int, 0, 1024, 2, "pixels"},
      {"amount", ParamType::Float, -10, 10, 0.04,
       "multiplies the difference from the window's sum, not its mean"},
      {"normalise", ParamType::Int, 0, 1, 0, "1 stretches the result to 0..65535"}}},
    {"BC",
     "v * contrast + brightness, clamped (BrigntAndContrast)",
     {{"brightness", ParamType::Int, -65535, 65535, 0, "added"},
      {"contrast", ParamType::Float, -100, 100, 1, "multiplied first"}}},
    {"Smooth_Med",
     "median of the (2r+1)^2 window (Median_Blur)",
     {{"radius", ParamType::Int, 0, 127, 1, "0 leaves the picture as it is"}}},
    {"Smooth_Box",
     "mean of the (2r+1)^2 window (Box_Filter)",
     {{"radius", ParamType::Int, 1, 1024, 1, ""}}},
    {"FastNLM",
     "non-local means on an 8-bit rendering, scaled back by 257 (FastNLM)",
     {{"patch radius", ParamType::Int, 0, 1024, 1, ""},
      {"search radius", ParamType::Int, 0, 1024, 3,
       "the cost grows with its square: 3 takes 49 sums per pixel"},
      {"strength", ParamType::Float, 0.1, 1000, 7, "h, in 8-bit levels"}}},
    {"Inverse", "accepted and leaves the picture as it is", {}},
};

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::string Quote(const std::string& name) { return "[" + name + "]"; }

}  // namespace

const std::vector<StepKind>& StepTable() { return kTable; }

const StepKind* FindStepKind(const std::string& name) {
    for (const StepKind& step : kTable) {
        if (name == step.name) {
            return &step;
        }
    }
    return nullptr;
}

double MaxFor(const ParamInfo& param, unsigned width, unsigned height) {
    switch (param.maxBound) {
    case Bound::ImageWidth:
        return width;
    case Bound::ImageHeight:
        return height;
    case Bound::Fixed:
        break;
    }
    return param.max;
}

const char* OutcomeName(BlockOutcome outcome) {
    switch (outcome) {
    case BlockOutcome::Runs:
        return "runs";
    case BlockOutcome::Skipped:
        return "skipped";
    case BlockOutcome::Stops:
        return "stops";
    case BlockOutcome::Fails:
        return "fails";
    case BlockOutcome::NotReached:
        return "not reached";
    }
    return "";
}

bool ValidateSteps(const std::vector<StepValues>& steps, unsigned width, unsigned height,
                   std::string& error) {
    if (steps.size() > kMaxSteps) {
        error = "a chain holds at most " + std::to_string(kMaxSteps) + " steps";
        return false;
    }
    for (size_t i = 0; i < steps.size(); ++i) {
        const std::string where = "step " + std::to_string(i + 1);
        const StepKind* kind = FindStepKind(steps[i].name);
        if (kind == nullptr) {
            error = where + ": '" + steps[i].name + "' is not a step name";
            return false;
        }
        if (steps[i].values.size() != kind->params.size()) {
            error = where + " " + Quote(kind->name) + ": needs " +
                    std::to_string(kind->params.size()) + " values, not " +
                    std::to_string(steps[i].values.size());
            return false;
        }
        for (size_t k = 0; k < kind->params.size(); ++k) {
            const ParamInfo& param = kind->params[k];
            const double value = steps[i].values[k];
            const double high = MaxFor(param, width, height);
            const std::string name = where + " " + Quote(kind->name) + ", " + param.label;
            if (!std::isfinite(value)) {
                error = name + ": not a finite number";
                return false;
            }
            if (param.type == ParamType::Int && value != std::floor(value)) {
                error = name + ": needs a whole number";
                return false;
            }
            if (value < param.min || value > high) {
                std::ostringstream limits;
                limits << name << ": " << value << " is outside " << param.min << " to " << high;
                error = limits.str();
                return false;
            }
        }
    }
    return true;
}

std::string FloatText(double value) {
    const float target = static_cast<float>(value);
    char text[40];
    for (int digits = 1; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(target));
        if (std::stof(text) == target) {
            break;
        }
    }
    return text;
}

std::string BlockText(const StepValues& step) {
    const StepKind* kind = FindStepKind(step.name);
    std::string text = "[" + step.name + "]\n";
    for (size_t k = 0; kind != nullptr && k < kind->params.size() && k < step.values.size(); ++k) {
        const ParamInfo& param = kind->params[k];
        const double value = step.values[k];
        text += param.label;
        text += '=';
        if (param.type == ParamType::Int) {
            text += std::to_string(static_cast<long long>(value));
        } else {
            text += FloatText(value);
        }
        text += ";\n";
    }
    text += "end\n";
    return text;
}

std::string ChainText(const std::vector<StepValues>& steps, const std::string& note) {
    std::string text;
    for (const StepValues& step : steps) {
        text += BlockText(step);
    }
    text += note;
    if (!note.empty() && note.back() != '\n') {
        text += '\n';
    }
    return text;
}

bool NoteAllowed(const std::string& note, std::string& error) {
    if (note.find('\0') != std::string::npos) {
        error = "the note holds a NUL character";
        return false;
    }
    for (size_t start = 0; start < note.size();) {
        size_t end = note.find('\n', start);
        if (end == std::string::npos) end = note.size();
        if (veltrano::chain::ClosesBlock(note.substr(start, end - start))) {
            error = "a line of the note begins with \"end\", which would make it a block";
            return false;
        }
        start = end + 1;
    }
    return true;
}

namespace {

// The text after the last line that closes a block: what the library never reads.
std::string TrailingNote(const std::string& text) {
    size_t after = std::string::npos;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (veltrano::chain::ClosesBlock(line)) after = end + 1;
        start = end + 1;
    }
    return after == std::string::npos || after >= text.size() ? std::string() : text.substr(after);
}

}  // namespace

ChainReport AnalyseChain(const std::string& text, unsigned width, unsigned height) {
    using veltrano::chain::Block;
    ChainReport report;
    std::istringstream in(text);
    const veltrano::chain::ChainFile file = veltrano::chain::ReadChainFile(in);
    report.hasBlocks = !file.blocks.empty();
    report.note = TrailingNote(text);
    if (!report.hasBlocks) {
        report.summary =
            "No complete block (no line beginning with \"end\"): the library refuses "
            "the file and the picture is not processed.";
        return report;
    }
    size_t runs = 0;
    size_t skipped = 0;
    bool ended = false;
    std::string ending;
    for (size_t b = 0; b < file.blocks.size(); ++b) {
        const Block& block = file.blocks[b];
        BlockReport entry;
        entry.name = veltrano::chain::StepName(block);
        entry.lines = block.size();
        const std::string where = "block " + std::to_string(b + 1);
        const StepKind* kind = FindStepKind(entry.name);
        if (kind != nullptr) {
            entry.expected = kind->params.size() + 1;
        }
        if (ended) {
            entry.outcome = BlockOutcome::NotReached;
            entry.detail = "not reached";
        } else if (kind == nullptr) {
            entry.outcome = BlockOutcome::Stops;
            entry.detail = entry.name.empty()
                               ? "no step name between \"[\" and \"]\": the chain stops here"
                               : "'" + entry.name +
                                     "' is not a step name (names are case-sensitive): the "
                                     "chain stops here";
            ended = true;
            ending = "The chain stops at " + where + ".";
        } else if (block.size() != entry.expected) {
            entry.outcome = BlockOutcome::Skipped;
            entry.detail = "has " + std::to_string(block.size()) + " lines, " + Quote(kind->name) +
                           " needs " + std::to_string(entry.expected) +
                           " (header included): the step does nothing and the chain goes on";
            ++skipped;
        } else {
            entry.outcome = BlockOutcome::Runs;
            entry.step.name = kind->name;
            for (size_t k = 0; k < kind->params.size() && entry.outcome == BlockOutcome::Runs;
                 ++k) {
                const ParamInfo& param = kind->params[k];
                double value = 0.0;
                try {
                    value = param.type == ParamType::Int
                                ? static_cast<double>(veltrano::chain::IntParam(block, k + 1))
                                : static_cast<double>(veltrano::chain::FloatParam(block, k + 1));
                } catch (const std::exception& e) {
                    entry.outcome = BlockOutcome::Fails;
                    entry.detail = "line " + std::to_string(k + 2) + " (\"" + block[k + 1] +
                                   "\"): " + e.what() +
                                   ": the library call fails here and the picture is not "
                                   "processed";
                    report.fails = true;
                    ended = true;
                    ending = "The chain fails at " + where + ".";
                    break;
                }
                const std::string field = Trim(veltrano::chain::Field(block[k + 1], '=', ';'));
                if (param.type == ParamType::Int &&
                    field != std::to_string(static_cast<long long>(value))) {
                    entry.detail += (entry.detail.empty() ? "" : "; ") + std::string("line ") +
                                    std::to_string(k + 2) + " reads \"" + field + "\" as " +
                                    std::to_string(static_cast<long long>(value));
                }
                const double high = MaxFor(param, width, height);
                double shown = value;
                if (!std::isfinite(value)) {
                    shown = param.initial;
                } else if (value < param.min) {
                    shown = param.min;
                } else if (value > high) {
                    shown = high;
                }
                if (shown != value) {
                    std::ostringstream note;
                    note << where << " " << Quote(kind->name) << ", " << param.label << ": "
                         << value << " is outside the form's limits " << param.min << " to " << high
                         << "; the form shows " << shown;
                    report.notes.push_back(note.str());
                }
                // The shortest text of the float, so that the form shows 0.04, not 0.0399999991.
                entry.step.values.push_back(
                    param.type == ParamType::Float ? std::stod(FloatText(shown)) : shown);
            }
            if (entry.outcome == BlockOutcome::Runs) {
                ++runs;
                report.steps.push_back(entry.step);
            } else {
                entry.step = StepValues();
            }
        }
        report.blocks.push_back(std::move(entry));
    }
    std::ostringstream summary;
    if (report.fails) {
        summary << "A malformed number makes the library call fail: the picture is not "
                   "processed. ";
    }
    summary << runs << (runs == 1 ? " step runs" : " steps run");
    if (skipped != 0) {
        summary << ", " << skipped << " skipped for a wrong number of lines";
    }
    summary << ".";
    if (!ending.empty()) {
        summary << " " << ending;
    }
    report.summary = summary.str();
    return report;
}

}  // namespace studio
