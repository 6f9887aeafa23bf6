// Bad-argument sweep over every export, called through its real signature (sweep_calls.inc) with a valid call laid into
// guarded memory (arg_rules.h). Every argument is spoiled on its own in every way spoilsOf lists, then every pair of
// spoiled arguments. Each call must return the status of the member's check order (arg_rules.h), write no byte of any
// operand, guard or scratch buffer, leave every pointer table as it was and never ask for the thread budget. The valid
// call must succeed and write only its outputs (their values are the family walks' business). Members without checks
// return omkStsOk on valid arguments and write nothing for a count below one.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "arg_rules.h"
#include "thread_budget_probe.h"

namespace {

using namespace omkt;

std::atomic<long> gExportsSwept{0}, gExportsWithChecks{0}, gCasesTried{0};

struct Report {
    long cases = 0;
    long failures = 0;
    std::vector<std::string> first;  // the first few failure messages
    void fail(const std::string& m) {
        ++failures;
        if (first.size() < 6) first.push_back(m);
    }
};

// Calls `c` with `args`; checks the status against `want`, the bytes written against the outputs (none when `mayWrite`
// is false), the pointer tables and the budget asks; restores the arena and the tables.
void check(Call& c, const Rule& rule, const std::vector<std::vector<void*>>& tables0, ArgList args, OmkStatus want,
           bool mayWrite, const std::string& label, Report& r) {
    probe::resetCalls();
    const OmkStatus st = c.ex->call(args);
    const int asks = probe::calls();
    ++r.cases;
    const std::string who = std::string(c.ex->name) + " [" + label + "]: ";
    if (st != want)
        r.fail(who + "status " + std::to_string(st) + ", expected " + std::to_string(want) + " (rule: " + rule.note +
               ")");
    if (asks != 0) r.fail(who + "asked for the thread budget " + std::to_string(asks) + " times");
    if (c.tables != tables0) {
        r.fail(who + "a pointer table changed");
        for (size_t i = 0; i < tables0.size(); ++i)
            std::copy(tables0[i].begin(), tables0[i].end(), c.tables[i].begin());
    }
    if (std::memcmp(c.arena.bytes.data(), c.pristine.data(), c.pristine.size()) != 0) {
        const std::vector<bool> ok = mayWrite ? writable(c, args) : std::vector<bool>(c.pristine.size(), false);
        for (size_t b = 0; b < c.pristine.size(); ++b)
            if (c.arena.bytes[b] != c.pristine[b] && !ok[b]) {
                std::string where = "a guard byte";
                for (const Region& g : c.regions)
                    if (b >= g.off && b < g.off + g.bytes) where = g.param + " byte " + std::to_string(b - g.off);
                r.fail(who + "wrote " + where + (mayWrite ? " (not an output element)" : " on a failed check"));
                break;
            }
        c.arena.bytes = c.pristine;
    }
}

Report sweepExport(const Export& ex) {
    Report r;
    if (!ex.call) {  // omkmGetLibVersion: the constant record, the same pointer on every call
        const OmkLibraryVersion* v = omkmGetLibVersion();
        ++r.cases;
        if (!v || v != omkmGetLibVersion()) r.fail("omkmGetLibVersion: null or changing record");
        return r;
    }
    Call c = layCall(ex);
    const Rule rule = ruleFor(ex.name);
    if (!rule.known) { r.fail(std::string(ex.name) + ": no rule"); return r; }
    if (!c.error.empty()) { r.fail(std::string(ex.name) + ": " + c.error); return r; }
    const auto tables0 = c.tables;
    const int countArg = c.argIndex("count");

    if (!rule.checks) {
        check(c, rule, tables0, c.args, omkStsOk, true, "valid, no checks", r);
        if (countArg >= 0)
            for (int64_t v : {0, -1}) {
                ArgList a = c.args;
                a.args[countArg].i = v;
                check(c, rule, tables0, a, omkStsOk, false, "count=" + std::to_string(v) + ", no checks", r);
            }
        return r;
    }

    const std::vector<Spoil> spoils = spoilsOf(c, rule);
    for (const Spoil& s : spoils)
        if (s.step == 0 || rule.order.find(s.step) == std::string::npos)
            r.fail(std::string(ex.name) + ": the rule (" + rule.order + ") has no step for " + s.what);
    if (r.failures) return r;

    check(c, rule, tables0, c.args, omkStsOk, true, "valid", r);
    for (const Spoil& s : spoils) {
        ArgList a = c.args;
        apply(a, s);
        check(c, rule, tables0, a, statusOfStep(s.step), false, s.what, r);
    }
    for (size_t i = 0; i < spoils.size(); ++i)
        for (size_t j = i + 1; j < spoils.size(); ++j) {
            const Spoil &s = spoils[i], &t = spoils[j];
            if (s.arg == t.arg) continue;
            if (s.step == 'A' && t.step == 'A') continue;  // two changed sizes may agree again
            ArgList a = c.args;
            apply(a, s);
            apply(a, t);
            check(c, rule, tables0, a, expectedStatus(rule, std::string{s.step, t.step}), false, s.what + ", " + t.what,
                  r);
        }
    // Object strides tested last and only for more than one object: with count 1 any is accepted.
    if (rule.order.find('Z') != std::string::npos && countArg >= 0)
        for (const Spoil& s : spoils) {
            if (s.step != 'Z') continue;
            ArgList a = c.args;
            a.args[countArg].i = 1;
            apply(a, s);
            check(c, rule, tables0, a, omkStsOk, true, "count=1, " + s.what, r);
        }
    return r;
}

std::vector<std::string> families() {
    std::vector<std::string> out;
    for (const Export& e : exportTable()) {
        const std::string op = parseName(e.name).op;
        if (std::find(out.begin(), out.end(), op) == out.end()) out.push_back(op);
    }
    return out;
}

// Every name of the export list has a generated call and a rule, and the generated table holds nothing else.
TEST(ArgSweep, EveryExportHasACallAndARule) {
    std::ifstream list(OMKM_EXPORTS_LIST);
    std::vector<std::string> names;
    for (std::string line; std::getline(list, line);)
        if (!line.empty()) names.push_back(line);
    ASSERT_EQ(names.size(), 874u);
    std::set<std::string> listed(names.begin(), names.end()), called;
    for (const Export& e : exportTable()) called.insert(e.name);
    for (const std::string& n : names) {
        EXPECT_TRUE(called.count(n)) << n << " has no generated call (rerun tools/gen_sweep_calls.py)";
        EXPECT_TRUE(ruleFor(n).known) << n << " has no argument rule";
    }
    for (const std::string& n : called) EXPECT_TRUE(listed.count(n)) << n << " is called but not exported";
}

class ArgSweepFamily : public testing::TestWithParam<std::string> {};

TEST_P(ArgSweepFamily, Exports) {
    probe::Budget budget(4);  // a failed check must not reach the driver whatever the budget
    long exports = 0, cases = 0;
    for (const Export& e : exportTable()) {
        if (parseName(e.name).op != GetParam()) continue;
        const Report r = sweepExport(e);
        ++exports;
        cases += r.cases;
        gExportsWithChecks += ruleFor(e.name).checks;
        for (const std::string& m : r.first) ADD_FAILURE() << m;
        if (r.failures > long(r.first.size()))
            ADD_FAILURE() << e.name << ": " << r.failures - long(r.first.size()) << " more failures";
    }
    gExportsSwept += exports;
    gCasesTried += cases;
}

INSTANTIATE_TEST_SUITE_P(ArgSweep, ArgSweepFamily, testing::ValuesIn(families()),
                         [](const testing::TestParamInfo<std::string>& i) { return i.param; });

class Figures : public testing::Environment {
public:
    void TearDown() override {
        if (gExportsSwept)
            std::printf("[ArgSweep] exports swept: %ld (%ld with checks), argument cases tried: %ld\n",
                        gExportsSwept.load(), gExportsWithChecks.load(), gCasesTried.load());
    }
};
testing::Environment* const kFigures = testing::AddGlobalTestEnvironment(new Figures);

}  // namespace
