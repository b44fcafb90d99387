/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Absolute time: seconds, as a double, since 1 January 2001 00:00:00 UTC.
 *
 * Here absolute time is the host's monotonic counter (CLOCK_MONOTONIC, the
 * counter the host time clock reads) plus an offset fixed once per process,
 * at the first call that needs it, so that it read the wall clock then:
 *
 *     absolute time = host time in seconds + offset
 *
 * It therefore never jumps when the wall clock is stepped or slewed (a
 * timer's fire date keeps meaning the same instant), and it may drift from
 * the wall clock over a long run.  _CFAbsoluteTimeFromHostTime and
 * _CFHostTimeFromAbsoluteTime convert exactly by this rule (to the
 * precision of a double: about 0.12 us today).
 */
#ifndef COREFOUNDATION_CFDATE_H
#define COREFOUNDATION_CFDATE_H

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef double CFTimeInterval;
typedef CFTimeInterval CFAbsoluteTime;

/* Seconds from 1970-01-01 to 2001-01-01. */
#define kCFAbsoluteTimeIntervalSince1970 978307200.0

CF_EXPORT CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) CF_NOEXCEPT CF_ABI_NAME(CFAbsoluteTimeGetCurrent);

/* Host time (CLOCK_MONOTONIC nanoseconds) to absolute time and back.  The
 * reverse conversion saturates: 0 before the counter's start, UINT64_MAX
 * beyond its range (and for NaN or +infinity). */
CF_EXPORT CFAbsoluteTime _CFAbsoluteTimeFromHostTime(uint64_t hostNanoseconds) CF_NOEXCEPT
    CF_ABI_NAME(_CFAbsoluteTimeFromHostTime);
CF_EXPORT uint64_t _CFHostTimeFromAbsoluteTime(CFAbsoluteTime absoluteTime) CF_NOEXCEPT
    CF_ABI_NAME(_CFHostTimeFromAbsoluteTime);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFDATE_H */
