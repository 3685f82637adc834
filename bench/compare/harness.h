// The measuring and judging behind the comparison program, apart from any image library: the
// options, the interleaved runs, medians, peak extra memory and the verdicts.
#pragma once

#include <string>
#include <vector>

#include "entries.h"

namespace compare {

struct Options {
    std::string filter;      // ECMAScript regular expression searched in entry names; empty: all
    int repetitions = 7;     // timed runs of each side, after one warm-up run
    int threads = 1;         // OpenMP and OpenCV threads, the same on both sides
    bool list = false;       // print the entry names and stop
    bool agreement = false;  // compare the outputs of each pair instead of timing it
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
    // The process's processor time over the elapsed time of the timed runs. On one thread, well
    // below 1 means the program did not have a processor to itself: the times are suspect.
    double cpuShare = 1.0;
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

// One call of each side, each after `before`, then the difference of their outputs. False, with
// the reason, when a call fails or the entry has no way to compare its outputs.
bool Agree(const Sides& sides, double& difference, std::string& error);

// A pair's verdict: its ratio against the target and, when it has one, its absolute limit.
Verdict PairVerdict(const Entry& entry, const Measured& m);

struct MeasuredEntry {
    const Entry* entry;
    Measured result;
};

// A limit an entry's measurement is held to apart from its pair target: its time in copies of
// the 16-bit frame (any entry), and for entries with no peer its time in ms (a pair's time limit
// is part of its pair verdict).
struct Limit {
    std::string what;
    double value;
    double limit;
    const char* unit;
};
std::vector<Limit> LimitsOf(const Entry& entry, const Measured& m, double copyMs);

// Empty when the entries are fit to run, else what is wrong with the first that is not: a name
// used twice (a filter could not tell them apart), no setup, a pair without a positive target,
// or no frame size to express memory in.
std::string CheckRegistry(const std::vector<Entry>& registry);

// The acquisition's corrections in one sum: the slowest gain correction plus every step. False
// when an entry that belongs to the sum was not measured (filtered out or failed).
bool CorrectionsSum(const std::vector<Entry>& registry, const std::vector<MeasuredEntry>& measured,
                    double& sumMs);

}  // namespace compare
