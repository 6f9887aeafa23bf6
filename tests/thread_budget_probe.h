// Control of the thread budget the library sees in the test executable (omkm_thread_budget.cpp).
#pragma once

namespace probe {
void setBudget(int n);
int budget();
int calls();       // ownGetNumThreads calls since the last resetCalls
void resetCalls();

// Sets a budget for one scope and restores the previous one.
struct Budget {
    explicit Budget(int n) : saved(budget()) { setBudget(n); resetCalls(); }
    ~Budget() { setBudget(saved); }
    int saved;
};
}  // namespace probe
