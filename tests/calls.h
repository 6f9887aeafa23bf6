// Calls of any export laid out in guarded memory. The call table (sweep_calls.inc, generated from the public header)
// gives each export's signature and parameter names; from the names alone each pointer argument gets a guarded region
// of one arena, strided operands are laid with a Style, stored shapes follow the size arguments (Shape). The standard,
// _P and _L descriptions of an operand address the same element positions, so one reference serves all. A test fills
// the sources, writes `want` (computed output elements, every other byte as before), calls, and compares the arena.
#pragma once
#include <stddef.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "omkm.h"

namespace omkt {

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
using Invoker = std::function<OmkStatus(ArgList&)>;
template <class... P> Invoker invokerOf(OmkStatus (*fn)(P...)) {
    return [fn](ArgList& a) {
        a.next = 0;
        std::tuple<P...> t{a.take<P>()...};  // braces evaluate in order
        return std::apply(fn, t);
    };
}

struct Export {
    const char* name;
    Invoker call;        // empty for the one export that does not return OmkStatus
    const char* params;  // "type:name ..." with type p (pointer), i (int), f (float value)
};
// Every export with its invoker, in the header's order (calls.cpp: one translation unit instantiates the 874
// invokers, which takes most of a test file's compile time wherever it stands).
const std::vector<Export>& exportTable();
inline const Export* findExport(const std::string& name) {
    for (const Export& e : exportTable())
        if (name == e.name) return &e;
    return nullptr;
}

// omkm<Op>_<group>_<type>[_<desc>]; Copy's desc is two letters (source, destination description).
struct Name {
    std::string op, group, type, desc;
    bool array() const { return group.find('a') != std::string::npos; }
    int esize() const { return type == "64f" ? 8 : 4; }
    // The kind letters of the operands in order, without the array marks ("mama" -> "mm").
    std::string kinds() const {
        std::string k;
        for (char c : group)
            if (c != 'a') k += c;
        return k;
    }
};
inline Name parseName(const std::string& full) {
    Name r;
    if (full.rfind("omkm", 0) != 0) return r;
    std::vector<std::string> tok(1);
    for (char ch : full.substr(4)) {
        if (ch == '_') tok.emplace_back();
        else tok.back() += ch;
    }
    r.op = tok[0];
    if (tok.size() == 2) r.type = tok[1];
    if (tok.size() >= 3) r.group = tok[1], r.type = tok[2];
    if (tok.size() == 4) r.desc = tok[3];
    if (tok.size() > 4) r.op.clear();
    return r;
}

struct Param {
    char type;  // 'p', 'i', 'f'
    std::string name;
};
inline std::vector<Param> parseParams(const std::string& s) {
    std::vector<Param> out;
    std::istringstream in(s);
    for (std::string tok; in >> tok;)
        if (tok.size() > 2) out.push_back({tok[0], tok.substr(2)});
    return out;
}
inline bool hasParam(const std::vector<Param>& ps, const std::string& name) {
    return std::any_of(ps.begin(), ps.end(), [&](const Param& p) { return p.name == name; });
}
inline bool endsWith(const std::string& s, const std::string& e) {
    return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}

enum class Role { Ptr, Stride, Roi, Size, Count, Value, Unknown };
inline Role roleOf(const Param& p) {
    static const char* const sizes[] = {"width", "height", "len", "widthHeight", "src1Width", "src1Height",
                                        "src2Width", "src2Height", "src2Len", "src3Len"};
    if (p.type == 'p') return Role::Ptr;
    if (p.type == 'f') return Role::Value;
    if (p.name == "count") return Role::Count;
    if (endsWith(p.name, "Stride0") || endsWith(p.name, "Stride1") || endsWith(p.name, "Stride2")) return Role::Stride;
    if (endsWith(p.name, "RoiShift")) return Role::Roi;
    for (const char* s : sizes)
        if (p.name == s) return Role::Size;
    return Role::Unknown;
}

// The fixed-size functions of the graphics subsystem and the checked homogeneous transform.
inline bool isGraphics(const Name& n) {
    return n.op == "AffineTransform3DH" ||
           (n.type == "32f" && n.desc.empty() &&
            (n.group == "m4" || n.group == "v3m4" || n.group == "mm4x4" || n.group == "v2" || n.group == "v3" ||
             n.group == "v4" || n.group.rfind("m4v", 0) == 0));
}

template <class T> T load(const unsigned char* p) { T v; std::memcpy(&v, p, sizeof v); return v; }
template <class T> void store(unsigned char* p, T v) { std::memcpy(p, &v, sizeof v); }

// Bytes on a 64-byte boundary: a kernel whose order follows an operand's alignment (contiguous dot) sees the layout's.
template <class T> struct Aligned64 {
    using value_type = T;
    Aligned64() = default;
    template <class U> Aligned64(const Aligned64<U>&) {}
    T* allocate(size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(64))); }
    void deallocate(T* p, size_t) { ::operator delete(p, std::align_val_t(64)); }
    template <class U> bool operator==(const Aligned64<U>&) const { return true; }
    template <class U> bool operator!=(const Aligned64<U>&) const { return false; }
};
using Bytes = std::vector<unsigned char, Aligned64<unsigned char>>;

struct Arena {
    static constexpr unsigned char kMarker = 0xA5;
    Bytes bytes;
    size_t used = 64;  // leading guard
    size_t reserve(size_t n) {
        const size_t at = (used + 63) & ~size_t(63);
        used = at + n + 64;  // a guard after every block
        return at;
    }
    void allocate() { bytes.assign(used, kMarker); }
    unsigned char* at(size_t off) { return bytes.data() + off; }
};

// Strided operand layout in elements: step, row and object gaps, ROI shift of its tables, shift off 64-byte alignment.
struct Style {
    int step, rowGap, objectGap, roi, shift = 0;
};
inline constexpr Style kPacked{1, 0, 0, 0}, kPadded{1, 3, 2, 2}, kGapped{2, 1, 2, 2}, kShifted{1, 0, 0, 0, 1};

// What a call is laid out for. Every size argument is n unless `sizes` names it; strided operands take `styles` in
// argument order (the last repeating), else the gaps below. `alias` lays the destination over a same-shape source.
struct Shape {
    int n = 3;
    int count = 2;
    int step = 1, rowGap = 1, objectGap = 2, roi = 2;
    std::map<std::string, int> sizes;
    std::vector<Style> styles;
    std::string alias;  // a source's pointer argument without its p or pp ("Src1"), or empty
    int size(const std::string& p) const {
        const auto it = sizes.find(p);
        return it == sizes.end() ? n : it->second;
    }
};

struct Region {
    std::string param;   // pointer argument
    std::string prefix;  // prefix of its stride and ROI arguments (src1, dst, val...), empty if none
    enum Kind { Matrix, Vector, Constant, Scalars, Index, Scratch, Fixed } kind = Fixed;
    bool output = false;
    bool table = false;  // passed as a pointer table
    char style = 'S';    // 'S' standard, 'P' element pointers, 'L' object pointers
    bool array = false;
    int esize = 4;
    int rows = 1, cols = 1;  // stored elements of one object
    int32_t s0 = 0, s1 = 0, s2 = 0, roi = 0;
    size_t off = 0, bytes = 0;
    int tableIndex = -1;
    size_t at(int k, int i, int j) const {
        switch (kind) {
        case Matrix: case Vector: case Constant:
            return off + size_t(int64_t(array ? k : 0) * s0 + int64_t(i) * s1 + int64_t(j) * s2);
        case Scalars: case Index: return off + (size_t(array ? k : 0) * cols + j) * esize;
        default: return off + size_t(i * 4 + j) * esize;
        }
    }
};

struct Call {
    const Export* ex = nullptr;
    Name name;
    std::vector<Param> params;
    Shape shape;
    int n = 3, count = 2, esize = 4;
    Arena arena;
    std::vector<std::vector<void*>> tables;
    std::vector<Region> regions;
    ArgList args;
    Bytes pristine;  // the arena as laid out (before the test's inputs)
    Bytes want;      // the arena as the call must leave it
    std::string error;                    // why no call could be laid out

    int argIndex(const std::string& p) const {
        for (size_t i = 0; i < params.size(); ++i)
            if (params[i].name == p) return int(i);
        return -1;
    }
    int size(const std::string& p) const { return shape.size(p); }
    bool has(const std::string& param) const { return hasParam(params, param); }
    // The region of a pointer argument, by its name without the pp/p prefix ("Src1", "Dst", "Buffer").
    Region& operator[](const std::string& what) {
        for (Region& g : regions)
            if (g.param == "p" + what || g.param == "pp" + what) return g;
        throw std::out_of_range(std::string(ex->name) + " has no operand " + what);
    }
    bool hasRegion(const std::string& what) const {
        return std::any_of(regions.begin(), regions.end(),
                           [&](const Region& g) { return g.param == "p" + what || g.param == "pp" + what; });
    }
    int objects(const Region& g) const { return g.array ? count : 1; }

    template <class T> T get(const Region& g, int k, int i, int j) const {
        return load<T>(arena.bytes.data() + g.at(k, i, j));
    }
    double value(const Region& g, int k, int i, int j) const {
        return esize == 8 ? get<double>(g, k, i, j) : double(get<float>(g, k, i, j));
    }
    void set(const Region& g, int k, int i, int j, double v) {
        if (g.esize == 8) store<double>(arena.at(g.at(k, i, j)), v);
        else if (g.kind == Region::Index) store<int32_t>(arena.at(g.at(k, i, j)), int32_t(v));
        else store<float>(arena.at(g.at(k, i, j)), float(v));
    }
    void fill(const Region& g, const std::function<double(int, int, int)>& f) {
        for (int k = 0; k < objects(g); ++k)
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j) set(g, k, i, j, f(k, i, j));
    }
    // The expected arena starts as the inputs; then each computed element is put into it.
    void expectInputs() { want = arena.bytes; }
    template <class T> void expect(const Region& g, int k, int i, int j, T v) {
        store<T>(want.data() + g.at(k, i, j), v);
    }
    void expectValue(const Region& g, int k, int i, int j, double v) {
        if (esize == 8) expect<double>(g, k, i, j, v);
        else expect<float>(g, k, i, j, float(v));
    }
    OmkStatus run() { return ex->call(args); }  // no copy: a call may be measured for heap use
};

inline std::string prefixOf(const std::string& ptr) {
    static const std::pair<const char*, const char*> map[] = {
        {"Src", "src"}, {"Src1", "src1"}, {"Src2", "src2"}, {"Src3", "src3"}, {"Dst", "dst"},
        {"DstVectors", "dst"}, {"DstVectorsLeft", "dstLeft"}, {"DstVectorsRight", "dstRight"}, {"Val", "val"}};
    const std::string s = ptr.substr(ptr.rfind("pp", 0) == 0 ? 2 : 1);
    for (auto& [p, x] : map)
        if (s == p) return x;
    return "";
}

// pBuffer bytes by the documented sizes: Det/Invert n*n elements and n ints, QR `height` elements, the symmetric
// eigenproblem n*n, the general one n*(n + 5) or n*(3n + 5).
inline size_t bufferBytes(const Call& c) {
    const int n = c.size("widthHeight"), e = c.esize;
    const std::string& op = c.name.op;
    if (op == "Det" || op == "Invert") return size_t(n) * n * e + size_t(n) * 4;
    if (op == "QRDecomp" || op == "QRBackSubst") return size_t(c.size("height")) * e;
    if (op.find("Sym") != std::string::npos) return size_t(n) * n * e;
    if (op == "EigenValues") return size_t(n) * (n + 5) * e;
    if (op.rfind("EigenValues", 0) == 0) return size_t(n) * (3 * n + 5) * e;
    return 2048;
}

// Stored rows and columns of one object of a strided operand. Products and Gaxpy carry each operand's sizes; square
// families have widthHeight; QR's right-hand side has `height` elements, its solution `width`; a transposed source
// ('t') stores width rows of height; Transpose writes width rows; a product writes M x N.
inline std::pair<int, int> storedDims(const Call& c, const std::string& prefix, bool matrix) {
    const Name& nm = c.name;
    auto sz = [&](const std::string& p) { return c.size(p); };
    const std::string kinds = nm.kinds();
    const bool dst = prefix.rfind("dst", 0) == 0;
    const int index = prefix == "src2" ? 1 : prefix == "src3" ? 2 : 0;
    const char kind = dst || index >= int(kinds.size()) ? 'm' : kinds[index];
    if (nm.op == "CrossProduct") return {1, 3};
    if (c.has(prefix + "Width")) return {sz(prefix + "Height"), sz(prefix + "Width")};
    if (c.has(prefix + "Len")) return {1, sz(prefix + "Len")};
    if (c.has("widthHeight")) return {matrix ? sz("widthHeight") : 1, sz("widthHeight")};
    if (nm.op == "Mul" && c.has("src1Width") && dst) {
        const int M = kinds[0] == 'm' ? sz("src1Height") : sz("src1Width");
        const int N = kinds[1] == 'm' ? sz("src2Width") : sz("src2Height");
        return matrix ? std::pair{M, N} : std::pair{1, M};
    }
    if (nm.op == "Gaxpy" && dst) return {1, sz("height")};
    if (nm.op.rfind("QR", 0) == 0 && !matrix) return {1, sz(dst ? "width" : "height")};
    if (!matrix) return {1, c.has("len") ? sz("len") : sz("width")};
    if ((kind == 't' && !dst) || (nm.op == "Transpose" && dst)) return {sz("width"), sz("height")};
    return {sz("height"), sz("width")};
}

// Lays out a call of `ex`; a _P member takes the operand kinds from its standard sibling. Sources hold well-conditioned
// values (symmetric, diagonally dominant, identity row orders): a valid call of every checked member succeeds.
inline Call layCall(const Export& ex, const Shape& shape = Shape{}) {
    Call c;
    c.ex = &ex;
    c.name = parseName(ex.name);
    c.params = parseParams(ex.params);
    c.shape = shape;
    const bool gfx = isGraphics(c.name);
    if (gfx) c.shape.n = 4;
    c.n = c.shape.n;
    c.count = shape.count;
    c.esize = c.name.esize();
    const int e = c.esize;
    const bool hasCount = c.has("count");
    for (const Param& p : c.params)
        if (roleOf(p) == Role::Unknown) { c.error = "argument " + p.name + " has no known role"; return c; }

    std::vector<Param> sibling;
    if (c.name.desc == "P" || (c.name.op == "Copy" && c.name.desc.find('P') != std::string::npos)) {
        std::string sib = ex.name;
        sib = c.name.op == "Copy" ? sib.substr(0, sib.size() - 2) + "SS" : sib.substr(0, sib.size() - 2);
        const Export* s = findExport(sib);
        if (!s) { c.error = "no standard sibling " + sib; return c; }
        sibling = parseParams(s->params);
    }

    int strided = 0;  // strided operands laid so far, for the styles
    for (const Param& p : c.params) {
        if (p.type != 'p') continue;
        Region g;
        g.param = p.name;
        g.prefix = prefixOf(p.name);
        g.esize = e;
        g.output = p.name.rfind("pDst", 0) == 0 || p.name.rfind("ppDst", 0) == 0 || p.name == "pBuffer" ||
                   p.name == "pBufSize" || p.name == "pResult" || p.name == "pDet";
        g.table = p.name.rfind("pp", 0) == 0;
        if (g.table) {
            g.style = c.name.op == "Copy" ? c.name.desc[g.output ? 1 : 0] : c.name.desc.empty() ? '?' : c.name.desc[0];
            if (g.style != 'P' && g.style != 'L') {
                c.error = "pointer table " + p.name + " in a standard member";
                return c;
            }
        }
        const std::string& x = g.prefix;
        const bool has0 = !x.empty() && c.has(x + "Stride0"), has1 = !x.empty() && c.has(x + "Stride1");
        const bool has2 = !x.empty() && c.has(x + "Stride2"), hasR = !x.empty() && c.has(x + "RoiShift");
        Style st{shape.step, shape.rowGap, shape.objectGap, shape.roi};
        if (x == "val") {
            g.kind = Region::Constant;
            g.array = true;
            if (!shape.styles.empty()) st = shape.styles[std::min<size_t>(strided++, shape.styles.size() - 1)];
        } else if (has1 || has2 || hasR || has0) {
            bool mat = has1, vec = has2 && !has1;
            if (g.table && g.style == 'P') {
                mat = hasParam(sibling, x + "Stride1");
                vec = !mat && hasParam(sibling, x + "Stride2");
            }
            if (gfx && !mat && !vec) vec = true;  // point arrays: 4 floats per vector
            if (!mat && !vec) { c.error = "no shape for " + p.name; return c; }
            g.kind = mat ? Region::Matrix : Region::Vector;
            std::tie(g.rows, g.cols) = gfx ? std::pair{mat ? 4 : 1, 4} : storedDims(c, x, mat);
            g.array = has0 || (g.table && g.style == 'L');
            if (!shape.styles.empty()) st = shape.styles[std::min<size_t>(strided++, shape.styles.size() - 1)];
        } else if (gfx) {
            g.kind = Region::Fixed;
        } else if (p.name == "pBuffer") {
            g.kind = Region::Scratch;
        } else if (p.name == "pBufSize") {
            g.kind = Region::Scalars;
            g.esize = 4;
        } else if (p.name == "pDstIndex" || p.name == "pSrcIndex") {
            g.kind = Region::Index;
            g.esize = 4;
            g.array = c.name.group.rfind("ma", 0) == 0;
            g.cols = c.size("widthHeight");
        } else if (p.name == "pDstValues" || p.name == "pDstValuesIm") {
            g.kind = Region::Scalars;
            g.array = hasCount;
            g.cols = c.size("widthHeight");
        } else if (p.name == "pDst") {  // scalar results, or Extract's dense objects
            g.kind = Region::Scalars;
            g.array = hasCount;
            if (c.name.op == "Extract")
                g.cols = c.name.group[0] == 'v' ? c.size("len") : c.size("width") * c.size("height");
        } else {
            c.error = "no layout for " + p.name;
            return c;
        }
        const int objects = g.array ? c.count : 1;
        switch (g.kind) {
        case Region::Matrix: case Region::Vector:
            g.s2 = st.step * e;
            g.s1 = g.kind == Region::Matrix ? g.cols * g.s2 + st.rowGap * e : 0;
            g.s0 = (g.kind == Region::Matrix ? g.rows * g.s1 : g.cols * g.s2) + st.objectGap * e;
            if (gfx) g.s2 = e, g.s1 = g.cols * e, g.s0 = g.rows * g.s1 + 16;
            g.bytes = size_t(g.s0) * (objects - 1) + size_t(g.s1) * (g.rows - 1) + size_t(g.s2) * (g.cols - 1) + e;
            if (gfx && g.kind == Region::Vector) g.bytes = size_t(g.s0) * (objects - 1) + 16;
            break;
        case Region::Constant:
            g.s0 = (1 + st.objectGap) * e;
            g.bytes = size_t(g.s0) * (objects - 1) + e;
            break;
        case Region::Scalars: case Region::Index: g.bytes = size_t(objects) * g.cols * g.esize; break;
        case Region::Scratch: g.bytes = bufferBytes(c); break;
        case Region::Fixed: g.bytes = 64; break;  // a 4x4 transform; vectors use its first elements
        }
        if (g.table) g.roi = st.roi * e;
        // An in-place call: the destination takes the source's place and strides.
        if (g.output && !shape.alias.empty() && g.kind != Region::Scratch && g.prefix.rfind("dst", 0) == 0) {
            const auto s = std::find_if(c.regions.begin(), c.regions.end(), [&](const Region& r) {
                return r.param.substr(r.table ? 2 : 1) == shape.alias;
            });
            if (s != c.regions.end()) {
                Region a = *s;
                a.param = g.param, a.prefix = g.prefix, a.output = true, a.table = g.table, a.style = g.style;
                c.regions.push_back(a);
                continue;
            }
        }
        g.off = c.arena.reserve(g.bytes + size_t(st.shift) * e) + size_t(st.shift) * e;
        c.regions.push_back(g);
    }
    c.arena.allocate();

    auto put = [&](size_t off, double v, int es) {
        if (es == 8) store<double>(c.arena.at(off), v);
        else store<float>(c.arena.at(off), float(v));
    };
    const int n = c.n;
    int fixedIndex = 0;
    for (Region& g : c.regions) {
        if (g.kind == Region::Fixed) {
            ++fixedIndex;
            if (!g.output)
                for (int q = 0; q < 16; ++q) put(g.off + 4 * q, q % 4 == q / 4 ? 2.0 + 0.5 * fixedIndex : 0.25, 4);
            continue;
        }
        if (g.output) continue;
        for (int k = 0; k < (g.array ? c.count : 1); ++k) {
            if (g.kind == Region::Constant) { put(g.at(k, 0, 0), 1.5 + k, e); continue; }
            if (g.kind == Region::Index) {
                for (int j = 0; j < g.cols; ++j) store<int32_t>(c.arena.at(g.at(k, 0, j)), j);
                continue;
            }
            if (gfx && g.kind == Region::Vector) {
                for (int j = 0; j < 4; ++j) put(g.off + size_t(k) * g.s0 + 4 * j, j == 3 ? 1.0 : 0.5 + j + k, 4);
                continue;
            }
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j)
                    put(g.at(k, i, j),
                        g.kind == Region::Matrix ? (i == j ? n + 1 + i + 0.5 * k : 0.25) : 1 + 0.5 * j + 0.25 * k,
                        g.esize);
        }
    }

    // Pointer tables, never reallocated once built (the arguments hold their addresses); a _P table has room for larger
    // sizes, an _L table for more objects.
    c.tables.reserve(c.regions.size());
    for (Region& g : c.regions) {
        if (!g.table) continue;
        std::vector<void*> t;
        unsigned char* base = c.arena.at(g.off) - g.roi;
        if (g.style == 'P') {
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j) t.push_back(base + ptrdiff_t(i) * g.s1 + ptrdiff_t(j) * g.s2);
            while (t.size() < size_t((g.rows + 2) * (g.cols + 2))) t.push_back(base);
        } else {
            for (int k = 0; k < c.count; ++k) t.push_back(base + ptrdiff_t(k) * g.s0);
            while (t.size() < size_t(c.count + 4)) t.push_back(base);
        }
        g.tableIndex = int(c.tables.size());
        c.tables.push_back(std::move(t));
    }

    int valueIndex = 0;
    for (const Param& p : c.params) {
        Arg a{ArgKind::Value};
        switch (roleOf(p)) {
        case Role::Ptr:
            a.kind = ArgKind::SrcPtr;
            for (const Region& g : c.regions)
                if (g.param == p.name) {
                    if (g.output) a.kind = ArgKind::DstPtr;
                    a.ptr = g.table ? static_cast<void*>(c.tables[g.tableIndex].data()) : c.arena.at(g.off);
                }
            break;
        case Role::Stride: case Role::Roi: {
            const bool roi = roleOf(p) == Role::Roi;
            const std::string prefix = p.name.substr(0, p.name.size() - (roi ? 8 : 7));
            const auto g = std::find_if(c.regions.begin(), c.regions.end(),
                                        [&](const Region& r) { return r.prefix == prefix; });
            if (g == c.regions.end()) { c.error = "no operand for " + p.name; return c; }
            a.kind = roi ? ArgKind::Roi : ArgKind::Stride;
            const char digit = p.name.back();
            a.i = roi ? g->roi : digit == '0' ? g->s0 : digit == '1' ? g->s1 : g->s2;
            break;
        }
        case Role::Size: a.kind = ArgKind::Width; a.i = c.size(p.name); break;
        case Role::Count: a.kind = ArgKind::Count; a.i = c.count; break;
        case Role::Value: a.kind = ArgKind::Value; a.f = gfx ? 0.5 + 0.25 * valueIndex++ : 0.75; break;
        default: break;
        }
        c.args.args.push_back(a);
    }
    c.pristine = c.arena.bytes;
    c.want = c.arena.bytes;
    return c;
}
inline Call layCall(const std::string& name, const Shape& shape = Shape{}) {
    const Export* ex = findExport(name);
    if (!ex) throw std::out_of_range("no export " + name);
    return layCall(*ex, shape);
}

// The first difference between the arena and `want` outside scratch buffers (a NaN matches any NaN), or empty.
inline std::string firstDifference(const Call& c) {
    std::vector<bool> skip(c.want.size(), false);
    for (const Region& g : c.regions)
        if (g.kind == Region::Scratch) std::fill_n(skip.begin() + ptrdiff_t(g.off), g.bytes, true);
    for (size_t b = 0; b < c.want.size(); ++b) {
        if (skip[b] || c.want[b] == c.arena.bytes[b]) continue;
        for (const Region& g : c.regions) {
            if (b < g.off || b >= g.off + g.bytes || !g.output) continue;
            const bool fixed = g.kind == Region::Fixed;  // 4 x 4 elements
            for (int k = 0; k < c.objects(g); ++k)
                for (int i = 0; i < (fixed ? 4 : g.rows); ++i)
                    for (int j = 0; j < (fixed ? 4 : g.cols); ++j) {
                        const size_t at = g.at(k, i, j);
                        if (b < at || b >= at + size_t(g.esize)) continue;
                        const bool f = g.esize == 4 && g.kind != Region::Index;
                        const double want = f ? load<float>(c.want.data() + at) : load<double>(c.want.data() + at);
                        const double got =
                            f ? load<float>(c.arena.bytes.data() + at) : load<double>(c.arena.bytes.data() + at);
                        if (g.kind != Region::Index && std::isnan(want) && std::isnan(got)) {
                            b = at + g.esize - 1;
                            goto next;
                        }
                        std::ostringstream s;
                        s << c.ex->name << " " << g.param << " object " << k << " (" << i << "," << j << "): ";
                        if (g.kind == Region::Index) s << load<int32_t>(c.arena.bytes.data() + at) << " vs "
                                                       << load<int32_t>(c.want.data() + at);
                        else s.precision(9), s << got << " vs " << want;
                        return s.str();
                    }
        }
        {
            std::ostringstream s;
            s << c.ex->name << ": byte " << b << " written";
            for (const Region& g : c.regions)
                if (b >= g.off && b < g.off + g.bytes)
                    s << " (" << g.param << " byte " << b - g.off << ", not an element)";
            return s.str();
        }
    next:;
    }
    return "";
}

}  // namespace omkt
