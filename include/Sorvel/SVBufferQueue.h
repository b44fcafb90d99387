/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVBufferQueue: a thread-safe queue of reference-counted buffers (usually
 * sample buffers) between a producer and a consumer, with triggers that call
 * back when the queue's contents reach a condition.
 *
 * The queue knows nothing about its buffers: the SVBufferCallbacks record
 * given at creation tells it how to read a buffer's time stamps, duration,
 * readiness and size, and (optionally) how to order two buffers.  Without a
 * compare callback buffers leave in arrival order; with one, each new buffer
 * goes after every buffer it does not compare strictly less than, so buffers
 * that compare equal keep their arrival order.  Two ready-made records serve
 * queues of SVSampleBuffers.
 *
 * Ownership.  Enqueue retains the buffer; dequeue hands the queue's
 * reference to the caller (who releases it); reset and finalization release
 * what is left.  SVBufferQueueGetHead returns a borrowed reference.
 *
 * Triggers.  A trigger is a condition (SVBufferQueueTriggerCondition) with a
 * threshold and a callback.  After every enqueue, dequeue and reset the
 * queue tests all its triggers in installation order and calls the callback
 * of each that holds, on the calling thread, with the queue's lock held.  A
 * callback may query the queue, but calls that change it fail while a
 * callback runs: kSVBufferQueueError_CannotModifyQueueFromTriggerCallback,
 * or NULL from the dequeue calls (which log "Can Not Modify Queue From
 * TriggerCallback").  A callback that releases the last reference to the
 * queue is tolerated: the queue lives until the call that fired the trigger
 * returns, and then logs "Invalid: Attempting to finalize a queue From
 * TriggerCallback" as it goes.
 *
 * Threads.  Every call may be made from any thread; one recursive mutex
 * inside the queue serialises them.  The validation callback runs before
 * that lock is taken; every other callback runs with it held.  The caller
 * of any call must own a reference to the queue for the length of the call.
 *
 * Arguments.  Every call that takes a queue treats an object that is not a
 * queue exactly like a NULL queue: the answer each call gives below for NULL.
 *
 * Example (a sorted queue of sample buffers that asks for more when less
 * than a second is queued):
 *
 *     SVBufferQueueRef queue;
 *     SVBufferQueueCreate(NULL, 0, SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(), &queue);
 *     SVBufferQueueTriggerToken lowWater;
 *     SVBufferQueueInstallTrigger(queue, refill, context,
 *                                 kSVBufferQueueTrigger_WhenDurationBecomesLessThan,
 *                                 SVTimeMake(1, 1), &lowWater);
 *     SVBufferQueueEnqueue(queue, sampleBuffer);                  // producer
 *     SVSampleBufferRef next = (SVSampleBufferRef)SVBufferQueueDequeueAndRetain(queue);  // consumer
 *     ...
 *     CFRelease(next);
 *     CFRelease(queue);
 */
#ifndef SORVEL_SVBUFFERQUEUE_H
#define SORVEL_SVBUFFERQUEUE_H

#include <Sorvel/SVBase.h>
#include <Sorvel/SVTime.h>
#include <stddef.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVBufferQueue *SVBufferQueueRef;

/* Any runtime object the queue's callbacks understand. */
typedef CFTypeRef SVBufferRef;

/* Status codes. */
enum {
    kSVBufferQueueError_AllocationFailed = -12760,
    /* A required argument is NULL (or a trigger condition is 0). */
    kSVBufferQueueError_RequiredParameterMissing = -12761,
    /* The callback record's version is not 0, or it has no getDuration. */
    kSVBufferQueueError_InvalidBufferCallbacksStruct = -12762,
    /* Enqueue after SVBufferQueueMarkEndOfData (until a reset). */
    kSVBufferQueueError_EnqueueAfterEndOfData = -12763,
    /* Enqueue into a queue that holds `capacity` buffers. */
    kSVBufferQueueError_QueueIsFull = -12764,
    /* A call that changes the queue was made from a trigger callback. */
    kSVBufferQueueError_CannotModifyQueueFromTriggerCallback = -12766,
    /* The trigger's condition needs a callback the record lacks, or its
     * threshold does not suit the condition. */
    kSVBufferQueueError_InvalidTriggerParameters = -12767,
    /* The trigger token is not installed on this queue. */
    kSVBufferQueueError_InvalidTriggerToken = -12768
};

/* Callbacks that read a buffer; `refcon` is the record's refcon. */
typedef SVTime (*SVBufferGetTimeCallback)(SVBufferRef buf, void *refcon);
typedef Boolean (*SVBufferGetBooleanCallback)(SVBufferRef buf, void *refcon);
/* -1 when buf1 goes before buf2, 0 when they are equal, 1 otherwise. */
typedef CFComparisonResult (*SVBufferCompareCallback)(SVBufferRef buf1, SVBufferRef buf2, void *refcon);
typedef size_t (*SVBufferGetSizeCallback)(SVBufferRef buf, void *refcon);

/* How a queue reads its buffers.  Copied at creation.  getDuration is
 * required; a missing getPresentationTimeStamp or isDataReady only rules
 * out the triggers that need it; a missing getDecodeTimeStamp or getSize
 * makes the queries that need it answer "nothing". */
typedef struct {
    uint32_t version; /* 0 */
    void *refcon;
    SVBufferGetTimeCallback getDecodeTimeStamp;
    SVBufferGetTimeCallback getPresentationTimeStamp;
    SVBufferGetTimeCallback getDuration;
    SVBufferGetBooleanCallback isDataReady;
    SVBufferCompareCallback compare;         /* NULL: arrival order */
    CFStringRef dataBecameReadyNotification; /* kept with the record; the queue never reads it */
    SVBufferGetSizeCallback getSize;
} SVBufferCallbacks;

/* Ready-made records for queues of SVSampleBuffers, constant for the life
 * of the process: time stamps, duration, readiness and total sample size
 * come from the sample buffer's own getters.  The sorted record orders
 * buffers by SVSampleBufferGetOutputPresentationTimeStamp (SVTimeCompare). */
SV_EXPORT const SVBufferCallbacks *SVBufferQueueGetCallbacksForUnsortedSampleBuffers(void) SV_NOEXCEPT;
SV_EXPORT const SVBufferCallbacks *SVBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS(void) SV_NOEXCEPT;

/* The buffer queue class's type identifier (registered on first use). */
SV_EXPORT CFTypeID SVBufferQueueGetTypeID(void) SV_NOEXCEPT;

/* Creates an empty queue holding at most `capacity` buffers (0 or less:
 * unbounded) that reads its buffers through a copy of `*callbacks`.
 * *queueOut is set to NULL first, and to the new queue on success.
 * kSVBufferQueueError_RequiredParameterMissing (queueOut or callbacks
 * NULL), _InvalidBufferCallbacksStruct, _AllocationFailed. */
SV_EXPORT OSStatus SVBufferQueueCreate(CFAllocatorRef allocator, int32_t capacity, const SVBufferCallbacks *callbacks,
                                       SVBufferQueueRef *queueOut) SV_NOEXCEPT;

/* ==== Adding and taking =================================================== */

/* Checks a buffer before it is enqueued; a non-zero result is returned by
 * SVBufferQueueEnqueue and the buffer is not enqueued. */
typedef OSStatus (*SVBufferValidationCallback)(SVBufferQueueRef queue, SVBufferRef buf, void *validationRefCon);

/* Installs (or, with NULL, removes) the validation callback.
 * kSVBufferQueueError_RequiredParameterMissing, _CannotModifyQueueFromTriggerCallback. */
SV_EXPORT OSStatus SVBufferQueueSetValidationCallback(SVBufferQueueRef queue, SVBufferValidationCallback callback,
                                                      void *validationRefCon) SV_NOEXCEPT;

/* Adds `buf` (retained) at its place, then fires the triggers that hold.
 * Returns 0, the validation callback's non-zero status, or
 * kSVBufferQueueError_RequiredParameterMissing, _CannotModifyQueueFromTriggerCallback,
 * _EnqueueAfterEndOfData, _QueueIsFull, _AllocationFailed (nothing was
 * enqueued in every failure). */
SV_EXPORT OSStatus SVBufferQueueEnqueue(SVBufferQueueRef queue, SVBufferRef buf) SV_NOEXCEPT;

/* Takes the head buffer out (the caller owns the reference returned), then
 * fires the triggers that hold.  NULL for a NULL or empty queue, and from a
 * trigger callback (logged). */
SV_EXPORT SVBufferRef SVBufferQueueDequeueAndRetain(SVBufferQueueRef queue) SV_NOEXCEPT;
/* The same, but only when the record's isDataReady says the head is ready;
 * otherwise NULL and the queue is left alone.  With a record that has no
 * isDataReady there is nothing to ask, and this dequeues like
 * SVBufferQueueDequeueAndRetain. */
SV_EXPORT SVBufferRef SVBufferQueueDequeueIfDataReadyAndRetain(SVBufferQueueRef queue) SV_NOEXCEPT;

/* ==== Reading ============================================================= */

/* The head buffer, borrowed (valid until it is dequeued), or NULL. */
SV_EXPORT SVBufferRef SVBufferQueueGetHead(SVBufferQueueRef queue) SV_NOEXCEPT;
/* The number of buffers; kSVBufferQueueError_RequiredParameterMissing
 * (-12761) for a NULL queue. */
SV_EXPORT SVItemCount SVBufferQueueGetBufferCount(SVBufferQueueRef queue) SV_NOEXCEPT;
/* True for an empty or NULL queue. */
SV_EXPORT Boolean SVBufferQueueIsEmpty(SVBufferQueueRef queue) SV_NOEXCEPT;

/* The sum of getDuration over the buffers, head to tail, from kSVTimeZero
 * with SVTimeAdd; the all-zero time for a NULL queue.  An empty queue's
 * duration is kSVTimeZero. */
SV_EXPORT SVTime SVBufferQueueGetDuration(SVBufferQueueRef queue) SV_NOEXCEPT;
/* The sum of getSize over the buffers; 0 for a NULL queue or a record
 * without getSize. */
SV_EXPORT size_t SVBufferQueueGetTotalSize(SVBufferQueueRef queue) SV_NOEXCEPT;

/* Time stamps of the buffers present, read with the record's callbacks.
 * Each answers kSVTimeInvalid for a NULL or empty queue, a record without
 * the callback it needs, or when no buffer has a valid stamp.
 * - First...: the head buffer's stamp (whatever it is).
 * - Min.../Max...: the least / greatest valid stamp by SVTimeCompare (the
 *   first one met among equals).
 * - End presentation: the greatest valid presentation stamp + duration
 *   (SVTimeAdd) over the buffers. */
SV_EXPORT SVTime SVBufferQueueGetFirstDecodeTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;
SV_EXPORT SVTime SVBufferQueueGetFirstPresentationTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;
SV_EXPORT SVTime SVBufferQueueGetMinDecodeTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;
SV_EXPORT SVTime SVBufferQueueGetMinPresentationTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;
SV_EXPORT SVTime SVBufferQueueGetMaxPresentationTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;
SV_EXPORT SVTime SVBufferQueueGetEndPresentationTimeStamp(SVBufferQueueRef queue) SV_NOEXCEPT;

/* Calls `callback(buffer, refcon)` for each buffer, head first, with the
 * lock held; a non-zero result stops the walk and is returned.  The walk
 * covers the buffers present when it starts.
 * kSVBufferQueueError_RequiredParameterMissing (queue or callback NULL). */
SV_EXPORT OSStatus SVBufferQueueCallForEachBuffer(SVBufferQueueRef queue,
                                                  OSStatus (*callback)(SVBufferRef buffer, void *refcon),
                                                  void *refcon) SV_NOEXCEPT;

/* ==== End of data and reset =============================================== */

/* Refuses further enqueues until a reset.  Does not fire triggers.
 * kSVBufferQueueError_RequiredParameterMissing, _CannotModifyQueueFromTriggerCallback. */
SV_EXPORT OSStatus SVBufferQueueMarkEndOfData(SVBufferQueueRef queue) SV_NOEXCEPT;
/* Whether end of data is marked (true for a NULL queue). */
SV_EXPORT Boolean SVBufferQueueContainsEndOfData(SVBufferQueueRef queue) SV_NOEXCEPT;
/* Whether end of data is marked and the queue is empty (true for NULL). */
SV_EXPORT Boolean SVBufferQueueIsAtEndOfData(SVBufferQueueRef queue) SV_NOEXCEPT;

/* Releases every buffer, clears end of data and fires the triggers (the
 * reset condition holds during this one test).
 * kSVBufferQueueError_RequiredParameterMissing, _CannotModifyQueueFromTriggerCallback. */
SV_EXPORT OSStatus SVBufferQueueReset(SVBufferQueueRef queue) SV_NOEXCEPT;
/* SVBufferQueueReset that first calls `callback(buffer, refcon)` for each
 * buffer, head first, just before releasing it.  A NULL callback is
 * kSVBufferQueueError_RequiredParameterMissing. */
SV_EXPORT OSStatus SVBufferQueueResetWithCallback(SVBufferQueueRef queue,
                                                  void (*callback)(SVBufferRef buffer, void *refcon),
                                                  void *refcon) SV_NOEXCEPT;

/* ==== Triggers ============================================================ */

typedef struct opaqueSVBufferQueueTriggerToken *SVBufferQueueTriggerToken;
typedef void (*SVBufferQueueTriggerCallback)(void *triggerRefcon, SVBufferQueueTriggerToken triggerToken);

typedef int32_t SVBufferQueueTriggerCondition;
enum {
    /* Queue duration compared with the time threshold (SVTimeCompare). */
    kSVBufferQueueTrigger_WhenDurationBecomesLessThan = 1,
    kSVBufferQueueTrigger_WhenDurationBecomesLessThanOrEqualTo = 2,
    kSVBufferQueueTrigger_WhenDurationBecomesGreaterThan = 3,
    kSVBufferQueueTrigger_WhenDurationBecomesGreaterThanOrEqualTo = 4,
    /* The greatest / least presentation stamp differs from the one the
     * queue last recorded (enqueue records the new buffer's after testing;
     * dequeue and reset record afresh). */
    kSVBufferQueueTrigger_WhenMaxPresentationTimeStampChanges = 5,
    kSVBufferQueueTrigger_WhenMinPresentationTimeStampChanges = 6,
    /* isDataReady of the head (asked with NULL when empty) is true. */
    kSVBufferQueueTrigger_WhenDataBecomesReady = 7,
    /* End of data is marked and the queue is empty. */
    kSVBufferQueueTrigger_WhenEndOfDataReached = 8,
    /* During a reset. */
    kSVBufferQueueTrigger_WhenReset = 9,
    /* Buffer count compared with the integer threshold. */
    kSVBufferQueueTrigger_WhenBufferCountBecomesLessThan = 10,
    kSVBufferQueueTrigger_WhenBufferCountBecomesGreaterThan = 11
    /* Other non-zero conditions are accepted and never hold. */
};

/* Installs a trigger with a time threshold (conditions 1 to 4 need a
 * numeric one and the getDuration callback; 5 and 6 getPresentationTimeStamp;
 * 7 isDataReady).  `callback` may be NULL when `triggerTokenOut` is given
 * (the trigger is then polled with SVBufferQueueTestTrigger).  The token is
 * valid until the trigger is removed or the queue finalized.
 * Install-time callback: when the trigger already holds, its callback is
 * called once before this returns, on the caller's thread with the queue's
 * lock held.  Unlike callbacks fired by a change of the queue, this one may
 * change the queue, and in particular may remove the new trigger with the
 * token it is given; then `*triggerTokenOut` is set back to NULL (and the
 * call still returns 0), so a token handed back always names an installed
 * trigger.
 * kSVBufferQueueError_RequiredParameterMissing (queue NULL, condition 0, or
 * neither callback nor token output), _InvalidTriggerParameters,
 * _CannotModifyQueueFromTriggerCallback, _AllocationFailed. */
SV_EXPORT OSStatus SVBufferQueueInstallTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerCallback callback,
                                               void *triggerRefcon, SVBufferQueueTriggerCondition condition,
                                               SVTime time, SVBufferQueueTriggerToken *triggerTokenOut) SV_NOEXCEPT;
/* The same with an integer threshold (condition 10 needs a non-zero one). */
SV_EXPORT OSStatus SVBufferQueueInstallTriggerWithIntegerThreshold(
    SVBufferQueueRef queue, SVBufferQueueTriggerCallback callback, void *triggerRefcon,
    SVBufferQueueTriggerCondition condition, int32_t threshold, SVBufferQueueTriggerToken *triggerTokenOut) SV_NOEXCEPT;
/* Removes and frees a trigger.  kSVBufferQueueError_RequiredParameterMissing,
 * _CannotModifyQueueFromTriggerCallback, _InvalidTriggerToken. */
SV_EXPORT OSStatus SVBufferQueueRemoveTrigger(SVBufferQueueRef queue,
                                              SVBufferQueueTriggerToken triggerToken) SV_NOEXCEPT;
/* Whether the trigger's condition holds now.  False, and a level-3 line,
 * for a NULL queue ("The queue is null") or a token not installed on it
 * ("The trigger is not installed on the queue"). */
SV_EXPORT Boolean SVBufferQueueTestTrigger(SVBufferQueueRef queue, SVBufferQueueTriggerToken triggerToken) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVBUFFERQUEUE_H */
