// Processor feature mask of the omkm family.
//
// The mask is read with cpuid. The AVX families additionally need the operating system to save
// their register state on a context switch, which XCR0 (read with xgetbv) reports: without it an
// AVX instruction faults even though cpuid lists it.
#include "omkcore.h"

#include <cpuid.h>

namespace {

// XCR0 bits: 1 = SSE (XMM) state, 2 = AVX (upper YMM) state,
// 5 = opmask, 6 = upper ZMM0-15, 7 = ZMM16-31.
constexpr unsigned long long kXcr0SseAvx = (1ULL << 1) | (1ULL << 2);
constexpr unsigned long long kXcr0Avx512 = kXcr0SseAvx | (1ULL << 5) | (1ULL << 6) | (1ULL << 7);

// xgetbv is emitted as a raw instruction so the library does not need -mxsave; it is only
// executed after cpuid reported OSXSAVE, otherwise it would raise #UD.
unsigned long long readXcr0() {
    unsigned int lo = 0, hi = 0;
    __asm__ __volatile__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0u));
    return (static_cast<unsigned long long>(hi) << 32) | lo;
}

inline bool bit(unsigned int reg, int n) { return ((reg >> n) & 1u) != 0; }

unsigned long long detectFeatures() {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    const unsigned int maxLeaf = __get_cpuid_max(0, nullptr);
    if (maxLeaf < 1 || !__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return 0;

    unsigned long long mask = 0;
    // Leaf 1: EDX[26] SSE2; ECX[0] SSE3, [9] SSSE3, [12] FMA, [19] SSE4.1, [20] SSE4.2,
    // [23] POPCNT, [27] OSXSAVE, [28] AVX, [29] F16C.
    if (bit(edx, 26)) mask |= omkCpuSSE2;
    if (bit(ecx, 0))  mask |= omkCpuSSE3;
    if (bit(ecx, 9))  mask |= omkCpuSSSE3;
    if (bit(ecx, 19)) mask |= omkCpuSSE41;
    if (bit(ecx, 20)) mask |= omkCpuSSE42;
    if (bit(ecx, 23)) mask |= omkCpuPOPCNT;

    const unsigned long long xcr0 = bit(ecx, 27) ? readXcr0() : 0;
    const bool osAvx = (xcr0 & kXcr0SseAvx) == kXcr0SseAvx;
    const bool osAvx512 = (xcr0 & kXcr0Avx512) == kXcr0Avx512;

    if (osAvx) {
        if (bit(ecx, 28)) mask |= omkCpuAVX;
        if (bit(ecx, 12)) mask |= omkCpuFMA;
        if (bit(ecx, 29)) mask |= omkCpuF16C;
    }

    // Leaf 7 subleaf 0, EBX: [3] BMI1, [5] AVX2, [8] BMI2, [16] AVX512F, [17] AVX512DQ,
    // [30] AVX512BW, [31] AVX512VL.
    if (maxLeaf >= 7) {
        unsigned int a7 = 0, b7 = 0, c7 = 0, d7 = 0;
        if (__get_cpuid_count(7, 0, &a7, &b7, &c7, &d7)) {
            if (bit(b7, 3)) mask |= omkCpuBMI1;
            if (bit(b7, 8)) mask |= omkCpuBMI2;
            if (osAvx && bit(b7, 5)) mask |= omkCpuAVX2;
            if (osAvx512) {
                if (bit(b7, 16)) mask |= omkCpuAVX512F;
                if (bit(b7, 17)) mask |= omkCpuAVX512DQ;
                if (bit(b7, 30)) mask |= omkCpuAVX512BW;
                if (bit(b7, 31)) mask |= omkCpuAVX512VL;
            }
        }
    }
    return mask;
}

}  // namespace

extern "C" OMKCORE_API unsigned long long omkGetEnabledCpuFeatures(void) {
    // Read once: the processor and the OS-enabled state do not change while the process runs.
    static const unsigned long long features = detectFeatures();
    return features;
}
