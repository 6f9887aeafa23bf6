// omkmMul_mm4x4_32f: the product of two 4x4 float matrices of 16 contiguous row-major elements,
// by the packed 4x4 kernel; the aligned path reads rows with aligned loads, the other with
// unaligned ones, so the results are the same.
#include <immintrin.h>

#include <cstdint>

#include "products/mul.h"

namespace omk::mul {

OmkStatus mm4x4(const float* a, const float* b, float* d) {
    if (a == nullptr || b == nullptr || d == nullptr) return omkStsNullPtr;
    const uintptr_t bits = reinterpret_cast<uintptr_t>(a) | reinterpret_cast<uintptr_t>(b) | reinterpret_cast<uintptr_t>(d);
    if ((bits & 15) == 0) rowPairs4x4<true>(d, 16, a, 16, b, 16);
    else rowPairs4x4<false>(d, 16, a, 16, b, 16);
    return omkStsOk;
}

}  // namespace omk::mul
