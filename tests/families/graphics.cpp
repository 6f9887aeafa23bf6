// Family rows of the 3D graphics subsystem. Every reference is the documented formula evaluated with std::fma in its
// documented order; the ways are other orders that the walk's inputs tell apart.
#include <array>
#include <sstream>

#include "families.h"

namespace omkt {
namespace {

using std::fma;
using F16 = std::array<float, 16>;

// Full mantissas in +-[2^lo, 2^(hi+1)), or one time in 16 NaN, an infinity or a signed zero.
double value(std::mt19937& rng, int lo = -2, int hi = 1) {
    static const double specials[] = {NAN, INFINITY, -INFINITY, 0.0, -0.0};
    return rng() % 16 ? entry(rng, lo, hi) : specials[rng() % 5];
}
// Every source element (all 16 floats of a fixed region) and every float argument from gen().
void fillWith(Call& c, const std::function<double()>& gen) {
    for (Region& g : c.regions) {
        const int rows = g.kind == Region::Fixed ? 4 : g.rows, cols = g.kind == Region::Fixed ? 4 : g.cols;
        for (int k = 0; k < c.objects(g) && !g.output; ++k)
            for (int q = 0; q < rows * cols; ++q) c.set(g, k, q / cols, q % cols, gen());
    }
    for (const Param& p : c.params)
        if (p.type == 'f') setScalar(c, p.name, gen());
}
// A fixed region's 16 floats, a matrix's 4x4 or the 4 of object k of a vector array.
F16 read(Call& c, const std::string& region, int k = 0) {
    const Region& g = c[region];
    F16 v{};
    for (int q = 0; q < (g.kind == Region::Vector ? 4 : 16); ++q) v[q] = c.get<float>(g, k, q / 4, q % 4);
    return v;
}
OmkStatus write(Call& c, int k, const float* v, int n) {
    for (int q = 0; q < n; ++q) c.expect<float>(c["Dst"], k, q / 4, q % 4, v[q]);
    return omkStsOk;
}
float arg(Call& c, const char* name) { return float(scalarArg(c, name)); }
// A stride argument and its region's stride, narrower than laid (so within the region).
void setStride(Call& c, const std::string& name, int bytes) {
    c.args.args[c.argIndex(name)].i = bytes;
    for (Region& g : c.regions)
        if (!g.prefix.empty() && name.rfind(g.prefix + "Stride", 0) == 0)
            (name.back() == '0' ? g.s0 : name.back() == '1' ? g.s1 : g.s2) = bytes;
}

// Members by operation, and ways "<op>_<group> <way>" (an array form under its single form's group), from word lists.
std::function<bool(const Name&)> opIn(const std::string& ops) {
    return [ops](const Name& n) { return (" " + ops + " ").find(" " + n.op + " ") != std::string::npos; };
}
void addWays(Family& f, const std::string& groups, const std::vector<std::pair<std::string, std::string>>& table) {
    for (const auto& [ops, way] : table) {
        std::istringstream o(ops);
        for (std::string op; o >> op;) {
            std::istringstream g(groups);
            for (std::string group; g >> group;) f.ways.push_back(op + "_" + group + " " + way);
        }
    }
}
void see(const Call& c, const std::string& way, const float* a, const float* b, int n) {
    const std::string& g = c.name.group;
    witness(c.name.op + "_" + g.substr(0, g.size() - (g.back() == 'a')) + " " + way, std::memcmp(a, b, 4 * n) != 0);
}

// ---- vector helpers: V1 (pSrc or pSrc1), then pSrc2, pSrc3, pSrc4 ----
float sumOfSquares(const F16& v, int n) {
    if (n == 2) return fma(v[0], v[0], v[1] * v[1]);
    if (n == 3) return fma(v[2], v[2], fma(v[0], v[0], v[1] * v[1]));
    return fma(v[1], v[1], v[2] * v[2]) + fma(v[0], v[0], v[3] * v[3]);
}

OmkStatus vectorHelper(Call& c, int) {
    const std::string& op = c.name.op;
    const int n = c.name.group[1] - '0';
    const F16 v1 = read(c, c.hasRegion("Src") ? "Src" : "Src1"), v2 = c.hasRegion("Src2") ? read(c, "Src2") : v1;
    const F16 v3 = c.hasRegion("Src3") ? read(c, "Src3") : v1, v4 = c.hasRegion("Src4") ? read(c, "Src4") : v1;
    // `other`: LenSqr as a plain sum, Normalize by a reciprocal, Max and Min with ties to the first source, the
    // interpolations in another order, Catmull-Rom halving before subtracting.
    float r[4], other[4], third[4];
    if (op == "LenSqr" || op == "Len") {
        float plain = v1[0] * v1[0];
        for (int i = 1; i < n; ++i) plain = plain + v1[i] * v1[i];
        r[0] = op == "Len" ? std::sqrt(sumOfSquares(v1, n)) : sumOfSquares(v1, n);
        if (op == "LenSqr") see(c, "in another order", r, &plain, 1);
        return write(c, 0, r, 1);
    }
    if (op == "Normalize") {  // a division each; the 4-component length grouped otherwise than Len's
        const float l = std::sqrt(n < 4 ? sumOfSquares(v1, n)
                                        : fma(v1[2], v1[2], v1[3] * v1[3]) + fma(v1[1], v1[1], v1[0] * v1[0]));
        for (int i = 0; i < n; ++i)
            r[i] = v1[i] / l, other[i] = v1[i] * (1.0f / l), third[i] = v1[i] / std::sqrt(sumOfSquares(v1, n));
        see(c, "in another order", r, other, n);
        see(c, "in Len's grouping", r, third, n);
        return write(c, 0, r, n);
    }
    // Hermite: s^2, s^3 in float, the coefficients in double rounded once (af, bf, kf: in float).
    const float s = c.has("s") ? arg(c, "s") : 0.0f, sq = s * s, cu = s * sq;
    const double S = s, S2 = sq, S3 = cu;
    const float a = float(fma(-S2, 3.0, S3) + S3), b = float(S3 - S2), k = float(((S - S2) - S2) + S3);
    const float af = fma(-sq, 3.0f, cu) + cu, bf = cu - sq, kf = ((s - sq) - sq) + cu;
    const bool hermite = op == "Hermite", spline = op == "InterpolationCatmullRom";
    for (int i = 0; i < n; ++i) {
        const float x = v1[i], y = v2[i], z = v3[i];
        if (op == "MulC") r[i] = arg(c, "val") * x;
        if (op == "Max") r[i] = x > y ? x : y, other[i] = x >= y ? x : y;  // NaN: the second source's
        if (op == "Min") r[i] = x < y ? x : y, other[i] = x <= y ? x : y;
        if (op == "InterpolationLinear") r[i] = fma(y - x, s, x), other[i] = x + s * (y - x);
        if (op == "BaryCentric") {
            r[i] = fma(z - x, arg(c, "g"), fma(y - x, arg(c, "f"), x));
            other[i] = fma(y - x, arg(c, "f"), fma(z - x, arg(c, "g"), x));
        }
        if (hermite || spline) {  // from p (tangent t1) to z (tangent t2); `other`: Hermite with the T2 term last
            const float p = hermite ? x : y, h1 = z * 0.5f - x * 0.5f, h2 = v4[i] * 0.5f - y * 0.5f;
            const float t1 = hermite ? y : (z - x) * 0.5f, t2 = hermite ? v4[i] : (v4[i] - y) * 0.5f;
            r[i] = fma(a, p - z, fma(b, t2, fma(t1, k, p)));
            other[i] = hermite ? fma(b, t2, fma(a, p - z, fma(t1, k, p))) : fma(a, p - z, fma(b, h2, fma(h1, k, p)));
            third[i] = fma(af, p - z, fma(bf, t2, fma(t1, kf, p)));
        }
    }
    if (op != "MulC") see(c, "in another order", r, other, n);
    if (hermite) see(c, "with coefficients in float", r, third, n);
    return write(c, 0, r, n);
}

// Max and Min half of the time from +0, -0 and NaN; the curve parameters mostly in [-0.25, 1.25]; V1 zero one time in 8
// (Normalize: 0/0 = NaN).
void fillVectors(Call& c, std::mt19937& rng) {
    const bool ties = c.name.op == "Max" || c.name.op == "Min";
    fillWith(c, [&] { return ties && rng() % 2 ? std::array{0.0, -0.0, double(NAN)}[rng() % 3] : value(rng, -3, 3); });
    for (const char* p : {"s", "f", "g"})
        if (c.has(p) && rng() % 8) setScalar(c, p, std::uniform_real_distribution<double>(-0.25, 1.25)(rng));
    const bool zero = rng() % 8 == 0;
    for (int j = 0; j < 4 && zero; ++j) c.set(c[c.hasRegion("Src") ? "Src" : "Src1"], 0, 0, j, 0.0);
    if (c.name.op == "InterpolationCatmullRom" && rng() % 4 == 0)  // V2 - V0 overflows, its halves do not
        for (int j = 0; j < 4; ++j) c.set(c["Src1"], 0, 0, j, -3e38), c.set(c["Src3"], 0, 0, j, 3e38);
}

// ---- transform builders ----
// The 16 entries; `way` evaluates one detail otherwise: 1 "0 - d" as a negation, 2 products unfused, 3 the cotangent as
// 1/tan, 4 MulTranspose's rows from column 0's product.
F16 transform(Call& c, int way) {
    const std::string& op = c.name.op;
    auto sub = [&](float d) { return way == 1 ? -d : 0.0f - d; };
    auto F = [&](float a, float b, float d) { return way == 2 ? a * b + d : fma(a, b, d); };
    const bool rh = op.back() == 'H' && op[op.size() - 2] == 'R', fov = c.has("fovY");
    float s = 1, co = 0;  // from one sincosf of the angle or of half the field of view
    if (c.has("angle") || fov) ::sincosf(fov ? arg(c, "fovY") * 0.5f : arg(c, "angle"), &s, &co);
    F16 m{};
    if (op == "Identity" || op == "Translation") m[0] = m[5] = m[10] = m[15] = 1.0f;
    if (op == "Translation") m[12] = arg(c, "x"), m[13] = arg(c, "y"), m[14] = arg(c, "z");
    if (op == "Scaling") m[0] = arg(c, "x"), m[5] = arg(c, "y"), m[10] = arg(c, "z"), m[15] = 1.0f;
    if (c.has("zNear")) {  // orthographic and perspective projections
        const bool ortho = op[0] == 'O', off = c.has("left");
        const float n = arg(c, "zNear"), f = arg(c, "zFar");
        const float w = off ? arg(c, "right") - arg(c, "left") : fov ? 0 : arg(c, "viewWidth");
        const float h = off ? arg(c, "top") - arg(c, "bottom") : fov ? 0 : arg(c, "viewHeight");
        if (off) {  // row 3 of the orthographic builders, row 2 of the perspective ones
            m[ortho ? 12 : 8] = (arg(c, "left") + arg(c, "right")) / (!ortho && rh ? w : sub(w));
            m[ortho ? 13 : 9] = (arg(c, "bottom") + arg(c, "top")) / (!ortho && rh ? h : sub(h));
        }
        const float cot = fov && way == 3 ? 1.0f / std::tan(arg(c, "fovY") * 0.5f) : co / s;
        if (ortho) {
            m[0] = 2.0f / w, m[5] = 2.0f / h, m[15] = 1.0f;
            m[10] = 1.0f / (rh ? n - f : f - n), m[14] = n / (rh ? n - f : sub(f - n));
        } else {
            m[0] = fov ? cot / arg(c, "aspect") : (n + n) / w, m[5] = fov ? cot : (n + n) / h;
            m[10] = f / (rh ? n - f : f - n), m[11] = rh ? -1.0f : 1.0f;
            m[14] = rh ? n * f / (n - f) : fov ? sub(n * f) / (f - n) : n * f / sub(f - n);
        }
    }
    if (op.size() == 9 && op.rfind("Rotation", 0) == 0) {  // about x, y or z: m_ii = m_jj = c, m_ij = s
        const int ax = op[8] - 'X', i = ax == 0 ? 1 : ax == 1 ? 2 : 0, j = ax == 0 ? 2 : ax == 1 ? 0 : 1;
        m[5 * ax] = m[15] = 1.0f, m[5 * i] = m[5 * j] = co, m[4 * i + j] = s, m[4 * j + i] = sub(s);
    }
    if (op == "RotationAxis") {
        const F16 a = read(c, "Axis");
        const float l = std::sqrt(fma(a[2], a[2], fma(a[0], a[0], a[1] * a[1])));
        const float x = a[0] / l, y = a[1] / l, z = a[2] / l, X = F(-x, co, x), Y = F(-y, co, y), Z = F(-z, co, z);
        m = {F(X, x, co), F(Y, x, s * z), F(Z, x, -(s * y)), 0, F(X, y, -(s * z)), F(Y, y, co), F(Z, y, s * x), 0,
             F(X, z, s * y), F(Y, z, -(s * x)), F(Z, z, co), 0, 0, 0, 0, 1.0f};
    }
    if (op == "RotationYawPitchRoll") {  // sincosf of yaw, pitch, roll
        float sy, cy, sp, cp, sr, cr;
        ::sincosf(arg(c, "yaw"), &sy, &cy), ::sincosf(arg(c, "pitch"), &sp, &cp), ::sincosf(arg(c, "roll"), &sr, &cr);
        m = {F(sy * sp, sr, cy * cr), sr * cp, F(sp * cy, sr, -(sy * cr)), 0, F(sy * sp, cr, -(cy * sr)), cr * cp,
             F(sy, sr, cr * (sp * cy)), 0, sy * cp, sub(sp), cy * cp, 0, 0, 0, 0, 1.0f};
    }
    if (c.hasRegion("Eye")) {  // z = normalize(at - eye) (or eye - at), x = normalize(up x z), y = z x x
        const F16 e = read(c, "Eye"), at = read(c, "At"), up = read(c, "Up");
        auto dot = [](const float* a, const float* b) { return fma(a[2], b[2], fma(a[0], b[0], a[1] * b[1])); };
        float x[3], y[3], z[3], t[3], u[3];
        for (int i = 0; i < 3; ++i) t[i] = rh ? e[i] - at[i] : at[i] - e[i];
        for (int i = 0; i < 3; ++i) z[i] = t[i] / std::sqrt(dot(t, t));
        for (int i = 0; i < 3; ++i) u[i] = F(up[(i + 1) % 3], z[(i + 2) % 3], -(up[(i + 2) % 3] * z[(i + 1) % 3]));
        for (int i = 0; i < 3; ++i) x[i] = u[i] / std::sqrt(dot(u, u));
        for (int i = 0; i < 3; ++i) y[i] = F(z[(i + 1) % 3], x[(i + 2) % 3], -(z[(i + 2) % 3] * x[(i + 1) % 3]));
        m = {x[0], y[0], z[0], 0, x[1], y[1], z[1], 0, x[2], y[2], z[2], 0,
             sub(dot(x, e.data())), sub(dot(y, e.data())), sub(dot(z, e.data())), 1.0f};
    }
    if (op == "MulTranspose") {  // rows fma(a_i3, B3, fma(a_i2, B2, fma(a_i0, B0, a_i1*B1))), stored transposed
        const F16 a = read(c, "Src1"), b = read(c, "Src2");
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                const float* r = &a[4 * i];
                const float first = way == 4 ? fma(r[1], b[4 + j], r[0] * b[j]) : fma(r[0], b[j], r[1] * b[4 + j]);
                m[4 * j + i] = fma(r[3], b[12 + j], fma(r[2], b[8 + j], first));
            }
    }
    return m;
}

OmkStatus builder(Call& c, int) {
    if (c.name.op == "IsIdentity") {  // m00 == 1 and any one column equal to the identity's
        const F16 m = read(c, "Src");
        int whole = 0;
        for (int j = 0; j < 4; ++j)
            whole += m[j] == (j == 0) && m[4 + j] == (j == 1) && m[8 + j] == (j == 2) && m[12 + j] == (j == 3);
        witness("IsIdentity_m4 as full equality", m[0] == 1.0f && whole > 0 && whole < 4);
        c.expect<int32_t>(c["Result"], 0, 0, 0, m[0] == 1.0f && whole > 0);
        return omkStsOk;
    }
    const F16 m = transform(c, 0);
    static const char* const ways[] = {"", "with 0 - d negated", "unfused", "by 1/tan", "from column 0's product"};
    for (int way = 1; way < 5; ++way) see(c, ways[way], m.data(), transform(c, way).data(), 16);
    return write(c, 0, m.data(), 16);
}

// Zeros one time in 8; one time in 4 equal near and far planes, left and right, bottom and top, an eye at the origin;
// for IsIdentity an identity with some entries replaced by 0, -0, 1, 3 or NaN.
void fillBuilders(Call& c, std::mt19937& rng) {
    fillWith(c, [&] { return rng() % 8 ? value(rng, -2, 3) : 0.0; });
    const bool ties = rng() % 4 == 0;
    for (auto [a, b] : {std::pair{"zFar", "zNear"}, {"right", "left"}, {"top", "bottom"}})
        if (ties && c.has(a)) setScalar(c, a, scalarArg(c, b));
    for (int j = 0; j < 3 && c.hasRegion("Eye") && ties; ++j) c.set(c["Eye"], 0, 0, j, 0.0);
    const std::array<double, 5> entries = {0.0, -0.0, 1.0, 3.0, NAN};
    for (int q = 0; q < 16 && c.name.op == "IsIdentity"; ++q)
        c.set(c["Src"], 0, q / 4, q % 4, rng() % 10 ? q % 5 == 0 : entries[rng() % 5]);
}

// ---- point transforms ----
// Lane j of (x, y, z, w)*M in each form's order: 2 and 3 AffineTransform m4v2/m4v3, 4 m4v4 (also Project's products), 5
// Coord m4v3, 6 and 7 Normal m4v2/m4v3; `other` takes the terms otherwise.
float lane(int form, const F16& m, const float* v, int j, bool other) {
    const float x = v[0], y = v[1], z = v[2], w = v[3], a = m[j], b = m[4 + j], c = m[8 + j], d = m[12 + j];
    switch (form) {
    case 2: return other ? fma(x, a, fma(y, b, d)) : fma(y, b, fma(x, a, d));
    case 3: return other ? fma(x, a, fma(y, b, fma(z, c, d))) : fma(z, c, fma(y, b, fma(x, a, d)));
    case 5: return other ? fma(z, c, fma(y, b, fma(x, a, d))) : fma(x, a, fma(y, b, fma(z, c, d)));
    case 6: return other ? fma(y, b, x * a) : fma(x, a, y * b);
    case 7: return other ? fma(x, a, fma(y, b, z * c)) : fma(z, c, fma(x, a, y * b));
    default: return other ? fma(y, b, x * a) + fma(w, d, z * c) : fma(x, a, y * b) + fma(z, c, w * d);
    }
}
std::array<float, 4> times(const float* v, const F16& m, bool other = false) {
    return {lane(4, m, v, 0, other), lane(4, m, v, 1, other), lane(4, m, v, 2, other), lane(4, m, v, 3, other)};
}

// AffineTransform3DH: each vector (x, y, z, w) of pSrc2 times pSrc1 as the m4v4 formula.
OmkStatus pointObject(Call& c, int k) {
    const std::string& op = c.name.op;
    const bool h3 = op == "AffineTransform3DH";
    const F16 v = read(c, h3 ? "Src2" : "Src", k);
    float r[4], other[4], unfused[3];
    if (c.hasRegion("World")) {
        const float w = arg(c, "width"), h = arg(c, "height"), lo = arg(c, "minDepth"), hi = arg(c, "maxDepth");
        const F16 proj = read(c, "Projection"), view = read(c, "View"), world = read(c, "World");
        if (op == "Unproject") {  // the viewport undone, then times the inverse of World*View*Projection
            F16 all, inv;
            for (int q = 0; q < 16; ++q) all[q] = times(times(&world[q & ~3], view).data(), proj)[q % 4];
            if (const OmkStatus st = omkmInvert_m4_32f(all.data(), nullptr, inv.data())) return st;
            const float p[4] = {(v[0] + v[0]) / w - 1.0f, 1.0f - (v[1] + v[1]) / h, (v[2] - lo) / (hi - lo), 1.0f};
            const auto q = times(p, inv);
            for (int j = 0; j < 3; ++j) r[j] = q[j] / q[3];
            return write(c, k, r, 3);
        }
        // Project: through World, View, Projection, divided by w, to the viewport (origin top-left).
        const float p[4] = {v[0], v[1], v[2], 1.0f};
        const auto q = times(times(times(p, world).data(), view).data(), proj);
        const float x = q[0] / q[3], y = q[1] / q[3], z = q[2] / q[3];
        r[0] = fma(x, w / 2, w / 2), r[1] = fma(y, 0.0f - h / 2, h / 2), r[2] = fma(z, hi - lo, lo);
        unfused[0] = x * (w / 2) + w / 2, unfused[1] = y * (0.0f - h / 2) + h / 2, unfused[2] = z * (hi - lo) + lo;
        see(c, "with its viewport unfused", r, unfused, 3);
        return write(c, k, r, 3);
    }
    const int in = h3 ? 4 : c.name.group[3] - '0', out = op == "AffineTransform" || h3 ? 4 : in;
    const bool coord = op == "AffineTransformCoord";
    const int form = op == "AffineTransformNormal" ? 4 + in : coord && in == 3 ? 5 : in;
    const F16 m = read(c, h3 ? "Src1" : "Matrix");
    for (int j = 0; j < 4; ++j) r[j] = lane(form, m, v.data(), j, false), other[j] = lane(form, m, v.data(), j, true);
    for (int j = 0; j < (coord ? out : 0); ++j) r[j] = r[j] / r[3], other[j] = other[j] / other[3];
    see(c, "in another order", r, other, out);
    return write(c, k, r, out);
}

// The array forms' strides as laid (32 bytes), packed sources (two vectors a step when the destination and its stride
// are multiples of 16 bytes), or sources padded by 4 bytes with other destination strides. Unproject sometimes of a
// World without row 0 (singular).
void fillPoints(Call& c, std::mt19937& rng) {
    if (c.name.array() && c.shape.alias.empty()) {
        const int in = 4 * (c.name.group[3] - '0'), out = c.name.op == "AffineTransform" ? 16 : in;
        const int layouts[][2] = {{32, 32}, {in, 16}, {in, out}, {in + 4, 16}, {in, 20}}, pick = int(rng() % 5);
        setStride(c, "srcStride0", layouts[pick][0]);
        setStride(c, "dstStride0", layouts[pick][1]);
    }
    fillWith(c, [&] { return value(rng); });
    if (c.name.op == "Unproject" && rng() % 8 == 0)
        for (int j = 0; j < 4; ++j) c.set(c["World"], 0, 0, j, 0.0);
}

// Sometimes the matrix read transposed, or (from two vectors on) the source's or destination's components 8 bytes apart
// in vectors 20 bytes apart: the general kernel.
void fillHomogeneous(Call& c, std::mt19937& rng) {
    const int pick = int(rng() % 4);
    if (pick == 1) setStride(c, "src1Stride1", 4), setStride(c, "src1Stride2", 16);
    if (pick > 1 && c.count > 1) setStride(c, pick == 2 ? "src2Stride0" : "dstStride0", 20);
    if (pick > 1 && c.count > 1) setStride(c, pick == 2 ? "src2Stride2" : "dstStride2", 8);
    fillWith(c, [&] { return value(rng); });
}

}  // namespace

std::vector<Family> graphicsFamilies() {
    // Each row in the order of Family's fields: name, members, shapes (independent draws here), fill, expect, work,
    // firstParallel, spoil, ways, inPlace, specials, limitShapes, fails.
    const auto draws = [](int n) { return [n](const Name& m) { return std::vector<Shape>(m.array() ? 8 : n); }; };
    Family vectors{"VectorHelpers",
                   opIn("LenSqr Len Normalize Max Min MulC BaryCentric Hermite InterpolationCatmullRom "
                        "InterpolationLinear"),
                   draws(40), fillVectors, vectorHelper, {}, {}, {}, {}, {"Src", "Src1", "Src2", "Src3", "Src4"},
                   true, {}, {}};
    addWays(vectors, "v2 v3 v4",
            {{"LenSqr Normalize Max Min BaryCentric InterpolationLinear Hermite InterpolationCatmullRom",
              "in another order"},
             {"Hermite", "with coefficients in float"}});
    addWays(vectors, "v4", {{"Normalize", "in Len's grouping"}});

    // Every 4x4 builder but the products' and solvers' Transpose, Det and Invert.
    const auto transforms = [](const Name& n) {
        return n.group == "v3m4" || (n.group == "m4" && !opIn("Transpose Det Invert")(n));
    };
    Family builders{"TransformBuilders", transforms, draws(40), fillBuilders, builder, {}, {}, {}, {}, {"Src1", "Src2"},
                    true, {}, {}};
    addWays(builders, "m4",
            {{"OrthoLH OrthoOffCenterLH OrthoOffCenterRH PerspectiveLH PerspectiveFovLH PerspectiveOffCenterLH "
              "RotationX RotationY RotationZ RotationYawPitchRoll LookAtLH LookAtRH",
              "with 0 - d negated"},
             {"RotationYawPitchRoll LookAtLH LookAtRH", "unfused"}, {"PerspectiveFovLH PerspectiveFovRH", "by 1/tan"},
             {"MulTranspose", "from column 0's product"}, {"IsIdentity", "as full equality"}});
    addWays(builders, "v3m4", {{"RotationAxis", "unfused"}});

    // Arrays of 2 to 19 points: eight-point blocks, with and without a rest.
    const auto pointDraws = [](const Name& m) {
        if (!m.array()) return std::vector<Shape>(40);
        std::vector<Shape> s(8);
        for (size_t i = 0; i < s.size(); ++i) s[i].count = (const int[]){2, 19, 8, 11}[i % 4];
        return s;
    };
    Family points{"PointTransforms",
                  opIn("AffineTransform AffineTransformCoord AffineTransformNormal Project Unproject"), pointDraws,
                  fillPoints, pointObject, {}, {}, {}, {}, {"Src"}, true, {}, {}};
    addWays(points, "m4v2 m4v3", {{"AffineTransform AffineTransformCoord AffineTransformNormal", "in another order"}});
    addWays(points, "m4v4", {{"AffineTransform", "in another order"}});
    addWays(points, "m4v3", {{"Project", "with its viewport unfused"}});

    // The only member with checks, a serial limit (6*count <= 784) and parallel runs.
    Family homogeneous{"PointTransforms3DH", opIn("AffineTransform3DH"), draws(4), fillHomogeneous, pointObject,
                       [](const Name&, const Shape& s) { return int64_t(6) * s.count; },
                       [](const Call&) { return int64_t(785); }, {}, {}, {}, true, {}, {}};
    addWays(homogeneous, "mv", {{"AffineTransform3DH", "in another order"}});
    return {vectors, builders, points, homogeneous};
}

}  // namespace omkt
