/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SVSimpleQueue: a fixed-capacity first-in-first-out queue of non-NULL
 * pointers that one producer thread and one consumer thread may use at the
 * same time without a lock.
 *
 * The queue never retains, releases or otherwise touches its elements: they
 * are opaque pointers owned by the caller.  NULL cannot be enqueued, so a
 * NULL from SVSimpleQueueDequeue always means that nothing was taken.
 *
 * Threads.  Exactly one thread at a time may enqueue (the producer) and
 * exactly one thread at a time may dequeue or read the head (the consumer);
 * the two may run at the same time.  Everything the producer wrote to an
 * element before enqueueing it is visible to the consumer that dequeues it
 * (the enqueue releases, the dequeue acquires).  SVSimpleQueueGetCount and
 * SVSimpleQueueGetCapacity may be called from any thread.  Several producers
 * or several consumers at once are not supported, and SVSimpleQueueReset
 * must not run while either side is busy.  Handing the producer or consumer
 * role to another thread needs the caller's own synchronisation.
 *
 * Example:
 *
 *     SVSimpleQueueRef queue;
 *     if (SVSimpleQueueCreate(NULL, 64, &queue) == 0) {
 *         // producer thread
 *         if (SVSimpleQueueEnqueue(queue, frame) == kSVSimpleQueueError_QueueIsFull) ...
 *         // consumer thread
 *         const void *next = SVSimpleQueueDequeue(queue);   // NULL: empty
 *         ...
 *         CFRelease(queue);
 *     }
 *
 * Arguments.  Every call that takes a queue treats an object that is not a
 * simple queue exactly like NULL: the answer each call gives below for a
 * NULL queue.
 */
#ifndef SORVEL_SVSIMPLEQUEUE_H
#define SORVEL_SVSIMPLEQUEUE_H

#include <Sorvel/SVBase.h>
#include <stdint.h>

SV_EXTERN_C_BEGIN

typedef struct OpaqueSVSimpleQueue *SVSimpleQueueRef;

/* Status codes. */
enum {
    /* The queue could not be created (out of memory, or a negative
     * capacity). */
    kSVSimpleQueueError_AllocationFailed = -12770,
    /* The queue or the element is NULL. */
    kSVSimpleQueueError_RequiredParameterMissing = -12771,
    /* Enqueue on a queue that holds `capacity` elements. */
    kSVSimpleQueueError_QueueIsFull = -12773
};

/* The simple queue class's type identifier (registered on first use). */
SV_EXPORT CFTypeID SVSimpleQueueGetTypeID(void) SV_NOEXCEPT;

/* Creates a queue that holds up to `capacity` elements.  Storage is rounded
 * up to a power of two, so a capacity of 3 takes four slots but still holds
 * three elements.  A capacity of 0 makes a queue that refuses every enqueue
 * as full.  A negative capacity is refused: kSVSimpleQueueError_AllocationFailed
 * is returned, `*queueOut` set to NULL and the refusal logged at level 3.
 * kSVSimpleQueueError_AllocationFailed (with `*queueOut` NULL) also when
 * memory runs out, and (logged) when the slots of `capacity` would not fit
 * in the address space; kSVSimpleQueueError_RequiredParameterMissing for a
 * NULL `queueOut`.  Slots are not cleared at creation, so a queue of large
 * capacity costs memory only for the slots that enqueues actually reach.
 * The caller owns the new queue (CFRelease). */
SV_EXPORT OSStatus SVSimpleQueueCreate(CFAllocatorRef allocator, int32_t capacity,
                                       SVSimpleQueueRef *queueOut) SV_NOEXCEPT;

/* Appends `element` (producer only).  kSVSimpleQueueError_RequiredParameterMissing
 * for a NULL queue or element, kSVSimpleQueueError_QueueIsFull when the
 * queue holds `capacity` elements. */
SV_EXPORT OSStatus SVSimpleQueueEnqueue(SVSimpleQueueRef queue, const void *element) SV_NOEXCEPT;

/* Removes and returns the oldest element (consumer only); NULL when the
 * queue is empty or NULL. */
SV_EXPORT const void *SVSimpleQueueDequeue(SVSimpleQueueRef queue) SV_NOEXCEPT;

/* The oldest element without removing it (consumer only); NULL when the
 * queue is empty or NULL. */
SV_EXPORT const void *SVSimpleQueueGetHead(SVSimpleQueueRef queue) SV_NOEXCEPT;

/* Empties the queue (the elements are not touched).  Not safe while the
 * producer or the consumer is running.  kSVSimpleQueueError_RequiredParameterMissing
 * for NULL. */
SV_EXPORT OSStatus SVSimpleQueueReset(SVSimpleQueueRef queue) SV_NOEXCEPT;

/* The capacity given at creation; 0 for NULL.  Any thread. */
SV_EXPORT int32_t SVSimpleQueueGetCapacity(SVSimpleQueueRef queue) SV_NOEXCEPT;

/* The number of elements, from a consistent snapshot of both ends; 0 for
 * NULL.  Any thread; with the producer and consumer running the answer may
 * be out of date as soon as it is returned. */
SV_EXPORT int32_t SVSimpleQueueGetCount(SVSimpleQueueRef queue) SV_NOEXCEPT;

SV_EXTERN_C_END

#endif /* SORVEL_SVSIMPLEQUEUE_H */
