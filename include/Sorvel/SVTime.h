/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Time values, time ranges and time mappings.
 *
 * SVTime is a rational number of seconds, value / timescale, with flags for
 * the special times media timing needs (invalid, positive and negative
 * infinity, indefinite) and an epoch that tells apart otherwise equal times
 * of different loops or runs.  It is a plain 24-byte value, passed and
 * returned by value and never allocated.  SVTimeRange is a start and a
 * duration; SVTimeMapping pairs a source range with a target range.
 *
 * Conventions of this header:
 * - A time is numeric when it is valid and neither infinite nor indefinite
 *   (flags masked with 0x1D equal kSVTimeFlags_Valid); the rounded flag
 *   plays no part in any test of kind.  A numeric time made by SVTimeMake
 *   always has a timescale above 0.  SVTimeMakeFromDictionary accepts any
 *   four fields, so callers that read stored times may meet numeric times
 *   whose timescale is 0 or negative: a zero timescale that reaches a change
 *   of timescale ends the process (see SVTimeConvertScale).
 * - Special times flow through arithmetic instead of raising errors; no
 *   call here returns a status or logs, except the fatal stops named below.
 * - Everything is a pure function of its arguments and may be called from
 *   any thread.  The arithmetic and comparisons take no lock and allocate
 *   nothing; only the dictionary and text forms allocate, through the
 *   allocator given (NULL is the default allocator).
 */
#ifndef SORVEL_SVTIME_H
#define SORVEL_SVTIME_H

#include <Sorvel/SVBase.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef int64_t SVTimeValue;
typedef int32_t SVTimeScale;
typedef int64_t SVTimeEpoch;
typedef uint32_t SVTimeFlags;

enum {
    kSVTimeFlags_Valid = 1,          /* with no other bit: an ordinary numeric time */
    kSVTimeFlags_HasBeenRounded = 2, /* the value was rounded when it was produced */
    kSVTimeFlags_PositiveInfinity = 4,
    kSVTimeFlags_NegativeInfinity = 8,
    kSVTimeFlags_Indefinite = 16 /* an unknown time */
};

/* The largest timescale that SVTimeAdd produces. */
enum { kSVTimeMaxTimescale = 0x7fffffff };

/* Fields in this order, 24 bytes. */
typedef struct SVTime {
    SVTimeValue value;     /* numerator */
    SVTimeScale timescale; /* units per second */
    SVTimeFlags flags;
    SVTimeEpoch epoch; /* 0 for ordinary use */
} SVTime;

/* Rounding methods of SVTimeConvertScale.  Any value other than 2 to 6
 * (0, 1, 7 and above) selects the default rule, which addition also uses.
 * Each rule adds 0 or 1 to the value truncated toward zero, as stated per
 * constant; the rules keep their exact sign cases even where they differ
 * from the textbook meaning of their names, since stored data depends on
 * the values they give. */
typedef uint32_t SVTimeRoundingMethod;
enum {
    /* Adds 1 when the remainder is above half the old timescale and the
     * truncated result is not negative: an exact half is not rounded up, a
     * negative result is never adjusted. */
    kSVTimeRoundingMethod_RoundHalfAwayFromZero = 1,
    /* Adds 1 to an inexact negative result. */
    kSVTimeRoundingMethod_RoundTowardZero = 2,
    /* Adds 1 to an inexact result that is not negative. */
    kSVTimeRoundingMethod_RoundAwayFromZero = 3,
    /* Toward a coarser timescale: adds 1 to an inexact result below -1;
     * toward a finer one: as RoundAwayFromZero. */
    kSVTimeRoundingMethod_QuickTime = 4,
    /* Adds 1 to every inexact result. */
    kSVTimeRoundingMethod_RoundTowardPositiveInfinity = 5,
    /* Never adjusts: the truncated result. */
    kSVTimeRoundingMethod_RoundTowardNegativeInfinity = 6,
    kSVTimeRoundingMethod_Default = kSVTimeRoundingMethod_RoundHalfAwayFromZero
};

/* Tests of kind, by flags alone (the rounded flag is ignored). */
#define SVTIME_IS_VALID(time) (((time).flags & kSVTimeFlags_Valid) != 0)
#define SVTIME_IS_INVALID(time) (!SVTIME_IS_VALID(time))
#define SVTIME_IS_POSITIVE_INFINITY(time)                                     \
    (((time).flags & (kSVTimeFlags_Valid | kSVTimeFlags_PositiveInfinity)) == \
     (kSVTimeFlags_Valid | kSVTimeFlags_PositiveInfinity))
#define SVTIME_IS_NEGATIVE_INFINITY(time)                                     \
    (((time).flags & (kSVTimeFlags_Valid | kSVTimeFlags_NegativeInfinity)) == \
     (kSVTimeFlags_Valid | kSVTimeFlags_NegativeInfinity))
#define SVTIME_IS_INDEFINITE(time) \
    (((time).flags & (kSVTimeFlags_Valid | kSVTimeFlags_Indefinite)) == (kSVTimeFlags_Valid | kSVTimeFlags_Indefinite))
#define SVTIME_IS_NUMERIC(time) (((time).flags & 0x1Du) == kSVTimeFlags_Valid)
#define SVTIME_HAS_BEEN_ROUNDED(time) (((time).flags & kSVTimeFlags_HasBeenRounded) != 0)

/* 0/1, valid. */
SV_EXPORT const SVTime kSVTimeZero;
/* All fields zero. */
SV_EXPORT const SVTime kSVTimeInvalid;
/* Timescale 0, flags valid | indefinite. */
SV_EXPORT const SVTime kSVTimeIndefinite;
/* Timescale 0, flags valid | positive infinity. */
SV_EXPORT const SVTime kSVTimePositiveInfinity;
/* Timescale 0, flags valid | negative infinity. */
SV_EXPORT const SVTime kSVTimeNegativeInfinity;

/* Keys of the dictionary form of a time: "value" (SInt64), "timescale"
 * (SInt32), "epoch" (SInt64), "flags" (SInt32, the flag bits). */
SV_EXPORT const CFStringRef kSVTimeValueKey;
SV_EXPORT const CFStringRef kSVTimeScaleKey;
SV_EXPORT const CFStringRef kSVTimeEpochKey;
SV_EXPORT const CFStringRef kSVTimeFlagsKey;

/* ---- Construction, comparison, seconds (pure, any thread) ---------------- */

/* {value, timescale, valid, epoch 0}; kSVTimeInvalid when timescale < 1. */
SV_EXPORT SVTime SVTimeMake(SVTimeValue value, SVTimeScale timescale) SV_NOEXCEPT;
/* As SVTimeMake with the epoch given; kSVTimeInvalid when timescale < 1. */
SV_EXPORT SVTime SVTimeMakeWithEpoch(SVTimeValue value, SVTimeScale timescale, SVTimeEpoch epoch) SV_NOEXCEPT;

/* -1, 0 or 1.  The total order is: negative infinity < every numeric time <
 * indefinite < positive infinity < invalid.  Two times of one kind other
 * than numeric are equal whatever their other fields.  Between numeric
 * times the larger epoch is later; within one epoch value / timescale are
 * compared as 64-bit floats, so times whose quotients round to the same
 * double compare equal. */
SV_EXPORT int32_t SVTimeCompare(SVTime time1, SVTime time2) SV_NOEXCEPT;
/* time1 when it compares below time2, else time2 (time2 on a tie). */
SV_EXPORT SVTime SVTimeMinimum(SVTime time1, SVTime time2) SV_NOEXCEPT;
/* time1 when it compares above time2, else time2 (time2 on a tie). */
SV_EXPORT SVTime SVTimeMaximum(SVTime time1, SVTime time2) SV_NOEXCEPT;
/* Negative infinity becomes kSVTimePositiveInfinity; a negative numeric
 * value is negated (the most negative value stays as it is) keeping the
 * other fields; any other time is returned unchanged. */
SV_EXPORT SVTime SVTimeAbsoluteValue(SVTime time) SV_NOEXCEPT;
/* value / timescale as 64-bit floats; +-infinity for the infinities, NaN for
 * invalid and indefinite times.  The epoch plays no part. */
SV_EXPORT Float64 SVTimeGetSeconds(SVTime time) SV_NOEXCEPT;

/* ---- Change of timescale, addition, subtraction -------------------------- */

/* The time on newTimescale, rounded by `method`; the rounded flag is added
 * when the result is inexact.  A time that is not numeric is returned
 * unchanged.  When the result does not fit, the result is value 0 at
 * newTimescale with the time's flags (no error is reported).  newTimescale
 * is not checked: a negative one is used as given, and 0 (or a numeric time
 * with timescale 0) is a division by zero that ends the process with a
 * logged message. */
SV_EXPORT SVTime SVTimeConvertScale(SVTime time, SVTimeScale newTimescale, SVTimeRoundingMethod method) SV_NOEXCEPT;
/* lhs + rhs on the least common multiple of the timescales (at most
 * kSVTimeMaxTimescale), halving the timescale until the sum fits; a sum
 * that does not fit even at timescale 1 is kSVTimeNegativeInfinity,
 * whatever its sign.  Indefinite wins over everything, then invalid; plus
 * and minus infinity together give kSVTimeInvalid.  A zero operand returns
 * the other one whole.  Epochs: two different non-zero epochs give
 * kSVTimeInvalid; the result carries the one non-zero epoch, or 0 (also
 * when both share the same non-zero epoch). */
SV_EXPORT SVTime SVTimeAdd(SVTime lhs, SVTime rhs) SV_NOEXCEPT;
/* SVTimeAdd(lhs, -rhs), where negating a numeric rhs is SVTimeMake(-value,
 * timescale): its epoch becomes 0 and its rounded flag is dropped, so a
 * difference of two times of the same non-zero epoch keeps that epoch. */
SV_EXPORT SVTime SVTimeSubtract(SVTime lhs, SVTime rhs) SV_NOEXCEPT;

/* ---- Multiplication and seconds ------------------------------------------ */

/* seconds * preferredTimescale truncated toward zero, at preferredTimescale
 * (never changed to make the value exact); rounded flag when the truncation
 * lost more than the 64-bit float epsilon.  Infinite seconds give the
 * infinity of that sign; preferredTimescale < 1 gives kSVTimeInvalid. */
SV_EXPORT SVTime SVTimeMakeWithSeconds(Float64 seconds, int32_t preferredTimescale) SV_NOEXCEPT;
/* time * multiplier on a timescale of at least 65536 (the time's own
 * doubled as needed), halving it while the product does not fit (each
 * halving sets the rounded flag).  Infinities become negative infinity
 * when multiplier <= 0 flips their sign (so 0 flips it); invalid and
 * indefinite stay as they are.  A numeric time whose timescale is not
 * positive ends the process with a logged message. */
SV_EXPORT SVTime SVTimeMultiplyByFloat64(SVTime time, Float64 multiplier) SV_NOEXCEPT;
/* time * multiplier / divisor on the timescale timescale * divisor, halved
 * while the product does not fit.  0/0 gives kSVTimeIndefinite; a divisor of
 * 0 gives an infinity of the time's sign times the multiplier's (indefinite
 * for a zero time). */
SV_EXPORT SVTime SVTimeMultiplyByRatio(SVTime time, int32_t multiplier, int32_t divisor) SV_NOEXCEPT;
/* SVTimeMultiplyByRatio(time, multiplier, 1). */
SV_EXPORT SVTime SVTimeMultiply(SVTime time, int32_t multiplier) SV_NOEXCEPT;

/* ---- Dictionary and text forms ------------------------------------------- */

/* A new immutable four-entry dictionary (keys above), also for special and
 * invalid times; NULL when allocation fails.  The caller owns it. */
SV_EXPORT CFDictionaryRef SVTimeCopyAsDictionary(SVTime time, CFAllocatorRef allocator) SV_NOEXCEPT CF_RETURNS_RETAINED;
/* The four fields as stored, unchecked.  kSVTimeInvalid when dictionary is
 * NULL or not a dictionary, a key is missing, or a number is not a CFNumber
 * readable without loss as SInt64 (value, epoch) or SInt32 (timescale,
 * flags). */
SV_EXPORT SVTime SVTimeMakeFromDictionary(CFDictionaryRef dictionary) SV_NOEXCEPT;
/* "<invalid>", "<indefinite>", "<+inf>", "<-inf>" (constant strings), or
 * "<value/timescale = S.SSSs>" with " (epoch N)" before the closing bracket
 * for a non-zero epoch and ", rounded" for a rounded time.  The caller owns
 * the result (releasing a constant string is harmless); NULL when
 * allocation fails. */
SV_EXPORT CFStringRef SVTimeCopyDescription(CFAllocatorRef allocator, SVTime time) SV_NOEXCEPT CF_RETURNS_RETAINED;
/* Writes the description and a newline to standard output. */
SV_EXPORT void SVTimeShow(SVTime time) SV_NOEXCEPT;

/* ---- Ranges and mappings --------------------------------------------------- */

typedef struct SVTimeRange {
    SVTime start;
    SVTime duration;
} SVTimeRange;

typedef struct SVTimeMapping {
    SVTimeRange source;
    SVTimeRange target;
} SVTimeMapping;

/* A range is valid when its start and duration are valid and the duration
 * is not negative and has epoch 0.  The all-zero range (kSVTimeRangeInvalid)
 * is what most range calls return on failure; kSVTimeRangeZero is a valid
 * empty range at time zero. */
#define SVTIMERANGE_IS_VALID(range)                                                                        \
    (SVTIME_IS_VALID((range).start) && SVTIME_IS_VALID((range).duration) && (range).duration.value >= 0 && \
     (range).duration.epoch == 0)

SV_EXPORT const SVTimeRange kSVTimeRangeZero;
SV_EXPORT const SVTimeRange kSVTimeRangeInvalid;
SV_EXPORT const SVTimeMapping kSVTimeMappingInvalid;

/* Keys of the dictionary forms: "start", "duration" (each a time
 * dictionary), "source", "target" (each a range dictionary). */
SV_EXPORT const CFStringRef kSVTimeRangeStartKey;
SV_EXPORT const CFStringRef kSVTimeRangeDurationKey;
SV_EXPORT const CFStringRef kSVTimeMappingSourceKey;
SV_EXPORT const CFStringRef kSVTimeMappingTargetKey;

/* {start, duration}; the all-zero range when the duration's epoch is not 0
 * (nothing else is checked). */
SV_EXPORT SVTimeRange SVTimeRangeMake(SVTime start, SVTime duration) SV_NOEXCEPT;
/* {start, end - start} when start compares below end; otherwise (equal
 * times included) the all-zero range. */
SV_EXPORT SVTimeRange SVTimeRangeFromTimeToTime(SVTime start, SVTime end) SV_NOEXCEPT;
/* start + duration for a valid range, else the all-zero time. */
SV_EXPORT SVTime SVTimeRangeGetEnd(SVTimeRange range) SV_NOEXCEPT;
/* Starts and durations compare equal (any timescales). */
SV_EXPORT Boolean SVTimeRangeEqual(SVTimeRange range1, SVTimeRange range2) SV_NOEXCEPT;
/* start <= time < end, for a valid range and a valid time; false otherwise. */
SV_EXPORT Boolean SVTimeRangeContainsTime(SVTimeRange range, SVTime time) SV_NOEXCEPT;
/* range2.start >= range1.start and end2 <= end1, an invalid range's end
 * being the all-zero time (which sorts above every other). */
SV_EXPORT Boolean SVTimeRangeContainsTimeRange(SVTimeRange range1, SVTimeRange range2) SV_NOEXCEPT;
/* The overlap; kSVTimeRangeZero when there is none. */
SV_EXPORT SVTimeRange SVTimeRangeGetIntersection(SVTimeRange range1, SVTimeRange range2) SV_NOEXCEPT;
/* From the earlier start to the later end; the all-zero range when that is
 * not a positive span. */
SV_EXPORT SVTimeRange SVTimeRangeGetUnion(SVTimeRange range1, SVTimeRange range2) SV_NOEXCEPT;
/* The time itself when the range contains it, the start for earlier times,
 * the end for times at or after the end; the all-zero time for an invalid
 * time, a valid empty range, or anything else. */
SV_EXPORT SVTime SVTimeClampToRange(SVTime time, SVTimeRange range) SV_NOEXCEPT;

/* {source, target}; the all-zero mapping when either duration's epoch is
 * not 0. */
SV_EXPORT SVTimeMapping SVTimeMappingMake(SVTimeRange source, SVTimeRange target) SV_NOEXCEPT;
/* Source {invalid start, kSVTimeZero duration} and the given target; the
 * all-zero mapping when the target duration's epoch is not 0. */
SV_EXPORT SVTimeMapping SVTimeMappingMakeEmpty(SVTimeRange target) SV_NOEXCEPT;
/* to.start + (time - from.start) * to.duration / from.duration; the offset
 * is carried unscaled when both durations are positive infinity.  The
 * all-zero time when either range is valid but empty, or when the time's
 * epoch differs from from.start's. */
SV_EXPORT SVTime SVTimeMapTimeFromRangeToRange(SVTime time, SVTimeRange fromRange, SVTimeRange toRange) SV_NOEXCEPT;
/* duration * to.duration / from.duration in 64-bit arithmetic, coarsening
 * timescales until the result fits; epoch 0.  The all-zero time for a
 * duration with an epoch, a negative duration in either range or an empty
 * from-range; kSVTimeZero for a zero duration or an empty to-range; the
 * duration itself when it is not numeric or the two durations are equal.
 * Two cases end the process with a logged division by zero: a from-duration
 * that compares above zero without being numeric (positive infinity,
 * indefinite, invalid), and a from-duration of more than 2^31 units whose
 * timescale the computation has reduced to 1 (it would need timescale 0). */
SV_EXPORT SVTime SVTimeMapDurationFromRangeToRange(SVTime duration, SVTimeRange fromRange,
                                                   SVTimeRange toRange) SV_NOEXCEPT;

/* A new two-entry dictionary "start", "duration" of time dictionaries; NULL
 * when allocation fails.  The caller owns it. */
SV_EXPORT CFDictionaryRef SVTimeRangeCopyAsDictionary(SVTimeRange range,
                                                      CFAllocatorRef allocator) SV_NOEXCEPT CF_RETURNS_RETAINED;
/* The range stored; the all-zero range when dictionary is NULL, a key is
 * missing, or the duration read has a non-zero epoch. */
SV_EXPORT SVTimeRange SVTimeRangeMakeFromDictionary(CFDictionaryRef dictionary) SV_NOEXCEPT;
/* Both "source" and "target" must be present (else the all-zero mapping);
 * each is read as a range, a bad half becoming the all-zero range.  There
 * is deliberately no writer for mappings. */
SV_EXPORT SVTimeMapping SVTimeMappingMakeFromDictionary(CFDictionaryRef dictionary) SV_NOEXCEPT;

/* "<start, duration>" of time descriptions; the caller owns it. */
SV_EXPORT CFStringRef SVTimeRangeCopyDescription(CFAllocatorRef allocator,
                                                 SVTimeRange range) SV_NOEXCEPT CF_RETURNS_RETAINED;
/* "<source, target>" of range descriptions; the caller owns it. */
SV_EXPORT CFStringRef SVTimeMappingCopyDescription(CFAllocatorRef allocator,
                                                   SVTimeMapping mapping) SV_NOEXCEPT CF_RETURNS_RETAINED;
/* Print the description with CFShow (standard error). */
SV_EXPORT void SVTimeRangeShow(SVTimeRange range) SV_NOEXCEPT;
SV_EXPORT void SVTimeMappingShow(SVTimeMapping mapping) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVTIME_H */
