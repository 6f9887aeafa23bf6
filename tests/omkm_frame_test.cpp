// The frame: the driver's split and serial cases, the version record, wrapping work figures, the exported names.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "elementwise/add_sub.h"
#include "frame/parallel_driver.h"
#include "omkm.h"
#include "thread_budget_probe.h"

namespace {

struct SliceRun {
    int first, m, thread, team;
};

// Runs the driver over `count` objects and records who took which slice.
std::vector<SliceRun> recordSlices(int count, OmkStatus (*status)(int first) = nullptr, OmkStatus* result = nullptr) {
    std::vector<SliceRun> runs;
    std::mutex mu;
    const OmkStatus st = omk::runOverObjects(count, [&](int32_t first, int32_t m, char*) {
        std::lock_guard<std::mutex> lock(mu);
        runs.push_back({first, m, omp_get_thread_num(), omp_get_num_threads()});
        return status ? status(first) : omkStsOk;
    });
    if (result) *result = st;
    std::sort(runs.begin(), runs.end(), [](const SliceRun& a, const SliceRun& b) { return a.first < b.first; });
    return runs;
}

}  // namespace

// The slices follow each other in thread order, the first count % team threads taking one object more; seven objects
// over a budget of three run as 3, 2 and 2 on threads 0, 1 and 2.
TEST(ParallelDriver, ContiguousSlicesInThreadOrder) {
    for (int count : {5, 7, 10, 64, 1001})
        for (int team = 1; team <= 5 && team <= count; ++team) {
            int next = 0;
            for (int t = 0; t < team; ++t) {
                const omk::Slice s = omk::Split::over(count, team).of(t);
                EXPECT_EQ(s.first, next);
                EXPECT_EQ(s.count, count / team + (t < count % team));
                next += s.count;
            }
            EXPECT_EQ(next, count);
        }
    probe::Budget three(3);
    const std::vector<SliceRun> runs = recordSlices(7);
    EXPECT_EQ(probe::calls(), 2);  // once to decide, once to size the team
    ASSERT_EQ(runs.size(), 3u);
    const int firsts[] = {0, 3, 5}, counts[] = {3, 2, 2};
    for (int t = 0; t < 3; ++t) {
        EXPECT_EQ(runs[t].first, firsts[t]);
        EXPECT_EQ(runs[t].m, counts[t]);
        EXPECT_EQ(runs[t].thread, t);
        EXPECT_EQ(runs[t].team, 3);
    }
}

// Serial below two threads or with fewer objects than threads; as many objects as threads is a team of one each.
TEST(ParallelDriver, RunsSeriallyBelowTwoThreadsOrWithFewerObjects) {
    for (auto [budget, count] : {std::pair{1, 100}, std::pair{0, 100}, std::pair{4, 3}, std::pair{4, 4}}) {
        probe::Budget b(budget);
        const std::vector<SliceRun> runs = recordSlices(count);
        const size_t team = budget == count ? size_t(count) : 1;
        EXPECT_EQ(probe::calls(), int(team == 1 ? 1 : 2));
        ASSERT_EQ(runs.size(), team);
        EXPECT_EQ(runs[0].first, 0);
        EXPECT_EQ(runs[0].m, count / int(team));
    }
}

// A test program built with -fopenmp and the library share one OpenMP runtime (libgomp, or LLVM's libomp when linked):
// two runtimes would each keep their own notion of the enclosing region, and a call from inside the program's region
// would open a second team instead of running on a team of one.
TEST(ParallelDriver, OneOpenMPRuntimeInTheProcess) {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> runtimes;  // file names of the mapped runtimes
    for (std::string line; std::getline(maps, line);)
        for (const char* lib : {"/libgomp", "/libiomp", "/libomp.so", "/libomp-"})
            if (line.find(lib) != std::string::npos) runtimes.insert(line.substr(line.rfind('/') + 1));
    EXPECT_EQ(runtimes.size(), 1u) << "OpenMP runtimes mapped: " << testing::PrintToString(runtimes);
}

TEST(WorkFigures, WrapInSigned32BitAndAWrappedFigureStaysSerial) {
    using namespace omk::addsub;
    // 3 * 1 * 30000 * 30000 = 2.7e9 wraps to a negative figure.
    const omk::Dims big{30000, 30000, 1};
    const int64_t exact = 3LL * 30000 * 30000;
    EXPECT_EQ(twoMatrixArrays(big), int32_t(uint32_t(uint64_t(exact))));
    EXPECT_LT(twoMatrixArrays(big), 0);
    EXPECT_FALSE(goesParallel<float>(kTwoMatrixArrays, Desc::Std, true, big));
    // 2 * count past 2^31 wraps the cva figure.
    const omk::Dims many{1, 1, 0x40000001};
    EXPECT_EQ(constAndArray(many), int32_t(0x80000002u));
    EXPECT_FALSE(goesParallel<double>(kConstAndArray, Desc::L, true, many));
    // Small figures are exact.
    EXPECT_EQ(matrixAndArray({4, 4, 94}), 3024);
    EXPECT_EQ(vectorAndConstArray({5, 1, 7}), 5 * 8 + 7);
    EXPECT_EQ(arrayAndConstArray({5, 1, 7}), 7 * 11);
}

TEST(WorkFigures, ObjectsAreWalkedByPointerStepsOnlyWhileNoOffsetWraps) {
    // (count - 1) * s0 at the edges of the signed 32-bit range, for either sign of the stride.
    float x = 0;
    const int32_t last = INT32_MAX / 36 + 1;  // 59652324 objects: offset 2147483628
    for (const int32_t s0 : {36, -36}) {
        const auto v = omk::matArr(&x, s0, 12, 4);
        EXPECT_TRUE(v.linear(last)) << s0;
        EXPECT_FALSE(v.linear(last + 1)) << s0;
        EXPECT_EQ(omk::objectBytes(v), s0);
    }
    EXPECT_TRUE(omk::matArr(&x, INT32_MAX - 3, 12, 4).linear(2));
    EXPECT_FALSE(omk::matArr(&x, 1 << 30, 12, 4).linear(3));
    float* table[1] = {&x};
    EXPECT_FALSE(omk::linearObjects(omk::matArrL(table, 0, 12, 4), 1));
}

TEST(VersionRecord, ExactValuesAndOnePointer) {
    const OmkLibraryVersion* v = omkmGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, omkmGetLibVersion());
    EXPECT_EQ(v->major, 7);
    EXPECT_EQ(v->minor, 1);
    EXPECT_EQ(v->majorBuild, 1);
    EXPECT_EQ(v->build, 37466);
    EXPECT_EQ(0, std::memcmp(v->targetCpu, "z3\0\0", 4));
    EXPECT_STREQ(v->name, "omkm AVX2 (z3)");
    EXPECT_STREQ(v->version, "7.1.1 (r37466)");
    EXPECT_STREQ(v->buildDate, "Sep 24 2012");
}

namespace {
std::set<std::string> readNames(const std::string& path, bool mapFile) {
    std::set<std::string> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == ' ' || c == ';'; }), line.end());
        if (line.rfind("omkm", 0) == 0) out.insert(line);
        else if (!mapFile && !line.empty()) out.insert(line);
    }
    return out;
}

// Names in a shared library's dynamic symbol table, as nm lists them.
std::set<std::string> definedSymbols(const std::string& library) {
    const std::string cmd = "nm -D --defined-only '" + library + "'";
    std::set<std::string> have;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return have;
    char line[512];
    while (std::fgets(line, sizeof line, p)) {
        char addr[64], type[8], name[400];
        if (std::sscanf(line, "%63s %7s %399s", addr, type, name) == 3) have.insert(name);
    }
    if (pclose(p) != 0) have.clear();
    return have;
}

}  // namespace

TEST(Exports, DynamicSymbolTableIsTheBuiltList) {
    const std::set<std::string> built = readNames(OMKM_EXPORTS_MAP, true);
    const std::set<std::string> api = readNames(OMKM_EXPORTS_LIST, false);
    ASSERT_EQ(api.size(), 874u) << "the API's name list was not found at " << OMKM_EXPORTS_LIST;
    for (const std::string& n : api) EXPECT_TRUE(built.count(n)) << n << " is not built";
    for (const std::string& n : built) EXPECT_TRUE(api.count(n)) << n << " is not an API name";

    const std::set<std::string> have = definedSymbols(OMKM_LIBRARY_FILE);
    EXPECT_EQ(have, built);
}

TEST(Exports, CoreLibraryExportsItsEntryPoints) {
    const std::set<std::string> have = definedSymbols(OMKCORE_LIBRARY_FILE);
    const std::set<std::string> want = {"omkGetEnabledCpuFeatures", "omkGetMaxCacheSizeB", "omkSetNumThreads",
                                        "omkGetNumThreads", "ownGetNumThreads"};
    EXPECT_EQ(have, want);
}
