// General eigenproblem: all eigenvalues of real square matrices (EigenValues), with their left
// (EigenValuesVectorsLeft), right (EigenValuesVectorsRight) or both sets of eigenvectors
// (EigenValuesVectors), single or in arrays, in the standard, pointer (_P) and layout (_L)
// descriptions.
//
// The matrix is copied into scratch H, reduced to upper Hessenberg form by Householder reflections
// and brought to real Schur form by the double-shift (Francis) QR iteration. The values-only forms
// update only the active block; the vector forms update the whole matrix and accumulate the
// transformations in Z, and then solve for each eigenvector in the quasi-triangular form (right
// vectors by back substitution, left vectors by the same substitution on the reversed transpose)
// and transform it by Z. Every arithmetic step of the active block is the same in both modes, so
// every family gives the same values, bit for bit. The `_32f` members compute in single precision
// throughout. The exported functions (eigen_general_entries.cpp) are one line each.
#pragma once
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "frame/checks.h"
#include "frame/operand_views.h"
#include "frame/parallel_driver.h"
#include "frame/wrapping.h"

namespace omk::eigengen {

enum class Group { m, ma };
enum class Desc { Std, L, P };
enum class Want { Values, Left, Right, Both };

// ---- checks ----
// Null pointers (every destination and the buffer included), size, count; then the source's ROI
// shift and strides; then the destinations' ROI shifts and strides, so that a bad destination ROI
// shift is reported after a bad source stride. A single-matrix pointer form has no strides, so
// there both ROI shifts are tested in one step.
inline constexpr CheckOrder kHeadOrder{Check::Null, Check::Size, Check::Count};
inline constexpr CheckOrder kOperandOrder{Check::RoiShift, Check::Stride};

template <class S, class B, class V, class... Z>
[[gnu::always_inline]] inline OmkStatus checks(const Dims& d, const S& src, const B& buffer, const V& re,
                                               const V& im, const Z&... vectors) {
    if (const OmkStatus st = firstFailure(kHeadOrder, d, src, buffer, re, im, vectors...)) return st;
    if (const OmkStatus st = firstFailure(kOperandOrder, d, src)) return st;
    return firstFailure(kOperandOrder, d, vectors...);
}

// ---- serial limits: an array call stays serial while its work is below the limit ----
//                                               work                parallel from
constexpr int32_t kValuesLimit = 251;         // n*(n + 1)*count
constexpr int32_t kVectorsLimit = 501;        // n*(3n + 1)*count

inline bool goesParallel(Group g, Want w, const Dims& d) {
    if (g != Group::ma) return false;
    const Wrap32 n(d.width);
    if (w == Want::Values) return (n * (n + 1) * d.count).value() >= kValuesLimit;
    return (n * (Wrap32(3) * n + 1) * d.count).value() >= kVectorsLimit;
}

// ---- scratch sizes, in elements: n*(n + 5) for the values, n*(3n + 5) with vectors ----
// The buffer holds H (n*n), with vectors Z (n*n), and five runs of n: the reflection vector and
// the real and imaginary parts of one eigenvector before and after its transformation.
inline int32_t bufferElements(int32_t n, bool vectors) {
    return (Wrap32(n) * (vectors ? Wrap32(3) * n + 5 : Wrap32(n) + 5)).value();
}

template <class T>
OmkStatus bufferSize(int32_t n, int32_t* bytes, bool vectors) {
    if (bytes == nullptr) return omkStsNullPtr;
    if (n < 1) return omkStsBadSize;
    *bytes = (Wrap32(bufferElements(n, vectors)) * int32_t(sizeof(T))).value();
    return omkStsOk;
}

// ---- tolerances and guards ----
// eps: the relative deflation tolerance, 2^-23 or 2^-52. kSmall: the smallest magnitude a
// Householder column's scale, a substitution divisor or an eigenvector's largest component may
// have before it is treated as zero (a column is left as it is, a divisor is raised to it, a
// vector is taken as it stands), 2^-125 for floats and 2^-1021 for doubles, so that no scaling
// step divides by a subnormal number.
template <class T> constexpr T kEps = sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52);
template <class T> constexpr T kSmall = sizeof(T) == 4 ? T(0x1p-125) : T(0x1p-1021);
// The range in which a QR step takes the length of its 3-element column from the plain sum of
// squares, far enough from underflow and overflow that no square of a part that matters is lost.
template <class T> constexpr T kSumLow = sizeof(T) == 4 ? T(0x1p-100) : T(0x1p-900);
template <class T> constexpr T kSumHigh = sizeof(T) == 4 ? T(0x1p100) : T(0x1p900);

// A row-major n x n matrix in scratch; N > 0 fixes the order at compile time.
template <int N, class T>
struct Square {
    T* p;
    int nRun;
    int n() const { return N > 0 ? N : nRun; }
    T& operator()(int i, int j) const { return p[i * n() + j]; }
};

// ---- Hessenberg reduction ----
// For column c = m - 1 (m = 1 .. n-2): the part x = H(m.., c) is scaled by its 1-norm (a scale
// not above kSmall leaves the column as it is), the reflection vector u = x/scale - g*e0 with
// g = -sign(x0)*|x/scale| and hh = |x/scale|^2 - x0*g/scale; H <- P*H*P for P = I - u*u'/hh
// (rows m.. from the left, then every row from the right), and the vector forms accumulate
// Z <- Z*P from Z = I. H(m, c) becomes scale*g and the rest of the column zero.
template <int N, class T, bool Accumulate>
void hessenberg(const Square<N, T>& h, const Square<N, T>& z, T* u) {
    const int n = h.n();
    if constexpr (Accumulate)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) z(i, j) = T(i == j ? 1 : 0);
    for (int m = 1; m + 1 < n; ++m) {
        T scale = T(0);
        for (int i = m; i < n; ++i) scale = scale + std::fabs(h(i, m - 1));
        if (!(scale > kSmall<T>)) continue;
        T hh = T(0);
        for (int i = m; i < n; ++i) {
            u[i] = h(i, m - 1) / scale;
            hh = std::fma(u[i], u[i], hh);
        }
        const T g = u[m] > T(0) ? -std::sqrt(hh) : std::sqrt(hh);
        hh = hh - u[m] * g;
        u[m] = u[m] - g;
        for (int j = m; j < n; ++j) {
            T f = T(0);
            for (int i = m; i < n; ++i) f = std::fma(u[i], h(i, j), f);
            f = f / hh;
            for (int i = m; i < n; ++i) h(i, j) = h(i, j) - f * u[i];
        }
        for (int i = 0; i < n; ++i) {
            T f = T(0);
            for (int j = m; j < n; ++j) f = std::fma(u[j], h(i, j), f);
            f = f / hh;
            for (int j = m; j < n; ++j) h(i, j) = h(i, j) - f * u[j];
        }
        if constexpr (Accumulate)
            for (int i = 0; i < n; ++i) {
                T f = T(0);
                for (int j = m; j < n; ++j) f = std::fma(u[j], z(i, j), f);
                f = f / hh;
                for (int j = m; j < n; ++j) z(i, j) = z(i, j) - f * u[j];
            }
        h(m, m - 1) = scale * g;
        for (int i = m + 1; i < n; ++i) h(i, m - 1) = T(0);
    }
}

// ---- real Schur form by the double-shift QR iteration ----
// Works on the active block l..en of H. A subdiagonal element deflates when
// |H(l,l-1)| <= eps*(|H(l-1,l-1)| + |H(l,l)|) (the Hessenberg part's 1-norm sum when both are zero)
// and is then set to zero. A 1x1 block gives wr = H(en,en) + t, wi = 0; a 2x2 block with
// p = (y - x)/2, q = p^2 + w (x = H(en,en), y = H(en-1,en-1), w = H(en,en-1)*H(en-1,en)) gives two
// real values x + z and x - w/z (z = p + sign(p)*sqrt(q)) when q >= 0, else the pair
// (x + p) +- i*sqrt(-q), the positive imaginary part first; each value is stored at the row where
// it deflates. The block's counter restarts at every deflation; when it equals 10 or 20 the shifts
// are exceptional: the diagonal of rows 0..en is lowered by x (accumulated in t) and
// s = |H(en,en-1)| + |H(en-1,en-2)| gives x = y = 0.75*s, w = -0.4375*s^2. After 30*n steps in
// total the matrix has not converged.
//
// Full = true (vector forms) applies every step to the whole matrix and to Z, triangularises the
// 2x2 blocks of real values by a rotation and restores the shifted diagonal, which leaves H in
// real Schur form with Z*H*Z' = A.
template <int N, class T, bool Full>
OmkStatus schur(const Square<N, T>& h, const Square<N, T>& z, T* wr, T* wi) {
    const int n = h.n();
    const T eps = kEps<T>;
    T norm = T(0);
    for (int i = 0; i < n; ++i)
        for (int j = i > 0 ? i - 1 : 0; j < n; ++j) norm = norm + std::fabs(h(i, j));

    const int32_t limit = 30 * n;
    int32_t total = 0;
    int its = 0;
    int en = n - 1;
    T t = T(0);
    while (en >= 0) {
        int l = en;
        for (; l > 0; --l) {
            T s = std::fabs(h(l - 1, l - 1)) + std::fabs(h(l, l));
            if (s == T(0)) s = norm;
            if (std::fabs(h(l, l - 1)) <= eps * s) {
                h(l, l - 1) = T(0);
                break;
            }
        }
        T x = h(en, en);
        if (l == en) {
            wr[en] = x + t;
            wi[en] = T(0);
            if constexpr (Full) h(en, en) = x + t;
            --en;
            its = 0;
            continue;
        }
        const int na = en - 1;
        T y = h(na, na);
        T w = h(en, na) * h(na, en);
        if (l == na) {
            T p = (y - x) * T(0.5);
            const T q = p * p + w;
            T zz = std::sqrt(std::fabs(q));
            if constexpr (Full) h(en, en) = x + t, h(na, na) = y + t;
            x = x + t;
            if (q >= T(0)) {
                zz = p + std::copysign(zz, p);
                wr[na] = x + zz;
                wr[en] = zz != T(0) ? x - w / zz : x + zz;
                wi[na] = T(0);
                wi[en] = T(0);
                if constexpr (Full) {
                    // The rotation whose first column (zz, H(en,na)) is the eigenvector of wr[na]:
                    // H(na,na) becomes wr[na] and H(en,na) zero.
                    const T sub = h(en, na);
                    const T s = std::fabs(sub) + std::fabs(zz);
                    T c = zz / s, sn = sub / s;
                    const T r = std::sqrt(c * c + sn * sn);
                    c = c / r, sn = sn / r;
                    for (int j = na; j < n; ++j) {
                        const T a = h(na, j), b = h(en, j);
                        h(na, j) = c * a + sn * b;
                        h(en, j) = c * b - sn * a;
                    }
                    for (int i = 0; i <= en; ++i) {
                        const T a = h(i, na), b = h(i, en);
                        h(i, na) = c * a + sn * b;
                        h(i, en) = c * b - sn * a;
                    }
                    for (int i = 0; i < n; ++i) {
                        const T a = z(i, na), b = z(i, en);
                        z(i, na) = c * a + sn * b;
                        z(i, en) = c * b - sn * a;
                    }
                    h(en, na) = T(0);
                }
            } else {
                wr[na] = x + p;
                wr[en] = x + p;
                wi[na] = zz;
                wi[en] = -zz;
            }
            en -= 2;
            its = 0;
            continue;
        }
        if (total == limit) return omkStsNotConverged;
        if (its == 10 || its == 20) {
            t = t + x;
            for (int i = 0; i <= en; ++i) h(i, i) = h(i, i) - x;
            const T s = std::fabs(h(en, na)) + std::fabs(h(na, en - 2));
            x = T(0.75) * s;
            y = x;
            w = T(-0.4375) * s * s;
        }
        ++its;
        ++total;

        // The start of the step: the lowest m >= l where two consecutive subdiagonal elements
        // are small enough for the bulge to start there.
        int m = en - 2;
        T p, q, r, zz;
        for (;; --m) {
            zz = h(m, m);
            r = x - zz;
            T s = y - zz;
            p = (r * s - w) / h(m + 1, m) + h(m, m + 1);
            q = h(m + 1, m + 1) - zz - r - s;
            r = h(m + 2, m + 1);
            s = T(1) / (std::fabs(p) + std::fabs(q) + std::fabs(r));
            p = p * s, q = q * s, r = r * s;
            if (m == l) break;
            const T lhs = std::fabs(h(m, m - 1)) * (std::fabs(q) + std::fabs(r));
            const T rhs = std::fabs(p) * (std::fabs(h(m - 1, m - 1)) + std::fabs(zz) + std::fabs(h(m + 1, m + 1)));
            if (lhs <= eps * rhs) break;
        }
        for (int i = m + 2; i <= en; ++i) {
            h(i, i - 2) = T(0);
            if (i != m + 2) h(i, i - 3) = T(0);
        }

        // The double step on rows l..en, chasing the bulge down by 3-element reflections.
        for (int k = m; k < en; ++k) {
            const bool notLast = k != en - 1;
            if (k != m) {
                p = h(k, k - 1);
                q = h(k + 1, k - 1);
                r = notLast ? h(k + 2, k - 1) : T(0);
            }
            // The reflection of (p, q, r): the length comes straight from p^2 + q^2 + r^2 while that
            // sum lies well inside the normal range; otherwise p, q and r are first divided by
            // x0 = |p| + |q| + |r| (a zero column is skipped).
            T ss = p * p + q * q + r * r, x0 = T(1);
            if (!(ss >= kSumLow<T> && ss <= kSumHigh<T>)) {
                x0 = std::fabs(p) + std::fabs(q) + std::fabs(r);
                if (k != m && x0 == T(0)) continue;
                const T scale = T(1) / x0;
                p = p * scale, q = q * scale, r = r * scale;
                ss = p * p + q * q + r * r;
            }
            const T s = std::copysign(std::sqrt(ss), p);
            if (s == T(0)) continue;
            if (k == m) {
                if (l != m) h(k, k - 1) = -h(k, k - 1);
            } else {
                h(k, k - 1) = -s * x0;
            }
            p = p + s;
            const T overS = T(1) / s, overP = T(1) / p;
            x = p * overS;
            y = q * overS;
            zz = r * overS;
            q = q * overP;
            r = r * overP;
            const int jEnd = Full ? n - 1 : en;
            for (int j = k; j <= jEnd; ++j) {
                T f = h(k, j) + q * h(k + 1, j);
                if (notLast) {
                    f = f + r * h(k + 2, j);
                    h(k + 2, j) = h(k + 2, j) - f * zz;
                }
                h(k + 1, j) = h(k + 1, j) - f * y;
                h(k, j) = h(k, j) - f * x;
            }
            const int iEnd = en < k + 3 ? en : k + 3;
            for (int i = Full ? 0 : l; i <= iEnd; ++i) {
                T f = x * h(i, k) + y * h(i, k + 1);
                if (notLast) {
                    f = f + zz * h(i, k + 2);
                    h(i, k + 2) = h(i, k + 2) - f * r;
                }
                h(i, k + 1) = h(i, k + 1) - f * q;
                h(i, k) = h(i, k) - f;
            }
            if constexpr (Full)
                for (int i = 0; i < n; ++i) {
                    T f = x * z(i, k) + y * z(i, k + 1);
                    if (notLast) {
                        f = f + zz * z(i, k + 2);
                        z(i, k + 2) = z(i, k + 2) - f * r;
                    }
                    z(i, k + 1) = z(i, k + 1) - f * q;
                    z(i, k) = z(i, k) - f;
                }
        }
    }
    return omkStsOk;
}

// ---- eigenvectors ----

// The larger of two magnitudes, inlined (std::fmax is a library call); a NaN in a gives b.
template <class T> inline T larger(T a, T b) { return a > b ? a : b; }

// c = a/b by Smith's method (the larger part of b divides).
template <class T>
inline void complexDivide(T ar, T ai, T br, T bi, T& cr, T& ci) {
    if (std::fabs(br) >= std::fabs(bi)) {
        const T r = bi / br, d = br + r * bi;
        cr = (ar + r * ai) / d;
        ci = (ai - r * ar) / d;
    } else {
        const T r = br / bi, d = bi + r * br;
        cr = (r * ar + ai) / d;
        ci = (r * ai - ar) / d;
    }
}

// The Schur form as the substitution reads it: the right vectors use T itself; the left vectors
// use the reversed transpose R(i, j) = T(n-1-j, n-1-i), again upper quasi-triangular, whose
// eigenvector w of the value l gives the left vector conj(Z*reverse(w)).
template <int N, class T, bool Left>
struct SchurView {
    Square<N, T> t;
    const T* wi;
    T operator()(int i, int j) const {
        const int n = t.n();
        return Left ? t(n - 1 - j, n - 1 - i) : t(i, j);
    }
    // Row i closes a 2x2 block (the second position of a pair in T; the first in reverse).
    bool closesBlock(int i) const {
        const int n = t.n();
        return Left ? wi[n - 1 - i] > T(0) : wi[i] < T(0);
    }
};

// Solves (R - l*I) x = 0 for the eigenvector of the block starting at row b0 (size 1 or 2) by
// back substitution, one row or one 2x2 block at a time; rows below the block are zero. The own
// block gives x = 1 (size 1) or, for B = [[a, b], [c, d]], the null vector (l - d, c) when
// |c| >= |b|, else (b, l - a). A divisor below smin in magnitude (|re| + |im|) is raised to smin,
// so that close or equal eigenvalues give a large but finite component; whenever a component
// exceeds 1/sqrt(eps) in magnitude the vector so far is scaled down by it. Complex = false keeps
// only real parts (li = 0).
template <bool Complex, int N, class T, class R>
void substitute(const R& a, int b0, int size, T lr, T li, T smin, T* xr, T* xi) {
    const int n = a.t.n();
    const T eps = kEps<T>;
    for (int j = 0; j < n; ++j) xr[j] = T(0);
    if constexpr (Complex)
        for (int j = 0; j < n; ++j) xi[j] = T(0);
    const int last = b0 + size - 1;
    if (size == 1) {
        xr[b0] = T(1);
    } else {
        const T ba = a(b0, b0), bb = a(b0, b0 + 1), bc = a(b0 + 1, b0), bd = a(b0 + 1, b0 + 1);
        if (std::fabs(bc) >= std::fabs(bb)) {
            xr[b0] = lr - bd, xi[b0] = li, xr[b0 + 1] = bc;
        } else {
            xr[b0] = bb, xr[b0 + 1] = lr - ba, xi[b0 + 1] = li;
        }
    }
    auto rescale = [&](int from, T big) {
        if ((eps * big) * big <= T(1)) return;
        const T f = T(1) / big;
        for (int j = from; j <= last; ++j) {
            xr[j] = xr[j] * f;
            if constexpr (Complex) xi[j] = xi[j] * f;
        }
    };
    for (int i = b0 - 1; i >= 0; --i) {
        if (i >= 1 && a.closesBlock(i)) {
            // Rows i-1 and i together, by Cramer's rule on the 2x2 complex system.
            const int i0 = i - 1;
            T r1r = T(0), r1i = T(0), r2r = T(0), r2i = T(0);
            for (int j = i + 1; j <= last; ++j) {
                const T u = a(i0, j), v = a(i, j);
                r1r = std::fma(-u, xr[j], r1r);
                r2r = std::fma(-v, xr[j], r2r);
                if constexpr (Complex) {
                    r1i = std::fma(-u, xi[j], r1i);
                    r2i = std::fma(-v, xi[j], r2i);
                }
            }
            const T a11 = a(i0, i0) - lr, a12 = a(i0, i), a21 = a(i, i0), a22 = a(i, i) - lr;
            // det = (a11 - i*li)(a22 - i*li) - a12*a21
            T detR = a11 * a22 - li * li - a12 * a21;
            T detI = -li * (a11 + a22);
            const T mag = std::fabs(a11) + std::fabs(a12) + std::fabs(a21) + std::fabs(a22) + T(2) * std::fabs(li);
            if (std::fabs(detR) + std::fabs(detI) < smin * mag) detR = mag > T(0) ? smin * mag : smin * smin, detI = T(0);
            // x1 = (r1*(a22 - i li) - a12*r2)/det, x2 = ((a11 - i li)*r2 - a21*r1)/det
            const T n1r = r1r * a22 + r1i * li - a12 * r2r;
            const T n1i = r1i * a22 - r1r * li - a12 * r2i;
            const T n2r = a11 * r2r + li * r2i - a21 * r1r;
            const T n2i = a11 * r2i - li * r2r - a21 * r1i;
            if constexpr (Complex) {
                complexDivide(n1r, n1i, detR, detI, xr[i0], xi[i0]);
                complexDivide(n2r, n2i, detR, detI, xr[i], xi[i]);
            } else {
                xr[i0] = n1r / detR;
                xr[i] = n2r / detR;
            }
            T big = larger(std::fabs(xr[i0]), std::fabs(xr[i]));
            if constexpr (Complex) big = larger(big, larger(std::fabs(xi[i0]), std::fabs(xi[i])));
            rescale(i0, big);
            --i;
        } else {
            T rr = T(0), ri = T(0);
            for (int j = i + 1; j <= last; ++j) {
                const T u = a(i, j);
                rr = std::fma(-u, xr[j], rr);
                if constexpr (Complex) ri = std::fma(-u, xi[j], ri);
            }
            T dr = a(i, i) - lr, di = -li;
            if (std::fabs(dr) + std::fabs(di) < smin) dr = smin, di = T(0);
            if constexpr (Complex) complexDivide(rr, ri, dr, di, xr[i], xi[i]);
            else xr[i] = rr / dr;
            T big = std::fabs(xr[i]);
            if constexpr (Complex) big = larger(big, std::fabs(xi[i]));
            rescale(i, big);
        }
    }
}

// v = Z*x for x in the view's order (reversed for left vectors), then v scaled to Euclidean norm 1
// with its component of largest modulus (the first on ties) real and positive; left vectors are
// conjugated. The result goes to column k (real part) and, for a pair, column k+1 (imaginary
// part) of the destination.
template <bool Complex, bool Left, int N, class T, class ZO>
void transformAndStore(const Square<N, T>& z, const T* xr, const T* xi, T* vr, T* vi, int lastNonzero,
                       const ZO& dst, int k) {
    const int n = z.n();
    for (int i = 0; i < n; ++i) {
        T sr = T(0), si = T(0);
        if constexpr (Left) {
            for (int j = n - 1 - lastNonzero; j < n; ++j) {
                sr = std::fma(z(i, j), xr[n - 1 - j], sr);
                if constexpr (Complex) si = std::fma(z(i, j), xi[n - 1 - j], si);
            }
        } else {
            for (int j = 0; j <= lastNonzero; ++j) {
                sr = std::fma(z(i, j), xr[j], sr);
                if constexpr (Complex) si = std::fma(z(i, j), xi[j], si);
            }
        }
        vr[i] = sr;
        if constexpr (Complex) vi[i] = Left ? -si : si;
    }
    // Scale by the largest part first, so that the sum of squares neither overflows nor underflows.
    T big = T(0);
    for (int i = 0; i < n; ++i) {
        big = larger(big, std::fabs(vr[i]));
        if constexpr (Complex) big = larger(big, std::fabs(vi[i]));
    }
    if (big > kSmall<T>) {
        const T f = T(1) / big;
        for (int i = 0; i < n; ++i) {
            vr[i] = vr[i] * f;
            if constexpr (Complex) vi[i] = vi[i] * f;
        }
    }
    T sum = T(0), top = T(-1);
    int at = 0;
    for (int i = 0; i < n; ++i) {
        T mod2 = vr[i] * vr[i];
        if constexpr (Complex) mod2 = std::fma(vi[i], vi[i], mod2);
        sum = sum + mod2;
        if (mod2 > top) top = mod2, at = i;
    }
    const T norm = std::sqrt(sum);
    if constexpr (Complex) {
        // Multiply by conj(v_at)/(|v_at|*norm): v_at becomes |v_at|/norm with imaginary part 0.
        const T mod = std::sqrt(top);
        const T d = mod * norm;
        const T fr = d > T(0) ? vr[at] / d : T(1), fi = d > T(0) ? -vi[at] / d : T(0);
        for (int i = 0; i < n; ++i) {
            const T a = vr[i], b = vi[i];
            dst.at(i, k) = a * fr - b * fi;
            dst.at(i, k + 1) = a * fi + b * fr;
        }
        dst.at(at, k + 1) = T(0);
    } else {
        const T f = norm > T(0) ? (vr[at] < T(0) ? T(-1) : T(1)) / norm : T(1);
        for (int i = 0; i < n; ++i) dst.at(i, k) = vr[i] * f;
    }
}

// Every eigenvector of one side from the Schur form: real values one column each, pairs two.
template <bool Left, int N, class T, class ZO>
void vectors(const Square<N, T>& t, const Square<N, T>& z, const T* wr, const T* wi, T* work, const ZO& dst) {
    const int n = t.n();
    T norm = T(0);
    for (int i = 0; i < n; ++i)
        for (int j = i > 0 ? i - 1 : 0; j < n; ++j) norm = norm + std::fabs(t(i, j));
    const T smin = larger(kEps<T> * norm, kSmall<T>);
    T* xr = work;
    T* xi = work + n;
    T* vr = work + 2 * n;
    T* vi = work + 3 * n;
    const SchurView<N, T, Left> r{t, wi};
    for (int k = 0; k < n; ++k) {
        if (wi[k] == T(0)) {
            // A real value: its diagonal element of the Schur form.
            const int b = Left ? n - 1 - k : k;
            substitute<false, N>(r, b, 1, t(k, k), T(0), smin, xr, xi);
            transformAndStore<false, Left>(z, xr, xi, vr, vi, b, dst, k);
        } else {
            // A pair at k, k+1; the vector of the value with the positive imaginary part.
            const int b = Left ? n - 2 - k : k;
            substitute<true, N>(r, b, 2, wr[k], wi[k], smin, xr, xi);
            transformAndStore<true, Left>(z, xr, xi, vr, vi, b + 1, dst, k);
            ++k;
        }
    }
}

// The values-only forms pass this in place of a vector destination.
struct NoVectors {};

// One matrix: copy, reduce, iterate, and for the vector forms the vectors of each wanted side.
// h and z are n*n scratch each, work 5n.
template <int N, class T, Want W, class SO, class LO, class RO>
OmkStatus oneMatrix(const SO& src, T* wr, T* wi, const LO& left, const RO& right, T* hp, T* zp, T* work, int nArg) {
    constexpr bool kVectors = W != Want::Values;
    const Square<N, T> h{hp, nArg};
    const Square<N, T> z{zp, nArg};
    const int n = h.n();
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) h(i, j) = src.at(i, j);
    hessenberg<N, T, kVectors>(h, z, work);
    const OmkStatus st = schur<N, T, kVectors>(h, z, wr, wi);
    if (st != omkStsOk) return st;
    if constexpr (W == Want::Right || W == Want::Both) vectors<false>(h, z, wr, wi, work, right);
    if constexpr (W == Want::Left || W == Want::Both) vectors<true>(h, z, wr, wi, work, left);
    return omkStsOk;
}

// Orders 2 to 6 keep their scratch on the stack at a fixed order; larger ones use the buffer.
template <int N, class T, Want W, class SO, class LO, class RO>
OmkStatus orderFixed(const SO& src, T* wr, T* wi, const LO& left, const RO& right) {
    constexpr bool kVectors = W != Want::Values;
    T h[N * N];
    T z[kVectors ? N * N : 1];
    T work[5 * N];
    return oneMatrix<N, T, W>(src, wr, wi, left, right, h, z, work, N);
}

template <class T, Want W, class SO, class LO, class RO>
OmkStatus anyOrder(const SO& src, T* wr, T* wi, const LO& left, const RO& right, T* buffer, int n) {
    switch (n) {
    case 2: return orderFixed<2, T, W>(src, wr, wi, left, right);
    case 3: return orderFixed<3, T, W>(src, wr, wi, left, right);
    case 4: return orderFixed<4, T, W>(src, wr, wi, left, right);
    case 5: return orderFixed<5, T, W>(src, wr, wi, left, right);
    case 6: return orderFixed<6, T, W>(src, wr, wi, left, right);
    default: {
        const size_t nn = size_t(n) * size_t(n);
        T* z = buffer + nn;
        T* work = W == Want::Values ? z : z + nn;
        return oneMatrix<0, T, W>(src, wr, wi, left, right, buffer, z, work, n);
    }
    }
}

// The matrices of a call, in order, on the calling thread or over the parallel driver; each run of
// objects stops at its first failure. Threads take a buffer's worth of scratch each from the
// driver; the serial path (also when that scratch cannot be had) uses the caller's buffer.
template <Group G, Want W, class A, class B, class V, class LV, class RV>
OmkStatus matrices(const A& a, const B& buffer, const V& re, const V& im, const LV& left, const RV& right,
                   const Dims& dims) {
    using T = std::remove_const_t<typename V::Elem>;
    const int n = dims.width;
    const size_t scratch = size_t(bufferElements(n, W != Want::Values)) * sizeof(T);
    auto objectsOf = [](const auto& view, int32_t first) {
        if constexpr (std::is_same_v<std::decay_t<decltype(view)>, NoVectors>) return view;
        else return view.from(first);
    };
    auto objectOf = [](const auto& view, int32_t k) {
        if constexpr (std::is_same_v<std::decay_t<decltype(view)>, NoVectors>) return view;
        else return view.obj(k);
    };
    auto run = [&](int32_t first, int32_t count, T* W_) -> OmkStatus {
        const A as = a.from(first);
        const V rs = re.from(first), is = im.from(first);
        const auto ls = objectsOf(left, first);
        const auto rts = objectsOf(right, first);
        for (int32_t k = 0; k < count; ++k) {
            const OmkStatus st = anyOrder<T, W>(as.obj(k), rs.obj(k), is.obj(k), objectOf(ls, k), objectOf(rts, k),
                                                W_, n);
            if (st != omkStsOk) return st;
        }
        return omkStsOk;
    };
    return overObjectsWithScratch(goesParallel(G, W, dims), dims.count, buffer.obj(0), scratch, run);
}

// ---- exported forms ----

template <Group G, Desc Dsc, class A, class V, class B>
OmkStatus values(const A& a, const V& re, const V& im, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = checks(dims, a, buffer, re, im)) return st;
    return matrices<G, Want::Values>(a, buffer, re, im, NoVectors{}, NoVectors{}, dims);
}

template <Group G, Desc Dsc, class A, class Z, class V, class B>
OmkStatus valuesLeft(const A& a, const Z& left, const V& re, const V& im, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = checks(dims, a, buffer, re, im, left)) return st;
    return matrices<G, Want::Left>(a, buffer, re, im, left, NoVectors{}, dims);
}

template <Group G, Desc Dsc, class A, class Z, class V, class B>
OmkStatus valuesRight(const A& a, const Z& right, const V& re, const V& im, const B& buffer, const Dims& dims) {
    if (const OmkStatus st = checks(dims, a, buffer, re, im, right)) return st;
    return matrices<G, Want::Right>(a, buffer, re, im, NoVectors{}, right, dims);
}

template <Group G, Desc Dsc, class A, class Z, class V, class B>
OmkStatus valuesBoth(const A& a, const Z& left, const Z& right, const V& re, const V& im, const B& buffer,
                     const Dims& dims) {
    if (const OmkStatus st = checks(dims, a, buffer, re, im, left, right)) return st;
    return matrices<G, Want::Both>(a, buffer, re, im, left, right, dims);
}

}  // namespace omk::eigengen
