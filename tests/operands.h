// Operands for the library's tests, built in guarded memory in all three descriptions.
//
// An Arena is one byte buffer filled with a marker. Every operand object is laid into it with byte
// strides that may leave gaps; the standard, layout (_L) and pointer (_P) descriptions of an operand
// all address the same element positions, so one reference result serves every description, and
// after a call every byte that is not a destination element must still hold what it held before.
//
// A call is made from an argument list (ArgList) built in the library's argument order and passed
// to the exported function through its real signature, so one test can walk every member.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "omkm.h"

namespace testing_omk {

enum class Desc { Std, L, P };

// ---- guarded memory ----
struct Arena {
    static constexpr unsigned char kMarker = 0xA5;
    std::vector<unsigned char> bytes;
    size_t used = 64;  // leading guard

    size_t reserve(size_t n) {
        const size_t at = (used + 63) & ~size_t(63);
        used = at + n + 64;  // trailing guard after every block
        return at;
    }
    void allocate() { bytes.assign(used, kMarker); }
    unsigned char* at(size_t off) { return bytes.data() + off; }
};

// ---- one operand ----
// kind: 'm' matrix, 't' matrix read transposed, 'v' vector, 'c' constant; array: one per object.
// The stored object has `rows` rows of `cols` elements (a transposed operand stores width rows of
// height). Element (r, c) of stored object k is at base + k*s0 + r*s1 + c*s2 (+ the ROI shift,
// which the _L and _P descriptions carry in their pointers).
struct Operand {
    char kind = 'm';
    bool array = false;
    int esize = 4;
    int rows = 1, cols = 1;
    int32_t s0 = 0, s1 = 0, s2 = 0, roi = 0;
    size_t base = 0;
    double val = 0;  // single constant

    // Byte offset in the arena of element (i, j) of object k, as the operation uses it.
    size_t offset(int k, int i, int j) const {
        const int r = kind == 't' ? j : i, c = kind == 't' ? i : j;
        return base + ptrdiff_t(array ? k : 0) * s0 + ptrdiff_t(r) * s1 + ptrdiff_t(c) * s2;
    }
};

// Layout styles for the element positions of an operand.
enum class Style { Packed, PaddedRows, Gapped };

// Strides of an operand of `rows` x `cols` stored elements in a given style.
inline void layOut(Operand& o, Style st, int esize) {
    o.esize = esize;
    const int gap = st == Style::Gapped ? 2 : 1;
    o.s2 = gap * esize;
    const int rowBytes = o.cols * o.s2;
    o.s1 = (o.kind == 'v') ? 0 : rowBytes + (st == Style::Packed ? 0 : esize * (st == Style::Gapped ? 1 : 3));
    const int objBytes = (o.kind == 'v') ? rowBytes : o.rows * o.s1;
    o.s0 = objBytes + (st == Style::Packed ? 0 : 2 * esize);
    if (o.kind == 'c') {  // constant array: one scalar per object
        o.s2 = 0;
        o.s0 = st == Style::Packed ? esize : 3 * esize;
    }
    o.roi = st == Style::Packed ? 0 : 2 * esize;
}

inline size_t extentOf(const Operand& o, int count) {
    if (o.kind == 'c') return o.array ? size_t(o.s0) * (count - 1) + o.esize : 0;
    const int n = o.array ? count : 1;
    return size_t(o.s0) * (n - 1) + size_t(o.s1) * (o.rows - 1) + size_t(o.s2) * (o.cols - 1) + o.esize;
}

// ---- arguments ----
enum class ArgKind { SrcPtr, DstPtr, ValPtr, Stride, Roi, Width, Height, Len, Count, Value };

struct Arg {
    ArgKind kind;
    void* ptr = nullptr;
    int64_t i = 0;
    double f = 0;
};

struct ArgList {
    std::vector<Arg> args;
    size_t next = 0;
    template <class P> P take() {
        const Arg& a = args.at(next++);
        if constexpr (std::is_pointer_v<P>) return reinterpret_cast<P>(a.ptr);
        else if constexpr (std::is_floating_point_v<P>) return P(a.f);
        else return P(a.i);
    }
};

// A member called through its real signature from an ArgList (arguments taken left to right).
using Invoker = std::function<OmkStatus(ArgList&)>;
template <class... P>
Invoker invokerOf(OmkStatus (*fn)(P...)) {
    return [fn](ArgList& a) {
        a.next = 0;
        std::tuple<P...> t{a.take<P>()...};  // braces evaluate in order
        return std::apply(fn, t);
    };
}

// ---- a member, as its name describes it ----
struct Member {
    std::string name;
    Invoker call;
    std::string op;     // "Add" or "Sub"
    std::string group;  // kind letters, e.g. "mam", "cva"
    int esize;          // 4 or 8
    Desc desc;

    // Operands in name order: (kind, array).
    std::vector<std::pair<char, bool>> operands() const {
        std::vector<std::pair<char, bool>> out;
        for (size_t i = 0; i < group.size(); ++i) {
            const bool arr = i + 1 < group.size() && group[i + 1] == 'a';
            out.push_back({group[i], arr});
            if (arr) ++i;
        }
        return out;
    }
    bool hasArray() const { return group.find('a') != std::string::npos; }
    bool isMatrix() const { return group.find_first_of("mt") != std::string::npos; }
};

inline Member memberOf(const std::string& name, Invoker call) {
    Member m{name, std::move(call), "", "", 4, Desc::Std};
    // omkm<Op>_<group>_<32f|64f>[_L|_P]
    const size_t u1 = name.find('_'), u2 = name.find('_', u1 + 1), u3 = name.find('_', u2 + 1);
    m.op = name.substr(4, u1 - 4);
    m.group = name.substr(u1 + 1, u2 - u1 - 1);
    m.esize = name.substr(u2 + 1, 3) == "64f" ? 8 : 4;
    if (u3 != std::string::npos) m.desc = name[u3 + 1] == 'L' ? Desc::L : Desc::P;
    return m;
}

#define OMKT_MEMBER(name) testing_omk::memberOf(#name, testing_omk::invokerOf(&name)),

// The members of one group: arrays in all three descriptions, single objects without _L.
#define ARRAY_GROUP(op, g)                                                                                   \
    OMKT_MEMBER(omkm##op##_##g##_32f) OMKT_MEMBER(omkm##op##_##g##_32f_L) OMKT_MEMBER(omkm##op##_##g##_32f_P) \
    OMKT_MEMBER(omkm##op##_##g##_64f) OMKT_MEMBER(omkm##op##_##g##_64f_L) OMKT_MEMBER(omkm##op##_##g##_64f_P)
#define SINGLE_GROUP(op, g)                                                  \
    OMKT_MEMBER(omkm##op##_##g##_32f) OMKT_MEMBER(omkm##op##_##g##_32f_P) \
    OMKT_MEMBER(omkm##op##_##g##_64f) OMKT_MEMBER(omkm##op##_##g##_64f_P)

// ---- one call of a member, laid out in an arena ----
struct Case {
    const Member* m = nullptr;
    int width = 1, height = 1, count = 1;
    std::vector<Operand> srcs;  // name order
    Operand dst;
    Arena arena;
    std::vector<std::vector<void*>> tables;  // pointer arrays of _L and _P operands
    ArgList args;

    int objects() const { return m->hasArray() ? count : 1; }
    int rows() const { return m->isMatrix() ? height : 1; }  // rows of the operation's result
};

// Element value of a source operand: a double that the test puts into memory in the element type.
inline double sourceValue(std::mt19937& rng) {
    std::uniform_real_distribution<double> mant(1.0, 2.0);
    std::uniform_int_distribution<int> ex(-12, 12), sign(0, 1);
    return (sign(rng) ? -1 : 1) * std::ldexp(mant(rng), ex(rng));
}

template <class T> inline T load(const unsigned char* p) { T v; std::memcpy(&v, p, sizeof v); return v; }
template <class T> inline void store(unsigned char* p, T v) { std::memcpy(p, &v, sizeof v); }

// Appends the arguments of a matrix or vector operand (not a constant) to the case's list, in the
// member's description: _P one pointer per stored element in row-major order, the ROI shift and
// (arrays) the object stride; _L arrays one pointer per object, the ROI shift and the element
// strides; otherwise the base pointer and the strides (a single operand of an _L member included).
inline void appendOperand(Case& c, Operand& o, ArgKind pk) {
    ArgList& a = c.args;
    auto arg = [&](ArgKind k, int64_t v) { Arg x{k}; x.i = v; a.args.push_back(x); };
    auto ptr = [&](ArgKind k, void* p) { Arg x{k}; x.ptr = p; a.args.push_back(x); };
    unsigned char* base = c.arena.at(o.base);
    const bool mat = o.kind == 'm' || o.kind == 't';
    if (c.m->desc == Desc::P) {
        c.tables.emplace_back();
        for (int r = 0; r < o.rows; ++r)
            for (int col = 0; col < o.cols; ++col)
                c.tables.back().push_back(base + ptrdiff_t(r) * o.s1 + ptrdiff_t(col) * o.s2 - o.roi);
        ptr(pk, c.tables.back().data());
        arg(ArgKind::Roi, o.roi);
        if (o.array) arg(ArgKind::Stride, o.s0);
        return;
    }
    if (c.m->desc == Desc::L && o.array) {
        c.tables.emplace_back();
        for (int k = 0; k < c.count; ++k) c.tables.back().push_back(base + ptrdiff_t(k) * o.s0 - o.roi);
        ptr(pk, c.tables.back().data());
        arg(ArgKind::Roi, o.roi);
        if (mat) arg(ArgKind::Stride, o.s1);
        arg(ArgKind::Stride, o.s2);
        return;
    }
    ptr(pk, base);
    if (o.array) arg(ArgKind::Stride, o.s0);
    if (mat) arg(ArgKind::Stride, o.s1);
    arg(ArgKind::Stride, o.s2);
}

// Builds the operands of a call: shapes from the member's kinds, strides from the styles (one per
// operand, destination last), element values from rng, and the argument list of the description.
inline void build(Case& c, const std::vector<Style>& styles, std::mt19937& rng) {
    const Member& m = *c.m;
    const auto ops = m.operands();
    c.srcs.clear();
    size_t si = 0;
    auto shape = [&](Operand& o) {
        if (o.kind == 'v') { o.rows = 1; o.cols = c.width; }
        else if (o.kind == 't') { o.rows = c.width; o.cols = c.height; }
        else if (o.kind == 'm') { o.rows = c.height; o.cols = c.width; }
    };
    for (auto [k, arr] : ops) {
        Operand o;
        o.kind = k;
        o.array = arr;
        shape(o);
        layOut(o, styles[si++ % styles.size()], m.esize);
        c.srcs.push_back(o);
    }
    c.dst = Operand{};
    c.dst.kind = m.isMatrix() ? 'm' : 'v';
    c.dst.array = m.hasArray();
    shape(c.dst);
    layOut(c.dst, styles.back(), m.esize);

    c.arena = Arena{};
    for (Operand& o : c.srcs)
        if (o.kind != 'c' || o.array) o.base = c.arena.reserve(extentOf(o, c.count));
    c.dst.base = c.arena.reserve(extentOf(c.dst, c.count));
    c.arena.allocate();

    // Source values.
    auto put = [&](size_t off, double v) {
        if (m.esize == 4) store<float>(c.arena.at(off), float(v));
        else store<double>(c.arena.at(off), v);
    };
    for (Operand& o : c.srcs) {
        if (o.kind == 'c' && !o.array) {
            o.val = m.esize == 4 ? double(float(sourceValue(rng))) : sourceValue(rng);
            continue;
        }
        for (int k = 0; k < (o.array ? c.count : 1); ++k) {
            if (o.kind == 'c') { put(o.base + size_t(k) * o.s0, sourceValue(rng)); continue; }
            for (int i = 0; i < c.rows(); ++i)
                for (int j = 0; j < c.width; ++j) put(o.offset(k, i, j), sourceValue(rng));
        }
    }

    // Argument list: matrix and vector sources in name order, the constant after them, the
    // destination, then the sizes and the count.
    c.tables.clear();
    c.tables.reserve(8);
    ArgList& a = c.args;
    a.args.clear();
    auto arg = [&](ArgKind k, int64_t v) { Arg x{k}; x.i = v; a.args.push_back(x); };
    auto ptr = [&](ArgKind k, void* p) { Arg x{k}; x.ptr = p; a.args.push_back(x); };
    auto block = [&](Operand& o, ArgKind pk) {
        if (o.kind != 'c') return appendOperand(c, o, pk);
        if (!o.array) { Arg x{ArgKind::Value}; x.f = o.val; a.args.push_back(x); return; }
        unsigned char* base = c.arena.at(o.base);
        if (m.desc == Desc::L) {
            c.tables.emplace_back();
            for (int k = 0; k < c.count; ++k) c.tables.back().push_back(base + size_t(k) * o.s0 - o.roi);
            ptr(ArgKind::ValPtr, c.tables.back().data());
            arg(ArgKind::Roi, o.roi);
        } else {
            ptr(ArgKind::ValPtr, base);
            arg(ArgKind::Stride, o.s0);
        }
    };
    for (Operand& o : c.srcs)
        if (o.kind != 'c') block(o, ArgKind::SrcPtr);
    for (Operand& o : c.srcs)
        if (o.kind == 'c') block(o, ArgKind::ValPtr);
    block(c.dst, ArgKind::DstPtr);
    if (m.isMatrix()) {
        arg(ArgKind::Width, c.width);
        arg(ArgKind::Height, c.height);
    } else {
        arg(ArgKind::Len, c.width);
    }
    if (m.hasArray()) arg(ArgKind::Count, c.count);
}

// Value of element (i, j) of object k of a source, in double (exact for both element types).
inline double sourceAt(Case& c, const Operand& o, int k, int i, int j) {
    if (o.kind == 'c' && !o.array) return o.val;
    const unsigned char* p = c.arena.at(o.kind == 'c' ? o.base + size_t(k) * o.s0 : o.offset(k, i, j));
    return c.m->esize == 4 ? double(load<float>(p)) : load<double>(p);
}

}  // namespace testing_omk
