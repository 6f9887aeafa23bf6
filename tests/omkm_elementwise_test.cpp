// Transpose: the cache-size queries choosing between the banded and the large path, and the same words from both paths
// around every bound. The executable defines omkGetMaxCacheSizeB itself (exported, so libomkm.so binds to it): while a
// CacheSize override is alive it counts the library's queries and reports the test's size, else forwards to the core's.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <tuple>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "families.h"
#include "omkcore.h"

using namespace omkt;

namespace {
std::atomic<bool> gOverride{false};
std::atomic<int> gReported{0}, gQueries{0};

using CacheQuery = OmkStatus (*)(int*);
CacheQuery coreQuery() {
    static const CacheQuery real = reinterpret_cast<CacheQuery>(dlsym(RTLD_NEXT, "omkGetMaxCacheSizeB"));
    return real;
}
}  // namespace

extern "C" __attribute__((visibility("default"))) OmkStatus omkGetMaxCacheSizeB(int* pSizeByte) {
    if (!gOverride.load()) {
        if (coreQuery() == nullptr) std::fprintf(stderr, "omkGetMaxCacheSizeB: no core library\n"), std::abort();
        return coreQuery()(pSizeByte);
    }
    gQueries.fetch_add(1);
    if (pSizeByte == nullptr) return omkStsNullPtr;
    *pSizeByte = gReported.load();
    return omkStsOk;
}

namespace {

// Reports `size` as the largest cache for one scope and counts the queries made in it.
struct CacheSize {
    explicit CacheSize(int size) { gReported = size, gQueries = 0, gOverride = true; }
    ~CacheSize() { gOverride = false; }
};

// Only 32-bit contiguous non-_P calls ask. Arrays whose traffic 8*w*h*count bytes passes 0x20000 ask once and are large
// past three quarters of a non-zero size; then each object with smaller side >= 129 asks, unless the call is large.
int expectedQueries(const Call& c, int size) {
    const int w = c.size("width"), h = c.size("height");
    if (c.esize != 4 || c.name.desc == "P" || !contiguous(c)) return 0;
    int q = 0;
    bool large = false;
    const int64_t traffic = int64_t(8) * w * h * c.count;
    if (c.name.array() && traffic > 0x20000) {
        ++q;
        large = size != 0 && traffic > size - size / 4;
    }
    return q + (!large && std::min(w, h) >= 129 ? c.count : 0);
}

// The smallest size whose three quarters reach `traffic`.
int threeQuartersBound(int64_t traffic) {
    int s = int(traffic);
    while (s - s / 4 < traffic) ++s;
    return s;
}

}  // namespace

// Sizes at, below and above the 64-row bands and the 129 threshold, traffic around 0x20000 bytes, reported sizes none
// (the core's), 0, 1, near 8*w*h and the three-quarter bound: queries follow the rules, all paths give the same words.
TEST(Transpose, CacheQueriesAndBandsAroundEveryBound) {
    const Family& moves = *familyOf(parseName("omkmTranspose_ma_32f"));
    const std::vector<std::tuple<int, int, int>> shapes = {
        {70, 130, 2}, {130, 70, 1}, {200, 129, 2}, {129, 129, 1}, {129, 129, 2}, {1, 200, 1}, {64, 65, 4},
        {65, 64, 1},  {128, 128, 1}, {128, 129, 1}, {1, 4097, 4}, {64, 64, 4}, {129, 200, 3}};
    std::mt19937 rng(3);
    for (const char* name : {"omkmTranspose_ma_32f", "omkmTranspose_ma_32f_L", "omkmTranspose_m_32f",
                             "omkmTranspose_ma_64f", "omkmTranspose_ma_32f_P"})
        for (auto [w, h, count] : shapes)
            for (const auto& layout : {std::vector<Style>{kPacked}, std::vector<Style>{kPadded},
                                       std::vector<Style>{kGapped, kPacked}, std::vector<Style>{kPacked, kGapped}}) {
                if (count > 1 && !parseName(name).array()) continue;
                Shape s;
                s.sizes = {{"width", w}, {"height", h}};
                s.count = count;
                s.styles = layout;
                Call c = prepared(moves, *findExport(name), s, rng);
                expectSerial(moves, c);
                const Bytes inputs = c.arena.bytes;
                const int64_t traffic = int64_t(8) * w * h * count, bound = threeQuartersBound(traffic);
                for (int64_t size : {int64_t(-1), int64_t(0), int64_t(1), int64_t(8) * w * h - 1,
                                     int64_t(8) * w * h, bound - 1, bound, int64_t(INT_MAX)}) {
                    c.arena.bytes = inputs;
                    if (size < 0) {
                        ASSERT_EQ(c.run(), omkStsOk);
                    } else {
                        const CacheSize cache{int(size)};
                        ASSERT_EQ(c.run(), omkStsOk);
                        ASSERT_EQ(gQueries.load(), expectedQueries(c, int(size)))
                            << name << " " << w << "x" << h << " count " << count << " size " << size;
                    }
                    const std::string diff = firstDifference(c);
                    ASSERT_TRUE(diff.empty()) << diff << " with size " << size;
                }
            }
}
