// Thread budget of the omkm libraries.
//
// A process-wide fixed count set by omkSetNumThreads is the budget as it is. With no fixed count
// the budget is omp_get_max_threads() (read on every call, so OMP_NUM_THREADS and
// omp_set_num_threads take effect), at most the processors this process may use that other
// processes leave free. A team larger than the free processors waits at its closing barrier until
// a thread that shares a busy processor gets a time slice, milliseconds on a loaded machine, where
// a smaller team finishes in microseconds; the free count keeps the team to what can run at once.
//
// The free count is sampled at most every 50 ms, by whichever caller first finds it stale (it
// claims the sample with one compare-and-swap, so there is no lock for a fork to leave held); every
// other read is two atomic loads and a coarse clock read.
#include "omkcore.h"

#include <fcntl.h>
#include <omp.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "core/cpu_load.h"

namespace {

// 0 = follow the OpenMP runtime and the free processors; n >= 1 = fixed at n threads.
std::atomic<int> fixed{0};

constexpr int64_t kSampleIntervalNs = 50'000'000;

std::atomic<int64_t> lastSampleNs{0};   // monotonic time of the last sample
std::atomic<int> freeLimit{1 << 30};    // the free processors at the last sample
std::atomic<int> taken{0};              // processors taken by others, with its hysteresis
// The previous sample, written only by the caller that claimed the sample.
std::atomic<uint64_t> prevBusy{0}, prevTotal{0};
std::atomic<int64_t> prevOwnNs{0};
std::atomic<int> prevCpus{-1};

int64_t clockNs(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return int64_t(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

// Sums the allowed processors' ticks from /proc/stat; false when it cannot be read.
bool readTicks(const cpu_set_t& allowed, omk::core::CpuTicks& out) {
    const int fd = open("/proc/stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    omk::core::StatReader reader(allowed);
    char piece[4096];
    ssize_t n = 0;
    while (!reader.done() && (n = read(fd, piece, sizeof piece)) > 0) reader.feed(piece, size_t(n));
    close(fd);
    out = reader.ticks();
    return out.cpus > 0;
}

void sample() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
    const int cpus = CPU_COUNT(&allowed);
    omk::core::CpuTicks now;
    const int64_t ownNs = clockNs(CLOCK_PROCESS_CPUTIME_ID);
    if (!readTicks(allowed, now) || now.cpus != cpus) {
        // No processor lines to go by: the allowed processors are the limit.
        prevCpus.store(-1, std::memory_order_relaxed);
        taken.store(0, std::memory_order_relaxed);
        freeLimit.store(cpus, std::memory_order_relaxed);
        return;
    }
    int k = 0;
    const uint64_t total0 = prevTotal.load(std::memory_order_relaxed);
    // Only a window over the same processors counts; a changed affinity starts a new one. A window
    // in which no tick passed keeps its start and the count before.
    if (prevCpus.load(std::memory_order_relaxed) == cpus) {
        k = taken.load(std::memory_order_relaxed);
        if (now.total <= total0) return;
        static const double nsPerTick = 1e9 / double(sysconf(_SC_CLK_TCK));
        const double window = double(now.total - total0) / cpus;  // ticks per processor
        const double busy = double(now.busy - prevBusy.load(std::memory_order_relaxed));
        const double own = double(ownNs - prevOwnNs.load(std::memory_order_relaxed)) / nsPerTick;
        // Counters that went backwards (a processor taken offline and back) give a share past
        // every processor; it is held at the allowed count.
        k = omk::core::processorsTaken(std::min((busy - own) / window, double(cpus)), k);
    }
    prevBusy.store(now.busy, std::memory_order_relaxed);
    prevTotal.store(now.total, std::memory_order_relaxed);
    prevOwnNs.store(ownNs, std::memory_order_relaxed);
    prevCpus.store(cpus, std::memory_order_relaxed);
    taken.store(k, std::memory_order_relaxed);
    freeLimit.store(omk::core::budgetFor(1 << 30, cpus, k), std::memory_order_relaxed);
}

int freeProcessors() {
    const int64_t now = clockNs(CLOCK_MONOTONIC_COARSE);
    int64_t last = lastSampleNs.load(std::memory_order_relaxed);
    if (now - last >= kSampleIntervalNs &&
        lastSampleNs.compare_exchange_strong(last, now, std::memory_order_acq_rel))
        sample();
    return freeLimit.load(std::memory_order_relaxed);
}

// Both exported readers call this function directly rather than one calling the other through
// the dynamic symbol table, so an executable that defines its own ownGetNumThreads does not
// change what omkGetNumThreads reports.
int currentBudget() {
    const int n = fixed.load(std::memory_order_relaxed);
    if (n > 0) return n;
    const int max = omp_get_max_threads();
    return max < 2 ? max : omk::core::budgetFor(max, freeProcessors(), 0);
}

}  // namespace

extern "C" OMKCORE_API int ownGetNumThreads(void) { return currentBudget(); }

extern "C" OMKCORE_API OmkStatus omkSetNumThreads(int numThreads) {
    if (numThreads < 0) return omkStsBadSize;
    fixed.store(numThreads, std::memory_order_relaxed);
    return omkStsOk;
}

extern "C" OMKCORE_API OmkStatus omkGetNumThreads(int* pNumThreads) {
    if (pNumThreads == nullptr) return omkStsNullPtr;
    *pNumThreads = currentBudget();
    return omkStsOk;
}
