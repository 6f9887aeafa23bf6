// Transposes of small blocks in vector registers, shared by the kernels that turn rows into
// columns (Transpose) and objects into vector lanes (Det and Invert of arrays).
#pragma once
#include <immintrin.h>

namespace omk {

// Two 4x4 float transposes, one in each 128-bit half: rows a, b, c, d in, columns out.
inline void transposeHalves(__m256& a, __m256& b, __m256& c, __m256& d) {
    const __m256 t0 = _mm256_unpacklo_ps(a, b), t1 = _mm256_unpackhi_ps(a, b);
    const __m256 t2 = _mm256_unpacklo_ps(c, d), t3 = _mm256_unpackhi_ps(c, d);
    a = _mm256_shuffle_ps(t0, t2, 0x44);
    b = _mm256_shuffle_ps(t0, t2, 0xEE);
    c = _mm256_shuffle_ps(t1, t3, 0x44);
    d = _mm256_shuffle_ps(t1, t3, 0xEE);
}

// An 8x8 float block: rows r[0..7] in, columns out.
inline void transpose8x8(__m256 r[8]) {
    transposeHalves(r[0], r[1], r[2], r[3]);
    transposeHalves(r[4], r[5], r[6], r[7]);
    for (int q = 0; q < 4; ++q) {
        const __m256 lo = r[q], hi = r[q + 4];
        r[q] = _mm256_permute2f128_ps(lo, hi, 0x20);
        r[q + 4] = _mm256_permute2f128_ps(lo, hi, 0x31);
    }
}

// A 4x4 double block: rows a, b, c, d in, columns out.
inline void transpose4x4(__m256d& a, __m256d& b, __m256d& c, __m256d& d) {
    const __m256d t0 = _mm256_unpacklo_pd(a, b), t1 = _mm256_unpackhi_pd(a, b);
    const __m256d t2 = _mm256_unpacklo_pd(c, d), t3 = _mm256_unpackhi_pd(c, d);
    a = _mm256_permute2f128_pd(t0, t2, 0x20);
    b = _mm256_permute2f128_pd(t1, t3, 0x20);
    c = _mm256_permute2f128_pd(t0, t2, 0x31);
    d = _mm256_permute2f128_pd(t1, t3, 0x31);
}

}  // namespace omk
