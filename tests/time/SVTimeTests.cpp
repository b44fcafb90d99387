// SPDX-License-Identifier: Apache-2.0
// Time values: exact values, flags and epochs, the deliberate oddities, the
// fatal division by zero, and properties over random inputs checked against
// exact 128-bit arithmetic and against the rules computed step by step.

#include <Sorvel/SVTime.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <numeric>
#include <random>
#include <string>
#include <utility>

#include "support/TestAllocator.h"
#include "time/SVTimeInternal.h"

bool operator==(const SVTime &a, const SVTime &b) {
    return a.value == b.value && a.timescale == b.timescale && a.flags == b.flags && a.epoch == b.epoch;
}
void PrintTo(const SVTime &t, std::ostream *os) {
    *os << "{" << t.value << ", " << t.timescale << ", flags " << t.flags << ", epoch " << t.epoch << "}";
}

namespace {

using sorvel::time::rescale, sorvel::time::rescaleLiteral;
using ::testing::PrintToString;
constexpr int64_t kMax = INT64_MAX, kMin = INT64_MIN;
constexpr SVTime T(int64_t v, int32_t ts, uint32_t f = 1, int64_t e = 0) {
    return {v, ts, f, e};
}
const SVTime kInv = T(0, 0, 0), kIndef = T(0, 0, 17), kPInf = T(0, 0, 5), kNInf = T(0, 0, 9);

// Random values spread over every magnitude, and timescales likewise.
struct Random {
    std::mt19937_64 engine{20240611};
    int64_t value(int maxBits = 63) {
        int bits = static_cast<int>(engine() % (maxBits + 1));
        uint64_t v = bits == 0 ? 0 : engine() >> (64 - bits);
        return engine() & 1 ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
    }
    int32_t timescale() {
        static const int32_t common[] = {1, 2, 3, 600, 1000, 24000, 30000, 44100, 48000, 90000, INT32_MAX};
        if (engine() & 1) return common[engine() % std::size(common)];
        return static_cast<int32_t>(1 + (engine() >> (33 + engine() % 31)) % INT32_MAX);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(engine() % n); }
};

TEST(SVTime, ConstantsKeysAndConstruction) {
    static_assert(sizeof(SVTime) == 24 && offsetof(SVTime, flags) == 12 && offsetof(SVTime, epoch) == 16);
    EXPECT_EQ(kSVTimeZero, T(0, 1, 1));
    EXPECT_TRUE(kSVTimeInvalid == kInv && kSVTimeIndefinite == kIndef && kSVTimePositiveInfinity == kPInf &&
                kSVTimeNegativeInfinity == kNInf);
    EXPECT_TRUE(CFEqual(kSVTimeValueKey, CFSTR("value")) && CFEqual(kSVTimeScaleKey, CFSTR("timescale")) &&
                CFEqual(kSVTimeEpochKey, CFSTR("epoch")) && CFEqual(kSVTimeFlagsKey, CFSTR("flags")));
    EXPECT_EQ(SVTimeMake(5, 0), kInv);
    EXPECT_EQ(SVTimeMake(5, -1), kInv);
    EXPECT_EQ(SVTimeMakeWithEpoch(5, 0, 9), kInv);
    EXPECT_EQ(SVTimeMakeWithEpoch(kMin, INT32_MAX, -9), T(kMin, INT32_MAX, 1, -9));
}

TEST(SVTime, CompareOrdersKindsThenEpochsThenDoubleQuotients) {
    // Quotients beyond 2^53 round alike and so compare equal; a dictionary-
    // made zero timescale gives an infinite quotient.
    struct Case {
        SVTime a, b;
        int32_t expected;
    } cases[] = {
        // clang-format off
        {kInv, kPInf, 1}, {kInv, kInv, 0}, {T(7, 3, 0, 4), T(-1, 9, 2, 1), 0}, {kIndef, kPInf, -1},
        {T(1, 1, 17), T(2, 5, 19, 3), 0}, {kNInf, T(-1000000, 1), -1}, {kNInf, T(5, 0, 9, 8), 0},
        {T(kMax, 1), kIndef, -1}, {T(1, 2), T(2, 4), 0}, {T(1, 2, 3), T(1, 2), 0},
        {T(-kMax, 1, 1, 1), T(kMax, 1), 1}, {T(0, 1, 1, -1), T(kMin, 1), -1},
        {T(9007199254740993, 1), T(9007199254740992, 1), 0}, {T(-9007199254740993, 1), T(-9007199254740992, 1), 0},
        {T(kMax, 1), T(kMax - 1, 1), 0}, {T(2251799813685247, 3), T(2251799813685246, 3), 1},
        {T(1, 3), T(333333333, 1000000000), 1}, {T(-1, 3), T(-333333333, 1000000000), -1}, {T(1, 0), T(1, 1), 1},
        // clang-format on
    };
    for (const Case &c : cases) {
        EXPECT_EQ(SVTimeCompare(c.a, c.b), c.expected) << PrintToString(c.a) << " vs " << PrintToString(c.b);
        EXPECT_EQ(SVTimeCompare(c.b, c.a), -c.expected);
    }
    // A NaN quotient is neither greater nor equal, either way round.
    EXPECT_EQ(SVTimeCompare(T(0, 0), T(1, 1)), -1);
    EXPECT_EQ(SVTimeCompare(T(1, 1), T(0, 0)), -1);
    // Ties return the second time whole (the property test below covers the rest).
    EXPECT_EQ(SVTimeMinimum(T(1, 2), T(2, 4)), T(2, 4));
    EXPECT_EQ(SVTimeMaximum(kInv, T(1, 2)), kInv);
}

TEST(SVTime, AbsoluteValueAndSeconds) {
    const SVTime in[] = {kNInf, T(0, 7, 9, 3), T(-3, 2, 3), T(-3, 2, 1, -4), T(kMin, 1),
                         kPInf, T(-4, 1, 17),  T(-4, 1, 0), T(-4, 1, 13)};
    const SVTime out[] = {kPInf, kPInf,        T(3, 2, 3),  T(3, 2, 1, -4), T(kMin, 1),
                          kPInf, T(-4, 1, 17), T(-4, 1, 0), T(-4, 1, 13)};
    for (size_t i = 0; i < std::size(in); i++) EXPECT_EQ(SVTimeAbsoluteValue(in[i]), out[i]) << i;
    EXPECT_EQ(SVTimeGetSeconds(kPInf), INFINITY);
    EXPECT_EQ(SVTimeGetSeconds(kNInf), -INFINITY);
    EXPECT_EQ(SVTimeGetSeconds(T(0, 0, 13)), INFINITY);  // plus infinity is tested first
    EXPECT_TRUE(std::isnan(SVTimeGetSeconds(kIndef)) && std::isnan(SVTimeGetSeconds(kInv)) &&
                std::isnan(SVTimeGetSeconds(T(3, 1, 4))));
    EXPECT_EQ(SVTimeGetSeconds(T(1001, 30000, 3, 77)), 1001.0 / 30000.0);
}

// ---- Change of timescale ----------------------------------------------------

TEST(SVTime, ConvertScaleRoundingMethodsAndOverflow) {
    // Rows: every method on 1/3 -> 10; exact halves stay down; the sign
    // cases; negative values whose rule remainder is the positive one (-1/10
    // and -3/10 round up to 1); exact results; overflow as a silent zero;
    // one that passes the overflow test and then wraps; a negative new
    // timescale, whose bounds fail the test.
    struct Case {
        int64_t value;
        int32_t from, to;
        uint32_t method;
        int64_t expected;
        uint32_t flags;
    } cases[] = {
        // clang-format off
        {1, 3, 10, 0, 3, 3}, {1, 3, 10, 7, 3, 3}, {1, 3, 10, 3, 4, 3}, {1, 3, 10, 5, 4, 3}, {1, 3, 10, 6, 3, 3},
        {1, 3, 10, 2, 3, 3}, {1, 3, 10, 4, 4, 3}, {2, 3, 1, 0, 1, 3}, {1, 2, 1, 0, 0, 3}, {1, 2, 1, 5, 1, 3},
        {3, 2, 1, 1, 1, 3}, {-7, 2, 1, 2, -2, 3}, {-7, 2, 1, 0, -3, 3}, {-7, 2, 1, 3, -3, 3}, {-7, 2, 1, 5, -2, 3},
        {-7, 2, 1, 6, -3, 3}, {-7, 2, 1, 4, -2, 3}, {-3, 2, 1, 4, -1, 3}, {-1, 3, 10, 4, -3, 3}, {1, 3, 2, 4, 0, 3},
        {-2, 7, 6, 5, 0, 3}, {-1, 2, 1, 3, 1, 3}, {-1, 2, 1, 2, 0, 3},
        {-1, 10, 1, 0, 1, 3}, {-3, 10, 1, 0, 1, 3}, {-7, 10, 1, 0, 0, 3}, {-1, 3, 10, 0, -3, 3},
        {5, 1, 5, 0, 25, 1}, {60, 600, 30, 0, 3, 1}, {7, 9, 9, 5, 7, 1}, {kMax, 1000, 1, 6, kMax / 1000, 3},
        {kMax, 1, 1000, 0, 0, 1}, {kMin, 1, 2, 0, 0, 1}, {kMin, 3, 2, 0, -6148914691236517205, 3},
        {8589934597, 2, INT32_MAX, 0, -9223372035781033987, 3}, {5, 3, -2, 0, 0, 1},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeConvertScale(T(c.value, c.from, 1, 4), c.to, c.method), T(c.expected, c.to, c.flags, 4))
            << c.value << "/" << c.from << " -> " << c.to << " method " << c.method;
    EXPECT_EQ(SVTimeConvertScale(kPInf, 600, 0), kPInf);
    EXPECT_EQ(SVTimeConvertScale(T(5, 7, 3), 14, 0), T(10, 14, 3));
    EXPECT_EQ(SVTimeConvertScale(T(5, 7, 17), 14, 0), T(5, 7, 17));
    EXPECT_EQ(SVTimeConvertScale(T(5, 7, 33), 14, 0), T(10, 14, 33));  // unknown bits ride along
    EXPECT_EQ(SVTimeConvertScale(T(1, 0), 0, 0), T(1, 0));             // equal timescales never divide
    EXPECT_EQ(SVTimeConvertScale(T(kMin, -1), 3, 0), T(0, 3));         // MIN / -1 wraps, then overflows
}

TEST(SVTimeDeathTest, ZeroTimescaleReachingADivisionEndsTheProcess) {
    EXPECT_DEATH(SVTimeConvertScale(SVTimeMake(1, 3), 0, 0), "SVTimeConvertScale.*division by zero");
    EXPECT_DEATH(SVTimeConvertScale(T(1, 0), 5, 0), "division by zero");
    EXPECT_DEATH(SVTimeAdd(T(1, 0), T(1, 0)), "SVTimeAdd.*division by zero");
    EXPECT_DEATH(SVTimeAdd(T(1, 0), SVTimeMake(1, 3)), "SVTimeAdd.*division by zero");
    EXPECT_DEATH(SVTimeMultiplyByFloat64(T(1, 0), 2.0), "SVTimeMultiplyByFloat64.*division by zero");
    EXPECT_DEATH(SVTimeMultiplyByFloat64(T(1, -600), 2.0), "negative timescale");
    EXPECT_DEATH(SVTimeMultiplyByRatio(T(1, 0), 2, 3), "SVTimeMultiplyByRatio.*division by zero");
}

// Against exact 128-bit arithmetic: the truncated quotient moved up by at
// most one unit as the method says, so within one unit of the exact result
// for values that are not negative (the rules' sign cases may move negative
// ones one further up), and flagged rounded exactly when inexact.
TEST(SVTime, ConvertScaleStaysWithinOneUnitAndFlagsExactlyTheInexact) {
    Random random;
    for (int i = 0; i < 200000; i++) {
        int64_t value = random.value(i % 2 ? 40 : 63);
        int32_t from = random.timescale(), to = random.timescale();
        uint32_t method = random.below(9);
        SVTime r = SVTimeConvertScale(T(value, from, 1, 6), to, method);
        __int128 numerator = static_cast<__int128>(value) * to, truncated = numerator / from, rest = numerator % from;
        ASSERT_TRUE(r.timescale == to && r.epoch == 6);
        if (truncated >= (__int128{1} << 62) || truncated <= -(__int128{1} << 62)) continue;  // may overflow
        ASSERT_EQ(r.flags, rest != 0 ? 3u : 1u) << value << "/" << from << " -> " << to;
        __int128 distance = static_cast<__int128>(r.value) * from - numerator;  // in units of 1/from
        ASSERT_TRUE(distance > -__int128{from} && distance < (value >= 0 ? 1 : 2) * __int128{from})
            << value << "/" << from << " -> " << to << " method " << method;
        int64_t up = 0;  // what the method adds to values that are not negative
        if (value >= 0 && rest != 0)
            up = method < 2 || method > 6 ? 2 * rest > from : method == 3 || method == 5 || (method == 4 && to > from);
        if (value >= 0 || method == 6) ASSERT_EQ(r.value, static_cast<int64_t>(truncated) + up);
    }
}

// The shortcuts must give what the rules give computed step by step: the
// rescaling rule (any timescales), comparison through doubles (aimed at
// |v| * t near 2^51..2^53 where quotients start to round alike), and the
// product limit of SVTimeMultiplyByFloat64 (near its bound).
TEST(SVTime, ShortcutsMatchTheRulesStepByStep) {
    Random random;
    for (int i = 0; i < 1000000; i++) {
        int64_t value = random.value();
        int32_t from = random.timescale(), to = random.timescale();
        if (i % 4 == 0) from = -from;
        if (i % 7 == 0) to = -to;
        if (i % 5 == 0) to = static_cast<int32_t>(from * (1 + random.below(3)));
        uint32_t method = random.below(9);
        auto fast = rescale(value, from, to, method, ""), slow = rescaleLiteral(value, from, to, method, "");
        ASSERT_TRUE(fast.ok == slow.ok && fast.value == slow.value && fast.rounded == slow.rounded)
            << value << "/" << from << " -> " << to << " method " << method;
    }
    int ties = 0;
    for (int i = 0; i < 400000; i++) {
        int32_t ta = random.timescale(), tb = i % 2 ? ta : random.timescale();
        int64_t va = (int64_t{1} << (50 + random.below(4))) / tb - random.below(8);
        int64_t vb = static_cast<int64_t>(static_cast<__int128>(va) * tb / ta) + random.below(3) - 1;
        if (i % 3 == 0) va = -va, vb = -vb;
        double qa = static_cast<double>(va) / ta, qb = static_cast<double>(vb) / tb;
        ties += qa == qb && static_cast<__int128>(va) * tb != static_cast<__int128>(vb) * ta;
        ASSERT_EQ(SVTimeCompare(T(va, ta), T(vb, tb)), qa > qb ? 1 : qa == qb ? 0 : -1) << va << "/" << ta;
    }
    EXPECT_GT(ties, 0) << "no input reached quotients that round alike";
    const double specials[] = {INFINITY, NAN, 0x1p-1074, 1e-300, 1.0, 3.0, 0.1};
    for (int i = 0; i < 400000; i++) {
        double m = i % 10 ? std::ldexp(1.0 + random.below(1000000) / 1e6, static_cast<int>(random.below(120)) - 60)
                          : specials[random.below(std::size(specials))];
        double limit = 9.223372036854776e18 / m;
        double value = random.below(4) ? std::nextafter(limit, random.below(2) ? 0.0 : INFINITY)
                                       : static_cast<double>(random.value());
        if (random.below(3) == 0) value = std::trunc(limit * (1 + std::ldexp(random.value(8), -58)));
        if (!(std::fabs(value) <= 9.3e18)) value = static_cast<double>(random.value());  // a converted int64
        if (random.below(2)) value = -value;
        ASSERT_EQ(sorvel::time::outsideProductLimit(value, m), value > limit || value < -limit) << value << " " << m;
    }
}

// Any flags, negative timescales, values at the limits: every call that the
// rules do not stop returns without trapping, hanging or (in the sanitizer
// build) undefined behaviour.  Zero timescales are the death tests' part.
TEST(SVTime, GarbageInputsNeverTrapOrHang) {
    Random random;
    const SVTime specials[] = {kPInf, kNInf, kIndef, kInv};
    auto garbage = [&] {
        int32_t ts = random.below(4) ? random.timescale() : INT32_MIN + static_cast<int32_t>(random.below(2));
        int64_t value = random.below(4) ? random.value() : (random.below(2) ? INT64_MAX : INT64_MIN);
        return T(value, ts > 0 && random.below(3) == 0 ? -ts : ts, random.below(32), random.value(2));
    };
    // Range durations are numeric: a hand-made non-numeric one can make a
    // zero timescale, which ends the process like any change to timescale 0.
    auto small = [&](bool numeric) {
        if (!numeric && random.below(4) == 0) return specials[random.below(4)];
        return T(random.value(30), 1 + static_cast<int32_t>(random.below(100000)), 1 | (random.below(4) & 2));
    };
    uint64_t sink = 0;
    for (int i = 0; i < 100000; i++) {
        SVTime a = garbage(), b = garbage(), p = T(random.value(), random.timescale(), random.below(32));
        int32_t ts = random.below(2) ? random.timescale() : -random.timescale();
        int32_t m = static_cast<int32_t>(random.engine());
        int32_t d = random.below(2) ? static_cast<int32_t>(random.engine()) : static_cast<int32_t>(random.below(5)) - 2;
        double f = (random.below(2) ? 1 : -1) * std::ldexp(random.below(1000), static_cast<int>(random.below(80)) - 40);
        SVTimeRange r1 = {small(false), small(true)}, r2 = {small(false), small(random.below(8) != 0)};
        SVTime t = small(false);
        // clang-format off
        const SVTime results[] = {
            SVTimeMinimum(a, b), SVTimeAbsoluteValue(a), SVTimeConvertScale(a, ts, random.below(9)), SVTimeAdd(a, b),
            SVTimeSubtract(a, b), SVTimeMultiplyByRatio(a, m, d), SVTimeMultiplyByFloat64(p, f),
            SVTimeMakeWithSeconds(f * 1e10, ts), SVTimeMapTimeFromRangeToRange(t, r1, r2),
            SVTimeMapDurationFromRangeToRange(t, r1, r2), SVTimeClampToRange(t, r1),
            SVTimeRangeGetUnion(r1, r2).duration, SVTimeRangeGetIntersection(r1, r2).duration};
        // clang-format on
        for (const SVTime &r : results) sink += static_cast<uint64_t>(r.value);
    }
    EXPECT_NE(sink, 1u);
}

// ---- Addition and subtraction -------------------------------------------------

TEST(SVTime, AddSpecialValuesEpochsAndOverflow) {
    // Rows: a zero operand returned whole before the epoch rule; a shared
    // epoch dropped; special values; overflow (positive too) ending in minus
    // infinity; overflow at 6 and at 3; rounding carried; the common multiple
    // lowered to the largest timescale.
    struct Case {
        SVTime a, b, expected;
    } cases[] = {
        // clang-format off
        {T(1, 2), T(1, 3), T(5, 6)}, {T(0, 600), T(1, 3, 1, 7), T(1, 3, 1, 7)},
        {T(4, 3, 3, 2), T(0, 7, 1, 5), T(4, 3, 3, 2)}, {T(1, 2, 1, 5), T(1, 2, 1, 5), T(2, 2)},
        {T(1, 2, 1, 1), T(1, 2, 1, 2), kInv}, {T(1, 2), T(1, 4, 1, -3), T(3, 4, 1, -3)},
        {kPInf, kNInf, kInv}, {kIndef, kInv, kIndef}, {kInv, kIndef, kIndef}, {kInv, kPInf, kInv},
        {kNInf, T(5, 1), kNInf}, {T(5, 1), kPInf, kPInf}, {T(0, 0, 13), T(5, 1), kPInf}, {T(0, 0, 13), kPInf, kInv},
        {T(kMax, 1), T(1, 1), kNInf}, {T(kMin, 1), T(-1, 1), kNInf},
        {T(kMax, 2), T(1, 2), T(4611686018427387903, 1, 3)}, {T(kMax, 3), T(kMax, 6), T(4611686018427387903, 1, 3)},
        {T(3, 2, 3), T(1, 2), T(4, 2, 3)}, {T(1, 3), T(1, INT32_MAX), T(715827883, INT32_MAX, 3)},
        {T(1, 65536), T(1, 65537), T(65535, INT32_MAX, 3)},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeAdd(c.a, c.b), c.expected) << PrintToString(c.a) << " + " << PrintToString(c.b);
    EXPECT_EQ(SVTimeSubtract(kSVTimeZero, kPInf), kNInf);
    EXPECT_EQ(SVTimeSubtract(kSVTimeZero, kIndef), kIndef);
    // Negation drops the subtrahend's epoch and rounded flag, so a shared
    // epoch survives subtraction.
    EXPECT_EQ(SVTimeSubtract(T(3, 2, 1, 5), T(1, 2, 1, 5)), T(2, 2, 1, 5));
    EXPECT_EQ(SVTimeSubtract(T(3, 2), T(1, 2, 3, 4)), T(2, 2));
    EXPECT_EQ(SVTimeSubtract(T(5, 2), T(1, -2)), kInv);
    EXPECT_EQ(SVTimeSubtract(T(1, 1), T(kMin, 1)), T(kMin + 1, 1));  // -MIN stays MIN
}

// The addition of the rules step by step: the reference for its shortcuts.
SVTime referenceAdd(SVTime a, SVTime b) {
    int64_t g = a.timescale, h = b.timescale;
    while (h != 0) g = std::exchange(h, g % h);
    int64_t lcm = static_cast<int64_t>(a.timescale) * b.timescale / g;
    for (int32_t target = lcm >= INT32_MAX ? INT32_MAX : static_cast<int32_t>(lcm);; target >>= 1) {
        auto l = rescaleLiteral(a.value, a.timescale, target, 1, "");
        auto r = rescaleLiteral(b.value, b.timescale, target, 1, "");
        int64_t sum;
        if (l.ok && r.ok && !__builtin_add_overflow(l.value, r.value, &sum))
            return T(sum, target, l.rounded || r.rounded ? 3 : 1 | ((a.flags | b.flags) & 2));
        if (target == 1) return kNInf;
    }
}

TEST(SVTime, AddIsExactOnTheCommonMultipleAndMatchesTheRules) {
    Random random;
    auto fits = [](__int128 x) { return x >= kMin && x <= kMax; };
    for (int i = 0; i < 100000; i++) {
        SVTime a = T(random.value(i % 3 ? 62 : 40), random.timescale(), i % 11 ? 1 : 3);
        SVTime b = T(random.value(i % 5 ? 62 : 40), i % 4 ? random.timescale() : a.timescale);
        if (a.value == 0 || b.value == 0) continue;
        SVTime sum = SVTimeAdd(a, b);
        ASSERT_EQ(sum, referenceAdd(a, b)) << PrintToString(a) << " + " << PrintToString(b);
        ASSERT_EQ(SVTimeAdd(b, a), sum);
        int64_t lcm = std::lcm(int64_t{a.timescale}, int64_t{b.timescale});
        __int128 l = static_cast<__int128>(a.value) * (lcm / a.timescale);
        __int128 r = static_cast<__int128>(b.value) * (lcm / b.timescale);
        if (lcm <= INT32_MAX && fits(l) && fits(r) && fits(l + r))
            ASSERT_EQ(sum, T(static_cast<int64_t>(l + r), static_cast<int32_t>(lcm), a.flags));
    }
}

// Random times of every kind: a total order that minimum and maximum agree
// with, and the double-quotient rule for numeric times of one epoch.
TEST(SVTime, CompareIsATotalOrderConsistentWithMinimumAndMaximum) {
    Random random;
    auto randomTime = [&] {
        const SVTime specials[] = {kInv, kIndef, kPInf, kNInf};
        if (random.below(2)) return specials[random.below(4)];
        return T(random.value(random.below(2) ? 20 : 63), random.timescale(), 1 | (random.below(4) & 2),
                 random.below(8) == 0);
    };
    for (int i = 0; i < 100000; i++) {
        SVTime a = randomTime(), b = randomTime(), c = randomTime();
        if (i % 3 == 0) b = T(sorvel::time::wrapAdd(a.value, random.below(3) - 1LL), a.timescale, 1, a.epoch);
        int32_t ab = SVTimeCompare(a, b), bc = SVTimeCompare(b, c), ac = SVTimeCompare(a, c);
        ASSERT_TRUE(SVTimeCompare(b, a) == -ab && SVTimeCompare(a, a) == 0);
        if (ab <= 0 && bc <= 0) ASSERT_LE(ac, 0);
        if (ab == 0 && bc == 0) ASSERT_EQ(ac, 0);
        ASSERT_EQ(SVTimeMinimum(a, b), ab < 0 ? a : b);
        ASSERT_EQ(SVTimeMaximum(a, b), ab > 0 ? a : b);
        if ((a.flags & 0x1D) == 1 && (b.flags & 0x1D) == 1 && a.epoch == b.epoch) {
            double qa = static_cast<double>(a.value) / a.timescale, qb = static_cast<double>(b.value) / b.timescale;
            ASSERT_EQ(ab, qa > qb ? 1 : qa == qb ? 0 : -1) << a.value << "/" << a.timescale << " vs " << b.value;
        }
    }
}

// ---- Multiplication and seconds ------------------------------------------------

TEST(SVTime, MakeWithSecondsTruncates) {
    const double seconds[] = {1.5, 0.7, -0.7, 2.0, -INFINITY, INFINITY, 1.0 / 3, NAN, 1e300, -1e300, -2.5};
    const int32_t timescales[] = {600, 1, 1, 0, 600, 0, 3, 600, 1, 1, 2};
    const SVTime expected[] = {T(900, 600), T(0, 1, 3), T(0, 1, 3),    kInv,          kNInf,   kPInf,
                               T(1, 3),     T(0, 600),  T(kMax, 1, 3), T(kMin, 1, 3), T(-5, 2)};
    for (size_t i = 0; i < std::size(seconds); i++)
        EXPECT_EQ(SVTimeMakeWithSeconds(seconds[i], timescales[i]), expected[i]) << seconds[i];
}

TEST(SVTime, MultiplyByFloat64) {
    // Rows: working timescales of at least 65536; truncation that is not
    // flagged; special values; overflow down to timescale 1; one and two
    // halvings; a zero or NaN multiplier; 1/600 * infinity halved until the
    // value is 0, then 0 * inf taken as 0.
    struct Case {
        SVTime time;
        double multiplier;
        SVTime expected;
    } cases[] = {
        // clang-format off
        {T(1, 1), 0.5, T(32768, 65536)}, {T(3, 600), 1.0, T(384, 76800)},
        {T(-7, 44100, 3, 9), 2.0, T(-28, 88200, 3, 9)}, {T(5, 100000), -1.5, T(-7, 100000)},
        {kPInf, 0.0, kNInf}, {kPInf, 2.0, kPInf}, {kNInf, -1.0, kPInf}, {kNInf, 0.5, kNInf}, {kInv, 1.0, kInv},
        {kIndef, 0.0, kIndef}, {T(1, 1, 16), 1.0, kInv},
        {T(kMax, 1), 2.0, kPInf}, {T(kMax, 1), -2.0, kNInf}, {T(kMin, 1), -2.0, kPInf},
        {T(1LL << 47, 1), 1.0, T(1LL << 62, 32768, 3)}, {T(1LL << 40, 65536), 1e12, kPInf},
        {T(3 * (1LL << 40) + 1, 65536), 1e7, T(8246337208320000000, 16384, 3)},
        {T(5, 1), 0.0, T(0, 65536)}, {T(5, 1), NAN, T(0, 65536)}, {T(1, 600), INFINITY, T(0, 300, 3)},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeMultiplyByFloat64(c.time, c.multiplier), c.expected)
            << PrintToString(c.time) << " * " << c.multiplier;
}

TEST(SVTime, MultiplyByRatio) {
    // Rows: plain products, negative divisors, zero divisors (the sign of a
    // time with an epoch is the epoch's), infinities, overflow (on a negative
    // timescale too), and halvings that take the multiplier to 0.
    struct Case {
        SVTime time;
        int32_t multiplier, divisor;
        SVTime expected;
    } cases[] = {
        // clang-format off
        {T(3, 2), 4, 1, T(12, 2)}, {T(3, 2), 1, 3, T(3, 6)}, {T(1, 2), 1, -1, T(-1, 2)},
        {T(1, 2, 3, 8), -3, -5, T(3, 10, 3, 8)}, {T(9, 30), 5, 6, T(45, 180)}, {T(1, 1), 0, 5, T(0, 5)},
        {kSVTimeZero, 0, 0, kIndef}, {kSVTimeZero, 5, 0, kIndef}, {T(-1, 1), 5, 0, kNInf}, {T(-1, 1), -5, 0, kPInf},
        {T(-1, 1, 1, 2), 3, 0, kPInf}, {kPInf, 0, 0, kIndef}, {kPInf, 0, 1, kNInf}, {kPInf, -1, -1, kPInf},
        {kNInf, 1, 0, kPInf}, {kNInf, 2, 3, kNInf}, {kInv, 0, 0, kInv}, {kIndef, 1, 1, kIndef},
        {T(kMax, 1), 2, 1, kPInf}, {T(kMax, 1), -2, 1, kNInf}, {T(kMax, 1), 2, -1, kNInf},
        {T(kMax, 2), 2, 1, T(kMax - 1, 1, 3)}, {T(100, 1000000), 7, 1000000, T(0, 1953125000, 3)},
        {T(9, 65536), 1, INT32_MAX, T(0, 2147450880, 3)},
        // clang-format on
    };
    for (const Case &c : cases)
        EXPECT_EQ(SVTimeMultiplyByRatio(c.time, c.multiplier, c.divisor), c.expected)
            << PrintToString(c.time) << " * " << c.multiplier << " / " << c.divisor;
    EXPECT_EQ(SVTimeMultiply(T(3, 2), 4), T(12, 2));
    EXPECT_EQ(SVTimeMultiply(kPInf, 0), kNInf);
}

// ---- Dictionary and text forms ---------------------------------------------------

TEST(SVTime, DictionaryForm) {
    for (SVTime t : {kInv, kIndef, kPInf, kNInf, T(kMin, INT32_MAX, 3, kMax), T(-1, -7, 0xFFFFFFFFu, kMin), T(5, 0)}) {
        CFDictionaryRef d = SVTimeCopyAsDictionary(t, nullptr);
        EXPECT_EQ(CFDictionaryGetCount(d), 4);
        EXPECT_EQ(SVTimeMakeFromDictionary(d), t);  // written and read whole, unchecked
        CFRelease(d);
    }
    bool made = false;
    for (long n = 0; n < 12; n++) {  // allocation failures give NULL and leak nothing
        sorvel_test::TestAllocator allocator;
        allocator.failAfter(n);
        CFDictionaryRef d = SVTimeCopyAsDictionary(T(1, 2), allocator.get());
        if ((made = d != nullptr)) EXPECT_EQ(SVTimeMakeFromDictionary(d), T(1, 2));
        if (d) CFRelease(d);
        EXPECT_EQ(allocator.outstanding(), 0) << n;
    }
    EXPECT_TRUE(made);

    // Each entry in turn replaced by a number that cannot be read without
    // loss at its type (1.5; 2^40 as a 32-bit number), by a string, or left
    // out; a float that converts exactly is read.
    int64_t three = 3, big = 1LL << 40;
    double fraction = 1.5, whole = 2.0;
    CFTypeRef good = CFNumberCreate(nullptr, kCFNumberSInt64Type, &three);
    CFTypeRef bad[] = {CFNumberCreate(nullptr, kCFNumberFloat64Type, &fraction),
                       CFNumberCreate(nullptr, kCFNumberSInt64Type, &big), CFSTR("3"), nullptr};
    CFTypeRef wholeFloat = CFNumberCreate(nullptr, kCFNumberFloat64Type, &whole);
    auto read = [&](int at, CFTypeRef value) {
        const void *keys[] = {kSVTimeValueKey, kSVTimeScaleKey, kSVTimeEpochKey, kSVTimeFlagsKey};
        const void *values[] = {good, good, good, good};
        CFIndex count = 4;
        if (at >= 0 && value) values[at] = value;
        if (at >= 0 && !value) keys[at] = keys[--count];
        CFDictionaryRef d = CFDictionaryCreate(nullptr, keys, values, count, &kCFTypeDictionaryKeyCallBacks,
                                               &kCFTypeDictionaryValueCallBacks);
        SVTime t = SVTimeMakeFromDictionary(d);
        CFRelease(d);
        return t;
    };
    EXPECT_EQ(read(-1, nullptr), T(3, 3, 3, 3));
    EXPECT_EQ(read(0, wholeFloat), T(2, 3, 3, 3));
    for (int at = 0; at < 4; at++)
        for (CFTypeRef value : bad)
            if (value != bad[1] || at % 2 == 1) EXPECT_EQ(read(at, value), kInv) << "entry " << at;
    EXPECT_EQ(SVTimeMakeFromDictionary(nullptr), kInv);
    EXPECT_EQ(SVTimeMakeFromDictionary(reinterpret_cast<CFDictionaryRef>(kSVTimeValueKey)), kInv);
    for (CFTypeRef object : {good, bad[0], bad[1], wholeFloat}) CFRelease(object);
}

TEST(SVTime, DescriptionsAndShow) {
    auto text = [](SVTime t) {
        CFStringRef s = SVTimeCopyDescription(nullptr, t);
        char buffer[128] = "";
        CFStringGetCString(s, buffer, sizeof buffer, kCFStringEncodingUTF8);
        CFRelease(s);
        return std::string(buffer);
    };
    EXPECT_EQ(text(T(1001, 30000, 3)), "<1001/30000 = 0.033s, rounded>");
    EXPECT_EQ(text(T(1001, 30000, 3, 2)), "<1001/30000 = 0.033s (epoch 2), rounded>");
    EXPECT_EQ(text(T(-5, 2, 1, -1)), "<-5/2 = -2.500s (epoch -1)>");
    EXPECT_EQ(text(T(kMin, 1)), "<-9223372036854775808/1 = -9223372036854775808.000s>");
    EXPECT_EQ(text(T(0, 0, 16)), "<invalid>");
    EXPECT_EQ(text(T(0, 0, 31)), "<indefinite>");
    EXPECT_EQ(text(T(0, 0, 13)), "<+inf>");
    EXPECT_EQ(text(kNInf), "<-inf>");
    EXPECT_EQ(SVTimeCopyDescription(nullptr, kInv), SVTimeCopyDescription(nullptr, T(1, 2, 0)));  // a constant
    ::testing::internal::CaptureStdout();
    SVTimeShow(T(1, 4, 1, 3));
    SVTimeShow(kPInf);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "<1/4 = 0.250s (epoch 3)>\n<+inf>\n");
}

}  // namespace
