// Shared pieces of the suites of the reducing families (dot and cross products, norms, trace) and
// of Gaxpy: operands laid out in guarded memory at chosen byte offsets, element access, witnesses
// that a walk told each tabled rounding order apart from another plausible order, and the
// serial-limit and parallel checks every array member goes through.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

namespace testing_omk::red {

// An operand of `rows` x `cols` stored elements (a vector is one row) in a style.
inline Operand operandOf(char kind, bool array, int rows, int cols, Style st, int esize) {
    Operand o;
    o.kind = kind;
    o.array = array;
    o.rows = rows;
    o.cols = cols;
    layOut(o, st, esize);
    return o;
}

// Scalar results: one element per object, consecutive, with no stride of their own.
inline Operand scalarResults(bool array, int esize) {
    Operand o;
    o.kind = 'c';
    o.array = array;
    o.esize = esize;
    o.s0 = esize;
    o.s1 = o.s2 = 0;
    return o;
}

inline size_t bytesOf(const Operand& o, int count) {
    if (o.kind == 'c') return size_t(o.s0) * ((o.array ? count : 1) - 1) + o.esize;
    return extentOf(o, count);
}

inline Style styleAt(const std::vector<Style>& st, size_t i) { return st[std::min(i, st.size() - 1)]; }

// Reserves the sources and then the destination, operand i starting shifts[i] bytes past a
// 64-byte boundary of memory (0 where not given), and fills every source element from rng. The
// alignment is fixed because the contiguous dot product's order depends on it.
inline void place(Case& c, std::mt19937& rng, const std::vector<int>& shifts = {}) {
    c.arena = Arena{};
    auto reserve = [&](Operand& o, size_t i) {
        const int sh = i < shifts.size() ? shifts[i] : 0;
        o.base = c.arena.reserve(bytesOf(o, c.count) + sh) + sh;
    };
    for (size_t i = 0; i < c.srcs.size(); ++i) reserve(c.srcs[i], i);
    reserve(c.dst, c.srcs.size());
    c.arena.used += 64;  // room to move every operand onto the memory's own 64-byte boundaries
    c.arena.allocate();
    const size_t mis = uintptr_t(c.arena.at(0)) % 64, delta = mis == 0 ? 0 : 64 - mis;
    for (Operand& o : c.srcs) o.base += delta;
    c.dst.base += delta;
    for (const Operand& o : c.srcs)
        for (int k = 0; k < (o.array ? c.count : 1); ++k)
            for (int i = 0; i < o.rows; ++i)
                for (int j = 0; j < o.cols; ++j) {
                    unsigned char* p = c.arena.at(o.offset(k, i, j));
                    if (o.esize == 4) store<float>(p, float(sourceValue(rng)));
                    else store<double>(p, sourceValue(rng));
                }
    c.tables.clear();
    c.tables.reserve(8);
    c.args.args.clear();
}

inline void pushArg(Case& c, ArgKind k, int64_t v) {
    Arg a{k};
    a.i = v;
    c.args.args.push_back(a);
}
inline void pushPtr(Case& c, ArgKind k, void* p) {
    Arg a{k};
    a.ptr = p;
    c.args.args.push_back(a);
}

template <class T>
T elemOf(Case& c, const Operand& o, int k, int i, int j) {
    return load<T>(c.arena.at(o.offset(k, i, j)));
}

// Counts, per tabled order, the results on which it gave other bits than another plausible order
// of the same terms. A walk proves an order only where that count is not zero.
struct Witnesses {
    std::map<std::string, int> differing;
    void clear() { differing.clear(); }
    template <class T>
    void note(const std::string& key, T documented, T other) {
        int& n = differing[key];
        if (std::memcmp(&documented, &other, sizeof(T)) != 0) ++n;
    }
    void expectEvery(const std::vector<std::string>& keys) const {
        for (const std::string& k : keys) {
            const auto it = differing.find(k);
            EXPECT_TRUE(it != differing.end() && it->second > 0) << "no input told order " << k << " apart";
        }
    }
};

// ---- serial limits ----

// The work of a call from its width (or length), height and count.
using WorkFn = std::function<int64_t(int64_t, int64_t, int64_t)>;
using MakeAt = std::function<Case(const LimitShape&)>;

// With a budget of two threads, a call whose work is at most `limit` runs serially and never asks
// for the budget, and one above it goes to the driver, which asks; both give the reference bits.
// The shapes are the largest work below the limit, the limit itself and the smallest work above.
// `reachable` says that some shape has work equal to the limit (2*count never equals 2999).
inline void expectBoundary(const MakeAt& make, const Expected& expected, const WorkFn& work, int limit, bool matrix,
                           const std::string& what, bool reachable = true) {
    bool sawAt = false, sawAbove = false;
    for (const LimitShape& s : aroundLimit(work, limit, matrix)) {
        Case c = make(s);
        probe::Budget two(2);
        runAndVerify(c, expected);
        if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << what << " " << s.w << "x" << s.h << " count " << s.c;
            return;
        }
        if (s.work > limit) {
            sawAbove = true;
            EXPECT_GT(probe::calls(), 0) << what << " " << s.w << "x" << s.h << " count " << s.c << " work "
                                         << s.work << " limit " << limit << ": stayed serial";
        } else {
            sawAt |= s.work == limit;
            EXPECT_EQ(probe::calls(), 0) << what << " " << s.w << "x" << s.h << " count " << s.c << " work "
                                         << s.work << " limit " << limit << ": went to the driver";
        }
    }
    EXPECT_TRUE(sawAbove) << what;
    EXPECT_EQ(sawAt, reachable) << what << ": shape with work " << limit;
}

// ---- parallel runs ----

// The arena's bytes from the 64-byte boundary its operands were placed against.
inline std::vector<unsigned char> alignedBytes(Case& c) {
    const size_t mis = uintptr_t(c.arena.at(0)) % 64, delta = mis == 0 ? 0 : 64 - mis;
    return std::vector<unsigned char>(c.arena.bytes.begin() + delta, c.arena.bytes.end() - 64 + delta);
}

// `make` builds the same call each time (its own seeded generator). Budgets 2 and 3 reach the
// driver and give every byte of the serial run, which itself gives the reference bits.
inline void expectParallelMatchesSerial(const std::function<Case()>& make, const Expected& expected) {
    Case serial = make();
    {
        probe::Budget one(1);
        runAndVerify(serial, expected);
        if (testing::Test::HasFatalFailure()) return;
    }
    for (int budget : {2, 3}) {
        Case par = make();
        probe::Budget b(budget);
        runAndVerify(par, expected);
        if (testing::Test::HasFatalFailure()) return;
        ASSERT_GT(probe::calls(), 0) << par.m->name << ": did not reach the driver";
        ASSERT_TRUE(alignedBytes(par) == alignedBytes(serial)) << par.m->name << " budget " << budget;
    }
}

}  // namespace testing_omk::red
