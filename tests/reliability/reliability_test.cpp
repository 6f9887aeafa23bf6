// The library under concurrent callers, inside callers' parallel regions, with a budget that changes between calls and
// with per-thread scratch refused; and its heap use. The workload is one call of members of every family (families.h),
// checked against the family's reference. This executable links the real omkcore, whose budget omkSetNumThreads sets,
// and defines, exported so that every library of the process binds to them: the C allocation functions (malloc, calloc,
// realloc, free, the aligned forms; the C++ operators reach them through libstdc++), forwarding to the C library and
// counting inside a window; omp_alloc and omp_free, counting the scratch blocks and their sizes (the runtime's heap use
// inside them is part of the block) and refusing a block on request; omp_get_num_threads and omp_get_thread_num,
// recording inside a window the team sizes granted and the system threads that ran as team members. Windows hold
// library calls only: calls are laid out before and checked after.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "families.h"
#include "omkcore.h"

#ifndef __GOMP_NOTHROW
#define __GOMP_NOTHROW noexcept
#endif

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
}

namespace {
std::atomic<bool> gWindow{false}, gFailAlloc{false};
std::atomic<int> gAllocs{0}, gFrees{0}, gOmpAllocs{0}, gOmpFrees{0}, gOmpRefused{0};
std::atomic<size_t> gOmpBytes{0};
__thread int tInRuntimeAllocator = 0;  // inside omp_alloc / omp_free: the runtime's own heap use

constexpr int kMaxRecords = 1 << 16;
struct Record {
    bool isSize;  // omp_get_num_threads (else omp_get_thread_num)
    int value;
    long tid;
} gRecords[kMaxRecords];
std::atomic<int> gRecordCount{0};

void* (*gRealOmpAlloc)(size_t, omp_allocator_handle_t);
void (*gRealOmpFree)(void*, omp_allocator_handle_t);
int (*gRealThreads)();
int (*gRealThreadNum)();
// Resolved before main, so that no window runs the dynamic linker's lookups.
__attribute__((constructor)) void resolveRuntime() {
    gRealOmpAlloc = reinterpret_cast<decltype(gRealOmpAlloc)>(dlsym(RTLD_NEXT, "omp_alloc"));
    gRealOmpFree = reinterpret_cast<decltype(gRealOmpFree)>(dlsym(RTLD_NEXT, "omp_free"));
    gRealThreads = reinterpret_cast<decltype(gRealThreads)>(dlsym(RTLD_NEXT, "omp_get_num_threads"));
    gRealThreadNum = reinterpret_cast<decltype(gRealThreadNum)>(dlsym(RTLD_NEXT, "omp_get_thread_num"));
}
void* counted(void* p) {
    if (p && gWindow.load(std::memory_order_relaxed) && !tInRuntimeAllocator) gAllocs.fetch_add(1);
    return p;
}
void record(bool isSize, int value) {
    if (!gWindow.load(std::memory_order_relaxed)) return;
    const int i = gRecordCount.fetch_add(1);
    if (i < kMaxRecords) gRecords[i] = {isSize, value, long(syscall(SYS_gettid))};
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) void* malloc(size_t n) noexcept { return counted(__libc_malloc(n)); }
__attribute__((visibility("default"))) void* calloc(size_t n, size_t s) noexcept {
    return counted(__libc_calloc(n, s));
}
__attribute__((visibility("default"))) void* realloc(void* p, size_t n) noexcept {
    return counted(__libc_realloc(p, n));
}
__attribute__((visibility("default"))) void* memalign(size_t a, size_t n) noexcept {
    return counted(__libc_memalign(a, n));
}
__attribute__((visibility("default"))) void* aligned_alloc(size_t a, size_t n) noexcept {
    return counted(__libc_memalign(a, n));
}
__attribute__((visibility("default"))) int posix_memalign(void** out, size_t a, size_t n) noexcept {
    if (a % sizeof(void*) != 0 || (a & (a - 1)) != 0) return 22;  // EINVAL
    void* p = counted(__libc_memalign(a, n));
    if (p == nullptr) return 12;  // ENOMEM
    *out = p;
    return 0;
}
__attribute__((visibility("default"))) void free(void* p) noexcept {
    if (p && gWindow.load(std::memory_order_relaxed) && !tInRuntimeAllocator) gFrees.fetch_add(1);
    __libc_free(p);
}
__attribute__((visibility("default"))) void* omp_alloc(size_t n, omp_allocator_handle_t a) __GOMP_NOTHROW {
    if (gWindow.load()) gOmpAllocs.fetch_add(1), gOmpBytes = n;
    if (gFailAlloc.load()) return gOmpRefused.fetch_add(1), nullptr;
    ++tInRuntimeAllocator;
    void* p = gRealOmpAlloc(n, a);
    --tInRuntimeAllocator;
    return p;
}
__attribute__((visibility("default"))) void omp_free(void* p, omp_allocator_handle_t a) __GOMP_NOTHROW {
    if (gWindow.load()) gOmpFrees.fetch_add(1);
    ++tInRuntimeAllocator;
    gRealOmpFree(p, a);
    --tInRuntimeAllocator;
}
__attribute__((visibility("default"))) int omp_get_num_threads(void) __GOMP_NOTHROW {
    const int n = gRealThreads();
    record(true, n);
    return n;
}
__attribute__((visibility("default"))) int omp_get_thread_num(void) __GOMP_NOTHROW {
    const int t = gRealThreadNum();
    record(false, t);
    return t;
}
}  // extern "C"

namespace {
using namespace omkt;

// What a window saw: heap use, scratch blocks, the team sizes granted and the team members.
struct Window {
    int allocs, frees, ompAllocs, ompFrees;
    size_t ompBytes;
    std::vector<int> sizes;
    std::set<long> members;
    std::set<int> numbers;
};
Window measure(const std::function<void()>& body) {
    gAllocs = gFrees = gOmpAllocs = gOmpFrees = gRecordCount = 0;
    gOmpBytes = 0;
    gWindow = true;
    body();
    gWindow = false;
    Window w{gAllocs, gFrees, gOmpAllocs, gOmpFrees, gOmpBytes, {}, {}, {}};
    for (int i = 0; i < std::min(gRecordCount.load(), kMaxRecords); ++i)
        if (gRecords[i].isSize) w.sizes.push_back(gRecords[i].value);
        else w.members.insert(gRecords[i].tid), w.numbers.insert(gRecords[i].value);
    return w;
}

// One call of the workload, laid out with its inputs and the arena its reference leaves.
struct Job {
    const Family* f;
    const Export* ex;
    Shape s;
    size_t perThread;  // scratch the parallel path takes per thread (the caller's buffer size), or 0
};
struct Prepared {
    Call c;
    Bytes inputs;
    OmkStatus status;
    OmkStatus call() {
        std::copy(inputs.begin(), inputs.end(), c.arena.bytes.begin());
        return c.run();
    }
    bool good(OmkStatus st) const { return st == status && firstDifference(c).empty(); }
};
Prepared prepare(const Job& j) {
    std::mt19937 rng(uint32_t(std::hash<std::string>{}(j.ex->name)));
    Prepared r{prepared(*j.f, *j.ex, j.s, rng), {}, 0};
    r.inputs = r.c.arena.bytes;
    r.status = expectSerial(*j.f, r.c);
    return r;
}

// Members of every family: the first standard and the first _L array member of each family with array members, above
// their serial limits (count >= 9) or below them (count 2); the first member of the others.
std::vector<Job> workload(bool aboveLimits) {
    std::vector<Job> jobs;
    for (const Family& f : families())
        for (const char* desc : {"", "L"}) {
            if (!f.work && desc[0]) break;
            const auto e = std::find_if(exportTable().begin(), exportTable().end(), [&](const Export& x) {
                const Name n = parseName(x.name);
                return x.call && f.has(n) && (!f.work || (n.array() && n.desc == desc));
            });
            if (e == exportTable().end()) continue;
            const Name n = parseName(e->name);
            Job j{&f, &*e, f.shapes(n)[0], 0};
            j.s.count = 1;
            if (f.work) {
                const int64_t limit = f.firstParallel(layCall(*e, j.s));
                while (f.work(n, j.s) < limit || j.s.count < 9) ++j.s.count;
                j.s.count = aboveLimits ? 2 * j.s.count + 3 : 2;
            }
            const Call c = layCall(*e, j.s);
            j.perThread = c.hasRegion("Buffer") ? bufferBytes(c) : 0;
            jobs.push_back(j);
        }
    return jobs;
}

std::vector<Prepared> prepareAll(const std::vector<Job>& jobs) {
    std::vector<Prepared> runs;
    for (const Job& j : jobs) runs.push_back(prepare(j));
    return runs;
}

class Reliability : public ::testing::Test {
protected:
    void TearDown() override {
        omkSetNumThreads(0);
        gFailAlloc = false;
    }
};

}  // namespace

// The counters see allocations of this program, of libstdc++ and of the runtime's allocator: a zero below means none.
TEST_F(Reliability, TheCountersSeeEveryKindOfAllocation) {
    void* (*volatile m)(size_t) = malloc;
    static void* volatile sink;
    static int* volatile ints;
    const Window w = measure([&] {
        sink = m(24);
        free(sink);
        ints = new int[5];
        delete[] ints;
        sink = omp_alloc(100, omp_default_mem_alloc);
        omp_free(sink, omp_default_mem_alloc);
    });
    EXPECT_EQ(w.allocs, 2);
    EXPECT_EQ(w.frees, 2);
    EXPECT_EQ(w.ompAllocs, 1);
    EXPECT_EQ(w.ompFrees, 1);
    EXPECT_EQ(w.ompBytes, 100u);
}

// Serial calls (a budget of one, or arrays below their limits) take no memory and open no region; parallel ones none
// either, except one block from omp_alloc per call of the families with per-thread scratch, sized for the whole team
// and freed before the call returns. Each call gives its reference bits, on a team of the budget when parallel. A
// budget set between calls decides the next call's team; the default (budget 0, last) follows omp_set_num_threads(1).
TEST_F(Reliability, HeapUseAndTeamsOfEveryFamily) {
    const int saved = omp_get_max_threads();
    for (const bool above : {false, true}) {
        const std::vector<Job> jobs = workload(above);
        std::vector<Prepared> runs = prepareAll(jobs);
        for (int set : {1, 2, 3, 0}) {
            omp_set_num_threads(set ? saved : 1);
            ASSERT_EQ(omkSetNumThreads(set), omkStsOk);
            const int budget = set ? set : 1;
            for (Prepared& r : runs) r.call();  // first calls: lazy binding, the runtime's threads
            for (size_t i = 0; i < runs.size(); ++i) {
                OmkStatus st = 0;
                const Window w = measure([&] { st = runs[i].call(); });
                const Job& j = jobs[i];
                const bool parallel = above && budget > 1 && j.f->work;
                const std::string what = std::string(j.ex->name) + " budget " + std::to_string(budget);
                EXPECT_TRUE(runs[i].good(st)) << what << ": " << firstDifference(runs[i].c);
                EXPECT_EQ(w.allocs + w.frees, 0) << what;
                EXPECT_EQ(w.ompAllocs, parallel && j.perThread ? 1 : 0) << what;
                EXPECT_EQ(w.ompFrees, w.ompAllocs) << what;
                if (parallel && j.perThread) {
                    EXPECT_GE(w.ompBytes, size_t(budget) * j.perThread) << what;
                    EXPECT_LT(w.ompBytes, size_t(budget) * (j.perThread + 64)) << what;
                }
                EXPECT_EQ(w.members.size(), parallel ? size_t(budget) : 0) << what << ": team";
                for (int size : w.sizes) EXPECT_EQ(size, budget) << what;
            }
        }
    }
    omp_set_num_threads(saved);
}

// Eight threads run every job at once on their own memory, first all in the same order, then each in its own order:
// reference bits, one block taken and returned per call of a scratch family, teams of the budget.
TEST_F(Reliability, EightCallersAtOnce) {
    const std::vector<Job> jobs = workload(true);
    constexpr int kCallers = 8;
    std::vector<std::vector<Prepared>> runs;
    for (int t = 0; t < kCallers; ++t) runs.push_back(prepareAll(jobs));
    const int scratchJobs = int(std::count_if(jobs.begin(), jobs.end(), [](const Job& j) { return j.perThread > 0; }));
    for (int budget : {2, 3}) {
        ASSERT_EQ(omkSetNumThreads(budget), omkStsOk);
        std::vector<std::vector<std::string>> wrong(kCallers);
        const Window w = measure([&] {
            std::vector<std::thread> callers;
            for (int t = 0; t < kCallers; ++t)
                callers.emplace_back([&, t] {
                    for (size_t i = 0; i < 2 * jobs.size(); ++i) {
                        const size_t k = (i + (i < jobs.size() ? 0 : size_t(t) * 3)) % jobs.size();
                        if (!runs[t][k].good(runs[t][k].call())) wrong[t].push_back(jobs[k].ex->name);
                    }
                });
            for (std::thread& c : callers) c.join();
        });
        for (int t = 0; t < kCallers; ++t)
            for (const std::string& name : wrong[t]) ADD_FAILURE() << name << ": caller " << t << " budget " << budget;
        EXPECT_EQ(w.ompAllocs, 2 * kCallers * scratchJobs) << "budget " << budget;
        EXPECT_EQ(w.ompFrees, w.ompAllocs);
        ASSERT_FALSE(w.sizes.empty());
        for (int size : w.sizes) ASSERT_EQ(size, budget);
        EXPECT_EQ(w.numbers.size(), size_t(budget));
        EXPECT_GT(w.members.size(), size_t(kCallers)) << "the callers' teams had no threads of their own";
    }
}

// Inside a caller's parallel region (one active level, the default) calls run on a team of one with the reference bits.
TEST_F(Reliability, CallsInsideACallersParallelRegionRunOnATeamOfOne) {
    const std::vector<Job> jobs = workload(true);
    std::vector<std::vector<Prepared>> runs;
    for (int t = 0; t < 3; ++t) runs.push_back(prepareAll(jobs));
    ASSERT_EQ(omkSetNumThreads(4), omkStsOk);
    const int levels = omp_get_max_active_levels();
    omp_set_max_active_levels(1);
    std::vector<int> wrong(3, 0);
    const Window w = measure([&] {
#pragma omp parallel num_threads(3)
        {
            const int t = gRealThreadNum();
            for (size_t i = 0; i < jobs.size(); ++i) {
                const size_t k = (i + size_t(t) * 5) % jobs.size();
                wrong[t] += !runs[t][k].good(runs[t][k].call());
            }
        }
    });
    omp_set_max_active_levels(levels);
    EXPECT_EQ(wrong, std::vector<int>(3, 0));
    const size_t arrays = size_t(std::count_if(jobs.begin(), jobs.end(), [](const Job& j) { return j.f->work; }));
    EXPECT_EQ(w.sizes.size(), 3 * arrays) << "calls that did not ask for their team size";
    for (int size : w.sizes) EXPECT_EQ(size, 1);
    EXPECT_EQ(w.numbers, std::set<int>{0});
    EXPECT_LE(w.members.size(), 3u);
}

// Denied its scratch block, a parallel call runs serially in the caller's buffer with the reference status and bits.
TEST_F(Reliability, AParallelCallWithoutItsScratchStillGetsItsResult) {
    const std::vector<Job> jobs = workload(true);
    std::vector<Prepared> runs = prepareAll(jobs);
    ASSERT_EQ(omkSetNumThreads(3), omkStsOk);
    gFailAlloc = true;
    int refused = 0;
    for (size_t i = 0; i < jobs.size(); ++i) {
        gOmpRefused = 0;
        EXPECT_TRUE(runs[i].good(runs[i].call())) << jobs[i].ex->name << " without scratch";
        EXPECT_EQ(gOmpRefused.load(), jobs[i].perThread && jobs[i].f->work ? 1 : 0) << jobs[i].ex->name;
        refused += gOmpRefused.load();
    }
    EXPECT_EQ(refused, 8);  // Det/Invert, QR and both eigenproblems, standard and _L
}
