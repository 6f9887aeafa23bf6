// The library under concurrent callers, inside callers' parallel regions, with a thread budget that
// changes between calls, and with per-thread scratch that cannot be allocated.
//
// This executable links the real omkcore (the budget is set with omkSetNumThreads) and defines
// four OpenMP entry points itself, exported so that libomkm.so binds to them:
//  - omp_get_num_threads and omp_get_thread_num record, while a recording is on, what they report
//    and the system thread that asked: the driver reads the size of the team the runtime granted
//    and every member of the team reads its number, so the record shows the team each parallel
//    call ran on (whether one thread or every thread reads the team size);
//  - omp_alloc and omp_free count the scratch blocks and their sizes, and omp_alloc returns NULL
//    on request; otherwise both forward to the runtime's own through dlsym(RTLD_NEXT).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "omkcore.h"
#include "omkm.h"
#include "workload.h"

#ifndef __GOMP_NOTHROW
#define __GOMP_NOTHROW noexcept
#endif

namespace {

struct TeamRecord {
    bool isSize;  // omp_get_num_threads (else omp_get_thread_num)
    int value;
    long tid;
};
constexpr int kMaxRecords = 1 << 16;
TeamRecord gRecords[kMaxRecords];
std::atomic<int> gRecordCount{0};
std::atomic<bool> gRecording{false};

std::atomic<bool> gFailAlloc{false};
std::atomic<int> gAllocCalls{0}, gAllocFailed{0}, gFreeCalls{0};
std::atomic<size_t> gLastAllocBytes{0};

template <class F> F realEntry(const char* name) {
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) {
        std::fprintf(stderr, "the OpenMP runtime has no %s\n", name);
        std::abort();
    }
    return reinterpret_cast<F>(p);
}

void record(bool isSize, int value) {
    if (!gRecording.load(std::memory_order_relaxed)) return;
    const int i = gRecordCount.fetch_add(1);
    if (i < kMaxRecords) gRecords[i] = {isSize, value, long(syscall(SYS_gettid))};
}
}  // namespace

extern "C" __attribute__((visibility("default"))) int omp_get_num_threads(void) __GOMP_NOTHROW {
    static const auto real = realEntry<int (*)()>("omp_get_num_threads");
    const int n = real();
    record(true, n);
    return n;
}

extern "C" __attribute__((visibility("default"))) int omp_get_thread_num(void) __GOMP_NOTHROW {
    static const auto real = realEntry<int (*)()>("omp_get_thread_num");
    const int t = real();
    record(false, t);
    return t;
}

extern "C" __attribute__((visibility("default"))) void* omp_alloc(size_t size, omp_allocator_handle_t a) __GOMP_NOTHROW {
    static const auto real = realEntry<void* (*)(size_t, omp_allocator_handle_t)>("omp_alloc");
    gAllocCalls.fetch_add(1);
    gLastAllocBytes = size;
    if (gFailAlloc.load()) {
        gAllocFailed.fetch_add(1);
        return nullptr;
    }
    return real(size, a);
}

extern "C" __attribute__((visibility("default"))) void omp_free(void* p, omp_allocator_handle_t a) __GOMP_NOTHROW {
    static const auto real = realEntry<void (*)(void*, omp_allocator_handle_t)>("omp_free");
    gFreeCalls.fetch_add(1);
    real(p, a);
}

namespace {

using rel::Job;
using rel::Slot;

// What one call reported: its status and every output byte.
struct Result {
    OmkStatus status;
    std::vector<rel::Bytes> outs;
    bool operator==(const Result& o) const { return status == o.status && outs == o.outs; }
};

Result runOnce(const Job& j) {
    Slot s;
    s.prepare(j);
    const OmkStatus st = s.call(j);
    return {st, s.outs};
}

// The teams recorded since the last reset: the team sizes reported, and the distinct threads that
// asked for their number and the numbers they were given.
struct Teams {
    std::vector<int> sizes;
    std::set<long> threads;
    std::set<int> numbers;
    size_t numberAsks = 0;
};
void startRecording() {
    gRecordCount = 0;
    gRecording = true;
}
Teams stopRecording() {
    gRecording = false;
    Teams t;
    const int n = std::min(gRecordCount.load(), kMaxRecords);
    for (int i = 0; i < n; ++i) {
        if (gRecords[i].isSize) {
            t.sizes.push_back(gRecords[i].value);
            continue;
        }
        ++t.numberAsks;
        t.threads.insert(gRecords[i].tid);
        t.numbers.insert(gRecords[i].value);
    }
    return t;
}

// Sets the library's budget for a test and returns to the default afterwards.
class Threads : public ::testing::Test {
protected:
    void SetUp() override { savedOmp_ = omp_get_max_threads(); }
    void TearDown() override {
        omkSetNumThreads(0);
        omp_set_num_threads(savedOmp_);
        gFailAlloc = false;
        gRecording = false;
    }
    static void budget(int n) { ASSERT_EQ(omkSetNumThreads(n), omkStsOk); }

    // Serial results of every job (budget 1).
    static std::vector<Result> serialResults(const std::vector<Job>& jobs) {
        omkSetNumThreads(1);
        std::vector<Result> r;
        for (const Job& j : jobs) r.push_back(runOnce(j));
        return r;
    }
    int savedOmp_ = 1;
};

size_t scratchJobs(const std::vector<Job>& jobs) {
    return size_t(std::count_if(jobs.begin(), jobs.end(), [](const Job& j) { return j.scratchPerThread > 0; }));
}

// Lets a group of threads start a step together.
class StartLine {
public:
    explicit StartLine(int n) : n_(n) {}
    void wait() {
        std::unique_lock<std::mutex> lock(mu_);
        const long gen = generation_;
        if (++waiting_ == n_) {
            waiting_ = 0;
            ++generation_;
            cv_.notify_all();
        } else {
            cv_.wait(lock, [&] { return generation_ != gen; });
        }
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    int n_, waiting_ = 0;
    long generation_ = 0;
};

// Eight threads run every job at once on their own outputs and buffers: first all of them the same
// job together (so that one family's code runs on many threads at the same time), then each in its
// own order. Each result has the serial bits, every call of a scratch family took and returned one
// block, and the calls ran on teams of the budget.
TEST_F(Threads, EightCallersAtOnceGetTheSerialBits) {
    const std::vector<Job> jobs = rel::makeJobs(rel::Scale::Parallel);
    const std::vector<Result> serial = serialResults(jobs);
    for (size_t i = 0; i < jobs.size(); ++i) ASSERT_EQ(serial[i].status, omkStsOk) << jobs[i].name;

    for (int b : {2, 3}) {
        budget(b);
        constexpr int kCallers = 8, kTogether = 3, kRounds = 2;
        std::vector<std::vector<std::string>> mismatches(kCallers);
        gAllocCalls = 0;
        gFreeCalls = 0;
        startRecording();
        StartLine line(kCallers);
        std::vector<std::thread> callers;
        for (int t = 0; t < kCallers; ++t)
            callers.emplace_back([&, t] {
                for (size_t k = 0; k < jobs.size(); ++k)
                    for (int rep = 0; rep < kTogether; ++rep) {
                        line.wait();
                        if (!(runOnce(jobs[k]) == serial[k])) mismatches[t].push_back(jobs[k].name);
                    }
                for (int round = 0; round < kRounds; ++round)
                    for (size_t i = 0; i < jobs.size(); ++i) {
                        const size_t k = (i + size_t(t) * 3 + size_t(round)) % jobs.size();
                        if (!(runOnce(jobs[k]) == serial[k])) mismatches[t].push_back(jobs[k].name);
                    }
            });
        for (std::thread& c : callers) c.join();
        const Teams teams = stopRecording();

        for (int t = 0; t < kCallers; ++t)
            for (const std::string& name : mismatches[t])
                ADD_FAILURE() << name << ": caller " << t << " with budget " << b << " differs from the serial run";
        const int calls = kCallers * (kTogether + kRounds) * int(scratchJobs(jobs));
        EXPECT_EQ(gAllocCalls.load(), calls) << "budget " << b;
        EXPECT_EQ(gFreeCalls.load(), calls) << "budget " << b;
        ASSERT_FALSE(teams.sizes.empty()) << "the driver never asked the runtime for the size of its team";
        for (int size : teams.sizes) ASSERT_EQ(size, b);
        EXPECT_EQ(teams.numbers.size(), size_t(b));
        EXPECT_GT(teams.threads.size(), size_t(kCallers)) << "the callers' teams had no threads of their own";
    }
}

// From inside the caller's parallel region every call runs on a team of one (the runtime declines
// a nested team) and gives the serial bits.
TEST_F(Threads, CallsInsideACallersParallelRegionRunOnATeamOfOne) {
    const std::vector<Job> jobs = rel::makeJobs(rel::Scale::Parallel, 11);
    const std::vector<Result> serial = serialResults(jobs);
    budget(4);
    // One active level, the runtime's default: a region inside the caller's region gets one thread.
    const int savedLevels = omp_get_max_active_levels();
    omp_set_max_active_levels(1);
    std::vector<std::vector<std::string>> mismatches(3);
    std::vector<int> inParallel(3, 0);
    startRecording();
    // The outer threads' own numbers come from the runtime directly, past the record.
    static const auto outerNumber = realEntry<int (*)()>("omp_get_thread_num");
#pragma omp parallel num_threads(3)
    {
        const int t = outerNumber();
        inParallel[t] = omp_in_parallel();
        for (size_t i = 0; i < jobs.size(); ++i) {
            const size_t k = (i + size_t(t) * 5) % jobs.size();
            if (!(runOnce(jobs[k]) == serial[k])) mismatches[t].push_back(jobs[k].name);
        }
    }
    const Teams teams = stopRecording();
    omp_set_max_active_levels(savedLevels);
    for (int t = 0; t < 3; ++t) {
        EXPECT_EQ(inParallel[t], 1);
        for (const std::string& name : mismatches[t]) ADD_FAILURE() << name << ": outer thread " << t;
    }
    // Every job but the fixed-size graphics helpers goes to the driver: each call ran on a team of
    // one, whose only thread is number 0.
    EXPECT_EQ(teams.sizes.size(), 3 * (jobs.size() - 1)) << "calls that did not ask for their team size";
    for (int size : teams.sizes) EXPECT_EQ(size, 1);
    EXPECT_EQ(teams.numbers, std::set<int>{0});
    EXPECT_EQ(teams.numberAsks, 3 * (jobs.size() - 1));
    EXPECT_LE(teams.threads.size(), 3u);
}

// A budget set between two calls decides the team of the next call: its size, the threads that
// run it, and the scratch block sized for it; a budget of one opens no region at all. Returning to
// the default (0) follows omp_set_num_threads.
TEST_F(Threads, ABudgetChangeTakesEffectAtTheNextCall) {
    const std::vector<Job> jobs = rel::makeJobs(rel::Scale::Parallel, 5);
    const std::vector<Result> serial = serialResults(jobs);
    auto find = [&](const std::string& name) {
        for (size_t i = 0; i < jobs.size(); ++i)
            if (jobs[i].name == name) return i;
        ADD_FAILURE() << name;
        return size_t(0);
    };
    const size_t add = find("Add_mama_32f"), det = find("Det_ma_32f");
    const size_t per = jobs[det].scratchPerThread;
    struct Step {
        int set;           // omkSetNumThreads argument
        int ompThreads;    // omp_set_num_threads before it (0: leave)
        int team;          // team expected
    };
    const Step steps[] = {{2, 0, 2}, {3, 0, 3}, {1, 0, 1}, {4, 0, 4}, {2, 0, 2}, {0, 3, 3}, {0, 2, 2}, {1, 0, 1}, {3, 0, 3}};
    for (const Step& s : steps) {
        if (s.ompThreads) omp_set_num_threads(s.ompThreads);
        budget(s.set);
        for (size_t k : {add, det}) {
            gAllocCalls = 0;
            startRecording();
            const Result r = runOnce(jobs[k]);
            const Teams teams = stopRecording();
            EXPECT_TRUE(r == serial[k]) << jobs[k].name << " team " << s.team;
            if (s.team == 1) {
                EXPECT_TRUE(teams.sizes.empty() && teams.numberAsks == 0) << jobs[k].name << ": a budget of one opened a region";
                EXPECT_EQ(gAllocCalls.load(), 0);
                continue;
            }
            ASSERT_FALSE(teams.sizes.empty()) << jobs[k].name << ": the driver never asked for its team size";
            for (int size : teams.sizes) EXPECT_EQ(size, s.team) << jobs[k].name;
            EXPECT_EQ(teams.threads.size(), size_t(s.team)) << jobs[k].name;
            EXPECT_EQ(teams.numbers.size(), size_t(s.team)) << jobs[k].name;
            if (k == det) {
                EXPECT_EQ(gAllocCalls.load(), 1);
                // Work space for each member of the team (each part may be padded to whole cache lines).
                EXPECT_GE(gLastAllocBytes.load(), size_t(s.team) * per) << "scratch for a team of " << s.team;
                EXPECT_LT(gLastAllocBytes.load(), size_t(s.team) * (per + 64)) << "scratch for a team of " << s.team;
            }
        }
    }
}

// Every array job of the workload is above its serial limit: each call opens one team of the
// budget (the fixed-size graphics helpers open none).
TEST_F(Threads, EveryArrayJobRunsOnATeamOfTheBudget) {
    const std::vector<Job> jobs = rel::makeJobs(rel::Scale::Parallel, 17);
    budget(4);
    for (const Job& j : jobs) {
        startRecording();
        const Result r = runOnce(j);
        const Teams teams = stopRecording();
        EXPECT_EQ(r.status, omkStsOk) << j.name;
        const size_t want = j.name == "graphics fixed-size helpers" ? 0 : 4;
        EXPECT_EQ(teams.threads.size(), want) << j.name;
        EXPECT_EQ(teams.numbers.size(), want) << j.name;
        EXPECT_EQ(teams.sizes.empty(), want == 0) << j.name << ": team size not asked";
        for (int size : teams.sizes) EXPECT_EQ(size, 4) << j.name;
    }
}

// When the per-thread scratch block cannot be had, a parallel call of every scratch family still
// returns the serial status and bits (it runs serially in the caller's buffer).
TEST_F(Threads, AParallelCallWithoutItsScratchStillGetsTheSerialResult) {
    const std::vector<Job> jobs = rel::makeJobs(rel::Scale::Parallel, 13);
    const std::vector<Result> serial = serialResults(jobs);
    budget(3);
    gFailAlloc = true;
    size_t tried = 0;
    for (size_t i = 0; i < jobs.size(); ++i) {
        gAllocCalls = 0;
        gAllocFailed = 0;
        gFreeCalls = 0;
        const Result r = runOnce(jobs[i]);
        EXPECT_TRUE(r == serial[i]) << jobs[i].name << " without scratch: status " << r.status;
        if (jobs[i].scratchPerThread == 0) {
            EXPECT_EQ(gAllocCalls.load(), 0) << jobs[i].name;
            continue;
        }
        ++tried;
        EXPECT_EQ(gAllocFailed.load(), 1) << jobs[i].name << " did not ask for its scratch";
    }
    EXPECT_EQ(tried, scratchJobs(jobs));
    EXPECT_GE(tried, 10u);
}

}  // namespace
