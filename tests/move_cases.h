// Data-movement cases (Copy, Extract, LoadIdentity, Transpose): operands in the three descriptions
// laid into guarded memory, sources filled with bit patterns that any arithmetic or conversion on
// the way would change (NaN payloads, signalling NaNs, -0.0, denormals), the expected destination
// words, and the walk of a member's argument faults through its check order.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "operands.h"

namespace testing_omk::mv {

// ---- a member, as its name describes it ----
struct MoveMember {
    std::string name;
    Invoker call;
    std::string op;  // Copy, Extract, LoadIdentity, Transpose
    char kind;       // 'm', 't' or 'v'
    bool array;
    int esize;
    char src, dst;  // 'S', 'P', 'L'; Extract's dense destination 'D'; LoadIdentity has no source '-'
};

inline MoveMember moveMemberOf(const std::string& name, Invoker call) {
    // omkm<Op>_<kind>_<32f|64f>[_<suffix>]
    const size_t u1 = name.find('_'), u2 = name.find('_', u1 + 1), u3 = name.find('_', u2 + 1);
    MoveMember m{name, std::move(call), name.substr(4, u1 - 4), name[u1 + 1], u2 - u1 == 3,
                 name.substr(u2 + 1, 3) == "64f" ? 8 : 4, 'S', 'S'};
    const std::string suffix = u3 == std::string::npos ? "" : name.substr(u3 + 1);
    if (m.op == "Copy") {
        m.src = suffix[0];
        m.dst = suffix[1];
    } else if (m.op == "Extract") {
        m.src = suffix.empty() ? 'S' : suffix[0];
        m.dst = 'D';
    } else if (m.op == "LoadIdentity") {
        m.src = '-';
        m.dst = suffix.empty() ? 'S' : suffix[0];
    } else {
        m.src = m.dst = suffix.empty() ? 'S' : suffix[0];
    }
    return m;
}

#define MV_MEMBER(name) testing_omk::mv::moveMemberOf(#name, testing_omk::invokerOf(&name)),

// ---- raw words ----
inline void putBits(unsigned char* p, uint64_t v, int e) { std::memcpy(p, &v, e); }  // little-endian
inline uint64_t getBits(const unsigned char* p, int e) {
    uint64_t v = 0;
    std::memcpy(&v, p, e);
    return v;
}

// Words that a move through floating-point registers, a conversion or an arithmetic kernel would
// not keep: signalling and quiet NaNs with payloads of both signs, -0.0, denormals, infinity.
inline const std::vector<uint64_t>& specialWords(int e) {
    static const std::vector<uint64_t> w32 = {0x7fa00001, 0xffc12345, 0x7f800001, 0xff800003, 0x80000000,
                                              0x00000001, 0x807fffff, 0x00400000, 0xff800000};
    static const std::vector<uint64_t> w64 = {0x7ff4000000000001, 0xfff8000000012345, 0x7ff0000000000001,
                                              0xfff00000deadbeef, 0x8000000000000000, 0x0000000000000001,
                                              0x800fffffffffffff, 0x0008000000000000, 0x7ff0000000000000};
    return e == 4 ? w32 : w64;
}

// ---- one operand ----
// Stored object: `rows` rows of `cols` elements. Element (r, c) of object k is at obj[k] + elem[r*cols + c]
// in the arena; obj[k] = obj[0] + k*s0 except for layout-described arrays, whose objects lie apart.
enum class Lay { Packed, Padded, Gapped };

struct Opd {
    char desc = 'S';
    bool array = false, vec = false;
    int rows = 1, cols = 1, esize = 4;
    int32_t s0 = 0, s1 = 0, s2 = 0, roi = 0;
    std::vector<size_t> obj, elem;
    size_t at(int k, int r, int c) const { return obj[array ? k : 0] + elem[size_t(r) * cols + c]; }
};

// Packed: dense. Padded: contiguous elements, padded rows and objects, a base one element off
// its line, a ROI shift of two elements. Gapped: element stride of three elements, padded rows,
// a ROI shift of five elements. Pointer-described operands place their elements in shuffled
// slots and layout-described arrays put their objects in reverse order, each in its own block.
inline Opd layOut(char desc, bool array, bool vec, int rows, int cols, int e, Lay lay, std::mt19937& rng) {
    Opd o;
    o.desc = desc;
    o.array = array;
    o.vec = vec;
    o.rows = rows;
    o.cols = cols;
    o.esize = e;
    const bool packed = lay == Lay::Packed || desc == 'D';
    o.s2 = (lay == Lay::Gapped && !packed ? 3 : 1) * e;
    o.s1 = cols * o.s2 + (packed ? 0 : lay == Lay::Padded ? 3 * e : e);
    o.s0 = (vec ? cols * o.s2 : rows * o.s1) + (packed ? 0 : 2 * e);
    o.roi = packed ? 0 : lay == Lay::Padded ? 2 * e : 5 * e;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) o.elem.push_back(size_t(r) * o.s1 + size_t(c) * o.s2);
    if (desc == 'P' && !packed) std::shuffle(o.elem.begin(), o.elem.end(), rng);
    return o;
}

inline void reserve(Arena& a, Opd& o, int count, Lay lay) {
    const size_t lead = lay == Lay::Padded && o.desc != 'D' ? o.esize : 0;
    const size_t extent = *std::max_element(o.elem.begin(), o.elem.end()) + o.esize + lead;
    const int n = o.array ? count : 1;
    o.obj.assign(n, 0);
    if (o.desc == 'L' && lay != Lay::Packed) {
        for (int k = n - 1; k >= 0; --k) o.obj[k] = a.reserve(extent) + lead;
    } else {
        const size_t base = a.reserve(size_t(o.s0) * (n - 1) + extent) + lead;
        for (int k = 0; k < n; ++k) o.obj[k] = base + size_t(k) * o.s0;
    }
}

// ---- one call ----
struct Call {
    const MoveMember* m = nullptr;
    int width = 1, height = 1, count = 1;  // vectors: width is len, height 1
    Opd src, dst;
    Arena arena;
    std::deque<std::vector<void*>> tables;  // pointer arrays of _P and _L operands
    ArgList args;
    std::string steps;  // per argument: N pointer, E element stride, O object stride, R ROI shift, S size, C count
    std::vector<std::pair<size_t, uint64_t>> writes;  // every destination word the call must store

    void push(char step, int64_t v) {
        Arg a{step == 'S' ? ArgKind::Width : step == 'C' ? ArgKind::Count : step == 'R' ? ArgKind::Roi : ArgKind::Stride};
        a.i = v;
        args.args.push_back(a);
        steps += step;
    }
    void pushPtr(ArgKind k, void* p) {
        Arg a{k};
        a.ptr = p;
        args.args.push_back(a);
        steps += 'N';
    }
    // The block of an operand in its description.
    void block(const Opd& o, ArgKind k) {
        unsigned char* const origin = arena.bytes.data();
        if (o.desc == 'P') {
            std::vector<void*>& t = tables.emplace_back();
            for (size_t e : o.elem) t.push_back(origin + o.obj[0] + e - o.roi);
            pushPtr(k, t.data());
            push('R', o.roi);
            if (o.array) push('O', o.s0);
        } else if (o.desc == 'L') {
            std::vector<void*>& t = tables.emplace_back();
            for (size_t b : o.obj) t.push_back(origin + b - o.roi);
            pushPtr(k, t.data());
            push('R', o.roi);
            if (!o.vec) push('E', o.s1);
            push('E', o.s2);
        } else {
            pushPtr(k, origin + o.obj[0]);
            if (o.desc == 'D') return;
            if (o.array) push('O', o.s0);
            if (!o.vec) push('E', o.s1);
            push('E', o.s2);
        }
    }
    void sizes() {
        if (m->kind == 'v') {
            push('S', width);
        } else {
            push('S', width);
            push('S', height);
        }
    }
    int objects() const { return m->array ? count : 1; }
    size_t argOfStep(char step, int nth = 0) const {
        for (size_t i = 0; i < steps.size(); ++i)
            if (steps[i] == step && nth-- == 0) return i;
        throw std::logic_error(m->name + " has no such argument");
    }
};

// A call of `m` on `width` x `height` matrices (or vectors of `width` elements) and `count` objects,
// sources filled with random words and the special words, the expected destination words computed.
inline Call makeCall(const MoveMember& m, int width, int height, int count, Lay srcLay, Lay dstLay, uint32_t seed) {
    std::mt19937 rng(seed);
    Call c;
    c.m = &m;
    c.width = width;
    c.height = m.kind == 'v' ? 1 : height;
    c.count = m.array ? count : 1;
    const int w = c.width, h = c.height, e = m.esize;
    const bool vec = m.kind == 'v', tr = m.kind == 't';
    if (m.src != '-') {
        // Transpose's and t sources store `width` rows of `height`; others `height` rows of `width`.
        c.src = layOut(m.src, m.array, vec, tr ? w : h, tr ? h : w, e, srcLay, rng);
        reserve(c.arena, c.src, c.count, srcLay);
    }
    const bool swapDst = m.op == "Transpose";
    c.dst = layOut(m.dst, m.array, vec, swapDst ? w : h, swapDst ? h : w, e, dstLay, rng);
    reserve(c.arena, c.dst, c.count, dstLay);
    c.arena.allocate();

    if (m.src != '-') {
        std::mt19937_64 bits(seed * 7919u + 1);
        const std::vector<uint64_t>& special = specialWords(e);
        size_t n = 0;
        for (int k = 0; k < c.objects(); ++k)
            for (int r = 0; r < c.src.rows; ++r)
                for (int col = 0; col < c.src.cols; ++col, ++n) {
                    const uint64_t v = n % 3 == 0 ? special[(n / 3) % special.size()] : bits();
                    putBits(c.arena.at(c.src.at(k, r, col)), v, e);
                }
    }
    const uint64_t one = e == 4 ? 0x3f800000u : 0x3ff0000000000000u;
    for (int k = 0; k < c.objects(); ++k)
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) {
                if (m.op == "LoadIdentity") {
                    c.writes.push_back({c.dst.at(k, i, j), i == j ? one : 0});
                    continue;
                }
                const size_t from = tr ? c.src.at(k, j, i) : c.src.at(k, i, j);
                const size_t to = swapDst ? c.dst.at(k, j, i) : c.dst.at(k, i, j);
                c.writes.push_back({to, getBits(c.arena.at(from), e)});
            }

    // Arguments: source block, destination block, sizes, count; Transpose has its sizes after the source.
    if (m.src != '-') c.block(c.src, ArgKind::SrcPtr);
    if (swapDst) c.sizes();
    c.block(c.dst, ArgKind::DstPtr);
    if (!swapDst) c.sizes();
    if (m.array) c.push('C', count);
    return c;
}

// Calls and checks the status; when it is omkStsOk every expected word is in place, and in every
// case no other byte of the memory and no pointer table changed. The memory is restored after.
// Returns false (after reporting the failure) when anything differs.
inline bool runExpect(Call& c, OmkStatus want, const std::string& what = "") {
    const std::vector<unsigned char> before = c.arena.bytes;
    std::vector<unsigned char> expect = before;
    const std::deque<std::vector<void*>> tables = c.tables;
    if (want == omkStsOk)
        for (const auto& [off, v] : c.writes) putBits(expect.data() + off, v, c.m->esize);
    const OmkStatus got = c.m->call(c.args);
    const std::string id = c.m->name + " " + std::to_string(c.width) + "x" + std::to_string(c.height) + " count " +
                           std::to_string(c.count) + " " + what;
    const auto diff = std::mismatch(expect.begin(), expect.end(), c.arena.bytes.begin());
    std::string bad;
    if (got != want) bad = "status " + std::to_string(got) + ", expected " + std::to_string(want);
    else if (!(tables == c.tables)) bad = "a pointer table changed";
    else if (diff.first != expect.end()) {
        const size_t off = size_t(diff.first - expect.begin());
        bool isDst = false;
        for (const auto& wr : c.writes) isDst |= off >= wr.first && off < wr.first + c.m->esize;
        bad = "byte " + std::to_string(off) + (isDst ? " (a destination element)" : " (outside the destination)") +
              " is " + std::to_string(int(*diff.second)) + ", expected " + std::to_string(int(*diff.first));
    }
    std::memcpy(c.arena.bytes.data(), before.data(), before.size());
    if (bad.empty()) return true;
    ADD_FAILURE() << id << ": " << bad;
    return false;
}

// ---- check orders ----
inline OmkStatus statusOfStep(char s) {
    switch (s) {
    case 'N': return omkStsNullPtr;
    case 'C': return omkStsBadCount;
    case 'S': return omkStsBadSize;
    case 'R': return omkStsBadRoiShift;
    default: return omkStsBadStride;  // E, O, T
    }
}

struct Fault {
    size_t arg;
    Arg bad;
    char step;
};

// Every way each argument can be wrong on its own, with the step that reports it: in orders with
// one stride step T, element and object strides both belong to it.
inline std::vector<Fault> faultsOf(const Call& c, const std::string& order) {
    std::vector<Fault> out;
    const int e = c.m->esize;
    for (size_t i = 0; i < c.steps.size(); ++i) {
        char s = c.steps[i];
        if ((s == 'E' || s == 'O') && order.find('T') != std::string::npos) s = 'T';
        std::vector<int64_t> bad;
        if (s == 'N') {
            Arg x = c.args.args[i];
            x.ptr = nullptr;
            out.push_back({i, x, s});
            continue;
        }
        if (s == 'C' || s == 'S') bad = {0, -1};
        else if (s == 'R') bad = {-e, e / 2, -e / 2};
        else bad = {0, -e, e + e / 2, e / 2};
        for (int64_t v : bad) {
            Arg x = c.args.args[i];
            x.i = v;
            out.push_back({i, x, s});
        }
    }
    return out;
}

// Each fault alone returns its step's status and writes nothing; of two faults in different steps
// the one whose step comes first in `order` decides, and nothing is written either.
inline void walkOrder(Call& c, const std::string& order) {
    const std::vector<Arg> good = c.args.args;
    const std::vector<Fault> faults = faultsOf(c, order);
    for (const Fault& f : faults) {
        if (order.find(f.step) == std::string::npos) {
            ADD_FAILURE() << c.m->name << ": no step " << f.step << " in " << order;
            return;
        }
        c.args.args = good;
        c.args.args[f.arg] = f.bad;
        if (!runExpect(c, statusOfStep(f.step), "fault at argument " + std::to_string(f.arg))) return;
    }
    for (const Fault& f : faults)
        for (const Fault& g : faults) {
            if (f.step == g.step || f.arg == g.arg) continue;
            c.args.args = good;
            c.args.args[f.arg] = f.bad;
            c.args.args[g.arg] = g.bad;
            const char first = order.find(f.step) < order.find(g.step) ? f.step : g.step;
            if (!runExpect(c, statusOfStep(first), "faults at arguments " + std::to_string(f.arg) + " and " +
                                                       std::to_string(g.arg) + ", order " + order))
                return;
        }
    c.args.args = good;
}

// Object strides of a one-object call: Copy takes any value (and copies); every other member tests
// them with its other strides, whatever the count.
inline void objectStridesAtCountOne(const MoveMember& m, int w, int h) {
    Call c = makeCall(m, w, h, 1, Lay::Padded, Lay::Gapped, 77);
    const bool exempt = m.op == "Copy";
    for (size_t i = 0; i < c.steps.size(); ++i) {
        if (c.steps[i] != 'O') continue;
        const Arg good = c.args.args[i];
        for (int64_t v : {0, 3, -m.esize, m.esize / 2}) {
            c.args.args[i].i = v;
            if (!runExpect(c, exempt ? omkStsOk : omkStsBadStride,
                           "object stride " + std::to_string(v) + " at argument " + std::to_string(i)))
                return;
        }
        c.args.args[i] = good;
    }
}

inline const MoveMember& named(const std::vector<MoveMember>& all, const std::string& name) {
    for (const MoveMember& m : all)
        if (m.name == name) return m;
    throw std::runtime_error("no member " + name);
}

// Shapes (width, height) for matrix members; vector members take the widths as lengths.
inline const std::vector<std::pair<int, int>>& smallShapes(bool vec) {
    static const std::vector<std::pair<int, int>> mats = {{1, 1}, {3, 2}, {2, 3}, {4, 4}, {5, 7}};
    static const std::vector<std::pair<int, int>> vecs = {{1, 1}, {3, 1}, {7, 1}};
    return vec ? vecs : mats;
}

// Layout pairs (source, destination) every member runs on.
inline const std::vector<std::pair<Lay, Lay>>& layoutPairs() {
    static const std::vector<std::pair<Lay, Lay>> all = {
        {Lay::Packed, Lay::Packed}, {Lay::Padded, Lay::Gapped}, {Lay::Gapped, Lay::Padded}, {Lay::Gapped, Lay::Gapped}};
    return all;
}

// Every shape, layout pair and count 1 and 3 of a member, bit for bit.
inline void runAllLayouts(const MoveMember& m) {
    uint32_t seed = 1;
    for (auto [w, h] : smallShapes(m.kind == 'v'))
        for (auto [sl, dl] : layoutPairs())
            for (int count : {1, 3}) {
                Call c = makeCall(m, w, h, count, sl, dl, seed++);
                if (!runExpect(c, omkStsOk, "layouts " + std::to_string(int(sl)) + "/" + std::to_string(int(dl))))
                    return;
                if (!m.array) break;
            }
}

}  // namespace testing_omk::mv
