// The comparison program's measuring and judging: options, medians, verdicts, the interleaved
// protocol, the memory accounting and the corrections' sum. No test looks at a duration.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "alloc_tracker.h"
#include "harness.h"
#include "host.h"

namespace compare {
namespace {

// Keeps the compiler from eliding an allocation whose block is never used.
void* volatile g_sink = nullptr;

constexpr long long kMiB = 1024 * 1024;

TEST(CompareOptions, DefaultsAndEachOption) {
    Options o;
    std::string error;
    ASSERT_TRUE(ParseOptions({}, o, error));
    EXPECT_EQ(o.repetitions, 7);
    EXPECT_EQ(o.threads, 1);
    EXPECT_TRUE(o.filter.empty());
    EXPECT_FALSE(o.list);
    EXPECT_FALSE(o.agreement);

    ASSERT_TRUE(ParseOptions(
        {"--filter", "^Median", "--reps", "3", "--threads", "2", "--list", "--agreement"}, o,
        error))
        << error;
    EXPECT_EQ(o.filter, "^Median");
    EXPECT_EQ(o.repetitions, 3);
    EXPECT_EQ(o.threads, 2);
    EXPECT_TRUE(o.list);
    EXPECT_TRUE(o.agreement);

    Options h;
    ASSERT_TRUE(ParseOptions({"-h"}, h, error));
    EXPECT_TRUE(h.help);
}

TEST(CompareOptions, RefusesWhatItCannotUse) {
    const std::vector<std::vector<std::string>> bad = {
        {"--reps"},                 // value missing
        {"--reps", "0"},            // below 1
        {"--reps", "-3"},           // sign
        {"--threads", "two"},       // not a number
        {"--threads", "2x"},        // trailing text
        {"--reps", "99999999999"},  // far too many
        {"--filter", "(unclosed"},  // not a regular expression
        {"--verbose"},              // unknown
        {"ThresholdBinary"},        // a bare word is not a filter
    };
    for (const auto& args : bad) {
        Options o;
        std::string error;
        EXPECT_FALSE(ParseOptions(args, o, error)) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
}

TEST(CompareOptions, FilterIsASearchNotAFullMatch) {
    Entry e;
    e.name = "Median_Blur 16U r2";
    EXPECT_TRUE(Selected(e, ""));
    EXPECT_TRUE(Selected(e, "16U"));
    EXPECT_TRUE(Selected(e, "^Median.*r2$"));
    EXPECT_TRUE(Selected(e, "Box|Median"));
    EXPECT_FALSE(Selected(e, "^16U"));
    EXPECT_FALSE(Selected(e, "8U"));
}

TEST(CompareStatistics, Median) {
    EXPECT_EQ(Median({5.0}), 5.0);
    EXPECT_EQ(Median({9.0, 1.0, 5.0}), 5.0);
    EXPECT_EQ(Median({4.0, 1.0, 3.0, 2.0}), 2.5);
    EXPECT_EQ(Median({1.0, 1000.0, 2.0, 3.0, 2.0}), 2.0);  // one outlier does not move it
    EXPECT_TRUE(std::isnan(Median({})));
}

TEST(CompareVerdicts, MarginOfTenPercent) {
    EXPECT_EQ(Judge(0.5, 1.0), Verdict::Met);
    EXPECT_EQ(Judge(1.0, 1.0), Verdict::Met);
    EXPECT_EQ(Judge(1.05, 1.0), Verdict::WithinMargin);
    EXPECT_EQ(Judge(1.099, 1.0), Verdict::WithinMargin);
    EXPECT_EQ(Judge(1.11, 1.0), Verdict::Missed);
    EXPECT_EQ(Judge(160.0, 150.0), Verdict::WithinMargin);
    EXPECT_EQ(Judge(166.0, 150.0), Verdict::Missed);
    EXPECT_EQ(Judge(std::nan(""), 1.0), Verdict::Missed);
    EXPECT_EQ(Worse(Verdict::Met, Verdict::WithinMargin), Verdict::WithinMargin);
    EXPECT_EQ(Worse(Verdict::Missed, Verdict::Met), Verdict::Missed);
    EXPECT_STREQ(VerdictText(Verdict::Missed), "MISS");
}

TEST(CompareVerdicts, PairJudgedOnRatioAndAbsoluteLimit) {
    Entry chain;
    chain.targetRatio = 0.5;
    chain.limitMs = 150.0;
    Measured m;
    m.veltrano.medianMs = 140.0;
    m.peer.medianMs = 300.0;
    EXPECT_EQ(PairVerdict(chain, m), Verdict::Met);
    m.veltrano.medianMs = 200.0;  // ratio 0.67 and above 150 ms
    m.peer.medianMs = 300.0;
    EXPECT_EQ(PairVerdict(chain, m), Verdict::Missed);
    m.veltrano.medianMs = 170.0;  // ratio 0.34 is fine, but 170 ms is beyond 150 ms + 10 %
    m.peer.medianMs = 500.0;
    EXPECT_EQ(PairVerdict(chain, m), Verdict::Missed);
    m.veltrano.medianMs = 155.0;  // both fine, the time only within the margin
    EXPECT_EQ(PairVerdict(chain, m), Verdict::WithinMargin);

    Entry plain;  // target 1.0, no absolute limit
    m.veltrano.medianMs = 1000.0;
    m.peer.medianMs = 1000.0;
    EXPECT_EQ(PairVerdict(plain, m), Verdict::Met);
}

TEST(CompareProtocol, WarmUpThenInterleavedWithBeforeEachCall) {
    std::string trace;
    Sides sides{[&] { return trace += 'V', true; }, [&] { return trace += 'P', true; },
                [&] { trace += 'b'; }};
    const Measured m = Measure(sides, 3);
    ASSERT_TRUE(m.ok) << m.error;
    // One warm-up round, then three timed rounds, each call after its own untimed preparation.
    EXPECT_EQ(trace, "bVbPbVbPbVbPbVbP");
    EXPECT_GE(m.veltrano.medianMs, 0.0);
    EXPECT_GE(m.peer.medianMs, 0.0);
}

TEST(CompareProtocol, WithoutPeerOnlyVeltranoRuns) {
    std::string trace;
    Sides sides{[&] { return trace += 'V', true; }, {}, {}};
    const Measured m = Measure(sides, 4);
    ASSERT_TRUE(m.ok);
    EXPECT_EQ(trace, "VVVVV");
    EXPECT_EQ(m.peer.medianMs, 0.0);
}

TEST(CompareProtocol, FailureOrExceptionStopsTheEntry) {
    int calls = 0;
    Sides failing{[&] { return ++calls < 3; }, [] { return true; }, {}};
    Measured m = Measure(failing, 7);
    EXPECT_FALSE(m.ok);
    EXPECT_EQ(calls, 3);
    EXPECT_NE(m.error.find("Veltrano"), std::string::npos) << m.error;

    Sides peerFails{[] { return true; }, [] { return false; }, {}};
    m = Measure(peerFails, 7);
    EXPECT_FALSE(m.ok);
    EXPECT_NE(m.error.find("OpenCV"), std::string::npos) << m.error;

    Sides throwing{[] { return true; }, []() -> bool { throw std::runtime_error("bad size"); }, {}};
    m = Measure(throwing, 7);
    EXPECT_FALSE(m.ok);
    EXPECT_EQ(m.error, "bad size");
}

TEST(CompareAgreement, OneCallOfEachSideThenTheirDifference) {
    std::string trace;
    Sides sides{[&] { return trace += 'V', true; }, [&] { return trace += 'P', true; },
                [&] { trace += 'b'; }, [&] { return trace += 'd', 0.5; }};
    double difference = -1.0;
    std::string error;
    ASSERT_TRUE(Agree(sides, difference, error)) << error;
    EXPECT_EQ(trace, "bVbPd");
    EXPECT_EQ(difference, 0.5);

    sides.difference = nullptr;  // nothing to compare
    EXPECT_FALSE(Agree(sides, difference, error));
    EXPECT_FALSE(error.empty());

    Sides peerFails{[] { return true; }, [] { return false; }, {}, [] { return 0.0; }};
    EXPECT_FALSE(Agree(peerFails, difference, error));
    EXPECT_NE(error.find("OpenCV"), std::string::npos) << error;

    Sides throwing{[]() -> bool { throw std::runtime_error("no memory"); },
                   [] { return true; },
                   {},
                   [] { return 0.0; }};
    EXPECT_FALSE(Agree(throwing, difference, error));
    EXPECT_EQ(error, "no memory");
}

TEST(CompareMemory, PeakAboveWhatWasHeldBefore) {
    // Held before the call and freed inside it: no extra memory.
    void* held = std::malloc(16 * kMiB);
    g_sink = held;
    Sides sides{[&] {
                    std::free(held);
                    held = nullptr;
                    return true;
                },
                [] {
                    // Two blocks at once, then a realloc that grows one of them.
                    g_sink = std::malloc(3 * kMiB);
                    void* a = g_sink;
                    void* b = std::malloc(2 * kMiB);
                    g_sink = b;
                    void* c = std::realloc(b, 5 * kMiB);
                    g_sink = c;
                    std::free(a);
                    std::free(c);
                    return true;
                },
                [&] {
                    if (held == nullptr) held = std::malloc(16 * kMiB);
                    g_sink = held;
                }};
    const Measured m = Measure(sides, 2);
    ASSERT_TRUE(m.ok);
    EXPECT_LT(m.veltrano.peakExtraBytes, kMiB / 4);
    // 3 MiB + 5 MiB at the peak, more if realloc had to copy (old and new block together).
    EXPECT_GE(m.peer.peakExtraBytes, 8 * kMiB);
    EXPECT_LE(m.peer.peakExtraBytes, 11 * kMiB);
    std::free(held);
}

TEST(CompareMemory, CountsOperatorNewAndAlignedAllocations) {
    Sides sides{[] {
                    auto* v = new std::vector<double>(kMiB / 8 * 6);  // 6 MiB
                    g_sink = v->data();
                    delete v;
                    return true;
                },
                [] {
                    void* p = nullptr;
                    if (posix_memalign(&p, 64, 4 * kMiB) != 0) return false;
                    g_sink = p;
                    void* q = aligned_alloc(4096, 2 * kMiB);
                    g_sink = q;
                    std::free(p);
                    std::free(q);
                    return true;
                },
                {}};
    const Measured m = Measure(sides, 1);
    ASSERT_TRUE(m.ok);
    EXPECT_GE(m.veltrano.peakExtraBytes, 6 * kMiB);
    EXPECT_LT(m.veltrano.peakExtraBytes, 7 * kMiB);
    EXPECT_GE(m.peer.peakExtraBytes, 6 * kMiB);
    EXPECT_LT(m.peer.peakExtraBytes, 7 * kMiB);
    // Everything was given back: the running total is where it was.
    const long long before = alloc::Current();
    g_sink = std::calloc(kMiB, 1);
    EXPECT_GE(alloc::Current() - before, kMiB);
    std::free(g_sink);
    EXPECT_EQ(alloc::Current(), before);
}

TEST(CompareCorrections, SlowestGainPlusEverySteps) {
    std::vector<Entry> registry(5);
    registry[0].correction = Correction::GainChoice;
    registry[1].correction = Correction::GainChoice;
    registry[2].correction = Correction::Step;
    registry[3].correction = Correction::Step;
    registry[4].correction = Correction::None;
    auto result = [](double ms) {
        Measured m;
        m.veltrano.medianMs = ms;
        return m;
    };
    std::vector<MeasuredEntry> measured = {{&registry[0], result(1.0)},
                                           {&registry[1], result(3.0)},
                                           {&registry[2], result(4.0)},
                                           {&registry[3], result(0.5)},
                                           {&registry[4], result(100.0)}};
    double sum = 0.0;
    ASSERT_TRUE(CorrectionsSum(registry, measured, sum));
    EXPECT_DOUBLE_EQ(sum, 3.0 + 4.0 + 0.5);

    // A step filtered out, or one that failed, leaves no sum to give.
    std::vector<MeasuredEntry> partial(measured.begin(), measured.begin() + 3);
    EXPECT_FALSE(CorrectionsSum(registry, partial, sum));
    measured[3].result.ok = false;
    EXPECT_FALSE(CorrectionsSum(registry, measured, sum));
}

TEST(CompareLimits, CopiesForAnyEntryMsOnlyWithoutPeer) {
    Measured m;
    m.veltrano.medianMs = 3.0;
    Entry pair;
    pair.name = "normalize_16U";
    pair.peer = "normalize";
    pair.limitCopies = 5.0;
    pair.limitMs = 150.0;  // judged with the ratio, not listed
    std::vector<Limit> limits = LimitsOf(pair, m, 0.5);
    ASSERT_EQ(limits.size(), 1u);
    EXPECT_EQ(limits[0].what, "normalize_16U");
    EXPECT_DOUBLE_EQ(limits[0].value, 6.0);
    EXPECT_DOUBLE_EQ(limits[0].limit, 5.0);
    EXPECT_STREQ(limits[0].unit, "copies");

    Entry solo;
    solo.name = "AdaptiveContrastEnhancement";
    solo.limitMs = 10.0;
    limits = LimitsOf(solo, m, 0.5);
    ASSERT_EQ(limits.size(), 1u);
    EXPECT_DOUBLE_EQ(limits[0].value, 3.0);
    EXPECT_STREQ(limits[0].unit, "ms");

    EXPECT_TRUE(LimitsOf(Entry{}, m, 0.5).empty());
    m.ok = false;  // a failed measurement holds no limit, nor misses one
    EXPECT_TRUE(LimitsOf(pair, m, 0.5).empty());
}

TEST(CompareRegistry, RefusesEntriesThatCannotRunOrBeTold) {
    auto entry = [](const char* name, const char* peer) {
        Entry e;
        e.name = name;
        e.peer = peer;
        e.frameBytes = 100.0;
        e.setup = [] { return Sides{}; };
        return e;
    };
    std::vector<Entry> good = {entry("a", "x"), entry("b", "")};
    EXPECT_EQ(CheckRegistry(good), "");

    std::vector<Entry> twice = {entry("a", "x"), entry("a", "")};
    EXPECT_NE(CheckRegistry(twice).find("twice"), std::string::npos);

    std::vector<Entry> bad = {entry("a", "x")};
    bad[0].setup = nullptr;
    EXPECT_NE(CheckRegistry(bad), "");
    bad = {entry("a", "x")};
    bad[0].targetRatio = 0.0;
    EXPECT_NE(CheckRegistry(bad), "");
    bad = {entry("a", "")};
    bad[0].targetRatio = 0.0;  // no peer, no ratio to judge
    EXPECT_EQ(CheckRegistry(bad), "");
    bad[0].frameBytes = 0.0;
    EXPECT_NE(CheckRegistry(bad), "");
    bad = {entry("", "x")};
    EXPECT_NE(CheckRegistry(bad), "");
}

TEST(CompareHost, TempDirIsFreshAndRemovedWithItsContents) {
    std::string path;
    {
        TempDir dir;
        path = dir.path();
        ASSERT_FALSE(path.empty());
        EXPECT_TRUE(std::filesystem::is_empty(path));
        std::filesystem::create_directories(path + "/Correct/Default");
        std::ofstream(path + "/Correct/Default/x.gn") << "data";
        TempDir other;
        EXPECT_NE(other.path(), path);
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace compare
