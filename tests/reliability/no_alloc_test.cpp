// Heap use of the library, counted by interposition: this executable defines the C allocation
// functions (malloc, calloc, realloc, free, aligned_alloc, posix_memalign, memalign, valloc,
// pvalloc; the C++ operators reach them through libstdc++) and the OpenMP runtime's omp_alloc,
// omp_free and omp_get_thread_num, all exported so that every library in the process binds to them.
// They forward to the C library's own entry points (and to the runtime's through
// dlsym(RTLD_NEXT), resolved at start-up) and count only while a measuring window is open. The
// runtime's own heap use inside omp_alloc is part of that one block and is not counted again; the
// threads that ask omp_get_thread_num are the members of the teams the measured calls ran on.
//
// Windows hold library calls only: outputs, buffers and pointer tables are made before a window
// opens and every check is made after it closes. Before a window the same calls run once, so that
// the OpenMP runtime has created its threads and its team for the budget in use.
//
// What is checked: the serial paths of every family and the parallel paths of the families without
// per-thread scratch use no heap at all; a parallel call of Det, Invert, QR or an eigenproblem takes
// exactly one block from omp_alloc, large enough for every thread of its team, and frees it.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "omkcore.h"
#include "omkm.h"
#include "workload.h"

#ifndef __GOMP_NOTHROW
#define __GOMP_NOTHROW noexcept
#endif

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
void* __libc_valloc(size_t);
void* __libc_pvalloc(size_t);
}

namespace {

std::atomic<bool> gCounting{false};
std::atomic<int> gAllocs{0}, gFrees{0}, gOmpAllocs{0}, gOmpFrees{0};
std::atomic<size_t> gOmpBytes{0};
std::atomic<void*> gOmpBlock{nullptr}, gOmpFreed{nullptr};
__thread int tInRuntimeAllocator = 0;  // inside omp_alloc / omp_free: the runtime's own heap use

inline void countAlloc(const void* p) {
    if (p && gCounting.load(std::memory_order_relaxed) && !tInRuntimeAllocator) gAllocs.fetch_add(1);
}

using OmpAlloc = void* (*)(size_t, omp_allocator_handle_t);
using OmpFree = void (*)(void*, omp_allocator_handle_t);
using OmpTeam = int (*)();
OmpAlloc gRealOmpAlloc = nullptr;
OmpFree gRealOmpFree = nullptr;
OmpTeam gRealThreadNum = nullptr;
// The system threads that asked omp_get_thread_num in a window: every member of a parallel
// region's team asks for its number.
constexpr int kMaxAsks = 4096;
long gAskers[kMaxAsks];
std::atomic<int> gAsks{0};

// Resolved before main, so that no window ever runs the dynamic linker's lookups.
__attribute__((constructor)) void resolveRuntime() {
    gRealOmpAlloc = reinterpret_cast<OmpAlloc>(dlsym(RTLD_NEXT, "omp_alloc"));
    gRealOmpFree = reinterpret_cast<OmpFree>(dlsym(RTLD_NEXT, "omp_free"));
    gRealThreadNum = reinterpret_cast<OmpTeam>(dlsym(RTLD_NEXT, "omp_get_thread_num"));
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) void* malloc(size_t n) noexcept {
    void* p = __libc_malloc(n);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) void* calloc(size_t n, size_t s) noexcept {
    void* p = __libc_calloc(n, s);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) void* realloc(void* old, size_t n) noexcept {
    void* p = __libc_realloc(old, n);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) void free(void* p) noexcept {
    if (p && gCounting.load(std::memory_order_relaxed) && !tInRuntimeAllocator) gFrees.fetch_add(1);
    __libc_free(p);
}
__attribute__((visibility("default"))) void* memalign(size_t a, size_t n) noexcept {
    void* p = __libc_memalign(a, n);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) void* aligned_alloc(size_t a, size_t n) noexcept {
    void* p = __libc_memalign(a, n);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) int posix_memalign(void** out, size_t a, size_t n) noexcept {
    if (a % sizeof(void*) != 0 || (a & (a - 1)) != 0) return 22;  // EINVAL
    void* p = __libc_memalign(a, n);
    if (p == nullptr) return 12;  // ENOMEM
    countAlloc(p);
    *out = p;
    return 0;
}
__attribute__((visibility("default"))) void* valloc(size_t n) noexcept {
    void* p = __libc_valloc(n);
    countAlloc(p);
    return p;
}
__attribute__((visibility("default"))) void* pvalloc(size_t n) noexcept {
    void* p = __libc_pvalloc(n);
    countAlloc(p);
    return p;
}

// Every thread of a parallel region asks for its number: the askers show that the calls measured
// below did run on teams, and on how many threads.
__attribute__((visibility("default"))) int omp_get_thread_num(void) __GOMP_NOTHROW {
    if (gCounting.load(std::memory_order_relaxed)) {
        const int i = gAsks.fetch_add(1);
        if (i < kMaxAsks) gAskers[i] = long(syscall(SYS_gettid));
    }
    return gRealThreadNum();
}
__attribute__((visibility("default"))) void* omp_alloc(size_t n, omp_allocator_handle_t a) __GOMP_NOTHROW {
    ++tInRuntimeAllocator;
    void* p = gRealOmpAlloc(n, a);
    --tInRuntimeAllocator;
    if (gCounting.load(std::memory_order_relaxed)) {
        gOmpAllocs.fetch_add(1);
        gOmpBytes = n;
        gOmpBlock = p;
    }
    return p;
}
__attribute__((visibility("default"))) void omp_free(void* p, omp_allocator_handle_t a) __GOMP_NOTHROW {
    if (gCounting.load(std::memory_order_relaxed)) {
        gOmpFrees.fetch_add(1);
        gOmpFreed = p;
    }
    ++tInRuntimeAllocator;
    gRealOmpFree(p, a);
    --tInRuntimeAllocator;
}
}  // extern "C"

namespace {

struct Counts {
    int allocs, frees, ompAllocs, ompFrees;
    int teamThreads;  // distinct threads that ran as members of a parallel region
    size_t ompBytes;
    void* ompBlock;
    void* ompFreed;
};

// Opens a window, runs `body`, closes it and returns what was counted.
Counts measure(const std::function<void()>& body) {
    gAllocs = 0;
    gFrees = 0;
    gOmpAllocs = 0;
    gOmpFrees = 0;
    gOmpBytes = 0;
    gOmpBlock = nullptr;
    gOmpFreed = nullptr;
    gAsks = 0;
    gCounting = true;
    body();
    gCounting = false;
    std::set<long> askers(gAskers, gAskers + std::min(gAsks.load(), kMaxAsks));
    return {gAllocs, gFrees, gOmpAllocs, gOmpFrees, int(askers.size()), gOmpBytes, gOmpBlock, gOmpFreed};
}

using rel::Job;
using rel::Slot;

// Calls of the families the workload leaves out or runs only as arrays: single objects of every
// family, data movement (including transposes large enough to ask for the cache size), the fixed
// 4x4 and vector forms, the buffer-size queries and the version record.
std::vector<Job> singleObjectJobs() {
    std::vector<Job> jobs;
    std::mt19937 rng(3);
    auto shared = [](auto v) { return std::make_shared<const decltype(v)>(std::move(v)); };
    auto dominantF = shared(rel::detail::matrices<float>(rng, 8, 8, 4, 8));
    auto dominantD = shared(rel::detail::matrices<double>(rng, 8, 8, 4, 8, true));
    auto bigF = shared(rel::detail::matrices<float>(rng, 130, 130, 1));
    auto add = [&](std::string name, size_t outBytes, size_t buffer, std::function<OmkStatus(rel::Bytes*, unsigned char*)> f) {
        jobs.push_back(Job{std::move(name), {outBytes}, buffer, 0, std::move(f)});
    };
    auto F = [](rel::Bytes* o) { return reinterpret_cast<float*>(o[0].data()); };
    auto D = [](rel::Bytes* o) { return reinterpret_cast<double*>(o[0].data()); };
    auto ptrs = [](const float* base, int n, int step) {
        std::vector<const float*> p(n);
        for (int i = 0; i < n; ++i) p[i] = base + i * step;
        return p;
    };
    auto tableA = std::make_shared<std::vector<const float*>>(ptrs(dominantF->data(), 16, 1));

    add("Sub_cv_32f", 64 * 4, 0, [=](rel::Bytes* o, unsigned char*) { return omkmSub_cv_32f(dominantF->data(), 4, 1.5f, F(o), 4, 64); });
    add("Add_v3_32f", 3 * 4, 0, [=](rel::Bytes* o, unsigned char*) { return omkmAdd_v3_32f(dominantF->data(), dominantF->data() + 3, F(o)); });
    add("LComb_vv_64f", 64 * 8, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmLComb_vv_64f(dominantD->data(), 8, 0.5, dominantD->data() + 64, 8, 2.0, D(o), 8, 64);
    });
    add("Copy_ma_32f_SS", 64 * 4 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmCopy_ma_32f_SS(dominantF->data(), 256, 32, 4, F(o), 256, 32, 4, 8, 8, 4);
    });
    add("Extract_ta_32f_P", 16 * 4 * 3, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmExtract_ta_32f_P(tableA->data(), 0, 64, F(o), 4, 4, 3);
    });
    add("LoadIdentity_ma_64f", 36 * 8 * 3, 0, [=](rel::Bytes* o, unsigned char*) { return omkmLoadIdentity_ma_64f(D(o), 288, 48, 8, 6, 6, 3); });
    add("Transpose_m_32f 130x130", 130 * 130 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmTranspose_m_32f(bigF->data(), 520, 4, 130, 130, F(o), 520, 4);
    });
    add("Transpose_ma_32f 64x64x4", 64 * 64 * 4 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmTranspose_ma_32f(bigF->data(), 64 * 64 * 4, 256, 4, 64, 64, F(o), 64 * 64 * 4, 256, 4, 4);
    });
    add("Mul_mm_32f", 64 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmMul_mm_32f(dominantF->data(), 32, 4, 8, 8, dominantF->data() + 64, 32, 4, 8, 8, F(o), 32, 4);
    });
    add("Mul_mm4x4_32f", 16 * 4, 0, [=](rel::Bytes* o, unsigned char*) { return omkmMul_mm4x4_32f(dominantF->data(), dominantF->data() + 16, F(o)); });
    add("Gaxpy_mv_64f", 8 * 8, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmGaxpy_mv_64f(dominantD->data(), 64, 8, 8, 8, dominantD->data() + 64, 8, 8, dominantD->data() + 72, 8, 8, D(o), 8);
    });
    add("DotProduct_v4_32f", 4, 0, [=](rel::Bytes* o, unsigned char*) { return omkmDotProduct_v4_32f(dominantF->data(), dominantF->data() + 4, F(o)); });
    add("CrossProduct_v4_32f", 16, 0, [=](rel::Bytes* o, unsigned char*) {
        return omkmCrossProduct_v4_32f(dominantF->data(), dominantF->data() + 4, dominantF->data() + 8, F(o));
    });
    add("LUDecomp_m_32f + LUBackSubst_mv_32f", 64 * 4 + 8 * 4 + 8 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        float* lu = F(o);
        int* p = reinterpret_cast<int*>(lu + 64);
        const OmkStatus st = omkmLUDecomp_m_32f(dominantF->data(), 32, 4, p, lu, 32, 4, 8);
        return st ? st : omkmLUBackSubst_mv_32f(lu, 32, 4, p, dominantF->data() + 64, 4, lu + 72, 4, 8);
    });
    add("CholeskyDecomp_m_64f", 64 * 8, 0, [=](rel::Bytes* o, unsigned char*) { return omkmCholeskyDecomp_m_64f(dominantD->data(), 64, 8, D(o), 64, 8, 8); });
    add("QRDecomp_m_64f + QRBackSubst_mv_64f", 64 * 8 + 8 * 8, 8 * 8, [=](rel::Bytes* o, unsigned char* buffer) {
        double* b = reinterpret_cast<double*>(buffer);
        const OmkStatus st = omkmQRDecomp_m_64f(dominantD->data(), 64, 8, b, D(o), 64, 8, 8, 8);
        return st ? st : omkmQRBackSubst_mv_64f(D(o), 64, 8, b, dominantD->data() + 64, 8, D(o) + 64, 8, 8, 8);
    });
    add("Det_m_64f", 8, 64 * 8 + 8 * 4, [=](rel::Bytes* o, unsigned char* buffer) {
        return omkmDet_m_64f(dominantD->data(), 64, 8, 8, reinterpret_cast<double*>(buffer), D(o));
    });
    add("Invert_m_32f 7x7", 49 * 4, 49 * 4 + 7 * 4, [=](rel::Bytes* o, unsigned char* buffer) {
        return omkmInvert_m_32f(dominantF->data(), 32, 4, reinterpret_cast<float*>(buffer), F(o), 28, 4, 7);
    });
    add("Det_m4_32f + Invert_m4_32f", 17 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        const OmkStatus st = omkmDet_m4_32f(dominantF->data(), F(o));
        return st ? st : omkmInvert_m4_32f(dominantF->data(), nullptr, F(o) + 1);
    });
    add("EigenValuesVectorsSym_m_64f", 72 * 8, 64 * 8, [=](rel::Bytes* o, unsigned char* buffer) {
        return omkmEigenValuesVectorsSym_m_64f(dominantD->data(), 64, 8, reinterpret_cast<double*>(buffer), D(o), 64, 8,
                                               D(o) + 64, 8);
    });
    add("EigenValues_m_64f", 16 * 8, 8 * 13 * 8, [=](rel::Bytes* o, unsigned char* buffer) {
        return omkmEigenValues_m_64f(dominantD->data(), 64, 8, D(o), D(o) + 8, 8, reinterpret_cast<double*>(buffer));
    });
    add("EigenValuesVectorsRight_m_32f", 80 * 4, 8 * 29 * 4, [=](rel::Bytes* o, unsigned char* buffer) {
        return omkmEigenValuesVectorsRight_m_32f(dominantF->data(), 32, 4, F(o), 32, 4, F(o) + 64, F(o) + 72, 8,
                                                 reinterpret_cast<float*>(buffer));
    });
    add("Eigen buffer-size queries", 8, 0, [=](rel::Bytes* o, unsigned char*) {
        int* s = reinterpret_cast<int*>(o[0].data());
        const OmkStatus st = omkmEigenValuesGetBufSize_32f(9, s);
        return st ? st : omkmEigenValuesVectorsGetBufSize_64f(9, s + 1);
    });
    add("graphics helpers", 40 * 4, 0, [=](rel::Bytes* o, unsigned char*) {
        float* d = F(o);
        const float* s = dominantF->data();
        OmkStatus st = omkmLookAtLH_m4_32f(s, s + 3, s + 6, d);
        st = st ? st : omkmProject_m4v3_32f(s, s + 16, s + 32, s + 48, 640, 480, 0, 1, d + 16);
        st = st ? st : omkmHermite_v3_32f(s, s + 3, s + 6, s + 9, 0.25f, d + 20);
        st = st ? st : omkmNormalize_v4_32f(s + 12, d + 24);
        st = st ? st : omkmRotationYawPitchRoll_m4_32f(0.1f, 0.2f, 0.3f, d + 24);
        return st;
    });
    add("GetLibVersion", 8, 0, [=](rel::Bytes* o, unsigned char*) {
        const OmkLibraryVersion* v = omkmGetLibVersion();
        std::memcpy(o[0].data(), &v, sizeof v);
        return v ? omkStsOk : omkStsNullPtr;
    });
    return jobs;
}

struct Prepared {
    std::vector<Job> jobs;
    std::vector<Slot> slots;
    std::vector<OmkStatus> status;
    explicit Prepared(std::vector<Job> j) : jobs(std::move(j)), slots(jobs.size()), status(jobs.size(), -1) {
        for (size_t i = 0; i < jobs.size(); ++i) slots[i].prepare(jobs[i]);
    }
    void runAll() {
        for (size_t i = 0; i < jobs.size(); ++i) status[i] = slots[i].call(jobs[i]);
    }
    void expectOk() const {
        for (size_t i = 0; i < jobs.size(); ++i) EXPECT_EQ(status[i], omkStsOk) << jobs[i].name;
    }
};

class NoAlloc : public ::testing::Test {
protected:
    void TearDown() override { omkSetNumThreads(0); }
};

// The counters see the allocations of this program, of libstdc++ and of the OpenMP runtime's
// allocator, so that a zero below means that nothing allocated.
TEST_F(NoAlloc, TheCountersSeeEveryKindOfAllocation) {
    // Volatile function pointers and sinks keep the compiler from pairing and removing the calls.
    void* (*volatile m)(size_t) = malloc;
    int (*volatile aligned)(void**, size_t, size_t) = posix_memalign;
    static void* volatile sink;
    static int* volatile ints;
    const Counts c = measure([&] {
        sink = m(24);
        free(sink);
        ints = new int[5];
        delete[] ints;
        void* r = nullptr;
        if (aligned(&r, 64, 128) == 0) sink = r;
        free(sink);
        sink = omp_alloc(100, omp_default_mem_alloc);
        omp_free(sink, omp_default_mem_alloc);
    });
    EXPECT_EQ(c.allocs, 3);
    EXPECT_EQ(c.frees, 3);
    EXPECT_EQ(c.ompAllocs, 1);
    EXPECT_EQ(c.ompFrees, 1);
    EXPECT_EQ(c.ompBytes, 100u);
}

// Budget 1: every family runs serially, arrays above their limits included, and takes no memory.
TEST_F(NoAlloc, SerialPathsOfEveryFamilyAllocateNothing) {
    ASSERT_EQ(omkSetNumThreads(1), omkStsOk);
    for (auto jobs : {rel::makeJobs(rel::Scale::Parallel), rel::makeJobs(rel::Scale::Small), singleObjectJobs()}) {
        Prepared p(std::move(jobs));
        p.runAll();  // first calls: lazy binding, the runtime's first use
        const Counts c = measure([&] { p.runAll(); });
        p.expectOk();
        EXPECT_EQ(c.allocs, 0);
        EXPECT_EQ(c.frees, 0);
        EXPECT_EQ(c.ompAllocs, 0);
        EXPECT_EQ(c.ompFrees, 0);
        EXPECT_EQ(c.teamThreads, 0) << "a call opened a parallel region";
    }
}

// A budget above one with arrays below their serial limits (count 2): serial, no memory.
TEST_F(NoAlloc, ArraysBelowTheirLimitsAllocateNothing) {
    for (int budget : {2, 4}) {
        ASSERT_EQ(omkSetNumThreads(budget), omkStsOk);
        Prepared p(rel::makeJobs(rel::Scale::Small));
        p.runAll();
        const Counts c = measure([&] { p.runAll(); });
        p.expectOk();
        EXPECT_EQ(c.allocs + c.frees + c.ompAllocs + c.ompFrees, 0) << "budget " << budget;
        EXPECT_EQ(c.teamThreads, 0) << "budget " << budget << ": a call below its limit opened a parallel region";
    }
}

// Parallel calls of the families without per-thread scratch (element-wise, products, LU,
// Cholesky, the checked point transform): no memory at all, on teams of two and of three.
TEST_F(NoAlloc, ParallelPathsWithoutScratchAllocateNothing) {
    std::vector<Job> jobs;
    for (Job& j : rel::makeJobs(rel::Scale::Parallel))
        if (j.scratchPerThread == 0 && j.name != "graphics fixed-size helpers") jobs.push_back(std::move(j));
    ASSERT_GE(jobs.size(), 15u);
    for (int budget : {2, 3}) {
        ASSERT_EQ(omkSetNumThreads(budget), omkStsOk);
        Prepared p(jobs);
        p.runAll();  // the runtime makes its threads and its team for this budget
        for (size_t i = 0; i < p.jobs.size(); ++i) {
            const Counts c = measure([&] { p.status[i] = p.slots[i].call(p.jobs[i]); });
            const std::string what = p.jobs[i].name + " budget " + std::to_string(budget);
            EXPECT_EQ(p.status[i], omkStsOk) << what;
            EXPECT_EQ(c.allocs, 0) << what;
            EXPECT_EQ(c.frees, 0) << what;
            EXPECT_EQ(c.ompAllocs, 0) << what;
            EXPECT_EQ(c.ompFrees, 0) << what;
            EXPECT_EQ(c.teamThreads, budget) << what << ": not on a team of the budget";
        }
    }
}

// Parallel calls of Det, Invert, QR and the eigenproblems: one block from omp_alloc per call, with
// room for every thread of the team, freed before the call returns; nothing else.
TEST_F(NoAlloc, ParallelScratchFamiliesTakeOneBlockPerCall) {
    std::vector<Job> jobs;
    for (Job& j : rel::makeJobs(rel::Scale::Parallel))
        if (j.scratchPerThread > 0) jobs.push_back(std::move(j));
    ASSERT_GE(jobs.size(), 10u);
    for (int budget : {2, 3}) {
        ASSERT_EQ(omkSetNumThreads(budget), omkStsOk);
        Prepared p(jobs);
        p.runAll();
        for (size_t i = 0; i < p.jobs.size(); ++i) {
            const Counts c = measure([&] { p.status[i] = p.slots[i].call(p.jobs[i]); });
            const std::string what = p.jobs[i].name + " budget " + std::to_string(budget);
            EXPECT_EQ(p.status[i], omkStsOk) << what;
            EXPECT_EQ(c.ompAllocs, 1) << what;
            EXPECT_EQ(c.ompFrees, 1) << what;
            EXPECT_NE(c.ompBlock, nullptr) << what;
            EXPECT_EQ(c.ompFreed, c.ompBlock) << what << ": the block freed is not the one taken";
            EXPECT_GE(c.ompBytes, size_t(budget) * p.jobs[i].scratchPerThread) << what;
            EXPECT_LT(c.ompBytes, size_t(budget) * (p.jobs[i].scratchPerThread + 64)) << what;
            EXPECT_EQ(c.allocs, 0) << what;
            EXPECT_EQ(c.frees, 0) << what;
            EXPECT_EQ(c.teamThreads, budget) << what << ": not on a team of the budget";
        }
    }
}

}  // namespace
