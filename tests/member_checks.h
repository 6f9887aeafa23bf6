// Verification shared by the family suites: a call's result against a reference, the guard bytes
// around it, and the walk of every argument fault through a member's documented check order.
#pragma once
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "operands.h"

namespace testing_omk {

// Reference value of destination element (i, j) of object k (stored position; a vector is row 0).
using Expected = std::function<double(Case&, int k, int i, int j)>;

// Calls the case and checks the status, every destination element bit for bit against `expected`
// (rounded to the element type), and that no other byte of the arena and no pointer table changed.
inline void runAndVerify(Case& c, const Expected& expected, OmkStatus want = omkStsOk) {
    const std::vector<unsigned char> before = c.arena.bytes;
    const auto tablesBefore = c.tables;
    ASSERT_EQ(c.m->call(c.args), want) << c.m->name;
    ASSERT_EQ(c.tables, tablesBefore) << c.m->name << ": a pointer table changed";
    std::vector<bool> isDst(before.size(), false);
    if (want == omkStsOk) {
        for (int k = 0; k < c.objects(); ++k)
            for (int i = 0; i < c.dst.rows; ++i)
                for (int j = 0; j < c.dst.cols; ++j) {
                    const size_t off = c.dst.offset(k, i, j);
                    const double w = expected(c, k, i, j);
                    if (c.m->esize == 4) {
                        const float got = load<float>(c.arena.at(off)), wf = float(w);
                        ASSERT_EQ(0, std::memcmp(&got, &wf, 4))
                            << c.m->name << " object " << k << " (" << i << "," << j << "): " << got << " vs " << wf;
                    } else {
                        const double got = load<double>(c.arena.at(off));
                        ASSERT_EQ(0, std::memcmp(&got, &w, 8))
                            << c.m->name << " object " << k << " (" << i << "," << j << "): " << got << " vs " << w;
                    }
                    std::fill_n(isDst.begin() + off, c.m->esize, true);
                }
    }
    for (size_t b = 0; b < before.size(); ++b)
        if (!isDst[b]) ASSERT_EQ(before[b], c.arena.bytes[b]) << c.m->name << ": byte " << b << " written";
}

// ---- argument faults ----
// Steps of a check order: N null, C count, S size, A size agreement, T stride, R ROI shift.
struct Fault {
    size_t arg;
    Arg bad;
    char step;
};

inline char stepOf(ArgKind k) {
    switch (k) {
    case ArgKind::SrcPtr: case ArgKind::DstPtr: case ArgKind::ValPtr: return 'N';
    case ArgKind::Count: return 'C';
    case ArgKind::Width: case ArgKind::Height: case ArgKind::Len: return 'S';
    case ArgKind::Stride: return 'T';
    case ArgKind::Roi: return 'R';
    default: return 0;
    }
}

// A lower-case step is the same test made later in a member's order (a destination's ROI shift or
// strides tested after the source's).
inline OmkStatus statusOf(char step) {
    switch (std::toupper(static_cast<unsigned char>(step))) {
    case 'N': return omkStsNullPtr;
    case 'C': return omkStsBadCount;
    case 'S': return omkStsBadSize;
    case 'A': return omkStsSizeMismatch;
    case 'T': return omkStsBadStride;
    default: return omkStsBadRoiShift;
    }
}

// Every way each argument can be wrong on its own.
inline std::vector<Fault> faultsOf(const Case& c) {
    std::vector<Fault> out;
    const int e = c.m->esize;
    for (size_t i = 0; i < c.args.args.size(); ++i) {
        const Arg& a = c.args.args[i];
        const char step = stepOf(a.kind);
        std::vector<int64_t> bad;
        switch (step) {
        case 'N': { Arg x = a; x.ptr = nullptr; out.push_back({i, x, step}); continue; }
        case 'C': case 'S': bad = {0, -1}; break;
        case 'T': bad = {0, -e, e + e / 2, e / 2}; break;
        case 'R': bad = {-e, e / 2, -e / 2}; break;
        default: continue;
        }
        for (int64_t v : bad) { Arg x = a; x.i = v; out.push_back({i, x, step}); }
    }
    return out;
}

// Each single fault gives its step's status and writes nothing; of two faults in different steps
// the one earlier in `order` wins.
inline void walkFaults(Case& c, const std::string& order, const std::vector<Fault>& faults, const Expected& expected) {
    const std::vector<Arg> good = c.args.args;
    for (const Fault& f : faults) {
        ASSERT_NE(order.find(f.step), std::string::npos) << c.m->name << " has an unexpected check step " << f.step;
        c.args.args = good;
        c.args.args[f.arg] = f.bad;
        runAndVerify(c, expected, statusOf(f.step));
        if (testing::Test::HasFatalFailure()) { ADD_FAILURE() << "single fault at argument " << f.arg; return; }
    }
    for (const Fault& f : faults)
        for (const Fault& g : faults) {
            if (f.step == g.step || f.arg == g.arg) continue;
            c.args.args = good;
            c.args.args[f.arg] = f.bad;
            c.args.args[g.arg] = g.bad;
            const char first = order.find(f.step) < order.find(g.step) ? f.step : g.step;
            ASSERT_EQ(c.m->call(c.args), statusOf(first))
                << c.m->name << ": faults at arguments " << f.arg << " and " << g.arg << ", order " << order;
        }
    c.args.args = good;
}

// Objects that run in each slice of the driver, for `count` objects over a team of `team`: the
// first object and the length of the slice that holds `object`.
inline std::pair<int, int> sliceOf(int count, int team, int object) {
    const int chunk = count / team, rem = count % team;
    for (int t = 0; t < team; ++t) {
        const int m = t < rem ? chunk + 1 : chunk, first = t < rem ? (chunk + 1) * t : (chunk + 1) * rem + (t - rem) * chunk;
        if (object >= first && object < first + m) return {first, m};
    }
    return {0, 0};
}

// ---- serial limits ----
struct LimitShape { int w, h, c; int64_t work; };

// Shapes (width and height up to 8, or lengths up to 64, and counts) whose work is the largest
// below the limit, exactly the limit (when some shape gives it), and the smallest above it.
inline std::vector<LimitShape> aroundLimit(const std::function<int64_t(int64_t, int64_t, int64_t)>& work, int limit,
                                           bool matrix) {
    LimitShape below{0, 0, 0, -1}, at{0, 0, 0, -1}, above{0, 0, 0, INT64_MAX};
    for (int w = 1; w <= (matrix ? 8 : 64); ++w)
        for (int h = 1; h <= (matrix ? 8 : 1); ++h)
            for (int c = 1; c <= 6000; ++c) {
                const int64_t wk = work(w, h, c);
                if (wk < limit && wk > below.work) below = {w, h, c, wk};
                if (wk == limit && at.work < 0) at = {w, h, c, wk};
                if (wk > limit && wk < above.work) above = {w, h, c, wk};
                if (wk > limit) break;
            }
    std::vector<LimitShape> out = {below, above};
    if (at.work >= 0) out.push_back(at);
    return out;
}

// A call far above every serial limit: 2503 objects (not a multiple of 2, 3 or 4) of 3x4
// matrices or 16-element vectors. Its buffers move with it, so its pointer tables stay valid.
inline Case largeCase(const Member& m, std::mt19937::result_type seed, const std::vector<Style>& styles) {
    std::mt19937 rng(seed);
    Case c;
    c.m = &m;
    c.width = m.isMatrix() ? 4 : 16;
    c.height = m.isMatrix() ? 3 : 1;
    c.count = 2503;  // above every limit, not a multiple of 2, 3 or 4
    build(c, styles, rng);
    return c;
}

}  // namespace testing_omk
