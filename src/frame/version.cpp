// The version record and the flag set when the library is loaded.
#include "omkcore.h"
#include "omkm.h"

namespace {

constexpr OmkLibraryVersion kVersion = {
    7, 1, 1, 37466, {'z', '3', '\0', '\0'}, "omkm AVX2 (z3)", "7.1.1 (r37466)", "Sep 24 2012",
};

}  // namespace

namespace omk {

// 1 when the processor reports both AVX2 and FMA, else 0. Set once at load; nothing reads it yet,
// and the library loads whatever it says.
int gCpuFlag = 0;

__attribute__((constructor)) static void attach() {
    const unsigned long long features = omkGetEnabledCpuFeatures();
    gCpuFlag = (features & omkCpuAVX2) && (features & omkCpuFMA) ? 1 : 0;
}

}  // namespace omk

extern "C" OMKM_API const OmkLibraryVersion* omkmGetLibVersion(void) { return &kVersion; }
