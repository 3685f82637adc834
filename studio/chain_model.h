// The chain as the studio's form sees it: the step kinds with their parameters typed, labelled
// and limited, chain text written from a list of steps, and a report of what the library does
// with a chain file as it is written (which blocks run, which are skipped, where it stops).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace studio {

enum class ParamType { Int, Float };

// A limit that depends on the picture: CLAHE needs at least one pixel per tile.
enum class Bound { Fixed, ImageWidth, ImageHeight };

struct ParamInfo {
    const char* label;
    ParamType type;
    double min;
    double max;
    double initial;
    const char* help;
    Bound maxBound = Bound::Fixed;  // when not Fixed, max is the picture's width or height
};

struct StepKind {
    const char* name;  // as written between "[" and "]"
    const char* help;
    std::vector<ParamInfo> params;  // in the order of the block's lines
};

// Every step kind the chain knows, in the order the library tests the names.
const std::vector<StepKind>& StepTable();
const StepKind* FindStepKind(const std::string& name);

// The upper limit of a parameter for a picture of the given size.
double MaxFor(const ParamInfo& param, unsigned width, unsigned height);

// One step of the form: its kind and one value per parameter (integers held exactly).
struct StepValues {
    std::string name;
    std::vector<double> values;
};

// The most steps a chain of the form may hold.
constexpr size_t kMaxSteps = 32;

// True when every step is a known kind with the right number of values, each an integer where
// the step reads one and within its limits; otherwise false with a one-line reason that names
// the step (numbered from 1) and the parameter.
bool ValidateSteps(const std::vector<StepValues>& steps, unsigned width, unsigned height,
                   std::string& error);

// The shortest decimal text that the chain's float conversion reads back as the same float.
std::string FloatText(double value);

// One block of chain text ("[NAME]", "label=value;" lines, "end") for a valid step.
std::string BlockText(const StepValues& step);
// The whole chain file for valid steps. A note goes after the last block, where the library
// ignores it (chain files keep their explanations there).
std::string ChainText(const std::vector<StepValues>& steps, const std::string& note = "");

// True when the note can follow the blocks without changing the chain: no line of it begins
// with "end" (it would close a block) and it holds no NUL. Otherwise false with the reason.
bool NoteAllowed(const std::string& note, std::string& error);

// What the library does with one block of a chain file.
enum class BlockOutcome {
    Runs,        // a known step with the right number of lines: it runs
    Skipped,     // wrong number of lines: the step does nothing, the chain goes on
    Stops,       // unknown name (or none): the chain ends here
    Fails,       // a malformed or out-of-range number: the library call fails here
    NotReached,  // after a stop or a failure
};
const char* OutcomeName(BlockOutcome outcome);

struct BlockReport {
    std::string name;
    size_t lines = 0;     // header included, closing line not
    size_t expected = 0;  // lines the step needs; 0 for an unknown name
    BlockOutcome outcome = BlockOutcome::NotReached;
    std::string detail;  // a sentence for the reader
    StepValues step;     // the values as the library reads them (Runs only)
};

struct ChainReport {
    bool opened = true;      // false: nothing to read
    bool hasBlocks = false;  // false: the library refuses the file ("Do Not Find Param")
    bool fails = false;      // a malformed number makes the whole call fail
    std::vector<BlockReport> blocks;
    std::vector<std::string> notes;  // values the form had to bring within its limits
    // The steps that run, in order, with their values brought within the form's limits.
    std::vector<StepValues> steps;
    std::string summary;
    std::string note;  // the text after the last closing line, which the library ignores
};

// Reads chain text as the library reads a chain file. `width` and `height` are the picture's,
// for the limits of the form.
ChainReport AnalyseChain(const std::string& text, unsigned width, unsigned height);

}  // namespace studio
