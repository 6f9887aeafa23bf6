// Objects side by side in vector lanes: arrays of small objects with packed rows run a block of
// 8 floats or 4 doubles at once, object q of the block in lane q of every vector, through kernels
// written once over the element type. Rows move between objects and lanes by register transposes.
#pragma once
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "frame/register_transpose.h"

// Block kernels are each compiled as one function (OMKM_FLATTEN), so that a block's values stay in
// registers. The sanitizer build defines OMKM_NO_FLATTEN and leaves them as calls: instrumented, the
// flattened kernels take minutes per file to compile, and the bits are the same either way (every
// fused operation is explicit and contraction is off).
#ifdef OMKM_NO_FLATTEN
#define OMKM_FLATTEN
#else
#define OMKM_FLATTEN [[gnu::flatten]]
#endif

namespace omk {

// Blocks of objects side by side, one object per lane: GCC vector types, whose +, -, *, / and
// unary - are the lane-wise IEEE operations. A kernel written once over its element type (the
// cofactor formulas of Det and Invert, the symmetric eigen-iteration) gives in every lane of a block
// the bits it gives for one object.
typedef float Block8f __attribute__((vector_size(32)));
typedef double Block4d __attribute__((vector_size(32)));
// Their comparisons give masks of the same lane width: all bits set where true, none where false
// (a NaN compares false, as for one object), and mask ? x : y picks lane by lane.
typedef int32_t Block8i __attribute__((vector_size(32)));
typedef int64_t Block4l __attribute__((vector_size(32)));

inline float fmadd(float x, float y, float z) { return std::fma(x, y, z); }
inline double fmadd(double x, double y, double z) { return std::fma(x, y, z); }
inline Block8f fmadd(Block8f x, Block8f y, Block8f z) { return (Block8f)_mm256_fmadd_ps((__m256)x, (__m256)y, (__m256)z); }
inline Block4d fmadd(Block4d x, Block4d y, Block4d z) { return (Block4d)_mm256_fmadd_pd((__m256d)x, (__m256d)y, (__m256d)z); }

template <class T> struct BlockLanes;
template <> struct BlockLanes<float> {
    using X = Block8f;
    using Mask = Block8i;
    static constexpr int W = 8;
    static X sqrt(X x) { return (X)_mm256_sqrt_ps((__m256)x); }
    static X abs(X x) { return (X)_mm256_andnot_ps(_mm256_set1_ps(-0.0f), (__m256)x); }
    static bool any(Mask m) { return _mm256_movemask_ps((__m256)m) != 0; }
    static bool anyBelow(X x, float t) { return any(abs(x) < t); }
};
template <> struct BlockLanes<double> {
    using X = Block4d;
    using Mask = Block4l;
    static constexpr int W = 4;
    static X sqrt(X x) { return (X)_mm256_sqrt_pd((__m256d)x); }
    static X abs(X x) { return (X)_mm256_andnot_pd(_mm256_set1_pd(-0.0), (__m256d)x); }
    static bool any(Mask m) { return _mm256_movemask_pd((__m256d)m) != 0; }
    static bool anyBelow(X x, double t) { return any(abs(x) < t); }
};

// What a body written once for one object (X = float or double) and for a block (X = Block8f or
// Block4d) needs beyond the arithmetic operators: the element type, whether any lane of a mask is
// set, and the magnitude. A row index per object is an int, or BlockLanes<T>::Mask for a block.
template <class X> struct LaneTraits {
    using T = X;
};
template <> struct LaneTraits<Block8f> {
    using T = float;
};
template <> struct LaneTraits<Block4d> {
    using T = double;
};
inline bool anyLane(bool m) { return m; }
// Any mask of a block; a template, because compilers differ in the integer type of the lanes a
// comparison gives (int64_t or long long for doubles).
template <class M>
bool anyLane(M m) {
    if constexpr (sizeof(m[0]) == 4) return BlockLanes<float>::any((Block8i)m);
    else return BlockLanes<double>::any((Block4l)m);
}
inline float laneAbs(float x) { return std::fabs(x); }
inline double laneAbs(double x) { return std::fabs(x); }
inline Block8f laneAbs(Block8f x) { return BlockLanes<float>::abs(x); }
inline Block4d laneAbs(Block4d x) { return BlockLanes<double>::abs(x); }
inline float laneSqrt(float x) { return std::sqrt(x); }
inline double laneSqrt(double x) { return std::sqrt(x); }
inline Block8f laneSqrt(Block8f x) { return BlockLanes<float>::sqrt(x); }
inline Block4d laneSqrt(Block4d x) { return BlockLanes<double>::sqrt(x); }

// Two blocks taken as one value: a body run over Twin<X> carries two independent instruction
// streams, so that the long-latency chain of one block (square roots, divisions) overlaps the
// other's. Each half takes exactly the operations of its block.
template <class X> struct Twin {
    X a, b;
};
template <class X> struct LaneTraits<Twin<X>> {
    using T = typename LaneTraits<X>::T;
};
template <class X> Twin<X> operator-(Twin<X> x) { return {-x.a, -x.b}; }
template <class X> Twin<X> operator+(Twin<X> x, Twin<X> y) { return {x.a + y.a, x.b + y.b}; }
template <class X> Twin<X> operator*(Twin<X> x, Twin<X> y) { return {x.a * y.a, x.b * y.b}; }
template <class X> Twin<X> operator/(Twin<X> x, Twin<X> y) { return {x.a / y.a, x.b / y.b}; }
// With one element of the lane type on either side.
template <class X> Twin<X> operator+(Twin<X> x, typename LaneTraits<X>::T s) { return {x.a + s, x.b + s}; }
template <class X> Twin<X> operator/(typename LaneTraits<X>::T s, Twin<X> y) { return {s / y.a, s / y.b}; }
template <class X> Twin<X> fmadd(Twin<X> x, Twin<X> y, Twin<X> z) { return {fmadd(x.a, y.a, z.a), fmadd(x.b, y.b, z.b)}; }
template <class X, class S> auto operator<=(Twin<X> x, S s) { return Twin<decltype(x.a <= s)>{x.a <= s, x.b <= s}; }
template <class X, class S> auto operator<(Twin<X> x, S s) { return Twin<decltype(x.a < s)>{x.a < s, x.b < s}; }
template <class X, class S> auto operator>(Twin<X> x, S s) { return Twin<decltype(x.a > s)>{x.a > s, x.b > s}; }
template <class M> bool anyLane(Twin<M> m) { return anyLane(m.a) || anyLane(m.b); }
template <class X> Twin<X> laneAbs(Twin<X> x) { return {laneAbs(x.a), laneAbs(x.b)}; }
template <class X> Twin<X> laneSqrt(Twin<X> x) { return {laneSqrt(x.a), laneSqrt(x.b)}; }
// m ? x : y lane by lane, for one element (a bool), a block (its mask) or two blocks.
template <class M, class X> X laneSelect(M m, X x, X y) { return m ? x : y; }
template <class M, class X> Twin<X> laneSelect(Twin<M> m, Twin<X> x, Twin<X> y) {
    return {laneSelect(m.a, x.a, y.a), laneSelect(m.b, x.b, y.b)};
}

template <class X, int N>
struct LaneMatrix {
    X v[N][N];
    X at(int i, int j) const { return v[i][j]; }
};

// Rows of packed elements move between objects and lanes by register transposes, in runs of up to
// four elements. A run is read under a mask or in whole words and written in whole words, so no
// byte outside it is touched (a masked store would do the same, but costs tens of cycles on some
// processors). Lanes past a run's end are never used.
template <int M> __m128 loadRun(const float* p) {
    if constexpr (M == 4) return _mm_loadu_ps(p);
    else if constexpr (M == 3) return _mm_maskload_ps(p, _mm_setr_epi32(-1, -1, -1, 0));
    // Two floats by vmovsd from memory (upper half zero), written as the instruction itself: the
    // compiler's own forms of this load either read an undefined register (which GCC 12 warns
    // about) or may become a register-to-register vmovq, which Valgrind does not decode.
    else if constexpr (M == 2) {
        __m128 v;
        asm("vmovsd %1, %0" : "=x"(v) : "m"(*reinterpret_cast<const char(*)[8]>(p)));
        return v;
    }
    else return _mm_load_ss(p);
}
template <int M> void storeRun(float* p, __m128 v) {
    if constexpr (M == 4) {
        _mm_storeu_ps(p, v);
    } else {
        if constexpr (M >= 2) {
            const double two = _mm_cvtsd_f64(_mm_castps_pd(v));
            std::memcpy(p, &two, sizeof two);
        }
        if constexpr (M == 3) _mm_store_ss(p + 2, _mm_movehl_ps(v, v));
        if constexpr (M == 1) _mm_store_ss(p, v);
    }
}
template <int M> __m256d loadRun(const double* p) {
    if constexpr (M == 4) return _mm256_loadu_pd(p);
    else if constexpr (M == 3) return _mm256_maskload_pd(p, _mm256_setr_epi64x(-1, -1, -1, 0));
    else if constexpr (M == 2) return _mm256_castpd128_pd256(_mm_loadu_pd(p));
    else return _mm256_castpd128_pd256(_mm_load_sd(p));
}
template <int M> void storeRun(double* p, __m256d v) {
    if constexpr (M == 4) {
        _mm256_storeu_pd(p, v);
    } else {
        if constexpr (M >= 2) _mm_storeu_pd(p, _mm256_castpd256_pd128(v));
        if constexpr (M == 3) _mm_store_sd(p + 2, _mm256_extractf128_pd(v, 1));
        if constexpr (M == 1) _mm_store_sd(p, _mm256_castpd256_pd128(v));
    }
}

// Columns J0 ... J0 + M - 1 of row i of the block's objects into v[J0 ...] (Load), or back: object
// q's row i at row(q, i). Floats: objects q and q + 4 share a register, one in each half.
template <bool Load, int J0, int M, class Row>
void runLanes(Block8f* v, const Row& row, int i) {
    __m256 a[4];
    if constexpr (Load) {
        for (int q = 0; q < 4; ++q)
            a[q] = _mm256_set_m128(loadRun<M>(row(q + 4, i) + J0), loadRun<M>(row(q, i) + J0));
        transposeHalves(a[0], a[1], a[2], a[3]);
        for (int j = 0; j < M; ++j) v[J0 + j] = (Block8f)a[j];
    } else {
        for (int j = 0; j < 4; ++j) a[j] = j < M ? (__m256)v[J0 + j] : _mm256_setzero_ps();
        transposeHalves(a[0], a[1], a[2], a[3]);
        for (int q = 0; q < 4; ++q) {
            storeRun<M>(row(q, i) + J0, _mm256_castps256_ps128(a[q]));
            storeRun<M>(row(q + 4, i) + J0, _mm256_extractf128_ps(a[q], 1));
        }
    }
}
template <bool Load, int J0, int M, class Row>
void runLanes(Block4d* v, const Row& row, int i) {
    __m256d r[4];
    if constexpr (Load) {
        for (int q = 0; q < 4; ++q) r[q] = loadRun<M>(row(q, i) + J0);
        transpose4x4(r[0], r[1], r[2], r[3]);
        for (int j = 0; j < M; ++j) v[J0 + j] = (Block4d)r[j];
    } else {
        for (int j = 0; j < 4; ++j) r[j] = j < M ? (__m256d)v[J0 + j] : _mm256_setzero_pd();
        transpose4x4(r[0], r[1], r[2], r[3]);
        for (int q = 0; q < 4; ++q) storeRun<M>(row(q, i) + J0, r[q]);
    }
}

// The first M (<= 8) packed elements of row i of the block's objects into v[0 ... M-1] (Load), or
// v into them.
template <bool Load, int M, class X, class Row>
void leadLanes(X* v, const Row& row, int i) {
    runLanes<Load, 0, (M < 4 ? M : 4)>(v, row, i);
    if constexpr (M > 4) runLanes<Load, 4, M - 4>(v, row, i);
}
// Row i of the block's objects (N <= 8 packed elements) into v[0 ... N-1] (Load), or v into it.
template <bool Load, int N, class X, class Row>
void rowLanes(X (&v)[N], const Row& row, int i) {
    leadLanes<Load, N>(v, row, i);
}
// The lower triangle (row i up to column i) of the block's objects into m (Load), or m into it;
// nothing of the strict upper triangle is read or written.
template <bool Load, int N, int I = 0, class X, class Row>
void lowerLanes(X (&m)[N][N], const Row& row) {
    if constexpr (I < N) {
        leadLanes<Load, I + 1>(m[I], row, I);
        lowerLanes<Load, N, I + 1>(m, row);
    }
}

// Element (i, j) of the block's objects obj(0) ... obj(W - 1), object q in lane q.
template <int N, class T, class Obj>
LaneMatrix<typename BlockLanes<T>::X, N> loadLanes(const Obj& obj) {
    LaneMatrix<typename BlockLanes<T>::X, N> m;
    for (int i = 0; i < N; ++i) rowLanes<true, N>(m.v[i], [&](int q, int r) { return obj(q).row(r); }, i);
    return m;
}

// The block's objects, copied: the stores of a block go through pointers that may alias anything,
// and local copies of the objects (whose addresses never escape) let the compiler keep their
// pointers in registers across them.
template <class O, int W>
struct BlockObjects {
    O o[W];
};
template <class T, class Obj>
auto copyObjects(const Obj& obj) {
    BlockObjects<decltype(obj(0)), BlockLanes<T>::W> b;
    for (int q = 0; q < BlockLanes<T>::W; ++q) b.o[q] = obj(q);
    return b;
}

// One block of objects obj(0) ... obj(W-1) (B = 1), or two, obj(0) ... obj(2W-1), taken as one
// Twin value (B = 2). load runs fill(part, objects) once per block, part an array of X shaped like
// m, and joins the parts into m; store splits m into parts and runs put(part, objects) per block.
template <class T, int B>
struct BlockSet {
    using X = typename BlockLanes<T>::X;
    using V = std::conditional_t<B == 2, Twin<X>, X>;
    static constexpr int W = BlockLanes<T>::W;

    template <int R, int C, class Obj, class Fill>
    static void load(V (&m)[R][C], const Obj& obj, const Fill& fill) {
        if constexpr (B == 1) {
            fill(m, copyObjects<T>(obj));
        } else {
            X p[2][R][C] = {};
            fill(p[0], copyObjects<T>(obj));
            fill(p[1], copyObjects<T>([&](int q) { return obj(q + W); }));
#pragma GCC unroll 8
            for (int i = 0; i < R; ++i)
#pragma GCC unroll 8
                for (int j = 0; j < C; ++j) m[i][j] = {p[0][i][j], p[1][i][j]};
        }
    }
    template <int R, int C, class Obj, class Put>
    static void store(V (&m)[R][C], const Obj& obj, const Put& put) {
        if constexpr (B == 1) {
            put(m, copyObjects<T>(obj));
        } else {
            X p[2][R][C];
#pragma GCC unroll 8
            for (int i = 0; i < R; ++i)
#pragma GCC unroll 8
                for (int j = 0; j < C; ++j) p[0][i][j] = m[i][j].a, p[1][i][j] = m[i][j].b;
            put(p[0], copyObjects<T>(obj));
            put(p[1], copyObjects<T>([&](int q) { return obj(q + W); }));
        }
    }
};

// Runs blocks(order) with the order as a constant for the orders Lo ... Hi, else returns 0.
template <int Lo, int Hi, class F>
int32_t forOrder(int n, F&& blocks) {
    if constexpr (Lo > Hi) {
        return 0;
    } else {
        if (n == Lo) return blocks(std::integral_constant<int, Lo>{});
        return forOrder<Lo + 1, Hi>(n, blocks);
    }
}

// Runs block(k) on the whole blocks k = 0, W, 2W, ... among `count` objects and stops before the
// first block for which it returns false. Returns how many objects it did.
template <class T, class Block>
int32_t blockRun(int32_t count, Block&& block) {
    constexpr int W = BlockLanes<T>::W;
    int32_t k = 0;
    for (; k + W <= count; k += W)
        if (!block(k)) break;
    return k;
}

// Runs run(blocks, k) over the whole blocks among `count` objects: with Pairs, two blocks at a time
// (blocks = integral constant 2, objects k ... k+2W-1) while both pass, then one at a time
// (blocks = 1); stops before the first block that does not pass. Returns how many objects it did.
template <class T, bool Pairs, class Run>
int32_t blockSetRun(int32_t count, Run&& run) {
    constexpr int W = BlockLanes<T>::W;
    int32_t k = 0;
    if constexpr (Pairs)
        for (; k + 2 * W <= count; k += 2 * W)
            if (!run(std::integral_constant<int, 2>{}, k)) break;
    return k + blockRun<T>(count - k, [&](int32_t b) { return run(std::integral_constant<int, 1>{}, k + b); });
}

// blockRun with block(order, k), the order a constant for the orders Lo ... Hi (0 objects done for
// other orders).
template <int Lo, int Hi, class T, class Block>
int32_t wholeBlocks(int n, int32_t count, Block&& block) {
    return forOrder<Lo, Hi>(n, [&](auto order) { return blockRun<T>(count, [&](int32_t k) { return block(order, k); }); });
}

}  // namespace omk
