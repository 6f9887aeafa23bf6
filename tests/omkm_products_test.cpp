// The products' own cases: _P order choice by the OR of sizes, omkmMul_mm4x4_32f off 16-byte boundaries, packed
// arrays and point records ending at an inaccessible page, in place.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "families.h"

using namespace omkt;

namespace {

// Nine elements per source with one pointer each, and a destination of nine elements holding -7 before the call.
template <class T> struct Tables {
    T a[9], b[9], d[9];
    const T* pa[9];
    const T* pb[9];
    T* pd[9];
    explicit Tables(std::mt19937& rng) {
        for (int i = 0; i < 9; ++i) {
            a[i] = T(entry(rng, -12, 12));
            b[i] = T(entry(rng, -12, 12));
            d[i] = T(-7);
            pa[i] = &a[i];
            pb[i] = &b[i];
            pd[i] = &d[i];
        }
    }
    T order3() const { return std::fma(a[2], b[2], std::fma(a[0], b[0], a[1] * b[1])); }
    bool untouchedFrom(int first) const { return std::all_of(d + first, d + 9, [](T x) { return x == T(-7); }); }
};

// Memory whose last byte is followed by an inaccessible page: any access past the end faults.
struct GuardedEnd {
    size_t page = size_t(sysconf(_SC_PAGESIZE)), span;
    unsigned char* base;
    explicit GuardedEnd(size_t bytes) : span((bytes + page - 1) / page * page + page) {
        base = static_cast<unsigned char*>(mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base == MAP_FAILED || mprotect(base + span - page, page, PROT_NONE) != 0) std::abort();
    }
    ~GuardedEnd() { munmap(base, span); }
    template <class T> T* endingWith(size_t n) { return reinterpret_cast<T*>(base + span - page) - n; }
};

template <class T>
OmkStatus mulMama(const T* a, const T* b, T* d, int n, int count) {
    const int e = int(sizeof(T)), s0 = n * n * e, s1 = n * e;
    if constexpr (sizeof(T) == 4) return omkmMul_mama_32f(a, s0, s1, e, n, n, b, s0, s1, e, n, n, d, s0, s1, e, count);
    else return omkmMul_mama_64f(a, s0, s1, e, n, n, b, s0, s1, e, n, n, d, s0, s1, e, count);
}

template <class T>
void packedArraysAtTheEdge(std::mt19937& rng) {
    for (int n = 3; n <= 6; ++n)
        for (int count : {1, 2, 3}) {
            const size_t len = size_t(n * n * count);
            std::vector<T> a(len), b(len), want(len);
            for (size_t i = 0; i < len; ++i) {
                a[i] = T(entry(rng, -12, 12));
                b[i] = T(entry(rng, -12, 12));
            }
            ASSERT_EQ(mulMama(a.data(), b.data(), want.data(), n, count), omkStsOk);
            GuardedEnd ga(len * sizeof(T)), gb(len * sizeof(T)), gd(len * sizeof(T));
            T* ea = ga.endingWith<T>(len);
            T* eb = gb.endingWith<T>(len);
            T* ed = gd.endingWith<T>(len);
            std::copy(a.begin(), a.end(), ea);
            std::copy(b.begin(), b.end(), eb);
            ASSERT_EQ(mulMama<T>(ea, eb, ed, n, count), omkStsOk);
            EXPECT_TRUE(std::equal(want.begin(), want.end(), ed)) << sizeof(T) << "-byte order " << n << " count " << count;
        }
}

}  // namespace

// omkmMul_mm_32f_P and omkmMul_tt_64f_P take the order-3 code when the OR of the four sizes is 3, square or not (the
// shared walk keeps to shapes where that is the square order): a 1x2 by 2x1 product reads nine entries of each table
// with that operand's own width as row pitch, so its first result is the strided order-3 sum of entries 0, 1, 2 of both
// tables, and with a destination of width 1 it writes entries i*1 + j for i, j < 3 (up to 4) only.
TEST(MulOrRule, OrderThreeCodeForOperandsWhoseSizesOrToThree) {
    std::mt19937 rng(29);
    Tables<float> mm(rng);
    ASSERT_EQ(omkmMul_mm_32f_P(mm.pa, 0, 2, 1, mm.pb, 0, 1, 2, mm.pd, 0), omkStsOk);
    EXPECT_EQ(mm.d[0], mm.order3());
    EXPECT_TRUE(mm.untouchedFrom(5));
    Tables<double> tt(rng);  // stored 2x1 and 1x2: used 1x2 and 2x1, element k of each at entry k
    ASSERT_EQ(omkmMul_tt_64f_P(tt.pa, 0, 1, 2, tt.pb, 0, 2, 1, tt.pd, 0), omkStsOk);
    EXPECT_EQ(tt.d[0], tt.order3());
    EXPECT_TRUE(tt.untouchedFrom(5));
}

// Operands off 16-byte boundaries give the aligned call's bits (checked by the shared walk), also over either source.
TEST(MulFixed, Mm4x4OffSixteenByteBoundariesOverEitherSource) {
    std::mt19937 rng(31);
    alignas(64) float a[16], b[16], d[16], x[20], y[20];
    for (int i = 0; i < 16; ++i) {
        a[i] = float(entry(rng, -12, 12));
        b[i] = float(entry(rng, -12, 12));
    }
    ASSERT_EQ(omkmMul_mm4x4_32f(a, b, d), omkStsOk);
    for (int shift : {1, 2, 3})
        for (int over : {0, 1}) {
            std::copy(a, a + 16, x + shift);
            std::copy(b, b + 16, y + shift);
            float* dst = over == 0 ? x + shift : y + shift;
            ASSERT_EQ(omkmMul_mm4x4_32f(x + shift, y + shift, dst), omkStsOk);
            EXPECT_TRUE(std::equal(d, d + 16, dst)) << "shift " << shift << " over source " << over + 1;
        }
}

// Packed arrays of every straight-line order that end where an inaccessible page begins: the row kernels,
// which read whole rows at a time and between objects past an object's end, touch nothing past the
// arrays and give the bits of the same call on ordinary memory.
TEST(MulPacked, ArraysEndingAtAnInaccessiblePage) {
    std::mt19937 rng(41);
    packedArraysAtTheEdge<float>(rng);
    packedArraysAtTheEdge<double>(rng);
}

// Points in 16-byte records whose last point's z ends where an inaccessible page begins: the
// eight-point blocks read each record whole only while another point follows, and give the bits
// of the packed source.
TEST(PointTransforms, RecordsEndingAtAnInaccessiblePage) {
    std::mt19937 rng(43);
    float m[16];
    for (float& x : m) x = float(entry(rng, -12, 12)) / 4;
    for (int count : {8, 9, 17}) {
        std::vector<float> packed(size_t(3 * count)), want(size_t(4 * count)), got(size_t(4 * count));
        for (float& x : packed) x = float(entry(rng, -12, 12)) / 8;
        ASSERT_EQ(omkmAffineTransform_m4v3a_32f(m, packed.data(), 12, want.data(), 16, count), omkStsOk);
        const size_t len = size_t(4 * count - 1);  // the last record stops after z
        GuardedEnd g(len * sizeof(float));
        float* rec = g.endingWith<float>(len);
        for (int k = 0; k < count; ++k) std::copy_n(&packed[size_t(3 * k)], 3, rec + 4 * k);
        ASSERT_EQ(omkmAffineTransform_m4v3a_32f(m, rec, 16, got.data(), 16, count), omkStsOk);
        EXPECT_EQ(got, want) << count << " points";
    }
}

// The cross products and omkmMul_mm4x4_32f read all their sources before writing: a destination
// laid over any source of its shape (same place and strides) gets the result of separate memory.
TEST(ProductsInPlace, CrossProductsAndMm4x4OverEachSource) {
    std::mt19937 rng(37);
    int calls = 0;
    for (const Export& e : exportTable()) {
        const Name n = parseName(e.name);
        if (!e.call || (n.op != "CrossProduct" && n.group != "mm4x4")) continue;
        for (const char* source : {"Src1", "Src2", "Src3"})
            for (const Style& style : {kPacked, kGapped}) {
                Shape s;
                s.count = 3;
                s.styles = {style};
                Call plain = layCall(e, s);
                if (!plain.hasRegion(source) || plain[source].array != plain["Dst"].array) continue;
                s.alias = source;
                Call c = prepared(*familyOf(n), e, s, rng);
                const OmkStatus status = expectSerial(*familyOf(n), c);
                ASSERT_EQ(c.run(), status) << e.name;
                ASSERT_EQ(firstDifference(c), "") << " over " << source;
                ++calls;
            }
    }
    EXPECT_EQ(calls, 82);
}
