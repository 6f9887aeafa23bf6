// The families as the shared cases see them: per family a row of its members, the shapes to walk, how to fill the
// sources, one object's reference result, the work figure and the first that runs on threads, and how to make an object
// fail. omkm_rules_test.cpp walks every row; each family's own numerics are in its subsystem's test file. A new family
// adds a row here and only the cases that are its own.
#pragma once
#include <omp.h>

#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "calls.h"

namespace omkt {

struct Family {
    std::string name;
    std::function<bool(const Name&)> has;                   // its members
    std::function<std::vector<Shape>(const Name&)> shapes;  // sizes to walk (counts and styles come from the case)
    std::function<void(Call&, std::mt19937&)> fill;         // the sources of a laid-out call
    std::function<OmkStatus(Call&, int k)> expect;          // object k into c.want; its status
    // Work figure of an array call, and the smallest one that runs on threads (it may depend on the layout).
    std::function<int64_t(const Name&, const Shape&)> work;
    std::function<int64_t(const Call&)> firstParallel;
    std::function<void(Call&, int k)> spoil;  // object k fails (families whose kernels can fail)
    std::vector<std::string> ways;            // rounding orders the results walk must tell apart
    std::vector<std::string> inPlace;         // sources the destination may lie over ("Src1")
    bool specials = false;  // the reference follows IEEE rules on NaN, infinities, subnormals and zeros
    // Shapes for the search of the serial limits, when they differ from `shapes`.
    std::function<std::vector<Shape>(const Name&)> limitShapes;
    std::function<bool(const Name&)> fails;  // the members spoil makes fail (every member when empty)
};

const std::vector<Family>& families();
std::vector<Family> elementwiseFamilies();
std::vector<Family> productFamilies();
std::vector<Family> solverFamilies();
std::vector<Family> eigenFamilies();
std::vector<Family> graphicsFamilies();
const Family* familyOf(const Name& n);

// Random values with full mantissas: sign * [1, 2) * 2^e, e in [lo, hi].
inline double entry(std::mt19937& rng, int lo = -2, int hi = 1) {
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    std::uniform_int_distribution<int> ex(lo, hi), sign(0, 1);
    return (sign(rng) ? -1 : 1) * std::ldexp(mant(rng), ex(rng));
}
inline void fillRandom(Call& c, std::mt19937& rng, int lo = -2, int hi = 1) {
    for (Region& g : c.regions) {
        if (g.output || g.kind == Region::Scratch) continue;
        if (g.kind == Region::Index) c.fill(g, [](int, int, int j) { return j; });
        else c.fill(g, [&](int, int, int) { return entry(rng, lo, hi); });
    }
}

// Whether every element stride of the call's strided operands is the element size.
inline bool contiguous(const Call& c) {
    return std::all_of(c.regions.begin(), c.regions.end(), [&](const Region& g) {
        return (g.kind != Region::Matrix && g.kind != Region::Vector) || g.s2 == g.esize;
    });
}
// The strided sources in argument order (constants and index arrays apart).
inline std::vector<const Region*> stridedSources(const Call& c) {
    std::vector<const Region*> out;
    for (const Region& g : c.regions)
        if (!g.output && (g.kind == Region::Matrix || g.kind == Region::Vector || g.kind == Region::Fixed))
            out.push_back(&g);
    return out;
}
// A scalar argument (scale, val...) of the call, and its setting in the element type.
inline double& scalarArg(Call& c, const std::string& name) { return c.args.args.at(size_t(c.argIndex(name))).f; }
inline void setScalar(Call& c, const std::string& name, double v) {
    scalarArg(c, name) = c.esize == 4 ? double(float(v)) : v;
}
inline std::vector<Shape> allSizes(bool matrix, int m) {
    std::vector<Shape> out;
    for (int w = 1; w <= m; ++w)
        for (int h = 1; h <= (matrix ? m : 1); ++h) {
            Shape s;
            s.sizes = matrix ? std::map<std::string, int>{{"width", w}, {"height", h}}
                             : std::map<std::string, int>{{"len", w}};
            out.push_back(s);
        }
    return out;
}

// A quarter of the source elements (index arrays apart) replaced by special values: NaN with a
// payload, infinities, signed zeros, the smallest subnormal, the largest finite values.
inline void sprinkleSpecials(Call& c, std::mt19937& rng) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("0x1234");
    const double big = c.esize == 4 ? double(std::numeric_limits<float>::max()) : std::numeric_limits<double>::max();
    const double tiny = c.esize == 4 ? double(std::numeric_limits<float>::denorm_min())
                                     : std::numeric_limits<double>::denorm_min();
    const double values[] = {nan, inf, -inf, -0.0, 0.0, tiny, -tiny, big, -big};
    std::uniform_int_distribution<int> pick(0, 35);
    for (Region& g : c.regions) {
        if (g.output || g.kind == Region::Scratch || g.kind == Region::Index) continue;
        for (int k = 0; k < c.objects(g); ++k)
            for (int i = 0; i < (g.kind == Region::Fixed ? 4 : g.rows); ++i)
                for (int j = 0; j < (g.kind == Region::Fixed ? 4 : g.cols); ++j)
                    if (const int p = pick(rng); p < 9) c.set(g, k, i, j, values[p]);
    }
}

template <class F> auto byType(int esize, F&& f) { return esize == 4 ? f(float()) : f(double()); }

// A member's rounding order told apart from another (`way`) on some input of the walk.
std::map<std::string, int>& witnesses();
inline void witness(const std::string& way, bool differs) {
    if (differs) ++witnesses()[way];
}
template <class T> bool differ(T a, T b) { return std::memcmp(&a, &b, sizeof(T)) != 0; }
template <class T> bool differ(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() != b.size() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) != 0;
}

// The team granted for a budget, and `count` objects sliced contiguously over it (the first count % team get one more).
inline int teamFor(int budget) { return std::min(budget, omp_get_thread_limit()); }
struct Slice {
    int first, count;
};
inline std::vector<Slice> driverSlices(int count, int team) {
    std::vector<Slice> out;
    const int chunk = count / team, rem = count % team;
    for (int t = 0; t < team; ++t)
        out.push_back(t < rem ? Slice{(chunk + 1) * t, chunk + 1}
                              : Slice{(chunk + 1) * rem + (t - rem) * chunk, chunk});
    return out;
}

// The arena a call must leave when each slice stops at its first failing object; the status the
// call returns (the first failure of the earliest failing slice, or omkStsOk).
inline OmkStatus expectOver(const Family& f, Call& c, const std::vector<Slice>& slices) {
    c.expectInputs();
    OmkStatus status = omkStsOk;
    for (const Slice& s : slices)
        for (int k = s.first; k < s.first + s.count; ++k)
            if (const OmkStatus st = f.expect(c, k)) {
                if (status == omkStsOk) status = st;
                break;
            }
    return status;
}
inline OmkStatus expectSerial(const Family& f, Call& c) {
    return expectOver(f, c, {{0, c.name.array() ? c.count : 1}});
}

inline Call prepared(const Family& f, const Export& ex, const Shape& s, std::mt19937& rng) {
    Call c = layCall(ex, s);
    f.fill(c, rng);
    return c;
}

}  // namespace omkt
