// SPDX-License-Identifier: Apache-2.0
// Time ranges and mappings: range arithmetic, clamping, mapping of times
// and durations between ranges, and the dictionary and text forms.
//
// Failures are values, not statuses: most calls give the all-zero range or
// time, but an empty intersection is kSVTimeRangeZero while a degenerate
// union is the all-zero range, and a clamp returns the end for times at or
// after it although containment excludes the end.  Callers rely on each.

#include <Sorvel/SVTime.h>

#include "time/SVTimeInternal.h"

using namespace sorvel::time;

extern "C" {
const SVTimeRange kSVTimeRangeZero = {kZero, kZero};
const SVTimeRange kSVTimeRangeInvalid = {kInvalid, kInvalid};
const SVTimeMapping kSVTimeMappingInvalid = {{kInvalid, kInvalid}, {kInvalid, kInvalid}};

const CFStringRef kSVTimeRangeStartKey = CFSTR("start");
const CFStringRef kSVTimeRangeDurationKey = CFSTR("duration");
const CFStringRef kSVTimeMappingSourceKey = CFSTR("source");
const CFStringRef kSVTimeMappingTargetKey = CFSTR("target");
}

namespace {

constexpr SVTimeRange kAllZeroRange = {kInvalid, kInvalid};
constexpr SVTimeMapping kAllZeroMapping = {kAllZeroRange, kAllZeroRange};

constexpr bool isValidRange(const SVTimeRange &range) noexcept {
    return (range.start.flags & kSVTimeFlags_Valid) && (range.duration.flags & kSVTimeFlags_Valid) &&
           range.duration.value >= 0 && range.duration.epoch == 0;
}

SVTime rangeEnd(const SVTimeRange &range) noexcept {
    return isValidRange(range) ? add(range.start, range.duration) : kInvalid;
}

bool containsTime(const SVTimeRange &range, const SVTime &time) noexcept {
    if (!isValidRange(range) || !(time.flags & kSVTimeFlags_Valid)) return false;
    return compare(time, range.start) >= 0 && compare(time, rangeEnd(range)) < 0;
}

// A valid range of zero length: mapping from or into it, or clamping to it,
// has no answer.
bool isValidEmptyRange(const SVTimeRange &range) noexcept {
    return isValidRange(range) && compare(range.duration, kZero) == 0;
}

SVTime minimum(const SVTime &a, const SVTime &b) noexcept {
    return compare(a, b) == -1 ? a : b;
}
SVTime maximum(const SVTime &a, const SVTime &b) noexcept {
    return compare(a, b) == 1 ? a : b;
}

// The larger of the three timescales; ties go to d, then f, then t.
SVTime *largestTimescale(SVTime &d, SVTime &f, SVTime &t) noexcept {
    if (d.timescale >= f.timescale && d.timescale >= t.timescale) return &d;
    if (f.timescale >= t.timescale) return &f;
    return &t;
}

// a * b * c exactly, when it lies within [low, high].
bool productWithin(int64_t a, int64_t b, int64_t c, int64_t low, int64_t high, int64_t *out) noexcept {
    __int128 ab = static_cast<__int128>(a) * b;  // at most 2^126 in magnitude
    __int128 abc;
    if (__builtin_mul_overflow(ab, static_cast<__int128>(c), &abc)) return false;
    if (abc < low || abc > high) return false;
    *out = static_cast<int64_t>(abc);
    return true;
}

constexpr const char *kMapDuration = "SVTimeMapDurationFromRangeToRange";

SVTime mapDuration(const SVTime &duration, const SVTimeRange &from, const SVTimeRange &to) noexcept {
    if (duration.epoch != 0) return kInvalid;
    if (compare(from.duration, kZero) < 0 || compare(to.duration, kZero) < 0 || compare(from.duration, kZero) == 0)
        return kInvalid;
    if (compare(duration, kZero) == 0 || compare(to.duration, kZero) == 0) return kZero;
    if (compare(from.duration, to.duration) == 0 || !isNumeric(duration)) return duration;

    SVTime d = duration, f = from.duration, t = to.duration;
    // Cancel common factors, in this order.
    if (d.value == f.value) d.value = f.value = 1;
    if (t.value == f.value) t.value = f.value = 1;
    if (t.timescale == f.timescale) t.timescale = f.timescale = 1;
    if (d.timescale == f.timescale) d.timescale = f.timescale = 1;

    // f.value becomes a 31-bit factor of the result's timescale.  At
    // timescale 1 the halving asks for timescale 0, which ends the process.
    // A non-numeric f would be returned unchanged and never shrink.
    while (f.value > INT32_MAX && isNumeric(f))
        f = convertScale(f, f.timescale / 2, kSVTimeRoundingMethod_RoundHalfAwayFromZero, kMapDuration);

    // value = t.value * f.timescale * d.value, timescale = d.timescale *
    // t.timescale * f.value; coarsen the finest of the three until both fit.
    // The timescale test divides by f.value, which is 0 only when from's
    // duration is not numeric (it compared above zero): that division by
    // zero ends the process, as it always has.
    if (f.value == 0)
        sorvel::SVFatalStop(kMapDuration, kSourcePath, __LINE__,
                            "division by zero: the from-range duration has no value to divide by");
    int64_t value = 0, timescale = 1;
    for (;;) {
        if (productWithin(t.value, f.timescale, d.value, kInt64Min, kInt64Max, &value) &&
            productWithin(d.timescale, t.timescale, f.value, INT32_MIN, INT32_MAX, &timescale))
            break;
        SVTime *x = largestTimescale(d, f, t);
        // A non-numeric time cannot be coarsened; like a value rounded
        // away, it leaves nothing to scale.
        if (!isNumeric(*x)) {
            value = 0;
            timescale = 1;
            break;
        }
        *x = convertScale(*x, x->timescale / 2, kSVTimeRoundingMethod_RoundHalfAwayFromZero, kMapDuration);
        if (x->value == 0) {
            value = 0;
            if (!productWithin(d.timescale, t.timescale, f.value, 1, INT32_MAX, &timescale)) timescale = 1;
            break;
        }
    }
    uint32_t rounded = (d.flags | f.flags | t.flags) & kSVTimeFlags_HasBeenRounded;
    return {value, static_cast<int32_t>(timescale), kSVTimeFlags_Valid | rounded, 0};
}

SVTimeRange rangeFromDictionary(CFDictionaryRef dictionary) noexcept {
    if (!dictionary || CFGetTypeID(dictionary) != CFDictionaryGetTypeID()) return kAllZeroRange;
    const void *start, *duration;
    if (!CFDictionaryGetValueIfPresent(dictionary, kSVTimeRangeStartKey, &start) ||
        !CFDictionaryGetValueIfPresent(dictionary, kSVTimeRangeDurationKey, &duration))
        return kAllZeroRange;
    SVTimeRange range = {SVTimeMakeFromDictionary(static_cast<CFDictionaryRef>(start)),
                         SVTimeMakeFromDictionary(static_cast<CFDictionaryRef>(duration))};
    return range.duration.epoch == 0 ? range : kAllZeroRange;
}

}  // namespace

extern "C" {

SVTimeRange SVTimeRangeMake(SVTime start, SVTime duration) noexcept {
    if (duration.epoch != 0) return kAllZeroRange;
    return {start, duration};
}

SVTimeRange SVTimeRangeFromTimeToTime(SVTime start, SVTime end) noexcept {
    // Equal times give the all-zero range, not an empty range at start.
    if (compare(start, end) >= 0) return kAllZeroRange;
    return {start, subtract(end, start)};
}

SVTime SVTimeRangeGetEnd(SVTimeRange range) noexcept {
    return rangeEnd(range);
}

Boolean SVTimeRangeEqual(SVTimeRange range1, SVTimeRange range2) noexcept {
    return compare(range1.start, range2.start) == 0 && compare(range1.duration, range2.duration) == 0;
}

Boolean SVTimeRangeContainsTime(SVTimeRange range, SVTime time) noexcept {
    return containsTime(range, time);
}

Boolean SVTimeRangeContainsTimeRange(SVTimeRange range1, SVTimeRange range2) noexcept {
    return compare(range2.start, range1.start) >= 0 && compare(rangeEnd(range2), rangeEnd(range1)) <= 0;
}

SVTimeRange SVTimeRangeGetIntersection(SVTimeRange range1, SVTimeRange range2) noexcept {
    SVTime start = maximum(range1.start, range2.start);
    SVTime end = minimum(rangeEnd(range1), rangeEnd(range2));
    if (compare(start, end) < 0) return {start, subtract(end, start)};
    return kSVTimeRangeZero;
}

SVTimeRange SVTimeRangeGetUnion(SVTimeRange range1, SVTimeRange range2) noexcept {
    SVTime start = minimum(range1.start, range2.start);
    SVTime end = maximum(rangeEnd(range1), rangeEnd(range2));
    if (compare(start, end) >= 0) return kAllZeroRange;
    return {start, subtract(end, start)};
}

SVTime SVTimeClampToRange(SVTime time, SVTimeRange range) noexcept {
    if (!(time.flags & kSVTimeFlags_Valid)) return kInvalid;
    if (isValidEmptyRange(range)) return kInvalid;
    if (containsTime(range, time)) return time;
    if (compare(time, range.start) < 0) return range.start;
    SVTime end = rangeEnd(range);
    if (compare(time, end) >= 0) return end;
    return kInvalid;
}

SVTimeMapping SVTimeMappingMake(SVTimeRange source, SVTimeRange target) noexcept {
    if (source.duration.epoch != 0 || target.duration.epoch != 0) return kAllZeroMapping;
    return {source, target};
}

SVTimeMapping SVTimeMappingMakeEmpty(SVTimeRange target) noexcept {
    if (target.duration.epoch != 0) return kAllZeroMapping;
    return {{kInvalid, kZero}, target};
}

SVTime SVTimeMapTimeFromRangeToRange(SVTime time, SVTimeRange fromRange, SVTimeRange toRange) noexcept {
    if (isValidEmptyRange(fromRange) || isValidEmptyRange(toRange)) return kInvalid;
    if (time.epoch != fromRange.start.epoch) return kInvalid;
    SVTime offset = subtract(time, fromRange.start);
    // Two infinite durations carry the offset over unscaled.
    constexpr uint32_t kValidPlus = kSVTimeFlags_Valid | kSVTimeFlags_PositiveInfinity;
    if ((fromRange.duration.flags & toRange.duration.flags & kValidPlus) != kValidPlus)
        offset = mapDuration(offset, fromRange, toRange);
    return add(offset, toRange.start);
}

SVTime SVTimeMapDurationFromRangeToRange(SVTime duration, SVTimeRange fromRange, SVTimeRange toRange) noexcept {
    return mapDuration(duration, fromRange, toRange);
}

CFDictionaryRef SVTimeRangeCopyAsDictionary(SVTimeRange range, CFAllocatorRef allocator) noexcept {
    sorvel::SVRetained<CFDictionaryRef> start(SVTimeCopyAsDictionary(range.start, allocator));
    sorvel::SVRetained<CFDictionaryRef> duration(SVTimeCopyAsDictionary(range.duration, allocator));
    if (!start || !duration) return nullptr;
    const void *keys[] = {kSVTimeRangeStartKey, kSVTimeRangeDurationKey};
    const void *values[] = {start.get(), duration.get()};
    return CFDictionaryCreate(allocator, keys, values, 2, &kCFTypeDictionaryKeyCallBacks,
                              &kCFTypeDictionaryValueCallBacks);
}

SVTimeRange SVTimeRangeMakeFromDictionary(CFDictionaryRef dictionary) noexcept {
    return rangeFromDictionary(dictionary);
}

SVTimeMapping SVTimeMappingMakeFromDictionary(CFDictionaryRef dictionary) noexcept {
    if (!dictionary || CFGetTypeID(dictionary) != CFDictionaryGetTypeID()) return kAllZeroMapping;
    const void *source, *target;
    if (!CFDictionaryGetValueIfPresent(dictionary, kSVTimeMappingSourceKey, &source) ||
        !CFDictionaryGetValueIfPresent(dictionary, kSVTimeMappingTargetKey, &target))
        return kAllZeroMapping;
    return {rangeFromDictionary(static_cast<CFDictionaryRef>(source)),
            rangeFromDictionary(static_cast<CFDictionaryRef>(target))};
}

CFStringRef SVTimeRangeCopyDescription(CFAllocatorRef allocator, SVTimeRange range) noexcept {
    sorvel::SVRetained<CFStringRef> start(SVTimeCopyDescription(allocator, range.start));
    sorvel::SVRetained<CFStringRef> duration(SVTimeCopyDescription(allocator, range.duration));
    if (!start || !duration) return nullptr;
    return CFStringCreateWithFormat(allocator, nullptr, CFSTR("<%@, %@>"), start.get(), duration.get());
}

CFStringRef SVTimeMappingCopyDescription(CFAllocatorRef allocator, SVTimeMapping mapping) noexcept {
    sorvel::SVRetained<CFStringRef> source(SVTimeRangeCopyDescription(allocator, mapping.source));
    sorvel::SVRetained<CFStringRef> target(SVTimeRangeCopyDescription(allocator, mapping.target));
    if (!source || !target) return nullptr;
    return CFStringCreateWithFormat(allocator, nullptr, CFSTR("<%@, %@>"), source.get(), target.get());
}

void SVTimeRangeShow(SVTimeRange range) noexcept {
    sorvel::SVRetained<CFStringRef> description(SVTimeRangeCopyDescription(nullptr, range));
    if (description) CFShow(description.get());
}

void SVTimeMappingShow(SVTimeMapping mapping) noexcept {
    sorvel::SVRetained<CFStringRef> description(SVTimeMappingCopyDescription(nullptr, mapping));
    if (description) CFShow(description.get());
}

}  // extern "C"
