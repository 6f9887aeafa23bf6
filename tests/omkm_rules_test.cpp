// The rules every family keeps, walked over every family row: reference bits and nothing but outputs written in every
// description, shape and layout (the walk telling each documented rounding order from its alternatives); in-place
// calls; budget asks exactly from the family's limit on, probed at the boundary, never for single objects; on threads
// the serial bits per slice, each stopping at its own first failing object, the first failing status stored returned,
// the caller's scratch buffer untouched. Check orders and "nothing written on a failed check" are the argument sweep's.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "families.h"
#include "thread_budget_probe.h"

using namespace omkt;

namespace {

const std::vector<std::vector<Style>>& layouts() {
    static const std::vector<std::vector<Style>> all = {
        {kPacked}, {kPadded}, {kGapped}, {kGapped, kPacked, kPadded}, {kPacked, kPadded, kGapped}, {kShifted}};
    return all;
}

std::vector<const Export*> membersOf(const Family& f) {
    std::vector<const Export*> out;
    for (const Export& e : exportTable())
        if (e.call && f.has(parseName(e.name))) out.push_back(&e);
    return out;
}

std::string describe(const Call& c) {
    std::ostringstream s;
    s << c.ex->name << " count " << c.count << " sizes";
    for (const Param& p : c.params)
        if (roleOf(p) == Role::Size) s << " " << p.name << "=" << c.size(p.name);
    return s.str();
}

const Family& familyNamed(const std::string& name) {
    for (const Family& f : families())
        if (f.name == name) return f;
    throw std::out_of_range(name);
}

void callAndCompare(Call& c, OmkStatus status) {
    const auto tables = c.tables;
    probe::resetCalls();
    ASSERT_EQ(c.run(), status) << describe(c);
    ASSERT_EQ(c.tables, tables) << describe(c) << ": a pointer table changed";
    const std::string diff = firstDifference(c);
    ASSERT_TRUE(diff.empty()) << describe(c) << ": " << diff;
}

// Budget asks of an array call run with a budget of one: one when its work reaches the limit.
int asksOf(const Family& f, const Call& c) {
    if (!c.name.array() || !f.work) return 0;
    return f.work(c.name, c.shape) >= f.firstParallel(c) ? 1 : 0;
}

class Rules : public testing::TestWithParam<std::string> {};

}  // namespace

TEST(Families, EveryExportHasExactlyOneFamily) {
    for (const Export& e : exportTable()) {
        if (!e.call) continue;
        int rows = 0;
        for (const Family& f : families()) rows += f.has(parseName(e.name));
        EXPECT_EQ(rows, 1) << e.name;
    }
}

TEST_P(Rules, EveryMemberShapeAndLayoutBitForBit) {
    const Family& f = familyNamed(GetParam());
    probe::Budget one(1);
    std::mt19937 rng(std::hash<std::string>{}(f.name) & 0xffff);
    for (const std::string& w : f.ways) witnesses()[w] = 0;
    for (const Export* ex : membersOf(f))
        for (Shape s : f.shapes(parseName(ex->name)))
            for (const auto& layout : layouts())
                for (int count : {1, 3, 19}) {
                    const Name nm = parseName(ex->name);
                    if ((count > 1 && !nm.array()) || (count == 19 && layout[0].step > 1)) continue;
                    s.count = count;
                    s.styles = layout;
                    Call c = prepared(f, *ex, s, rng);
                    ASSERT_TRUE(c.error.empty()) << c.error;
                    callAndCompare(c, expectSerial(f, c));
                    ASSERT_EQ(probe::calls(), asksOf(f, c)) << describe(c);
                }
    for (const std::string& w : f.ways) EXPECT_GT(witnesses()[w], 0) << "no input told apart: " << w;
}

// NaN, infinities, signed zeros, subnormals and the largest values flow through the documented formulas as IEEE
// arithmetic has them (any NaN matching any NaN): no flush to zero, no unfused product at the overflow edge, no wrong
// zero sign, no special value reaching a result it does not enter.
TEST_P(Rules, SpecialValuesFollowTheReference) {
    const Family& f = familyNamed(GetParam());
    if (!f.specials) GTEST_SKIP() << "checked in the family's own cases";
    probe::Budget one(1);
    std::mt19937 rng(13);
    for (const Export* ex : membersOf(f))
        for (Shape s : f.shapes(parseName(ex->name)))
            for (const auto& layout : {std::vector<Style>{kPacked}, std::vector<Style>{kGapped}}) {
                s.count = 3;
                s.styles = layout;
                Call c = prepared(f, *ex, s, rng);
                sprinkleSpecials(c, rng);
                callAndCompare(c, expectSerial(f, c));
            }
}

TEST_P(Rules, InPlaceOverEverySourceThatMayBeOverwritten) {
    const Family& f = familyNamed(GetParam());
    std::mt19937 rng(7);
    for (const std::string& source : f.inPlace)
        for (const Export* ex : membersOf(f)) {
            for (Shape s : f.shapes(parseName(ex->name)))
                for (const auto& layout : {std::vector<Style>{kPacked}, std::vector<Style>{kGapped}}) {
                    s.count = 3;
                    s.styles = layout;
                    Call plain = layCall(*ex, s);
                    if (!plain.hasRegion(source)) continue;
                    const Region &from = plain[source], &to = plain["Dst"];
                    if (from.array != to.array || from.rows != to.rows || from.cols != to.cols) continue;
                    s.alias = source;
                    Call c = prepared(f, *ex, s, rng);
                    callAndCompare(c, expectSerial(f, c));
                }
        }
}

namespace {

// A member's shapes (sizes, count) of the largest work below `limit`, of work `limit` if any, and of the least above.
std::vector<Shape> aroundLimit(const Family& f, const Name& nm, int64_t limit) {
    Shape below, at, above;
    int64_t wb = -1, wa = INT64_MAX;
    bool exact = false;
    for (Shape s : f.limitShapes ? f.limitShapes(nm) : f.shapes(nm))
        for (s.count = 1; s.count <= 20000; ++s.count) {
            const int64_t w = f.work(nm, s);
            if (w < limit && w > wb) wb = w, below = s;
            if (w == limit && !exact) exact = true, at = s;
            if (w > limit) {
                if (w < wa) wa = w, above = s;
                break;
            }
        }
    std::vector<Shape> out = {below, above};
    if (exact) out.push_back(at);
    return out;
}

}  // namespace

TEST_P(Rules, ArrayMembersAskForThreadsFromTheirLimitOn) {
    const Family& f = familyNamed(GetParam());
    if (!f.work) GTEST_SKIP() << "no array members";
    probe::Budget one(1);
    std::mt19937 rng(11);
    for (const Export* ex : membersOf(f)) {
        const Name nm = parseName(ex->name);
        if (!nm.array()) continue;
        for (const auto& layout :
             {std::vector<Style>{kPacked}, std::vector<Style>{kPadded}, std::vector<Style>{kGapped},
              std::vector<Style>{kGapped, kPacked, kPacked}, std::vector<Style>{kPacked, kGapped, kPacked},
              std::vector<Style>{kPacked, kPacked, kGapped}}) {
            Shape probeShape = f.shapes(nm)[0];
            probeShape.styles = layout;
            const int64_t limit = f.firstParallel(layCall(*ex, probeShape));
            for (Shape s : aroundLimit(f, nm, limit)) {
                s.styles = layout;
                Call c = prepared(f, *ex, s, rng);
                ASSERT_EQ(f.firstParallel(c), limit) << describe(c);
                callAndCompare(c, expectSerial(f, c));
                ASSERT_EQ(probe::calls(), f.work(nm, s) >= limit ? 1 : 0)
                    << describe(c) << " work " << f.work(nm, s) << " first parallel work " << limit;
            }
        }
    }
}

TEST_P(Rules, SlicesGiveTheSerialBitsAndStopAtTheirOwnFailure) {
    const Family& f = familyNamed(GetParam());
    if (!f.work) GTEST_SKIP() << "no array members";
    for (const Export* ex : membersOf(f)) {
        const Name nm = parseName(ex->name);
        if (!nm.array()) continue;
        for (const auto& layout : {std::vector<Style>{kPacked}, std::vector<Style>{kGapped}}) {
            Shape s = f.shapes(nm)[0];
            s.styles = layout;
            const int64_t limit = f.firstParallel(layCall(*ex, s));
            for (s.count = 1; f.work(nm, s) < limit || s.count < 9;) ++s.count;
            s.count = 2 * s.count + 3;
            for (int budget : {2, 3})
                for (const bool failing : {false, true}) {
                    if (failing && (!f.spoil || (f.fails && !f.fails(nm)))) continue;
                    std::mt19937 rng(budget);
                    Call c = prepared(f, *ex, s, rng);
                    const std::vector<Slice> slices = driverSlices(s.count, teamFor(budget));
                    // A failure in the middle of every slice after the first.
                    for (size_t t = 1; failing && t < slices.size(); ++t)
                        f.spoil(c, slices[t].first + slices[t].count / 2);
                    const OmkStatus status = expectOver(f, c, slices);
                    ASSERT_EQ(status != omkStsOk, failing) << describe(c);
                    std::vector<unsigned char> buffer;
                    if (c.hasRegion("Buffer"))
                        buffer.assign(c.arena.at(c["Buffer"].off), c.arena.at(c["Buffer"].off) + c["Buffer"].bytes);
                    probe::Budget b(budget);
                    callAndCompare(c, status);
                    ASSERT_EQ(probe::calls(), 2) << describe(c) << " budget " << budget;
                    if (!buffer.empty())
                        ASSERT_TRUE(std::equal(buffer.begin(), buffer.end(), c.arena.at(c["Buffer"].off)))
                            << describe(c) << ": the caller's buffer was used on threads";
                }
        }
    }
}

// Packed arrays run in blocks of 8 floats or 4 doubles (19 objects: whole blocks and a tail). Each object keeps its own
// bits whatever shares its block: a block of copies of itself, or neighbours of the family's own fill (LU's and
// DetInvert's tie and pivot there); and an array stops at its first failing object wherever it lies, at every lane of a
// block and in the tail, at every order the family walks.
TEST_P(Rules, BlocksGiveEachObjectItsOwnBits) {
    const Family& f = familyNamed(GetParam());
    if (!f.work) GTEST_SKIP() << "no array members";
    probe::Budget one(1);
    for (const Export* ex : membersOf(f)) {
        const Name nm = parseName(ex->name);
        if (!nm.array()) continue;
        int failed = 0;
        for (Shape s : f.shapes(nm)) {
            s.count = 19;
            s.styles = {kPacked};
            // A call holds pointers into its own arena: each case lays out its own, with the same fill.
            auto fresh = [&] {
                std::mt19937 rng(7);
                return prepared(f, *ex, s, rng);
            };
            const int lanes = 32 / (nm.type == "32f" ? 4 : 8);
            for (const int k : {0, lanes + 1, 18}) {
                Call c = fresh();
                ASSERT_TRUE(c.error.empty()) << c.error;
                for (const Region& g : c.regions)
                    if (g.array && !g.output && g.kind != Region::Scratch)
                        for (int q = 0; q < c.count; ++q)
                            for (int i = 0; i < g.rows; ++i)
                                for (int j = 0; j < g.cols; ++j)
                                    std::memcpy(c.arena.at(g.at(q, i, j)), c.arena.at(g.at(k, i, j)), size_t(g.esize));
                callAndCompare(c, expectSerial(f, c));
            }
            if (!f.spoil || (f.fails && !f.fails(nm))) continue;
            for (const int k : {0, lanes - 1, lanes + 2, 2 * lanes - 1, 17}) {
                Call c = fresh();
                f.spoil(c, k);
                const OmkStatus status = expectSerial(f, c);
                failed += status != omkStsOk;  // some shapes cannot fail (a 1x1 QR has no reflection)
                callAndCompare(c, status);
            }
        }
        if (f.spoil && (!f.fails || f.fails(nm))) EXPECT_GT(failed, 0) << ex->name << ": no object failed";
    }
}

INSTANTIATE_TEST_SUITE_P(Families, Rules, testing::ValuesIn([] {
                             std::vector<std::string> names;
                             for (const Family& f : families()) names.push_back(f.name);
                             return names;
                         }()),
                         [](const testing::TestParamInfo<std::string>& i) { return i.param; });
