// libFuzzer harness over the array members' arguments, judged by the argument rules of tests/arg_rules.h (independent
// of the library): a wrong argument gives the status of the first failing step of its member's order, writes nothing;
// a valid call succeeds, writes only its outputs, and gives the same bytes on budgets 1 and 2. fuzz/README.md gives the
// input layout and how to run it.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "arg_rules.h"

namespace {

using namespace omkt;

const std::vector<const Export*>& arrayMembers() {
    static const std::vector<const Export*> list = [] {
        std::vector<const Export*> out;
        for (const Export& e : exportTable())
            if (e.call && hasParam(parseParams(e.params), "count")) out.push_back(&e);
        return out;
    }();
    return list;
}

int gBudget = 1;
int gAsks = 0;

struct Reader {
    const uint8_t* p;
    size_t n, at = 0;
    uint8_t byte() { return at < n ? p[at++] : 0; }
    int32_t word() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= uint32_t(byte()) << (8 * i);
        return int32_t(v);
    }
};

[[noreturn]] void fail(const Call& c, const ArgList& a, const std::string& what) {
    std::fprintf(stderr, "\n*** %s: %s\n    arguments:", c.ex->name, what.c_str());
    for (size_t i = 0; i < c.params.size(); ++i) {
        const Arg& x = a.args[i];
        std::fprintf(stderr, " %s=", c.params[i].name.c_str());
        if (c.params[i].type == 'p') std::fprintf(stderr, "%s", x.ptr ? "ptr" : "NULL");
        else if (c.params[i].type == 'f') std::fprintf(stderr, "%g", x.f);
        else std::fprintf(stderr, "%lld", (long long)x.i);
    }
    std::fprintf(stderr, "\n");
    std::abort();
}

// Statuses a family reports for matrices it cannot factor, invert or diagonalise.
std::vector<OmkStatus> numericStatuses(const std::string& op) {
    if (op == "LUDecomp" || op == "Invert") return {omkStsSingular};
    if (op == "CholeskyDecomp") return {omkStsNotPosDefinite};
    if (op == "QRDecomp") return {omkStsDivByZero};
    if (op.rfind("EigenValues", 0) == 0) return {omkStsSingular, omkStsNotConverged};
    return {};
}

OmkStatus callWithBudget(Call& c, const ArgList& args, int budget) {
    gBudget = budget;
    gAsks = 0;
    ArgList a = args;
    return c.ex->call(a);
}

// The arena bytes a run leaves, outside the scratch buffers (which serial and parallel runs use differently).
Bytes resultBytes(const Call& c) {
    Bytes out = c.arena.bytes;
    for (const Region& g : c.regions)
        if (g.kind == Region::Scratch) std::fill_n(out.begin() + g.off, g.bytes, 0);
    return out;
}

}  // namespace

// The library's thread budget, set per run and counted.
extern "C" __attribute__((visibility("default"))) int ownGetNumThreads(void) {
    ++gAsks;
    return gBudget;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    const auto& members = arrayMembers();
    const uint16_t pick = uint16_t(in.byte() | (in.byte() << 8));
    const Export& ex = *members[pick % members.size()];
    Shape shape;
    shape.n = 1 + in.byte() % 6;
    shape.count = 1 + in.byte() % 48;
    const uint8_t style = in.byte();
    shape.step = 1 + (style & 1);
    shape.rowGap = (style >> 1) & 3;
    shape.objectGap = (style >> 3) & 3;
    shape.roi = (style >> 5) & 3;
    const bool compareParallel = in.byte() & 1;

    Call c = layCall(ex, shape);
    const Rule rule = ruleFor(ex.name);
    if (!rule.known || !c.error.empty()) {
        std::fprintf(stderr, "%s: %s\n", ex.name, rule.known ? c.error.c_str() : "no rule");
        std::abort();
    }
    const int e = c.esize, n = c.n;
    ArgList args = c.args;
    std::string failing;  // steps that fail
    int width = n;        // order the row-order arrays are written for

    for (size_t i = 0; i < c.params.size(); ++i) {
        const Param& p = c.params[i];
        Arg& a = args.args[i];
        const uint8_t sel = in.byte();
        if (sel < 160) continue;
        const uint8_t how = in.byte();
        const int32_t v = in.word();
        const Role role = roleOf(p);
        if (!rule.checks && role != Role::Count) continue;  // unchecked members: valid values only
        const char step = stepOf(rule, p);
        switch (role) {
        case Role::Ptr: a.ptr = nullptr; failing += step; break;
        case Role::Count: {
            const int32_t choice[] = {0, -1, INT_MIN, v < 0 ? v : -1 - v};
            if (how % 2 == 0) { a.i = 1 + uint32_t(v) % uint32_t(c.count); break; }  // fewer objects
            a.i = choice[(how / 2) % 4];
            if (rule.checks) failing += step;
            break;
        }
        case Role::Size: {
            const int32_t choice[] = {0, -1, INT_MIN, v < 0 ? v : -1 - v};
            if (how % 2 == 0) { a.i = 1 + uint32_t(v) % uint32_t(n); break; }  // smaller, still valid
            a.i = choice[(how / 2) % 4];
            failing += step;
            break;
        }
        case Role::Stride: {
            int64_t bad[] = {0, -e, e / 2, e + e / 2, INT_MIN, v};
            int64_t x = bad[how % 6];
            if (x > 0 && x % e == 0) x = x == INT32_MAX ? INT32_MAX : x + 1;  // a positive multiple is valid: spoil it
            a.i = x;
            failing += step;
            break;
        }
        case Role::Roi: {
            int64_t bad[] = {-e, e / 2, -e / 2, INT_MIN, v};
            int64_t x = bad[how % 5];
            if (x >= 0 && x % e == 0) x = x + 1 > INT32_MAX ? -e : x + 1;
            a.i = x;
            failing += step;
            break;
        }
        default: break;
        }
    }

    const int ci = c.argIndex("count");
    const int64_t count = args.args[ci].i;
    // Copy tests its object strides only for more than one object.
    if (count == 1) failing.erase(std::remove(failing.begin(), failing.end(), 'Z'), failing.end());
    bool sizesPositive = true;
    for (size_t i = 0; i < c.params.size(); ++i)
        if (roleOf(c.params[i]) == Role::Size && args.args[i].i < 1) sizesPositive = false;
    if (sizesPositive) {
        auto value = [&](const std::string& name) { return args.args[c.argIndex(name)].i; };
        if (!sizesAgree(rule, value)) failing += 'A';
        const int wi = c.argIndex("widthHeight");
        if (wi >= 0) width = int(args.args[wi].i);
    }
    if (width >= 1 && width < n) setRowOrders(c, width);

    const auto tables0 = c.tables;
    const OmkStatus st = callWithBudget(c, args, 1);
    if (!failing.empty()) {
        const OmkStatus want = expectedStatus(rule, failing);
        if (st != want)
            fail(c, args, "status " + std::to_string(st) + " where the failing steps " + failing + " of order " +
                              rule.order + " give " + std::to_string(want));
        if (c.arena.bytes != c.pristine) fail(c, args, "bytes written on a failed check");
        if (c.tables != tables0) fail(c, args, "pointer table changed");
        if (gAsks) fail(c, args, "thread budget asked on a failed check");
        return 0;
    }
    // A _P member called with sizes below the layout's order reads its element pointers with a smaller row length and
    // sees the stored values reshuffled, possibly singular: there the family's numeric statuses are right too.
    bool reshuffled = false;
    for (size_t i = 0; i < c.params.size(); ++i)
        if (roleOf(c.params[i]) == Role::Size && args.args[i].i < n) reshuffled = c.name.desc == "P";
    const std::vector<OmkStatus> numeric = numericStatuses(c.name.op);
    const bool numericOk = reshuffled && std::find(numeric.begin(), numeric.end(), st) != numeric.end();
    if (st != omkStsOk && !numericOk) fail(c, args, "status " + std::to_string(st) + " on valid arguments");
    if (c.tables != tables0) fail(c, args, "pointer table changed");
    const std::vector<bool> ok = writable(c, args);
    for (size_t b = 0; b < c.pristine.size(); ++b)
        if (c.arena.bytes[b] != c.pristine[b] && !ok[b]) {
            std::string where = "a guard byte " + std::to_string(b);
            for (const Region& g : c.regions)
                if (b >= g.off && b < g.off + g.bytes) where = g.param + " byte " + std::to_string(b - g.off);
            fail(c, args, "wrote " + where + ", not an output element");
        }
    if (compareParallel && count >= 2 && st == omkStsOk) {
        const Bytes serial = resultBytes(c);
        c.arena.bytes = c.pristine;
        const OmkStatus st2 = callWithBudget(c, args, 2);
        if (st2 != st)
            fail(c, args, "status " + std::to_string(st2) + " with 2 threads, " + std::to_string(st) + " serially");
        if (resultBytes(c) != serial) fail(c, args, "results with 2 threads differ from the serial results");
        if (c.tables != tables0) fail(c, args, "pointer table changed with 2 threads");
    }
    return 0;
}
