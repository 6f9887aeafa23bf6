/*
 * omkcore: the platform services of the omkm family — processor features, the largest cache
 * and the number of threads the libraries may use.
 */
#ifndef OMKCORE_H
#define OMKCORE_H

#include "omkm.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(OMKCORE_BUILDING_LIBRARY)
#  define OMKCORE_API __attribute__((visibility("default")))
#else
#  define OMKCORE_API
#endif

/* Bits of the mask returned by omkGetEnabledCpuFeatures. A bit is set when the processor has the
 * feature and, for the AVX families, the operating system saves the register state it needs. */
#define omkCpuSSE2     0x0000000000000001ULL
#define omkCpuSSE3     0x0000000000000002ULL
#define omkCpuSSSE3    0x0000000000000004ULL
#define omkCpuSSE41    0x0000000000000008ULL
#define omkCpuAVX2     0x0000000000000010ULL
#define omkCpuFMA      0x0000000000000020ULL
#define omkCpuSSE42    0x0000000000000040ULL
#define omkCpuAVX      0x0000000000000080ULL
#define omkCpuF16C     0x0000000000000100ULL
#define omkCpuBMI1     0x0000000000000200ULL
#define omkCpuBMI2     0x0000000000000400ULL
#define omkCpuPOPCNT   0x0000000000000800ULL
#define omkCpuAVX512F  0x0000000000001000ULL
#define omkCpuAVX512DQ 0x0000000000002000ULL
#define omkCpuAVX512BW 0x0000000000004000ULL
#define omkCpuAVX512VL 0x0000000000008000ULL

/* Mask of the enabled processor features (omkCpu* bits above). */
OMKCORE_API unsigned long long omkGetEnabledCpuFeatures(void);

/* Size in bytes of the largest data or unified cache into *pSizeByte; 0 when it cannot be read.
 * Returns omkStsNullPtr for a null pSizeByte, else omkStsOk. */
OMKCORE_API OmkStatus omkGetMaxCacheSizeB(int* pSizeByte);

/* Thread budget of the omkm libraries. By default it is the OpenMP runtime's maximum
 * (omp_get_max_threads, so OMP_NUM_THREADS applies), at most the processors of the process's
 * affinity mask that other processes leave free, and at least 1: how busy the processors are is
 * sampled from /proc/stat at most every 50 ms, less this process's own CPU time, so a team never
 * waits for a thread on a processor another process keeps busy. omkSetNumThreads(n) with n >= 1
 * fixes it to n whatever the load; n = 0 returns to the default; n < 0 returns omkStsBadSize and
 * changes nothing. */
OMKCORE_API OmkStatus omkSetNumThreads(int numThreads);
OMKCORE_API OmkStatus omkGetNumThreads(int* pNumThreads);

/* The budget as the libraries read it: once to decide on a parallel run, once to size its team. */
OMKCORE_API int ownGetNumThreads(void);

#ifdef __cplusplus
}
#endif

#endif /* OMKCORE_H */
