// omkmMul_mm4x4_32f: the product of two 4x4 float matrices of 16 contiguous row-major elements.
#include <immintrin.h>

#include <cstdint>

#include "products/mul.h"

namespace omk::mul {

namespace {

// Rows (0, 1) and (2, 3) of the result in two 256-bit registers. Every element is the chain
// t = a1*b1; t = fma(a0, b0, t); t = fma(a2, b2, t); t = fma(a3, b3, t): element k of each
// half of an A pair is spread over its half, row k of B is repeated in both halves.
// The aligned path reads 16-byte rows with aligned loads, the other with unaligned ones.
template <bool Aligned>
inline __m128 row4(const float* p) { return Aligned ? _mm_load_ps(p) : _mm_loadu_ps(p); }

template <bool Aligned>
inline void product4x4(const float* a, const float* b, float* d) {
    const __m256 a01 = _mm256_set_m128(row4<Aligned>(a + 4), row4<Aligned>(a));
    const __m256 a23 = _mm256_set_m128(row4<Aligned>(a + 12), row4<Aligned>(a + 8));
    const __m128 b0 = row4<Aligned>(b), b1 = row4<Aligned>(b + 4);
    const __m128 b2 = row4<Aligned>(b + 8), b3 = row4<Aligned>(b + 12);
    const __m256 r0 = _mm256_set_m128(b0, b0), r1 = _mm256_set_m128(b1, b1);
    const __m256 r2 = _mm256_set_m128(b2, b2), r3 = _mm256_set_m128(b3, b3);
    auto rows = [&](__m256 ap) {
        __m256 t = _mm256_mul_ps(_mm256_permute_ps(ap, 0x55), r1);
        t = _mm256_fmadd_ps(_mm256_permute_ps(ap, 0x00), r0, t);
        t = _mm256_fmadd_ps(_mm256_permute_ps(ap, 0xAA), r2, t);
        return _mm256_fmadd_ps(_mm256_permute_ps(ap, 0xFF), r3, t);
    };
    const __m256 d01 = rows(a01), d23 = rows(a23);
    _mm256_storeu_ps(d, d01);
    _mm256_storeu_ps(d + 8, d23);
}

}  // namespace

OmkStatus mm4x4(const float* a, const float* b, float* d) {
    if (a == nullptr || b == nullptr || d == nullptr) return omkStsNullPtr;
    const uintptr_t bits = reinterpret_cast<uintptr_t>(a) | reinterpret_cast<uintptr_t>(b) | reinterpret_cast<uintptr_t>(d);
    if ((bits & 15) == 0) product4x4<true>(a, b, d);
    else product4x4<false>(a, b, d);
    return omkStsOk;
}

}  // namespace omk::mul
