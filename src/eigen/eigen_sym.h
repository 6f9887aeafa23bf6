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

// An off-diagonal element is negligible when |0.5*e| <= eps, in double whatever the element type:
// an absolute test, not scaled by the neighbouring diagonal.
template <class T> bool negligible(T e) { return std::fabs(0.5 * double(e)) <= double(kEps<T>); }

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
            if (sweeps++ == 30) return omkStsNotConverged;
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
                        z.at(k, cj) = s * zi + c * zj;
                        z.at(k, ci) = c * zi - s * zj;
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
        for (int32_t k = 0; k < count; ++k) {
            OmkStatus st;
            if constexpr (Vectors) st = oneMatrix<T, true>(as.obj(k), W, vs.obj(k), zs.obj(k), n);
            else st = oneMatrix<T, false>(as.obj(k), W, vs.obj(k), zs, n);
            if (st != omkStsOk) return st;
        }
        return omkStsOk;
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
