// Argument rules of every export, and valid calls of any export laid into guarded memory.
//
// Used by the argument sweep (omkm_arg_sweep_test.cpp) and by the fuzz harness (fuzz/omkm_fuzz.cpp),
// which both call the exports through the table generated from the public header
// (sweep_calls.inc) and judge the returned status by the rules below.
//
// Rules. A member validates its arguments in a fixed order of steps and returns the status of the
// first step that fails, having written nothing:
//   N  a pointer argument is null                         omkStsNullPtr
//   C  count < 1                                          omkStsBadCount
//   S  a size (width, height, len, widthHeight...) < 1    omkStsBadSize
//   A  the sizes of the operands disagree                 omkStsSizeMismatch
//   T  a stride is not a positive multiple of the element size       omkStsBadStride
//   R  a ROI shift is negative or not a multiple of the element size omkStsBadRoiShift
//   Z  an object stride (stride0) of Copy: tested last, and only when count > 1 (BadStride)
//   r, t  a destination's ROI shift / strides, tested after the source's (general eigenproblem
//         arrays with vectors in the _P and _L descriptions)
// The entries of pointer tables are never validated. The rule of each export is derived from its
// name below, family by family, with every deliberate difference between siblings written out.
#pragma once
#include <stddef.h>  // ::ptrdiff_t, which operands.h uses

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "operands.h"

namespace sweep {

using testing_omk::Arena;
using testing_omk::Arg;
using testing_omk::ArgKind;
using testing_omk::ArgList;
using testing_omk::Invoker;

// One export of the generated call table.
struct Export {
    const char* name;
    Invoker call;        // empty for the one export that does not return OmkStatus
    const char* params;  // "type:name ..." with type p (pointer), i (int), f (float value)
};

// ---- names ----
// omkm<Op>_<group>_<type>[_<desc>]; Copy's desc is two letters (source, destination description).
struct Name {
    std::string op, group, type, desc;
};

inline Name parseName(const std::string& full) {
    Name r;
    if (full.rfind("omkm", 0) != 0) return r;
    std::vector<std::string> tok;
    std::string cur;
    for (char ch : full.substr(4)) {
        if (ch == '_') { tok.push_back(cur); cur.clear(); }
        else cur += ch;
    }
    tok.push_back(cur);
    r.op = tok[0];
    if (tok.size() == 2) r.type = tok[1];
    if (tok.size() >= 3) { r.group = tok[1]; r.type = tok[2]; }
    if (tok.size() == 4) r.desc = tok[3];
    if (tok.size() > 4) r.op.clear();
    return r;
}

// ---- rules ----
struct Rule {
    bool known = false;
    bool checks = false;                  // false: the member checks nothing and returns omkStsOk
    std::string order;                    // steps, first tested first
    std::vector<std::pair<std::string, std::string>> equalSizes;  // size arguments that must be equal
    bool widthNotAboveHeight = false;     // width <= height (QR)
    std::string note;                     // which rule applied
};

inline OmkStatus statusOfStep(char step) {
    switch (step) {
    case 'N': return omkStsNullPtr;
    case 'C': return omkStsBadCount;
    case 'S': return omkStsBadSize;
    case 'A': return omkStsSizeMismatch;
    case 'T': case 'Z': case 't': return omkStsBadStride;
    case 'R': case 'r': return omkStsBadRoiShift;
    default: return 1;  // not a status of this library
    }
}

namespace detail {
inline bool in(const std::string& s, std::initializer_list<const char*> set) {
    for (const char* x : set)
        if (s == x) return true;
    return false;
}
inline Rule none(const char* note) { Rule r; r.known = true; r.checks = false; r.note = note; return r; }
inline Rule order(const std::string& o, const char* note) {
    Rule r; r.known = true; r.checks = true; r.order = o; r.note = note; return r;
}
inline bool isType(const std::string& t) { return t == "32f" || t == "64f"; }
inline bool isDesc(const std::string& d) { return d.empty() || d == "L" || d == "P"; }
inline bool hasArray(const std::string& g) { return g.find('a') != std::string::npos; }
}  // namespace detail

inline Rule ruleFor(const std::string& full) {
    using namespace detail;
    const Name n = parseName(full);
    const std::string& op = n.op;
    const std::string& g = n.group;
    const std::string& d = n.desc;
    Rule unknown;

    if (full == "omkmGetLibVersion") return none("version record: no arguments");

    // Fixed-size 3D graphics helpers: single-precision only, no checks, always omkStsOk.
    if (in(op, {"LenSqr", "Len", "Normalize", "Max", "Min", "MulC", "BaryCentric", "Hermite",
                "InterpolationCatmullRom", "InterpolationLinear"})) {
        if (in(g, {"v2", "v3", "v4"}) && n.type == "32f" && d.empty()) return none("vector helper");
        return unknown;
    }
    if (in(op, {"Identity", "IsIdentity", "LookAtLH", "LookAtRH", "OrthoLH", "OrthoRH", "OrthoOffCenterLH",
                "OrthoOffCenterRH", "PerspectiveLH", "PerspectiveRH", "PerspectiveFovLH", "PerspectiveFovRH",
                "PerspectiveOffCenterLH", "PerspectiveOffCenterRH", "RotationX", "RotationY", "RotationZ",
                "RotationYawPitchRoll", "Scaling", "Translation", "MulTranspose"})) {
        if (g == "m4" && n.type == "32f" && d.empty()) return none("transform builder");
        return unknown;
    }
    if (op == "RotationAxis") return g == "v3m4" && n.type == "32f" && d.empty() ? none("transform builder") : unknown;
    if (in(op, {"AffineTransform", "AffineTransformCoord", "AffineTransformNormal", "Project", "Unproject"})) {
        if (in(g, {"m4v2", "m4v3", "m4v4", "m4v2a", "m4v3a", "m4v4a"}) && n.type == "32f" && d.empty())
            return none("point transform");
        return unknown;
    }
    if (op == "AffineTransform3DH") {
        if (g == "mva" && n.type == "32f" && d.empty()) return order("NCT", "homogeneous point transform");
        return unknown;
    }

    // Scratch size queries: null pBufSize first, then the order.
    if (in(op, {"EigenValuesGetBufSize", "EigenValuesVectorsGetBufSize"}))
        return g.empty() && isType(n.type) ? order("NS", "scratch size query") : unknown;

    if (!isType(n.type)) return unknown;

    if (op == "Add" || op == "Sub") {
        if (!d.empty() && !isDesc(d)) return unknown;
        if (in(g, {"v2", "v3", "v4"})) return n.type == "32f" && d.empty() ? none("fixed-size add/sub") : unknown;
        const bool add = op == "Add";
        const bool groupOk = add ? in(g, {"mm", "tm", "tt", "mam", "tam", "mat", "tat", "mama", "tama", "tata", "vv",
                                          "vc", "vav", "vava", "vac", "vca", "vaca"})
                                 : in(g, {"mm", "tm", "mt", "tt", "mam", "tam", "mat", "tat", "mma", "tma", "mta",
                                          "tta", "mama", "tama", "tata", "mata", "vv", "vc", "cv", "vav", "vva",
                                          "vava", "vac", "cva", "vca", "cav", "vaca", "cava"});
        if (!groupOk) return unknown;
        if (!hasArray(g)) return d == "L" ? unknown : order("NSTR", "single objects: null, size, stride / ROI");
        if ((g == "mam" || (!add && g == "mma")) && d.empty()) return order("NCTS", "mam/mma standard: strides before size");
        if (g == "vav") {
            if (d.empty()) return order("NSTC", "vav standard: size, stride, then count");
            if (d == "L") return order("NSTRC", "vav _L: size, stride, ROI, then count");
            return order("NSTCR", "vav _P: size, stride, count, then ROI");
        }
        return order("NCSTR", "array members: the general order");
    }

    if (op == "Copy") {
        if (!in(g, {"ma", "va"}) || d.size() != 2) return unknown;
        for (char x : d)
            if (x != 'S' && x != 'P' && x != 'L') return unknown;
        const std::string key = g + "_" + n.type + "_" + d;
        if (d == "SS") return order("NSCTZ", "Copy SS: object strides last, only when count > 1");
        if (in(key, {"ma_32f_PP", "ma_64f_PP", "va_32f_PP", "va_64f_PP", "va_32f_LP", "va_32f_SP"}))
            return order("NSCRTZ", "Copy: ROI before element strides, object strides last");
        return order("NSCTRZ", "Copy: element strides, ROI, object strides last");
    }
    if (op == "Extract") {
        if (!isDesc(d) || !in(g, {"m", "t", "v", "ma", "ta", "va"})) return unknown;
        if (!hasArray(g)) {
            if (d.empty()) return order("NST", "Extract single standard");
            if (d == "L") return unknown;
            if (g == "v" && n.type == "32f") return order("NSR", "Extract v_32f_P: null before size");
            return order("SNR", "Extract single _P: size before null");
        }
        return d.empty() ? order("NSCT", "Extract arrays standard") : order("NSCRT", "Extract arrays _P/_L: ROI before strides");
    }
    if (op == "LoadIdentity") {
        if (g != "ma" || !isDesc(d)) return unknown;
        if (d.empty()) return order("NSCT", "LoadIdentity standard");
        if (d == "L") return order("NSCTR", "LoadIdentity _L: strides before ROI");
        if (n.type == "32f") return order("NSRCT", "LoadIdentity 32f_P: ROI before count");
        return order("NSCRT", "LoadIdentity 64f_P: ROI before strides");
    }
    if (op == "Transpose") {
        if (g == "m4") return n.type == "32f" && d.empty() ? none("fixed 4x4 transpose") : unknown;
        if (g == "m" && (d.empty() || d == "P")) return order("NSTR", "Transpose single");
        if (g == "ma" && isDesc(d)) return order("NCSTR", "Transpose arrays: count before size");
        return unknown;
    }
    if (op == "Saxpy" || op == "LComb") {
        if (!isDesc(d)) return unknown;
        const bool ok = op == "Saxpy" ? in(g, {"vv", "vav", "vva", "vava"}) : in(g, {"vv", "vav", "vava"});
        if (!ok || (g == "vv" && d == "L")) return unknown;
        return order(hasArray(g) ? "NCSTR" : "NSTR", "scaled sums: the general order");
    }
    if (op == "Mul") {
        if (g == "mm4x4") return n.type == "32f" && d.empty() ? order("N", "4x4 product: null pointers only") : unknown;
        if (!isDesc(d)) return unknown;
        // Products with a constant.
        if (in(g, {"mc", "tc", "vc"})) return d == "L" ? unknown : order("NSTR", "single times a constant");
        if (in(g, {"mac", "tac", "vac", "vaca", "vca"})) return order("NCSTR", "arrays times constants");
        // Products of two shaped operands: size agreement after the sizes, before the strides.
        std::string kinds;
        for (char ch : g)
            if (ch != 'a') kinds += ch;
        const bool shapes = in(g, {"mm", "mt", "tm", "tt", "mv", "tv", "mma", "mta", "tma", "tta", "mam", "mat",
                                   "tam", "tat", "mama", "mata", "tama", "tata", "mva", "tva", "mav", "tav",
                                   "mava", "tava"});
        if (!shapes || (!hasArray(g) && d == "L")) return unknown;
        Rule r = order("NCSATR", "products: null, count, size, agreement, stride, ROI");
        if (kinds == "mm") r.equalSizes = {{"src1Width", "src2Height"}};
        if (kinds == "mt") r.equalSizes = {{"src1Width", "src2Width"}};
        if (kinds == "tm") r.equalSizes = {{"src1Height", "src2Height"}};
        if (kinds == "tt") r.equalSizes = {{"src1Height", "src2Width"}};
        if (kinds == "mv") r.equalSizes = {{"src1Width", "src2Len"}};
        if (kinds == "tv") r.equalSizes = {{"src1Height", "src2Len"}};
        return r;
    }
    if (op == "DotProduct" || op == "CrossProduct") {
        if (in(g, {"v2", "v3", "v4"})) return n.type == "32f" && d.empty() ? none("fixed-size dot/cross") : unknown;
        if (!isDesc(d)) return unknown;
        const bool dot = op == "DotProduct";
        if (!(dot ? in(g, {"vv", "vav", "vava"}) : in(g, {"vv", "vav", "vva", "vava"})) || (g == "vv" && d == "L"))
            return unknown;
        if (dot) return order(hasArray(g) ? "NCSTR" : "NSTR", "dot product: the general order");
        if (!hasArray(g)) return order("NTR", "cross product vv: no size");
        if (d.empty()) return order("NTC", "cross product arrays: strides before count");
        return order("NTCR", "cross product arrays _P, _L: strides, count, then ROI");
    }
    if (op == "L2Norm" || op == "FrobNorm" || op == "Trace") {
        const std::string single = op == "L2Norm" ? "v" : "m", array = single + "a";
        if (!isDesc(d) || !(g == single || g == array) || (g == single && d == "L")) return unknown;
        return order(g == array ? "NCSTR" : "NSTR", "norms and trace: the general order");
    }
    if (op == "Gaxpy") {
        if (!isDesc(d) || !in(g, {"mv", "mva", "mvav"}) || (g == "mv" && d == "L")) return unknown;
        Rule r = order("NCSATR", "gaxpy: agreement of width with x and height with b before strides");
        r.equalSizes = {{"width", "src2Len"}, {"height", "src3Len"}};
        return r;
    }
    if (op == "LUDecomp" || op == "CholeskyDecomp") {
        if (!isDesc(d) || !in(g, {"m", "ma"}) || (g == "m" && d == "L")) return unknown;
        return order("NCSTR", "decomposition: the general order");
    }
    if (op == "LUBackSubst" || op == "CholeskyBackSubst") {
        if (!isDesc(d) || !in(g, {"mv", "mva", "mava"}) || (g == "mv" && d == "L")) return unknown;
        return order("NCSTR", "back substitution: the general order");
    }
    if (op == "QRDecomp" || op == "QRBackSubst") {
        const bool ok = op == "QRDecomp" ? in(g, {"m", "ma"}) : in(g, {"mv", "mva", "mava"});
        if (!isDesc(d) || !ok || ((g == "m" || g == "mv") && d == "L")) return unknown;
        // Agreement (width <= height) last, after the strides and the ROI shifts.
        Rule r = order("NCSTRA", "QR: strides and ROI shifts before the agreement");
        r.widthNotAboveHeight = true;
        return r;
    }
    if (op == "Det" || op == "Invert") {
        if (g == "m4") return n.type == "32f" && d.empty() ? none("fixed 4x4 det/inverse") : unknown;
        if (!isDesc(d) || !in(g, {"m", "ma"}) || (g == "m" && d == "L")) return unknown;
        return order("NCSTR", "det/inverse: the general order");
    }
    if (op == "EigenValuesSym" || op == "EigenValuesVectorsSym") {
        if (!isDesc(d) || !in(g, {"m", "ma"}) || (g == "m" && d == "L")) return unknown;
        return order("NSCRT", "symmetric eigenproblem: size, count, ROI, then strides");
    }
    if (op == "EigenValues" || op == "EigenValuesVectors" || op == "EigenValuesVectorsLeft" ||
        op == "EigenValuesVectorsRight") {
        if (!isDesc(d) || !in(g, {"m", "ma"}) || (g == "m" && d == "L")) return unknown;
        if (op != "EigenValues" && g == "ma" && !d.empty())
            return order("NSCRTrt", "general eigenproblem arrays with vectors: destination ROI and strides last");
        return order("NSCRT", "general eigenproblem: size, count, ROI, then strides");
    }
    return unknown;
}

// Every declared export, called through its real signature (sweep_calls.inc, generated from the
// public header).
inline const std::vector<Export>& exportTable() {
#define SWEEP_EXPORT(fn, params) Export{#fn, testing_omk::invokerOf(&fn), params},
#define SWEEP_OTHER(fn) Export{#fn, Invoker{}, ""},
    static const std::vector<Export> table = {
#include "sweep_calls.inc"
    };
#undef SWEEP_EXPORT
#undef SWEEP_OTHER
    return table;
}

// ---- parameters ----
struct Param {
    char type;  // 'p', 'i', 'f'
    std::string name;
};

inline std::vector<Param> parseParams(const std::string& s) {
    std::vector<Param> out;
    size_t i = 0;
    while (i < s.size()) {
        const size_t j = s.find(' ', i);
        const std::string tok = s.substr(i, j == std::string::npos ? std::string::npos : j - i);
        if (tok.size() > 2) out.push_back({tok[0], tok.substr(2)});
        if (j == std::string::npos) break;
        i = j + 1;
    }
    return out;
}

enum class Role { Ptr, Stride, Roi, Size, Count, Value, Unknown };

inline bool endsWith(const std::string& s, const std::string& e) {
    return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}

inline Role roleOf(const Param& p) {
    if (p.type == 'p') return Role::Ptr;
    if (p.type == 'f') return Role::Value;
    if (p.name == "count") return Role::Count;
    if (endsWith(p.name, "Stride0") || endsWith(p.name, "Stride1") || endsWith(p.name, "Stride2")) return Role::Stride;
    if (endsWith(p.name, "RoiShift")) return Role::Roi;
    if (detail::in(p.name, {"width", "height", "len", "widthHeight", "src1Width", "src1Height", "src2Width",
                            "src2Height", "src2Len", "src3Len"}))
        return Role::Size;
    return Role::Unknown;
}

// The step of a rule that tests an argument (0 for arguments no step tests).
inline char stepOf(const Rule& r, const Param& p) {
    const bool dst = p.name.rfind("dst", 0) == 0;
    switch (roleOf(p)) {
    case Role::Ptr: return 'N';
    case Role::Count: return 'C';
    case Role::Size: return 'S';
    case Role::Stride:
        if (r.order.find('Z') != std::string::npos && endsWith(p.name, "Stride0")) return 'Z';
        if (r.order.find('t') != std::string::npos && dst) return 't';
        return 'T';
    case Role::Roi:
        if (r.order.find('r') != std::string::npos && dst) return 'r';
        return 'R';
    default: return 0;
    }
}

// The status a call returns when the steps in `failing` fail: that of the step the rule tests first.
inline OmkStatus expectedStatus(const Rule& r, const std::string& failing) {
    char first = failing[0];
    for (char s : failing)
        if (r.order.find(s) < r.order.find(first)) first = s;
    return statusOfStep(first);
}

// Whether positive sizes agree: `value` gives a size argument's value by name.
template <class F>
inline bool sizesAgree(const Rule& r, const F& value) {
    for (const auto& [a, b] : r.equalSizes)
        if (value(a) != value(b)) return false;
    return !r.widthNotAboveHeight || value("width") <= value("height");
}

// Size arguments that, changed alone to a larger value, break the agreement.
inline std::vector<std::string> agreementBreakers(const Rule& r) {
    std::vector<std::string> out;
    for (const auto& [a, b] : r.equalSizes) { out.push_back(a); out.push_back(b); }
    if (r.widthNotAboveHeight) out.push_back("width");
    return out;
}

// ---- a valid call laid into guarded memory ----
// Every pointer argument gets a region of the arena, with guard bytes around it; operands with
// strides leave gap elements after every row and between objects (Shape). Source elements hold
// well-conditioned values (symmetric, diagonally dominant matrices, identity row orders), so the
// valid call of every checked member succeeds, also with any smaller sizes and count.
struct Shape {
    int n = 3;         // every size argument (fixed-size graphics operands are 4 wide)
    int count = 2;     // objects of every array operand
    int step = 1;      // element stride in elements
    int rowGap = 1;    // gap elements after each row
    int objectGap = 2; // gap elements after each object
    int roi = 2;       // ROI shift of pointer tables, in elements
};

struct Region {
    std::string param;   // pointer argument
    std::string prefix;  // stride and ROI argument prefix (src1, dst, val...), empty if none
    enum Kind { Matrix, Vector, Constant, Scalars, Index, Scratch, Fixed } kind = Fixed;
    bool output = false;
    bool table = false;        // passed as a pointer table
    char style = 'S';          // 'S' standard, 'P' element pointers, 'L' object pointers
    bool array = false;
    int esize = 4;
    int rows = 1, cols = 1;    // elements of one object (stored shape)
    int32_t s0 = 0, s1 = 0, s2 = 0, roi = 0;
    size_t off = 0, bytes = 0;
    int tableIndex = -1;
};

struct Call {
    const Export* ex = nullptr;
    Name name;
    Rule rule;
    std::vector<Param> params;
    int n = 3;       // every size argument of the valid call
    int count = 2;   // count of the valid call
    int esize = 4;
    Arena arena;
    std::vector<std::vector<void*>> tables;
    std::vector<Region> regions;
    ArgList args;    // the valid arguments
    std::vector<unsigned char> pristine;  // arena before any call
    std::string error;                    // why no valid call could be laid out

    int argIndex(const std::string& p) const {
        for (size_t i = 0; i < params.size(); ++i)
            if (params[i].name == p) return int(i);
        return -1;
    }
};

inline bool isGraphics(const Name& n) {
    return n.op == "AffineTransform3DH" || (n.type == "32f" && n.desc.empty() &&
           (n.group == "m4" || n.group == "v3m4" || n.group == "mm4x4" || n.group == "v2" || n.group == "v3" ||
            n.group == "v4" || n.group.rfind("m4v", 0) == 0));
}

// Prefix of the stride and ROI arguments that go with a pointer argument.
inline std::string prefixOf(const std::string& ptr) {
    std::string s = ptr;
    if (s.rfind("pp", 0) == 0) s = s.substr(1);
    static const std::pair<const char*, const char*> map[] = {
        {"pSrc", "src"}, {"pSrc1", "src1"}, {"pSrc2", "src2"}, {"pSrc3", "src3"}, {"pDst", "dst"},
        {"pDstVectors", "dst"}, {"pDstVectorsLeft", "dstLeft"}, {"pDstVectorsRight", "dstRight"}, {"pVal", "val"}};
    for (auto& [p, x] : map)
        if (s == p) return x;
    return "";
}

inline bool hasParam(const std::vector<Param>& ps, const std::string& name) {
    for (const Param& p : ps)
        if (p.name == name) return true;
    return false;
}

// Finds the export `name` (for the standard sibling of a _P member).
inline const Export* findExport(const std::string& name) {
    for (const Export& e : exportTable())
        if (name == e.name) return &e;
    return nullptr;
}

// Marks the element bytes of a strided operand region, for `objects` objects.
inline void elementBytes(const Region& g, int objects, std::vector<bool>& mark) {
    for (int k = 0; k < (g.array ? objects : 1); ++k)
        for (int i = 0; i < g.rows; ++i)
            for (int j = 0; j < g.cols; ++j) {
                const size_t at = g.off + size_t(int64_t(k) * g.s0 + int64_t(i) * g.s1 + int64_t(j) * g.s2);
                for (int b = 0; b < g.esize && at + b < mark.size(); ++b) mark[at + b] = true;
            }
}

// Lays out the valid call of `ex` (a _P member borrows its operand shapes from its standard
// sibling).
inline Call layCall(const Export& ex, const Shape& shape = Shape{}) {
    Call c;
    c.ex = &ex;
    c.name = parseName(ex.name);
    c.rule = ruleFor(ex.name);
    c.params = parseParams(ex.params);
    const bool gfx = isGraphics(c.name);
    c.n = gfx ? 4 : shape.n;
    c.count = shape.count;
    c.esize = c.name.type == "64f" ? 8 : 4;
    const int e = c.esize, n = c.n;
    const bool hasCount = hasParam(c.params, "count");

    for (const Param& p : c.params)
        if (roleOf(p) == Role::Unknown) { c.error = "argument " + p.name + " has no known role"; return c; }

    // Standard sibling of a _P member (Copy: the SS member), for the shapes of pointer tables.
    std::vector<Param> sibling;
    if (c.name.desc == "P" || (c.name.op == "Copy" && c.name.desc.find('P') != std::string::npos)) {
        std::string sib = ex.name;
        if (c.name.op == "Copy") sib = sib.substr(0, sib.size() - 2) + "SS";
        else sib = sib.substr(0, sib.size() - 2);
        const Export* s = findExport(sib);
        if (!s) { c.error = "no standard sibling " + sib; return c; }
        sibling = parseParams(s->params);
    }

    // Regions.
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
            if (c.name.op == "Copy") g.style = g.output ? c.name.desc[1] : c.name.desc[0];
            else g.style = c.name.desc.empty() ? '?' : c.name.desc[0];
            if (g.style != 'P' && g.style != 'L') { c.error = "pointer table " + p.name + " in a standard member"; return c; }
        }
        const std::string& x = g.prefix;
        const bool has0 = !x.empty() && hasParam(c.params, x + "Stride0");
        const bool has1 = !x.empty() && hasParam(c.params, x + "Stride1");
        const bool has2 = !x.empty() && hasParam(c.params, x + "Stride2");
        const bool hasR = !x.empty() && hasParam(c.params, x + "RoiShift");
        if (x == "val") {
            g.kind = Region::Constant;
            g.array = true;
            g.rows = g.cols = 1;
        } else if (has1 || has2 || hasR || has0) {
            bool mat = has1, vec = has2 && !has1;
            if (g.table && g.style == 'P') {  // shapes from the standard sibling
                std::string sx = x;
                mat = hasParam(sibling, sx + "Stride1");
                vec = !mat && hasParam(sibling, sx + "Stride2");
            }
            if (gfx && !mat && !vec) vec = true;  // point arrays: 4 floats per vector
            if (!mat && !vec) { c.error = "no shape for " + p.name; return c; }
            g.kind = mat ? Region::Matrix : Region::Vector;
            g.rows = mat ? n : 1;
            g.cols = n;
            if (c.name.op == "CrossProduct") g.cols = 3;  // 3-vectors, no length argument
            g.array = has0 || (g.table && g.style == 'L');
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
            g.cols = n;
        } else if (p.name == "pDstValues" || p.name == "pDstValuesIm") {
            g.kind = Region::Scalars;
            g.array = hasCount;
            g.cols = n;
        } else if (p.name == "pDst") {  // scalar results, or Extract's dense objects
            g.kind = Region::Scalars;
            g.array = hasCount;
            g.cols = 1;
            if (c.name.op == "Extract") g.cols = c.name.group[0] == 'v' ? n : n * n;
        } else {
            c.error = "no layout for " + p.name;
            return c;
        }
        // Strides and extent.
        const int objects = g.array ? c.count : 1;
        switch (g.kind) {
        case Region::Matrix: case Region::Vector:
            g.s2 = shape.step * e;
            g.s1 = g.kind == Region::Matrix ? g.cols * g.s2 + shape.rowGap * e : 0;
            g.s0 = (g.kind == Region::Matrix ? g.rows * g.s1 : g.cols * g.s2) + shape.objectGap * e;
            if (gfx) { g.s2 = e; g.s1 = g.cols * e; g.s0 = g.rows * g.s1 + 16; }
            g.bytes = size_t(g.s0) * (objects - 1) + size_t(g.s1) * (g.rows - 1) + size_t(g.s2) * (g.cols - 1) + e;
            if (gfx && g.kind == Region::Vector) g.bytes = size_t(g.s0) * (objects - 1) + 16;
            break;
        case Region::Constant:
            g.s0 = (1 + shape.objectGap) * e;
            g.bytes = size_t(g.s0) * (objects - 1) + e;
            break;
        case Region::Scalars: case Region::Index:
            g.bytes = size_t(objects) * g.cols * g.esize;
            break;
        case Region::Scratch:
            g.bytes = 2048;
            break;
        case Region::Fixed:
            g.bytes = 64;  // a 4x4 transform; vectors use its first elements
            break;
        }
        if (g.table) g.roi = shape.roi * e;
        g.off = c.arena.reserve(g.bytes);
        c.regions.push_back(g);
    }
    c.arena.allocate();

    // Source values.
    auto put = [&](size_t off, double v, int es) {
        if (es == 8) testing_omk::store<double>(c.arena.at(off), v);
        else testing_omk::store<float>(c.arena.at(off), float(v));
    };
    int fixedIndex = 0;
    for (Region& g : c.regions) {
        if (g.kind == Region::Fixed) {
            ++fixedIndex;
            if (g.output) continue;
            for (int q = 0; q < 16; ++q)
                put(g.off + 4 * q, q % 4 == q / 4 ? 2.0 + 0.5 * fixedIndex : 0.25, 4);
            continue;
        }
        if (g.output) continue;
        const int objects = g.array ? c.count : 1;
        for (int k = 0; k < objects; ++k) {
            if (g.kind == Region::Constant) { put(g.off + size_t(k) * g.s0, 1.5 + k, e); continue; }
            if (g.kind == Region::Index) {
                for (int j = 0; j < g.cols; ++j) testing_omk::store<int32_t>(c.arena.at(g.off + 4 * (size_t(k) * g.cols + j)), j);
                continue;
            }
            if (gfx && g.kind == Region::Vector) {
                for (int j = 0; j < 4; ++j) put(g.off + size_t(k) * g.s0 + 4 * j, j == 3 ? 1.0 : 0.5 + j + k, 4);
                continue;
            }
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j) {
                    const size_t at = g.off + size_t(k) * g.s0 + size_t(i) * g.s1 + size_t(j) * g.s2;
                    double v = g.kind == Region::Matrix ? (i == j ? n + 1 + i + 0.5 * k : 0.25) : 1 + 0.5 * j + 0.25 * k;
                    put(at, v, g.esize);
                }
        }
    }

    // Pointer tables (never reallocated once built: the arguments hold their addresses).
    c.tables.reserve(c.regions.size());
    for (Region& g : c.regions) {
        if (!g.table) continue;
        std::vector<void*> t;
        unsigned char* base = c.arena.at(g.off) - g.roi;
        if (g.style == 'P') {
            for (int i = 0; i < g.rows; ++i)
                for (int j = 0; j < g.cols; ++j) t.push_back(base + ptrdiff_t(i) * g.s1 + ptrdiff_t(j) * g.s2);
            while (t.size() < size_t((n + 2) * (n + 2))) t.push_back(base);  // room for larger sizes
        } else {
            for (int k = 0; k < c.count; ++k) t.push_back(base + ptrdiff_t(k) * g.s0);
            while (t.size() < size_t(c.count + 4)) t.push_back(base);
        }
        g.tableIndex = int(c.tables.size());
        c.tables.push_back(std::move(t));
    }

    // Arguments.
    auto regionOf = [&](const std::string& prefix) -> const Region* {
        for (const Region& g : c.regions)
            if (g.prefix == prefix) return &g;
        return nullptr;
    };
    int valueIndex = 0;
    for (const Param& p : c.params) {
        Arg a{ArgKind::Value};
        switch (roleOf(p)) {
        case Role::Ptr: {
            a.kind = ArgKind::SrcPtr;
            for (const Region& g : c.regions)
                if (g.param == p.name) {
                    if (g.output) a.kind = ArgKind::DstPtr;
                    a.ptr = g.table ? static_cast<void*>(c.tables[g.tableIndex].data()) : c.arena.at(g.off);
                }
            break;
        }
        case Role::Stride: case Role::Roi: {
            const bool roi = roleOf(p) == Role::Roi;
            const std::string prefix = p.name.substr(0, p.name.size() - (roi ? 8 : 7));
            const Region* g = regionOf(prefix);
            if (!g) { c.error = "no operand for " + p.name; return c; }
            a.kind = roi ? ArgKind::Roi : ArgKind::Stride;
            const char digit = p.name.back();
            a.i = roi ? g->roi : digit == '0' ? g->s0 : digit == '1' ? g->s1 : g->s2;
            break;
        }
        case Role::Size: a.kind = ArgKind::Width; a.i = n; break;
        case Role::Count: a.kind = ArgKind::Count; a.i = c.count; break;
        case Role::Value: a.kind = ArgKind::Value; a.f = gfx ? 0.5 + 0.25 * valueIndex++ : 0.75; break;
        default: break;
        }
        c.args.args.push_back(a);
    }
    c.pristine = c.arena.bytes;
    return c;
}

// Rewrites the row orders of the index arrays that a call reads for matrices of order `w`
// (object m's rows at entries m*w ... m*w + w - 1), and takes the result as the pristine arena.
inline void setRowOrders(Call& c, int w) {
    for (const Region& g : c.regions) {
        if (g.kind != Region::Index || g.output) continue;
        const size_t entries = g.bytes / 4;
        for (size_t q = 0; q < entries; ++q) testing_omk::store<int32_t>(c.arena.at(g.off + 4 * q), int32_t(q % size_t(w)));
    }
    c.pristine = c.arena.bytes;
}

// Bytes a call with these arguments may write: the elements of its output operands (for the
// count in the arguments) and all of its scratch and fixed-size outputs.
inline std::vector<bool> writable(const Call& c, const ArgList& args) {
    std::vector<bool> mark(c.arena.bytes.size(), false);
    int objects = c.count;
    const int ci = c.argIndex("count");
    if (ci >= 0) objects = int(std::max<int64_t>(0, args.args[ci].i));
    for (const Region& g : c.regions) {
        if (!g.output) continue;
        if (g.kind == Region::Matrix || g.kind == Region::Vector) {
            if (c.name.op == "AffineTransform3DH" || isGraphics(c.name)) {
                for (int k = 0; k < (g.array ? objects : 1); ++k)
                    for (int b = 0; b < 16 && g.off + size_t(k) * g.s0 + b < mark.size(); ++b)
                        if (size_t(k) * g.s0 + b < g.bytes) mark[g.off + size_t(k) * g.s0 + b] = true;
                continue;
            }
            elementBytes(g, objects, mark);
            continue;
        }
        if (g.kind == Region::Scalars || g.kind == Region::Index) {
            const size_t per = size_t(g.cols) * g.esize;
            const size_t len = g.array ? per * size_t(objects) : per;
            for (size_t b = 0; b < len && b < g.bytes; ++b) mark[g.off + b] = true;
            continue;
        }
        for (size_t b = 0; b < g.bytes; ++b) mark[g.off + b] = true;
    }
    return mark;
}

// ---- argument faults ----
struct Spoil {
    int arg;
    int64_t value;   // the bad integer (unused for a null pointer)
    char step;
    std::string what;
};

// Every way each argument can be wrong on its own, with the step of the rule that catches it.
inline std::vector<Spoil> spoilsOf(const Call& c) {
    std::vector<Spoil> out;
    const int e = c.esize;
    for (size_t i = 0; i < c.params.size(); ++i) {
        const Param& p = c.params[i];
        const char step = stepOf(c.rule, p);
        const int ai = int(i);
        switch (roleOf(p)) {
        case Role::Ptr: out.push_back({ai, 0, step, p.name + "=NULL"}); break;
        case Role::Count: case Role::Size:
            for (int64_t v : {0, -1}) out.push_back({ai, v, step, p.name + "=" + std::to_string(v)});
            break;
        case Role::Stride:
            for (int64_t v : {int64_t(0), int64_t(-e), int64_t(e / 2), int64_t(e + e / 2), int64_t(INT_MIN)})
                out.push_back({ai, v, step, p.name + "=" + std::to_string(v)});
            break;
        case Role::Roi:
            for (int64_t v : {int64_t(-e), int64_t(e / 2), int64_t(-e / 2), int64_t(INT_MIN)})
                out.push_back({ai, v, step, p.name + "=" + std::to_string(v)});
            break;
        default: break;
        }
        for (const std::string& a : agreementBreakers(c.rule))
            if (a == p.name) out.push_back({ai, c.n + 1, 'A', p.name + "=" + std::to_string(c.n + 1) + " (disagrees)"});
    }
    return out;
}

inline void apply(ArgList& args, const Spoil& s) {
    Arg& a = args.args[s.arg];
    if (a.kind == ArgKind::SrcPtr || a.kind == ArgKind::DstPtr) a.ptr = nullptr;
    else a.i = s.value;
}

}  // namespace sweep
