#include "harness.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <exception>
#include <regex>
#include <set>

#include "alloc_tracker.h"

namespace compare {

namespace {

bool ParsePositive(const std::string& text, int& value) {
    if (text.empty() || text.size() > 6 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    value = std::stoi(text);
    return value >= 1;
}

// One call, timed, with the processor time the process spent meanwhile and the memory the call
// needed above what was held before it.
bool TimedCall(const Call& call, double& ms, double& cpuMs, long long& extra) {
    alloc::Mark();
    const std::clock_t c0 = std::clock();
    const auto t0 = std::chrono::steady_clock::now();
    const bool ok = call();
    const auto t1 = std::chrono::steady_clock::now();
    const std::clock_t c1 = std::clock();
    extra = alloc::PeakSinceMark();
    ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
    cpuMs = 1000.0 * static_cast<double>(c1 - c0) / CLOCKS_PER_SEC;
    return ok;
}

}  // namespace

const char* Usage() {
    return "usage: veltrano_compare [--filter REGEX] [--reps N] [--threads N] [--list] "
           "[--agreement]\n"
           "  --filter REGEX  only entries whose name contains a match (ECMAScript syntax)\n"
           "  --reps N        timed runs of each side, interleaved, after a warm-up (default 7)\n"
           "  --threads N     threads on both sides: OpenMP and OpenCV (default 1)\n"
           "  --list          print the names of the entries (those the filter selects) and stop\n"
           "  --agreement     run each pair once and compare the two outputs instead of timing "
           "them\n";
}

bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const bool takesValue = arg == "--filter" || arg == "--reps" || arg == "--threads";
        if (takesValue && i + 1 >= args.size()) {
            error = arg + " needs a value";
            return false;
        }
        if (arg == "--filter") {
            options.filter = args[++i];
            try {
                std::regex check(options.filter);
            } catch (const std::regex_error&) {
                error = "--filter: not a regular expression: " + options.filter;
                return false;
            }
        } else if (arg == "--reps" || arg == "--threads") {
            int& target = arg == "--reps" ? options.repetitions : options.threads;
            if (!ParsePositive(args[++i], target)) {
                error = arg + " wants a whole number of at least 1, not \"" + args[i] + "\"";
                return false;
            }
        } else if (arg == "--list") {
            options.list = true;
        } else if (arg == "--agreement") {
            options.agreement = true;
        } else if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else {
            error = "unknown option \"" + arg + "\"";
            return false;
        }
    }
    return true;
}

bool Selected(const Entry& entry, const std::string& filter) {
    return filter.empty() || std::regex_search(entry.name, std::regex(filter));
}

double Median(std::vector<double> values) {
    if (values.empty()) {
        return std::nan("");
    }
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

Verdict Judge(double value, double limit) {
    if (!(value <= limit * (1.0 + kMargin))) {
        return Verdict::Missed;  // NaN included
    }
    return value <= limit ? Verdict::Met : Verdict::WithinMargin;
}

Verdict Worse(Verdict a, Verdict b) { return static_cast<int>(a) > static_cast<int>(b) ? a : b; }

const char* VerdictText(Verdict v) {
    switch (v) {
    case Verdict::Met:
        return "ok";
    case Verdict::WithinMargin:
        return "ok (margin)";
    case Verdict::Missed:
        return "MISS";
    }
    return "?";
}

Measured Measure(const Sides& sides, int repetitions) {
    Measured m;
    std::vector<double> vTimes, pTimes;
    double wall[2] = {0.0, 0.0}, cpu[2] = {0.0, 0.0};
    const bool hasPeer = static_cast<bool>(sides.peer);
    auto run = [&](const Call& call, std::vector<double>* times, SideResult& side,
                   const char* who) {
        if (sides.before) {
            sides.before();
        }
        double ms = 0.0, cpuMs = 0.0;
        long long extra = 0;
        if (!TimedCall(call, ms, cpuMs, extra)) {
            m.ok = false;
            m.error = std::string("the ") + who + " call reported a failure";
            return false;
        }
        if (times != nullptr) {
            times->push_back(ms);
            side.peakExtraBytes = std::max(side.peakExtraBytes, extra);
            const int s = &side == &m.veltrano ? 0 : 1;
            wall[s] += ms;
            cpu[s] += cpuMs;
        }
        return true;
    };
    try {
        if (!run(sides.veltrano, nullptr, m.veltrano, "Veltrano") ||
            (hasPeer && !run(sides.peer, nullptr, m.peer, "OpenCV"))) {
            return m;
        }
        for (int i = 0; i < repetitions; ++i) {
            if (!run(sides.veltrano, &vTimes, m.veltrano, "Veltrano") ||
                (hasPeer && !run(sides.peer, &pTimes, m.peer, "OpenCV"))) {
                return m;
            }
        }
    } catch (const std::exception& e) {
        m.ok = false;
        m.error = e.what();
        return m;
    }
    m.veltrano.medianMs = Median(vTimes);
    m.peer.medianMs = hasPeer ? Median(pTimes) : 0.0;
    // Calls too short for the processor clock's resolution to tell anything keep a share of 1.
    m.veltrano.cpuShare = wall[0] > 5.0 ? cpu[0] / wall[0] : 1.0;
    m.peer.cpuShare = wall[1] > 5.0 ? cpu[1] / wall[1] : 1.0;
    return m;
}

bool Agree(const Sides& sides, double& difference, std::string& error) {
    if (!sides.peer || !sides.difference) {
        error = "no outputs to compare";
        return false;
    }
    try {
        for (const Call* call : {&sides.veltrano, &sides.peer}) {
            if (sides.before) {
                sides.before();
            }
            if (!(*call)()) {
                error = std::string("the ") + (call == &sides.veltrano ? "Veltrano" : "OpenCV") +
                        " call reported a failure";
                return false;
            }
        }
        difference = sides.difference();
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    return true;
}

Verdict PairVerdict(const Entry& entry, const Measured& m) {
    Verdict v = Judge(m.veltrano.medianMs / m.peer.medianMs, entry.targetRatio);
    if (entry.limitMs > 0.0) {
        v = Worse(v, Judge(m.veltrano.medianMs, entry.limitMs));
    }
    return v;
}

std::vector<Limit> LimitsOf(const Entry& entry, const Measured& m, double copyMs) {
    std::vector<Limit> limits;
    if (!m.ok) {
        return limits;
    }
    if (entry.limitCopies > 0.0) {
        limits.push_back({entry.name, m.veltrano.medianMs / copyMs, entry.limitCopies, "copies"});
    }
    if (entry.limitMs > 0.0 && entry.peer.empty()) {
        limits.push_back({entry.name, m.veltrano.medianMs, entry.limitMs, "ms"});
    }
    return limits;
}

std::string CheckRegistry(const std::vector<Entry>& registry) {
    std::set<std::string> names;
    for (const Entry& e : registry) {
        if (e.name.empty() || !names.insert(e.name).second) {
            return "the entry name \"" + e.name + "\" is empty or used twice";
        }
        if (!e.setup) {
            return e.name + ": no setup";
        }
        if (!e.peer.empty() && !(e.targetRatio > 0.0)) {
            return e.name + ": a pair needs a positive target ratio";
        }
        if (!(e.frameBytes > 0.0)) {
            return e.name + ": no frame size";
        }
    }
    return std::string();
}

bool CorrectionsSum(const std::vector<Entry>& registry, const std::vector<MeasuredEntry>& measured,
                    double& sumMs) {
    std::set<const Entry*> done;
    double gain = -1.0;
    double steps = 0.0;
    for (const MeasuredEntry& e : measured) {
        if (!e.result.ok || e.entry->correction == Correction::None) {
            continue;
        }
        done.insert(e.entry);
        if (e.entry->correction == Correction::GainChoice) {
            gain = std::max(gain, e.result.veltrano.medianMs);
        } else {
            steps += e.result.veltrano.medianMs;
        }
    }
    for (const Entry& e : registry) {
        if (e.correction != Correction::None && done.count(&e) == 0) {
            return false;
        }
    }
    if (gain < 0.0) {
        return false;
    }
    sumMs = gain + steps;
    return true;
}

}  // namespace compare
