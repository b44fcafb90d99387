/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Synchronisation queries: the time on, the relative rate of, and the
 * conversion of times between any two clocks or timebases.
 *
 * Timebases form trees rooted at clocks.  The calls find the ancestor that
 * two sources share (the one nearest to the first source) and compute
 * through it, step by step along each chain of masters.  Sources without a
 * shared ancestor (two different clocks, or timebases on them) are related
 * through their rates relative to their own clocks and through their
 * current times, taking those clocks as running together.
 *
 * Objects that are neither clocks nor timebases, and NULL, are accepted
 * everywhere and give neutral results: kSVTimeInvalid times and NaN rates.
 * Rates are NaN wherever a rate of 0 would have to be divided by, and a
 * time cannot be brought up from a stopped timebase to its master
 * (kSVTimeInvalid).  Only SVSyncGetRelativeRateAndAnchorTime returns a
 * status; nothing here logs.
 *
 * Threads.  The calls keep no state and take no lock.  Each timebase of a
 * chain is read separately (each read sees one whole state of that
 * timebase), so a rate change on another thread during a conversion may be
 * seen by some steps and not by others.
 */
#ifndef SORVEL_SVSYNC_H
#define SORVEL_SVSYNC_H

#include <Sorvel/SVTimebase.h>

SV_EXTERN_C_BEGIN

enum { kSVSyncError_MissingRequiredParameter = -12752 };

/* The source's time now: SVTimebaseGetTime or SVClockGetTime; kSVTimeInvalid
 * for anything else. */
SV_EXPORT SVTime SVSyncGetTime(CFTypeRef clockOrTimebase) SV_NOEXCEPT;

/* How fast `ofClockOrTimebase` runs when `relativeToClockOrTimebase` runs at
 * 1.  NaN when the latter is stopped (relative to the shared ancestor or to
 * its clock) or when either is not a clock or timebase. */
SV_EXPORT Float64 SVSyncGetRelativeRate(SVClockOrTimebaseRef ofClockOrTimebase,
                                        SVClockOrTimebaseRef relativeToClockOrTimebase) SV_NOEXCEPT;

/* The relative rate (as SVSyncGetRelativeRate) and an anchor pair: the time
 * on `ofClockOrTimebase` that corresponds to kSVTimeZero on
 * `relativeToClockOrTimebase`, and kSVTimeZero.  Each output may be NULL.
 * kSVSyncError_MissingRequiredParameter (nothing written) when either
 * source is NULL. */
SV_EXPORT OSStatus SVSyncGetRelativeRateAndAnchorTime(SVClockOrTimebaseRef ofClockOrTimebase,
                                                      SVClockOrTimebaseRef relativeToClockOrTimebase,
                                                      Float64 *outRelativeRate, SVTime *outOfClockOrTimebaseAnchorTime,
                                                      SVTime *outRelativeToClockOrTimebaseAnchorTime) SV_NOEXCEPT;

/* `time` on `fromClockOrTimebase` expressed on `toClockOrTimebase`: through
 * the shared ancestor when there is one (exact to time arithmetic; invalid
 * when the way up passes a stopped timebase), else through both sources'
 * current times and relative rate.  A source converted to itself gives
 * `time` unchanged. */
SV_EXPORT SVTime SVSyncConvertTime(SVTime time, SVClockOrTimebaseRef fromClockOrTimebase,
                                   SVClockOrTimebaseRef toClockOrTimebase) SV_NOEXCEPT;

/* Whether the two sources' clocks may drift apart: false for every pair,
 * since clocks are taken to run together (false also when either source is
 * not a clock or timebase). */
SV_EXPORT Boolean SVSyncMightDrift(SVClockOrTimebaseRef clockOrTimebase1,
                                   SVClockOrTimebaseRef clockOrTimebase2) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVSYNC_H */
