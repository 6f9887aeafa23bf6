// Family rows of the products: Mul of matrices, vectors and by constants, dot and cross products, norms, trace, Gaxpy.
#include <array>
#include <cctype>

#include "families.h"

namespace omkt {
namespace {

Shape sized(std::map<std::string, int> sizes) {
    Shape s;
    s.sizes = std::move(sizes);
    return s;
}
std::vector<Shape> lengths(const std::string& size, std::initializer_list<int> values) {
    std::vector<Shape> out;
    for (int v : values) out.push_back(sized({{size, v}}));
    return out;
}
// The fixed-size members of the dot and cross products (v2, v3, v4).
bool fixedSize(const Name& n) { return std::isdigit(static_cast<unsigned char>(n.group.back())) && n.group[0] == 'v'; }

// ---- sums of the terms a_k*b_k in the documented orders ----
template <class T> T sequential(const std::vector<T>& p) {
    T t = 0;
    for (T x : p) t = t + x;
    return t;
}
template <class T> std::vector<T> products(const std::vector<T>& a, const std::vector<T>& b) {
    std::vector<T> p(a.size());
    for (size_t k = 0; k < a.size(); ++k) p[k] = a[k] * b[k];
    return p;
}
template <class T> T fusedFromZero(const std::vector<T>& a, const std::vector<T>& b) {
    T t = 0;
    for (size_t k = 0; k < a.size(); ++k) t = std::fma(a[k], b[k], t);
    return t;
}
// t = a1*b1, t = fma(a0, b0, t), then t = fma(ak, bk, t) for k = 2, 3, ...
template <class T> T chain(const std::vector<T>& a, const std::vector<T>& b) {
    T t = std::fma(a[0], b[0], a[1] * b[1]);
    for (size_t k = 2; k < a.size(); ++k) t = std::fma(a[k], b[k], t);
    return t;
}
// The strided products of orders 3, 4 and 6 (and the fixed-size dot products of 3 and 4).
template <class T> T stridedTable(const std::vector<T>& a, const std::vector<T>& b) {
    using std::fma;
    if (a.size() == 3) return fma(a[2], b[2], fma(a[0], b[0], a[1] * b[1]));
    if (a.size() == 4) return fma(a[1], b[1], a[2] * b[2]) + fma(a[0], b[0], a[3] * b[3]);
    return fma(a[1], b[1], fma(a[2], b[2], a[4] * b[4])) + fma(a[0], b[0], fma(a[3], b[3], a[5] * b[5]));
}
// Rounded terms of 3 to 6: (p0+p1)+p2, (p0+p1)+(p2+p3), then +p4; p5 added last or paired with p4.
template <class T> T tabledSum(const std::vector<T>& p, bool pairLast) {
    T t = p.size() == 3 ? (p[0] + p[1]) + p[2] : (p[0] + p[1]) + (p[2] + p[3]);
    if (p.size() == 5) t = t + p[4];
    if (p.size() == 6) t = pairLast ? t + (p[4] + p[5]) : (t + p[4]) + p[5];
    return t;
}
bool tabled(size_t n) { return n >= 3 && n <= 6; }

void fillSources(Call& c, std::mt19937& rng, int lo = -12, int hi = 12) {
    fillRandom(c, rng, lo, hi);
    for (Region& g : c.regions)
        if (g.kind == Region::Fixed && !g.output)
            for (int q = 0; q < 16; ++q) c.set(g, 0, q / 4, q % 4, entry(rng, lo, hi));
}

template <class F> std::function<OmkStatus(Call&, int)> typed(F f) {
    return [f](Call& c, int k) { return c.esize == 4 ? f(c, k, float()) : f(c, k, double()); };
}

// ---- Mul of matrices and vectors ----
// The kernel orders by path (_P pointer; contiguous when every element stride is the element size): square orders 3 to
// 6 the chain on the contiguous path and for order 5 on every path, else the strided tables; other sizes eight lanes
// (contiguous), pairs of rounded products with an odd last term fused (strided), or fused from zero (pointer).
template <class T> T generalProduct(const std::string& path, const std::vector<T>& a, const std::vector<T>& b) {
    if (path == "pointer") return fusedFromZero(a, b);
    if (path == "strided") {
        T t = 0;
        size_t k = 0;
        for (; k + 1 < a.size(); k += 2) {
            t = t + a[k] * b[k];
            t = t + a[k + 1] * b[k + 1];
        }
        return k < a.size() ? std::fma(a[k], b[k], t) : t;
    }
    T p[8] = {};  // lane k % 8, folded as the register halves, then the pairs
    for (size_t k = 0; k < a.size(); ++k) p[k % 8] = std::fma(a[k], b[k], p[k % 8]);
    return ((p[0] + p[4]) + (p[2] + p[6])) + ((p[1] + p[5]) + (p[3] + p[7]));
}

template <class T> OmkStatus mulObject(Call& c, int k, T) {
    const bool fixed = c.name.group == "mm4x4";
    const std::string kinds = fixed ? "mm" : c.name.kinds();
    const std::string path = c.name.desc == "P" ? "pointer" : contiguous(c) ? "contiguous" : "strided";
    const Region &A = c["Src1"], &B = c["Src2"], &D = c["Dst"];
    // Stored sizes: a vector is B.cols long and one row high.
    const int aw = fixed ? 4 : A.cols, ah = fixed ? 4 : A.rows, bw = fixed ? 4 : B.cols, bh = fixed ? 4 : B.rows;
    const int M = kinds[0] == 'm' ? ah : aw, K = kinds[0] == 'm' ? aw : ah;
    const int N = kinds[1] == 'm' ? bw : kinds[1] == 't' ? bh : 1;
    const bool square = aw == ah && aw == bw && (kinds[1] == 'v' || bw == bh);
    const int order = square && tabled(size_t(aw)) ? aw : 0;
    for (int i = 0; i < M; ++i)
        for (int j = 0; j < N; ++j) {
            std::vector<T> a(K), b(K);
            for (int t = 0; t < K; ++t) {
                a[t] = kinds[0] == 'm' ? c.get<T>(A, k, i, t) : c.get<T>(A, k, t, i);
                b[t] = kinds[1] == 'm'   ? c.get<T>(B, k, t, j)
                               : kinds[1] == 't' ? c.get<T>(B, k, j, t)
                                                 : c.get<T>(B, k, 0, t);
            }
            const T r = order == 0                            ? generalProduct(path, a, b)
                        : path == "contiguous" || order == 5 ? chain(a, b)
                                                              : stridedTable(a, b);
            witness("Mul " + path + " order " + std::to_string(order), differ(r, sequential(products(a, b))));
            c.expect<T>(D, k, kinds[1] == 'v' ? 0 : i, kinds[1] == 'v' ? i : j, r);
        }
    return omkStsOk;
}

// omkmMul_mm_32f_P and omkmMul_tt_64f_P take the order-3 or order-4 code when the OR of the four sizes is 3 or 4,
// square or not; the walks keep to shapes where that is the square order.
bool orQuirk(const Name& n, const Shape& s) {
    if (n.desc != "P" || !((n.group == "mm" && n.type == "32f") || (n.group == "tt" && n.type == "64f"))) return false;
    const int aw = s.size("src1Width"), ah = s.size("src1Height"), bw = s.size("src2Width"), bh = s.size("src2Height");
    const int bits = aw | ah | bw | bh;
    return (bits == 3 || bits == 4) && !(aw == ah && aw == bw && bw == bh);
}

// Stored sizes of a product of A (as used M x K) and B (K x N, or a vector of K).
std::vector<Shape> mulShapes(const Name& n, const std::vector<std::array<int, 3>>& used) {
    if (n.group == "mm4x4") return std::vector<Shape>(8, Shape{});  // one shape, new values each time
    const char a = n.kinds()[0], b = n.kinds()[1];
    std::vector<Shape> out;
    for (auto [M, K, N] : used) {
        Shape s;
        s.sizes = {{"src1Width", a == 'm' ? K : M}, {"src1Height", a == 'm' ? M : K}};
        s.sizes[b == 'v' ? "src2Len" : "src2Width"] = b == 'm' ? N : K;
        if (b != 'v') s.sizes["src2Height"] = b == 'm' ? K : N;
        const bool seen = std::any_of(out.begin(), out.end(), [&](const Shape& o) { return o.sizes == s.sizes; });
        if (!seen && !orQuirk(n, s)) out.push_back(s);
    }
    return out;
}

// e1, e2: elements of each source; ed: of one result. The single operand counts once.
int64_t mulWork(const Name& n, const Shape& s) {
    const std::string kinds = n.kinds();
    const int64_t aw = s.size("src1Width"), ah = s.size("src1Height");
    const int64_t bw = kinds[1] == 'v' ? s.size("src2Len") : s.size("src2Width");
    const int64_t bh = kinds[1] == 'v' ? 1 : s.size("src2Height"), c = s.count;
    const int64_t ed = (kinds[0] == 'm' ? ah : aw) * (kinds[1] == 'm' ? bw : kinds[1] == 't' ? bh : 1);
    const bool first = n.group[1] == 'a', second = n.group.back() == 'a';
    if (first && second) return c * (aw * ah + bw * bh + ed);
    return first ? bw * bh + c * (aw * ah + ed) : aw * ah + c * (bw * bh + ed);
}

// Serial up to work 1440 (_P, other strides), 3600 (_L, standard 64f contiguous) or 2500 (standard 32f contiguous).
int64_t mulFirstParallel(const Call& c) {
    if (c.name.desc == "P" || !contiguous(c)) return 1441;
    return c.name.desc == "L" || c.esize == 8 ? 3601 : 2501;
}

// ---- Mul by a constant: one rounded product per element ----
template <class T> OmkStatus scaleObject(Call& c, int k, T) {
    const Region &s = c["Src"], &d = c["Dst"];
    const T v = c.hasRegion("Val") ? c.get<T>(c["Val"], k, 0, 0) : T(scalarArg(c, "val"));
    const bool transposed = c.name.group[0] == 't';
    for (int i = 0; i < d.rows; ++i)
        for (int j = 0; j < d.cols; ++j) {
            const T x = transposed ? c.get<T>(s, k, j, i) : c.get<T>(s, k, i, j);
            c.expect<T>(d, k, i, j, T(x * v));
        }
    return omkStsOk;
}

int64_t scaleWork(const Name& n, const Shape& s) {
    const int64_t w = s.size("width"), h = s.size("height"), len = s.size("len"), c = s.count;
    if (n.group == "mac" || n.group == "tac") return 2 * w * h * c;
    if (n.group == "vac") return 2 * len * c;
    return n.group == "vaca" ? c * (2 * len + 1) : len * (c + 1) + c;
}

// Serial limits: standard contiguous 32f and 64f, standard other, _L contiguous, _L other 32f and 64f, _P. Contiguous:
// the source's and destination's element strides are the element size.
int64_t scaleFirstParallel(const Call& c) {
    static const std::map<char, std::array<int, 7>> limits = {{'m', {3500, 3500, 3500, 3500, 1500, 3500, 1700}},
                                                                {'c', {2500, 3600, 1440, 3600, 1440, 1440, 1440}},
                                                                {'a', {2100, 2100, 2100, 1200, 1200, 1200, 650}}};
    const auto& l = limits.at(c.name.group[0] == 'v' ? c.name.group.back() : 'm');  // m: mac, tac; c: vac; a: vaca, vca
    const bool wide = c.esize == 8, packed = contiguous(c);
    if (c.name.desc == "P") return l[6] + 1;
    if (c.name.desc == "L") return (packed ? l[3] : l[wide ? 5 : 4]) + 1;
    return (packed ? l[wide ? 1 : 0] : l[2]) + 1;
}

// ---- dot and cross products ----
// Contiguous dot products of lengths other than 3 to 6: t = t + p_k until b reaches a 32-byte boundary
// (`head` products), blocks of 16 into 16 lanes folded q+8, q+4, q+2, q+1, then the tail.
template <class T> T longDot(const std::vector<T>& p, uintptr_t bAddr, int& head) {
    const int n = int(p.size());
    int k = 0;
    while (k < n && (bAddr + size_t(k) * sizeof(T)) % 32 != 0) ++k;
    head = n - k >= 16 ? k : -1;
    T t = 0;
    for (int q = 0; q < k; ++q) t = t + p[q];
    if (head >= 0) {
        T lane[16] = {};
        for (; k + 16 <= n; k += 16)
            for (int q = 0; q < 16; ++q) lane[q] = lane[q] + p[size_t(k + q)];
        for (int w = 8; w >= 1; w /= 2)
            for (int q = 0; q < w; ++q) lane[q] = lane[q] + lane[q + w];
        t = t + lane[0];
    }
    for (; k < n; ++k) t = t + p[k];
    return t;
}

// Strided and _P dot products: the tabled orders of 3 to 6, else t = p0, then t = fma(ak, bk, t).
template <class T> T stridedDot(const std::vector<T>& a, const std::vector<T>& b) {
    using std::fma;
    const size_t n = a.size();
    if (n == 3) return fma(a[0], b[0], fma(a[1], b[1], a[2] * b[2]));
    if (n == 4) return fma(a[1], b[1], a[2] * b[2]) + fma(a[3], b[3], a[0] * b[0]);
    if (n == 6) return fma(a[3], b[3], fma(a[4], b[4], a[1] * b[1])) + fma(a[5], b[5], fma(a[0], b[0], a[2] * b[2]));
    if (n == 5) {
        T t = a[2] * b[2];
        for (size_t k : {4, 3, 0, 1}) t = fma(a[k], b[k], t);
        return t;
    }
    T t = a[0] * b[0];
    for (size_t k = 1; k < n; ++k) t = fma(a[k], b[k], t);
    return t;
}

template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }

template <class T> std::vector<T> vectorOf(Call& c, const std::string& src, int k, int len) {
    std::vector<T> v(len);
    for (int j = 0; j < len; ++j) v[j] = c.get<T>(c[src], k, 0, j);
    return v;
}

template <class T> void crossObject(Call& c, int k, int len) {
    const std::vector<T> a = vectorOf<T>(c, "Src1", k, len), b = vectorOf<T>(c, "Src2", k, len);
    const Region& d = c["Dst"];
    if (len == 4) {  // minors m_ij of b and c; result j from a and the minors without index j
        const std::vector<T> e = vectorOf<T>(c, "Src3", k, len);
        auto m = [&](int i, int j) { return fms(b[i], e[j], b[j] * e[i]); };
        for (int j = 0; j < 4; ++j) {
            const int p = j == 0 ? 1 : 0, q = j <= 1 ? 2 : 1, r = j == 3 ? 2 : 3;
            const T v = std::fma(a[r], m(p, q), fms(a[p], m(q, r), a[q] * m(p, r)));
            const T naive = a[p] * m(q, r) - a[q] * m(p, r) + a[r] * m(p, q);
            witness("Cross v4", differ(v, naive));
            c.expect<T>(d, k, 0, j, j % 2 ? T(0) - v : v);
        }
        return;
    }
    for (int j = 0; j < (len == 2 ? 1 : 3); ++j) {  // c_j = a_u*b_v - a_v*b_u
        const size_t u = len == 2 ? 0 : size_t(j + 1) % 3, v = len == 2 ? 1 : size_t(j + 2) % 3;
        const T r = fms(a[u], b[v], a[v] * b[u]);
        witness("Cross", differ(r, T(a[u] * b[v] - a[v] * b[u])));
        c.expect<T>(d, k, 0, j, r);
    }
}

template <class T> OmkStatus dotCrossObject(Call& c, int k, T) {
    const Name& n = c.name;
    const bool fixed = fixedSize(n);
    const int len = fixed ? n.group[1] - '0' : n.op == "CrossProduct" ? 3 : c["Src1"].cols;
    if (n.op == "CrossProduct") {
        crossObject<T>(c, k, len);
        return omkStsOk;
    }
    const std::vector<T> a = vectorOf<T>(c, "Src1", k, len), b = vectorOf<T>(c, "Src2", k, len);
    const std::string lengths = tabled(a.size()) ? std::to_string(len) : "other lengths";
    T r;
    if (fixed || n.desc == "P" || !contiguous(c)) {
        r = !fixed ? stridedDot(a, b) : len == 2 ? chain(a, b) : stridedTable(a, b);
        const std::string key = fixed ? "fixed " + std::to_string(len) : "strided " + lengths;
        witness("Dot " + key, differ(r, sequential(products(a, b))));
    } else {  // against the strided order of the same length
        int head = -1;
        r = tabled(a.size()) ? tabledSum(products(a, b), false)
                             : longDot(products(a, b), uintptr_t(c.arena.at(c["Src2"].at(k, 0, 0))), head);
        const std::string blocks = " after " + std::to_string(head) + " of " + std::to_string(sizeof(T));
        witness("Dot contiguous " + (head >= 0 ? "blocks" + blocks : lengths), differ(r, stridedDot(a, b)));
    }
    c.expect<T>(c["Dst"], k, 0, 0, r);
    return omkStsOk;
}

int64_t dotCrossWork(const Name& n, const Shape& s) {
    const int64_t len = s.size("len"), c = s.count;
    if (n.op == "CrossProduct") return n.group == "vava" ? 3 * c : 2 * c;
    return n.group == "vav" ? (c + 1) * len : 2 * len * c;
}

// Serial up to work: dot 5000 (contiguous), 2620 (other strides), 2400 (_P); cross 3000 (vava), 2999 (vav and vva).
int64_t dotCrossFirstParallel(const Call& c) {
    if (c.name.op == "CrossProduct") return c.name.group == "vava" ? 3001 : 3000;
    return c.name.desc == "P" ? 2401 : contiguous(c) ? 5001 : 2621;
}

template <class T> OmkStatus normObject(Call& c, int k, T) {
    const Region& s = c["Src"];
    const std::string& op = c.name.op;
    std::vector<T> x;
    for (int i = 0; i < s.rows; ++i)
        for (int j = 0; j < s.cols; ++j)
            if (op != "Trace" || i == j) x.push_back(c.get<T>(s, k, i, j));
    T r;
    if (op == "Trace") {  // t = a00, then t = t + a_kk; against the sum from the other end
        r = x[0];
        for (size_t i = 1; i < x.size(); ++i) r = r + x[i];
        const T back = sequential(std::vector<T>(x.rbegin(), x.rend()));
        witness(tabled(x.size()) ? "Trace 3 to 6" : "Trace other orders", differ(r, back));
    } else if (op == "FrobNorm" || c.name.desc == "P" || s.s2 != c.esize) {
        r = std::sqrt(fusedFromZero(x, x));
        witness(op == "FrobNorm" ? "FrobNorm" : "L2Norm strided", differ(r, std::sqrt(sequential(products(x, x)))));
    } else {  // contiguous L2Norm, against the strided order where the sum is the plain one
        const std::vector<T> sq = products(x, x);
        const bool plain = x.size() < 4 || x.size() > 6;
        r = std::sqrt(tabled(x.size()) ? tabledSum(sq, true) : sequential(sq));
        const T other = plain ? std::sqrt(fusedFromZero(x, x)) : std::sqrt(sequential(sq));
        const std::string key = tabled(x.size()) ? std::to_string(x.size()) : "other lengths";
        witness("L2Norm contiguous " + key, differ(r, other));
    }
    c.expect<T>(c["Dst"], k, 0, 0, r);
    return omkStsOk;
}

// L2Norm len*count at most 1500; FrobNorm width*height*count 2500 when the element stride is the element size, else
// 1800 (also _P); Trace widthHeight*count 3600.
int64_t normWork(const Name& n, const Shape& s) {
    if (n.op == "L2Norm") return int64_t(s.size("len")) * s.count;
    if (n.op == "Trace") return int64_t(s.size("widthHeight")) * s.count;
    return int64_t(s.size("width")) * s.size("height") * s.count;
}
int64_t normFirstParallel(const Call& c) {
    if (c.name.op == "L2Norm") return 1501;
    if (c.name.op == "Trace") return 3601;
    return c.name.desc != "P" && contiguous(c) ? 2501 : 1801;
}

// ---- Gaxpy: y = A*x + b ----
template <class T> OmkStatus gaxpyObject(Call& c, int k, T) {
    const Region& A = c["Src1"];
    const int w = A.cols, h = A.rows;
    const std::vector<T> x = vectorOf<T>(c, "Src2", k, w);
    for (int i = 0; i < h; ++i) {
        std::vector<T> a(w);
        for (int j = 0; j < w; ++j) a[j] = c.get<T>(A, k, i, j);
        const T b = c.get<T>(c["Src3"], k, 0, i), general = sequential(products(a, x)) + b;
        T r = general;
        if (w == h && tabled(size_t(w))) {  // from b_i with the last column, then columns 0 to n-2
            r = std::fma(a.back(), x.back(), b);
            for (int j = 0; j + 1 < w; ++j) r = std::fma(a[j], x[j], r);
            witness("Gaxpy order " + std::to_string(w), differ(r, general));
        } else {
            T bFirst = b;
            for (int j = 0; j < w; ++j) bFirst = bFirst + a[j] * x[j];
            witness("Gaxpy other shapes", differ(r, bFirst));
        }
        c.expect<T>(c["Dst"], k, 0, i, r);
    }
    return omkStsOk;
}

std::vector<Shape> gaxpyShapes(int m) {
    std::vector<Shape> out;
    for (int w = 1; w <= m; ++w)
        for (int h = 1; h <= m; ++h)
            out.push_back(sized({{"width", w}, {"height", h}, {"src2Len", w}, {"src3Len", h}}));
    return out;
}

// Serial up to work 7000 (standard 32f or _L, contiguous), 5000 (other standard), 500 (other _L), 4500 (_P).
int64_t gaxpyFirstParallel(const Call& c) {
    if (c.name.desc == "P") return 4501;
    if (c.name.desc == "L") return contiguous(c) ? 7001 : 501;
    return c.esize == 4 && contiguous(c) ? 7001 : 5001;
}

}  // namespace

std::vector<Family> productFamilies() {
    Family mul;
    mul.name = "Mul";
    mul.has = [](const Name& n) { return n.op == "Mul" && n.group.find('c') == std::string::npos; };
    mul.shapes = [](const Name& n) {  // (M, K, N): every square order to 8, others
        return mulShapes(n, {{1, 1, 1}, {2, 2, 2}, {3, 3, 3}, {4, 4, 4}, {5, 5, 5}, {6, 6, 6}, {7, 7, 7}, {8, 8, 8},
                             {2, 3, 4}, {4, 3, 2}, {3, 5, 1}, {3, 3, 1}, {7, 9, 3}, {5, 4, 5}, {6, 6, 5}, {1, 17, 2},
                             {5, 16, 3}, {9, 8, 1}, {1, 2, 1}});
    };
    mul.limitShapes = [](const Name& n) {
        std::vector<std::array<int, 3>> used;
        for (int v = 0; v < 125; ++v) used.push_back({1 + v / 25, 1 + v / 5 % 5, 1 + v % 5});  // 1 to 5 each
        return mulShapes(n, used);
    };
    mul.fill = [](Call& c, std::mt19937& rng) { fillSources(c, rng); };
    mul.expect = typed([](Call& c, int k, auto t) { return mulObject(c, k, t); });
    mul.work = mulWork;
    mul.firstParallel = mulFirstParallel;
    for (const char* path : {"contiguous", "strided", "pointer"})
        for (int order : {0, 3, 4, 5, 6})
            mul.ways.push_back(std::string("Mul ") + path + " order " + std::to_string(order));
    mul.specials = true;

    Family scale;
    scale.name = "Scale";
    scale.has = [](const Name& n) { return n.op == "Mul" && n.group.find('c') != std::string::npos; };
    scale.shapes = [](const Name& n) {
        if (n.group[0] == 'v') return lengths("len", {1, 2, 3, 4, 8, 10, 16, 17});
        std::vector<Shape> out;  // squares only 1x1: tc cannot transpose a square over itself
        for (auto [w, h] : {std::pair{1, 1}, {3, 2}, {2, 3}, {4, 5}, {7, 5}, {9, 1}, {1, 9}, {8, 3}})
            out.push_back(sized({{"width", w}, {"height", h}}));
        return out;
    };
    scale.fill = [](Call& c, std::mt19937& rng) {  // a special single constant in one call of four
        fillRandom(c, rng, -12, 12);
        const double special[] = {INFINITY, -INFINITY, NAN, -0.0, 0.0, c.esize == 4 ? 0x1.8p-140 : 0x1.8p-1060};
        if (c.has("val")) setScalar(c, "val", rng() % 4 ? entry(rng, -12, 12) : special[rng() % 6]);
    };
    scale.expect = typed([](Call& c, int k, auto t) { return scaleObject(c, k, t); });
    scale.work = scaleWork;
    scale.firstParallel = scaleFirstParallel;
    scale.inPlace = {"Src"};
    scale.specials = true;

    Family dotCross;
    dotCross.name = "DotCross";
    dotCross.has = [](const Name& n) { return n.op == "DotProduct" || n.op == "CrossProduct"; };
    dotCross.shapes = [](const Name& n) {
        if (n.op == "CrossProduct" || fixedSize(n)) return std::vector<Shape>(8, Shape{});  // new values each time
        return lengths("len", {1, 2, 3, 4, 5, 6, 7, 8, 16, 17, 37, 100});
    };
    dotCross.fill = [](Call& c, std::mt19937& rng) { fillSources(c, rng); };
    dotCross.expect = typed([](Call& c, int k, auto t) { return dotCrossObject(c, k, t); });
    dotCross.work = dotCrossWork;
    dotCross.firstParallel = dotCrossFirstParallel;
    dotCross.ways = {"Cross", "Cross v4", "Dot fixed 2", "Dot fixed 3", "Dot fixed 4"};
    for (const char* path : {"contiguous ", "strided "})
        for (const char* len : {"3", "4", "5", "6", "other lengths"})
            dotCross.ways.push_back(std::string("Dot ") + path + len);
    for (int e : {4, 8})  // every alignment of b before the blocks
        for (int head = 0; head < 32 / e; ++head)
            dotCross.ways.push_back("Dot contiguous blocks after " + std::to_string(head) + " of " + std::to_string(e));
    dotCross.specials = true;

    Family norms;
    norms.name = "NormsTrace";
    norms.has = [](const Name& n) { return n.op == "L2Norm" || n.op == "FrobNorm" || n.op == "Trace"; };
    norms.shapes = [](const Name& n) {
        if (n.op == "L2Norm") return lengths("len", {1, 2, 3, 4, 5, 6, 7, 8, 17, 37});
        return n.op == "Trace" ? lengths("widthHeight", {1, 2, 3, 4, 5, 6, 7, 8}) : allSizes(true, 5);
    };
    norms.fill = [](Call& c, std::mt19937& rng) { fillRandom(c, rng, -12, 12); };
    norms.expect = typed([](Call& c, int k, auto t) { return normObject(c, k, t); });
    norms.work = normWork;
    norms.firstParallel = normFirstParallel;
    norms.ways = {"Trace 3 to 6", "Trace other orders", "FrobNorm", "L2Norm strided"};
    for (const char* len : {"3", "4", "5", "6", "other lengths"})
        norms.ways.push_back(std::string("L2Norm contiguous ") + len);
    norms.specials = true;

    Family gaxpy;
    gaxpy.name = "Gaxpy";
    gaxpy.has = [](const Name& n) { return n.op == "Gaxpy"; };
    gaxpy.shapes = [](const Name&) { return gaxpyShapes(7); };
    gaxpy.fill = [](Call& c, std::mt19937& rng) { fillRandom(c, rng, -12, 12); };
    gaxpy.expect = typed([](Call& c, int k, auto t) { return gaxpyObject(c, k, t); });
    gaxpy.work = [](const Name& n, const Shape& s) -> int64_t {
        const int64_t x = s.size("src2Len"), b = s.size("src3Len"), c = s.count;
        return n.group == "mva" ? (x + 2 * b) * c : x * c + b * (c + 1);
    };
    gaxpy.firstParallel = gaxpyFirstParallel;
    gaxpy.ways = {"Gaxpy order 3", "Gaxpy order 4", "Gaxpy order 5", "Gaxpy order 6", "Gaxpy other shapes"};
    gaxpy.specials = true;
    return {mul, scale, dotCross, norms, gaxpy};
}

}  // namespace omkt
