/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Timebases: timelines driven by a master clock or a master timebase.
 *
 * A timebase's time advances at its rate relative to its master's time,
 * from an anchor pair that ties one master time to one timebase time:
 *
 *     time = timebase anchor + (master's time now - master anchor) x rate
 *
 * Rate 0 stops it, 1 runs it with its master, other rates play faster,
 * slower or backwards; setting its time makes it jump.  A new timebase
 * stands still at time 0.  The master is fixed at creation and retained for
 * the timebase's whole life, so timebases form trees whose roots are clocks.
 *
 * Anchors are kept in a normal form: while the rate is not 0 the timebase
 * anchor is kSVTimeZero and only the master anchor moves; while the rate is
 * 0 the timebase anchor holds the frozen time.
 *
 * Notifications (posted through CFNotificationCenterGetLocalCenter(),
 * synchronously on the thread whose call caused them, with the timebase as
 * the object and no user info):
 * - kSVTimebaseNotification_EffectiveRateChanged: SVTimebaseSetRate and
 *   SVTimebaseSetRateAndAnchorTime post it when the rate changes, except
 *   while the master is a timebase whose own effective rate is 0.
 * - kSVTimebaseNotification_TimeJumped: SVTimebaseSetTime,
 *   SVTimebaseSetAnchorTime and SVTimebaseSetRateAndAnchorTime post it,
 *   unless the anchors stay as they were and the effective rate is 0.  A
 *   running timebase posts it on every such call, even when nothing moved.
 * - A timebase made with SVTimebaseCreateWithMasterTimebase re-posts both
 *   notifications of its master, as itself, while its own rate is not 0.
 * SVTimebaseSetRateAndAnchorTime posts EffectiveRateChanged before it sets
 * the anchors: an observer of that notification sees the new rate with the
 * old anchors.
 *
 * Statuses: kSVTimebaseError_MissingRequiredParameter for a NULL (or
 * non-timebase) timebase, master or required output;
 * kSVTimebaseError_AllocationFailed when the timebase cannot be allocated.
 *
 * Threads.  Reading a timebase takes no lock, and always sees one whole
 * state (rate and anchors set by one call).  Setters may be called from any
 * thread; calls on one timebase from several threads are applied one at a
 * time, but a caller that needs an order among them must impose it.  No lock
 * is held while notifications are delivered, so observers may call any
 * timebase function.  A clock's time source must not change a timebase that
 * the clock drives.  A child timebase observes its master until it is
 * finalized: release the last reference to a child only when no other
 * thread is changing its master at that moment.
 *
 * Timers.  A player asks the timebase to call it back when the timeline
 * reaches a time, whatever the timeline does meanwhile.  Two kinds of timer
 * work: a run-loop timer (CFRunLoopTimer) and a timer dispatch source.
 *
 * Who does what.  The caller makes the timer: a run-loop timer that
 * repeats, with an interval so long that it never matters (say 1e9 s),
 * added to the caller's own run loop, which is then passed to
 * SVTimebaseAddTimer; or a dispatch source of DISPATCH_SOURCE_TYPE_TIMER
 * whose handlers the caller sets and which the caller resumes.  From
 * SVTimebaseAdd... on, the timebase alone sets the timer's fire date or
 * deadline: an unarmed run-loop timer's next fire date lies far in the
 * future (the year 4001), an unarmed source's deadline is
 * DISPATCH_TIME_FOREVER.  The timebase never resumes, suspends or cancels
 * a source, and never invalidates a run-loop timer.  A timer belongs to
 * one timebase, which retains it (and the run loop) until it is removed or
 * the timebase is finalized; adding it again to the same timebase changes
 * nothing and returns 0.
 *
 * Arming.  Setting a next fire time (a time on this timebase's timeline;
 * flags must be 0) arms the timer: the timebase converts the fire time to
 * a host-clock deadline through its rate, its anchors and its chain of
 * masters (a clock other than the host clock is taken as running with it),
 * and re-arms every armed timer whenever its rate, time or anchors change,
 * or those of a master up the chain.  While the effective rate is 0 a
 * timer waits indefinitely; at a negative rate it fires when the timeline
 * comes down to the fire time; a fire time already passed in the
 * timeline's current direction fires at once.  A positive infinite fire
 * time waits forever; an invalid or indefinite one disarms.  After it
 * fires, a timer stays unarmed until it is given a new fire time.
 * ...ToFireImmediately fires it as soon as possible, also on a stopped
 * timebase, and replaces a pending fire time.
 *
 * Exactly once.  A re-arm never loses a firing that was already due and
 * never makes it fire twice: a timer whose deadline passed before the
 * timebase re-arms it counts as fired and stays unarmed.  Giving a timer a
 * new fire time while its old deadline is due delivers the old firing and
 * arms the new one.  SVTimebaseSetRateAndAnchorTime re-arms once, with the
 * final rate and anchors.
 *
 * Removal.  Once SVTimebaseRemove... returns, the timer's handler or
 * callout is not running on another thread and will not run for this
 * timebase again (firings not yet delivered are dropped); the same holds
 * for every timer when the timebase's last reference goes.  Both may be
 * called from inside the timer's own handler.  A source cancelled by its
 * owner while armed simply never calls its event handler again; remove it
 * as usual.
 *
 * Timer statuses: kSVTimebaseError_MissingRequiredParameter for a NULL
 * timebase, timer, source, run loop or output;
 * kSVTimebaseError_InvalidTimer for a timer not added to this timebase,
 * one already added to another timebase, an invalidated run-loop timer, an
 * object that is not a run-loop timer, and a dispatch source that is not a
 * timer source.  Each failure is logged at level 3.
 */
#ifndef SORVEL_SVTIMEBASE_H
#define SORVEL_SVTIMEBASE_H

#include <CoreFoundation/CFRunLoop.h>
#include <Sorvel/SVClock.h>
#include <dispatch/dispatch.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVTimebase *SVTimebaseRef;

/* A clock or a timebase. */
typedef CFTypeRef SVClockOrTimebaseRef;

enum {
    kSVTimebaseError_MissingRequiredParameter = -12748,
    kSVTimebaseError_InvalidTimer = -12749,
    kSVTimebaseError_AllocationFailed = -12750
};

/* Notification names; each constant's text is its own name. */
SV_EXPORT const CFStringRef kSVTimebaseNotification_EffectiveRateChanged;
SV_EXPORT const CFStringRef kSVTimebaseNotification_TimeJumped;
/* A user-info key for the time of an event; no call here puts it in a
 * notification. */
SV_EXPORT const CFStringRef kSVTimebaseNotificationKey_EventTime;

/* The timebase class's type identifier (registered on first use). */
SV_EXPORT CFTypeID SVTimebaseGetTypeID(void) SV_NOEXCEPT;

/* Makes a timebase on `masterClock`, stopped at time 0 (its master anchor is
 * the master's time now).  kSVTimebaseError_MissingRequiredParameter for a
 * NULL timebaseOut (nothing written) or a NULL master (NULL in
 * *timebaseOut); kSVTimebaseError_AllocationFailed (NULL in *timebaseOut).
 * The caller owns the new timebase (CFRelease); it retains its master. */
SV_EXPORT OSStatus SVTimebaseCreateWithMasterClock(CFAllocatorRef allocator, SVClockRef masterClock,
                                                   SVTimebaseRef *timebaseOut) SV_NOEXCEPT;
/* The same on a master timebase; the new timebase also re-posts its
 * master's notifications (see above). */
SV_EXPORT OSStatus SVTimebaseCreateWithMasterTimebase(CFAllocatorRef allocator, SVTimebaseRef masterTimebase,
                                                      SVTimebaseRef *timebaseOut) SV_NOEXCEPT;

/* The timebase's time now (kSVTimeInvalid for NULL).  Invalid also when the
 * master reads invalid or, with time arithmetic's rules, when the anchors
 * are special times. */
SV_EXPORT SVTime SVTimebaseGetTime(SVTimebaseRef timebase) SV_NOEXCEPT;
/* The same, changed to `timescale` with `roundingMethod` as
 * SVTimeConvertScale does (a timescale of 0 ends the process, as there). */
SV_EXPORT SVTime SVTimebaseGetTimeWithTimeScale(SVTimebaseRef timebase, SVTimeScale timescale,
                                                SVTimeRoundingMethod roundingMethod) SV_NOEXCEPT;
/* The time and the rate of one state; either output may be NULL.
 * kSVTimebaseError_MissingRequiredParameter for a NULL timebase. */
SV_EXPORT OSStatus SVTimebaseGetTimeAndRate(SVTimebaseRef timebase, SVTime *timeOut, Float64 *rateOut) SV_NOEXCEPT;
/* The rate set on this timebase (0.0 for NULL). */
SV_EXPORT Float64 SVTimebaseGetRate(SVTimebaseRef timebase) SV_NOEXCEPT;
/* The rate relative to the ultimate master clock: the product of the rates
 * along the chain of masters, 0.0 when any of them is 0 (and for NULL). */
SV_EXPORT Float64 SVTimebaseGetEffectiveRate(SVTimebaseRef timebase) SV_NOEXCEPT;

/* Sets the rate; the time runs on continuously from where it is (rate 0
 * freezes it there).  Setting the rate it already has changes nothing and
 * posts nothing.  Returns 0, or kSVTimebaseError_MissingRequiredParameter. */
SV_EXPORT OSStatus SVTimebaseSetRate(SVTimebaseRef timebase, Float64 rate) SV_NOEXCEPT;
/* Makes the timebase read `time` now (a jump).  Returns 0, or
 * kSVTimebaseError_MissingRequiredParameter. */
SV_EXPORT OSStatus SVTimebaseSetTime(SVTimebaseRef timebase, SVTime time) SV_NOEXCEPT;
/* Ties `timebaseTime` to the master time `immediateMasterTime`, so that the
 * timebase reads timebaseTime whenever its master reads that time (for a
 * stopped timebase: reads timebaseTime from now on).  Returns 0, or
 * kSVTimebaseError_MissingRequiredParameter. */
SV_EXPORT OSStatus SVTimebaseSetAnchorTime(SVTimebaseRef timebase, SVTime timebaseTime,
                                           SVTime immediateMasterTime) SV_NOEXCEPT;
/* Sets the rate, then the anchor pair, without reading the time in
 * between.  Returns 0, or kSVTimebaseError_MissingRequiredParameter. */
SV_EXPORT OSStatus SVTimebaseSetRateAndAnchorTime(SVTimebaseRef timebase, Float64 rate, SVTime timebaseTime,
                                                  SVTime immediateMasterTime) SV_NOEXCEPT;

/* Borrowed references to the master; NULL for NULL.  GetMasterClock gives
 * the master only if it is a clock, GetMasterTimebase only if it is a
 * timebase; GetUltimateMasterClock follows masters up to the clock at the
 * root of the tree. */
SV_EXPORT SVClockOrTimebaseRef SVTimebaseGetMaster(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVClockRef SVTimebaseGetMasterClock(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVTimebaseRef SVTimebaseGetMasterTimebase(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVClockRef SVTimebaseGetUltimateMasterClock(SVTimebaseRef timebase) SV_NOEXCEPT;

/* Timers (see the top of this header).  The run-loop timer is added to
 * `runloop` by the caller beforehand, in the modes it chooses.  Adding a
 * timer answers kSVTimebaseError_AllocationFailed when its record cannot be
 * allocated; the timer is then not added anywhere and may be added again. */
SV_EXPORT OSStatus SVTimebaseAddTimer(SVTimebaseRef timebase, CFRunLoopTimerRef timer,
                                      CFRunLoopRef runloop) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseRemoveTimer(SVTimebaseRef timebase, CFRunLoopTimerRef timer) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseSetTimerNextFireTime(SVTimebaseRef timebase, CFRunLoopTimerRef timer, SVTime fireTime,
                                                  uint32_t flags) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseSetTimerToFireImmediately(SVTimebaseRef timebase, CFRunLoopTimerRef timer) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseAddTimerDispatchSource(SVTimebaseRef timebase, dispatch_source_t timerSource) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseRemoveTimerDispatchSource(SVTimebaseRef timebase,
                                                       dispatch_source_t timerSource) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseSetTimerDispatchSourceNextFireTime(SVTimebaseRef timebase, dispatch_source_t timerSource,
                                                                SVTime fireTime, uint32_t flags) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseSetTimerDispatchSourceToFireImmediately(SVTimebaseRef timebase,
                                                                     dispatch_source_t timerSource) SV_NOEXCEPT;

/* The deadline the timebase last asked of the timer, as a host time
 * (SVClockGetHostTimeClock's timeline, timescale 1000000000; compare it
 * with SVClockGetTime(SVClockGetHostTimeClock()) inside the handler to
 * measure the wake-up error).  kSVTimePositiveInfinity while it waits
 * indefinitely, kSVTimeInvalid when it was never armed; after a firing the
 * deadline of that firing stays.  Statuses as for the other timer calls. */
SV_EXPORT OSStatus SVTimebaseGetTimerDeadline(SVTimebaseRef timebase, CFRunLoopTimerRef timer,
                                              SVTime *deadlineOut) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseGetTimerDispatchSourceDeadline(SVTimebaseRef timebase, dispatch_source_t timerSource,
                                                            SVTime *deadlineOut) SV_NOEXCEPT;

/* Not implemented: each logs "NOT YET IMPLEMENTED" and ends the process.
 * Use the Get calls above and retain what they return. */
SV_EXPORT SVClockOrTimebaseRef SVTimebaseCopyMaster(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVClockRef SVTimebaseCopyMasterClock(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVTimebaseRef SVTimebaseCopyMasterTimebase(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT SVClockRef SVTimebaseCopyUltimateMasterClock(SVTimebaseRef timebase) SV_NOEXCEPT;
SV_EXPORT OSStatus SVTimebaseNotificationBarrier(SVTimebaseRef timebase) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVTIMEBASE_H */
