// Compare-exchange networks of the fast median filter, built at compile time.
//
// A network is a fixed list of exchanges; each puts the smaller of two wires into the first and
// the larger into the second. Whatever the values, the same wires are compared, so many pixels
// run one network side by side in the lanes of a vector. The networks here are made of Batcher's
// odd-even merges and then pruned to the exchanges that can reach the wires the caller reads, so
// every wire they deliver holds exactly the element of its rank: a network that sorts every input
// of zeros and ones correctly sorts every input, and pruning removes only exchanges whose results
// nobody reads (the tests check each network on all inputs of zeros and ones).
//
// Two kinds are used, for a window of side k = 2r + 1 (k = 3, 5, 7):
//   - SortNetwork(k): sorts k wires. Each row of the window is sorted once along x.
//   - CoreNetwork(k): k - 1 sorted rows of k (wire row * k + i holds the i-th smallest of row
//     `row`) in, the elements of ranks t - k .. t of those k (k - 1) values out, in ascending
//     order, where t = k * k / 2 is the rank of the median in the full window. Two vertically
//     adjacent windows share k - 1 rows; the median of each is among these k + 1 candidates and
//     the k values of its own extra row (see the merge in the kernel).
#pragma once

#include <cstdint>

namespace veltrano {
namespace median_net {

// Which results of an exchange are read later: the minimum (into wire lo), the maximum (into wire
// hi) or both. An exchange whose other result is dead costs one instruction instead of two.
enum : uint8_t { kKeepMin = 1, kKeepMax = 2, kKeepBoth = 3 };

struct Exchange {
    uint8_t lo = 0;
    uint8_t hi = 0;
    uint8_t keep = kKeepBoth;
};

constexpr int kMaxWires = 64;
constexpr int kMaxSteps = 256;

struct Network {
    Exchange step[kMaxSteps] = {};
    int size = 0;
    uint8_t out[kMaxWires] = {};  // the result wires, in ascending rank
    int outCount = 0;
    int wires = 0;

    constexpr void add(int lo, int hi) {
        step[size].lo = static_cast<uint8_t>(lo);
        step[size].hi = static_cast<uint8_t>(hi);
        step[size].keep = kKeepBoth;
        ++size;
    }
};

struct WireList {
    uint8_t w[kMaxWires] = {};
    int n = 0;
};

// Batcher's merge of two sorted halves of 2p positions, restricted to the positions that hold real
// wires. The first list is right-aligned in the lower half and the second left-aligned in the
// upper half; the empty positions below hold minus infinity and those above plus infinity, so
// no exchange ever moves them and every exchange that touches one can be left out.
struct MergeLayout {
    const WireList* a;
    const WireList* b;
    int p;
    constexpr int wireAt(int v) const {
        if (v < p - a->n) return -1;
        if (v < p) return a->w[v - (p - a->n)];
        if (v < p + b->n) return b->w[v - p];
        return -1;
    }
};

constexpr void AddIfReal(Network& net, const MergeLayout& m, int i, int j) {
    const int wi = m.wireAt(i);
    const int wj = m.wireAt(j);
    if (wi >= 0 && wj >= 0) net.add(wi, wj);
}

constexpr void OddEvenMerge(Network& net, const MergeLayout& m, int lo, int n, int r) {
    const int step = r * 2;
    if (step < n) {
        OddEvenMerge(net, m, lo, n, step);
        OddEvenMerge(net, m, lo + r, n, step);
        for (int i = lo + r; i + r < lo + n; i += step) AddIfReal(net, m, i, i + r);
    } else {
        AddIfReal(net, m, lo, lo + r);
    }
}

// Merges sorted lists a and b; the merged order is a's wires followed by b's.
constexpr WireList Merge(Network& net, const WireList& a, const WireList& b) {
    WireList out;
    for (int i = 0; i < a.n; ++i) out.w[out.n++] = a.w[i];
    for (int i = 0; i < b.n; ++i) out.w[out.n++] = b.w[i];
    if (a.n == 0 || b.n == 0) return out;
    int p = 1;
    while (p < a.n || p < b.n) p *= 2;
    const MergeLayout m{&a, &b, p};
    OddEvenMerge(net, m, 0, 2 * p, 1);
    return out;
}

// Merges the lists pairwise, level by level, until one sorted list is left.
constexpr WireList MergeAll(Network& net, WireList* lists, int count) {
    while (count > 1) {
        int next = 0;
        for (int i = 0; i + 1 < count; i += 2) lists[next++] = Merge(net, lists[i], lists[i + 1]);
        if (count % 2 == 1) lists[next++] = lists[count - 1];
        count = next;
    }
    return lists[0];
}

// Keeps only the exchanges that can influence the result wires and marks which of their outputs
// are read.
constexpr void Prune(Network& net) {
    bool live[kMaxWires] = {};
    for (int i = 0; i < net.outCount; ++i) live[net.out[i]] = true;
    bool keep[kMaxSteps] = {};
    for (int s = net.size - 1; s >= 0; --s) {
        Exchange& e = net.step[s];
        const uint8_t k =
            static_cast<uint8_t>((live[e.lo] ? kKeepMin : 0) | (live[e.hi] ? kKeepMax : 0));
        if (k == 0) continue;
        keep[s] = true;
        e.keep = k;
        live[e.lo] = live[e.hi] = true;
    }
    int n = 0;
    for (int s = 0; s < net.size; ++s)
        if (keep[s]) net.step[n++] = net.step[s];
    net.size = n;
}

constexpr Network SortNetwork(int k) {
    Network net;
    WireList lists[kMaxWires];
    for (int i = 0; i < k; ++i) {
        lists[i].w[0] = static_cast<uint8_t>(i);
        lists[i].n = 1;
    }
    const WireList sorted = MergeAll(net, lists, k);
    for (int i = 0; i < k; ++i) net.out[i] = sorted.w[i];
    net.outCount = k;
    net.wires = k;
    Prune(net);
    return net;
}

constexpr Network CoreNetwork(int k) {
    Network net;
    WireList lists[kMaxWires];
    for (int row = 0; row < k - 1; ++row) {
        for (int i = 0; i < k; ++i) lists[row].w[i] = static_cast<uint8_t>(row * k + i);
        lists[row].n = k;
    }
    const WireList sorted = MergeAll(net, lists, k - 1);
    const int t = k * k / 2;
    for (int q = t - k; q <= t; ++q) net.out[net.outCount++] = sorted.w[q];
    net.wires = k * (k - 1);
    Prune(net);
    return net;
}

template <int K>
struct Networks {
    static_assert(K == 3 || K == 5 || K == 7, "networks exist for windows of side 3, 5 and 7");
    static constexpr Network sort = SortNetwork(K);
    static constexpr Network core = CoreNetwork(K);  // used for 5 and 7; side 3 has its own formula
};

}  // namespace median_net
}  // namespace veltrano
