// Size of the largest data or unified cache, read from cpuid.
//
// Intel describes its caches in leaf 4 and AMD (with the topology extension) in leaf 0x8000001D;
// both use the same encoding. Processors without either report L2 and L3 sizes in leaf
// 0x80000006. When cpuid yields nothing, the C library's sysconf values are used.
#include "omkcore.h"

#include <cpuid.h>
#include <unistd.h>

#include <climits>
#include <cstring>

namespace {

// Largest data (type 1) or unified (type 3) cache among the subleaves of a deterministic cache
// parameters leaf (4 or 0x8000001D). Subleaves end at cache type 0.
long long largestFromCacheLeaf(unsigned int leaf) {
    long long largest = 0;
    // The bound only protects against a malformed leaf that never reports type 0.
    for (unsigned int sub = 0; sub < 64; ++sub) {
        unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
        __cpuid_count(leaf, sub, eax, ebx, ecx, edx);
        const unsigned int type = eax & 0x1Fu;
        if (type == 0) break;
        if (type != 1 && type != 3) continue;  // 2 = instruction cache
        const long long ways = ((ebx >> 22) & 0x3FFu) + 1;
        const long long partitions = ((ebx >> 12) & 0x3FFu) + 1;
        const long long line = (ebx & 0xFFFu) + 1;
        const long long sets = static_cast<long long>(ecx) + 1;
        const long long size = ways * partitions * line * sets;
        if (size > largest) largest = size;
    }
    return largest;
}

// Leaf 0x80000006: ECX[31:16] L2 size in KB, EDX[31:18] L3 size in 512 KB units.
long long largestFromLegacyLeaf() {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(0x80000006u, &eax, &ebx, &ecx, &edx)) return 0;
    const long long l2 = static_cast<long long>(ecx >> 16) * 1024;
    const long long l3 = static_cast<long long>(edx >> 18) * 512 * 1024;
    return l2 > l3 ? l2 : l3;
}

long long largestFromCpuid() {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    const unsigned int maxLeaf = __get_cpuid_max(0, nullptr);
    if (maxLeaf == 0) return 0;
    __cpuid(0, eax, ebx, ecx, edx);
    char vendor[13];
    std::memcpy(vendor + 0, &ebx, 4);
    std::memcpy(vendor + 4, &edx, 4);
    std::memcpy(vendor + 8, &ecx, 4);
    vendor[12] = '\0';
    const bool amdLike = std::strcmp(vendor, "AuthenticAMD") == 0 ||
                         std::strcmp(vendor, "HygonGenuine") == 0;
    const unsigned int maxExtLeaf = __get_cpuid_max(0x80000000u, nullptr);

    long long size = 0;
    if (amdLike) {
        // Leaf 0x8000001D is valid only when 0x80000001 ECX[22] (topology extension) is set;
        // on AMD leaf 4 is reserved and reads as zero.
        if (maxExtLeaf >= 0x8000001Du) {
            __cpuid(0x80000001u, eax, ebx, ecx, edx);
            if ((ecx >> 22) & 1u) size = largestFromCacheLeaf(0x8000001Du);
        }
    } else if (maxLeaf >= 4) {
        size = largestFromCacheLeaf(4);
    }
    if (size == 0 && maxExtLeaf >= 0x80000006u) size = largestFromLegacyLeaf();
    return size;
}

long long largestFromSysconf() {
    long l3 = -1, l2 = -1;
#ifdef _SC_LEVEL3_CACHE_SIZE
    l3 = sysconf(_SC_LEVEL3_CACHE_SIZE);
#endif
#ifdef _SC_LEVEL2_CACHE_SIZE
    l2 = sysconf(_SC_LEVEL2_CACHE_SIZE);
#endif
    if (l3 > 0) return l3;
    if (l2 > 0) return l2;
    return 0;
}

int detectMaxCacheSize() {
    long long size = largestFromCpuid();
    if (size <= 0) size = largestFromSysconf();
    if (size < 0) size = 0;
    if (size > INT_MAX) size = INT_MAX;
    return static_cast<int>(size);
}

}  // namespace

extern "C" OMKCORE_API OmkStatus omkGetMaxCacheSizeB(int* pSizeByte) {
    if (pSizeByte == nullptr) return omkStsNullPtr;
    // The cache hierarchy does not change while the process runs: read it once.
    static const int maxCache = detectMaxCacheSize();
    *pSizeByte = maxCache;
    return omkStsOk;
}
