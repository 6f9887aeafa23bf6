// Tests of libomkcore: processor feature mask, largest cache size and thread budget.
#include "omkcore.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

// This executable defines its own ownGetNumThreads, as libomkm's test programs do to count budget reads. It forwards to
// the library's (next in lookup order), so the tests see the real budget, and counts the calls.
static std::atomic<int> interposedCalls{0};

extern "C" int ownGetNumThreads(void) {
    using Fn = int (*)(void);
    static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "ownGetNumThreads"));
    interposedCalls.fetch_add(1);
    return real != nullptr ? real() : -1;
}

namespace {

struct FeatureCase {
    const char* name;
    unsigned long long bit;
    bool expected;
};

std::vector<FeatureCase> builtinFeatures() {
    __builtin_cpu_init();
    // __builtin_cpu_supports needs a string literal, hence one line per feature.
    return {
        {"sse2", omkCpuSSE2, __builtin_cpu_supports("sse2") != 0},
        {"sse3", omkCpuSSE3, __builtin_cpu_supports("sse3") != 0},
        {"ssse3", omkCpuSSSE3, __builtin_cpu_supports("ssse3") != 0},
        {"sse4.1", omkCpuSSE41, __builtin_cpu_supports("sse4.1") != 0},
        {"sse4.2", omkCpuSSE42, __builtin_cpu_supports("sse4.2") != 0},
        {"avx", omkCpuAVX, __builtin_cpu_supports("avx") != 0},
        {"avx2", omkCpuAVX2, __builtin_cpu_supports("avx2") != 0},
        {"fma", omkCpuFMA, __builtin_cpu_supports("fma") != 0},
        {"f16c", omkCpuF16C, __builtin_cpu_supports("f16c") != 0},
        {"bmi", omkCpuBMI1, __builtin_cpu_supports("bmi") != 0},
        {"bmi2", omkCpuBMI2, __builtin_cpu_supports("bmi2") != 0},
        {"popcnt", omkCpuPOPCNT, __builtin_cpu_supports("popcnt") != 0},
        {"avx512f", omkCpuAVX512F, __builtin_cpu_supports("avx512f") != 0},
        {"avx512dq", omkCpuAVX512DQ, __builtin_cpu_supports("avx512dq") != 0},
        {"avx512bw", omkCpuAVX512BW, __builtin_cpu_supports("avx512bw") != 0},
        {"avx512vl", omkCpuAVX512VL, __builtin_cpu_supports("avx512vl") != 0},
    };
}

// Each mask bit is the compiler runtime's detection of its feature, no other bit is set, and all threads read one mask.
TEST(CpuFeatures, EachBitMatchesCompilerRuntimeDetection) {
    const unsigned long long mask = omkGetEnabledCpuFeatures();
    unsigned long long known = 0;
    for (const FeatureCase& f : builtinFeatures()) {
        EXPECT_EQ((mask & f.bit) != 0, f.expected) << f.name << ": mask = 0x" << std::hex << mask;
        known |= f.bit;
    }
    EXPECT_EQ(mask & ~known, 0ULL);
    unsigned long long fromThread = ~mask;
    std::thread([&] { fromThread = omkGetEnabledCpuFeatures(); }).join();
    EXPECT_EQ(fromThread, mask);
}

// Largest data or unified cache the Linux kernel lists under /sys for any processor (sizes "<n>K" or "M"), 0 if none.
long long largestSysfsCache() {
    long long largest = 0;
    const long ncpu = std::max(1L, sysconf(_SC_NPROCESSORS_CONF));
    for (long cpu = 0; cpu < ncpu; ++cpu) {
        for (int index = 0; index < 16; ++index) {
            const std::string dir = "/sys/devices/system/cpu/cpu" + std::to_string(cpu) +
                                    "/cache/index" + std::to_string(index) + "/";
            std::ifstream typeFile(dir + "type"), sizeFile(dir + "size");
            if (!typeFile || !sizeFile) break;
            std::string type, size;
            typeFile >> type;
            sizeFile >> size;
            if (type != "Data" && type != "Unified") continue;
            char* end = nullptr;
            long long v = std::strtoll(size.c_str(), &end, 10);
            if (end != nullptr && *end == 'K') v *= 1024;
            else if (end != nullptr && *end == 'M') v *= 1024 * 1024;
            largest = std::max(largest, v);
        }
    }
    return largest;
}

// The largest data or unified cache the kernel lists, the same on every call; a null pointer refused.
TEST(MaxCacheSize, LargestCacheListedByTheKernel) {
    EXPECT_EQ(omkGetMaxCacheSizeB(nullptr), omkStsNullPtr);
    int size = -1, again = -2;
    ASSERT_EQ(omkGetMaxCacheSizeB(&size), omkStsOk);
    ASSERT_EQ(omkGetMaxCacheSizeB(&again), omkStsOk);
    EXPECT_EQ(size, again);
    const long long sysfs = largestSysfsCache();
    if (sysfs > 0) EXPECT_EQ(static_cast<long long>(size), std::min<long long>(sysfs, INT_MAX));
}

class ThreadBudget : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(omkSetNumThreads(0), omkStsOk);
        savedOmp_ = omp_get_max_threads();
    }
    void TearDown() override {
        omp_set_num_threads(savedOmp_);
        omkSetNumThreads(0);
    }
    static int reported() {
        int n = -777;
        EXPECT_EQ(omkGetNumThreads(&n), omkStsOk);
        return n;
    }
    int savedOmp_ = 1;
};

// By default the budget follows omp_set_num_threads; a count set overrides it until 0 restores the
// default; a negative count is refused and changes nothing; a null pointer is refused.
TEST_F(ThreadBudget, DefaultFixedCountAndRestore) {
    EXPECT_EQ(ownGetNumThreads(), omp_get_max_threads());
    for (int n : {3, 7, 1}) {
        omp_set_num_threads(n);
        EXPECT_EQ(ownGetNumThreads(), n);
        EXPECT_EQ(reported(), n);
    }
    omp_set_num_threads(3);
    EXPECT_EQ(omkSetNumThreads(-1), omkStsBadSize);
    EXPECT_EQ(ownGetNumThreads(), 3);
    ASSERT_EQ(omkSetNumThreads(5), omkStsOk);
    omp_set_num_threads(2);
    EXPECT_EQ(ownGetNumThreads(), 5);
    EXPECT_EQ(reported(), 5);
    EXPECT_EQ(omkSetNumThreads(INT_MIN), omkStsBadSize);
    EXPECT_EQ(reported(), 5);
    ASSERT_EQ(omkSetNumThreads(0), omkStsOk);
    EXPECT_EQ(ownGetNumThreads(), 2);
    EXPECT_EQ(reported(), 2);
    EXPECT_EQ(omkGetNumThreads(nullptr), omkStsNullPtr);
}

// omkGetNumThreads must not call the exported ownGetNumThreads, which a program may define itself (as this one does).
TEST_F(ThreadBudget, GetNumThreadsDoesNotCallInterposedSymbol) {
    ASSERT_EQ(ownGetNumThreads(), omp_get_max_threads());  // the forwarder reaches the library
    ASSERT_EQ(omkSetNumThreads(5), omkStsOk);
    const int before = interposedCalls.load();
    EXPECT_EQ(reported(), 5);
    ASSERT_EQ(omkSetNumThreads(0), omkStsOk);
    EXPECT_EQ(reported(), omp_get_max_threads());
    EXPECT_EQ(interposedCalls.load(), before);
}

}  // namespace
