/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Run loops and their timers.
 *
 * Every thread has one run loop, made on first use and released when the
 * thread ends (the main thread's lives for the whole process).  A run loop
 * runs only on its own thread, inside CFRunLoopRun / CFRunLoopRunInMode,
 * and there calls the callouts of the timers added to it in the mode it
 * runs.  Its sources are its timers.  Between firings the thread sleeps
 * until the earliest fire date (an absolute deadline on the monotonic
 * counter, see CFDate.h), or until another thread changes one of its
 * timers, stops it or wakes it.
 *
 * Modes are strings compared by value.  kCFRunLoopCommonModes is not a
 * mode one runs: a timer added for it is in every common mode, and the
 * only common mode is kCFRunLoopDefaultMode.
 *
 * A timer fires when its fire date has come: the run loop advances the
 * date first (a repeating timer to the first date after now on its grid of
 * intervals, so firings missed while the run loop was busy are not made
 * up; a non-repeating timer, interval <= 0, is invalidated after its
 * callout) and then calls the callout on the run loop's thread.  A timer is
 * in at most one run loop (in any number of its modes); the run loop
 * retains it while it is there.  Invalidation removes it from its run loop
 * and releases its context info; an invalid timer never fires again.
 *
 * All calls are thread-safe; callouts run without any lock held, so they
 * may call any of these functions (including running the run loop again,
 * nested).  Misuse that is not fatal (NULL arguments, adding a timer that
 * is in another run loop) is logged at level 3 and ignored.
 */
#ifndef COREFOUNDATION_CFRUNLOOP_H
#define COREFOUNDATION_CFRUNLOOP_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDate.h>

CF_EXTERN_C_BEGIN

typedef struct __CFRunLoop *CFRunLoopRef;
typedef struct __CFRunLoopTimer *CFRunLoopTimerRef;
typedef CFStringRef CFRunLoopMode;

CF_EXPORT const CFRunLoopMode kCFRunLoopDefaultMode CF_ABI_NAME(kCFRunLoopDefaultMode);
CF_EXPORT const CFRunLoopMode kCFRunLoopCommonModes CF_ABI_NAME(kCFRunLoopCommonModes);

/* Results of CFRunLoopRunInMode. */
typedef SInt32 CFRunLoopRunResult;
enum {
    kCFRunLoopRunFinished = 1,     /* the mode has no timers */
    kCFRunLoopRunStopped = 2,      /* CFRunLoopStop */
    kCFRunLoopRunTimedOut = 3,     /* `seconds` passed */
    kCFRunLoopRunHandledSource = 4 /* a timer fired and returnAfterSourceHandled was set */
};

CF_EXPORT CFTypeID CFRunLoopGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopGetTypeID);
/* The calling thread's run loop (borrowed). */
CF_EXPORT CFRunLoopRef CFRunLoopGetCurrent(void) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopGetCurrent);
/* The main thread's run loop (borrowed), from any thread. */
CF_EXPORT CFRunLoopRef CFRunLoopGetMain(void) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopGetMain);

/* Runs the calling thread's run loop in the default mode until it is
 * stopped or has no timers left. */
CF_EXPORT void CFRunLoopRun(void) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopRun);
/* Runs the calling thread's run loop in `mode` for at most `seconds` (0 or
 * less: fire what is due, then return); with returnAfterSourceHandled it
 * returns after the first timer callout.  Returns one of the results
 * above; kCFRunLoopRunFinished at once when the mode has no timer. */
CF_EXPORT CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                                Boolean returnAfterSourceHandled) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopRunInMode);
/* Makes the innermost run of `rl` return kCFRunLoopRunStopped (the next
 * run, if it is not running now). */
CF_EXPORT void CFRunLoopStop(CFRunLoopRef rl) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopStop);
/* Wakes `rl` if it is sleeping, so that it looks at its timers again. */
CF_EXPORT void CFRunLoopWakeUp(CFRunLoopRef rl) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopWakeUp);
/* Non-zero while the run loop sleeps waiting for its next date. */
CF_EXPORT Boolean CFRunLoopIsWaiting(CFRunLoopRef rl) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopIsWaiting);

typedef void (*CFRunLoopTimerCallBack)(CFRunLoopTimerRef timer, void *info);
typedef struct {
    CFIndex version; /* 0 */
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    CFStringRef (*copyDescription)(const void *info);
} CFRunLoopTimerContext;

CF_EXPORT CFTypeID CFRunLoopTimerGetTypeID(void) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopTimerGetTypeID);
/* A timer first firing at `fireDate`, then every `interval` seconds
 * (interval <= 0: once).  `flags` and `order` are kept and otherwise
 * unused.  The context is copied and its info retained through its retain
 * callback.  NULL without a callout. */
CF_EXPORT CFRunLoopTimerRef CFRunLoopTimerCreate(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                 CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                                 CFRunLoopTimerCallBack callout,
                                                 CFRunLoopTimerContext *context) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerCreate);
#if __BLOCKS__
/* The same with a block (copied) as the callout. */
CF_EXPORT CFRunLoopTimerRef CFRunLoopTimerCreateWithHandler(CFAllocatorRef allocator, CFAbsoluteTime fireDate,
                                                            CFTimeInterval interval, CFOptionFlags flags, CFIndex order,
                                                            void (^block)(CFRunLoopTimerRef timer)) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerCreateWithHandler);
#endif
CF_EXPORT void CFRunLoopAddTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopAddTimer);
/* Removes the timer from `mode` (from the common modes for
 * kCFRunLoopCommonModes); the run loop lets it go when no mode is left. */
CF_EXPORT void CFRunLoopRemoveTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopRemoveTimer);
CF_EXPORT Boolean CFRunLoopContainsTimer(CFRunLoopRef rl, CFRunLoopTimerRef timer, CFRunLoopMode mode) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopContainsTimer);

CF_EXPORT CFAbsoluteTime CFRunLoopTimerGetNextFireDate(CFRunLoopTimerRef timer) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerGetNextFireDate);
CF_EXPORT void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerSetNextFireDate);
CF_EXPORT CFTimeInterval CFRunLoopTimerGetInterval(CFRunLoopTimerRef timer) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerGetInterval);
CF_EXPORT Boolean CFRunLoopTimerDoesRepeat(CFRunLoopTimerRef timer) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopTimerDoesRepeat);
CF_EXPORT void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopTimerInvalidate);
CF_EXPORT Boolean CFRunLoopTimerIsValid(CFRunLoopTimerRef timer) CF_NOEXCEPT CF_ABI_NAME(CFRunLoopTimerIsValid);
CF_EXPORT void CFRunLoopTimerGetContext(CFRunLoopTimerRef timer, CFRunLoopTimerContext *context) CF_NOEXCEPT
    CF_ABI_NAME(CFRunLoopTimerGetContext);

/* Private to the library's own timers (a timebase re-arming a timer that
 * it alone controls).  Atomically with respect to the run loop:
 * 1. a fire date that has passed counts as a firing: the date moves on as
 *    if it had fired, and the run loop owes one callout;
 * 2. when `onlyIfFirings` is not NULL and the timer's firing count differs
 *    from *onlyIfFirings (it fired since the caller looked), nothing else
 *    changes and the result is 0;
 * 3. otherwise the next fire date becomes `fireDate` and the result is 1.
 * With `discard`, an owed callout is dropped, and the call returns only
 * when no callout of this timer is in progress on another thread.  The
 * firing count after the call is stored in *firingsOut when given.  -1 for
 * NULL. */
CF_EXPORT long _CFRunLoopTimerRearm(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate, const uint64_t *onlyIfFirings,
                                    int discard, uint64_t *firingsOut) CF_NOEXCEPT CF_ABI_NAME(_CFRunLoopTimerRearm);

CF_EXTERN_C_END

#endif /* COREFOUNDATION_CFRUNLOOP_H */
