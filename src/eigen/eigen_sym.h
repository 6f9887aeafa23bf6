// Symmetric eigenproblem: all eigenvalues (EigenValuesSym), or eigenvalues and eigenvectors
// (EigenValuesVectorsSym), of real symmetric matrices, single or in arrays, in the standard,
// pointer (_P) and layout (_L) descriptions.
//
// n = 1 and n = 2 have closed forms. From n = 3 on, the matrix is copied into the caller's scratch
// W (row-major n x n), reduced to tridiagonal form by Householder reflections, and diagonalised by
// an implicitly shifted QL iteration (or its mirror image, QR) with plane rotations; the values are
// then sorted in descending order and the vectors' columns with them. Every description reads the
// source into W and writes the vectors through its view, so all give the same bits for the same
// matrix. The exported functions (eigen_sym_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "frame/checks.h"
#include "frame/object_lanes.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"

namespace omk::eigensym {

enum class Group { m, ma };
enum class Desc { Std, L, P };

// Null pointers, size, count, ROI shifts, strides: a bad widthHeight is reported before a bad ROI
// shift, and every ROI shift of the call before any stride.
inline constexpr CheckOrder kOrder{Check::Null, Check::Size, Check::Count, Check::RoiShift, Check::Stride};

// ---- serial limits: an array call stays serial while its work is below the limit ----
//                                               work                parallel from
constexpr int32_t kValuesLimit = 1001;        // n*(n + 1)*count
constexpr int32_t kVectorsLimit = 701;        // n*(2n + 1)*count

inline bool goesParallel(Group g, bool vectors, const Dims& d) {
    if (g != Group::ma) return false;
    const int32_t work = vectors ? (Wrap32(d.width) * (Wrap32(2) * d.width + 1) * d.count).value()
                                 : (Wrap32(d.width) * (Wrap32(d.width) + 1) * d.count).value();
    return work >= (vectors ? kVectorsLimit : kValuesLimit);
}

// The absolute tolerance of every test: 2^-23 for floats, 2^-52 for doubles.
template <class T> constexpr T kEps = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);

// The values-only forms pass this in place of a vector matrix.
struct NoVectors {};

// ---- n = 2, closed form from a = A(0,0), b = A(0,1), d = A(1,1) ----
// c = 1/sqrt(q*q + 1): q*q + 1 in the element type, the root and the reciprocal in double,
// rounded once.
template <class T> T unitScale(T q) { return T(1.0 / std::sqrt(double(q * q + T(1)))); }

template <class T, bool Vectors, class SO, class ZO>
OmkStatus order2(const SO& src, T* values, const ZO& z) {
    const T eps = kEps<T>;
    const T a = src.at(0, 0), b = src.at(0, 1), d = src.at(1, 1);
    const T det = std::fma(a, d, -(b * b));
    if (std::fabs(det) <= eps) return omkStsSingular;
    const T t = a + d, delta = a - d, b2 = T(2) * b;
    const T root = std::sqrt(delta * delta + b2 * b2);
    T v0, v1;
    if (t > eps) v0 = T(0.5) * (t + root), v1 = det / v0;
    else if (t < -eps) v0 = T(0.5) * (t - root), v1 = det / v0;
    else v0 = T(0.5) * root, v1 = T(-0.5) * root;
    if constexpr (Vectors) {
        const int sigma1 = t < -eps ? -1 : 1;
        int sigma2 = 1;
        T u;
        if (delta >= eps) u = delta + root;
        else if (delta < -eps) u = delta - root, sigma2 = -1;
        else u = delta + root;
        T x, y;
        if (std::fabs(u) > std::fabs(b2)) {
            const T q = -b2 / u, c = unitScale(q);
            x = c, y = q * c;
        } else if (std::fabs(b2) <= eps) {
            x = T(0), y = T(1);
        } else {
            const T q = -u / b2, c = unitScale(q);
            x = q * c, y = c;
        }
        if (sigma1 != sigma2) {
            z.at(0, 0) = y, z.at(0, 1) = -x;
            z.at(1, 0) = x, z.at(1, 1) = y;
        } else {
            z.at(0, 0) = -x, z.at(0, 1) = -y;
            z.at(1, 0) = y, z.at(1, 1) = -x;
        }
    }
    values[0] = v0;
    values[1] = v1;
    return omkStsOk;
}

// ---- n >= 3 ----

// Householder reduction of W to tridiagonal form, top to bottom. For column k, x = W(k+1.., k),
// s = sum of x_i^2 in ascending i, alpha = sqrt(s); the reflection vector v (held in `v`, the
// values output) is x with its first component replaced by x0 + alpha, alpha or x0 - alpha as x0
// lies above eps, within +-eps or below -eps, with h = v'v taken as 2*(alpha*x0 + s), 2*s or
// 2*(s - alpha*x0). When h <= eps the column is left as it is; otherwise, with beta = 2/h,
// W <- H*W*H for H = I - beta*v*v' (rows, then columns, each a dot product tau = beta*(v'w) and an
// update w - tau*v), and the vector forms accumulate Z <- Z*H from Z = I.
template <int N, class T, bool Vectors, class ZO>
void tridiagonalise(T* W, T* v, const ZO& z, int nArg) {
    const int n = N > 0 ? N : nArg;
    const T eps = kEps<T>;
    for (int k = 0; k + 2 < n; ++k) {
        const int m = n - k - 1, o = k + 1;  // length of x, its first row
        T s = T(0);
        for (int i = 0; i < m; ++i) {
            const T xi = W[(o + i) * n + k];
            s = s + xi * xi;
        }
        const T alpha = std::sqrt(s), x0 = W[o * n + k];
        T h;
        if (x0 > eps) v[0] = x0 + alpha, h = T(2) * (alpha * x0 + s);
        else if (x0 < -eps) v[0] = x0 - alpha, h = T(2) * (s - alpha * x0);
        else v[0] = alpha, h = T(2) * s;
        for (int i = 1; i < m; ++i) v[i] = W[(o + i) * n + k];
        if (h <= eps) continue;
        const T beta = T(2) / h;
        // Rows o.. of columns k..n-1 (columns left of k are zero in those rows).
        for (int j = k; j < n; ++j) {
            T tau = T(0);
            for (int i = 0; i < m; ++i) tau = tau + v[i] * W[(o + i) * n + j];
            tau = beta * tau;
            for (int i = 0; i < m; ++i) W[(o + i) * n + j] = W[(o + i) * n + j] - tau * v[i];
        }
        // Columns o.. of rows k..n-1.
        for (int r = k; r < n; ++r) {
            T* row = W + r * n + o;
            T tau = T(0);
            for (int i = 0; i < m; ++i) tau = tau + row[i] * v[i];
            tau = beta * tau;
            for (int i = 0; i < m; ++i) row[i] = row[i] - tau * v[i];
        }
        if constexpr (Vectors) {
            for (int r = 0; r < n; ++r) {
                T tau = T(0);
                for (int i = 0; i < m; ++i) tau = tau + z.at(r, o + i) * v[i];
                tau = beta * tau;
                for (int i = 0; i < m; ++i) z.at(r, o + i) = z.at(r, o + i) - tau * v[i];
            }
        }
    }
}

// Each rotation of the vector columns rounds its four products before the sum and the difference.
// Where the two columns lie side by side in memory, GCC 12's basic-block vectorizer would otherwise
// turn the pair (s*zi + c*zj, c*zi - s*zj) into one fused multiply-add-subtract, whatever
// -ffp-contract says, and the bits would depend on the vector matrix's strides and on the order.
// The empty asm makes each product a value the compiler must hold as it is.
template <class T>
inline void keepRounded(T& a, T& b, T& c, T& d) {
    asm("" : "+x"(a), "+x"(b), "+x"(c), "+x"(d));
}

// An off-diagonal element is negligible when |0.5*e| <= eps, in double whatever the element type:
// an absolute test, not scaled by the neighbouring diagonal. 0.5*e is exact in double for every
// float and for every double above 2*eps, so the test is |e| <= 2*eps in the element type, which
// the lanes compare directly.
template <class T> constexpr T kNegligible = T(2) * kEps<T>;
template <class T> bool negligible(T e) { return std::fabs(e) <= kNegligible<T>; }

// Sweeps for one value before omkStsNotConverged.
constexpr int kSweepLimit = 30;

// The implicit shifted iteration on the diagonal D[0..n-1] and the couplings E[0..n-2] (E[i]
// couples rows i and i+1; E[n-1] is a zero sentinel). Mirror = false is the QL direction, values
// converging from index 0 up; Mirror = true is the QR direction, the same steps on the reversed
// index order (index i of the steps is row n-1-i). Each call of `found(m)` reports the index
// (in the steps' order) where a search stopped. Returns omkStsNotConverged after 30 sweeps for
// one value.
template <bool Mirror, int N, class T, bool Vectors, class ZO, class Found>
OmkStatus iterate(T* D, T* E, const ZO& z, int nArg, Found&& found) {
    const int n = N > 0 ? N : nArg;
    const T eps = kEps<T>;
    auto at = [n](int i) { return Mirror ? n - 1 - i : i; };
    auto d = [&](int i) -> T& { return D[at(i)]; };
    auto e = [&](int i) -> T& { return E[Mirror ? (i < n - 1 ? n - 2 - i : n - 1) : i]; };
    for (int l = 0; l < n; ++l) {
        int sweeps = 0;
        for (;;) {
            int m = l;
            while (m < n - 1 && !negligible(e(m))) ++m;
            found(m);
            if (m == l) break;
            if (sweeps++ == kSweepLimit) return omkStsNotConverged;
            T g = (d(l + 1) - d(l)) / (T(2) * e(l));
            T r = std::sqrt(std::fma(g, g, T(1)));
            g = g > eps ? (d(m) - d(l)) + e(l) / (g + r) : (d(m) - d(l)) + e(l) / (g - r);
            T s = T(1), c = T(1), p = T(0);
            int i = m - 1;
            bool restart = false;
            for (; i >= l; --i) {
                const T f = s * e(i), b = c * e(i);
                r = std::sqrt(std::fma(f, f, g * g));
                if (i != m - 1) e(i + 1) = r;
                if (std::fabs(r) <= eps) {
                    d(i + 1) = d(i + 1) - p;
                    e(m) = T(0);
                    restart = true;
                    break;
                }
                s = f / r;
                c = g / r;
                g = d(i + 1) - p;
                r = std::fma(s, d(i) - g, b * (T(2) * c));
                p = s * r;
                d(i + 1) = g + p;
                g = std::fma(r, c, -b);
                if constexpr (Vectors) {
                    const int ci = at(i), cj = at(i + 1);
                    for (int k = 0; k < n; ++k) {
                        const T zi = z.at(k, ci), zj = z.at(k, cj);
                        T szi = s * zi, czj = c * zj, czi = c * zi, szj = s * zj;
                        keepRounded(szi, czj, czi, szj);
                        z.at(k, cj) = szi + czj;
                        z.at(k, ci) = czi - szj;
                    }
                }
            }
            if (restart) continue;
            // A last r within eps restarts without the final update when the loop index, which
            // ends at l - 1, is not below zero, that is for every l >= 1.
            if (std::fabs(r) <= eps && i >= 0) continue;
            d(l) = d(l) - p;
            e(l) = g;
            e(m) = T(0);
        }
    }
    return omkStsOk;
}

// Orders from 3 on. N > 0 fixes the order at compile time.
template <int N, class T, bool Vectors, class SO, class ZO>
OmkStatus orderN(const SO& src, T* W, T* values, const ZO& z, int nArg) {
    const int n = N > 0 ? N : nArg;
    const T eps = kEps<T>;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) W[i * n + j] = src.at(i, j);
    if constexpr (Vectors)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) z.at(i, j) = T(i == j ? 1 : 0);
    tridiagonalise<N, T, Vectors>(W, values, z, n);

    // The diagonal moves to W[0..n-1] and the couplings to W[n..2n-1] (E[i] = W(i+1, i)); every
    // element read is still in place when its turn comes.
    T* D = W;
    T* E = W + n;
    for (int i = 1; i < n; ++i) D[i] = W[i * n + i];
    for (int i = 0; i + 1 < n; ++i) E[i] = W[(i + 1) * n + i];
    E[n - 1] = T(0);

    // The output and the running product P: once after convergence in index order (QL), or each
    // time a search stops at a row m >= 1 and for row 0 last (QR), so that in the QR direction a
    // value may enter P more than once.
    T P = T(1);
    OmkStatus st;
    if (std::fabs(D[n - 1]) > std::fabs(D[0])) {
        st = iterate<false, N, T, Vectors>(D, E, z, n, [](int) {});
        if (st != omkStsOk) return st;
        for (int i = 0; i < n; ++i) values[i] = D[i], P = P * D[i];
    } else {
        st = iterate<true, N, T, Vectors>(D, E, z, n, [&](int m) {
            const int row = n - 1 - m;
            if (row >= 1) values[row] = D[row], P = P * D[row];
        });
        if (st != omkStsOk) return st;
        values[0] = D[0], P = P * D[0];
    }
    if (std::fabs(P) <= eps) return omkStsSingular;

    // Selection sort, descending; the first index wins ties.
    for (int i = 0; i + 1 < n; ++i) {
        int j = i;
        for (int q = i + 1; q < n; ++q)
            if (values[q] > values[j]) j = q;
        if (j == i) continue;
        std::swap(values[i], values[j]);
        if constexpr (Vectors)
            for (int r = 0; r < n; ++r) std::swap(z.at(r, i), z.at(r, j));
    }
    return omkStsOk;
}

// A row-major N x N matrix in local memory.
template <class T, int N>
struct LocalMatrix {
    T* p;
    T& at(int i, int j) const { return p[i * N + j]; }
};

// Orders 3 to 8 work on local copies of W and of the vector matrix, at a fixed order; the vector
// matrix is written out on every return, so it holds the same values as when the steps work in the
// destination itself.
template <int N, class T, bool Vectors, class SO, class ZO>
OmkStatus orderFixed(const SO& src, T* values, const ZO& z) {
    T W[N * N];
    T Z[Vectors ? N * N : 1];
    const OmkStatus st = orderN<N, T, Vectors>(src, W, values, LocalMatrix<T, N>{Z}, N);
    if constexpr (Vectors)
#pragma GCC unroll 8
        for (int i = 0; i < N; ++i)
#pragma GCC unroll 8
            for (int j = 0; j < N; ++j) z.at(i, j) = Z[i * N + j];
    return st;
}

template <class T, bool Vectors, class SO, class ZO>
OmkStatus oneMatrix(const SO& src, T* W, T* values, const ZO& z, int n) {
    switch (n) {
    case 1:
        values[0] = src.at(0, 0);
        if constexpr (Vectors) z.at(0, 0) = T(1);
        return omkStsOk;
    case 2: return order2<T, Vectors>(src, values, z);
    case 3: return orderFixed<3, T, Vectors>(src, values, z);
    case 4: return orderFixed<4, T, Vectors>(src, values, z);
    case 5: return orderFixed<5, T, Vectors>(src, values, z);
    case 6: return orderFixed<6, T, Vectors>(src, values, z);
    case 7: return orderFixed<7, T, Vectors>(src, values, z);
    case 8: return orderFixed<8, T, Vectors>(src, values, z);
    default: return orderN<0, T, Vectors>(src, W, values, z, n);
    }
}

// ---- objects side by side ----
// Arrays of orders 3 to 8 with packed rows (and, for the vector forms, packed vector rows) run a
// block of 8 floats or 4 doubles at once, matrix q of the block in lane q of every vector. Every
// lane takes exactly the steps of orderN above for its own matrix: the same operations in the same
// order, each branch of one object a lane-wise choice between both outcomes, each index that
// depends on the matrix (the sweep's rows, the search's stop) a lane-wise pick among the rows of a
// register array. A lane whose search has finished waits, unchanged, for the slowest lane of the
// block. The QR direction runs the QL steps on its rows in reverse order, its vector columns
// reversed with them, and multiplies each value into P where its search stops, as orderN does.
//
// A block in which some matrix fails (30 sweeps for one value, or |P| <= eps) writes nothing and
// returns false: only a failing matrix can end a block that way, and the per-object path then takes
// the block in order up to that matrix.
//
// Row idx of a register array, for lanes whose idx lies in Lo ... Hi (the steps' bounds of that
// index: a pick or a put costs one blend per row it may touch).
template <int Lo, int Hi, class X, class M, int N>
X pickLane(const X (&a)[N], M idx) {
    X x = a[Lo];
    for (int q = Lo + 1; q <= Hi; ++q) x = idx == q ? a[q] : x;
    return x;
}
template <int Lo, int Hi, class X, class M, int N>
void putLane(X (&a)[N], M idx, M where, X x) {
    for (int q = Lo; q <= Hi; ++q) a[q] = (where & (idx == q)) ? x : a[q];
}

// The columns of Z in reverse order, in the lanes of `where`.
template <class X, class M, int N>
void reverseColumns(X (&Z)[N][N], M where) {
    for (int r = 0; r < N; ++r)
        for (int j = 0; j < N / 2; ++j) {
            const X lo = Z[r][j], hi = Z[r][N - 1 - j];
            Z[r][j] = where ? hi : lo;
            Z[r][N - 1 - j] = where ? lo : hi;
        }
}

template <int N, class T, bool Vectors, class Src, class Vals, class Zs>
OMKM_FLATTEN bool eigenBlock(const Src& src, const Vals& vals, const Zs& zs) {
    using L = BlockLanes<T>;
    using X = typename L::X;
    using M = typename L::Mask;
    const X zero = X{}, one = zero + T(1), two = zero + T(2), eps = zero + kEps<T>;
    const X tiny = zero + kNegligible<T>;
    const auto a = loadLanes<N, T>(src);
    X W[N][N], Z[N][N];
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) W[i][j] = a.v[i][j], Z[i][j] = i == j ? one : zero;

    // Householder, as tridiagonalise: a column whose h <= eps keeps every element.
    for (int k = 0; k + 2 < N; ++k) {
        const int m = N - k - 1, o = k + 1;
        X s = zero;
        for (int i = 0; i < m; ++i) s = s + W[o + i][k] * W[o + i][k];
        const X alpha = L::sqrt(s), x0 = W[o][k];
        const M above = x0 > eps, below = x0 < -eps;
        X v[N];
        v[0] = above ? x0 + alpha : below ? x0 - alpha : alpha;
        const X h = above ? two * (alpha * x0 + s) : below ? two * (s - alpha * x0) : two * s;
        for (int i = 1; i < m; ++i) v[i] = W[o + i][k];
        const M apply = ~(h <= eps);
        const X beta = two / h;
        for (int j = k; j < N; ++j) {
            X tau = zero;
            for (int i = 0; i < m; ++i) tau = tau + v[i] * W[o + i][j];
            tau = beta * tau;
            for (int i = 0; i < m; ++i) W[o + i][j] = apply ? W[o + i][j] - tau * v[i] : W[o + i][j];
        }
        for (int r = k; r < N; ++r) {
            X tau = zero;
            for (int i = 0; i < m; ++i) tau = tau + W[r][o + i] * v[i];
            tau = beta * tau;
            for (int i = 0; i < m; ++i) W[r][o + i] = apply ? W[r][o + i] - tau * v[i] : W[r][o + i];
        }
        if constexpr (Vectors)
            for (int r = 0; r < N; ++r) {
                X tau = zero;
                for (int i = 0; i < m; ++i) tau = tau + Z[r][o + i] * v[i];
                tau = beta * tau;
                for (int i = 0; i < m; ++i) Z[r][o + i] = apply ? Z[r][o + i] - tau * v[i] : Z[r][o + i];
            }
    }

    // The diagonal and the couplings in the steps' order: reversed in the QR lanes.
    const M mirror = ~(L::abs(W[N - 1][N - 1]) > L::abs(W[0][0]));
    X d[N], e[N];
    for (int i = 0; i < N; ++i) d[i] = mirror ? W[N - 1 - i][N - 1 - i] : W[i][i];
    for (int i = 0; i + 1 < N; ++i) e[i] = mirror ? W[N - 1 - i][N - 2 - i] : W[i + 1][i];
    e[N - 1] = zero;
    if constexpr (Vectors) reverseColumns(Z, mirror);

    // The iteration of `iterate`, one plane rotation per lane and round. Between rotations a lane
    // searches (at most N times, one per value it finds converged) until it starts a sweep or is
    // done.
    const M none = M{}, all = none == none;
    M l = none, m = none, i = none, sweeps = none, live = all, rotating = none;
    X g = zero, s = zero, c = zero, p = zero, r = zero, P = one;
    for (;;) {
        for (int look = 0; look < N; ++look) {
            const M searching = live & ~rotating;
            if (!L::any(searching)) break;
            M stop = none + (N - 1);
            for (int q = N - 2; q >= 0; --q) stop = ((l <= q) & (L::abs(e[q]) <= tiny)) ? none + q : stop;
            P = (searching & mirror & (stop <= N - 2)) ? P * pickLane<0, N - 2>(d, stop) : P;
            const M found = searching & (stop == l);
            l = found ? l + 1 : l;
            sweeps = found ? none : sweeps;
            live = live & ~(found & (l == N));
            const M start = searching & ~found;
            if (!L::any(start)) continue;
            if (L::any(start & (sweeps == kSweepLimit))) return false;
            sweeps = start ? sweeps + 1 : sweeps;
            const X dl = pickLane<0, N - 2>(d, l), el = pickLane<0, N - 2>(e, l);
            X g0 = (pickLane<1, N - 1>(d, l + 1) - dl) / (two * el);
            const X r0 = L::sqrt(fmadd(g0, g0, one));
            const X dml = pickLane<1, N - 1>(d, stop) - dl;
            g0 = g0 > eps ? dml + el / (g0 + r0) : dml + el / (g0 - r0);
            g = start ? g0 : g;
            s = start ? one : s;
            c = start ? one : c;
            p = start ? zero : p;
            i = start ? stop - 1 : i;
            m = start ? stop : m;
            rotating = rotating | start;
        }
        if (!L::any(live)) break;

        const X ei = pickLane<0, N - 2>(e, i);
        const X f = s * ei, b = c * ei;
        const X rr = L::sqrt(fmadd(f, f, g * g));
        putLane<1, N - 1>(e, i + 1, rotating & (i != m - 1), rr);
        const M small = rotating & (L::abs(rr) <= eps);
        if (L::any(small)) {
            putLane<1, N - 1>(d, i + 1, small, pickLane<1, N - 1>(d, i + 1) - p);
            putLane<1, N - 1>(e, m, small, zero);
        }
        const M go = rotating & ~small;
        const X s1 = f / rr, c1 = g / rr;
        const X g1 = pickLane<1, N - 1>(d, i + 1) - p;
        const X r1 = fmadd(s1, pickLane<0, N - 2>(d, i) - g1, b * (two * c1));
        const X p1 = s1 * r1;
        putLane<1, N - 1>(d, i + 1, go, g1 + p1);
        // g, s, c, r, p and i matter only to rotating lanes (a sweep's start sets them again), so
        // they take the new values in every lane.
        g = fmadd(r1, c1, -b);
        if constexpr (Vectors)
            for (int k = 0; k < N; ++k) {
                const X zi = pickLane<0, N - 2>(Z[k], i), zj = pickLane<1, N - 1>(Z[k], i + 1);
                putLane<1, N - 1>(Z[k], i + 1, go, s1 * zi + c1 * zj);
                putLane<0, N - 2>(Z[k], i, go, c1 * zi - s1 * zj);
            }
        s = s1;
        c = c1;
        r = r1;
        p = p1;
        i = i - 1;
        // The sweep ends below row l: a last r within eps starts the search again from l >= 1.
        const M end = go & (i < l);
        if (L::any(end)) {
            const M finish = end & ~((L::abs(r) <= eps) & (i >= 0));
            putLane<0, N - 2>(d, l, finish, pickLane<0, N - 2>(d, l) - p);
            putLane<0, N - 2>(e, l, finish, g);
            putLane<1, N - 1>(e, m, finish, zero);
        }
        rotating = go & ~end;
    }

    // Back to index order; P of the QL lanes is the values' product in index order.
    X values[N];
    X product = one;
    for (int j = 0; j < N; ++j) values[j] = mirror ? d[N - 1 - j] : d[j], product = product * d[j];
    P = mirror ? P * d[N - 1] : product;
    if (L::any(L::abs(P) <= eps)) return false;
    if constexpr (Vectors) reverseColumns(Z, mirror);

    // The selection sort of orderN, descending, the first index winning ties.
    for (int i0 = 0; i0 + 1 < N; ++i0) {
        M j = none + i0;
        X best = values[i0];
        for (int q = i0 + 1; q < N; ++q) {
            const M above = values[q] > best;
            j = above ? none + q : j;
            best = above ? values[q] : best;
        }
        const X old = values[i0];
        values[i0] = best;
        for (int q = i0 + 1; q < N; ++q) values[q] = j == q ? old : values[q];
        if constexpr (Vectors)
            for (int r = 0; r < N; ++r) {
                const X z0 = Z[r][i0];
                Z[r][i0] = pickLane<0, N - 1>(Z[r], j);
                for (int q = i0 + 1; q < N; ++q) Z[r][q] = j == q ? z0 : Z[r][q];
            }
    }

    rowLanes<false, N>(values, [&](int q, int) { return vals(q); }, 0);
    if constexpr (Vectors) {
        const auto out = copyObjects<T>(zs);
        for (int k = 0; k < N; ++k) rowLanes<false, N>(Z[k], [&](int q, int row) { return out.o[q].row(row); }, k);
    }
    return true;
}

// The whole blocks among matrices 0 ... count-1 of orders 3 to 8, each block read whole before any
// of it is written; stops before a block with a failing matrix. Returns how many matrices it did.
template <class T, bool Vectors, class Src, class Vals, class Zs>
int32_t eigenLanes(const Src& src, const Vals& vals, const Zs& zs, int n, int32_t count) {
    constexpr int W = BlockLanes<T>::W;
    return forOrder<3, 8>(n, [&](auto order) {
        int32_t k = 0;
        for (; k + W <= count; k += W)
            if (!eigenBlock<decltype(order)::value, T, Vectors>([&](int q) { return src(k + q); },
                                                                [&](int q) { return vals(k + q); },
                                                                [&](int q) { return zs(k + q); }))
                break;
        return k;
    });
}

// The matrices of a call, in order, on the calling thread or over the parallel driver; each run of
// objects stops at its first failure. Threads take n*n elements of scratch each from the driver;
// the serial path (also when that scratch cannot be had) uses the caller's buffer.
template <Group G, bool Vectors, class A, class B, class Z, class V>
OmkStatus matrices(const A& a, const B& buffer, const Z& z, const V& values, const Dims& dims) {
    using T = std::remove_const_t<typename V::Elem>;
    const int n = dims.width;
    const size_t scratch = size_t(n) * size_t(n) * sizeof(T);
    auto run = [&](int32_t first, int32_t count, T* W) -> OmkStatus {
        const A as = a.from(first);
        const V vs = values.from(first);
        const Z zs = [&] {
            if constexpr (Vectors) return z.from(first);
            else return z;
        }();
        auto objects = [&](auto packed, int32_t, int32_t cnt) -> OmkStatus {
            constexpr bool P = decltype(packed)::value;
            auto zk = [&](int32_t k) {
                if constexpr (Vectors) return objectOf<P>(zs, k);
                else return NoVectors{};
            };
            int32_t k = 0;
            if constexpr (P)
                k = eigenLanes<T, Vectors>([&](int32_t q) { return objectOf<P>(as, q); },
                                           [&](int32_t q) { return vs.obj(q); }, zk, n, cnt);
            for (; k < cnt; ++k)
                if (const OmkStatus st = oneMatrix<T, Vectors>(objectOf<P>(as, k), W, vs.obj(k), zk(k), n)) return st;
            return omkStsOk;
        };
        if constexpr (Vectors) return overObjectsPacked(false, count, objects, as, zs);
        else return overObjectsPacked(false, count, objects, as);
    };
    return overObjectsWithScratch(goesParallel(G, Vectors, dims), dims.count, buffer.obj(0), scratch, run);
}

// ---- exported forms ----

template <Group G, Desc Dsc, class A, class B, class V>
OmkStatus values(const A& a, const B& buffer, const V& vals, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kOrder, dims, a, buffer, vals)) return st;
    return matrices<G, false>(a, buffer, NoVectors{}, vals, dims);
}

template <Group G, Desc Dsc, class A, class B, class Z, class V>
OmkStatus valuesVectors(const A& a, const B& buffer, const Z& z, const V& vals, const Dims& dims) {
    if (const OmkStatus st = firstFailure(kOrder, dims, a, buffer, z, vals)) return st;
    return matrices<G, true>(a, buffer, z, vals, dims);
}

}  // namespace omk::eigensym
