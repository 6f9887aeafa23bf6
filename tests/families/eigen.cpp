// Family rows of the eigenproblems: EigenSym (EigenValuesSym, EigenValuesVectorsSym) and EigenGeneral (the other
// EigenValues members and the buffer size queries). The iterations round deterministically but by no formula element by
// element: from order 3 on an object's reference is the standard single-matrix member run on a packed copy of it, whose
// bits every description, layout, block of lanes and thread count must give. Orders 1 and 2 are closed forms, computed
// here; accuracy against an oracle is in omkm_eigen_test.cpp.
#include "families.h"

namespace omkt {
namespace {

bool isSym(const Name& n) { return n.op == "EigenValuesSym" || n.op == "EigenValuesVectorsSym"; }
bool isGeneral(const Name& n) { return n.op.rfind("EigenValues", 0) == 0 && !isSym(n); }
bool hasVectors(const Name& n) { return n.op.find("Vectors") != std::string::npos; }
template <class T> constexpr T kEps = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

// Runs object k through `op`'s standard single-matrix member on a packed copy, taking its outputs; returns its status.
OmkStatus throughSingle(Call& c, int k, const std::string& op) {
    Shape s;
    s.n = c.size("widthHeight");
    s.count = 1;
    s.styles = {kPacked};
    Call one = layCall("omkm" + op + "_m_" + c.name.type, s);
    const size_t e = size_t(c.esize);
    auto each = [&](bool outputs, const std::function<void(unsigned char*, unsigned char*)>& move) {
        for (const Region& g : c.regions) {
            const std::string what = g.param.substr(g.table ? 2 : 1);
            if (g.output != outputs || g.kind == Region::Scratch || !one.hasRegion(what)) continue;
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j) move(c.arena.at(g.at(k, i, j)), one.arena.at(one[what].at(0, i, j)));
        }
    };
    each(false, [&](unsigned char* from, unsigned char* to) { std::memcpy(to, from, e); });
    each(true, [&](unsigned char* from, unsigned char* to) { std::memcpy(to, from, e); });
    const OmkStatus st = one.run();
    each(true, [&](unsigned char* at, unsigned char* from) {
        std::memcpy(c.want.data() + (at - c.arena.bytes.data()), from, e);
    });
    return st;
}

// From order 3 on, through the member's own operation: the values as the values-only member's, EigenValuesVectors' two
// sets as the one-sided members', and vector destinations untouched when a general matrix does not converge.
OmkStatus throughSingles(Call& c, int k) {
    const Name& nm = c.name;
    const OmkStatus st = throughSingle(c, k, nm.op);
    if (nm.op == "EigenValuesVectors") throughSingle(c, k, nm.op + "Left"), throughSingle(c, k, nm.op + "Right");
    if (hasVectors(nm)) throughSingle(c, k, isSym(nm) ? "EigenValuesSym" : "EigenValues");
    const int n = c.size("widthHeight");
    for (const char* side : {"DstVectorsLeft", "DstVectorsRight"})
        for (int i = 0; st == omkStsNotConverged && c.hasRegion(side) && i < n * n; ++i) {
            const size_t at = c[side].at(k, i / n, i % n);
            std::memcpy(c.want.data() + at, c.arena.at(at), size_t(c.esize));
        }
    return st;
}

// ---- symmetric, order 2 in closed form from a = A(0,0), b = A(0,1), d = A(1,1) ----
// `way` 1: a*d - b*b with both products rounded; 2: c = 1/sqrt(q*q + 1) in the element type; 3: q*q + 1 in double.
const char* const kSymWays[] = {"Sym order 2 determinant unfused", "Sym order 2 unit scale in the element type",
                                "Sym order 2 square in double"};
template <class T> struct SymTwo {
    OmkStatus st = omkStsOk;
    T v[2] = {};
    T V[4] = {};  // rows
};
template <class T> SymTwo<T> symTwo(T a, T b, T d, int way) {
    const T eps = kEps<T>;
    SymTwo<T> r;
    const T det = way == 1 ? T(a * d - b * b) : std::fma(a, d, -(b * b));
    if (std::fabs(det) <= eps) {
        r.st = omkStsSingular;
        return r;
    }
    const T t = a + d, delta = a - d, b2 = T(2) * b, root = std::sqrt(delta * delta + b2 * b2);
    if (t > eps) r.v[0] = T(0.5) * (t + root), r.v[1] = det / r.v[0];
    else if (t < -eps) r.v[0] = T(0.5) * (t - root), r.v[1] = det / r.v[0];
    else r.v[0] = T(0.5) * root, r.v[1] = T(-0.5) * root;
    const T u = delta < -eps ? delta - root : delta + root;
    auto unit = [&](T q) {
        if (way == 2) return T(1) / std::sqrt(q * q + T(1));
        if (way == 3) return T(1.0 / std::sqrt(double(q) * double(q) + 1.0));
        return T(1.0 / std::sqrt(double(q * q + T(1))));
    };
    T x = T(0), y = T(1);
    if (std::fabs(u) > std::fabs(b2)) {
        const T q = -b2 / u;
        x = unit(q), y = q * x;
    } else if (!(std::fabs(b2) <= eps)) {
        const T q = -u / b2;
        y = unit(q), x = q * y;
    }
    const bool sameSigns = (t < -eps) == (delta < -eps);
    const T V[2][4] = {{y, -x, x, y}, {-x, -y, y, -x}};
    std::copy(V[sameSigns], V[sameSigns] + 4, r.V);
    return r;
}

template <class T> OmkStatus symSmall(Call& c, int k) {
    const Region &src = c["Src"], &val = c["DstValues"];
    const bool vectors = c.hasRegion("DstVectors");
    if (c.size("widthHeight") == 1) {
        c.expect<T>(val, k, 0, 0, c.get<T>(src, k, 0, 0));
        if (vectors) c.expect<T>(c["DstVectors"], k, 0, 0, T(1));
        return omkStsOk;
    }
    const T a = c.get<T>(src, k, 0, 0), b = c.get<T>(src, k, 0, 1), d = c.get<T>(src, k, 1, 1);
    const SymTwo<T> r = symTwo(a, b, d, 0);
    auto written = [&](const SymTwo<T>& x) {  // what the member writes
        std::vector<T> out(x.v, x.v + 2);
        if (vectors) out.insert(out.end(), x.V, x.V + 4);
        return out;
    };
    for (int w = 1; w <= 3; ++w) {
        const SymTwo<T> o = symTwo(a, b, d, w);
        witness(kSymWays[w - 1], o.st != r.st || differ(written(o), written(r)));
    }
    if (r.st != omkStsOk) return r.st;
    for (int j = 0; j < 2; ++j) c.expect<T>(val, k, 0, j, r.v[j]);
    for (int i = 0; vectors && i < 4; ++i) c.expect<T>(c["DstVectors"], k, i / 2, i % 2, r.V[i]);
    return omkStsOk;
}

// ---- general, orders 1 and 2 ----
// A 1x1 block gives H(0,0) + t (t = 0: -0 becomes +0) and vector 1. Order 2 deflates at once when
// |a10| <= eps*(|a00| + |a11|), the diagonal being the values; otherwise, for x = a11, y = a00, w = a10*a01,
// p = (y - x)/2, q = p*p + w: the real values x + z and x - w/z with z = p + sign(p)*sqrt(q), or the pair
// (x + p) +- i*sqrt(-q). `way` 1: q fused; 2: the second real value as the trace less the first.
const char* const kGeneralWays[] = {"General order 2 q fused", "General order 2 second value from the trace"};
template <class T> void generalTwo(T a00, T a01, T a10, T a11, int way, T* wr, T* wi) {
    T s = std::fabs(a00) + std::fabs(a11);
    if (s == T(0)) s = std::fabs(a00) + std::fabs(a01) + std::fabs(a10) + std::fabs(a11);
    wi[0] = wi[1] = T(0);
    if (std::fabs(a10) <= kEps<T> * s) {
        wr[0] = a00 + T(0), wr[1] = a11 + T(0);
        return;
    }
    const T x = a11 + T(0), w = a10 * a01, p = (a00 - a11) * T(0.5);
    const T q = way == 1 ? std::fma(p, p, w) : p * p + w, root = std::sqrt(std::fabs(q));
    if (q >= T(0)) {
        const T z = p + std::copysign(root, p);
        wr[0] = x + z;
        wr[1] = way == 2 ? T(a00 + a11) - wr[0] : z != T(0) ? x - w / z : x + z;
    } else {
        wr[0] = wr[1] = x + p;
        wi[0] = root, wi[1] = -root;
    }
}

template <class T> OmkStatus generalSmall(Call& c, int k, OmkStatus st) {
    const Region& src = c["Src"];
    T wr[2], wi[2];
    if (c.size("widthHeight") == 1) {
        wr[0] = c.get<T>(src, k, 0, 0) + T(0), wi[0] = T(0);
        for (const char* side : {"DstVectorsLeft", "DstVectorsRight"})
            if (c.hasRegion(side)) c.expect<T>(c[side], k, 0, 0, T(1));
    } else {
        const T a00 = c.get<T>(src, k, 0, 0), a01 = c.get<T>(src, k, 0, 1);
        const T a10 = c.get<T>(src, k, 1, 0), a11 = c.get<T>(src, k, 1, 1);
        generalTwo(a00, a01, a10, a11, 0, wr, wi);
        for (int w = 1; w <= 2; ++w) {
            T ar[2], ai[2];
            generalTwo(a00, a01, a10, a11, w, ar, ai);
            witness(kGeneralWays[w - 1], differ(std::vector<T>(ar, ar + 2), std::vector<T>(wr, wr + 2)));
        }
    }
    for (int j = 0; j < c.size("widthHeight"); ++j) {
        c.expect<T>(c["DstValues"], k, 0, j, wr[j]);
        c.expect<T>(c["DstValuesIm"], k, 0, j, wi[j]);
    }
    return st;
}

OmkStatus generalObject(Call& c, int k) {
    const int n = c.size("widthHeight"), e = c.esize;
    if (!c.hasRegion("Src")) {
        c.expect<int32_t>(c["BufSize"], 0, 0, 0, n * (hasVectors(c.name) ? 3 * n + 5 : n + 5) * e);
        return omkStsOk;
    }
    const OmkStatus st = throughSingles(c, k);  // the vectors of order 2 too
    if (n > 2) return st;
    return byType(e, [&](auto t) { return generalSmall<decltype(t)>(c, k, st); });
}

// Random sources (symmetric for EigenSym). Every fourth symmetric matrix is diagonal with repeated values; every fourth
// general one of order 2 has a10 at the deflation bound.
void fill(Call& c, std::mt19937& rng) {
    if (!c.hasRegion("Src")) return;
    const Region& src = c["Src"];
    const bool sym = isSym(c.name);
    const int n = src.rows;
    for (int k = 0; k < c.objects(src); ++k)
        for (int i = 0; i < n; ++i)
            for (int j = sym ? i : 0; j < n; ++j) {
                const double v = sym && k % 4 == 3 ? (i != j ? 0.0 : i % 3 ? -0.75 : 1.5) : entry(rng);
                c.set(src, k, i, j, v);
                if (sym) c.set(src, k, j, i, v);
            }
    for (int k = 3; !sym && n == 2 && k < c.objects(src); k += 4) {
        const double s = std::fabs(c.value(src, k, 0, 0)) + std::fabs(c.value(src, k, 1, 1));
        c.set(src, k, 1, 0, c.esize == 4 ? 0x1p-23 * double(float(s)) : 0x1p-52 * s);
    }
}

std::vector<Shape> orders(std::initializer_list<int> ns) {
    std::vector<Shape> out;
    for (int n : ns) out.push_back(Shape{}), out.back().n = n;
    return out;
}

// Object k fails: all zeros (singular) for EigenSym, all NaN (never converges) for EigenGeneral.
void spoil(Call& c, int k) {
    const Region& src = c["Src"];
    for (int i = 0; i < src.rows; ++i)
        for (int j = 0; j < src.cols; ++j) c.set(src, k, i, j, isSym(c.name) ? 0.0 : std::nan(""));
}

}  // namespace

std::vector<Family> eigenFamilies() {
    Family sym;
    sym.name = "EigenSym";
    sym.has = isSym;
    sym.shapes = [](const Name&) { return orders({3, 1, 2, 4, 5, 6, 7, 8, 9, 12}); };
    sym.fill = fill;
    sym.expect = [](Call& c, int k) {
        if (c.size("widthHeight") > 2) return throughSingles(c, k);
        return byType(c.esize, [&](auto t) { return symSmall<decltype(t)>(c, k); });
    };
    // Serial while n*(n + 1)*count < 1001 (values) or n*(2n + 1)*count < 701 (with vectors).
    sym.work = [](const Name& nm, const Shape& s) {
        const int64_t n = s.size("widthHeight");
        return n * (hasVectors(nm) ? 2 * n + 1 : n + 1) * s.count;
    };
    sym.firstParallel = [](const Call& c) -> int64_t { return hasVectors(c.name) ? 701 : 1001; };
    sym.spoil = spoil;
    sym.ways = {kSymWays, kSymWays + 3};
    sym.specials = true;

    Family general;
    general.name = "EigenGeneral";
    general.has = isGeneral;
    general.shapes = [](const Name& nm) {
        return nm.group.empty() ? orders({1, 2, 3, 9, 40}) : orders({4, 1, 2, 3, 5, 6, 7, 9});
    };
    general.fill = fill;
    general.expect = generalObject;
    // Serial while n*(n + 1)*count < 251 (values) or n*(3n + 1)*count < 501 (with vectors).
    general.work = [](const Name& nm, const Shape& s) {
        const int64_t n = s.size("widthHeight");
        return n * (hasVectors(nm) ? 3 * n + 1 : n + 1) * s.count;
    };
    general.firstParallel = [](const Call& c) -> int64_t { return hasVectors(c.name) ? 501 : 251; };
    general.spoil = spoil;
    general.ways = {kGeneralWays, kGeneralWays + 2};
    general.specials = true;
    return {sym, general};
}

}  // namespace omkt
