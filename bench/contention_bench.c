/* Parallel calls on a busy machine: microseconds per call (median, 90th percentile, maximum) of a
 * few array calls above their serial limits, on a budget of 1, on a budget fixed at the processor
 * count (what the default was when it followed omp_get_max_threads alone) and on the default, in
 * four settings:
 *
 *   quiet     nothing else runs;
 *   one-busy  one spinning process this program starts;
 *   all-busy  one spinning process per processor this process may use;
 *   pool      one worker process per processor, all calling at once (the calls of every worker
 *             are pooled for the figures).
 *
 * The spinning processes and workers are children of this program: each has an alarm that ends it
 * after a minute at most and dies with its parent, and each setting kills and reaps them before
 * the next starts. Before its timed calls every measurement calls for --settle milliseconds (300),
 * so that the runtime's threads are up and the library's default budget has seen the load; between
 * timed calls the caller computes for --gap microseconds (200). Calls on the default and on the
 * fixed budget each alternate with calls on a budget of 1.
 *
 *   omkm_contention [--calls N] [--settle MS] [--gap US] [--only SETTING,...]
 *
 * prints one JSON object per line: {"setting", "workload", "budget", "median_us", "p90_us",
 * "max_us", "calls"}; budget is "1", "fixed" or "default". The OpenMP runtime's own environment
 * (OMP_WAIT_POLICY, OMP_DYNAMIC, ...) applies as it would to any program. */
#define _GNU_SOURCE
#include <sched.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "omkcore.h"
#include "omkm.h"

enum { kAddCount = 20000, kMulCount = 10000, kLuCount = 5000, kEigCount = 1000, kMaxWorkers = 256 };

static float* addA;
static float* addB;
static float* addC;
static double* luSrc;
static double* luDst;
static int* luIndex;
static double* eigSrc;
static double* eigVectors;
static double* eigValues;
static double eigBuffer[64];

static OmkStatus runAdd(void) {
    return omkmAdd_mama_32f(addA, 64, 16, 4, addB, 64, 16, 4, addC, 64, 16, 4, 4, 4, kAddCount);
}
static OmkStatus runMul(void) {
    return omkmMul_mama_32f(addA, 64, 16, 4, 4, 4, addB, 64, 16, 4, 4, 4, addC, 64, 16, 4, kMulCount);
}
static OmkStatus runLu(void) {
    return omkmLUDecomp_ma_64f(luSrc, 128, 32, 8, luIndex, luDst, 128, 32, 8, 4, kLuCount);
}
static OmkStatus runEig(void) {
    return omkmEigenValuesVectorsSym_ma_64f(eigSrc, 72, 24, 8, eigBuffer, eigVectors, 72, 24, 8, eigValues, 3,
                                            kEigCount);
}

static const struct {
    const char* name;
    OmkStatus (*run)(void);
} kWorkloads[] = {
    {"Add_mama_32f 4x4, 20000", runAdd},
    {"Mul_mama_32f 4x4, 10000", runMul},
    {"LUDecomp_ma_64f 4x4, 5000", runLu},
    {"EigenValuesVectorsSym_ma_64f 3x3, 1000", runEig},
};
enum { kWorkloadCount = sizeof kWorkloads / sizeof kWorkloads[0] };

static void* grab(size_t bytes) {
    void* p = malloc(bytes);
    if (p == NULL) {
        perror("omkm_contention: malloc");
        exit(1);
    }
    return p;
}

static void fillOperands(void) {
    addA = grab(sizeof(float) * 16 * kAddCount);
    addB = grab(sizeof(float) * 16 * kAddCount);
    addC = grab(sizeof(float) * 16 * kAddCount);
    for (int i = 0; i < 16 * kAddCount; ++i) {
        addA[i] = (float)(i % 7) * 0.25f;
        addB[i] = (float)(i % 5) * 0.5f;
    }
    luSrc = grab(sizeof(double) * 16 * kLuCount);
    luDst = grab(sizeof(double) * 16 * kLuCount);
    luIndex = grab(sizeof(int) * 4 * kLuCount);
    for (int i = 0; i < 16 * kLuCount; ++i) luSrc[i] = (i % 5 == 0) ? 8.0 : (double)(i % 3) * 0.5;
    eigSrc = grab(sizeof(double) * 9 * kEigCount);
    eigVectors = grab(sizeof(double) * 9 * kEigCount);
    eigValues = grab(sizeof(double) * 3 * kEigCount);
    for (int k = 0; k < kEigCount; ++k)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) eigSrc[9 * k + 3 * r + c] = r == c ? 4.0 + r : 0.5 + 0.125 * (r + c + k % 3);
}

static double nowUs(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec * 1e6 + (double)t.tv_nsec * 1e-3;
}

static void callOrDie(int w) {
    const OmkStatus st = kWorkloads[w].run();
    if (st != omkStsOk) {
        fprintf(stderr, "omkm_contention: %s returned %d\n", kWorkloads[w].name, (int)st);
        exit(1);
    }
}

/* The budgets: 1, fixed at the processor count, the default (omkSetNumThreads(0)). Calls on the
 * default alternate with calls on a budget of 1, so that the two see the same moments of the
 * machine; calls on the fixed budget, whose waits would spill onto the default's, alternate with
 * calls on a budget of 1 in a block of their own (whose budget-1 figures are not reported). */
static const char* const kBudgets[] = {"1", "fixed", "default"};
static const int kBlocks[2][2] = {{0, 2}, {0, 1}};

static void setBudget(int b, int cpus) {
    omkSetNumThreads(b == 0 ? 1 : b == 1 ? cpus : 0);
}

static void callFor(int w, int block, int cpus, double ms) {
    const double end = nowUs() + ms * 1e3;
    do
        for (int j = 0; j < 2; ++j) {
            setBudget(kBlocks[block][j], cpus);
            callOrDie(w);
        }
    while (nowUs() < end);
}

/* Between two timed calls the calling thread does work of its own for gapUs, as a program does
 * between its calls, so that the timed calls spread over many of the scheduler's time slices.
 * out[j] receives the calls on the block's budget j. */
static double gapUs = 200;

static void timeCalls(int w, int block, int cpus, int calls, double* const* out) {
    for (int i = 0; i < calls; ++i)
        for (int j = 0; j < 2; ++j) {
            setBudget(kBlocks[block][j], cpus);
            const double t0 = nowUs();
            callOrDie(w);
            const double t1 = nowUs();
            out[j][i] = t1 - t0;
            while (nowUs() < t1 + gapUs) {
            }
        }
}

static int processors(void) {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    return CPU_COUNT(&set);
}

/* A child that lives at most a minute and dies with this process. */
static pid_t startChild(void) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        perror("omkm_contention: fork");
        exit(1);
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        alarm(60);
    }
    return pid;
}

static pid_t startSpinner(void) {
    const pid_t pid = startChild();
    if (pid == 0) {
        volatile unsigned long spin = 0;
        for (;;) ++spin;
    }
    return pid;
}

static void stopChildren(const pid_t* pids, int n) {
    for (int i = 0; i < n; ++i) kill(pids[i], SIGKILL);
    for (int i = 0; i < n; ++i) waitpid(pids[i], NULL, 0);
}

static int compareDoubles(const void* a, const void* b) {
    const double x = *(const double*)a, y = *(const double*)b;
    return (x > y) - (x < y);
}

static void report(const char* setting, int w, const char* budget, double* t, int n) {
    qsort(t, (size_t)n, sizeof *t, compareDoubles);
    const int p90 = (9 * n + 9) / 10 - 1;
    printf("{\"setting\": \"%s\", \"workload\": \"%s\", \"budget\": \"%s\", \"median_us\": %.1f, "
           "\"p90_us\": %.1f, \"max_us\": %.1f, \"calls\": %d}\n",
           setting, kWorkloads[w].name, budget, (t[(n - 1) / 2] + t[n / 2]) / 2, t[p90], t[n - 1], n);
    fflush(stdout);
}

/* The calling process alone, with `spinners` busy processes beside it. */
static void measureBeside(const char* setting, int spinners, int calls, double settleMs, int cpus) {
    pid_t pids[kMaxWorkers];
    for (int i = 0; i < spinners; ++i) pids[i] = startSpinner();
    double* t[2] = {grab(sizeof(double) * (size_t)calls), grab(sizeof(double) * (size_t)calls)};
    for (int w = 0; w < kWorkloadCount; ++w)
        for (int block = 0; block < 2; ++block) {
            callFor(w, block, cpus, settleMs);
            timeCalls(w, block, cpus, calls, t);
            for (int j = block; j < 2; ++j) report(setting, w, kBudgets[kBlocks[block][j]], t[j], calls);
        }
    free(t[0]);
    free(t[1]);
    stopChildren(pids, spinners);
}

/* One worker per processor; they meet in shared memory after settling (calling all the while) and
 * then time their calls at once. */
static void measurePool(int calls, double settleMs, int cpus) {
    const int workers = cpus < kMaxWorkers ? cpus : kMaxWorkers;
    const size_t perBudget = (size_t)workers * (size_t)calls;
    const size_t bytes = sizeof(atomic_int) * 2 + sizeof(double) * 2 * perBudget;
    void* shared = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        perror("omkm_contention: mmap");
        exit(1);
    }
    atomic_int* ready = (atomic_int*)shared;
    double* times = (double*)((char*)shared + sizeof(atomic_int) * 2);
    for (int w = 0; w < kWorkloadCount; ++w)
        for (int block = 0; block < 2; ++block) {
            atomic_store(ready, 0);
            pid_t pids[kMaxWorkers];
            for (int k = 0; k < workers; ++k) {
                pids[k] = startChild();
                if (pids[k] == 0) {
                    callFor(w, block, cpus, settleMs);
                    atomic_fetch_add(ready, 1);
                    while (atomic_load(ready) < workers) callFor(w, block, cpus, 0);
                    double* const out[2] = {times + (size_t)k * (size_t)calls,
                                            times + perBudget + (size_t)k * (size_t)calls};
                    timeCalls(w, block, cpus, calls, out);
                    _exit(0);
                }
            }
            int failed = 0;
            for (int k = 0; k < workers; ++k) {
                int status = 0;
                waitpid(pids[k], &status, 0);
                failed |= !WIFEXITED(status) || WEXITSTATUS(status) != 0;
            }
            if (failed) {
                fprintf(stderr, "omkm_contention: a pool worker failed\n");
                exit(1);
            }
            for (int j = block; j < 2; ++j)
                report("pool", w, kBudgets[kBlocks[block][j]], times + (size_t)j * perBudget, (int)perBudget);
        }
    munmap(shared, bytes);
}

/* Whether `setting` is in the comma-separated list `only` (every setting without one). */
static int wanted(const char* only, const char* setting) {
    if (only == NULL) return 1;
    const size_t n = strlen(setting);
    for (const char* p = only; (p = strstr(p, setting)) != NULL; p += n)
        if ((p == only || p[-1] == ',') && (p[n] == '\0' || p[n] == ',')) return 1;
    return 0;
}

int main(int argc, char** argv) {
    int calls = 200;
    double settleMs = 300;
    const char* only = NULL;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--calls") && i + 1 < argc)
            calls = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--settle") && i + 1 < argc)
            settleMs = atof(argv[++i]);
        else if (!strcmp(argv[i], "--gap") && i + 1 < argc)
            gapUs = atof(argv[++i]);
        else if (!strcmp(argv[i], "--only") && i + 1 < argc)
            only = argv[++i];
        else {
            fprintf(stderr, "usage: %s [--calls N] [--settle MS] [--gap US] [--only SETTING,...]\n", argv[0]);
            return 2;
        }
    }
    if (calls < 1) calls = 1;
    const int cpus = processors();
    fillOperands();
    /* The pool first: its workers are forked before this process has started an OpenMP team,
     * which libgomp does not carry across fork. */
    if (wanted(only, "pool")) measurePool(calls, settleMs, cpus);
    if (wanted(only, "quiet")) measureBeside("quiet", 0, calls, settleMs, cpus);
    if (wanted(only, "one-busy")) measureBeside("one-busy", 1, calls, settleMs, cpus);
    if (wanted(only, "all-busy"))
        measureBeside("all-busy", cpus < kMaxWorkers ? cpus : kMaxWorkers, calls, settleMs, cpus);
    return 0;
}
