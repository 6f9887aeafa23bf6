// Calls of the decompositions and their back substitutions, laid out in guarded memory in every
// description: the matrix operand (one matrix or an array), the LU index array right after it, the
// right-hand side vectors of the solvers, and the destination. A test fills the inputs, writes the
// whole arena as the call must leave it (`want`: every destination element and index entry the
// call writes, every other byte as before), calls, and compares all bytes. The walks shared by the
// LU and Cholesky suites (argument faults, serial limits, parallel runs) are here too. Families
// with a caller buffer and an argument order of their own (Det, Invert, QR) lay out their calls
// with buildCall.
#pragma once
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

namespace testing_omk {

// The operands of a member, from its group: m, ma (decompositions), mv, mva, mava (solvers).
struct SolverKinds {
    bool decomp, matrixArray, vectorArray, index;
};
inline SolverKinds kindsOf(const Member& m) {
    const std::string& g = m.group;
    return {g == "m" || g == "ma", g == "ma" || g == "mava", g == "mva" || g == "mava", m.op.rfind("LU", 0) == 0};
}

// The destination may be laid over one of the sources (same positions, same strides).
enum class Alias { None, DstOnMatrix, DstOnVector };

struct SolverCase {
    Case c;  // c.srcs[0] the matrix operand, c.srcs[1] the right-hand side (solvers), c.dst
    int n = 1;
    SolverKinds kinds{};
    size_t index = 0;                 // arena offset of the index array (LU)
    std::vector<unsigned char> want;  // the arena as the call must leave it
    size_t buffer = 0, bufferBytes = 0;  // the caller's buffer (buildCall), if the call takes one
    bool scratchBuffer = false;          // its bytes are the call's to use: not compared

    const Member& member() const { return *c.m; }
    const Operand& matrix() const { return c.srcs[0]; }
    const Operand& rhs() const { return c.srcs[1]; }
    int matrices() const { return kinds.matrixArray ? c.count : 1; }
    int vectors() const { return kinds.vectorArray ? c.count : 1; }
    // Matrix (and index slice) that solves vector k.
    int matrixFor(int k) const { return kinds.matrixArray ? k : 0; }
    size_t indexOffset(int slice, int i) const { return index + (size_t(slice) * n + i) * sizeof(int); }
};

// Lays out a call of `m` of order n over `count` objects: styles for the matrix, the right-hand
// side and the destination (the last one repeats; a decomposition has matrix and destination).
// Every byte starts as the arena's marker; the test fills the inputs.
inline void buildSolver(SolverCase& sc, const Member& m, int n, int count, const std::vector<Style>& styles,
                        Alias alias = Alias::None) {
    sc = SolverCase{};
    Case& c = sc.c;
    c.m = &m;
    c.width = c.height = n;
    c.count = count;
    sc.n = n;
    sc.kinds = kindsOf(m);
    auto style = [&](size_t i) { return styles[std::min(i, styles.size() - 1)]; };
    auto operand = [&](char kind, bool array, Style st) {
        Operand o;
        o.kind = kind;
        o.array = array;
        o.rows = kind == 'v' ? 1 : n;
        o.cols = n;
        layOut(o, st, m.esize);
        return o;
    };
    c.srcs.push_back(operand('m', sc.kinds.matrixArray, style(0)));
    if (!sc.kinds.decomp) c.srcs.push_back(operand('v', sc.kinds.vectorArray, style(1)));
    c.dst = sc.kinds.decomp ? operand('m', sc.kinds.matrixArray, style(1))
                            : operand('v', sc.kinds.vectorArray, style(2));

    for (Operand& o : c.srcs) o.base = c.arena.reserve(extentOf(o, count));
    if (sc.kinds.index) sc.index = c.arena.reserve(sizeof(int) * size_t(n) * sc.matrices());
    if (alias == Alias::DstOnMatrix) c.dst = c.srcs[0];
    else if (alias == Alias::DstOnVector) c.dst = c.srcs[1];
    else c.dst.base = c.arena.reserve(extentOf(c.dst, count));
    c.arena.allocate();

    // Matrix block, index array, right-hand side block, destination block, widthHeight, count.
    c.tables.reserve(4);
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    // The index array is a plain pointer in every description: checked in the null step only.
    if (sc.kinds.index) {
        Arg x{sc.kinds.decomp ? ArgKind::DstPtr : ArgKind::SrcPtr};
        x.ptr = c.arena.at(sc.index);
        c.args.args.push_back(x);
    }
    if (!sc.kinds.decomp) appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    appendOperand(c, c.dst, ArgKind::DstPtr);
    Arg len{ArgKind::Len};
    len.i = n;
    c.args.args.push_back(len);
    if (m.hasArray()) {
        Arg cnt{ArgKind::Count};
        cnt.i = count;
        c.args.args.push_back(cnt);
    }
}

// Calls of families that take a caller buffer and have an argument order of their own, written as
// a string of blocks: 'M' the matrix operand, 'B' the buffer (a plain pointer, checked for null
// only), 'V' the right-hand side, 'D' the destination, 'R' a destination of one element per object
// in a plain run (object k at element k), 'n' the order, 'w' width, 'h' height, 'c' count (array
// members only). The matrix has `height` rows of `width` (sc.n = width); a right-hand side has
// `height` elements, a solution `width`, a decomposition the matrix's shape.
inline void buildCall(SolverCase& sc, const Member& m, const std::string& plan, int width, int height, int count,
                      const std::vector<Style>& styles, size_t bufferBytes, Alias alias = Alias::None) {
    sc = SolverCase{};
    Case& c = sc.c;
    c.m = &m;
    c.width = width;
    c.height = height;
    c.count = count;
    sc.n = width;
    sc.kinds = kindsOf(m);
    auto style = [&](size_t i) { return styles[std::min(i, styles.size() - 1)]; };
    auto operand = [&](char kind, bool array, int rows, int cols, Style st) {
        Operand o;
        o.kind = kind;
        o.array = array;
        o.rows = rows;
        o.cols = cols;
        layOut(o, st, m.esize);
        return o;
    };
    const bool rhs = plan.find('V') != std::string::npos;
    c.srcs.push_back(operand('m', sc.kinds.matrixArray, height, width, style(0)));
    if (rhs) c.srcs.push_back(operand('v', sc.kinds.vectorArray, 1, height, style(1)));
    if (plan.find('R') != std::string::npos) {
        c.dst.kind = 'v';
        c.dst.array = m.hasArray();
        c.dst.esize = m.esize;
        c.dst.s0 = c.dst.s2 = m.esize;
    } else {
        c.dst = sc.kinds.decomp ? operand('m', sc.kinds.matrixArray, height, width, style(1))
                                : operand('v', sc.kinds.vectorArray, 1, width, style(2));
    }
    for (Operand& o : c.srcs) o.base = c.arena.reserve(extentOf(o, count));
    sc.bufferBytes = bufferBytes;
    sc.buffer = c.arena.reserve(bufferBytes);
    if (alias == Alias::DstOnMatrix) c.dst = c.srcs[0];
    else if (alias == Alias::DstOnVector) c.dst = c.srcs[1];
    else c.dst.base = c.arena.reserve(extentOf(c.dst, count));
    c.arena.allocate();

    c.tables.reserve(4);
    auto arg = [&](ArgKind k, int64_t v) { Arg x{k}; x.i = v; c.args.args.push_back(x); };
    for (const char b : plan) {
        switch (b) {
        case 'M': appendOperand(c, c.srcs[0], ArgKind::SrcPtr); break;
        case 'V': appendOperand(c, c.srcs[1], ArgKind::SrcPtr); break;
        case 'D': appendOperand(c, c.dst, ArgKind::DstPtr); break;
        case 'B': case 'R': {
            Arg x{b == 'B' ? ArgKind::SrcPtr : ArgKind::DstPtr};
            x.ptr = c.arena.at(b == 'B' ? sc.buffer : c.dst.base);
            c.args.args.push_back(x);
            break;
        }
        case 'n': arg(ArgKind::Len, width); break;
        case 'w': arg(ArgKind::Width, width); break;
        case 'h': arg(ArgKind::Height, height); break;
        case 'c': if (m.hasArray()) arg(ArgKind::Count, count); break;
        }
    }
}
template <class T> T bufferAt(const SolverCase& sc, int i) {
    return load<T>(sc.c.arena.bytes.data() + sc.buffer + size_t(i) * sizeof(T));
}

// ---- element access ----
template <class T> T elementAt(const SolverCase& sc, const Operand& o, int k, int i, int j) {
    return load<T>(sc.c.arena.bytes.data() + o.offset(k, i, j));
}
template <class T> std::vector<T> matrixOf(const SolverCase& sc, int k) {  // row-major n x n
    std::vector<T> a(size_t(sc.n) * sc.n);
    for (int i = 0; i < sc.n; ++i)
        for (int j = 0; j < sc.n; ++j) a[size_t(i) * sc.n + j] = elementAt<T>(sc, sc.matrix(), k, i, j);
    return a;
}
template <class T> std::vector<T> rhsOf(const SolverCase& sc, int k) {
    std::vector<T> b(sc.n);
    for (int i = 0; i < sc.n; ++i) b[i] = elementAt<T>(sc, sc.rhs(), k, 0, i);
    return b;
}
inline std::vector<int> indexOf(const SolverCase& sc, int slice) {
    std::vector<int> p(sc.n);
    for (int i = 0; i < sc.n; ++i) p[i] = load<int>(sc.c.arena.bytes.data() + sc.indexOffset(slice, i));
    return p;
}

// Inputs, in the element type of the member.
inline void setElement(SolverCase& sc, const Operand& o, int k, int i, int j, double v) {
    unsigned char* p = sc.c.arena.at(o.offset(k, i, j));
    if (sc.member().esize == 4) store<float>(p, float(v));
    else store<double>(p, v);
}
inline void setMatrix(SolverCase& sc, int k, const std::function<double(int, int)>& v) {
    for (int i = 0; i < sc.n; ++i)
        for (int j = 0; j < sc.n; ++j) setElement(sc, sc.matrix(), k, i, j, v(i, j));
}
inline void setRhs(SolverCase& sc, int k, const std::function<double(int)>& v) {
    for (int i = 0; i < sc.n; ++i) setElement(sc, sc.rhs(), k, 0, i, v(i));
}
inline void setIndex(SolverCase& sc, int slice, const std::vector<int>& p) {
    for (int i = 0; i < sc.n; ++i) store<int>(sc.c.arena.at(sc.indexOffset(slice, i)), p[i]);
}

// Expected contents: start from the inputs, then put what the call writes.
inline void expectUnchanged(SolverCase& sc) { sc.want = sc.c.arena.bytes; }
template <class T> void expectElement(SolverCase& sc, int k, int i, int j, T v) {
    store<T>(sc.want.data() + sc.c.dst.offset(k, i, j), v);
}
inline void expectIndex(SolverCase& sc, int slice, const std::vector<int>& p) {
    for (int i = 0; i < sc.n; ++i) store<int>(sc.want.data() + sc.indexOffset(slice, i), p[i]);
}

// What a byte of the arena is, for failure messages.
inline std::string byteName(const SolverCase& sc, size_t off) {
    std::ostringstream s;
    const Operand& d = sc.c.dst;
    const int objects = d.array ? sc.c.count : 1;
    for (int k = 0; k < objects; ++k)
        for (int i = 0; i < d.rows; ++i)
            for (int j = 0; j < d.cols; ++j)
                if (off >= d.offset(k, i, j) && off < d.offset(k, i, j) + size_t(sc.member().esize)) {
                    s << "destination object " << k << " element (" << i << "," << j << ")";
                    return s.str();
                }
    if (sc.bufferBytes && off >= sc.buffer && off < sc.buffer + sc.bufferBytes) {
        s << "buffer byte " << off - sc.buffer;
        return s.str();
    }
    if (sc.kinds.index && off >= sc.index && off < sc.indexOffset(sc.matrices(), 0)) {
        const size_t e = (off - sc.index) / sizeof(int);
        s << "index slice " << e / sc.n << " entry " << e % sc.n;
        return s.str();
    }
    s << "byte " << off << " outside the destination";
    return s.str();
}

inline std::string describe(const SolverCase& sc) {
    std::ostringstream s;
    s << sc.member().name << " order " << sc.n;
    if (sc.c.height != sc.c.width) s << " x " << sc.c.height;
    s << " count " << sc.c.count;
    return s.str();
}

// Calls with the current arguments; the status, the pointer tables and every byte of the arena
// must be as expected.
inline void callAndCompare(SolverCase& sc, OmkStatus status) {
    const auto tables = sc.c.tables;
    ASSERT_EQ(sc.member().call(sc.c.args), status) << describe(sc);
    ASSERT_EQ(sc.c.tables, tables) << describe(sc) << ": a pointer table changed";
    ASSERT_EQ(sc.want.size(), sc.c.arena.bytes.size());
    if (sc.scratchBuffer && sc.bufferBytes) {  // the call's scratch: its bytes are not compared
        const auto from = sc.c.arena.bytes.begin() + ptrdiff_t(sc.buffer);
        std::copy(from, from + ptrdiff_t(sc.bufferBytes), sc.want.begin() + ptrdiff_t(sc.buffer));
    }
    const auto diff = std::mismatch(sc.want.begin(), sc.want.end(), sc.c.arena.bytes.begin());
    if (diff.first == sc.want.end()) return;
    const size_t off = size_t(diff.first - sc.want.begin());
    FAIL() << describe(sc) << ": " << byteName(sc, off) << " differs (byte " << int(*diff.first) << " expected, "
           << int(*diff.second) << " found)";
}

// ---- the parallel driver's split ----
// The team the runtime grants for a budget (it may cap the number of threads), and the contiguous
// slices of `count` objects over it: the first count % team threads take one object more.
inline int teamFor(int budget) { return std::min(budget, omp_get_thread_limit()); }

struct Slice { int first, count; };
inline std::vector<Slice> driverSlices(int count, int team) {
    std::vector<Slice> out;
    const int chunk = count / team, rem = count % team;
    for (int t = 0; t < team; ++t)
        out.push_back(t < rem ? Slice{(chunk + 1) * t, chunk + 1}
                              : Slice{(chunk + 1) * rem + (t - rem) * chunk, chunk});
    return out;
}

// Random values with full mantissas: sign * [1, 2) * 2^e, e in [lo, hi].
inline double entry(std::mt19937& rng, int lo = -2, int hi = 1) {
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    std::uniform_int_distribution<int> ex(lo, hi), sign(0, 1);
    return (sign(rng) ? -1 : 1) * std::ldexp(mant(rng), ex(rng));
}

// Fills the inputs of a case and writes `want` for a call on the calling thread; returns the
// status that call gives.
using Prepare = std::function<OmkStatus(SolverCase&, std::mt19937&)>;

// ---- walks shared by both families ----

// Null, count, size, stride, ROI shift: every fault alone writes nothing (the index array is
// guarded like the rest of the arena) and of two faults the earlier step wins.
inline void walkSolverFaults(const Member& m, const Prepare& prepare) {
    std::mt19937 rng(5);
    SolverCase sc;
    buildSolver(sc, m, 3, 3, {Style::Gapped});
    prepare(sc, rng);
    const Expected unused = [](Case&, int, int, int) { return 0.0; };
    walkFaults(sc.c, "NCSTR", faultsOf(sc.c), unused);
}

// The (order, count) with count >= 2 whose work is the largest at most `target` (below) or the
// smallest at least `target`: the target itself whenever some shape gives it, with the highest
// order that does.
struct WorkShape { int n, count; int64_t work; };
inline WorkShape nearestShape(const std::function<int64_t(int64_t, int64_t)>& work, int64_t target, bool below) {
    WorkShape best{0, 0, below ? -1 : INT64_MAX};
    for (int n = 1; n <= 12; ++n)
        for (int count = 2; count <= 10000; ++count) {
            const int64_t w = work(n, count);
            if (below ? (w <= target && w >= best.work) : (w >= target && w <= best.work)) best = {n, count, w};
            if (w > target) break;
        }
    return best;
}

// With a budget of two threads, a call whose work is below `limit` never asks for the budget and
// one at or above it asks twice (decision and team size). The results are checked either way.
inline void expectSerialLimit(const Member& m, const Prepare& prepare,
                              const std::function<int64_t(int64_t, int64_t)>& work, int64_t limit,
                              const std::vector<Style>& styles) {
    std::mt19937 rng{std::mt19937::result_type(limit)};
    for (const bool below : {true, false}) {
        const WorkShape s = nearestShape(work, below ? limit - 1 : limit, below);
        ASSERT_GT(s.n, 0) << m.name;
        SolverCase sc;
        buildSolver(sc, m, s.n, s.count, styles);
        ASSERT_EQ(prepare(sc, rng), omkStsOk);
        probe::Budget two(2);
        callAndCompare(sc, omkStsOk);
        ASSERT_EQ(probe::calls(), below ? 0 : 2)
            << describe(sc) << " work " << s.work << " limit " << limit << " style " << int(styles[0]);
    }
}

// Budgets 2 and 3 give the bytes of budget 1, far above the limit. `build` lays out the call
// (default: buildSolver of order n); a call with a caller buffer (buildCall) must also leave that
// buffer alone when it runs on threads, which work in scratch of their own.
using Builder = std::function<void(SolverCase&, const Member&, int n, int count, const std::vector<Style>&)>;
inline void expectParallelIdentical(const Member& m, const Prepare& prepare, int n, int count,
                                    const std::vector<Style>& styles, const Builder& build = nullptr) {
    auto make = [&](SolverCase& sc) {
        if (build) build(sc, m, n, count, styles);
        else buildSolver(sc, m, n, count, styles);
    };
    SolverCase serial;
    make(serial);
    std::mt19937 rng(n * 1000 + count);
    ASSERT_EQ(prepare(serial, rng), omkStsOk);
    {
        probe::Budget one(1);
        callAndCompare(serial, omkStsOk);
        ASSERT_EQ(probe::calls(), 1) << describe(serial);
    }
    for (int budget : {2, 3}) {
        SolverCase par;
        make(par);
        std::mt19937 again(n * 1000 + count);
        prepare(par, again);
        probe::Budget b(budget);
        if (par.bufferBytes) {
            par.scratchBuffer = false;
            callAndCompare(par, omkStsOk);  // the buffer keeps its bytes
            const auto from = serial.c.arena.bytes.begin() + ptrdiff_t(serial.buffer);
            std::copy(from, from + ptrdiff_t(serial.bufferBytes), par.c.arena.bytes.begin() + ptrdiff_t(par.buffer));
        } else {
            ASSERT_EQ(m.call(par.c.args), omkStsOk);
        }
        ASSERT_EQ(probe::calls(), 2) << describe(par) << " budget " << budget;
        ASSERT_TRUE(par.c.arena.bytes == serial.c.arena.bytes) << describe(par) << " budget " << budget;
    }
}

}  // namespace testing_omk
