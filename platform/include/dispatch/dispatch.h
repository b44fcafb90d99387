/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The part of the dispatch library that Sorvel uses.
 *
 * One-time initialisation.  A predicate is zero at load and holds all ones
 * (~0) once its function has run to completion, so callers may test it
 * inline and skip the call on the common path.  Concurrent first callers
 * block until the one that runs the function has finished, and then see
 * every write the function made; the function runs exactly once per
 * predicate.  The predicate must have static storage duration (or otherwise
 * start at zero and outlive every caller).  Calling dispatch_once on a
 * predicate from inside its own function is a fatal stop.
 *
 * Time.  A dispatch_time_t other than DISPATCH_TIME_NOW (0) and
 * DISPATCH_TIME_FOREVER (~0) is a CLOCK_MONOTONIC time in nanoseconds: the
 * same counter, in the same unit, as the host time clock.  Wall-clock steps
 * never move it.
 *
 * Queues run work items (blocks, or functions with a context) on threads
 * that belong to this library: worker threads that it starts on demand and
 * keeps, and one timer thread that wakes at absolute monotonic deadlines
 * (with the kernel's timer slack reduced to the minimum for that thread).
 * A serial queue (dispatch_queue_create) runs its items in submission
 * order, one at a time; a global queue runs them concurrently.
 *
 * Objects (queues, sources, semaphores, groups) are reference counted with
 * dispatch_retain / dispatch_release; creation gives the caller one
 * reference.  Queued work and armed timers keep what they need alive.
 * Global queues are immortal: retaining and releasing them does nothing.
 *
 * Timer sources (dispatch_source_create with DISPATCH_SOURCE_TYPE_TIMER)
 * are made suspended; set the handlers and the timer, then dispatch_resume.
 * The event handler runs on the target queue, never concurrently with
 * itself; dispatch_source_get_data inside it gives the number of deadlines
 * reached since the previous call (firings while suspended are coalesced).
 * dispatch_source_set_timer takes effect at once: a deadline that has
 * already passed when it is called counts as a firing (it is delivered, not
 * lost), and the new start is then armed.  After dispatch_source_cancel no
 * new event handler call starts; the cancel handler runs once, on the
 * target queue, after any event handler call in progress.
 *
 * Misuse that is not fatal (a NULL object, resuming a running object, a
 * timer call on another kind of source) is logged at level 3 and ignored.
 * Calling dispatch_sync onto the serial queue that is running the caller
 * would wait forever: it is a fatal stop.
 */
#ifndef DISPATCH_DISPATCH_H
#define DISPATCH_DISPATCH_H

#include <stdint.h>

#if defined(__cplusplus)
#define DISPATCH_EXTERN_C_BEGIN extern "C" {
#define DISPATCH_EXTERN_C_END }
#define DISPATCH_NOEXCEPT noexcept
#else
#define DISPATCH_EXTERN_C_BEGIN
#define DISPATCH_EXTERN_C_END
#define DISPATCH_NOEXCEPT
#endif

#define DISPATCH_EXPORT extern __attribute__((visibility("default")))
/* Binary names carry the library's own prefix, as in CoreFoundation/CFBase.h. */
#define DISPATCH_ABI_NAME(name) __asm__("SorvelPlatform_" #name)

DISPATCH_EXTERN_C_BEGIN

typedef intptr_t dispatch_once_t;
typedef void (*dispatch_function_t)(void *context);

DISPATCH_EXPORT void dispatch_once_f(dispatch_once_t *predicate, void *context,
                                     dispatch_function_t function) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_once_f);

#if __BLOCKS__
typedef void (^dispatch_block_t)(void);
DISPATCH_EXPORT void dispatch_once(dispatch_once_t *predicate, dispatch_block_t block) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_once);
#endif

/* ---- time ---- */

typedef uint64_t dispatch_time_t;
#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)
#define NSEC_PER_SEC 1000000000ull
#define NSEC_PER_MSEC 1000000ull
#define USEC_PER_SEC 1000000ull
#define NSEC_PER_USEC 1000ull

/* `when` (DISPATCH_TIME_NOW: the monotonic time now) moved by `delta`
 * nanoseconds, saturating: FOREVER stays FOREVER, a result past the end is
 * FOREVER, one before the start is 1 (the earliest time, already passed). */
DISPATCH_EXPORT dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_time);

/* ---- objects ---- */

#if defined(__cplusplus)
struct dispatch_object_s {
private:
    dispatch_object_s();
    ~dispatch_object_s();
    dispatch_object_s(const dispatch_object_s &);
    void operator=(const dispatch_object_s &);
};
struct dispatch_queue_s : public dispatch_object_s {};
struct dispatch_source_s : public dispatch_object_s {};
struct dispatch_semaphore_s : public dispatch_object_s {};
struct dispatch_group_s : public dispatch_object_s {};
typedef dispatch_object_s *dispatch_object_t;
#else
struct dispatch_object_s;
struct dispatch_queue_s;
struct dispatch_source_s;
struct dispatch_semaphore_s;
struct dispatch_group_s;
typedef union {
    struct dispatch_object_s *_do;
    struct dispatch_queue_s *_dq;
    struct dispatch_source_s *_ds;
    struct dispatch_semaphore_s *_dsema;
    struct dispatch_group_s *_dg;
} dispatch_object_t __attribute__((__transparent_union__));
#endif
typedef struct dispatch_queue_s *dispatch_queue_t;
typedef struct dispatch_source_s *dispatch_source_t;
typedef struct dispatch_semaphore_s *dispatch_semaphore_t;
typedef struct dispatch_group_s *dispatch_group_t;

DISPATCH_EXPORT void dispatch_retain(dispatch_object_t object) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_retain);
/* The last release frees the object; a queue's pending items hold their
 * own reference, so they still run. */
DISPATCH_EXPORT void dispatch_release(dispatch_object_t object) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_release);
/* Suspends a queue (items already running finish; the next waits) or a
 * source (event handler calls wait; firings are counted meanwhile).
 * Suspensions nest; each needs a dispatch_resume.  A new source starts
 * with one suspension. */
DISPATCH_EXPORT void dispatch_suspend(dispatch_object_t object) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_suspend);
DISPATCH_EXPORT void dispatch_resume(dispatch_object_t object) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_resume);
/* The context handed to a source's function handlers. */
DISPATCH_EXPORT void dispatch_set_context(dispatch_object_t object, void *context) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_set_context);
DISPATCH_EXPORT void *dispatch_get_context(dispatch_object_t object) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_get_context);

/* ---- queues ---- */

typedef const struct dispatch_queue_attr_s *dispatch_queue_attr_t;
#define DISPATCH_QUEUE_SERIAL ((dispatch_queue_attr_t)0)

#define DISPATCH_QUEUE_PRIORITY_HIGH 2
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
#define DISPATCH_QUEUE_PRIORITY_LOW (-2)
#define DISPATCH_QUEUE_PRIORITY_BACKGROUND (-32768)

/* A new serial queue; `label` (may be NULL) is copied. */
DISPATCH_EXPORT dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t attr) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_queue_create);
/* The label given at creation ("" for none); global queues have their own. */
DISPATCH_EXPORT const char *dispatch_queue_get_label(dispatch_queue_t queue) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_queue_get_label);
/* A concurrent queue per priority (all share the worker threads);
 * `flags` must be 0. */
DISPATCH_EXPORT dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long flags) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_get_global_queue);

DISPATCH_EXPORT void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_async_f);
/* Runs `work` on the calling thread as an item of `queue` (after the items
 * submitted before it, before those submitted after) and returns when it
 * has run. */
DISPATCH_EXPORT void dispatch_sync_f(dispatch_queue_t queue, void *context, dispatch_function_t work) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_sync_f);
/* Submits `work` to `queue` at `when` (FOREVER: never; the work is
 * dropped). */
DISPATCH_EXPORT void dispatch_after_f(dispatch_time_t when, dispatch_queue_t queue, void *context,
                                      dispatch_function_t work) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_after_f);

#if __BLOCKS__
DISPATCH_EXPORT void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_async);
DISPATCH_EXPORT void dispatch_sync(dispatch_queue_t queue, dispatch_block_t block) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_sync);
DISPATCH_EXPORT void dispatch_after(dispatch_time_t when, dispatch_queue_t queue,
                                    dispatch_block_t block) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_after);
#endif

/* ---- sources ---- */

typedef const struct dispatch_source_type_s *dispatch_source_type_t;
DISPATCH_EXPORT const struct dispatch_source_type_s _dispatch_source_type_timer
    DISPATCH_ABI_NAME(_dispatch_source_type_timer);
DISPATCH_EXPORT const struct dispatch_source_type_s _dispatch_source_type_data_add
    DISPATCH_ABI_NAME(_dispatch_source_type_data_add);
/* Fires at deadlines set with dispatch_source_set_timer. */
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)
/* Fires when data is merged in (dispatch_source_merge_data); its data is the
 * sum merged since the previous handler call. */
#define DISPATCH_SOURCE_TYPE_DATA_ADD (&_dispatch_source_type_data_add)

/* A new, suspended source whose handlers run on `queue` (NULL: the default
 * global queue).  `handle` and `mask` must be 0 for these types.  NULL for
 * an unknown type. */
DISPATCH_EXPORT dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                                         unsigned long mask, dispatch_queue_t queue) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_create);
/* Arms a timer source: the first deadline is `start`, later ones follow
 * every `interval` nanoseconds from it (no drift; deadlines missed while the
 * system was late are counted, not run one by one).  An interval of 0 or
 * DISPATCH_TIME_FOREVER fires once.  A start of DISPATCH_TIME_FOREVER
 * disarms.  `leeway` is accepted and ignored: deadlines are kept as tightly
 * as the system allows. */
DISPATCH_EXPORT void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                                               uint64_t leeway) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_set_timer);
/* Function handlers receive the source's context (dispatch_set_context). */
DISPATCH_EXPORT void dispatch_source_set_event_handler_f(dispatch_source_t source,
                                                         dispatch_function_t handler) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_set_event_handler_f);
DISPATCH_EXPORT void dispatch_source_set_cancel_handler_f(dispatch_source_t source,
                                                          dispatch_function_t handler) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_set_cancel_handler_f);
#if __BLOCKS__
DISPATCH_EXPORT void dispatch_source_set_event_handler(dispatch_source_t source,
                                                       dispatch_block_t handler) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_set_event_handler);
DISPATCH_EXPORT void dispatch_source_set_cancel_handler(dispatch_source_t source,
                                                        dispatch_block_t handler) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_set_cancel_handler);
#endif
DISPATCH_EXPORT void dispatch_source_cancel(dispatch_source_t source) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_cancel);
/* Non-zero once the source has been cancelled. */
DISPATCH_EXPORT long dispatch_source_testcancel(dispatch_source_t source) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_testcancel);
/* Inside the event handler: the firings (timer) or the sum (data add) that
 * this call delivers. */
DISPATCH_EXPORT uintptr_t dispatch_source_get_data(dispatch_source_t source) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_get_data);
DISPATCH_EXPORT void dispatch_source_merge_data(dispatch_source_t source, uintptr_t value) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_source_merge_data);

/* Private to the library's own timers (a timebase re-arming a timer that
 * it alone controls).  Atomically with respect to the timer thread:
 * 1. a deadline that has passed is counted as a firing (and delivered);
 * 2. when `onlyIfFirings` is not NULL and the source's firing count differs
 *    from *onlyIfFirings (it fired since the caller looked), nothing else
 *    changes and the result is 0;
 * 3. otherwise the timer becomes a one-shot at `start` (FOREVER disarms)
 *    and the result is 1.
 * With `discard`, firings not yet handed to the event handler are dropped,
 * and the call returns only when no event handler call of this source is
 * in progress on another thread.  The firing count after the call is
 * stored in *firingsOut when given.  -1 for a source that is not a timer
 * source. */
DISPATCH_EXPORT long _dispatch_source_timer_rearm(dispatch_source_t source, dispatch_time_t start,
                                                  const uint64_t *onlyIfFirings, int discard,
                                                  uint64_t *firingsOut) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(_dispatch_source_timer_rearm);
/* Non-zero when `source` is a timer source. */
DISPATCH_EXPORT int _dispatch_source_is_timer(dispatch_source_t source) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(_dispatch_source_is_timer);

/* ---- semaphores ---- */

/* A counting semaphore starting at `value` (NULL when value < 0). */
DISPATCH_EXPORT dispatch_semaphore_t dispatch_semaphore_create(long value) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_semaphore_create);
/* Decrements, waiting until `timeout` for the value to be positive; 0 on
 * success, non-zero when the timeout passed first. */
DISPATCH_EXPORT long dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t timeout) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_semaphore_wait);
/* Increments; non-zero when it woke a waiter. */
DISPATCH_EXPORT long dispatch_semaphore_signal(dispatch_semaphore_t semaphore) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_semaphore_signal);

/* ---- groups ---- */

DISPATCH_EXPORT dispatch_group_t dispatch_group_create(void) DISPATCH_NOEXCEPT DISPATCH_ABI_NAME(dispatch_group_create);
DISPATCH_EXPORT void dispatch_group_enter(dispatch_group_t group) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_enter);
/* Leaving more often than entering is logged and ignored. */
DISPATCH_EXPORT void dispatch_group_leave(dispatch_group_t group) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_leave);
/* 0 once the group is empty, non-zero when `timeout` passed first. */
DISPATCH_EXPORT long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_wait);
DISPATCH_EXPORT void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                                            dispatch_function_t work) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_async_f);
/* Submits `work` to `queue` once the group is empty (at once if it is). */
DISPATCH_EXPORT void dispatch_group_notify_f(dispatch_group_t group, dispatch_queue_t queue, void *context,
                                             dispatch_function_t work) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_notify_f);
#if __BLOCKS__
DISPATCH_EXPORT void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue,
                                          dispatch_block_t block) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_async);
DISPATCH_EXPORT void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue,
                                           dispatch_block_t block) DISPATCH_NOEXCEPT
    DISPATCH_ABI_NAME(dispatch_group_notify);
#endif

DISPATCH_EXTERN_C_END

#endif /* DISPATCH_DISPATCH_H */
