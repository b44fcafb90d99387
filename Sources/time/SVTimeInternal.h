/* SPDX-License-Identifier: Apache-2.0 */
// The time family's shared arithmetic: the rescaling rule behind
// SVTimeConvertScale, addition and multiplication, and the wrap-around
// helpers it is written with.
//
// The rule is stated on signed 64-bit arithmetic whose overflow wraps and
// whose divisions truncate toward zero.  Every step here is computed so that
// it wraps without undefined behaviour (unsigned arithmetic, and MIN / -1
// taken as the wrap it is in two's complement instead of the hardware trap).
// A zero divisor is the one fatal case: a logged stop.
//
// Inline so the modules and the tests share one copy; nothing here allocates.
#ifndef SORVEL_SOURCES_SVTIMEINTERNAL_H
#define SORVEL_SOURCES_SVTIMEINTERNAL_H

#include <Sorvel/SVTime.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "core/SVLog.h"
#include "core/SVObject.h"

namespace sorvel::time {

inline constexpr const char *kSourcePath = "Sorvel/Sources/SVTime";

inline constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
inline constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();

constexpr int64_t wrapAdd(int64_t a, int64_t b) noexcept {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
constexpr int64_t wrapMul(int64_t a, int64_t b) noexcept {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}
constexpr int64_t wrapNeg(int64_t a) noexcept {
    return static_cast<int64_t>(0 - static_cast<uint64_t>(a));
}
// Truncating division and its remainder; b must not be 0.
constexpr int64_t wrapDiv(int64_t a, int64_t b) noexcept {
    return b == -1 ? wrapNeg(a) : a / b;
}
constexpr int64_t wrapRem(int64_t a, int64_t b) noexcept {
    return b == -1 ? 0 : a % b;
}
constexpr uint64_t magnitude(int64_t a) noexcept {
    return a < 0 ? 0 - static_cast<uint64_t>(a) : static_cast<uint64_t>(a);
}

// A zero timescale reaching a division ends the process, named after the
// public call that was asked to do it.
[[noreturn]] __attribute__((noinline, cold)) inline void divisionByZero(const char *function, int line) noexcept {
    SVFatalStop(function, kSourcePath, line, "division by zero: a timescale of 0 reached a change of timescale");
}

// Step 8 of the rule: the adjustment of an inexact result (rem != 0).
constexpr int64_t adjustInexact(int64_t result, int64_t rem, int32_t oldScale, int32_t newScale,
                                uint32_t method) noexcept {
    switch (method) {
        case kSVTimeRoundingMethod_RoundTowardZero:
            return result < 0 ? result + 1 : result;
        case kSVTimeRoundingMethod_RoundAwayFromZero:
            return result >= 0 ? wrapAdd(result, 1) : result;
        case kSVTimeRoundingMethod_QuickTime:
            if (newScale <= oldScale) return result < -1 ? result + 1 : result;
            return result >= 0 ? wrapAdd(result, 1) : result;
        case kSVTimeRoundingMethod_RoundTowardPositiveInfinity:
            return wrapAdd(result, 1);
        case kSVTimeRoundingMethod_RoundTowardNegativeInfinity:
            return result;
        default:
            return rem > (oldScale >> 1) && result >= 0 ? wrapAdd(result, 1) : result;
    }
}

// Step 7 as stated: ((new % old) * (value % old) + old) % old.  It is the
// remainder of value * new / old, but for a negative value it may come out
// as the positive representative, which the default rule looks at.
constexpr int64_t ruleRemainder(int64_t value, int32_t oldScale, int32_t newScale) noexcept {
    return wrapRem(wrapAdd(wrapMul(wrapRem(newScale, oldScale), wrapRem(value, oldScale)), oldScale), oldScale);
}
// The same, out of the way of the common path that rarely needs it.
__attribute__((noinline, cold)) inline int64_t ruleRemainderCold(int64_t value, int32_t oldScale,
                                                                 int32_t newScale) noexcept {
    return ruleRemainder(value, oldScale, newScale);
}

// Whether value lies outside +-9.223372036854776e18 / |multiplier|.  One
// rounded multiplication settles it unless |value| * |multiplier| lies
// within 2^-50 of the bound: below that band the exact product is below the
// bound, so value is at most the exact quotient and hence at most its
// rounding; above it value exceeds the exact quotient by more than the
// quotient's rounding.  Inside the band (and for NaN) the quotient is
// computed and compared as stated.
inline bool outsideProductLimit(double value, double magnitudeOfMultiplier) noexcept {
    constexpr double kBound = 9.223372036854776e18;
    constexpr double kBelow = kBound * (1 - 0x1p-50), kAbove = kBound * (1 + 0x1p-50);
    double product = std::fabs(value) * magnitudeOfMultiplier;
    if (product < kBelow) return false;
    if (product > kAbove) return true;
    double limit = kBound / magnitudeOfMultiplier;
    return value > limit || value < -limit;
}

struct Rescaled {
    int64_t value;  // 0 on overflow
    bool rounded;
    bool ok;  // false: overflow
};

// The rule step by step, for every pair of non-zero timescales.  Out of
// line: it serves only inputs off the common path.
__attribute__((noinline)) inline Rescaled rescaleLiteral(int64_t value, int32_t oldScale, int32_t newScale,
                                                         uint32_t method, const char *function) noexcept {
    if (oldScale == newScale) return {value, false, true};
    if (oldScale == 0 || newScale == 0) divisionByZero(function, __LINE__);
    int64_t q = wrapDiv(value, oldScale);
    if (q > wrapDiv(kInt64Max, newScale) || q < wrapDiv(kInt64Min, newScale)) return {0, false, false};
    int64_t big = value, small = newScale;
    if (magnitude(value) < magnitude(newScale)) {
        big = newScale;
        small = value;
    }
    int64_t result =
        wrapAdd(wrapMul(wrapDiv(big, oldScale), small), wrapDiv(wrapMul(wrapRem(big, oldScale), small), oldScale));
    int64_t rem = ruleRemainder(value, oldScale, newScale);
    if (rem == 0) return {result, false, true};
    return {adjustInexact(result, rem, oldScale, newScale, method), true, true};
}

// The same results with one multiplication and one division in the common
// case.  With both timescales positive the rule's two-term sum is exactly
// trunc(value * new / old): both terms carry the sign of value.  So when
// value * new fits in 64 bits (which also rules out the overflow test), one
// division gives the result and the true remainder.  The rule's remainder
// equals the true one for value >= 0; for value < 0 it matters only to the
// default rule and only when the truncated result is 0.
__attribute__((always_inline)) inline Rescaled rescale(int64_t value, int32_t oldScale, int32_t newScale,
                                                       uint32_t method, const char *function) noexcept {
    if (oldScale == newScale) return {value, false, true};
    int64_t product;
    if (__builtin_expect(oldScale > 0 && newScale > 0 && !__builtin_mul_overflow(value, newScale, &product), 1)) {
        int64_t result = product / oldScale;
        int64_t rest = product % oldScale;
        if (rest == 0) return {result, false, true};
        int64_t rem = rest;
        if (value < 0 && result == 0) rem = ruleRemainderCold(value, oldScale, newScale);
        return {adjustInexact(result, rem, oldScale, newScale, method), true, true};
    }
    return rescaleLiteral(value, oldScale, newScale, method, function);
}

// A double truncated toward zero to 64 bits, saturating at the limits and
// taking NaN as 0, where a plain conversion would be undefined.
inline int64_t truncateToInt64(double x) noexcept {
    if (__builtin_expect(std::fabs(x) < 9223372036854775808.0, 1)) return static_cast<int64_t>(x);
    if (x != x) return 0;
    return x > 0 ? kInt64Max : kInt64Min;  // -2^63 itself is the minimum too
}

constexpr bool isNumeric(const SVTime &time) noexcept {
    return (time.flags & 0x1Du) == kSVTimeFlags_Valid;
}

// All zero: the one "no answer" time every module returns.
inline constexpr SVTime kInvalid = {0, 0, 0, 0};
inline constexpr SVTime kZero = {0, 1, kSVTimeFlags_Valid, 0};
inline constexpr SVTime kIndefinite = {0, 0, kSVTimeFlags_Valid | kSVTimeFlags_Indefinite, 0};
inline constexpr SVTime kPositiveInfinity = {0, 0, kSVTimeFlags_Valid | kSVTimeFlags_PositiveInfinity, 0};
inline constexpr SVTime kNegativeInfinity = {0, 0, kSVTimeFlags_Valid | kSVTimeFlags_NegativeInfinity, 0};

// The order of kinds: minus infinity, numeric, indefinite, plus infinity,
// invalid (last on purpose).
constexpr int kindRank(uint32_t flags) noexcept {
    if (!(flags & kSVTimeFlags_Valid)) return 4;
    if (flags & kSVTimeFlags_NegativeInfinity) return 0;
    if (flags & kSVTimeFlags_PositiveInfinity) return 3;
    if (flags & kSVTimeFlags_Indefinite) return 2;
    return 1;
}

// SVTimeCompare.  Numeric times of one epoch compare by value / timescale
// as doubles, so quotients that round alike are equal.  The integers give
// the same answer without the divisions whenever two different quotients
// cannot round alike.  Two doubles that round alike lie within one ulp,
// at most max|q| * 2^-52, of each other, while two different quotients of
// positive timescales differ by at least 1 / (t1 * t2).  So with
// max(|v1| * t2, |v2| * t1) <= 2^51 the quotients round alike exactly when
// they are equal, and v1 * t2 against v2 * t1 decides.  (With one timescale
// the bound is simply |v| <= 2^51.)
// The integer cases are inline at every caller (the queues and timebases
// compare on every change); the rest is one call.
__attribute__((noinline)) inline int32_t compareRest(const SVTime &a, const SVTime &b) noexcept {
    if (isNumeric(a) && isNumeric(b)) {
        if (a.epoch != b.epoch) return a.epoch > b.epoch ? 1 : -1;
        double qa = static_cast<double>(a.value) / static_cast<double>(a.timescale);
        double qb = static_cast<double>(b.value) / static_cast<double>(b.timescale);
        return qa > qb ? 1 : (qa == qb ? 0 : -1);
    }
    int ra = kindRank(a.flags), rb = kindRank(b.flags);
    if (ra != rb) return ra > rb ? 1 : -1;
    return 0;  // equal kinds other than numeric
}

__attribute__((always_inline)) inline int32_t compare(const SVTime &a, const SVTime &b) noexcept {
    if (__builtin_expect(isNumeric(a) && isNumeric(b) && a.epoch == b.epoch && a.timescale > 0 && b.timescale > 0, 1)) {
        constexpr uint64_t kExactBound = uint64_t{1} << 51;
        if (a.timescale == b.timescale) {
            if (magnitude(a.value) <= kExactBound && magnitude(b.value) <= kExactBound)
                return a.value > b.value ? 1 : (a.value == b.value ? 0 : -1);
        } else {
            int64_t crossA, crossB;
            if (!__builtin_mul_overflow(a.value, b.timescale, &crossA) &&
                !__builtin_mul_overflow(b.value, a.timescale, &crossB) && magnitude(crossA) <= kExactBound &&
                magnitude(crossB) <= kExactBound)
                return crossA > crossB ? 1 : (crossA == crossB ? 0 : -1);
        }
    }
    return compareRest(a, b);
}

// Shared by the entry points of both time modules (hidden; SVTime.cpp).
SVTime add(const SVTime &lhs, const SVTime &rhs) noexcept;
SVTime subtract(const SVTime &lhs, const SVTime &rhs) noexcept;

// The result of SVTimeConvertScale from the rule's outcome.  An overflow is
// not reported: value 0 at the new timescale, flags kept.
constexpr SVTime rescaledTime(const SVTime &time, int32_t newScale, const Rescaled &r) noexcept {
    if (!r.ok) return {0, newScale, time.flags, time.epoch};
    return {r.value, newScale, time.flags | (r.rounded ? kSVTimeFlags_HasBeenRounded : 0u), time.epoch};
}

// An inexact conversion by any rule, from the truncated result and the true
// remainder of value * new / old (both timescales positive).
__attribute__((noinline)) inline SVTime convertScaleInexact(const SVTime &time, int32_t newScale, uint32_t method,
                                                            int64_t result, int64_t rest) noexcept {
    int64_t rem = rest;
    if (time.value < 0 && result == 0) rem = ruleRemainder(time.value, time.timescale, newScale);
    return {adjustInexact(result, rem, time.timescale, newScale, method), newScale,
            time.flags | kSVTimeFlags_HasBeenRounded, time.epoch};
}

__attribute__((noinline)) inline SVTime convertScaleLiteral(const SVTime &time, int32_t newScale, uint32_t method,
                                                            const char *function) noexcept {
    return rescaledTime(time, newScale, rescaleLiteral(time.value, time.timescale, newScale, method, function));
}

// SVTimeConvertScale, with the name of the public call that asked for it.
// The common case (see rescale) inline; everything else in one out-of-line
// call, so the common path needs no saved registers.
__attribute__((always_inline)) inline SVTime convertScale(const SVTime &time, int32_t newScale, uint32_t method,
                                                          const char *function) noexcept {
    if (!isNumeric(time)) return time;
    int32_t oldScale = time.timescale;
    if (oldScale == newScale) return time;
    int64_t product;
    if (__builtin_expect(oldScale > 0 && newScale > 0 && !__builtin_mul_overflow(time.value, newScale, &product), 1)) {
        int64_t result = product / oldScale;
        int64_t rest = product % oldScale;
        if (rest == 0) return {result, newScale, time.flags, time.epoch};
        // The default rule on the remainder the division gave; every other
        // case is left to a call made last, so that this path saves no
        // registers (they were a third of a conversion's cost).
        if (__builtin_expect(method == kSVTimeRoundingMethod_RoundHalfAwayFromZero && (time.value >= 0 || result != 0),
                             1))
            return {rest > (oldScale >> 1) && result >= 0 ? wrapAdd(result, 1) : result, newScale,
                    time.flags | kSVTimeFlags_HasBeenRounded, time.epoch};
        return convertScaleInexact(time, newScale, method, result, rest);
    }
    return convertScaleLiteral(time, newScale, method, function);
}

}  // namespace sorvel::time

#endif  // SORVEL_SOURCES_SVTIMEINTERNAL_H
