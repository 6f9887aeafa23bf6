// Tests of libomkcore: processor feature mask, largest cache size and thread budget.
#include "omkcore.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <omp.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/cpu_load.h"

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
    static int allowedProcessors() {
        cpu_set_t set;
        return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
    }
    int savedOmp_ = 1;
};

// By default the budget follows omp_set_num_threads, at most the processors this process may use; a count set overrides
// it as it is until 0 restores the default; a negative count is refused and changes nothing; a null pointer is refused.
TEST_F(ThreadBudget, DefaultFixedCountAndRestore) {
    const int cpus = allowedProcessors();
    for (int n : {1, 3, 7}) {
        omp_set_num_threads(n);
        const int b = ownGetNumThreads();
        EXPECT_GE(b, 1);
        EXPECT_LE(b, std::min(n, cpus));
        EXPECT_LE(reported(), std::min(n, cpus));
    }
    EXPECT_EQ(omkSetNumThreads(-1), omkStsBadSize);
    EXPECT_LE(ownGetNumThreads(), std::min(7, cpus));
    ASSERT_EQ(omkSetNumThreads(5), omkStsOk);
    omp_set_num_threads(2);
    EXPECT_EQ(ownGetNumThreads(), 5);
    EXPECT_EQ(reported(), 5);
    EXPECT_EQ(omkSetNumThreads(INT_MIN), omkStsBadSize);
    EXPECT_EQ(reported(), 5);
    ASSERT_EQ(omkSetNumThreads(0), omkStsOk);
    omp_set_num_threads(1);
    EXPECT_EQ(ownGetNumThreads(), 1);
    EXPECT_EQ(reported(), 1);
    EXPECT_EQ(omkGetNumThreads(nullptr), omkStsNullPtr);
}

// The default budget's pieces on given input: the processor lines of /proc/stat summed over the allowed processors
// (a line cut between pieces, the total line skipped, reading ended by the first other line), the processors taken
// with their hysteresis, and the budget they leave.
TEST(FreeProcessors, StatLinesTakenAndBudget) {
    const std::string stat =
        "cpu  900 0 900 900 0 0 0 0 0 0\ncpu0 10 1 2 100 3 4 5 6 7 0\ncpu1 20 0 0 200 0 0 0 0 0 0\n"
        "cpu2 1 1 1 1 1 1 1 1 0 0\nintr 1 2 3\ncpu3 9 9 9 9 9 9 9 9 9 9\n";
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(0, &allowed);
    CPU_SET(2, &allowed);
    CPU_SET(3, &allowed);
    for (size_t piece : {size_t(1), size_t(7), stat.size()}) {
        omk::core::StatReader r(allowed);
        for (size_t at = 0; at < stat.size() && r.feed(stat.data() + at, std::min(piece, stat.size() - at));)
            at += piece;
        EXPECT_TRUE(r.done());
        EXPECT_EQ(r.ticks().cpus, 2) << piece;
        EXPECT_EQ(r.ticks().busy, 28u + 6u) << piece;          // user nice system irq softirq steal
        EXPECT_EQ(r.ticks().total, 28u + 103u + 6u + 2u) << piece;  // and idle, iowait
    }
    struct Row { double share; int before, taken; };
    for (const Row& row : {Row{0.6, 0, 0}, Row{0.7, 0, 1}, Row{1.4, 1, 1}, Row{0.4, 1, 1}, Row{0.3, 1, 0},
                           Row{-0.2, 2, 0}, Row{3.2, 0, 3}, Row{2.6, 1, 3}})
        EXPECT_EQ(omk::core::processorsTaken(row.share, row.before), row.taken) << row.share << " " << row.before;
    EXPECT_EQ(omk::core::budgetFor(8, 4, 1), 3);
    EXPECT_EQ(omk::core::budgetFor(2, 4, 1), 2);
    EXPECT_EQ(omk::core::budgetFor(8, 4, 4), 1);
    EXPECT_EQ(omk::core::budgetFor(8, 4, 6), 1);
}

// With a spinning process on every allowed processor the default budget falls to one within a few samples, while a
// fixed count stays as it was set.
TEST_F(ThreadBudget, DefaultFallsToOneWhenEveryProcessorIsBusy) {
    const int cpus = allowedProcessors();
    if (cpus < 2 || omp_get_max_threads() < 2) GTEST_SKIP() << "one processor: the default is one already";
    std::vector<pid_t> spinners;
    for (int i = 0; i < cpus; ++i) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            alarm(10);
            for (volatile unsigned long spin = 0;; ++spin) {
            }
        }
        spinners.push_back(pid);
    }
    int budget = ownGetNumThreads();
    for (int i = 0; i < 300 && budget > 1; ++i) {
        usleep(10'000);
        budget = ownGetNumThreads();
    }
    ASSERT_EQ(omkSetNumThreads(cpus), omkStsOk);
    const int fixedCount = ownGetNumThreads();
    for (pid_t pid : spinners) kill(pid, SIGKILL);
    for (pid_t pid : spinners) waitpid(pid, nullptr, 0);
    EXPECT_EQ(budget, 1);
    EXPECT_EQ(fixedCount, cpus);
}

// omkGetNumThreads must not call the exported ownGetNumThreads, which a program may define itself (as this one does).
TEST_F(ThreadBudget, GetNumThreadsDoesNotCallInterposedSymbol) {
    omp_set_num_threads(1);
    ASSERT_EQ(ownGetNumThreads(), 1);  // the forwarder reaches the library
    ASSERT_EQ(omkSetNumThreads(5), omkStsOk);
    const int before = interposedCalls.load();
    EXPECT_EQ(reported(), 5);
    ASSERT_EQ(omkSetNumThreads(0), omkStsOk);
    EXPECT_EQ(reported(), 1);
    EXPECT_EQ(interposedCalls.load(), before);
}

}  // namespace
