// Special inputs through every family: NaN (with payloads), infinities, subnormals and values next
// to overflow. The library reports none of them; they follow IEEE arithmetic through the documented
// formulas. Element-wise results are checked bit for bit (any NaN matching any NaN), so that a
// flush of subnormals, an unfused product at the overflow edge or a wrong zero sign shows; products
// and reductions are checked by class (NaN, +inf, -inf, finite) element by element, so that a NaN
// or infinity reaches exactly the results whose formula touches it. The bytes between and around
// elements hold NaN (all bits set) while the finite results must stay finite, so a kernel that
// lets a byte it does not own into a result fails too. Solvers and eigenproblems return their
// documented statuses on such input, and every call of an iterative member returns (a watchdog ends
// the program when one does not).
#include <gtest/gtest.h>
#include <immintrin.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <random>
#include <thread>

#include "member_checks.h"
#include "operands.h"
#include "thread_budget_probe.h"

using namespace testing_omk;

namespace {

// ---- values ----

template <class T> T nanWithPayload() {
    if constexpr (sizeof(T) == 4) {
        const uint32_t bits = 0xFFC1234Du;  // negative quiet NaN with a payload
        T v;
        std::memcpy(&v, &bits, 4);
        return v;
    } else {
        const uint64_t bits = 0xFFF812345678ABCDull;
        T v;
        std::memcpy(&v, &bits, 8);
        return v;
    }
}

// The special values every element-wise walk pairs with each other (and a few ordinary ones).
template <class T> std::vector<T> specials() {
    using L = std::numeric_limits<T>;
    return {L::quiet_NaN(), nanWithPayload<T>(), L::infinity(), -L::infinity(), L::max(), -L::max(),
            L::denorm_min(), -L::denorm_min(), L::min(), T(0), -T(0), T(1.5)};
}

template <class T> bool sameValue(T a, T b) {
    return std::memcmp(&a, &b, sizeof(T)) == 0 || (std::isnan(a) && std::isnan(b));
}

enum class Cls { Nan, PosInf, NegInf, Finite };
template <class T> Cls classOf(T v) {
    if (std::isnan(v)) return Cls::Nan;
    if (std::isinf(v)) return v > 0 ? Cls::PosInf : Cls::NegInf;
    return Cls::Finite;
}
const char* nameOf(Cls c) {
    switch (c) {
    case Cls::Nan: return "NaN";
    case Cls::PosInf: return "+inf";
    case Cls::NegInf: return "-inf";
    default: return "finite";
    }
}

// Class of the exact sum of products a_l * b_l, for finite values small enough never to overflow.
struct SumClass {
    bool nan = false, pos = false, neg = false;
    void term(double a, double b) {
        if (std::isnan(a) || std::isnan(b)) { nan = true; return; }
        const bool ia = std::isinf(a), ib = std::isinf(b);
        if (!ia && !ib) return;
        if (a == 0 || b == 0) { nan = true; return; }  // 0 * inf
        ((a > 0) == (b > 0) ? pos : neg) = true;
    }
    void add(double v) { term(v, 1.0); }
    Cls cls() const { return nan || (pos && neg) ? Cls::Nan : pos ? Cls::PosInf : neg ? Cls::NegInf : Cls::Finite; }
};

// Ends the program when the calls made while it lives take longer than `seconds`: a hang fails.
class Deadline {
public:
    explicit Deadline(std::string what, int seconds = 300) : what_(std::move(what)) {
        watcher_ = std::thread([this, seconds] {
            std::unique_lock<std::mutex> lock(mu_);
            if (!cv_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
                std::fprintf(stderr, "%s: no return within %d s\n", what_.c_str(), seconds);
                std::abort();
            }
        });
    }
    ~Deadline() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            done_ = true;
        }
        cv_.notify_one();
        watcher_.join();
    }

private:
    std::string what_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread watcher_;
};

// ---- arenas whose bytes outside the source elements are NaN ----

template <class T> void put(Case& c, size_t off, T v) { store<T>(c.arena.at(off), v); }
template <class T> T get(Case& c, size_t off) { return load<T>(c.arena.at(off)); }

// Sets every byte of the arena to 0xFF (a NaN in both element types).
void poison(Case& c) { std::fill(c.arena.bytes.begin(), c.arena.bytes.end(), 0xFF); }

// Calls a case and checks its destination elements against `want` (same bits, or NaN for NaN) and
// that no other byte changed.
template <class T>
void callAndCompare(Case& c, const std::function<T(int k, int i, int j)>& want, const std::string& what) {
    const std::vector<unsigned char> before = c.arena.bytes;
    ASSERT_EQ(c.m->call(c.args), omkStsOk) << what;
    std::vector<bool> isDst(before.size(), false);
    for (int k = 0; k < c.objects(); ++k)
        for (int i = 0; i < c.dst.rows; ++i)
            for (int j = 0; j < c.dst.cols; ++j) {
                const size_t off = c.dst.offset(k, i, j);
                const T got = get<T>(c, off), w = want(k, i, j);
                ASSERT_TRUE(sameValue(got, w)) << what << " object " << k << " (" << i << "," << j << "): got " << got
                                               << ", want " << w;
                std::fill_n(isDst.begin() + off, sizeof(T), true);
            }
    for (size_t b = 0; b < before.size(); ++b)
        if (!isDst[b]) ASSERT_EQ(before[b], c.arena.bytes[b]) << what << ": byte " << b << " written";
}

// ---- element-wise members (Add, Sub, Mul by a constant) ----

const std::vector<Member>& elementwiseMembers() {
    static const std::vector<Member> all = {
        ARRAY_GROUP(Add, mam) ARRAY_GROUP(Add, tam) ARRAY_GROUP(Add, mat) ARRAY_GROUP(Add, tat)
        ARRAY_GROUP(Add, mama) ARRAY_GROUP(Add, tama) ARRAY_GROUP(Add, tata) ARRAY_GROUP(Add, vav)
        ARRAY_GROUP(Add, vava) ARRAY_GROUP(Add, vac) ARRAY_GROUP(Add, vca) ARRAY_GROUP(Add, vaca)
        SINGLE_GROUP(Add, mm) SINGLE_GROUP(Add, tm) SINGLE_GROUP(Add, tt) SINGLE_GROUP(Add, vv) SINGLE_GROUP(Add, vc)
        ARRAY_GROUP(Sub, mam) ARRAY_GROUP(Sub, tam) ARRAY_GROUP(Sub, mat) ARRAY_GROUP(Sub, tat)
        ARRAY_GROUP(Sub, mma) ARRAY_GROUP(Sub, tma) ARRAY_GROUP(Sub, mta) ARRAY_GROUP(Sub, tta)
        ARRAY_GROUP(Sub, mama) ARRAY_GROUP(Sub, tama) ARRAY_GROUP(Sub, tata) ARRAY_GROUP(Sub, mata)
        ARRAY_GROUP(Sub, vav) ARRAY_GROUP(Sub, vva) ARRAY_GROUP(Sub, vava) ARRAY_GROUP(Sub, vac)
        ARRAY_GROUP(Sub, cva) ARRAY_GROUP(Sub, vca) ARRAY_GROUP(Sub, cav) ARRAY_GROUP(Sub, vaca) ARRAY_GROUP(Sub, cava)
        SINGLE_GROUP(Sub, mm) SINGLE_GROUP(Sub, tm) SINGLE_GROUP(Sub, mt) SINGLE_GROUP(Sub, tt) SINGLE_GROUP(Sub, vv)
        SINGLE_GROUP(Sub, vc) SINGLE_GROUP(Sub, cv)
        SINGLE_GROUP(Mul, mc) SINGLE_GROUP(Mul, tc) SINGLE_GROUP(Mul, vc)
        ARRAY_GROUP(Mul, mac) ARRAY_GROUP(Mul, tac) ARRAY_GROUP(Mul, vac) ARRAY_GROUP(Mul, vaca) ARRAY_GROUP(Mul, vca)
    };
    return all;
}

// Writes the special values into the sources of a built case, so that the operands' pairs cover
// every pair of specials: the first matrix or vector array holds S[(k + q + shift) % N] at position
// q of object k, a single matrix or vector S[q % N], a constant array S[k % N] and a single
// constant S[shift].
template <class T> void fillSpecials(Case& c, int shift) {
    const std::vector<T> s = specials<T>();
    const int n = int(s.size());
    poison(c);
    bool firstArray = true;
    for (Operand& o : c.srcs) {
        if (o.kind == 'c') {
            if (!o.array) {
                o.val = double(s[size_t(shift) % n]);
                for (Arg& a : c.args.args)
                    if (a.kind == ArgKind::Value) a.f = o.val;
                continue;
            }
            for (int k = 0; k < c.count; ++k) put<T>(c, o.base + size_t(k) * o.s0, s[size_t(k) % n]);
            continue;
        }
        const bool rotate = o.array && firstArray;
        if (o.array) firstArray = false;
        for (int k = 0; k < (o.array ? c.count : 1); ++k)
            for (int i = 0; i < c.rows(); ++i)
                for (int j = 0; j < c.width; ++j) {
                    const int q = i * c.width + j;
                    put<T>(c, o.offset(k, i, j), s[size_t(rotate ? k + q + shift : q) % n]);
                }
    }
}

template <class T> void walkElementwise(const Member& m, std::mt19937& rng) {
    const bool single = !m.hasArray();
    bool singleConstant = false;
    for (auto [kind, array] : m.operands()) singleConstant |= kind == 'c' && !array;
    const int shifts = single || singleConstant ? int(specials<T>().size()) : 1;
    // Matrices 4x3, 12x1 and the straight-line orders 3, 4 and 5; vectors of 12, 2, 3, 4 and 5.
    const std::pair<int, int> shapes[] = {{4, 3}, {12, 1}, {3, 3}, {4, 4}, {5, 5}};
    const int lens[] = {12, 2, 3, 4, 5};
    for (Style st : {Style::Packed, Style::Gapped})
        for (int shape = 0; shape < 5; ++shape) {
            const auto [w, h] = shapes[shape];
            Case c;
            c.m = &m;
            c.width = m.isMatrix() ? w : lens[shape];
            c.height = m.isMatrix() ? h : 1;
            c.count = 13;
            build(c, {st}, rng);
            for (int shift = 0; shift < shifts; ++shift) {
                fillSpecials<T>(c, shift);
                const Operand a = c.srcs[0], b = c.srcs[1];
                auto want = [&](int k, int i, int j) -> T {
                    const T x = T(sourceAt(c, a, k, i, j)), y = T(sourceAt(c, b, k, i, j));
                    return m.op == "Add" ? T(x + y) : m.op == "Sub" ? T(x - y) : T(x * y);
                };
                callAndCompare<T>(c, want,
                                  m.name + " " + std::to_string(c.width) + "x" + std::to_string(c.height) + " shift " +
                                      std::to_string(shift) + (st == Style::Packed ? " packed" : " gapped"));
                if (::testing::Test::HasFatalFailure()) return;
            }
        }
}

// Every Add, Sub and Mul-by-constant member: NaN and infinities propagate (inf - inf and 0 * inf
// give NaN), max + max overflows to infinity, subnormals add and scale exactly (no flush to zero),
// and zero signs follow IEEE rules (x - x is +0; -0 + -0 is -0; 0 * -1.5 is -0).
TEST(EdgeInputs, ElementwiseMembersFollowIEEEOnEverySpecialPair) {
    std::mt19937 rng(101);
    int walked = 0;
    for (const Member& m : elementwiseMembers()) {
        if (m.esize == 4) walkElementwise<float>(m, rng);
        else walkElementwise<double>(m, rng);
        if (HasFatalFailure()) return;
        ++walked;
    }
    EXPECT_EQ(walked, 92 + 154 + 42);  // every member but the unchecked v2, v3, v4 forms of Add and Sub
}

// The fixed-length forms, with each special against each.
TEST(EdgeInputs, FixedLengthAddAndSubFollowIEEE) {
    const std::vector<float> s = specials<float>();
    using Fn = OmkStatus (*)(const Omk32f*, const Omk32f*, Omk32f*);
    const struct { Fn fn; int len; bool sub; } forms[] = {
        {omkmAdd_v2_32f, 2, false}, {omkmAdd_v3_32f, 3, false}, {omkmAdd_v4_32f, 4, false},
        {omkmSub_v2_32f, 2, true},  {omkmSub_v3_32f, 3, true},  {omkmSub_v4_32f, 4, true}};
    for (const auto& f : forms)
        for (size_t a = 0; a < s.size(); ++a)
            for (size_t b = 0; b < s.size(); ++b) {
                float x[4], y[4], d[5];
                for (int i = 0; i < 4; ++i) {
                    x[i] = s[(a + i) % s.size()];
                    y[i] = s[(b + 2 * i) % s.size()];
                }
                std::memset(d, 0xFF, sizeof d);
                d[f.len] = 7.0f;
                ASSERT_EQ(f.fn(x, y, d), omkStsOk);
                for (int i = 0; i < f.len; ++i)
                    ASSERT_TRUE(sameValue(d[i], f.sub ? x[i] - y[i] : x[i] + y[i])) << f.len << " " << i;
                ASSERT_EQ(d[f.len], 7.0f) << "wrote past the vector";
            }
}

// ---- Saxpy and LComb ----

const std::vector<Member>& saxpyMembers() {
    static const std::vector<Member> all = {
        SINGLE_GROUP(Saxpy, vv) ARRAY_GROUP(Saxpy, vav) ARRAY_GROUP(Saxpy, vva) ARRAY_GROUP(Saxpy, vava)
        SINGLE_GROUP(LComb, vv) ARRAY_GROUP(LComb, vav) ARRAY_GROUP(LComb, vava)};
    return all;
}

// Builds the argument list of a Saxpy or LComb case in its own order: the first vector's block, the
// scale, the second block, LComb's second scale, the destination, len, count.
void saxpyArgs(Case& c, double scale1, double scale2) {
    c.tables.clear();
    c.args.args.clear();
    auto value = [&](double v) { Arg x{ArgKind::Value}; x.f = v; c.args.args.push_back(x); };
    appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
    value(scale1);
    appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
    if (c.m->op == "LComb") value(scale2);
    appendOperand(c, c.dst, ArgKind::DstPtr);
    Arg len{ArgKind::Len};
    len.i = c.width;
    c.args.args.push_back(len);
    if (c.m->hasArray()) {
        Arg n{ArgKind::Count};
        n.i = c.count;
        c.args.args.push_back(n);
    }
}

template <class T> void walkSaxpy(const Member& m, std::mt19937& rng) {
    const std::vector<T> s = specials<T>();
    const T scales[] = {std::numeric_limits<T>::quiet_NaN(), std::numeric_limits<T>::infinity(), T(0), T(2), T(-0.5),
                        std::numeric_limits<T>::max()};
    for (Style st : {Style::Packed, Style::Gapped})
        for (int len : {5, 12, 19}) {
            Case c;
            c.m = &m;
            c.width = len;
            c.count = 13;
            build(c, {st}, rng);
            const int shifts = m.hasArray() ? 1 : int(s.size());
            for (T s1 : scales)
                for (T s2 : {T(1), T(-3), std::numeric_limits<T>::infinity()}) {
                    if (m.op == "Saxpy" && s2 != T(1)) continue;
                    saxpyArgs(c, double(s1), double(s2));
                    for (int shift = 0; shift < shifts; ++shift) {
                        fillSpecials<T>(c, shift);
                        const Operand a = c.srcs[0], b = c.srcs[1];
                        auto want = [&](int k, int, int j) -> T {
                            const T x = T(sourceAt(c, a, k, 0, j)), y = T(sourceAt(c, b, k, 0, j));
                            return m.op == "Saxpy" ? std::fma(s1, x, y) : std::fma(s2, y, T(s1 * x));
                        };
                        callAndCompare<T>(c, want, m.name + " len " + std::to_string(len) + " scales " +
                                                       std::to_string(double(s1)) + ", " + std::to_string(double(s2)));
                        if (::testing::Test::HasFatalFailure()) return;
                    }
                }
        }
}

// Saxpy is one fused multiply-add and LComb rounds its first product: at the overflow edge
// Saxpy(2, max, -max) is max where a rounded product would give infinity, and LComb(2, max, 1, -max)
// is infinity while the exchanged LComb(1, -max, 2, max) is max. Every special pair and scale is
// walked through every member.
TEST(EdgeInputs, SaxpyAndLCombFuseAsDocumentedAtTheOverflowEdge) {
    // The walk's inputs tell a fused from an unfused evaluation.
    const float big = std::numeric_limits<float>::max();
    ASSERT_NE(std::fma(2.0f, big, -big), 2.0f * big + -big);
    std::mt19937 rng(102);
    for (const Member& m : saxpyMembers()) {
        if (m.esize == 4) walkSaxpy<float>(m, rng);
        else walkSaxpy<double>(m, rng);
        if (HasFatalFailure()) return;
    }
    // The three cases spelled out on the single-vector members.
    float x[1] = {big}, y[1] = {-big}, d[1];
    ASSERT_EQ(omkmSaxpy_vv_32f(x, 4, 2.0f, y, 4, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], big);
    ASSERT_EQ(omkmLComb_vv_32f(x, 4, 2.0f, y, 4, 1.0f, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], std::numeric_limits<float>::infinity());
    ASSERT_EQ(omkmLComb_vv_32f(y, 4, 1.0f, x, 4, 2.0f, d, 4, 1), omkStsOk);
    EXPECT_EQ(d[0], big);
}


// ---- products and reductions, checked by class ----

// Lays the case's sources and destination into its arena and sets every byte to NaN.
void lay(Case& c) {
    c.arena = Arena{};
    for (Operand& o : c.srcs) o.base = c.arena.reserve(extentOf(o, c.count));
    c.dst.base = c.arena.reserve(extentOf(c.dst, c.count));
    c.arena.allocate();
    poison(c);
    c.tables.clear();
    c.tables.reserve(8);
    c.args.args.clear();
}
void intArg(Case& c, ArgKind k, int64_t v) {
    Arg a{k};
    a.i = v;
    c.args.args.push_back(a);
}
void ptrArg(Case& c, ArgKind k, void* p) {
    Arg a{k};
    a.ptr = p;
    c.args.args.push_back(a);
}
// A stored operand of rows x cols (a vector is one row) in a style.
Operand stored(char kind, bool array, int rows, int cols, Style st, int esize) {
    Operand o;
    o.kind = kind == 'v' ? 'v' : 'm';
    o.array = array;
    o.rows = kind == 'v' ? 1 : rows;
    o.cols = cols;
    layOut(o, st, esize);
    return o;
}

// Source values: mostly ordinary numbers in [-2, 2], with NaN, both infinities and zeros among them.
template <class T> T sprinkled(std::mt19937& rng) {
    std::uniform_real_distribution<double> u(0, 1), v(-2, 2);
    const double p = u(rng);
    if (p < 0.04) return std::numeric_limits<T>::quiet_NaN();
    if (p < 0.08) return std::numeric_limits<T>::infinity();
    if (p < 0.12) return -std::numeric_limits<T>::infinity();
    if (p < 0.22) return T(0);
    return T(v(rng));
}
template <class T> void fillSources(Case& c, std::mt19937& rng) {
    for (Operand& o : c.srcs)
        for (int k = 0; k < (o.array ? c.count : 1); ++k)
            for (int r = 0; r < o.rows; ++r)
                for (int q = 0; q < o.cols; ++q) put<T>(c, o.offset(k, r, q), sprinkled<T>(rng));
}
// Stored element (r, q) of object k of a source (the object is ignored for a single operand).
template <class T> double at(Case& c, const Operand& o, int k, int r, int q) {
    return double(get<T>(c, o.offset(o.array ? k : 0, r, q)));
}

// Calls the case and compares the class of every destination element with `want`; every other byte
// must be unchanged. The destination is c.dst (a scalar result array is a single row of `count`).
template <class T>
void callAndClassify(Case& c, const std::function<Cls(int k, int i, int j)>& want, const std::string& what,
                     int* specialResults) {
    const std::vector<unsigned char> before = c.arena.bytes;
    ASSERT_EQ(c.m->call(c.args), omkStsOk) << what;
    std::vector<bool> isDst(before.size(), false);
    const int objects = c.dst.array ? c.count : 1;
    for (int k = 0; k < objects; ++k)
        for (int i = 0; i < c.dst.rows; ++i)
            for (int j = 0; j < c.dst.cols; ++j) {
                const size_t off = c.dst.offset(k, i, j);
                const Cls w = want(k, i, j), got = classOf(get<T>(c, off));
                ASSERT_EQ(nameOf(got), std::string(nameOf(w))) << what << " object " << k << " (" << i << "," << j << ")";
                *specialResults += w != Cls::Finite;
                std::fill_n(isDst.begin() + off, sizeof(T), true);
            }
    for (size_t b = 0; b < before.size(); ++b)
        if (!isDst[b]) ASSERT_EQ(before[b], c.arena.bytes[b]) << what << ": byte " << b << " written";
}

const std::vector<Member>& productMembers() {
#define MUL_ARRAY(g) ARRAY_GROUP(Mul, g)
    static const std::vector<Member> all = {
        SINGLE_GROUP(Mul, mm) SINGLE_GROUP(Mul, mt) SINGLE_GROUP(Mul, tm) SINGLE_GROUP(Mul, tt)
        SINGLE_GROUP(Mul, mv) SINGLE_GROUP(Mul, tv)
        MUL_ARRAY(mma) MUL_ARRAY(mta) MUL_ARRAY(tma) MUL_ARRAY(tta) MUL_ARRAY(mam) MUL_ARRAY(mat)
        MUL_ARRAY(tam) MUL_ARRAY(tat) MUL_ARRAY(mama) MUL_ARRAY(mata) MUL_ARRAY(tama) MUL_ARRAY(tata)
        MUL_ARRAY(mva) MUL_ARRAY(tva) MUL_ARRAY(mav) MUL_ARRAY(tav) MUL_ARRAY(mava) MUL_ARRAY(tava)};
#undef MUL_ARRAY
    return all;
}

// One product of an r x inner operand A by an inner x cols operand B (or a vector of `inner`).
template <class T> void walkProduct(const Member& m, int r, int inner, int cols, Style st, std::mt19937& rng, int* specials) {
    const auto ops = m.operands();
    const char ka = ops[0].first, kb = ops[1].first;
    const bool vec = kb == 'v';
    Case c;
    c.m = &m;
    c.count = 3;
    // Stored shapes: A is r x inner (t: inner x r); B inner x cols (t: cols x inner).
    c.srcs = {stored(ka, ops[0].second, ka == 't' ? inner : r, ka == 't' ? r : inner, st, m.esize),
              stored(kb, ops[1].second, kb == 't' ? cols : inner, kb == 't' || vec ? inner : cols, st, m.esize)};
    c.dst = stored(vec ? 'v' : 'm', m.hasArray(), r, vec ? r : cols, st, m.esize);
    lay(c);
    for (int s = 0; s < 2; ++s) {
        const Operand& o = c.srcs[s];
        appendOperand(c, c.srcs[s], ArgKind::SrcPtr);
        if (o.kind == 'v') intArg(c, ArgKind::Len, o.cols);
        else {
            intArg(c, ArgKind::Width, o.cols);
            intArg(c, ArgKind::Height, o.rows);
        }
    }
    appendOperand(c, c.dst, ArgKind::DstPtr);
    if (m.hasArray()) intArg(c, ArgKind::Count, c.count);
    fillSources<T>(c, rng);
    const Operand A = c.srcs[0], B = c.srcs[1];
    auto want = [&](int k, int i, int j) {
        SumClass sum;
        const int row = vec ? j : i, col = j;
        for (int l = 0; l < inner; ++l) {
            const double a = ka == 't' ? at<T>(c, A, k, l, row) : at<T>(c, A, k, row, l);
            const double b = vec ? at<T>(c, B, k, 0, l) : kb == 't' ? at<T>(c, B, k, col, l) : at<T>(c, B, k, l, col);
            sum.term(a, b);
        }
        return sum.cls();
    };
    callAndClassify<T>(c, want, m.name + " " + std::to_string(r) + "x" + std::to_string(inner) + "x" + std::to_string(cols),
                       specials);
}

// Matrix and vector products: a NaN factor, 0 * inf and inf - inf make the results whose sums hold
// them NaN, an infinity the results it reaches infinite, and nothing else (NaN bytes between the
// elements included) reaches any other result; straight-line orders 3 to 6 and the general loops,
// contiguous, strided and pointer-described.
TEST(EdgeInputs, ProductsCarrySpecialsExactlyToTheResultsThatUseThem) {
    std::mt19937 rng(103);
    int specialResults = 0, walked = 0;
    const int shapes[][3] = {{3, 3, 3}, {4, 4, 4}, {5, 5, 5}, {6, 6, 6}, {7, 7, 7}, {2, 2, 2}, {3, 5, 4}, {9, 11, 10}};
    for (const Member& m : productMembers()) {
        for (Style st : {Style::Packed, Style::Gapped})
            for (const auto& sh : shapes)
                for (int rep = 0; rep < 3; ++rep) {
                    if (m.esize == 4) walkProduct<float>(m, sh[0], sh[1], sh[2], st, rng, &specialResults);
                    else walkProduct<double>(m, sh[0], sh[1], sh[2], st, rng, &specialResults);
                    if (HasFatalFailure()) return;
                }
        ++walked;
    }
    EXPECT_EQ(walked, 132);
    EXPECT_GT(specialResults, 10000);
    // The fixed 4x4 product.
    for (int rep = 0; rep < 200; ++rep) {
        float a[16], b[16], d[17];
        for (float& v : a) v = sprinkled<float>(rng);
        for (float& v : b) v = sprinkled<float>(rng);
        d[16] = 3.0f;
        ASSERT_EQ(omkmMul_mm4x4_32f(a, b, d), omkStsOk);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                SumClass sum;
                for (int l = 0; l < 4; ++l) sum.term(a[i * 4 + l], b[l * 4 + j]);
                ASSERT_EQ(nameOf(classOf(d[i * 4 + j])), std::string(nameOf(sum.cls()))) << i << "," << j;
            }
        ASSERT_EQ(d[16], 3.0f);
    }
}

const std::vector<Member>& reductionMembers() {
#define RED3(op, g)                                                                                        \
    OMKT_MEMBER(omkm##op##_##g##_32f) OMKT_MEMBER(omkm##op##_##g##_32f_P) OMKT_MEMBER(omkm##op##_##g##_64f) \
        OMKT_MEMBER(omkm##op##_##g##_64f_P)
    static const std::vector<Member> all = {
        RED3(DotProduct, vv) ARRAY_GROUP(DotProduct, vav) ARRAY_GROUP(DotProduct, vava)
        RED3(CrossProduct, vv) ARRAY_GROUP(CrossProduct, vav) ARRAY_GROUP(CrossProduct, vva) ARRAY_GROUP(CrossProduct, vava)
        RED3(L2Norm, v) ARRAY_GROUP(L2Norm, va) RED3(FrobNorm, m) ARRAY_GROUP(FrobNorm, ma)
        RED3(Trace, m) ARRAY_GROUP(Trace, ma)
        RED3(Gaxpy, mv) ARRAY_GROUP(Gaxpy, mva) ARRAY_GROUP(Gaxpy, mvav)};
#undef RED3
    return all;
}

// Dot and cross products, norms, trace and Gaxpy over sources with specials, each result checked
// by the class of its formula: a dot product or trace is a sum, a norm a sum of squares (any
// infinity gives +inf, any NaN NaN), cross component i uses only the other two components of each
// source, Gaxpy result i only row i of the matrix, all of x and b_i.
template <class T> void walkReduction(const Member& m, int size, Style st, std::mt19937& rng, int* specials) {
    const auto ops = m.operands();
    Case c;
    c.m = &m;
    c.count = 4;
    const bool arr = m.hasArray();
    const std::string& op = m.op;
    if (op == "DotProduct" || op == "CrossProduct") {
        const int len = op == "CrossProduct" ? 3 : size;
        c.srcs = {stored('v', ops[0].second, 1, len, st, m.esize), stored('v', ops[1].second, 1, len, st, m.esize)};
    } else if (op == "L2Norm") {
        c.srcs = {stored('v', arr, 1, size, st, m.esize)};
    } else if (op == "FrobNorm") {
        c.srcs = {stored('m', arr, size, size + 2, st, m.esize)};
    } else if (op == "Trace") {
        c.srcs = {stored('m', arr, size, size, st, m.esize)};
    } else {  // Gaxpy: A height x width, x of width, b of height; width = size, height = size or size - 2
        const int h = size > 6 ? size - 2 : size;
        const bool bArray = m.group == "mva";
        c.srcs = {stored('m', false, h, size, st, m.esize), stored('v', arr, 1, size, st, m.esize),
                  stored('v', bArray, 1, h, st, m.esize)};
    }
    const bool scalar = op != "CrossProduct" && op != "Gaxpy";
    if (scalar) {
        c.dst = stored('v', false, 1, arr ? c.count : 1, Style::Packed, m.esize);  // consecutive results
    } else {
        const int len = op == "CrossProduct" ? 3 : c.srcs[0].rows;
        c.dst = stored('v', arr, 1, len, st, m.esize);
    }
    lay(c);
    // Arguments in the family's order.
    unsigned char* results = c.arena.at(c.dst.base);
    if (op == "Gaxpy") {
        appendOperand(c, c.srcs[0], ArgKind::SrcPtr);
        intArg(c, ArgKind::Width, c.srcs[0].cols);
        intArg(c, ArgKind::Height, c.srcs[0].rows);
        appendOperand(c, c.srcs[1], ArgKind::SrcPtr);
        intArg(c, ArgKind::Len, c.srcs[1].cols);
        appendOperand(c, c.srcs[2], ArgKind::SrcPtr);
        intArg(c, ArgKind::Len, c.srcs[2].cols);
    } else {
        for (Operand& o : c.srcs) appendOperand(c, o, ArgKind::SrcPtr);
    }
    if (op == "FrobNorm") {
        intArg(c, ArgKind::Width, c.srcs[0].cols);
        intArg(c, ArgKind::Height, c.srcs[0].rows);
    }
    if (op == "Trace") intArg(c, ArgKind::Width, size);
    if (scalar) ptrArg(c, ArgKind::DstPtr, results);
    else appendOperand(c, c.dst, ArgKind::DstPtr);
    if (op == "DotProduct" || op == "L2Norm") intArg(c, ArgKind::Len, size);
    if (arr) intArg(c, ArgKind::Count, c.count);
    fillSources<T>(c, rng);

    auto want = [&](int k, int, int j) -> Cls {
        if (scalar) k = j;  // result k of an array sits at column k of the result row
        const Operand& a = c.srcs[0];
        SumClass sum;
        if (op == "DotProduct") {
            for (int l = 0; l < size; ++l) sum.term(at<T>(c, a, k, 0, l), at<T>(c, c.srcs[1], k, 0, l));
        } else if (op == "CrossProduct") {
            const int p = (j + 1) % 3, q = (j + 2) % 3;
            sum.term(at<T>(c, a, k, 0, p), at<T>(c, c.srcs[1], k, 0, q));
            sum.term(at<T>(c, a, k, 0, q), -at<T>(c, c.srcs[1], k, 0, p));
        } else if (op == "L2Norm" || op == "FrobNorm") {
            for (int r = 0; r < a.rows; ++r)
                for (int l = 0; l < a.cols; ++l) {
                    const double v = at<T>(c, a, k, r, l);
                    sum.term(v, v);
                }
        } else if (op == "Trace") {
            for (int l = 0; l < size; ++l) sum.add(at<T>(c, a, k, l, l));
        } else {
            for (int l = 0; l < a.cols; ++l) sum.term(at<T>(c, a, k, j, l), at<T>(c, c.srcs[1], k, 0, l));
            sum.add(at<T>(c, c.srcs[2], k, 0, j));
        }
        return sum.cls();
    };
    callAndClassify<T>(c, want, m.name + " size " + std::to_string(size) + (st == Style::Packed ? " packed" : " gapped"),
                       specials);
}

TEST(EdgeInputs, ReductionsAndGaxpyCarrySpecialsExactlyToTheResultsThatUseThem) {
    std::mt19937 rng(104);
    int specialResults = 0, walked = 0;
    for (const Member& m : reductionMembers()) {
        for (Style st : {Style::Packed, Style::Gapped})
            for (int size : {1, 2, 3, 4, 5, 6, 7, 9, 19})
                for (int rep = 0; rep < 4; ++rep) {
                    if (m.op == "CrossProduct" && size != 3) continue;
                    if (m.op == "Gaxpy" && size < 2) continue;
                    if (m.esize == 4) walkReduction<float>(m, size, st, rng, &specialResults);
                    else walkReduction<double>(m, size, st, rng, &specialResults);
                    if (HasFatalFailure()) return;
                }
        ++walked;
    }
    EXPECT_EQ(walked, 16 + 22 + 10 + 10 + 10 + 16);
    EXPECT_GT(specialResults, 3000);
}

// The fixed-size dot and cross products by class, the same way.
TEST(EdgeInputs, FixedSizeDotAndCrossProductsCarrySpecials) {
    std::mt19937 rng(105);
    for (int rep = 0; rep < 500; ++rep) {
        float a[4], b[4], e[4], d[5];
        for (int i = 0; i < 4; ++i) {
            a[i] = sprinkled<float>(rng);
            b[i] = sprinkled<float>(rng);
            e[i] = sprinkled<float>(rng);
        }
        using Dot = OmkStatus (*)(const Omk32f*, const Omk32f*, Omk32f*);
        const std::pair<Dot, int> dots[] = {{omkmDotProduct_v2_32f, 2}, {omkmDotProduct_v3_32f, 3}, {omkmDotProduct_v4_32f, 4}};
        for (auto [fn, n] : dots) {
            SumClass sum;
            for (int l = 0; l < n; ++l) sum.term(a[l], b[l]);
            ASSERT_EQ(fn(a, b, d), omkStsOk);
            ASSERT_EQ(nameOf(classOf(d[0])), std::string(nameOf(sum.cls()))) << "dot of " << n;
        }
        ASSERT_EQ(omkmCrossProduct_v3_32f(a, b, d), omkStsOk);
        for (int j = 0; j < 3; ++j) {
            const int p = (j + 1) % 3, q = (j + 2) % 3;
            SumClass sum;
            sum.term(a[p], b[q]);
            sum.term(a[q], -b[p]);
            ASSERT_EQ(nameOf(classOf(d[j])), std::string(nameOf(sum.cls()))) << "cross component " << j;
        }
        // Result j of the 4-vector cross product multiplies the components of a other than a_j by
        // minors of b and c made of their components other than j: a NaN among those makes it NaN.
        ASSERT_EQ(omkmCrossProduct_v4_32f(a, b, e, d), omkStsOk);
        for (int j = 0; j < 4; ++j) {
            bool touched = false;
            for (int i = 0; i < 4; ++i) touched |= i != j && (std::isnan(a[i]) || std::isnan(b[i]) || std::isnan(e[i]));
            if (touched) ASSERT_TRUE(std::isnan(d[j])) << "4-vector cross component " << j;
        }
    }
}

// Reductions overflow and underflow in the element type, without scaling: squares of 1e20f are
// infinite and squares of 1e-30f are zero, so those norms are +inf and 0 (and likewise 1e200 and
// 1e-200 in double); a dot product of such values is +inf; a trace of subnormals is exact.
TEST(EdgeInputs, ReductionsOverflowAndUnderflowUnscaled) {
    for (int len : {2, 3, 4, 5, 6, 9, 19}) {
        for (int stride : {1, 2}) {
            std::vector<float> hugeF(size_t(len) * stride, 1e20f), tinyF(size_t(len) * stride, 1e-30f);
            std::vector<double> hugeD(size_t(len) * stride, 1e200), tinyD(size_t(len) * stride, 1e-200);
            float f = -1;
            double d = -1;
            ASSERT_EQ(omkmL2Norm_v_32f(hugeF.data(), 4 * stride, &f, len), omkStsOk);
            EXPECT_EQ(f, std::numeric_limits<float>::infinity()) << len;
            ASSERT_EQ(omkmL2Norm_v_32f(tinyF.data(), 4 * stride, &f, len), omkStsOk);
            EXPECT_EQ(f, 0.0f) << len;
            ASSERT_EQ(omkmL2Norm_v_64f(hugeD.data(), 8 * stride, &d, len), omkStsOk);
            EXPECT_EQ(d, std::numeric_limits<double>::infinity()) << len;
            ASSERT_EQ(omkmL2Norm_v_64f(tinyD.data(), 8 * stride, &d, len), omkStsOk);
            EXPECT_EQ(d, 0.0) << len;
            ASSERT_EQ(omkmFrobNorm_m_32f(tinyF.data(), 4 * stride * len, 4 * stride, len, 1, &f), omkStsOk);
            EXPECT_EQ(f, 0.0f) << len;
            ASSERT_EQ(omkmFrobNorm_m_64f(hugeD.data(), 8 * stride * len, 8 * stride, len, 1, &d), omkStsOk);
            EXPECT_EQ(d, std::numeric_limits<double>::infinity()) << len;
            ASSERT_EQ(omkmDotProduct_vv_32f(hugeF.data(), 4 * stride, hugeF.data(), 4 * stride, &f, len), omkStsOk);
            EXPECT_EQ(f, std::numeric_limits<float>::infinity()) << len;
            ASSERT_EQ(omkmDotProduct_vv_64f(tinyD.data(), 8 * stride, tinyD.data(), 8 * stride, &d, len), omkStsOk);
            EXPECT_EQ(d, 0.0) << len;
        }
    }
    // A scaled norm would have given these.
    ASSERT_NE(std::hypot(1e20f, 1e20f), std::numeric_limits<float>::infinity());
    ASSERT_NE(std::hypot(1e-30f, 1e-30f), 0.0f);

    // Traces of subnormals: k * denorm_min exactly; of max: infinity; of max and -max: 0.
    for (int n : {1, 2, 3, 4, 5, 6, 7}) {
        std::vector<float> a(size_t(n) * n, 0.0f);
        for (int i = 0; i < n; ++i) a[size_t(i) * n + i] = std::numeric_limits<float>::denorm_min() * float(i + 1);
        float t = -1;
        ASSERT_EQ(omkmTrace_m_32f(a.data(), 4 * n, 4, n, &t), omkStsOk);
        EXPECT_EQ(t, std::numeric_limits<float>::denorm_min() * float(n * (n + 1) / 2)) << n;
        std::vector<double> b(size_t(n) * n, std::numeric_limits<double>::quiet_NaN());
        for (int i = 0; i < n; ++i) b[size_t(i) * n + i] = std::numeric_limits<double>::max();
        double u = 0;
        ASSERT_EQ(omkmTrace_m_64f(b.data(), 8 * n, 8, n, &u), omkStsOk);
        EXPECT_EQ(u, n == 1 ? std::numeric_limits<double>::max() : std::numeric_limits<double>::infinity()) << n;
    }
}


// ---- solvers ----

template <class T> using Mat = std::vector<T>;  // row-major

template <class T> Mat<T> filled(int n, T v) { return Mat<T>(size_t(n) * n, v); }
template <class T> bool allNaN(const T* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (!std::isnan(p[i])) return false;
    return true;
}
template <class T> bool allFinite(const T* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (!std::isfinite(p[i])) return false;
    return true;
}

template <class T>
using LUDecompFn = OmkStatus (*)(const T*, int, int, int*, T*, int, int, int);
template <class T>
using LUSolveFn = OmkStatus (*)(const T*, int, int, const int*, const T*, int, T*, int, int);

// LU: a NaN pivot passes its test, so an all-NaN matrix factors to NaN with omkStsOk and the index
// array stays the identity (no NaN is ever strictly greater). An infinite entry is the largest
// pivot: its row comes first, U(0, 0) is +inf and the multipliers of column 0 are zeros (x / inf),
// so the rest factors as if column 0 were not there. A zero diagonal in the back substitution
// gives infinities and NaN by the recurrences, with omkStsOk.
template <class T> void luEdges(LUDecompFn<T> decomp, LUSolveFn<T> solve) {
    const int es = sizeof(T);
    for (int n : {1, 2, 3, 4, 5, 6, 7, 9}) {
        for (int gap : {1, 2}) {  // contiguous and strided elements
            const int s1 = n * gap * es, s2 = gap * es;
            const size_t len = size_t(n) * n * gap;
            Mat<T> a(len, std::numeric_limits<T>::quiet_NaN()), lu(len, T(7));
            std::vector<int> p(size_t(n), -1);
            ASSERT_EQ(decomp(a.data(), s1, s2, p.data(), lu.data(), s1, s2, n), omkStsOk) << n;
            for (int i = 0; i < n; ++i) {
                EXPECT_EQ(p[i], i) << n;
                for (int j = 0; j < n; ++j) ASSERT_TRUE(std::isnan(lu[size_t(i) * n * gap + j * gap])) << n;
            }

            // +inf in the last row of column 0; the super-diagonal dominates the rest.
            std::mt19937 rng(n);
            std::uniform_real_distribution<double> u(-1, 1);
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) a[size_t(i) * n * gap + j * gap] = T(j == i + 1 ? 4 + u(rng) : u(rng));
            a[size_t(n - 1) * n * gap] = std::numeric_limits<T>::infinity();
            ASSERT_EQ(decomp(a.data(), s1, s2, p.data(), lu.data(), s1, s2, n), omkStsOk) << n;
            auto LU = [&](int r, int c) { return lu[size_t(r) * n * gap + c * gap]; };
            EXPECT_EQ(p[0], n - 1) << n;
            EXPECT_EQ(LU(p[0], 0), std::numeric_limits<T>::infinity()) << n;
            for (int k = 1; k < n; ++k) {
                EXPECT_EQ(LU(p[k], 0), T(0)) << n << ": multiplier of row " << p[k];
                for (int j = 1; j < n; ++j) EXPECT_TRUE(std::isfinite(LU(p[k], j))) << n;
            }
        }
        // Back substitution with the identity order, unit L and U = I except U(n-1, n-1) = 0 and a
        // last column of ones: x[n-1] = 1/0 = +inf, and x[i] = (1 - (0 * x[i+1] + ... + x[n-1])) / 1,
        // where a zero times an infinite x is NaN.
        Mat<T> f = filled<T>(n, T(0));
        std::vector<int> p(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            p[i] = i;
            f[size_t(i) * n + i] = T(1);
            f[size_t(i) * n + n - 1] = T(1);
        }
        f[size_t(n - 1) * n + n - 1] = T(0);
        std::vector<T> b(size_t(n), T(1)), x(size_t(n) + 1, T(5));
        ASSERT_EQ(solve(f.data(), n * es, es, p.data(), b.data(), es, x.data(), es, n), omkStsOk) << n;
        std::vector<double> want(static_cast<size_t>(n));
        for (int i = n - 1; i >= 0; --i) {
            double acc = 1;
            for (int j = i + 1; j < n; ++j) acc -= double(f[size_t(i) * n + j]) * want[j];
            want[i] = acc / double(f[size_t(i) * n + i]);
        }
        for (int i = 0; i < n; ++i) EXPECT_EQ(nameOf(classOf(x[i])), std::string(nameOf(classOf(want[i])))) << n << " x" << i;
        EXPECT_EQ(x[n], T(5));
    }
}

TEST(EdgeInputs, LUFactorsNaNAndInfinityAndSolvesWithAZeroPivot) {
    luEdges<float>(omkmLUDecomp_m_32f, omkmLUBackSubst_mv_32f);
    luEdges<double>(omkmLUDecomp_m_64f, omkmLUBackSubst_mv_64f);
}

// Cholesky tests 0 >= d: -inf is not positive definite (nothing written for the first row); a NaN
// pivot passes and everything from it on is NaN; +inf passes, and R = 1/sqrt(inf) is 0 in 64f, so
// column 0 of L is zero and the rest factors alone, while the 32f refinement
// r0 * -0.5 * (d * r0 * r0 - 3) of r0 = rsqrt(inf) = 0 meets inf * 0 and gives NaN.
TEST(EdgeInputs, CholeskyOnInfinitiesAndNaN) {
    for (int n : {1, 2, 3, 4, 5, 6, 7, 9}) {
        Mat<double> a = filled<double>(n, 0.25);
        for (int i = 0; i < n; ++i) a[size_t(i) * n + i] = n;
        const double inf = std::numeric_limits<double>::infinity();

        Mat<double> d = filled<double>(n, 9.0);
        a[0] = -inf;
        ASSERT_EQ(omkmCholeskyDecomp_m_64f(a.data(), 8 * n, 8, d.data(), 8 * n, 8, n), omkStsNotPosDefinite) << n;
        for (double v : d) ASSERT_EQ(v, 9.0) << n << ": written before the failing row";

        a[0] = std::numeric_limits<double>::quiet_NaN();
        ASSERT_EQ(omkmCholeskyDecomp_m_64f(a.data(), 8 * n, 8, d.data(), 8 * n, 8, n), omkStsOk) << n;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j <= i; ++j) ASSERT_TRUE(std::isnan(d[size_t(i) * n + j])) << n << " " << i << "," << j;

        a[0] = inf;
        ASSERT_EQ(omkmCholeskyDecomp_m_64f(a.data(), 8 * n, 8, d.data(), 8 * n, 8, n), omkStsOk) << n;
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(d[size_t(i) * n], 0.0) << n << ": row " << i;
            for (int j = 1; j <= i; ++j) EXPECT_TRUE(std::isfinite(d[size_t(i) * n + j])) << n;
        }
        // The rest is the factor of the trailing matrix alone.
        if (n > 1) {
            Mat<double> t(size_t(n - 1) * (n - 1)), td(t.size(), 9.0);
            for (int i = 1; i < n; ++i)
                for (int j = 1; j < n; ++j) t[size_t(i - 1) * (n - 1) + j - 1] = a[size_t(i) * n + j];
            ASSERT_EQ(omkmCholeskyDecomp_m_64f(t.data(), 8 * (n - 1), 8, td.data(), 8 * (n - 1), 8, n - 1), omkStsOk);
            for (int i = 1; i < n; ++i)
                for (int j = 1; j <= i; ++j)
                    EXPECT_NEAR(d[size_t(i) * n + j], td[size_t(i - 1) * (n - 1) + j - 1], 1e-12) << n;
        }

        Mat<float> af(a.begin(), a.end()), df = filled<float>(n, 9.0f);
        af[0] = std::numeric_limits<float>::infinity();
        ASSERT_EQ(omkmCholeskyDecomp_m_32f(af.data(), 4 * n, 4, df.data(), 4 * n, 4, n), omkStsOk) << n;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j <= i; ++j) ASSERT_TRUE(std::isnan(df[size_t(i) * n + j])) << n << " " << i << "," << j;
        af[0] = -std::numeric_limits<float>::infinity();
        ASSERT_EQ(omkmCholeskyDecomp_m_32f(af.data(), 4 * n, 4, df.data(), 4 * n, 4, n), omkStsNotPosDefinite) << n;
    }
    // The witness of the 32f case: the processor's estimate of 1/sqrt(inf) is 0.
    const float r0 = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(std::numeric_limits<float>::infinity())));
    ASSERT_EQ(r0, 0.0f);
}

// QR: a NaN column passes the tolerance test (|NaN| < eps is false) and spreads only where the
// reflections carry it: with column 1 NaN, R(0, 0), R(0, 2) and the first Householder vector stay
// finite and everything else of columns 1 and 2 is NaN. A column of subnormals has a sum of squares
// of 0: omkStsDivByZero, with the exact copy (subnormals kept) in the destination.
TEST(EdgeInputs, QROnNaNAndSubnormalColumns) {
    const int w = 3, h = 5;
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    Mat<float> a(size_t(w) * h), d(a.size()), buf(h);
    for (float& v : a) v = float(u(rng));
    for (int i = 0; i < h; ++i) a[size_t(i) * w + 1] = std::numeric_limits<float>::quiet_NaN();
    ASSERT_EQ(omkmQRDecomp_m_32f(a.data(), 4 * w, 4, buf.data(), d.data(), 4 * w, 4, w, h), omkStsOk);
    auto D = [&](int i, int j) { return d[size_t(i) * w + j]; };
    EXPECT_TRUE(std::isfinite(D(0, 0)));
    EXPECT_TRUE(std::isfinite(D(0, 2)));
    for (int i = 1; i < h; ++i) EXPECT_TRUE(std::isfinite(D(i, 0))) << "v(" << i << ")";
    for (int i = 0; i < h; ++i) EXPECT_TRUE(std::isnan(D(i, 1))) << i;
    for (int i = 1; i < h; ++i) EXPECT_TRUE(std::isnan(D(i, 2))) << i;

    for (int n : {1, 2, 3, 4, 5, 6, 7}) {
        Mat<float> s(size_t(n) * n), t(s.size(), 9.0f), b(static_cast<size_t>(n));
        for (float& v : s) v = float(u(rng));
        for (int i = 0; i < n; ++i) s[size_t(i) * n] = std::numeric_limits<float>::denorm_min() * float(3 + i);
        const OmkStatus st = omkmQRDecomp_m_32f(s.data(), 4 * n, 4, b.data(), t.data(), 4 * n, 4, n, n);
        if (n == 1) {  // no reflection: the copy, omkStsOk
            EXPECT_EQ(st, omkStsOk);
        } else {
            EXPECT_EQ(st, omkStsDivByZero) << n;
        }
        EXPECT_EQ(0, std::memcmp(s.data(), t.data(), s.size() * 4)) << n << ": the destination is not the exact copy";
    }
}

// Determinants: the closed forms of orders 3 and 4 have no tolerance, so NaN gives NaN and a
// product of small diagonals is the exact subnormal 2^-130 (32f) or 2^-1090 (64f); the elimination
// of orders 1, 2, 5, 6, 7 and more stores 0 when the last pivot is not above the tolerance, which a
// NaN pivot is not. Inverses: order 1 is singular unless |a| > t, so NaN is singular and nothing is
// written; every other order of an all-NaN matrix passes its tests and gives NaN with omkStsOk.
TEST(EdgeInputs, DeterminantsAndInversesOnNaNAndSubnormals) {
    for (int n : {1, 2, 3, 4, 5, 6, 7, 9}) {
        Mat<float> nanF = filled<float>(n, std::numeric_limits<float>::quiet_NaN()), bufF(size_t(n) * n + n);
        Mat<double> nanD = filled<double>(n, std::numeric_limits<double>::quiet_NaN()), bufD(size_t(n) * n + n);
        float df = 1;
        double dd = 1;
        ASSERT_EQ(omkmDet_m_32f(nanF.data(), 4 * n, 4, n, bufF.data(), &df), omkStsOk) << n;
        ASSERT_EQ(omkmDet_m_64f(nanD.data(), 8 * n, 8, n, bufD.data(), &dd), omkStsOk) << n;
        if (n == 3 || n == 4) {
            EXPECT_TRUE(std::isnan(df)) << n;
            EXPECT_TRUE(std::isnan(dd)) << n;
        } else {
            EXPECT_EQ(df, 0.0f) << n;
            EXPECT_EQ(dd, 0.0) << n;
        }

        Mat<float> invF = filled<float>(n, 3.0f);
        Mat<double> invD = filled<double>(n, 3.0);
        const OmkStatus sf = omkmInvert_m_32f(nanF.data(), 4 * n, 4, bufF.data(), invF.data(), 4 * n, 4, n);
        const OmkStatus sd = omkmInvert_m_64f(nanD.data(), 8 * n, 8, bufD.data(), invD.data(), 8 * n, 8, n);
        if (n == 1) {
            EXPECT_EQ(sf, omkStsSingular);
            EXPECT_EQ(sd, omkStsSingular);
            EXPECT_EQ(invF[0], 3.0f);
            EXPECT_EQ(invD[0], 3.0);
        } else {
            EXPECT_EQ(sf, omkStsOk) << n;
            EXPECT_EQ(sd, omkStsOk) << n;
            EXPECT_TRUE(allNaN(invF.data(), invF.size())) << n;
            EXPECT_TRUE(allNaN(invD.data(), invD.size())) << n;
        }
    }
    // Subnormal determinants of the closed forms, exactly.
    Mat<float> f3 = filled<float>(3, 0.0f), f4 = filled<float>(4, 0.0f);
    f3[0] = f3[4] = std::ldexp(1.0f, -60);
    f3[8] = std::ldexp(1.0f, -10);
    f4[0] = f4[5] = std::ldexp(1.0f, -60);
    f4[10] = f4[15] = std::ldexp(1.0f, -5);
    Mat<double> d3 = filled<double>(3, 0.0);
    d3[0] = d3[4] = std::ldexp(1.0, -540);
    d3[8] = std::ldexp(1.0, -10);
    float df = 0, df4 = 0, dm4 = 0, buf[32];
    double dd = 0, bufD[16];
    ASSERT_EQ(omkmDet_m_32f(f3.data(), 12, 4, 3, buf, &df), omkStsOk);
    ASSERT_EQ(omkmDet_m_32f(f4.data(), 16, 4, 4, buf, &df4), omkStsOk);
    ASSERT_EQ(omkmDet_m4_32f(f4.data(), &dm4), omkStsOk);
    ASSERT_EQ(omkmDet_m_64f(d3.data(), 24, 8, 3, bufD, &dd), omkStsOk);
    EXPECT_EQ(df, std::ldexp(1.0f, -130));
    EXPECT_EQ(df4, std::ldexp(1.0f, -130));
    EXPECT_EQ(dm4, std::ldexp(1.0f, -130));
    EXPECT_EQ(dd, std::ldexp(1.0, -1090));
    ASSERT_LT(std::ldexp(1.0f, -130), std::numeric_limits<float>::min());  // subnormal indeed

    // The fixed 4x4 inverse of NaN: its determinant is NaN, not below 2^-119, so it is stored and
    // every element is NaN.
    Mat<float> nan4 = filled<float>(4, std::numeric_limits<float>::quiet_NaN()), inv4 = filled<float>(4, 1.0f);
    float det = 0;
    ASSERT_EQ(omkmInvert_m4_32f(nan4.data(), &det, inv4.data()), omkStsOk);
    EXPECT_TRUE(std::isnan(det));
    EXPECT_TRUE(allNaN(inv4.data(), 16));
    ASSERT_EQ(omkmDet_m4_32f(nan4.data(), &det), omkStsOk);
    EXPECT_TRUE(std::isnan(det));
}

// ---- eigenproblems ----

// Symmetric: a NaN 1x1 matrix is its own eigenvalue (no test for n = 1); a NaN 2x2 matrix passes
// the |det| <= eps test and gives NaN values with omkStsOk. A diagonal matrix of subnormals has a
// product of eigenvalues of 0: omkStsSingular, with the diagonal unsorted in the values in both
// iteration directions. A diagonal matrix near overflow has an infinite product, which is not
// singular: the values come sorted. Infinite entries end within the sweep limit.
template <class T> void symEdges() {
    using L = std::numeric_limits<T>;
    const int es = sizeof(T);
    T values[16], vectors[256], buf[256];
    {
        Deadline watch("symmetric eigenproblem on special input");
        T one = L::quiet_NaN();
        if constexpr (sizeof(T) == 4) {
            ASSERT_EQ(omkmEigenValuesVectorsSym_m_32f(&one, es, es, buf, vectors, es, es, values, 1), omkStsOk);
        } else {
            ASSERT_EQ(omkmEigenValuesVectorsSym_m_64f(&one, es, es, buf, vectors, es, es, values, 1), omkStsOk);
        }
        EXPECT_TRUE(std::isnan(values[0]));
        EXPECT_EQ(vectors[0], T(1));

        auto run = [&](const Mat<T>& a, int n) {
            if constexpr (sizeof(T) == 4)
                return omkmEigenValuesVectorsSym_m_32f(a.data(), n * es, es, buf, vectors, n * es, es, values, n);
            else
                return omkmEigenValuesVectorsSym_m_64f(a.data(), n * es, es, buf, vectors, n * es, es, values, n);
        };
        ASSERT_EQ(run(filled<T>(2, L::quiet_NaN()), 2), omkStsOk);
        EXPECT_TRUE(std::isnan(values[0]) && std::isnan(values[1]));

        // Subnormal diagonals, in both directions (|d[n-1]| > |d[0]| takes QL).
        const int lowExp = sizeof(T) == 4 ? -140 : -1060;
        for (int n : {3, 4, 5, 7}) {
            for (bool ascending : {true, false}) {
                Mat<T> a = filled<T>(n, T(0));
                for (int i = 0; i < n; ++i) a[size_t(i) * n + i] = std::ldexp(T(1), lowExp + (ascending ? i : n - 1 - i));
                ASSERT_EQ(run(a, n), omkStsSingular) << n;
                for (int i = 0; i < n; ++i) EXPECT_EQ(values[i], a[size_t(i) * n + i]) << n << " value " << i;
            }
            // Near overflow: sorted, the permuted unit vectors.
            Mat<T> a = filled<T>(n, T(0));
            for (int i = 0; i < n; ++i) a[size_t(i) * n + i] = L::max() / T(n + 1) * T(1 + (i * (n - 1)) % n);
            ASSERT_EQ(run(a, n), omkStsOk) << n;
            for (int i = 0; i + 1 < n; ++i) EXPECT_GT(values[i], values[i + 1]) << n;
            for (int j = 0; j < n; ++j) {
                int ones = 0;
                for (int i = 0; i < n; ++i) {
                    const T v = std::fabs(vectors[size_t(i) * n + j]);
                    ones += v == T(1);
                    if (v == T(1)) EXPECT_EQ(a[size_t(i) * n + i], values[j]) << n;
                    else EXPECT_EQ(v, T(0)) << n;
                }
                EXPECT_EQ(ones, 1) << n << " column " << j;
            }
            // Infinities: any status the family documents, and a return.
            Mat<T> inf = filled<T>(n, T(0.5));
            inf[size_t(n / 2) * n + n / 2] = L::infinity();
            inf[1] = inf[n] = -L::infinity();
            const OmkStatus st = run(inf, n);
            EXPECT_TRUE(st == omkStsOk || st == omkStsNotConverged || st == omkStsSingular) << n << " " << st;
        }
    }
}

TEST(EdgeInputs, SymmetricEigenproblemOnSpecialInput) {
    symEdges<float>();
    symEdges<double>();
}

// General: triangular matrices need no QR step, so the eigenvalues are the diagonal at its own
// positions with zero imaginary parts, for subnormal diagonals and for diagonals next to overflow
// alike; infinities and NaN end at the latest at the iteration limit.
template <class T> void generalEdges() {
    using L = std::numeric_limits<T>;
    const int es = sizeof(T);
    Deadline watch("general eigenproblem on special input");
    for (int n : {2, 3, 4, 5, 6, 7, 9}) {
        Mat<T> re(static_cast<size_t>(n)), im(static_cast<size_t>(n)), vl(size_t(n) * n), vr(size_t(n) * n);
        int bytes = 0;
        ASSERT_EQ(sizeof(T) == 4 ? omkmEigenValuesVectorsGetBufSize_32f(n, &bytes) : omkmEigenValuesVectorsGetBufSize_64f(n, &bytes),
                  omkStsOk);
        std::vector<T> buf(size_t(bytes) / es);
        auto run = [&](const Mat<T>& a) {
            if constexpr (sizeof(T) == 4)
                return omkmEigenValuesVectors_m_32f(a.data(), n * es, es, vl.data(), n * es, es, vr.data(), n * es, es,
                                                    re.data(), im.data(), n, buf.data());
            else
                return omkmEigenValuesVectors_m_64f(a.data(), n * es, es, vl.data(), n * es, es, vr.data(), n * es, es,
                                                    re.data(), im.data(), n, buf.data());
        };
        const T scales[] = {std::ldexp(T(1), sizeof(T) == 4 ? -140 : -1060), L::max() / T(64)};
        for (T scale : scales) {
            Mat<T> a = filled<T>(n, T(0));
            for (int i = 0; i < n; ++i)
                for (int j = i; j < n; ++j) a[size_t(i) * n + j] = scale * T(j == i ? 1 + (i * (n - 1)) % n : 1);
            ASSERT_EQ(run(a), omkStsOk) << n << " scale " << scale;
            for (int i = 0; i < n; ++i) {
                EXPECT_EQ(re[i], a[size_t(i) * n + i]) << n << " scale " << scale << " value " << i;
                EXPECT_EQ(im[i], T(0)) << n;
            }
        }
        Mat<T> bad = filled<T>(n, T(0.25));
        bad[size_t(n - 1) * n] = L::infinity();
        const OmkStatus st = run(bad);
        EXPECT_TRUE(st == omkStsOk || st == omkStsNotConverged) << n << " " << st;
        bad[0] = L::quiet_NaN();
        const OmkStatus sn = run(bad);
        EXPECT_TRUE(sn == omkStsOk || sn == omkStsNotConverged) << n << " " << sn;
    }
}

TEST(EdgeInputs, GeneralEigenproblemOnSpecialInput) {
    generalEdges<float>();
    generalEdges<double>();
}

// ---- graphics ----

// The vector helpers do not scale: the square of 1e-30f is 0, so its length is 0 and normalising
// divides by zero (x / 0 = inf, 0 / 0 = NaN); the square of 1e20f is infinite. Interpolations are
// fused formulas that touch both end points, so equal infinite end points give NaN (inf - inf) at
// every parameter; 0 * inf in MulC is NaN; a rotation by NaN is NaN exactly in its sine and cosine
// entries and keeps its zeros and ones.
TEST(EdgeInputs, GraphicsHelpersFollowTheirFormulasOnSpecialInput) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    using Unary = OmkStatus (*)(const Omk32f*, Omk32f*);
    const struct { Unary len, sqr, norm; int n; } sizes[] = {
        {omkmLen_v2_32f, omkmLenSqr_v2_32f, omkmNormalize_v2_32f, 2},
        {omkmLen_v3_32f, omkmLenSqr_v3_32f, omkmNormalize_v3_32f, 3},
        {omkmLen_v4_32f, omkmLenSqr_v4_32f, omkmNormalize_v4_32f, 4}};
    for (const auto& z : sizes) {
        float tiny[4] = {1e-30f, 0, 0, 0}, huge[4] = {0, 1e20f, 0, 0}, out[5];
        out[z.n] = 2.0f;
        ASSERT_EQ(z.len(tiny, out), omkStsOk);
        EXPECT_EQ(out[0], 0.0f) << z.n;
        ASSERT_EQ(z.len(huge, out), omkStsOk);
        EXPECT_EQ(out[0], inf) << z.n;
        ASSERT_EQ(z.sqr(huge, out), omkStsOk);
        EXPECT_EQ(out[0], inf) << z.n;
        ASSERT_EQ(z.norm(tiny, out), omkStsOk);
        EXPECT_EQ(out[0], inf) << z.n;
        for (int i = 1; i < z.n; ++i) EXPECT_TRUE(std::isnan(out[i])) << z.n << " " << i;
        EXPECT_EQ(out[z.n], 2.0f) << z.n;
    }

    float v1[4] = {inf, 1, -inf, 2}, v2[4] = {inf, 3, -inf, nan}, v3[4] = {0, 0, 0, 0}, out[4];
    for (float s : {0.0f, 0.5f, 1.0f}) {
        ASSERT_EQ(omkmInterpolationLinear_v4_32f(v1, v2, s, out), omkStsOk);
        EXPECT_TRUE(std::isnan(out[0]) && std::isnan(out[2]) && std::isnan(out[3])) << s;
        EXPECT_EQ(out[1], std::fma(2.0f, s, 1.0f)) << s;
        ASSERT_EQ(omkmBaryCentric_v4_32f(v1, v2, v3, s, 0.25f, out), omkStsOk);
        EXPECT_TRUE(std::isnan(out[0]) && std::isnan(out[2]) && std::isnan(out[3])) << s;
        EXPECT_TRUE(std::isfinite(out[1])) << s;
    }
    float zeros[4] = {0, -0.0f, 1, inf};
    ASSERT_EQ(omkmMulC_v4_32f(zeros, inf, out), omkStsOk);
    EXPECT_TRUE(std::isnan(out[0]) && std::isnan(out[1]));
    EXPECT_EQ(out[2], inf);
    EXPECT_EQ(out[3], inf);

    // Rotations about x, y and z by NaN: ones and zeros where the builder writes constants.
    using Rot = OmkStatus (*)(Omk32f, Omk32f*);
    const std::pair<Rot, int> rotations[] = {{omkmRotationX_m4_32f, 0}, {omkmRotationY_m4_32f, 1}, {omkmRotationZ_m4_32f, 2}};
    for (auto [fn, axis] : rotations) {
        float m[16];
        ASSERT_EQ(fn(nan, m), omkStsOk);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                const bool trig = i != axis && j != axis && i < 3 && j < 3;
                if (trig) EXPECT_TRUE(std::isnan(m[i * 4 + j])) << axis << ": " << i << "," << j;
                else EXPECT_EQ(m[i * 4 + j], i == j ? 1.0f : 0.0f) << axis << ": " << i << "," << j;
            }
    }
}

// Point transforms: a NaN coordinate reaches all four lanes (x * row 0 touches every column), a
// NaN in the translation row only its own lane; in the checked array form a NaN vector spoils its
// own result and no other (serial and over the parallel driver).
TEST(EdgeInputs, PointTransformsKeepSpecialsToTheLanesThatUseThem) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    float m[16];
    for (int i = 0; i < 16; ++i) m[i] = float(i % 5) - 1.5f;
    float p[3] = {nan, 1, 2}, out[4];
    ASSERT_EQ(omkmAffineTransform_m4v3_32f(m, p, out), omkStsOk);
    for (float v : out) EXPECT_TRUE(std::isnan(v));
    p[0] = 0.5f;
    m[13] = nan;  // row 3 (translation), column 1
    ASSERT_EQ(omkmAffineTransform_m4v3_32f(m, p, out), omkStsOk);
    for (int j = 0; j < 4; ++j) EXPECT_EQ(std::isnan(out[j]), j == 1) << j;
    m[13] = 1.0f;

    for (int budget : {1, 3}) {
        probe::Budget b(budget);
        const int count = 200;  // 6 * count is above the serial limit of 784
        std::vector<float> v(size_t(count) * 4, 0.5f), d(size_t(count) * 4, 0.0f);
        for (int k = 0; k < count; k += 37) v[size_t(k) * 4 + k % 4] = nan;
        ASSERT_EQ(omkmAffineTransform3DH_mva_32f(m, 16, 4, v.data(), 16, 4, d.data(), 16, 4, count), omkStsOk);
        EXPECT_EQ(probe::calls(), budget == 1 ? 1 : 2);
        for (int k = 0; k < count; ++k) {
            const bool spoiled = k % 37 == 0;
            if (spoiled) EXPECT_FALSE(allFinite(&d[size_t(k) * 4], 4)) << k;
            else EXPECT_TRUE(allFinite(&d[size_t(k) * 4], 4)) << k;
        }
    }
}

}  // namespace
