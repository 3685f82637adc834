// veltrano_compare: each processing function on the largest sensor frame beside its nearest
// OpenCV operation, on the same number of threads, and the functions with no peer in copies of
// the 16-bit frame. It is a report: missed targets do not change the exit status, which is
// non-zero only for a bad option or a call that failed.
#include <omp.h>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "host.h"
#include "imgproc/dispatch.h"
#include "entries.h"

namespace compare {
namespace {

std::string Ms(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, ms < 10.0 ? "%.2f" : ms < 100.0 ? "%.1f" : "%.0f", ms);
    return text;
}

std::string Memory(long long bytes, double frameBytes) {
    char text[48];
    const double mib = static_cast<double>(bytes) / (1024.0 * 1024.0);
    if (frameBytes > 0.0) {
        std::snprintf(text, sizeof text, "%.1f MiB = %.2f fr", mib,
                      static_cast<double>(bytes) / frameBytes);
    } else {
        std::snprintf(text, sizeof text, "%.1f MiB", mib);
    }
    return text;
}

const char* LevelName(int level) {
    switch (level) {
    case 0:
        return "reference";
    case 1:
        return "scalar";
    case 2:
        return "avx2";
    }
    return "unknown";
}

// Runs one entry with standard output silenced if it logs there; setup, calls and teardown
// all happen inside.
Measured Run(const Entry& entry, int repetitions) {
    std::optional<StdoutSilenced> silence;
    if (entry.quiet) {
        silence.emplace();
    }
    try {
        const Sides sides = entry.setup();
        return Measure(sides, repetitions);
    } catch (const std::exception& e) {
        Measured m;
        m.ok = false;
        m.error = std::string("setup failed: ") + e.what();
        return m;
    }
}

// The time of one copy of the 16-bit frame, the unit of the limits in copies. On the virtual
// machines we measure on, the same copy runs up to a third faster or slower depending on where
// its buffers happen to land, so the unit is the median over several freshly allocated buffer
// pairs, each warmed up first.
double FrameCopyMs() {
    constexpr int kAllocations = 5;
    constexpr int kWarmUp = 30;
    constexpr int kTimed = 21;
    std::vector<double> medians;
    for (int a = 0; a < kAllocations; ++a) {
        auto src = std::make_shared<std::vector<uint16_t>>(Frame16());
        auto dst = std::make_shared<std::vector<uint16_t>>(kPixels);
        Sides copy{[src, dst] {
                       std::memcpy(dst->data(), src->data(), kPixels * sizeof(uint16_t));
                       return (*dst)[kPixels / 2] == (*src)[kPixels / 2];
                   },
                   {},
                   {}};
        for (int i = 0; i < kWarmUp; ++i) copy.veltrano();
        medians.push_back(Measure(copy, kTimed).veltrano.medianMs);
    }
    return Median(medians);
}

// --agreement: each pair once, its two outputs compared. A pair whose peer computes the same
// thing must agree within its stated bound; the others are shown for information. Non-zero
// when a pair disagrees or fails: its settings no longer make the two sides comparable.
int RunAgreement(const std::vector<const Entry*>& pairList) {
    std::printf("%-34s %-38s %12s %9s %s\n", "Veltrano", "OpenCV", "difference", "allowed",
                "verdict");
    int bad = 0;
    for (const Entry* e : pairList) {
        double difference = 0.0;
        std::string error;
        bool ok = false;
        {
            std::optional<StdoutSilenced> silence;
            if (e->quiet) {
                silence.emplace();
            }
            try {
                ok = Agree(e->setup(), difference, error);
            } catch (const std::exception& ex) {
                error = std::string("setup failed: ") + ex.what();
            }
        }
        if (!ok) {
            std::printf("%-34s error: %s\n", e->name.c_str(), error.c_str());
            ++bad;
            continue;
        }
        const bool checked = e->agreeWithin >= 0.0;
        const bool agrees = !checked || difference <= e->agreeWithin;
        bad += agrees ? 0 : 1;
        char allowed[32] = "-";
        if (checked) {
            std::snprintf(allowed, sizeof allowed, "%g", e->agreeWithin);
        }
        std::printf("%-34s %-38s %12.6g %9s %s\n", e->name.c_str(), e->peer.c_str(), difference,
                    allowed,
                    !checked ? "not the same computation"
                    : agrees ? "agree"
                             : "DIFFER");
        std::fflush(stdout);
    }
    std::printf("%d of %zu pairs disagree or failed\n", bad, pairList.size());
    return bad > 0 ? 1 : 0;
}

}  // namespace
}  // namespace compare

int main(int argc, char** argv) {
    using namespace compare;
    Options options;
    std::string error;
    if (!ParseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        std::fprintf(stderr, "veltrano_compare: %s\n%s", error.c_str(), Usage());
        return 2;
    }
    if (options.help) {
        std::printf("%s", Usage());
        return 0;
    }
    std::vector<Entry>& registry = Registry();
    std::stable_sort(registry.begin(), registry.end(),
                     [](const Entry& a, const Entry& b) { return a.order < b.order; });
    const std::string problem = CheckRegistry(registry);
    if (!problem.empty()) {
        std::fprintf(stderr, "veltrano_compare: %s\n", problem.c_str());
        return 1;
    }
    if (options.list) {
        for (const Entry& e : registry) {
            if (Selected(e, options.filter)) {
                std::printf("%-44s %s\n", e.name.c_str(),
                            e.peer.empty() ? "(no peer)" : e.peer.c_str());
            }
        }
        return 0;
    }

    auto selected = [&](bool withPeer) {
        std::vector<const Entry*> list;
        for (const Entry& e : registry) {
            if (e.peer.empty() != withPeer && Selected(e, options.filter)) {
                list.push_back(&e);
            }
        }
        return list;
    };
    const std::vector<const Entry*> pairList = selected(true);
    const std::vector<const Entry*> soloList = selected(false);
    if (pairList.empty() && soloList.empty()) {
        std::fprintf(stderr, "veltrano_compare: no entry matches \"%s\" (--list shows them)\n",
                     options.filter.c_str());
        return 2;
    }

    omp_set_num_threads(options.threads);
    cv::setNumThreads(options.threads);
    if (options.agreement) {
        return RunAgreement(pairList);
    }

    std::printf("Veltrano against OpenCV %s on a %d x %d frame (noise sigma %.0f)\n", CV_VERSION,
                kWidth, kHeight, kNoiseSigma);
    std::printf(
        "%d thread%s on each side, median of %d interleaved runs after a warm-up, Veltrano level "
        "%s\n",
        options.threads, options.threads == 1 ? "" : "s", options.repetitions,
        LevelName(veltrano::ActiveImplForTesting()));
    std::printf("machine: %s\n", MachineSummary().c_str());
    const double copyMs = FrameCopyMs();
    std::printf("one copy of the 16-bit frame: %.3f ms\n", copyMs);
    std::printf(
        "memory: the peak a call allocates above what was allocated before it (fr = frames of the "
        "function's own pixel type)\n");
    std::printf(
        "verdict: ok within the target, ok (margin) within %.0f %% above it, MISS beyond\n\n",
        kMargin * 100.0);
    std::fflush(stdout);

    int failed = 0;
    std::vector<MeasuredEntry> measured;
    std::vector<Limit> limits;
    int pairs = 0;
    int missedPairs = 0;
    // On one thread the process should be busy for the whole of every call; entries where it
    // was not are marked, as other work on the machine took their processor for a while.
    int disturbed = 0;
    auto mark = [&](const Measured& m) {
        const bool suspect =
            options.threads == 1 && std::min(m.veltrano.cpuShare, m.peer.cpuShare) < 0.9;
        disturbed += suspect ? 1 : 0;
        return suspect ? " *" : "";
    };
    // Measures an entry and keeps its result; false, with the error in its line, when it failed.
    auto measure = [&](const Entry& e, int nameWidth) {
        measured.push_back({&e, Run(e, options.repetitions)});
        const Measured& m = measured.back().result;
        if (!m.ok) {
            std::printf("%-*s error: %s\n", nameWidth, e.name.c_str(), m.error.c_str());
            ++failed;
            return false;
        }
        const std::vector<Limit> own = LimitsOf(e, m, copyMs);
        limits.insert(limits.end(), own.begin(), own.end());
        return true;
    };

    if (!pairList.empty()) {
        std::printf("%-34s %-38s %8s %8s %6s %-12s %-20s %-9s %s\n", "Veltrano", "OpenCV", "V ms",
                    "CV ms", "ratio", "target", "V memory", "CV memory", "verdict");
    }
    for (const Entry* e : pairList) {
        if (!measure(*e, 34)) {
            continue;
        }
        const Measured& m = measured.back().result;
        ++pairs;
        const Verdict v = PairVerdict(*e, m);
        missedPairs += v == Verdict::Missed ? 1 : 0;
        char target[32];
        if (e->limitMs > 0.0) {
            std::snprintf(target, sizeof target, "%.2f <%.0f ms", e->targetRatio, e->limitMs);
        } else {
            std::snprintf(target, sizeof target, "%.2f", e->targetRatio);
        }
        std::printf("%-34s %-38s %8s %8s %6.2f %-12s %-20s %-9s %s%s\n", e->name.c_str(),
                    e->peer.c_str(), Ms(m.veltrano.medianMs).c_str(), Ms(m.peer.medianMs).c_str(),
                    m.veltrano.medianMs / m.peer.medianMs, target,
                    Memory(m.veltrano.peakExtraBytes, e->frameBytes).c_str(),
                    Memory(m.peer.peakExtraBytes, 0.0).c_str(), VerdictText(v), mark(m));
        std::fflush(stdout);
    }

    if (!soloList.empty()) {
        std::printf("%s%-44s %8s %8s %s\n", pairList.empty() ? "" : "\n", "no peer", "ms", "copies",
                    "memory");
    }
    for (const Entry* e : soloList) {
        if (!measure(*e, 44)) {
            continue;
        }
        const Measured& m = measured.back().result;
        std::printf("%-44s %8s %8.1f %s%s\n", e->name.c_str(), Ms(m.veltrano.medianMs).c_str(),
                    m.veltrano.medianMs / copyMs,
                    Memory(m.veltrano.peakExtraBytes, e->frameBytes).c_str(), mark(m));
        std::fflush(stdout);
    }
    double sumMs = 0.0;
    if (CorrectionsSum(registry, measured, sumMs)) {
        std::printf("%-44s %8s %8.1f\n", "corrections: slower gain + repair + outliers",
                    Ms(sumMs).c_str(), sumMs / copyMs);
        limits.push_back({"acquisition corrections, sum", sumMs, 10.0, "ms"});
    }

    if (disturbed > 0) {
        std::printf(
            "\n* the program had the processor for less than 90 %% of this entry's time: other "
            "work "
            "ran on the machine (%d entr%s)\n",
            disturbed, disturbed == 1 ? "y" : "ies");
    }
    // The unit again at the end: a machine whose speed drifted during the run shows here.
    const double copyAtEndMs = FrameCopyMs();
    if (std::abs(copyAtEndMs - copyMs) > kMargin * copyMs) {
        std::printf(
            "\nwarning: one copy of the frame took %.3f ms at the start and %.3f ms at the end: "
            "the "
            "machine was not steady\n",
            copyMs, copyAtEndMs);
    }

    int missedLimits = 0;
    if (!limits.empty()) {
        std::printf("\n%-44s %10s %10s %s\n", "limit", "measured", "limit", "verdict");
        for (const Limit& l : limits) {
            const Verdict v = Judge(l.value, l.limit);
            missedLimits += v == Verdict::Missed ? 1 : 0;
            char value[32], limit[32];
            std::snprintf(value, sizeof value, "%.1f %s", l.value, l.unit);
            std::snprintf(limit, sizeof limit, "%.0f %s", l.limit, l.unit);
            std::printf("%-44s %10s %10s %s\n", l.what.c_str(), value, limit, VerdictText(v));
        }
        std::printf("%d of %zu limits do not hold\n", missedLimits, limits.size());
    }
    if (!pairList.empty()) {
        std::printf("%d of %d pairs miss their target\n", missedPairs, pairs);
    }
    if (failed > 0) {
        std::printf("%d entr%s could not be measured (see the errors above)\n", failed,
                    failed == 1 ? "y" : "ies");
    }
    return failed > 0 ? 1 : 0;
}
