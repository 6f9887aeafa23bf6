// The test executable's ownGetNumThreads (libomkm.so binds to it): tests set the library's budget and count its asks.
#include "thread_budget_probe.h"

#include <atomic>

namespace {
std::atomic<int> gBudget{1};
std::atomic<int> gCalls{0};
}  // namespace

extern "C" __attribute__((visibility("default"))) int ownGetNumThreads(void) {
    gCalls.fetch_add(1, std::memory_order_relaxed);
    return gBudget.load(std::memory_order_relaxed);
}

namespace probe {
void setBudget(int n) { gBudget = n; }
int budget() { return gBudget; }
int calls() { return gCalls; }
void resetCalls() { gCalls = 0; }
}  // namespace probe
