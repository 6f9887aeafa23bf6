// Family rows of the solvers: LU, Cholesky, QR, Det/Invert with the fixed 4x4 float forms. Each reference replays the
// kernels' steps in their rounding order; `ways` names the other orders the walk must tell apart, per element type (and
// per kernel where orders 3 to 6 have their own).
#include <immintrin.h>

#include <numeric>

#include "families.h"

namespace omkt {
namespace {

template <class T> using Mat = std::vector<T>;  // row-major

// Other orders a result could have been computed in.
enum Way { kLibrary, kUnfused, kOtherMultiplier, kLastMaximum, kFusedNorm, kFusedVtv, kRoundedVtv, kRoundedBeta };

bool straight(int n) { return n >= 3 && n <= 6; }
bool decomposes(const Name& n) { return n.op.find("Decomp") != std::string::npos; }

// Object k of a region, row-major (a fixed-size operand is 4 x 4).
template <class T> Mat<T> grab(const Call& c, const Region& g, int k) {
    const bool fixed = g.kind == Region::Fixed;
    Mat<T> m;
    for (int i = 0; i < (fixed ? 4 : g.rows); ++i)
        for (int j = 0; j < (fixed ? 4 : g.cols); ++j) m.push_back(c.get<T>(g, k, i, j));
    return m;
}
// Rows `first` to `last` - 1 of object k of a destination of `cols` columns, from m.
template <class T> void put(Call& c, const Region& g, int k, const Mat<T>& m, int cols, int first, int last) {
    for (int i = first; i < last; ++i)
        for (int j = 0; j < cols; ++j) c.expect<T>(g, k, i, j, m[size_t(i) * cols + j]);
}

// "<what> 32f" and "<what> 64f", each also per kernel ("orders 3-6", "general") when `kernels`.
std::vector<std::string> waysOf(const std::vector<std::string>& whats, bool kernels) {
    std::vector<std::string> out;
    for (const std::string& w : whats)
        for (const char* t : {" 32f", " 64f"}) {
            if (!kernels) out.push_back(w + t);
            for (const char* k : {" orders 3-6", " general"})
                if (kernels) out.push_back(w + t + k);
        }
    return out;
}
std::string wayOf(const Call& c, const std::string& what, bool kernels) {
    const std::string kernel = straight(c.size("widthHeight")) ? " orders 3-6" : " general";
    return what + (c.esize == 4 ? " 32f" : " 64f") + (kernels ? kernel : "");
}

// One triangular pass over v, forward (i ascending, j < i) or backward (i descending, j > i): v[i] = finish(i, t), t
// being v[i] less the sum of m(i, j)*v[j] as fused chains from the highest j down or from the lowest up, or as rounded
// products added over ascending j and subtracted once.
enum class Sum { FusedDown, FusedUp, Rounded };
template <class T, class M, class F> void pass(Mat<T>& v, int n, bool backward, Sum how, M m, F finish) {
    for (int q = 0; q < n; ++q) {
        const int i = backward ? n - 1 - q : q, lo = backward ? i + 1 : 0, hi = backward ? n : i;
        T t = v[i];
        for (int j = hi - 1; how == Sum::FusedDown && j >= lo; --j) t = std::fma(-m(i, j), v[j], t);
        for (int j = lo; how == Sum::FusedUp && j < hi; ++j) t = std::fma(-m(i, j), v[j], t);
        if (how == Sum::Rounded && lo < hi) {
            T s = m(i, lo) * v[lo];
            for (int j = lo + 1; j < hi; ++j) s = s + m(i, j) * v[j];
            t = t - s;
        }
        v[i] = finish(i, t);
    }
}

// Column 0 of objects 2, 5, 8 ... of the source is +-1.5: equal magnitudes in the first pivot search.
void fillTied(Call& c, std::mt19937& rng) {
    fillRandom(c, rng);
    const Region& a = c["Src"];
    for (int k = 2; k < c.objects(a); k += 3)
        for (int i = 0; i < a.rows; ++i) c.set(a, k, i, 0, i % 3 ? -1.5 : 1.5);
}
// Factors as the decompositions leave them: pivot-order row i at row p[i] (p random for LU), diagonal of magnitude 1 to
// 4, smaller entries elsewhere, NaN above the diagonal for Cholesky (never read); random right-hand sides.
void fillFactors(Call& c, std::mt19937& rng) {
    const Region& a = c["Src"];
    const bool lu = c.hasRegion("SrcIndex"), chol = c.name.op[0] == 'C';
    std::vector<int> p(size_t(a.rows));
    for (int k = 0; k < c.objects(a); ++k) {
        std::iota(p.begin(), p.end(), 0);
        if (lu) std::shuffle(p.begin(), p.end(), rng);
        for (int i = 0; i < a.rows; ++i) {
            if (lu) c.set(c["SrcIndex"], k, 0, i, p[i]);
            for (int j = 0; j < a.cols; ++j)
                c.set(a, k, p[i], j, chol && j > i ? NAN : i == j ? entry(rng, 0, 1) : entry(rng, -3, -1));
        }
    }
    c.fill(c["Src2"], [&](int, int, int) { return entry(rng, -2, 2); });
}
// Symmetric and diagonally dominant with a positive diagonal: positive definite; the upper triangle NaN (never read).
void fillSpd(Call& c, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-1, 1);
    const int n = c["Src"].rows;
    c.fill(c["Src"], [&](int, int i, int j) { return j > i ? NAN : i == j ? n + std::fabs(entry(rng)) : u(rng); });
}

// Object k fails: a zero column (LU, Invert: column 1; QR: column 0) or, for Cholesky, a zero last row (pivot 0).
void spoil(Call& c, int k) {
    const Region& a = c["Src"];
    const int col = c.name.op[0] == 'Q' ? 0 : std::min(1, a.cols - 1);
    for (int i = 0; i < a.rows; ++i)
        for (int j = 0; j < a.cols; ++j)
            if (c.name.op[0] == 'C' ? i == a.rows - 1 : j == col) c.set(a, k, i, j, 0);
}

// Decompositions n*n*count; solvers with a matrix per vector (n + 2)*n*count, one matrix for all (n + 2*count)*n.
int64_t solveWork(const Name& nm, const Shape& s) {
    const int64_t n = s.size("widthHeight"), c = s.count;
    return nm.group == "ma" ? n * n * c : nm.group == "mava" ? (n + 2) * n * c : (n + 2 * c) * n;
}
std::function<std::vector<Shape>(const Name&)> orders(std::vector<int> list) {
    return [list](const Name&) {
        std::vector<Shape> out(list.size());
        for (size_t i = 0; i < list.size(); ++i) out[i].sizes = {{"widthHeight", list[i]}};
        return out;
    };
}

// ---- LU: rows never move, p gives the pivot order; the first maximum wins; orders 3 to 6 fail below 2^-125 (2^-1021),
// the others at or below epsilon. One reciprocal per column, multipliers by it, updates fma(-U(k, j), l, a(i, j)).
template <class T> struct LUFactor {
    Mat<T> a;  // by source row
    std::vector<int> p;
    OmkStatus status = omkStsOk;
    int done = 0;  // steps finished
};
template <class T> LUFactor<T> luOf(Mat<T> a, int n, Way way = kLibrary) {
    LUFactor<T> f{std::move(a), std::vector<int>(size_t(n))};
    std::iota(f.p.begin(), f.p.end(), 0);
    auto A = [&](int r, int c) -> T& { return f.a[size_t(f.p[r]) * n + c]; };  // pivot-order row r
    const T tol = straight(n) ? T(sizeof(T) == 4 ? 0x1p-125 : 0x1p-1021) : std::numeric_limits<T>::epsilon();
    auto fails = [&](T big) { return straight(n) ? big < tol : big <= tol; };
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (way == kLastMaximum ? std::fabs(A(i, k)) >= std::fabs(A(best, k))
                                    : std::fabs(A(i, k)) > std::fabs(A(best, k)))
                best = i;
        if (fails(std::fabs(A(best, k)))) {
            f.status = omkStsSingular;
            return f;
        }
        std::swap(f.p[k], f.p[best]);
        const T r = T(1) / A(k, k);
        for (int i = k + 1; i < n; ++i) {
            const T l = A(i, k) = way == kOtherMultiplier ? A(i, k) / A(k, k) : A(i, k) * r;
            for (int j = k + 1; j < n; ++j)
                A(i, j) = way == kUnfused ? A(i, j) - A(k, j) * l : std::fma(-A(k, j), l, A(i, j));
        }
        f.done = k + 1;
    }
    if (fails(std::fabs(A(n - 1, n - 1)))) f.status = omkStsSingular;
    else f.done = n;
    return f;
}

// p on every return; orders 3 to 6 the rows p[s] of the finished steps, the general loop the whole copy so far.
template <class T> OmkStatus luDecomp(Call& c, int k) {
    const int n = c.size("widthHeight");
    const Mat<T> a = grab<T>(c, c["Src"], k);
    const LUFactor<T> f = luOf(a, n);
    for (int i = 0; i < n; ++i) c.expect<int32_t>(c["DstIndex"], k, 0, i, f.p[i]);
    for (int s = 0; s < (straight(n) ? f.done : n); ++s) {
        const int row = straight(n) ? f.p[s] : s;
        put(c, c["Dst"], k, f.a, n, row, row + 1);
    }
    if (f.status != omkStsOk) return f.status;
    witness(wayOf(c, "LU row exchange", true), !std::is_sorted(f.p.begin(), f.p.end()));
    for (auto [way, what] : {std::pair{kUnfused, "LU unfused update"}, {kOtherMultiplier, "LU divided multiplier"},
                             {kLastMaximum, "LU last maximum"}}) {
        const LUFactor<T> g = luOf(a, n, way);
        witness(wayOf(c, what, true), differ(f.a, g.a) || f.p != g.p);
    }
    return omkStsOk;
}

// Forward with the unit lower factor, backward with U and a division by its diagonal: orders 3 to 6 fused chains from
// the highest index down, the general loop rounded sums.
template <class T> Mat<T> luSolution(const Mat<T>& lu, const std::vector<int>& p, const Mat<T>& b, int n, Sum how) {
    auto U = [&](int i, int j) { return lu[size_t(p[i]) * n + j]; };
    Mat<T> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[i] = b[p[i]];
    pass(v, n, false, how, U, [](int, T t) { return t; });
    pass(v, n, true, how, U, [&](int i, T t) { return t / U(i, i); });
    return v;
}
template <class T> OmkStatus luSolve(Call& c, int k) {
    const int n = c.size("widthHeight");
    const Mat<T> lu = grab<T>(c, c["Src"], k), b = grab<T>(c, c["Src2"], k);
    std::vector<int> p;
    for (int i = 0; i < n; ++i) p.push_back(c.get<int32_t>(c["SrcIndex"], k, 0, i));
    const Mat<T> x = luSolution(lu, p, b, n, straight(n) ? Sum::FusedDown : Sum::Rounded);
    put(c, c["Dst"], k, x, n, 0, 1);
    witness(wayOf(c, "LU other solver order", true),
            differ(x, luSolution(lu, p, b, n, straight(n) ? Sum::Rounded : Sum::FusedDown)));
    return omkStsOk;
}

// ---- Cholesky: L below the diagonal, R(i) = 1/L(i, i) on it; 0 >= d fails (NaN passes). R: for 32f the processor's
// estimate refined by one Newton step, left to right, unfused; for 64f a rounded square root and division.
float rootOf(float d) {
    const float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(d)));
    return (r0 * -0.5f) * ((d * r0) * r0 - 3.0f);
}
double rootOf(double d) { return 1.0 / std::sqrt(d); }

template <class T> struct CholFactor {
    Mat<T> l;
    OmkStatus status = omkStsOk;
    int rows = 0;  // rows formed and written
};
// Row by row; each difference a chain of fma(-x, y, s) over ascending k (orders 3 to 6) or rounded products subtracted.
template <class T> CholFactor<T> cholOf(const Mat<T>& a, int n, bool fused) {
    CholFactor<T> f{Mat<T>(size_t(n) * n)};
    auto L = [&](int i, int j) -> T& { return f.l[size_t(i) * n + j]; };
    auto less = [&](T s, T x, T y) { return fused ? std::fma(-x, y, s) : s - x * y; };
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < i; ++j) {
            T s = a[size_t(i) * n + j];
            for (int k = 0; k < j; ++k) s = less(s, L(i, k), L(j, k));
            L(i, j) = s * L(j, j);
        }
        T d = a[size_t(i) * n + i];
        for (int k = 0; k < i; ++k) d = less(d, L(i, k), L(i, k));
        if (T(0) >= d) {
            f.status = omkStsNotPosDefinite;
            return f;
        }
        L(i, i) = rootOf(d);
        f.rows = i + 1;
    }
    return f;
}
// The lower triangles of the rows formed; never the strict upper triangle nor a failing row.
template <class T> OmkStatus cholDecomp(Call& c, int k) {
    const int n = c.size("widthHeight");
    const Mat<T> a = grab<T>(c, c["Src"], k);
    const CholFactor<T> f = cholOf(a, n, straight(n));
    for (int i = 0; i < f.rows; ++i)
        for (int j = 0; j <= i; ++j) c.expect<T>(c["Dst"], k, i, j, f.l[size_t(i) * n + j]);
    if (f.status == omkStsOk)
        witness(wayOf(c, "Cholesky other decomposition order", true), differ(f.l, cholOf(a, n, !straight(n)).l));
    return f.status;
}
template <class T> Mat<T> cholSolution(const Mat<T>& l, Mat<T> v, int n, Sum how) {
    auto L = [&](int i, int j) { return l[size_t(i) * n + j]; };
    pass(v, n, false, how, L, [&](int i, T t) { return t * L(i, i); });
    pass(v, n, true, how, [&](int i, int j) { return L(j, i); }, [&](int i, T t) { return t * L(i, i); });
    return v;
}
template <class T> OmkStatus cholSolve(Call& c, int k) {
    const int n = c.size("widthHeight");
    const Mat<T> l = grab<T>(c, c["Src"], k), b = grab<T>(c, c["Src2"], k);
    const Mat<T> x = cholSolution(l, b, n, straight(n) ? Sum::FusedDown : Sum::Rounded);
    put(c, c["Dst"], k, x, n, 0, 1);
    witness(wayOf(c, "Cholesky other solver order", true),
            differ(x, cholSolution(l, b, n, straight(n) ? Sum::Rounded : Sum::FusedDown)));
    return omkStsOk;
}

// ---- QR: Householder reflections, width - 1 for a square matrix, width otherwise ----
// Reflection k: s = t + x*x from 0 over rows k ...; |s| < eps stops with omkStsDivByZero; alpha = sqrt(s) when
// a(k, k) > 0, else -sqrt(s); v_i = a(i, k) * 1/(a(k, k) + alpha), v_k = 1; v'v = 1 plus rounded squares two at a time,
// an odd last one fused; beta = -2/(v'v); every column j >= k: t = sum of v_i*a(i, j) from 0,
// a(i, j) = fma(beta*t, v_i, a(i, j)); v below the diagonal.
int reflections(int w, int h) { return w == h ? w - 1 : w; }
template <class T> OmkStatus qrOf(Mat<T>& a, int w, int h, Way way = kLibrary) {
    auto A = [&](int i, int j) -> T& { return a[size_t(i) * w + j]; };
    Mat<T> v(static_cast<size_t>(h));
    for (int k = 0; k < reflections(w, h); ++k) {
        T s = T(0);
        for (int i = k; i < h; ++i) s = way == kFusedNorm ? std::fma(A(i, k), A(i, k), s) : s + A(i, k) * A(i, k);
        if (std::fabs(s) < std::numeric_limits<T>::epsilon()) return omkStsDivByZero;
        const T alpha = A(k, k) > T(0) ? std::sqrt(s) : -std::sqrt(s), q = T(1) / (A(k, k) + alpha);
        v[k] = T(1);
        for (int i = k + 1; i < h; ++i) v[i] = A(i, k) * q;
        T vtv = T(1);
        for (int i = k + 1; i < h; ++i) {
            const bool oddLast = (h - k - 1) % 2 == 1 && i == h - 1;
            vtv = way == kFusedVtv || (oddLast && way != kRoundedVtv) ? std::fma(v[i], v[i], vtv) : vtv + v[i] * v[i];
        }
        const T beta = T(-2) / vtv;
        for (int j = k; j < w; ++j) {
            T t = T(0);
            for (int i = k; i < h; ++i) t = t + v[i] * A(i, j);
            const T bt = beta * t;
            for (int i = k; i < h; ++i) A(i, j) = way == kUnfused ? A(i, j) + bt * v[i] : std::fma(bt, v[i], A(i, j));
        }
        for (int i = k + 1; i < h; ++i) A(i, k) = v[i];
    }
    return omkStsOk;
}
// The whole destination as it stands when the decomposition ends or stops.
template <class T> OmkStatus qrDecomp(Call& c, int k) {
    const int w = c.size("width"), h = c.size("height");
    const Mat<T> a = grab<T>(c, c["Src"], k);
    Mat<T> f = a;
    const OmkStatus status = qrOf(f, w, h);
    put(c, c["Dst"], k, f, w, 0, h);
    for (auto [way, what] : {std::pair{kUnfused, "QR unfused update"}, {kFusedNorm, "QR fused norm"},
                             {kFusedVtv, "QR fused v'v"}, {kRoundedVtv, "QR rounded v'v"}}) {
        Mat<T> g = a;
        witness(wayOf(c, what, false), status == omkStsOk && qrOf(g, w, h, way) == omkStsOk && differ(f, g));
    }
    return status;
}
// Each reflection: beta = -2/(1 + v_i^2 ...) fused from 1; t = b_k, t = fma(v_i, b_i, t); b_k = b_k + beta*t,
// b_i = fma(beta*t, v_i, b_i). Then R*x = b from the bottom, fused over increasing j, divided by R(i, i).
template <class T> Mat<T> qrSolution(const Mat<T>& f, Mat<T> y, int w, int h, Way way, Sum how) {
    auto F = [&](int i, int j) { return f[size_t(i) * w + j]; };
    for (int k = 0; k < reflections(w, h); ++k) {
        T vtv = T(1), t = y[k];
        for (int i = k + 1; i < h; ++i)
            vtv = way == kRoundedBeta ? vtv + F(i, k) * F(i, k) : std::fma(F(i, k), F(i, k), vtv);
        for (int i = k + 1; i < h; ++i) t = std::fma(F(i, k), y[i], t);
        const T bt = T(-2) / vtv * t;
        y[k] = y[k] + bt;
        for (int i = k + 1; i < h; ++i) y[i] = std::fma(bt, F(i, k), y[i]);
    }
    y.resize(size_t(w));
    pass(y, w, true, how, F, [&](int i, T t) { return t / F(i, i); });
    return y;
}
template <class T> OmkStatus qrSolve(Call& c, int k) {
    const int w = c.size("width"), h = c.size("height");
    const Mat<T> f = grab<T>(c, c["Src"], k), b = grab<T>(c, c["Src2"], k);
    const Mat<T> x = qrSolution(f, b, w, h, kLibrary, Sum::FusedUp);
    put(c, c["Dst"], k, x, w, 0, 1);
    witness(wayOf(c, "QR rounded beta", false), differ(x, qrSolution(f, b, w, h, kRoundedBeta, Sum::FusedUp)));
    witness(wayOf(c, "QR descending solve", false), differ(x, qrSolution(f, b, w, h, kLibrary, Sum::FusedDown)));
    return omkStsOk;
}

// ---- Det and Invert; t = 2*n^3 (as a 32-bit int) times the smallest normal number ----
template <class T> T tolOf(int n) { return T(int32_t(2 * n * n * n)) * std::numeric_limits<T>::min(); }
template <class T> T fms(T x, T y, T z) { return std::fma(x, y, -z); }
template <class T> Mat<T> minorOf(const Mat<T>& a, int n, int i, int j) {
    Mat<T> m;
    for (int p = 0; p < n * n; ++p)
        if (p / n != i && p % n != j) m.push_back(a[size_t(p)]);
    return m;
}
template <class T> T expand(const Mat<T>& b, int n);
template <class T> T cofactor(const Mat<T>& b, int n, int i, int j) {
    const T m = expand(minorOf(b, n, i, j), n - 1);
    return (i + j) % 2 ? -m : m;
}
// Order 2 one fms; order 3 along row 0 over the fms minors of rows 1 and 2, fma(b02, M01, fms(b00, M12, b01*M02));
// order 4 fma(b00, C00, b01*C01) + fma(b02, C02, b03*C03); orders 5 and 6 t = b00*C00, then t = fma(b0j, C0j, t).
template <class T> T expand(const Mat<T>& b, int n) {
    auto B = [&](int i, int j) { return b[size_t(i) * n + j]; };
    auto M = [&](int j0, int j1) { return fms(B(1, j0), B(2, j1), B(1, j1) * B(2, j0)); };
    auto C = [&](int j) { return cofactor(b, n, 0, j); };
    if (n == 1) return B(0, 0);
    if (n == 2) return fms(B(0, 0), B(1, 1), B(0, 1) * B(1, 0));
    if (n == 3) return std::fma(B(0, 2), M(0, 1), fms(B(0, 0), M(1, 2), B(0, 1) * M(0, 2)));
    if (n == 4) return std::fma(B(0, 0), C(0), B(0, 1) * C(1)) + std::fma(B(0, 2), C(2), B(0, 3) * C(3));
    T t = B(0, 0) * C(0);
    for (int j = 1; j < n; ++j) t = std::fma(B(0, j), C(j), t);
    return t;
}
// Unfused: every product rounded, the terms summed in turn.
template <class T> T plainSum(const Mat<T>& a, int n) {
    T s = T(0);
    for (int j = 0; j < n; ++j) s = s + a[size_t(j)] * cofactor(a, n, 0, j);
    return s;
}
// Det order 3 along row 2: fma(a20, m0, fms(a22, m2, a21*m1)) over the fms minors of rows 0 and 1.
template <class T> T detOrder3(const Mat<T>& a, Way way) {
    auto A = [&](int i, int j) { return a[size_t(i) * 3 + j]; };
    const T m0 = fms(A(0, 1), A(1, 2), A(0, 2) * A(1, 1)), m1 = fms(A(0, 0), A(1, 2), A(0, 2) * A(1, 0));
    const T m2 = fms(A(0, 0), A(1, 1), A(0, 1) * A(1, 0));
    if (way == kUnfused)
        return A(2, 0) * (A(0, 1) * A(1, 2) - A(0, 2) * A(1, 1)) - A(2, 1) * (A(0, 0) * A(1, 2) - A(0, 2) * A(1, 0)) +
               A(2, 2) * (A(0, 0) * A(1, 1) - A(0, 1) * A(1, 0));
    return std::fma(A(2, 0), m0, fms(A(2, 2), m2, A(2, 1) * m1));
}

// Elimination over row indices: the first maximum of |a(., k)| wins, an exchange negates the sign, a pivot below t
// stops (after its exchange); multipliers a(i, k) / pivot (Det) or (1/pivot) * a(i, k) (Invert), updates
// fma(-l, a(k, j), a(i, j)); the product of the pivots of steps 0 ... n-2.
template <class T> struct Elim {
    bool ok;
    T product, last;
    int sign;
};
template <class T> Elim<T> eliminate(Mat<T> w, int n, T t, bool reciprocal, Way way) {
    std::vector<int> idx(static_cast<size_t>(n));
    std::iota(idx.begin(), idx.end(), 0);
    auto W = [&](int r, int c) -> T& { return w[size_t(idx[r]) * n + c]; };
    Elim<T> e{true, T(1), T(0), 1};
    for (int k = 0; k + 1 < n; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (way == kLastMaximum ? std::fabs(W(i, k)) >= std::fabs(W(best, k))
                                    : std::fabs(W(i, k)) > std::fabs(W(best, k)))
                best = i;
        if (best != k) std::swap(idx[k], idx[best]), e.sign = -e.sign;
        const T pivot = W(k, k), r = T(1) / pivot;
        if (std::fabs(pivot) < t) return {false, e.product, T(0), e.sign};
        for (int i = k + 1; i < n; ++i) {
            const T l = reciprocal != (way == kOtherMultiplier) ? r * W(i, k) : W(i, k) / pivot;
            for (int j = k + 1; j < n; ++j)
                W(i, j) = way == kUnfused ? W(i, j) - l * W(k, j) : std::fma(-l, W(k, j), W(i, j));
        }
        e.product = e.product * pivot;
    }
    e.last = W(n - 1, n - 1);
    return e;
}

// Orders 3 and 4 the closed forms (no tolerance); the others the elimination, 0 when a pivot falls below t or the last
// one is not above it, else product*(last*sign).
template <class T> T detOf(const Mat<T>& a, int n, Way way = kLibrary) {
    if (n == 3) return detOrder3(a, way);
    if (n == 4) return way == kUnfused ? plainSum(a, 4) : expand(a, 4);
    const T t = tolOf<T>(n);
    const Elim<T> e = eliminate(a, n, t, false, way);
    return !e.ok || !(std::fabs(e.last) > t) ? T(0) : e.product * (e.last * T(e.sign));
}

// Order 1: 1/a unless |a| <= t. Orders 3 to 6: the adjugate C(i, j) * (1/det) at (j, i), singular when |det| < t, det
// from row 0. Orders 2 and 7 up: the elimination, singular when a pivot falls below t, then det = (sign*last)*product,
// singular when |det| <= t; element (j, i) is r * (value of minor (i, j)), signed (-1)^(i+j) times the minor's exchange
// sign, the value t when the minor's elimination fails or its last pivot is not above t (order 2: its one element).
template <class T> struct Inverse {
    OmkStatus status = omkStsSingular;
    Mat<T> x;
};
template <class T> Inverse<T> inverseOf(const Mat<T>& a, int n, Way way = kLibrary) {
    Inverse<T> v{omkStsSingular, Mat<T>(size_t(n) * n)};
    const T t = tolOf<T>(n);
    if (n == 1) {
        if (!(std::fabs(a[0]) > t)) return v;
        v.x[0] = T(1) / a[0];
    } else if (straight(n)) {
        const T det = way == kUnfused ? plainSum(a, n) : expand(a, n);
        if (std::fabs(det) < t) return v;
        for (int p = 0; p < n * n; ++p) {
            const T c = cofactor(a, n, p / n, p % n);
            v.x[size_t(p % n) * n + p / n] = way == kOtherMultiplier ? c / det : c * (T(1) / det);
        }
    } else {
        const Elim<T> e = eliminate(a, n, t, true, way);
        if (!e.ok || std::fabs(e.last) < t) return v;
        const T det = (T(e.sign) * e.last) * e.product;
        if (std::fabs(det) <= t) return v;
        for (int p = 0; p < n * n; ++p) {
            const int i = p / n, j = p % n;
            const Elim<T> m = n == 2 ? Elim<T>{true, T(1), a[size_t(1 - i) * n + (1 - j)], 1}
                                     : eliminate(minorOf(a, n, i, j), n - 1, t, true, way);
            const T value = m.ok && std::fabs(m.last) > t ? m.last * m.product : t;
            const T x = (T(1) / det) * value;
            v.x[size_t(j) * n + i] = ((i + j) % 2 == 0) == (m.sign > 0) ? x : -x;
        }
    }
    v.status = omkStsOk;
    return v;
}

template <class T> OmkStatus detExpect(Call& c, int k) {
    const int n = c.name.group == "m4" ? 4 : c.size("widthHeight");
    const Mat<T> a = grab<T>(c, c["Src"], k);
    const T d = detOf(a, n);
    c.expect<T>(c["Dst"], k, 0, 0, d);
    const std::string kind = n == 3 ? "Det order 3" : n == 4 ? "Det order 4" : "Det elimination";
    for (Way way : {kUnfused, kOtherMultiplier, kLastMaximum})
        if (way == kUnfused || kind == "Det elimination")
            witness(wayOf(c,
                          kind + (way == kUnfused       ? " unfused"
                                  : way == kLastMaximum ? " last maximum"
                                                        : " multiplier"),
                          false),
                    differ(d, detOf(a, n, way)));
    return omkStsOk;
}

// omkmInvert_m4_32f: the adjugate times r = (r0 + r0) - det*(r0*r0), r0 the processor's reciprocal estimate of det;
// *pDet = det, or 0 when |det| < 2^-119 (singular, nothing else written).
OmkStatus invert4(Call& c) {
    const Mat<float> a = grab<float>(c, c["Src"], 0);
    const float det = expand(a, 4), r0 = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(det)));
    const float r = (r0 + r0) - det * (r0 * r0);
    c.expect<float>(c["Det"], 0, 0, 0, std::fabs(det) < 0x1p-119f ? 0.0f : det);
    if (std::fabs(det) < 0x1p-119f) return omkStsSingular;
    for (int p = 0; p < 16; ++p) c.expect<float>(c["Dst"], 0, p % 4, p / 4, cofactor(a, 4, p / 4, p % 4) * r);
    witness("Invert_m4 (det*r0)*r0 32f", differ(r, (r0 + r0) - (det * r0) * r0));
    witness("Invert_m4 1/det 32f", differ(r, 1.0f / det));
    return omkStsOk;
}

template <class T> OmkStatus invertExpect(Call& c, int k) {
    if (c.name.group == "m4") return invert4(c);
    const int n = c.size("widthHeight");
    const Mat<T> a = grab<T>(c, c["Src"], k);
    const Inverse<T> v = inverseOf(a, n);
    if (v.status == omkStsOk) put(c, c["Dst"], k, v.x, n, 0, n);
    const std::string kind = straight(n) ? "Invert adjugate" : "Invert elimination";
    for (Way way : {kUnfused, kOtherMultiplier, kLastMaximum})
        if (n > 1 && v.status == omkStsOk && (way != kLastMaximum || !straight(n)))
            witness(wayOf(c,
                          kind + (way == kUnfused       ? " unfused"
                                  : way == kLastMaximum ? " last maximum"
                                                        : " multiplier"),
                          false),
                    differ(v.x, inverseOf(a, n, way).x));
    return v.status;
}

}  // namespace

std::vector<Family> solverFamilies() {
    Family lu;
    lu.name = "LU";
    lu.has = [](const Name& n) { return n.op == "LUDecomp" || n.op == "LUBackSubst"; };
    lu.shapes = orders({3, 4, 5, 6, 1, 2, 7, 8});
    lu.fill = [](Call& c, std::mt19937& rng) { decomposes(c.name) ? fillTied(c, rng) : fillFactors(c, rng); };
    lu.expect = [](Call& c, int k) {
        if (decomposes(c.name)) return c.esize == 4 ? luDecomp<float>(c, k) : luDecomp<double>(c, k);
        return c.esize == 4 ? luSolve<float>(c, k) : luSolve<double>(c, k);
    };
    lu.work = solveWork;
    lu.firstParallel = [](const Call& c) -> int64_t {
        return c.name.group == "ma" ? 1001 : c.name.group == "mava" ? 1201 : 701;
    };
    lu.spoil = spoil;
    lu.fails = decomposes;
    lu.ways = waysOf({"LU row exchange", "LU unfused update", "LU divided multiplier", "LU last maximum",
                      "LU other solver order"}, true);
    lu.specials = true;

    Family chol = lu;
    chol.name = "Cholesky";
    chol.has = [](const Name& n) { return n.op == "CholeskyDecomp" || n.op == "CholeskyBackSubst"; };
    chol.fill = [](Call& c, std::mt19937& rng) { decomposes(c.name) ? fillSpd(c, rng) : fillFactors(c, rng); };
    chol.expect = [](Call& c, int k) {
        if (decomposes(c.name)) return c.esize == 4 ? cholDecomp<float>(c, k) : cholDecomp<double>(c, k);
        return c.esize == 4 ? cholSolve<float>(c, k) : cholSolve<double>(c, k);
    };
    // Solves with a matrix per vector from 2051 when contiguous (standard, _L), else from 1701.
    chol.firstParallel = [](const Call& c) -> int64_t {
        const std::string& g = c.name.group;
        return g == "ma" ? 7501 : g == "mva" ? 1201 : contiguous(c) && c.name.desc != "P" ? 2051 : 1701;
    };
    chol.ways = waysOf({"Cholesky other decomposition order", "Cholesky other solver order"}, true);

    Family qr = lu;
    qr.name = "QR";
    qr.has = [](const Name& n) { return n.op == "QRDecomp" || n.op == "QRBackSubst"; };
    qr.shapes = [](const Name&) {
        std::vector<std::pair<int, int>> wh = {{3, 4}, {7, 7}, {8, 8}, {2, 9}, {5, 8}};
        for (int h = 1; h <= 6; ++h)
            for (int w = 1; w <= h; ++w)
                if (w != 3 || h != 4) wh.push_back({w, h});
        std::vector<Shape> out(wh.size());
        for (size_t i = 0; i < wh.size(); ++i) out[i].sizes = {{"width", wh[i].first}, {"height", wh[i].second}};
        return out;
    };
    qr.fill = [](Call& c, std::mt19937& rng) { decomposes(c.name) ? fillRandom(c, rng) : fillFactors(c, rng); };
    qr.expect = [](Call& c, int k) {
        if (decomposes(c.name)) return c.esize == 4 ? qrDecomp<float>(c, k) : qrDecomp<double>(c, k);
        return c.esize == 4 ? qrSolve<float>(c, k) : qrSolve<double>(c, k);
    };
    // ma 2*w*h*count, mva w*h + (w+h)*count, mava (w*(h+1) + h)*count; serial below 2801.
    qr.work = [](const Name& nm, const Shape& s) -> int64_t {
        const int64_t w = s.size("width"), h = s.size("height"), c = s.count;
        return nm.group == "ma" ? 2 * w * h * c : nm.group == "mva" ? w * h + (w + h) * c : (w * (h + 1) + h) * c;
    };
    qr.firstParallel = [](const Call&) -> int64_t { return 2801; };
    qr.ways = waysOf({"QR unfused update", "QR fused norm", "QR fused v'v", "QR rounded v'v", "QR rounded beta",
                      "QR descending solve"}, false);

    Family det = lu;
    det.name = "DetInvert";
    det.has = [](const Name& n) { return n.op == "Det" || n.op == "Invert"; };
    det.shapes = [](const Name& n) {
        return n.group == "m4" ? std::vector<Shape>(50) : orders({4, 1, 2, 3, 5, 6, 7, 8, 10})(n);
    };
    det.fill = [](Call& c, std::mt19937& rng) {
        if (c.name.group != "m4") return fillTied(c, rng);
        for (int p = 0; p < 16; ++p) c.set(c["Src"], 0, p / 4, p % 4, entry(rng));
    };
    det.expect = [](Call& c, int k) {
        if (c.name.op == "Det") return c.esize == 4 ? detExpect<float>(c, k) : detExpect<double>(c, k);
        return c.esize == 4 ? invertExpect<float>(c, k) : invertExpect<double>(c, k);
    };
    // Det serial while n*count < 14401; Invert while 2*n*count <= 3600 when contiguous (standard, _L), else <= 2500.
    det.work = [](const Name& nm, const Shape& s) -> int64_t {
        return (nm.op == "Det" ? 1 : 2) * int64_t(s.size("widthHeight")) * s.count;
    };
    det.firstParallel = [](const Call& c) -> int64_t {
        return c.name.op == "Det" ? 14401 : contiguous(c) && c.name.desc != "P" ? 3601 : 2501;
    };
    det.fails = [](const Name& n) { return n.op == "Invert"; };
    det.ways = waysOf({"Det order 3 unfused", "Det order 4 unfused", "Det elimination unfused",
                       "Det elimination multiplier", "Det elimination last maximum", "Invert adjugate unfused",
                       "Invert adjugate multiplier", "Invert elimination unfused", "Invert elimination multiplier",
                       "Invert elimination last maximum"}, false);
    det.ways.insert(det.ways.end(), {"Invert_m4 (det*r0)*r0 32f", "Invert_m4 1/det 32f"});
    return {lu, chol, qr, det};
}

}  // namespace omkt
