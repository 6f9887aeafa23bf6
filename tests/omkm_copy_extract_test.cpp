// Copy, Extract and LoadIdentity: every member in every description (pair) and both element types,
// word for word on raw bit patterns, with the member's own check order, the object strides of a
// one-object Copy and the documented small cases.
#include <gtest/gtest.h>

#include <set>

#include "move_cases.h"

using namespace testing_omk;
using namespace testing_omk::mv;

namespace {

#define COPY_PAIRS(k, t)                                                                                     \
    MV_MEMBER(omkmCopy_##k##_##t##_SS) MV_MEMBER(omkmCopy_##k##_##t##_SP) MV_MEMBER(omkmCopy_##k##_##t##_SL) \
    MV_MEMBER(omkmCopy_##k##_##t##_PS) MV_MEMBER(omkmCopy_##k##_##t##_PP) MV_MEMBER(omkmCopy_##k##_##t##_PL) \
    MV_MEMBER(omkmCopy_##k##_##t##_LS) MV_MEMBER(omkmCopy_##k##_##t##_LP) MV_MEMBER(omkmCopy_##k##_##t##_LL)
#define EXTRACT_SINGLE(k)                                                                 \
    MV_MEMBER(omkmExtract_##k##_32f) MV_MEMBER(omkmExtract_##k##_32f_P) MV_MEMBER(omkmExtract_##k##_64f) \
    MV_MEMBER(omkmExtract_##k##_64f_P)
#define EXTRACT_ARRAY(k)                                                                                     \
    MV_MEMBER(omkmExtract_##k##_32f) MV_MEMBER(omkmExtract_##k##_32f_P) MV_MEMBER(omkmExtract_##k##_32f_L)   \
    MV_MEMBER(omkmExtract_##k##_64f) MV_MEMBER(omkmExtract_##k##_64f_P) MV_MEMBER(omkmExtract_##k##_64f_L)

const std::vector<MoveMember>& members() {
    static const std::vector<MoveMember> all = {
        COPY_PAIRS(ma, 32f) COPY_PAIRS(ma, 64f) COPY_PAIRS(va, 32f) COPY_PAIRS(va, 64f)
        EXTRACT_SINGLE(m) EXTRACT_SINGLE(t) EXTRACT_SINGLE(v) EXTRACT_ARRAY(ma) EXTRACT_ARRAY(ta) EXTRACT_ARRAY(va)
        MV_MEMBER(omkmLoadIdentity_ma_32f) MV_MEMBER(omkmLoadIdentity_ma_32f_L) MV_MEMBER(omkmLoadIdentity_ma_32f_P)
        MV_MEMBER(omkmLoadIdentity_ma_64f) MV_MEMBER(omkmLoadIdentity_ma_64f_L) MV_MEMBER(omkmLoadIdentity_ma_64f_P)};
    return all;
}

// The check order of each member (N null, S size, C count, E element strides, O object strides,
// tested last and only for more than one object, T all strides, R ROI shifts).
std::string orderOf(const MoveMember& m) {
    static const std::set<std::string> copyRoiFirst = {"omkmCopy_ma_32f_PP", "omkmCopy_ma_64f_PP",
                                                       "omkmCopy_va_32f_PP", "omkmCopy_va_64f_PP",
                                                       "omkmCopy_va_32f_LP", "omkmCopy_va_32f_SP"};
    if (m.op == "Copy") {
        if (m.src == 'S' && m.dst == 'S') return "NSCEO";
        return copyRoiFirst.count(m.name) ? "NSCREO" : "NSCERO";
    }
    if (m.op == "Extract") {
        if (!m.array) return m.src == 'S' ? "NST" : m.name == "omkmExtract_v_32f_P" ? "NSR" : "SNR";
        return m.src == 'S' ? "NSCT" : "NSCRT";
    }
    if (m.dst == 'S') return "NSCT";
    if (m.dst == 'L') return "NSCTR";
    return m.esize == 4 ? "NSRCT" : "NSCRT";
}

std::vector<const MoveMember*> family(const std::string& op) {
    std::vector<const MoveMember*> out;
    for (const MoveMember& m : members())
        if (m.op == op) out.push_back(&m);
    return out;
}

const MoveMember& member(const std::string& name) { return named(members(), name); }

}  // namespace

TEST(CopyExtractMembers, TheListIsComplete) {
    EXPECT_EQ(family("Copy").size(), 36u);
    EXPECT_EQ(family("Extract").size(), 30u);
    EXPECT_EQ(family("LoadIdentity").size(), 6u);
    std::set<std::string> names;
    for (const MoveMember& m : members()) names.insert(m.name);
    EXPECT_EQ(names.size(), members().size());
}

TEST(Copy, EveryPairMovesEveryWord) {
    for (const MoveMember* m : family("Copy")) runAllLayouts(*m);
}

TEST(Extract, EveryMemberPacksTheOperandAsUsed) {
    for (const MoveMember* m : family("Extract")) runAllLayouts(*m);
}

TEST(LoadIdentity, EveryMemberWritesZerosAndLeadingDiagonal) {
    for (const MoveMember* m : family("LoadIdentity")) runAllLayouts(*m);
}

// Every fault alone and every pair of faults in different steps, for each member.
TEST(Copy, CheckOrderOfEveryMember) {
    for (const MoveMember* m : family("Copy")) {
        Call c = makeCall(*m, 3, 2, 2, Lay::Padded, Lay::Gapped, 5);
        walkOrder(c, orderOf(*m));
    }
}

TEST(Extract, CheckOrderOfEveryMember) {
    for (const MoveMember* m : family("Extract")) {
        Call c = makeCall(*m, 3, 2, 2, Lay::Gapped, Lay::Packed, 6);
        walkOrder(c, orderOf(*m));
    }
}

TEST(LoadIdentity, CheckOrderOfEveryMember) {
    for (const MoveMember* m : family("LoadIdentity")) {
        Call c = makeCall(*m, 3, 2, 2, Lay::Packed, Lay::Padded, 7);
        walkOrder(c, orderOf(*m));
    }
}

// A one-object Copy takes any object stride; Extract and LoadIdentity test theirs at count 1 too.
TEST(Copy, OneObjectTakesAnyObjectStride) {
    for (const MoveMember* m : family("Copy")) objectStridesAtCountOne(*m, 3, 2);
}

TEST(Extract, ObjectStridesAreTestedAtCountOne) {
    for (const MoveMember* m : family("Extract"))
        if (m->array && m->src != 'L') objectStridesAtCountOne(*m, 2, 3);
}

TEST(LoadIdentity, ObjectStridesAreTestedAtCountOne) {
    for (const MoveMember* m : family("LoadIdentity"))
        if (m->dst != 'L') objectStridesAtCountOne(*m, 2, 3);
}

TEST(Copy, ZeroObjectStrideWithOneObjectCopiesAndWithTwoIsRejected) {
    for (int count : {1, 2}) {
        Call c = makeCall(member("omkmCopy_ma_32f_SS"), 3, 2, count, Lay::Padded, Lay::Padded, 11);
        c.args.args[c.argOfStep('O')].i = 0;  // srcStride0
        EXPECT_TRUE(runExpect(c, count == 1 ? omkStsOk : omkStsBadStride));
        c.args.args[c.argOfStep('O')].i = 7;
        EXPECT_TRUE(runExpect(c, count == 1 ? omkStsOk : omkStsBadStride));
    }
}

// Members that test the ROI shift before the element strides, and those after: a bad ROI shift with
// a zero element stride tells them apart.
TEST(Copy, RoiShiftAgainstElementStrides) {
    for (const MoveMember* m : family("Copy")) {
        Call c = makeCall(*m, 4, 3, 2, Lay::Padded, Lay::Padded, 12);
        if (c.steps.find('R') == std::string::npos || c.steps.find('E') == std::string::npos) continue;
        c.args.args[c.argOfStep('R')].i = -m->esize;
        c.args.args[c.argOfStep('E')].i = 0;
        const std::string order = orderOf(*m);
        const bool roiFirst = order.find('R') < order.find('E');
        EXPECT_TRUE(runExpect(c, roiFirst ? omkStsBadRoiShift : omkStsBadStride));
    }
}

TEST(Copy, ObjectStridesAreTestedAfterRoiShifts) {
    for (const MoveMember* m : family("Copy")) {
        Call c = makeCall(*m, 2, 2, 3, Lay::Packed, Lay::Padded, 13);
        if (c.steps.find('R') == std::string::npos || c.steps.find('O') == std::string::npos) continue;
        c.args.args[c.argOfStep('R')].i = 2;
        c.args.args[c.argOfStep('O')].i = -8;
        EXPECT_TRUE(runExpect(c, omkStsBadRoiShift));
    }
}

TEST(Extract, PointerMatrixTestsSizeBeforeNullButVector32fDoesNot) {
    float dst[4] = {};
    EXPECT_EQ(omkmExtract_m_32f_P(nullptr, 0, dst, 0, 2), omkStsBadSize);
    EXPECT_EQ(omkmExtract_t_64f_P(nullptr, 0, reinterpret_cast<double*>(dst), 2, -1), omkStsBadSize);
    EXPECT_EQ(omkmExtract_v_64f_P(nullptr, 0, reinterpret_cast<double*>(dst), 0), omkStsBadSize);
    EXPECT_EQ(omkmExtract_v_32f_P(nullptr, 0, dst, 0), omkStsNullPtr);
    EXPECT_EQ(omkmExtract_m_32f(nullptr, 4, 4, dst, 0, 2), omkStsNullPtr);
    for (float v : dst) EXPECT_EQ(v, 0.0f);
}

TEST(Extract, TransposedOperandIsWrittenTransposed) {
    // Stored: width = 3 rows of height = 2 elements, row stride 4 elements.
    const float stored[12] = {1, 2, -1, -1, 3, 4, -1, -1, 5, 6, -1, -1};
    const float want[6] = {1, 3, 5, 2, 4, 6};  // height = 2 rows of width = 3
    float dst[7];
    std::fill(dst, dst + 7, 9.0f);
    ASSERT_EQ(omkmExtract_t_32f(stored, 16, 4, dst, 3, 2), omkStsOk);
    EXPECT_EQ(0, std::memcmp(dst, want, sizeof want));
    EXPECT_EQ(dst[6], 9.0f);

    const double* table[6];
    const double storedD[6] = {1, 2, 3, 4, 5, 6};  // dense, the table in stored row-major order
    for (int i = 0; i < 6; ++i) table[i] = storedD + i;
    double dstD[6];
    ASSERT_EQ(omkmExtract_t_64f_P(table, 0, dstD, 3, 2), omkStsOk);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(dstD[i], double(want[i])) << i;
}

TEST(LoadIdentity, NonSquareMatricesGetTheLeadingDiagonal) {
    float tall[3][6];  // two objects and a guard object
    std::fill(&tall[0][0], &tall[0][0] + 18, -3.0f);
    ASSERT_EQ(omkmLoadIdentity_ma_32f(&tall[0][0], 24, 8, 4, 2, 3, 2), omkStsOk);
    const float wantTall[6] = {1, 0, 0, 1, 0, 0};  // rows (1, 0), (0, 1), (0, 0)
    for (int k = 0; k < 2; ++k) EXPECT_EQ(0, std::memcmp(tall[k], wantTall, sizeof wantTall)) << k;
    for (float v : tall[2]) EXPECT_EQ(v, -3.0f);

    double wide[6];
    std::fill(wide, wide + 6, -3.0);
    ASSERT_EQ(omkmLoadIdentity_ma_64f(wide, 48, 24, 8, 3, 2, 1), omkStsOk);
    const double wantWide[6] = {1, 0, 0, 0, 1, 0};  // rows (1, 0, 0), (0, 1, 0)
    EXPECT_EQ(0, std::memcmp(wide, wantWide, sizeof wantWide));
}

TEST(LoadIdentity, PointerMembersPlaceTheRoiShiftCheckDifferently) {
    float f[4];
    double d[4];
    float* pf[4] = {f, f + 1, f + 2, f + 3};
    double* pd[4] = {d, d + 1, d + 2, d + 3};
    // 32f: N S R C T; 64f: N S C R T.
    EXPECT_EQ(omkmLoadIdentity_ma_32f_P(pf, -4, 16, 2, 2, 0), omkStsBadRoiShift);
    EXPECT_EQ(omkmLoadIdentity_ma_64f_P(pd, -8, 32, 2, 2, 0), omkStsBadCount);
    EXPECT_EQ(omkmLoadIdentity_ma_32f_P(pf, 2, 0, 2, 2, 1), omkStsBadRoiShift);
    EXPECT_EQ(omkmLoadIdentity_ma_64f_P(pd, 4, 0, 2, 2, 1), omkStsBadRoiShift);
    // _L: the strides before the ROI shift; standard: count before strides.
    EXPECT_EQ(omkmLoadIdentity_ma_32f_L(pf, -4, 0, 4, 2, 2, 1), omkStsBadStride);
    EXPECT_EQ(omkmLoadIdentity_ma_64f(d, 0, 16, 8, 2, 2, 0), omkStsBadCount);
}

TEST(Copy, NanPayloadsAndSignedZerosSurvive) {
    const uint32_t words[5] = {0x7fa00001, 0xffc12345, 0x80000000, 0x00000001, 0x7f800001};
    float src[5], dst[5];
    std::memcpy(src, words, sizeof words);
    std::memset(dst, 0, sizeof dst);
    ASSERT_EQ(omkmCopy_va_32f_SS(src, 20, 4, dst, 20, 4, 5, 1), omkStsOk);
    EXPECT_EQ(0, std::memcmp(dst, words, sizeof words));
    const uint64_t w64[3] = {0x7ff4000000000001, 0x8000000000000000, 0x000fffffffffffff};
    double s64[3], d64[3] = {};
    std::memcpy(s64, w64, sizeof w64);
    const double* ps[1] = {s64};
    ASSERT_EQ(omkmCopy_va_64f_LS(ps, 0, 8, d64, 24, 8, 3, 1), omkStsOk);
    EXPECT_EQ(0, std::memcmp(d64, w64, sizeof w64));
}
