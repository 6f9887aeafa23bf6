// Transpose: every member in every description and both element types, word for word on raw bit
// patterns, its check order, the banded kernels on both sides of the band height, and the cache
// queries that decide between the ordinary and the large path.
//
// The executable defines omkGetMaxCacheSizeB itself (exported, so that libomkm.so binds to it):
// while a CacheSize override is alive it counts the library's queries and reports the size the
// test chose; otherwise it forwards to the core library's own function.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "move_cases.h"
#include "omkcore.h"

using namespace testing_omk;
using namespace testing_omk::mv;

namespace {
std::atomic<bool> gOverride{false};
std::atomic<int> gReported{0};
std::atomic<int> gQueries{0};

using CacheQuery = OmkStatus (*)(int*);
CacheQuery coreQuery() {
    static const CacheQuery real = reinterpret_cast<CacheQuery>(dlsym(RTLD_NEXT, "omkGetMaxCacheSizeB"));
    return real;
}
}  // namespace

extern "C" __attribute__((visibility("default"))) OmkStatus omkGetMaxCacheSizeB(int* pSizeByte) {
    if (!gOverride.load()) {
        const CacheQuery real = coreQuery();
        if (real == nullptr) {
            std::fprintf(stderr, "omkGetMaxCacheSizeB: the core library's function was not found\n");
            std::abort();
        }
        return real(pSizeByte);
    }
    gQueries.fetch_add(1);
    if (pSizeByte == nullptr) return omkStsNullPtr;
    *pSizeByte = gReported.load();
    return omkStsOk;
}

namespace {

// Reports `size` as the largest cache for one scope and counts the queries made in it.
struct CacheSize {
    explicit CacheSize(int size) {
        gReported = size;
        gQueries = 0;
        gOverride = true;
    }
    ~CacheSize() { gOverride = false; }
    int queries() const { return gQueries.load(); }
};

const std::vector<MoveMember>& members() {
    static const std::vector<MoveMember> all = {
        MV_MEMBER(omkmTranspose_m_32f) MV_MEMBER(omkmTranspose_m_32f_P) MV_MEMBER(omkmTranspose_m_64f)
        MV_MEMBER(omkmTranspose_m_64f_P) MV_MEMBER(omkmTranspose_ma_32f) MV_MEMBER(omkmTranspose_ma_32f_L)
        MV_MEMBER(omkmTranspose_ma_32f_P) MV_MEMBER(omkmTranspose_ma_64f) MV_MEMBER(omkmTranspose_ma_64f_L)
        MV_MEMBER(omkmTranspose_ma_64f_P)};
    return all;
}

const MoveMember& member(const std::string& name) { return named(members(), name); }

// Single matrices: null, sizes, strides (or ROI shifts). Arrays: null, count, sizes, strides, ROI shifts.
std::string orderOf(const MoveMember& m) {
    if (!m.array) return m.src == 'P' ? "NSR" : "NST";
    return m.src == 'S' ? "NCST" : "NCSTR";
}

// Queries a 32-bit transpose with contiguous elements makes: arrays measure their traffic first
// and above 0x20000 bytes ask once, and mark the call large past three quarters of a non-zero
// size; then every object whose smaller side is at least 129 asks, unless the call is large.
int expectedQueries(int w, int h, int count, bool array, int size) {
    int q = 0;
    bool large = false;
    const int traffic = 8 * w * h * count;
    if (array && traffic > 0x20000) {
        ++q;
        large = size != 0 && traffic > size - size / 4;
    }
    if (!large && std::min(w, h) >= 129) q += count;
    return q;
}

// The smallest reported size whose three quarters (size - size/4) reach `traffic`: the call is not
// large at it and is large one byte below it.
int threeQuartersBound(int traffic) {
    int s = traffic;
    while (s - s / 4 < traffic) ++s;
    return s;
}

int queriesOf(const MoveMember& m, int w, int h, int count, int size, Lay sl = Lay::Packed, Lay dl = Lay::Packed) {
    Call c = makeCall(m, w, h, count, sl, dl, uint32_t(w * 1000 + h));
    CacheSize cache(size);
    EXPECT_TRUE(runExpect(c, omkStsOk, "reported cache " + std::to_string(size)));
    return cache.queries();
}

}  // namespace

TEST(Transpose, EveryMemberWritesTheTranspose) {
    for (const MoveMember& m : members()) runAllLayouts(m);
}

TEST(Transpose, CheckOrderOfEveryMember) {
    for (const MoveMember& m : members()) {
        Call c = makeCall(m, 3, 2, 2, Lay::Padded, Lay::Gapped, 21);
        walkOrder(c, orderOf(m));
    }
}

TEST(Transpose, ObjectStridesAreTestedAtCountOne) {
    for (const MoveMember& m : members())
        if (m.array && m.src != 'L') objectStridesAtCountOne(m, 3, 2);
}

TEST(Transpose, ThreeByTwoGivesThreeRowsOfTwo) {
    const float src[6] = {1, 2, 3, 4, 5, 6};  // 2 rows of 3
    float dst[9];
    std::fill(dst, dst + 9, -7.0f);
    ASSERT_EQ(omkmTranspose_m_32f(src, 12, 4, 3, 2, dst, 12, 4), omkStsOk);
    const float want[9] = {1, 4, -7, 2, 5, -7, 3, 6, -7};  // 3 rows of 2, third column untouched
    EXPECT_EQ(0, std::memcmp(dst, want, sizeof want));
}

TEST(Transpose, Fixed4x4MovesRawWordsAlsoInPlace) {
    alignas(64) uint32_t src[16], dst[16], inPlace[16];
    const std::vector<uint64_t>& special = specialWords(4);
    for (int i = 0; i < 16; ++i) src[i] = i % 2 ? uint32_t(special[i / 2 % special.size()]) : 0x3f000000u + i;
    std::memcpy(inPlace, src, sizeof src);
    ASSERT_EQ(omkmTranspose_m4_32f(reinterpret_cast<float*>(src), reinterpret_cast<float*>(dst)), omkStsOk);
    ASSERT_EQ(omkmTranspose_m4_32f(reinterpret_cast<float*>(inPlace), reinterpret_cast<float*>(inPlace)), omkStsOk);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(dst[j * 4 + i], src[i * 4 + j]) << i << "," << j;
            EXPECT_EQ(inPlace[j * 4 + i], src[i * 4 + j]) << i << "," << j;
        }
}

// Heights at, below and above the 64-row band with remainders, widths that are and are not
// multiples of 16, padded rows and bases off their line, under every kind of reported cache size:
// none (the core's own), 0, tiny (everything large), at and below 8*width*height, and huge.
TEST(Transpose, BandsAndLargePathGiveTheSameBits) {
    const std::vector<std::pair<int, int>> shapes = {{70, 130}, {130, 70}, {200, 129}, {129, 200}, {160, 129},
                                                     {129, 129}, {1, 200}, {200, 1}, {64, 65}, {65, 64},
                                                     {17, 300}, {256, 130}, {144, 193}, {64, 64}};
    const std::vector<std::pair<Lay, Lay>> lays = {{Lay::Packed, Lay::Packed}, {Lay::Padded, Lay::Padded},
                                                   {Lay::Packed, Lay::Padded}, {Lay::Gapped, Lay::Packed}};
    for (const char* name : {"omkmTranspose_ma_32f", "omkmTranspose_ma_32f_L", "omkmTranspose_m_32f",
                             "omkmTranspose_ma_64f", "omkmTranspose_m_32f_P"}) {
        const MoveMember& m = member(name);
        for (auto [w, h] : shapes)
            for (auto [sl, dl] : lays)
                for (int count : {1, 2}) {
                    if (!m.array && count > 1) continue;
                    Call c = makeCall(m, w, h, count, sl, dl, uint32_t(w * 7 + h));
                    if (!runExpect(c, omkStsOk, "core's cache size")) return;
                    for (int size : {0, 1, 8 * w * h, 8 * w * h - 1, 8 * w * h * count, INT_MAX}) {
                        CacheSize cache(size);
                        if (!runExpect(c, omkStsOk, "reported cache " + std::to_string(size))) return;
                    }
                }
    }
}

TEST(TransposeCache, TrafficUpTo0x20000BytesAsksNothing) {
    const MoveMember& m = member("omkmTranspose_ma_32f");
    EXPECT_EQ(queriesOf(m, 128, 128, 1, INT_MAX), 0);  // 8*128*128 = 0x20000
    EXPECT_EQ(queriesOf(m, 128, 129, 1, INT_MAX), 1);
    EXPECT_EQ(queriesOf(m, 129, 128, 1, 1), 1);
    EXPECT_EQ(queriesOf(m, 64, 64, 4, INT_MAX), 0);
    EXPECT_EQ(queriesOf(m, 64, 65, 4, INT_MAX), 1);
    EXPECT_EQ(queriesOf(m, 1, 4096, 4, INT_MAX), 0);
    EXPECT_EQ(queriesOf(m, 1, 4097, 4, 0), 1);
    const MoveMember& l = member("omkmTranspose_ma_32f_L");
    EXPECT_EQ(queriesOf(l, 64, 64, 4, INT_MAX, Lay::Padded, Lay::Padded), 0);
    EXPECT_EQ(queriesOf(l, 65, 64, 4, INT_MAX, Lay::Padded, Lay::Padded), 1);
}

TEST(TransposeCache, EveryObjectFrom129OnAsksUnlessTheCallIsLarge) {
    const MoveMember& m = member("omkmTranspose_ma_32f");
    EXPECT_EQ(queriesOf(m, 128, 300, 2, INT_MAX), 1);
    EXPECT_EQ(queriesOf(m, 129, 129, 1, INT_MAX), 2);
    EXPECT_EQ(queriesOf(m, 300, 129, 3, INT_MAX), 4);
    EXPECT_EQ(queriesOf(m, 129, 129, 3, 0), 4);  // no size: never large
    EXPECT_EQ(queriesOf(m, 129, 129, 3, 1), 1);  // large call: no object asks
    const MoveMember& s = member("omkmTranspose_m_32f");
    EXPECT_EQ(queriesOf(s, 128, 128, 1, INT_MAX), 0);
    EXPECT_EQ(queriesOf(s, 128, 400, 1, INT_MAX), 0);
    EXPECT_EQ(queriesOf(s, 129, 129, 1, 1), 1);
    EXPECT_EQ(queriesOf(s, 400, 129, 1, INT_MAX), 1);
    EXPECT_EQ(queriesOf(s, 129, 129, 1, INT_MAX, Lay::Padded, Lay::Padded), 1);
}

TEST(TransposeCache, ThreeQuartersOfTheSizeMarksTheCallLarge) {
    for (const char* name : {"omkmTranspose_ma_32f", "omkmTranspose_ma_32f_L"})
        for (int count : {1, 2}) {
            const MoveMember& m = member(name);
            const int bound = threeQuartersBound(8 * 129 * 129 * count);
            ASSERT_EQ(bound - bound / 4, 8 * 129 * 129 * count);
            EXPECT_EQ(queriesOf(m, 129, 129, count, bound), 1 + count) << name << " at the bound";
            EXPECT_EQ(queriesOf(m, 129, 129, count, bound + 1), 1 + count) << name << " above the bound";
            EXPECT_EQ(queriesOf(m, 129, 129, count, bound - 1), 1) << name << " below the bound";
        }
}

// A sweep of shapes, counts and sizes around every bound against the rules above.
TEST(TransposeCache, QueriesFollowTheRulesAroundEveryBound) {
    const std::vector<std::tuple<int, int, int>> shapes = {{128, 128, 1}, {128, 129, 1}, {129, 129, 1}, {129, 129, 2},
                                                           {130, 200, 2}, {64, 65, 4},   {200, 129, 3}, {129, 128, 2}};
    for (const char* name : {"omkmTranspose_ma_32f", "omkmTranspose_ma_32f_L", "omkmTranspose_m_32f"}) {
        const MoveMember& m = member(name);
        for (auto [w, h, count] : shapes) {
            if (!m.array && count > 1) continue;
            const int traffic = 8 * w * h * count, bound = threeQuartersBound(traffic);
            for (int size : {0, 1, 8 * w * h - 1, 8 * w * h, bound - 1, bound, INT_MAX})
                for (Lay lay : {Lay::Packed, Lay::Padded})
                    EXPECT_EQ(queriesOf(m, w, h, count, size, lay, lay), expectedQueries(w, h, count, m.array, size))
                        << name << " " << w << "x" << h << " count " << count << " size " << size;
        }
    }
}

TEST(TransposeCache, SixtyFourBitPointerAndStridedCallsNeverAsk) {
    for (const MoveMember& m : members()) {
        if (m.esize == 4 && m.src != 'P') continue;
        for (int size : {1, INT_MAX}) EXPECT_EQ(queriesOf(m, 200, 129, 2, size), 0) << m.name;
    }
    for (const char* name : {"omkmTranspose_ma_32f", "omkmTranspose_ma_32f_L", "omkmTranspose_m_32f"})
        for (int size : {1, INT_MAX}) {
            const MoveMember& m = member(name);
            EXPECT_EQ(queriesOf(m, 200, 129, 2, size, Lay::Gapped, Lay::Packed), 0) << name;
            EXPECT_EQ(queriesOf(m, 129, 200, 2, size, Lay::Packed, Lay::Gapped), 0) << name;
        }
}

TEST(MaxCacheSize, ForwardsToTheCoreWithoutAnOverride) {
    const CacheQuery real = coreQuery();
    ASSERT_NE(real, nullptr);
    ASSERT_NE(reinterpret_cast<void*>(real), reinterpret_cast<void*>(&omkGetMaxCacheSizeB));
    int mine = -1, core = -2;
    EXPECT_EQ(omkGetMaxCacheSizeB(&mine), real(&core));
    EXPECT_EQ(mine, core);
    EXPECT_GE(mine, 0);
    EXPECT_EQ(omkGetMaxCacheSizeB(nullptr), omkStsNullPtr);
    {
        CacheSize cache(12345);
        int reported = 0;
        EXPECT_EQ(omkGetMaxCacheSizeB(&reported), omkStsOk);
        EXPECT_EQ(reported, 12345);
    }
    int again = -3;
    EXPECT_EQ(omkGetMaxCacheSizeB(&again), omkStsOk);
    EXPECT_EQ(again, core);
}
