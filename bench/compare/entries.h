// What the comparison program measures: pairs of a Veltrano function and its nearest OpenCV
// operation, and functions with no peer, which are reported in copies of the 16-bit frame.
//
// Each family of pairs lives in a source file of its own and registers its entries with a
// static AddPair or AddSolo object, so that entries can be added without touching the others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace compare {

// One timed call. Returns false when the call reported a failure (a result code other than the
// expected one), which makes its time meaningless and the program's exit status non-zero.
using Call = std::function<bool()>;

// The calls of one entry, made by its setup function with the buffers they work on.
struct Sides {
    Call veltrano;
    Call peer;                     // empty for a function with no peer
    std::function<void()> before;  // untimed, before every call of either side; may be empty
    // After one call of each side: the largest difference between their outputs away from the
    // borders (where the two treat the edge differently), in the output's own units. Empty
    // when the outputs are not comparable pixel by pixel.
    std::function<double()> difference = nullptr;
};

// Where a function's time counts towards the sum of the acquisition's corrections.
enum class Correction {
    None,
    GainChoice,  // alternatives of the gain correction: the slowest one counts
    Step,        // every such step counts
};

struct Entry {
    int order = 0;             // place in the report (ascending; ties keep registration order)
    std::string name;          // the Veltrano function and its settings
    std::string peer;          // the OpenCV operation; empty for a function with no peer
    double targetRatio = 1.0;  // Veltrano / OpenCV, pairs only
    double limitMs = 0.0;      // upper bound on Veltrano's time in ms; 0: none
    double limitCopies = 0.0;  // upper bound in copies of the 16-bit frame; 0: none
    double frameBytes = 0.0;   // bytes of one frame of the function's own pixel type
    // A pair whose two sides compute the same thing up to rounding: the largest difference
    // their outputs may show (Sides::difference). Negative: the peer computes something
    // similar but not the same, and nothing is checked.
    double agreeWithin = -1.0;
    bool quiet = false;  // the calls log to standard output: silence it while they run
    Correction correction = Correction::None;
    std::function<Sides()> setup;
};

std::vector<Entry>& Registry();

struct AddEntry {
    explicit AddEntry(Entry entry) { Registry().push_back(std::move(entry)); }
};

// Entries with the common fields filled in; the rest are set on the result.
inline Entry Pair(int order, std::string name, std::string peer, double frameBytes) {
    Entry e;
    e.order = order;
    e.name = std::move(name);
    e.peer = std::move(peer);
    e.frameBytes = frameBytes;
    return e;
}

inline Entry Solo(int order, std::string name, double frameBytes) {
    Entry e;
    e.order = order;
    e.name = std::move(name);
    e.frameBytes = frameBytes;
    return e;
}

// The frame every entry works on: the largest sensor's frame (1300 x 1800) with noise of
// standard deviation 600, in 16 bits, its high byte, and its values as floats.
constexpr int kWidth = 1300;
constexpr int kHeight = 1800;
constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;
constexpr double kNoiseSigma = 600.0;

const std::vector<uint16_t>& Frame16();
const std::vector<uint8_t>& Frame8();
const std::vector<float>& FrameF();

template <class T>
constexpr double FrameBytes() {
    return static_cast<double>(kPixels * sizeof(T));
}

}  // namespace compare
