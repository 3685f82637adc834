// The measuring and judging behind the comparison program, apart from any image library: the
// options, the interleaved runs, medians, peak extra memory and the verdicts.
#pragma once

#include <string>
#include <vector>

#include "specs.h"

namespace compare {

struct Options {
    std::string filter;    // ECMAScript regular expression searched in entry names; empty: all
    int repetitions = 7;   // timed runs of each side, after one warm-up run
    int threads = 1;       // OpenMP and OpenCV threads, the same on both sides
    bool list = false;     // print the entry names and stop
    bool help = false;
};

// False, with a one-line message, for an unknown option or a value out of range.
bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error);
const char* Usage();

// True when the entry's name matches the filter (an empty filter matches everything). A filter
// that is not a valid regular expression is reported by ParseOptions.
bool Selected(const Entry& entry, const std::string& filter);

double Median(std::vector<double> values);

// A measured value against its limit: met, met only within the noise margin, or missed.
enum class Verdict { Met, WithinMargin, Missed };
constexpr double kMargin = 0.10;
Verdict Judge(double value, double limit);
Verdict Worse(Verdict a, Verdict b);
const char* VerdictText(Verdict v);

struct SideResult {
    double medianMs = 0.0;
    long long peakExtraBytes = 0;  // the largest over the timed runs
};

struct Measured {
    SideResult veltrano;
    SideResult peer;
    bool ok = true;
    std::string error;
};

// One warm-up call of each side, then `repetitions` rounds of Veltrano then peer, each call
// preceded by the untimed `before`. A failed call or an exception ends the measurement with
// ok = false.
Measured Measure(const Sides& sides, int repetitions);

// A pair's verdict: its ratio against the target and, when it has one, its absolute limit.
Verdict PairVerdict(const Entry& entry, const Measured& m);

struct MeasuredEntry {
    const Entry* entry;
    Measured result;
};

// The acquisition's corrections in one sum: the slowest gain correction plus every step. False
// when an entry that belongs to the sum was not measured (filtered out or failed).
bool CorrectionsSum(const std::vector<Entry>& registry, const std::vector<MeasuredEntry>& measured,
                    double& sumMs);

}  // namespace compare
