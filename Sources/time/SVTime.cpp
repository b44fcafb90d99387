// SPDX-License-Identifier: Apache-2.0
// Time values: construction, comparison, change of timescale, addition,
// multiplication, seconds, and the dictionary and text forms.
//
// Every rule here is part of the library's contract and of stored data, odd
// corners included: invalid sorts above plus infinity, comparison goes
// through doubles, addition drops a shared epoch that subtraction keeps, an
// unrecoverable sum is minus infinity whatever its sign, and a change of
// timescale that overflows gives a silent zero.  The fast paths below only
// skip work whose outcome is already known; each says why its result is the
// same as the general rule's.

#include <Sorvel/SVTime.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "time/SVTimeInternal.h"

using namespace sorvel::time;

extern "C" {
const SVTime kSVTimeZero = kZero;
const SVTime kSVTimeInvalid = kInvalid;
const SVTime kSVTimeIndefinite = kIndefinite;
const SVTime kSVTimePositiveInfinity = kPositiveInfinity;
const SVTime kSVTimeNegativeInfinity = kNegativeInfinity;

const CFStringRef kSVTimeValueKey = CFSTR("value");
const CFStringRef kSVTimeScaleKey = CFSTR("timescale");
const CFStringRef kSVTimeEpochKey = CFSTR("epoch");
const CFStringRef kSVTimeFlagsKey = CFSTR("flags");
}

namespace {

constexpr SVTime makeTime(int64_t value, int32_t timescale) noexcept {
    if (timescale < 1) return kInvalid;
    return {value, timescale, kSVTimeFlags_Valid, 0};
}

// Doubles reach int64 through truncateToInt64 (SVTimeInternal.h): toward
// zero, saturating at the limits, NaN as 0, where a plain conversion would
// be undefined.  The clock converts its audio sample times with the same
// rule, which is why it lives in the shared header.  The float multiply
// and the seconds conversion below rely on the saturation: their products
// may exceed the int64 range, and the result must then be the nearest
// limit rather than whatever the hardware conversion yields.

// Greatest common divisor of two positive timescales (binary method: no
// divisions; the value is the one Euclid's algorithm gives).
uint32_t positiveGcd(uint32_t a, uint32_t b) noexcept {
    int shift = __builtin_ctz(a | b);
    a >>= __builtin_ctz(a);
    do {
        b >>= __builtin_ctz(b);
        if (a > b) {
            uint32_t t = a;
            a = b;
            b = t;
        }
        b -= a;
    } while (b != 0);
    return a << shift;
}

// The common timescale of addition for timescales that are not both
// positive (only dictionaries make such numeric times): Euclid on the two
// values in the order given, product over divisor, lowered to the largest
// timescale.  Computed in 64 bits so MIN % -1 does not trap; a negative
// multiple beyond 32 bits is raised to the smallest timescale rather than
// truncated, which could make it 0.
int32_t literalCommonTimescale(int32_t lhsScale, int32_t rhsScale) noexcept {
    int64_t a = lhsScale, b = rhsScale;
    while (b != 0) {
        int64_t t = a % b;
        a = b;
        b = t;
    }
    if (a == 0) divisionByZero("SVTimeAdd", __LINE__);
    int64_t lcm = (static_cast<int64_t>(lhsScale) * rhsScale) / a;
    if (lcm >= kSVTimeMaxTimescale) return kSVTimeMaxTimescale;
    if (lcm <= INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(lcm);
}

// Steps a to c of the addition loop, from `target` down.
SVTime addOnTimescales(const SVTime &lhs, const SVTime &rhs, int32_t target, uint32_t carriedRounding,
                       int64_t epoch) noexcept {
    for (;;) {
        Rescaled l = rescale(lhs.value, lhs.timescale, target, kSVTimeRoundingMethod_Default, "SVTimeAdd");
        if (l.ok) {
            Rescaled r = rescale(rhs.value, rhs.timescale, target, kSVTimeRoundingMethod_Default, "SVTimeAdd");
            int64_t sum;
            if (r.ok && !__builtin_add_overflow(l.value, r.value, &sum)) {
                uint32_t flags = l.rounded || r.rounded ? kSVTimeFlags_Valid | kSVTimeFlags_HasBeenRounded
                                                        : kSVTimeFlags_Valid | carriedRounding;
                return {sum, target, flags, epoch};
            }
        }
        // Positive overflow too ends in minus infinity, as it always has.  A
        // target below 1 (only from non-positive timescales) stops here as
        // well rather than halving forever.
        if (target <= 1) return kNegativeInfinity;
        target >>= 1;
    }
}

SVTime negate(const SVTime &time) noexcept {
    if ((time.flags & (kSVTimeFlags_Valid | kSVTimeFlags_Indefinite)) != kSVTimeFlags_Valid) return time;
    if (time.flags & kSVTimeFlags_PositiveInfinity) return kNegativeInfinity;
    if (time.flags & kSVTimeFlags_NegativeInfinity) return kPositiveInfinity;
    return makeTime(wrapNeg(time.value), time.timescale);
}

}  // namespace

namespace sorvel::time {

SVTime add(const SVTime &lhs, const SVTime &rhs) noexcept {
    uint32_t lf = lhs.flags, rf = rhs.flags;
    if (__builtin_expect(!isNumeric(lhs) || !isNumeric(rhs), 0)) {
        constexpr uint32_t kValidIndefinite = kSVTimeFlags_Valid | kSVTimeFlags_Indefinite;
        if ((lf & kValidIndefinite) == kValidIndefinite || (rf & kValidIndefinite) == kValidIndefinite)
            return kIndefinite;
        if (!(lf & kSVTimeFlags_Valid) || !(rf & kSVTimeFlags_Valid)) return kInvalid;
        bool lhsPlus = lf & kSVTimeFlags_PositiveInfinity, lhsMinus = lf & kSVTimeFlags_NegativeInfinity;
        bool rhsPlus = rf & kSVTimeFlags_PositiveInfinity, rhsMinus = rf & kSVTimeFlags_NegativeInfinity;
        if ((lhsPlus && rhsMinus) || (lhsMinus && rhsPlus)) return kInvalid;
        if (lhsPlus || rhsPlus) return kPositiveInfinity;
        return kNegativeInfinity;  // valid, not indefinite, not numeric, no plus: minus infinity
    }
    // A zero operand returns the other whole, before the epoch rule.
    if (lhs.value == 0) return rhs;
    if (rhs.value == 0) return lhs;

    int64_t epoch;
    if (lhs.epoch == rhs.epoch)
        epoch = 0;  // also a shared non-zero epoch, on purpose
    else if (lhs.epoch == 0)
        epoch = rhs.epoch;
    else if (rhs.epoch == 0)
        epoch = lhs.epoch;
    else
        return kInvalid;

    uint32_t carried = (lf | rf) & kSVTimeFlags_HasBeenRounded;
    int32_t ls = lhs.timescale, rs = rhs.timescale;
    int32_t target;
    if (ls == rs && ls > 0) {
        // The common timescale of equal timescales is that timescale: no
        // conversion, so the first pass is a plain sum.
        int64_t sum;
        if (__builtin_expect(!__builtin_add_overflow(lhs.value, rhs.value, &sum), 1))
            return {sum, ls, kSVTimeFlags_Valid | carried, epoch};
        if (ls == 1) return kNegativeInfinity;
        target = ls >> 1;
    } else if (ls > 0 && rs > 0) {
        uint32_t g = positiveGcd(static_cast<uint32_t>(ls), static_cast<uint32_t>(rs));
        int64_t lhsFactor = rs / static_cast<int32_t>(g), rhsFactor = ls / static_cast<int32_t>(g);
        int64_t lcm = lhsFactor * ls;
        if (lcm >= kSVTimeMaxTimescale) {
            target = kSVTimeMaxTimescale;
        } else {
            // On the true common multiple each conversion is exact: the rule
            // gives value * (lcm / timescale) whenever that product fits.
            int64_t lv, rv, sum;
            if (__builtin_expect(!__builtin_mul_overflow(lhs.value, lhsFactor, &lv) &&
                                     !__builtin_mul_overflow(rhs.value, rhsFactor, &rv) &&
                                     !__builtin_add_overflow(lv, rv, &sum),
                                 1))
                return {sum, static_cast<int32_t>(lcm), kSVTimeFlags_Valid | carried, epoch};
            target = static_cast<int32_t>(lcm);
        }
    } else {
        target = literalCommonTimescale(ls, rs);
    }
    return addOnTimescales(lhs, rhs, target, carried, epoch);
}

SVTime subtract(const SVTime &lhs, const SVTime &rhs) noexcept {
    return add(lhs, negate(rhs));
}

}  // namespace sorvel::time

namespace {

// ---- Multiplication ----------------------------------------------------------

// The loop of SVTimeMultiplyByFloat64 from the working timescale down:
// convert, check that the product fits, else halve and mark the result
// rounded.  Reached only when the first pass does not settle it.
__attribute__((noinline)) SVTime multiplyByFloat64Halving(const SVTime &time, double multiplier,
                                                          int32_t working) noexcept {
    const double magnitudeOfMultiplier = std::fabs(multiplier);
    uint32_t halved = 0;
    for (;;) {
        Rescaled converted =
            rescale(time.value, time.timescale, working, kSVTimeRoundingMethod_Default, "SVTimeMultiplyByFloat64");
        if (converted.ok) {
            double value = static_cast<double>(converted.value);
            if (multiplier == 0 || !outsideProductLimit(value, magnitudeOfMultiplier))
                return {truncateToInt64(value * multiplier), working, time.flags | halved, time.epoch};
        }
        if (working == 1) return (time.value < 0) != (multiplier < 0) ? kNegativeInfinity : kPositiveInfinity;
        working >>= 1;
        halved = kSVTimeFlags_HasBeenRounded;
    }
}

SVTime multiplyByFloat64(const SVTime &time, double multiplier) noexcept {
    uint32_t flags = time.flags;
    if (!(flags & kSVTimeFlags_Valid)) return kInvalid;
    if (flags & kSVTimeFlags_Indefinite) return kIndefinite;
    if (flags & kSVTimeFlags_PositiveInfinity) return multiplier <= 0 ? kNegativeInfinity : kPositiveInfinity;
    if (flags & kSVTimeFlags_NegativeInfinity) return multiplier <= 0 ? kPositiveInfinity : kNegativeInfinity;

    int32_t timescale = time.timescale;
    // Doubling a timescale below 1 never reaches 65536.
    if (timescale < 1) {
        if (timescale == 0) divisionByZero("SVTimeMultiplyByFloat64", __LINE__);
        sorvel::SVFatalStop(__func__, kSourcePath, __LINE__,
                            "a numeric time with a negative timescale cannot be multiplied");
    }
    // The timescale doubled until it is at least 65536: 17 minus its bit
    // length doublings when it is below.
    int shift = timescale < 65536 ? 17 - (32 - __builtin_clz(static_cast<uint32_t>(timescale))) : 0;
    int32_t working = timescale << shift;
    // First pass: a doubling of the timescale is exact whenever the doubled
    // value fits, and the rescaling rule gives that same value then.
    int64_t shifted;
    if (__builtin_expect(!__builtin_mul_overflow(time.value, int64_t{1} << shift, &shifted), 1)) {
        double value = static_cast<double>(shifted);
        if (multiplier == 0 || !outsideProductLimit(value, std::fabs(multiplier)))
            return {truncateToInt64(value * multiplier), working, flags, time.epoch};
    }
    return multiplyByFloat64Halving(time, multiplier, working);
}

SVTime multiplyByRatio(const SVTime &time, int32_t multiplier, int32_t divisor) noexcept {
    uint32_t flags = time.flags;
    if (!(flags & kSVTimeFlags_Valid)) return kInvalid;
    if (flags & kSVTimeFlags_Indefinite) return kIndefinite;
    if (multiplier == 0 && divisor == 0) return kIndefinite;
    // A zero multiplier or divisor counts as not positive here.
    if (flags & kSVTimeFlags_PositiveInfinity)
        return (multiplier > 0) == (divisor > 0) ? kPositiveInfinity : kNegativeInfinity;
    if (flags & kSVTimeFlags_NegativeInfinity)
        return (multiplier > 0) != (divisor > 0) ? kPositiveInfinity : kNegativeInfinity;
    if (divisor == 0) {
        int32_t sign = compare(time, kZero);
        if (sign == 0) return kIndefinite;
        return (multiplier < 0 ? -1 : 1) * sign > 0 ? kPositiveInfinity : kNegativeInfinity;
    }

    int64_t value = time.value, m = multiplier, d = divisor, timescale = time.timescale;
    if (timescale == 0) divisionByZero("SVTimeMultiplyByRatio", __LINE__);
    uint32_t rounded = 0;
    // Until timescale * divisor fits 32 bits, halve the larger of divisor
    // (with the multiplier) and timescale (with the value).  For a positive
    // timescale "divisor beyond 2147483647 / timescale or below -2147483648 /
    // timescale" is exactly "the product does not fit"; the product form also
    // ends for the negative timescales a dictionary may bring.
    for (;;) {
        int64_t product = d * timescale;
        if (product >= INT32_MIN && product <= INT32_MAX) break;
        if (magnitude(d) > magnitude(timescale)) {
            m >>= 1;
            d >>= 1;
        } else {
            value >>= 1;
            timescale >>= 1;
        }
        rounded = kSVTimeFlags_HasBeenRounded;
    }
    // value / timescale * m / d is value * m on the timescale timescale * d.
    const int32_t working = static_cast<int32_t>(d * timescale);
    int32_t target = working;
    for (;;) {
        Rescaled converted = rescale(value, working, target, kSVTimeRoundingMethod_Default, "SVTimeMultiplyByRatio");
        int64_t product;
        if (converted.ok && !__builtin_mul_overflow(converted.value, m, &product)) {
            if (target < 0) {
                product = wrapNeg(product);
                target = static_cast<int32_t>(0 - static_cast<uint32_t>(target));
            }
            return {product, target, flags | rounded, time.epoch};
        }
        // A negative target (negative divisor) ends at -1; its result would
        // have been negated, so the infinity is too.
        if (target == 1 || target == -1) {
            bool positive = ((value < 0) == (m < 0)) != (target < 0);
            return positive ? kPositiveInfinity : kNegativeInfinity;
        }
        target >>= 1;
        rounded = kSVTimeFlags_HasBeenRounded;
    }
}

SVTime makeWithSeconds(double seconds, int32_t preferredTimescale) noexcept {
    if (std::isinf(seconds)) return seconds < 0 ? kNegativeInfinity : kPositiveInfinity;
    if (preferredTimescale < 1) return kInvalid;
    double product = static_cast<double>(preferredTimescale) * seconds;
    // Truncated, not rounded to nearest: 0.7 s at timescale 1 is 0.
    int64_t value = truncateToInt64(product);
    double back = static_cast<double>(value);
    double diff = std::fabs(back - product);
    double larger = std::fabs(back) > std::fabs(product) ? std::fabs(back) : std::fabs(product);
    bool rounded = diff > DBL_EPSILON && diff > DBL_EPSILON * larger;
    return {value, preferredTimescale, kSVTimeFlags_Valid | (rounded ? kSVTimeFlags_HasBeenRounded : 0u), 0};
}

// ---- Dictionary and text forms ----------------------------------------------

bool readNumber(CFDictionaryRef dictionary, CFStringRef key, CFNumberType type, void *out) noexcept {
    CFTypeRef number = CFDictionaryGetValue(dictionary, key);
    return number && CFGetTypeID(number) == CFNumberGetTypeID() &&
           CFNumberGetValue(static_cast<CFNumberRef>(number), type, out);
}

}  // namespace

extern "C" {

SVTime SVTimeMake(SVTimeValue value, SVTimeScale timescale) noexcept {
    return makeTime(value, timescale);
}

SVTime SVTimeMakeWithEpoch(SVTimeValue value, SVTimeScale timescale, SVTimeEpoch epoch) noexcept {
    if (timescale < 1) return kInvalid;
    return {value, timescale, kSVTimeFlags_Valid, epoch};
}

int32_t SVTimeCompare(SVTime time1, SVTime time2) noexcept {
    return compare(time1, time2);
}

SVTime SVTimeMinimum(SVTime time1, SVTime time2) noexcept {
    return compare(time1, time2) == -1 ? time1 : time2;
}

SVTime SVTimeMaximum(SVTime time1, SVTime time2) noexcept {
    return compare(time1, time2) == 1 ? time1 : time2;
}

SVTime SVTimeAbsoluteValue(SVTime time) noexcept {
    constexpr uint32_t kMask = kSVTimeFlags_Valid | kSVTimeFlags_PositiveInfinity | kSVTimeFlags_Indefinite;
    if ((time.flags & kMask) != kSVTimeFlags_Valid) return time;
    if (time.flags & kSVTimeFlags_NegativeInfinity) return kPositiveInfinity;
    if (time.value < 0) time.value = wrapNeg(time.value);
    return time;
}

Float64 SVTimeGetSeconds(SVTime time) noexcept {
    if (SVTIME_IS_POSITIVE_INFINITY(time)) return INFINITY;
    if (SVTIME_IS_NEGATIVE_INFINITY(time)) return -INFINITY;
    if (!isNumeric(time)) return NAN;
    return static_cast<double>(time.value) / static_cast<double>(time.timescale);
}

SVTime SVTimeConvertScale(SVTime time, SVTimeScale newTimescale, SVTimeRoundingMethod method) noexcept {
    return convertScale(time, newTimescale, method, __func__);
}

SVTime SVTimeAdd(SVTime lhs, SVTime rhs) noexcept {
    return add(lhs, rhs);
}

SVTime SVTimeSubtract(SVTime lhs, SVTime rhs) noexcept {
    return subtract(lhs, rhs);
}

SVTime SVTimeMakeWithSeconds(Float64 seconds, int32_t preferredTimescale) noexcept {
    return makeWithSeconds(seconds, preferredTimescale);
}

SVTime SVTimeMultiplyByFloat64(SVTime time, Float64 multiplier) noexcept {
    return multiplyByFloat64(time, multiplier);
}

SVTime SVTimeMultiplyByRatio(SVTime time, int32_t multiplier, int32_t divisor) noexcept {
    return multiplyByRatio(time, multiplier, divisor);
}

SVTime SVTimeMultiply(SVTime time, int32_t multiplier) noexcept {
    return multiplyByRatio(time, multiplier, 1);
}

CFDictionaryRef SVTimeCopyAsDictionary(SVTime time, CFAllocatorRef allocator) noexcept {
    int32_t flags = static_cast<int32_t>(time.flags);  // the bit pattern, as a signed 32-bit number
    sorvel::SVRetained<CFNumberRef> value(CFNumberCreate(allocator, kCFNumberSInt64Type, &time.value));
    sorvel::SVRetained<CFNumberRef> timescale(CFNumberCreate(allocator, kCFNumberSInt32Type, &time.timescale));
    sorvel::SVRetained<CFNumberRef> epoch(CFNumberCreate(allocator, kCFNumberSInt64Type, &time.epoch));
    sorvel::SVRetained<CFNumberRef> flagNumber(CFNumberCreate(allocator, kCFNumberSInt32Type, &flags));
    if (!value || !timescale || !epoch || !flagNumber) return nullptr;
    const void *keys[] = {kSVTimeValueKey, kSVTimeScaleKey, kSVTimeEpochKey, kSVTimeFlagsKey};
    const void *values[] = {value.get(), timescale.get(), epoch.get(), flagNumber.get()};
    return CFDictionaryCreate(allocator, keys, values, 4, &kCFTypeDictionaryKeyCallBacks,
                              &kCFTypeDictionaryValueCallBacks);
}

SVTime SVTimeMakeFromDictionary(CFDictionaryRef dictionary) noexcept {
    if (!dictionary || CFGetTypeID(dictionary) != CFDictionaryGetTypeID()) return kInvalid;
    SVTime time;
    int32_t flags;
    if (!readNumber(dictionary, kSVTimeValueKey, kCFNumberSInt64Type, &time.value) ||
        !readNumber(dictionary, kSVTimeScaleKey, kCFNumberSInt32Type, &time.timescale) ||
        !readNumber(dictionary, kSVTimeEpochKey, kCFNumberSInt64Type, &time.epoch) ||
        !readNumber(dictionary, kSVTimeFlagsKey, kCFNumberSInt32Type, &flags))
        return kInvalid;
    // Taken as stored, even where flags and timescale disagree.
    time.flags = static_cast<uint32_t>(flags);
    return time;
}

CFStringRef SVTimeCopyDescription(CFAllocatorRef allocator, SVTime time) noexcept {
    if (!(time.flags & kSVTimeFlags_Valid)) return CFSTR("<invalid>");
    if (time.flags & kSVTimeFlags_Indefinite) return CFSTR("<indefinite>");
    if (time.flags & kSVTimeFlags_PositiveInfinity) return CFSTR("<+inf>");
    if (time.flags & kSVTimeFlags_NegativeInfinity) return CFSTR("<-inf>");
    double seconds = static_cast<double>(time.value) / static_cast<double>(time.timescale);
    const char *suffix = time.flags & kSVTimeFlags_HasBeenRounded ? ", rounded" : "";
    if (time.epoch == 0)
        return CFStringCreateWithFormat(allocator, nullptr, CFSTR("<%lld/%d = %0.3fs%s>"),
                                        static_cast<long long>(time.value), static_cast<int>(time.timescale), seconds,
                                        suffix);
    return CFStringCreateWithFormat(allocator, nullptr, CFSTR("<%lld/%d = %0.3fs (epoch %lld)%s>"),
                                    static_cast<long long>(time.value), static_cast<int>(time.timescale), seconds,
                                    static_cast<long long>(time.epoch), suffix);
}

void SVTimeShow(SVTime time) noexcept {
    CFStringRef description = SVTimeCopyDescription(nullptr, time);
    if (!description) return;
    CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(description), kCFStringEncodingUTF8) + 1;
    char *text = static_cast<char *>(std::malloc(static_cast<size_t>(size)));
    bool converted = text && CFStringGetCString(description, text, size, kCFStringEncodingUTF8);
    CFRelease(description);
    if (converted) std::printf("%s\n", text);
    std::free(text);
}

}  // extern "C"
