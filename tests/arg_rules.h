// Argument rules of every export: each member's check order and the spoiled arguments that test it. The argument sweep
// (omkm_arg_sweep_test.cpp) and the fuzz harness (fuzz/omkm_fuzz.cpp) judge calls laid out by calls.h by them.
// A member checks its arguments in a fixed order of steps and returns the first failing step's status, writing nothing:
//   N  a pointer argument is null                         omkStsNullPtr
//   C  count < 1                                          omkStsBadCount
//   S  a size (width, height, len, widthHeight...) < 1    omkStsBadSize
//   A  the sizes of the operands disagree                 omkStsSizeMismatch
//   T  a stride is not a positive multiple of the element size       omkStsBadStride
//   R  a ROI shift is negative or not a multiple of the element size omkStsBadRoiShift
//   Z  an object stride (stride0) of Copy: tested last, and only when count > 1 (BadStride)
//   r, t  a destination's ROI shift / strides, after the source's (general eigenproblem arrays with vectors, _P, _L)
// Pointer table entries are never validated. Each export's rule is derived from its name below, family by family, with
// every deliberate difference between siblings written out.
#pragma once
#include <climits>

#include "calls.h"

namespace omkt {

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
        if ((g == "mam" || (!add && g == "mma")) && d.empty())
            return order("NCTS", "mam/mma standard: strides before size");
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
        return d.empty() ? order("NSCT", "Extract arrays standard")
                         : order("NSCRT", "Extract arrays _P/_L: ROI before strides");
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

// Rewrites the index arrays' row orders for order `w` (object m at m*w ... m*w + w - 1), taken as the pristine arena.
inline void setRowOrders(Call& c, int w) {
    for (const Region& g : c.regions) {
        if (g.kind != Region::Index || g.output) continue;
        const size_t entries = g.bytes / 4;
        for (size_t q = 0; q < entries; ++q) store<int32_t>(c.arena.at(g.off + 4 * q), int32_t(q % size_t(w)));
    }
    c.pristine = c.arena.bytes;
}

// Bytes a call with `args` may write: its output elements (for the count in `args`) and its scratch and fixed outputs.
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
            for (int k = 0; k < (g.array ? objects : 1); ++k)
                for (int i = 0; i < g.rows; ++i)
                    for (int j = 0; j < g.cols; ++j)
                        for (int b = 0; b < g.esize && g.at(k, i, j) + b < mark.size(); ++b)
                            mark[g.at(k, i, j) + b] = true;
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

struct Spoil {
    int arg;
    int64_t value;   // the bad integer (unused for a null pointer)
    char step;
    std::string what;
};

// Every way each argument can be wrong on its own, with the step of the rule that catches it.
inline std::vector<Spoil> spoilsOf(const Call& c, const Rule& rule) {
    std::vector<Spoil> out;
    const int e = c.esize;
    for (size_t i = 0; i < c.params.size(); ++i) {
        const Param& p = c.params[i];
        const char step = stepOf(rule, p);
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
        for (const std::string& a : agreementBreakers(rule))
            if (a == p.name) out.push_back({ai, c.n + 1, 'A', p.name + "=" + std::to_string(c.n + 1) + " (disagrees)"});
    }
    return out;
}

inline void apply(ArgList& args, const Spoil& s) {
    Arg& a = args.args[s.arg];
    if (a.kind == ArgKind::SrcPtr || a.kind == ArgKind::DstPtr) a.ptr = nullptr;
    else a.i = s.value;
}

}  // namespace omkt
