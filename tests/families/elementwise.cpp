// Family rows of element-wise operations and moves: Add, Sub, Saxpy, LComb, Copy, Extract, LoadIdentity, Transpose.
#include "families.h"

namespace omkt {
namespace {

bool isMatrixGroup(const Name& n) { return n.group.find_first_of("mt") != std::string::npos; }

std::vector<Shape> matrixShapes(const Name& n) {
    std::vector<Shape> out;
    if (n.group.size() == 2 && n.group[0] == 'v' && std::isdigit(static_cast<unsigned char>(n.group[1])))
        return {Shape{}};  // a fixed-length form
    if (!isMatrixGroup(n)) {
        for (int len : {1, 2, 3, 4, 5, 6, 7, 16, 17, 37}) out.push_back(Shape{}), out.back().sizes = {{"len", len}};
        return out;
    }
    for (auto [w, h] : {std::pair{3, 3}, {4, 4}, {5, 5}, {6, 6}, {1, 1}, {2, 3}, {7, 5}, {9, 2}, {4, 6}})
        out.push_back(Shape{}), out.back().sizes = {{"width", w}, {"height", h}};
    return out;
}

int lengthOf(const Call& c, const Region& d) { return d.kind == Region::Fixed ? c.name.group[1] - '0' : d.cols; }

// ---- Add and Sub: one rounded operation per element, the operands in the order of the name ----
template <class T> OmkStatus addSubObject(Call& c, int k) {
    const std::string kinds = c.name.kinds();
    const auto src = stridedSources(c);
    const Region& d = c["Dst"];
    auto operand = [&](size_t which, int i, int j) -> T {
        const char kind = kinds[which];
        if (kind == 'c') return c.hasRegion("Val") ? c.get<T>(c["Val"], k, 0, 0) : T(scalarArg(c, "val"));
        const size_t index = size_t(std::count_if(kinds.begin(), kinds.begin() + ptrdiff_t(which),
                                                  [](char x) { return x != 'c'; }));
        const Region& g = *src[index];
        return kind == 't' ? c.get<T>(g, k, j, i) : c.get<T>(g, k, kind == 'v' ? 0 : i, j);
    };
    for (int i = 0; i < d.rows; ++i)
        for (int j = 0; j < lengthOf(c, d); ++j) {
            const T a = operand(0, i, j), b = operand(1, i, j);
            c.expect<T>(d, k, i, j, c.name.op == "Add" ? T(a + b) : T(a - b));
        }
    return omkStsOk;
}

int64_t addSubWork(const Name& n, const Shape& s) {
    const int64_t w = s.size("width"), h = s.size("height"), len = s.size("len"), c = s.count;
    const std::string& g = n.group;
    if (g == "mama" || g == "tama" || g == "tata" || g == "mata") return 3 * c * w * h;
    if (isMatrixGroup(n)) return w * h * (2 * c + 1);
    if (g == "vava") return 3 * c * len;
    if (g == "vca" || g == "cav") return len * (c + 1) + c;
    if (g == "vaca" || g == "cava") return c * (2 * len + 1);
    if (g == "cva") return 2 * c;
    return (2 * c + 1) * len;  // vav, vva, vac
}

// Matrices run on threads from work 2000 on (3000 for 32-bit standard calls with contiguous elements); vectors above
// 1500 (_P), 2500 (_L), 1400 (64-bit standard) or 4800, and cva from one less.
int64_t addSubFirstParallel(const Call& c) {
    const Name& n = c.name;
    if (isMatrixGroup(n)) return n.desc.empty() && c.esize == 4 && contiguous(c) ? 3000 : 2000;
    const int64_t bound = n.desc == "P" ? 1500 : n.desc == "L" ? 2500 : c.esize == 8 ? 1400 : 4800;
    return n.group == "cva" ? bound : bound + 1;
}

// ---- Saxpy: fma(scale, src1, src2); LComb: fma(scale2, src2, scale1 * src1 rounded) ----
template <class T> OmkStatus scaledSumObject(Call& c, int k) {
    const Region &x = c["Src1"], &y = c["Src2"], &d = c["Dst"];
    const bool lcomb = c.name.op == "LComb";
    const T s1 = T(scalarArg(c, lcomb ? "scale1" : "scale")), s2 = lcomb ? T(scalarArg(c, "scale2")) : T(0);
    for (int j = 0; j < d.cols; ++j) {
        const T a = c.get<T>(x, k, 0, j), b = c.get<T>(y, k, 0, j);
        if (!lcomb) {
            const T r = std::fma(s1, a, b);
            witness("Saxpy unfused", differ(r, T(s1 * a + b)));
            c.expect<T>(d, k, 0, j, r);
            continue;
        }
        const T p1 = s1 * a, p2 = s2 * b, r = std::fma(s2, b, p1);
        witness("LComb second product rounded", differ(r, std::fma(s1, a, p2)));
        witness("LComb both products rounded", differ(r, T(p1 + p2)));
        c.expect<T>(d, k, 0, j, r);
    }
    return omkStsOk;
}

// Random vectors and scales; every odd element of the second source nearly cancels the first term, leaving a product's
// rounding error that tells the orders apart.
void fillScaledSum(Call& c, std::mt19937& rng) {
    fillRandom(c, rng, -12, 12);
    const bool lcomb = c.name.op == "LComb";
    setScalar(c, lcomb ? "scale1" : "scale", entry(rng, -12, 12));
    if (lcomb) setScalar(c, "scale2", entry(rng, -12, 12));
    const double s1 = scalarArg(c, lcomb ? "scale1" : "scale"), s2 = lcomb ? scalarArg(c, "scale2") : 1;
    const Region &x = c["Src1"], &y = c["Src2"];
    for (int k = 0; k < c.objects(y); ++k)
        for (int j = 1; j < y.cols; j += 2) {
            const double a = c.value(x, k, 0, j);
            c.set(y, k, 0, j, c.esize == 4 ? double(-float(float(s1) * float(a)) / float(s2)) : -(s1 * a) / s2);
        }
}

int64_t scaledSumWork(const Name& n, const Shape& s) {
    const int64_t len = s.size("len"), c = s.count;
    return n.group == "vava" ? 3 * c * len : (2 * c + 1) * len;
}

// Work up to the bound stays serial; the first bound is for contiguous elements, the second for others.
int64_t scaledSumFirstParallel(const Call& c) {
    const Name& n = c.name;
    std::pair<int, int> b;
    if (n.op == "LComb") b = n.desc == "L" && c.esize == 4 ? std::pair{4500, 3750} : std::pair{4500, 4500};
    else if (n.desc == "P") b = {1200, 1200};
    else if (n.desc == "L") b = c.esize == 8 ? std::pair{1000, 1000} : n.group == "vva" ? std::pair{1500, 1500}
                                                                                           : std::pair{1500, 1000};
    else b = c.esize == 4 ? std::pair{3000, 2000} : std::pair{3000, 1200};
    return (contiguous(c) ? b.first : b.second) + 1;
}

// ---- Copy, Extract, LoadIdentity, Transpose: raw words moved ----
// Words a move through arithmetic or a conversion would not keep (NaNs with payloads, signalling NaNs, -0.0,
// subnormals, infinities) and random words.
void fillWords(Call& c, std::mt19937& rng) {
    static const uint64_t w32[] = {0x7fa00001, 0xffc12345, 0x7f800001, 0x80000000, 0x00000001, 0x807fffff},
                          w64[] = {0x7ff4000000000001, 0xfff8000000012345, 0x8000000000000000,
                                   0x0000000000000001, 0x800fffffffffffff, 0x7ff0000000000000};
    std::uniform_int_distribution<uint64_t> bits;
    for (Region& g : c.regions) {
        if (g.output) continue;
        for (int k = 0; k < c.objects(g); ++k)
            for (int i = 0; i < (g.kind == Region::Fixed ? 4 : g.rows); ++i)
                for (int j = 0; j < (g.kind == Region::Fixed ? 4 : g.cols); ++j) {
                    const uint64_t r = bits(rng), w = r % 3 ? r : (c.esize == 4 ? w32 : w64)[r % 6];
                    std::memcpy(c.arena.at(g.at(k, i, j)), &w, size_t(g.esize));
                }
    }
}

OmkStatus move(Call& c, int k) {
    const Name& n = c.name;
    const Region& d = c["Dst"];
    const int e = c.esize;
    auto put = [&](int i, int j, const Region& s, int si, int sj) {
        std::memcpy(c.want.data() + d.at(k, i, j), c.arena.bytes.data() + s.at(k, si, sj), size_t(e));
    };
    if (n.op == "LoadIdentity") {
        for (int i = 0; i < d.rows; ++i)
            for (int j = 0; j < d.cols; ++j) c.expectValue(d, k, i, j, i == j ? 1 : 0);
        return omkStsOk;
    }
    const Region& s = c["Src"];
    if (n.op == "Transpose") {
        const int rows = s.kind == Region::Fixed ? 4 : s.rows, cols = s.kind == Region::Fixed ? 4 : s.cols;
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) put(j, i, s, i, j);
    } else if (n.op == "Extract") {
        // Dense, row-major as used: a transposed source is read across its stored rows.
        const int w = n.group[0] == 'v' ? c.size("len") : c.size("width"), h = n.group[0] == 'v' ? 1 : c.size("height");
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) put(0, i * w + j, s, n.group[0] == 't' ? j : i, n.group[0] == 't' ? i : j);
    } else {
        for (int i = 0; i < s.rows; ++i)
            for (int j = 0; j < s.cols; ++j) put(i, j, s, i, j);
    }
    return omkStsOk;
}

std::vector<Shape> moveShapes(const Name& n) {
    if (n.group == "m4") return {Shape{}};
    std::vector<Shape> out;
    for (auto [w, h] : {std::pair{1, 1}, {3, 3}, {4, 4}, {5, 3}, {3, 5}, {7, 2}, {8, 8}, {17, 9}}) {
        out.push_back(Shape{});
        out.back().sizes = n.group[0] == 'v' ? std::map<std::string, int>{{"len", w * h}}
                                            : std::map<std::string, int>{{"width", w}, {"height", h}};
    }
    return out;
}

}  // namespace

std::vector<Family> elementwiseFamilies() {
    Family addSub;
    addSub.name = "AddSub";
    addSub.has = [](const Name& n) { return n.op == "Add" || n.op == "Sub"; };
    addSub.shapes = matrixShapes;
    addSub.limitShapes = [](const Name& n) { return allSizes(isMatrixGroup(n), isMatrixGroup(n) ? 8 : 64); };
    addSub.fill = [](Call& c, std::mt19937& rng) {
        fillRandom(c, rng, -12, 12);
        if (c.has("val")) setScalar(c, "val", entry(rng, -12, 12));
    };
    addSub.expect = [](Call& c, int k) {
        return byType(c.esize, [&](auto t) { return addSubObject<decltype(t)>(c, k); });
    };
    addSub.work = addSubWork;
    addSub.firstParallel = addSubFirstParallel;
    addSub.specials = true;

    Family saxpy;
    saxpy.name = "SaxpyLComb";
    saxpy.has = [](const Name& n) { return n.op == "Saxpy" || n.op == "LComb"; };
    saxpy.shapes = [](const Name&) {
        std::vector<Shape> out;
        for (int len : {1, 2, 3, 4, 5, 6, 7, 8, 16, 17, 33}) out.push_back(Shape{}), out.back().sizes = {{"len", len}};
        return out;
    };
    saxpy.limitShapes = [](const Name&) { return allSizes(false, 64); };
    saxpy.fill = fillScaledSum;
    saxpy.expect = [](Call& c, int k) {
        return byType(c.esize, [&](auto t) { return scaledSumObject<decltype(t)>(c, k); });
    };
    saxpy.work = scaledSumWork;
    saxpy.firstParallel = scaledSumFirstParallel;
    saxpy.ways = {"Saxpy unfused", "LComb second product rounded", "LComb both products rounded"};
    saxpy.inPlace = {"Src1", "Src2"};
    saxpy.specials = true;

    Family moves;
    moves.name = "Move";
    moves.has = [](const Name& n) {
        return n.op == "Copy" || n.op == "Extract" || n.op == "LoadIdentity" || n.op == "Transpose";
    };
    moves.shapes = moveShapes;
    moves.fill = fillWords;
    moves.expect = move;
    return {addSub, saxpy, moves};
}

}  // namespace omkt
